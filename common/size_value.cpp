#include "common/size_value.h"

#include <cctype>

namespace size_value {

namespace {

int DigitValue(char c, unsigned base)
{
    const unsigned char u = static_cast<unsigned char>(c);
    int digit = -1;
    if (std::isdigit(u))
        digit = c - '0';
    else if (std::isxdigit(u))
        digit = std::tolower(u) - 'a' + 10;
    return digit >= 0 && static_cast<unsigned>(digit) < base ? digit : -1;
}

uint64_t Multiplier(char suffix)
{
    switch (suffix) {
    case 'k': case 'K': return 1024;
    case 'm': case 'M': return 1024 * 1024;
    default: return 0;
    }
}

}  // namespace

bool Parse(const std::string& text, uint64_t& value)
{
    size_t pos = 0;
    unsigned base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        pos = 2;
    }
    uint64_t number = 0;
    const size_t firstDigit = pos;
    for (; pos < text.size(); ++pos) {
        const int digit = DigitValue(text[pos], base);
        if (digit < 0)
            break;
        number = number * base + static_cast<unsigned>(digit);
        if (number > kMaxValue)
            return false;
    }
    if (pos == firstDigit)
        return false;
    if (pos + 1 == text.size()) {
        const uint64_t scale = Multiplier(text[pos]);
        if (scale == 0 || number * scale > kMaxValue)
            return false;
        number *= scale;
        ++pos;
    }
    if (pos != text.size())
        return false;
    value = number;
    return true;
}

}  // namespace size_value
