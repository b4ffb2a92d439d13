// Sizes and addresses as the newer options take them: "0x" hexadecimal or decimal
// digits, optionally followed by K (x 1,024) or M (x 1,048,576). Anything else
// (an empty word, a sign, a trailing character, a value past 4 GiB) is refused,
// so a typo never turns into a different address.
#pragma once
#include <cstdint>
#include <string>

namespace size_value {

// The largest value taken: the 32-bit flash address space itself (4 GiB).
constexpr uint64_t kMaxValue = uint64_t(1) << 32;

// True and the value in `value` when `text` is a whole, valid size or address.
bool Parse(const std::string& text, uint64_t& value);

}  // namespace size_value
