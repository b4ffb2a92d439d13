#include "frontend/warnings.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include "common/flash_geometry.h"
#include "common/link_timing.h"
#include "common/setting_record.h"
#include "frontend/Setting.h"
#include "serial/CCommU.h"

namespace warnings {

namespace {

std::string Trim(const std::string& text)
{
    const char* blanks = " \t\r\n";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool KnownSection(const std::string& section)
{
    for (const SettingsKey& k : SettingsKeys())
        if (section == k.section)
            return true;
    return false;
}

const SettingsKey* FindKey(const std::string& section, const std::string& key)
{
    for (const SettingsKey& k : SettingsKeys())
        if (section == k.section && key == k.key)
            return &k;
    return nullptr;
}

// Whether all of `text` is a number as the loader reads it: decimal for the
// integer keys, "0x" and hexadecimal digits for the address keys.
bool WholeNumber(const std::string& text, SettingsKeyKind kind)
{
    if (kind == SettingsKeyKind::kHex) {
        if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X'))
            return false;
        return text.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string::npos;
    }
    const size_t start = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
    return text.size() > start && text.find_first_not_of("0123456789", start) == std::string::npos;
}

}  // namespace

void IgnoredWords(int argc, char* argv[], int firstUnused)
{
    if (firstUnused < 1 || firstUnused >= argc)
        return;
    std::string words;
    for (int i = firstUnused; i < argc; ++i)
        words += std::string(" ") + argv[i];
    std::fprintf(stderr, "warning: option parsing stopped at \"%s\"; ignored:%s\n", argv[firstUnused],
                 words.c_str());
}

void SettingsFile(const char* path, bool named)
{
    std::ifstream file(path);
    if (!file) {
        if (named)
            std::fprintf(stderr, "warning: settings file %s cannot be read (%s); its keys keep their defaults\n",
                         path, std::strerror(errno));
        return;
    }
    std::string section, line;
    for (int number = 1; std::getline(file, line); ++number) {
        line = Trim(line);
        if (line.empty() || line[0] == '#' || line[0] == ';')
            continue;
        if (line[0] == '[') {
            const size_t close = line.find(']');
            section = line.substr(1, close == std::string::npos ? std::string::npos : close - 1);
            if (!KnownSection(section))
                std::fprintf(stderr, "warning: %s:%d: unknown section [%s]; its keys are ignored\n", path, number,
                             section.c_str());
            continue;
        }
        const size_t equals = line.find('=');
        if (equals == std::string::npos || !KnownSection(section))
            continue;
        const std::string key = Trim(line.substr(0, equals));
        const std::string value = Trim(line.substr(equals + 1));
        const SettingsKey* known = FindKey(section, key);
        if (!known) {
            std::fprintf(stderr, "warning: %s:%d: unknown key %s in [%s]; ignored\n", path, number, key.c_str(),
                         section.c_str());
            continue;
        }
        if ((known->kind == SettingsKeyKind::kDecimal || known->kind == SettingsKeyKind::kHex) && !value.empty() &&
            !WholeNumber(value, known->kind))
            std::fprintf(stderr, "warning: %s:%d: %s=%s is not a whole %s number; only its leading digits count\n",
                         path, number, key.c_str(), value.c_str(),
                         known->kind == SettingsKeyKind::kHex ? "0x hexadecimal" : "decimal");
    }
}

void OptionNumber(int letter, const char* text)
{
    if (!text || !std::strchr("AbLdefgru", letter))
        return;
    char* end = nullptr;
    errno = 0;
    // -A and -L read as C does (0x hex, leading 0 octal), the rest as decimal.
    const bool address = letter == 'A' || letter == 'L';
    const unsigned long long value =
        address ? std::strtoull(text, &end, 0) : static_cast<unsigned long long>(std::strtoll(text, &end, 10));
    if (end != text && *end == '\0' && errno == 0)
        return;
    std::fprintf(stderr, "warning: -%c %s: not a whole number; taken as %llu\n", letter, text,
                 address ? static_cast<unsigned long long>(static_cast<uint32_t>(value))
                         : static_cast<unsigned long long>(std::atoi(text)));
}

void DebugRange(uint32_t op, uint32_t address, uint32_t length, const char* writeFile)
{
    const uint32_t sector = flash_geometry::kSectorSize, block = flash_geometry::kEraseBlockSize;
    if ((op == kDebugRead || op == kDebugWrite) && address % sector != 0)
        std::fprintf(stderr,
                     "warning: address 0x%08X is not at a %u-byte sector start; the flash commands start at "
                     "0x%08X\n",
                     address, sector, address / sector * sector);
    if (op == kDebugErase && length != 0 && (address % block != 0 || (uint64_t(address) + length) % block != 0)) {
        const uint64_t first = address / block * uint64_t(block);
        const uint64_t end = (uint64_t(address) + length + block - 1) / block * block;
        std::fprintf(stderr, "warning: erase widened to whole 64 KiB blocks: 0x%08llX-0x%08llX is erased\n",
                     static_cast<unsigned long long>(first), static_cast<unsigned long long>(end - 1));
    }
    struct stat info;
    if (op == kDebugWrite && writeFile && stat(writeFile, &info) == 0 && S_ISREG(info.st_mode) &&
        static_cast<uint64_t>(info.st_size) > length)
        std::fprintf(stderr, "warning: %s holds %lld bytes; only the first 0x%X (-L) are written\n", writeFile,
                     static_cast<long long>(info.st_size), length);
}

int WorkingRate(uint32_t baud, bool fast)
{
    for (int i = 0; i < kRateTableSize; ++i)
        if (name_arr[i] == baud)
            return 0;
    std::string rates;
    for (int i = 0; i < kRateTableSize; ++i)
        rates += " " + std::to_string(name_arr[i]);
    if (fast) {
        std::fprintf(stderr, "error: the serial port does not take %u bit/s; rates it takes:%s\n", baud,
                     rates.c_str());
        return -1;
    }
    std::fprintf(stderr,
                 "warning: the serial port does not take %u bit/s (rates it takes:%s); it stays at %u after the "
                 "target changes speed, so it and the target will disagree on the speed\n",
                 baud, rates.c_str(), static_cast<unsigned>(link_timing::kBootRate));
    return 0;
}

}  // namespace warnings
