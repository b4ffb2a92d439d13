// The settings file reader. Each lookup opens the file, scans it from the top and
// closes it again; nothing is cached.

#include <cstdio>
#include <cstdlib>

#include "frontend/get_settings.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "common/stdio_file.h"

namespace {

enum {
    kPieceBufferSize = 100,    // fgets buffer: one piece of at most 99 characters
    kSectionPatternSize = 32,  // "[name]" for names of at most 29 characters
    kKeyTokenSize = 32,        // keys of at most 31 characters
    kNumberTextSize = 20,      // numeric values of at most 19 characters
};

bool IsSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// Removes trailing whitespace in place.
void StripTrailingSpace(char* text)
{
    size_t len = std::strlen(text);
    while (len > 0 && IsSpace(text[len - 1]))
        --len;
    text[len] = '\0';
}

// "[name]". A name too long for the pattern buffer can never match: cutting it
// short would turn the pattern into a prefix of other section names.
bool FormatSectionPattern(char (&pattern)[kSectionPatternSize], const char* section)
{
    int n = std::snprintf(pattern, sizeof pattern, "[%s]", section);
    return n >= 0 && n < static_cast<int>(sizeof pattern);
}

// Reads the next piece of a line and left-trims it into line; false at the end
// of the file or on a read error.
bool ReadTrimmedPiece(std::FILE* fp, char (&line)[kPieceBufferSize])
{
    char raw[kPieceBufferSize];
    if (!std::fgets(raw, sizeof raw, fp))
        return false;
    l_trim(line, raw);
    return true;
}

bool IsSectionHeader(const char* line, const char* pattern)
{
    return line[0] == '[' && std::strncmp(line, pattern, std::strlen(pattern)) == 0;
}

// Skips to the line after the first header that matches pattern.
bool FindSection(std::FILE* fp, const char* pattern)
{
    char line[kPieceBufferSize];
    while (ReadTrimmedPiece(fp, line)) {
        if (IsSectionHeader(line, pattern))
            return true;
    }
    return false;
}

// The key token runs up to the first '=', blank, tab, '|' or '^'. The token buffer
// has one byte more than the longest key, so a longer token is recognised as too
// long (and never matches) instead of being cut down to a prefix that might.
bool KeyMatches(const char* line, const char* key)
{
    static_assert(kKeyTokenSize == 32, "the scan width below is kKeyTokenSize");
    char token[kKeyTokenSize + 1] = {};
    if (std::sscanf(line, "%32[^=|^ |^\t]", token) != 1)
        token[0] = '\0';
    if (std::strlen(token) >= kKeyTokenSize)
        return false;
    return std::strcmp(token, key) == 0;
}

// Finds the key's entry inside the section that starts at the current position and
// leaves its line in line. The section ends at the next header.
bool FindEntry(std::FILE* fp, const char* key, char (&line)[kPieceBufferSize])
{
    while (ReadTrimmedPiece(fp, line)) {
        if (line[0] == '\0' || line[0] == '#')
            continue;
        if (line[0] == '[')
            return false;
        if (std::strchr(line, '=') && KeyMatches(line, key))
            return true;
    }
    return false;
}

// Copies the text after the entry's '=' up to the line feed into value, at most
// capacity - 1 characters (a longer value is cut short). An empty value stores
// nothing, so the caller's buffer keeps what it held.
void StoreValue(const char* entryLine, char* value, size_t capacity)
{
    const char* text = std::strchr(entryLine, '=') + 1;
    size_t len = std::strcspn(text, "\n");
    if (len == 0)
        return;
    if (len > capacity - 1)
        len = capacity - 1;
    std::memcpy(value, text, len);
    value[len] = '\0';
}

// Trims the value; a value of blanks only stays as it is.
void TrimValue(char* value)
{
    size_t len = std::strlen(value);
    std::unique_ptr<char[]> trimmed(new (std::nothrow) char[len + 1]);
    if (!trimmed)
        return;  // keep the untrimmed value
    a_trim(trimmed.get(), value);
    if (trimmed[0] != '\0')
        std::strcpy(value, trimmed.get());
}

int LookupValue(const char* file, const char* section, const char* key, char* value,
                size_t capacity)
{
    char pattern[kSectionPatternSize];
    if (!FormatSectionPattern(pattern, section))
        return -1;
    UniqueFile fp = OpenFile(file, "r");
    if (!fp)
        return -1;
    char line[kPieceBufferSize];
    if (!FindSection(fp.get(), pattern) || !FindEntry(fp.get(), key, line))
        return -1;
    StoreValue(line, value, capacity);
    TrimValue(value);
    return 0;
}

// The numeric getters read into a zero-filled 20-byte buffer; longer values are cut
// to their first 19 characters.
bool LookupNumberText(const char* file, const char* section, const char* key,
                      char (&text)[kNumberTextSize])
{
    std::memset(text, 0, sizeof text);
    return LookupValue(file, section, key, text, sizeof text) == 0;
}

// The hex getter's default is a float. It is truncated toward zero; negative
// defaults wrap as a negative integer would, and NaN or values beyond 32 bits give 0.
unsigned int TruncateDefault(float value)
{
    if (!(value > -2147483649.0f && value < 4294967296.0f))
        return 0;
    return static_cast<unsigned int>(static_cast<long long>(value));
}

}  // namespace

int GetProfileStr(char* file, char* section, char* key, char* value)
{
    return LookupValue(file, section, key, value, kPieceBufferSize);
}

// The default's characters are copied without a terminator of their own: callers
// hand in zero-filled buffers.
int GetProfileString(char* file, char* section, char* key, char* value, char* defaultText)
{
    if (GetProfileStr(file, section, key, value) == 0)
        return 0;
    std::memcpy(value, defaultText, std::strlen(defaultText));
    return -1;
}

int GetProfileInt(char* file, char* section, char* key, int defaultValue)
{
    char text[kNumberTextSize];
    if (!LookupNumberText(file, section, key, text))
        return defaultValue;
    return std::atoi(text);
}

float GetProfileFloat(char* file, char* section, char* key, float defaultValue)
{
    char text[kNumberTextSize];
    if (!LookupNumberText(file, section, key, text))
        return defaultValue;
    return static_cast<float>(std::atof(text));
}

// The value is written "0x" and hexadecimal digits: the first two characters are
// skipped whatever they are.
unsigned int GetProfileHex(char* file, char* section, char* key, float defaultValue)
{
    char text[kNumberTextSize];
    if (!LookupNumberText(file, section, key, text))
        return TruncateDefault(defaultValue);
    if (std::strlen(text) < 3)
        return 0;
    return static_cast<unsigned int>(std::strtoul(text + 2, nullptr, 16));
}

namespace {

// The trim functions' preconditions hold for every caller in this program; one that
// fails is a programming error, so it stops the program in every build, release
// builds included, instead of reading through a null or overlapping pointer.
void RequireTrim(bool holds, const char* function, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "get_settings: %s: precondition failed: %s\n", function, what);
    std::abort();
}

}  // namespace

char* l_trim(char* szOutput, const char* szInput)
{
    RequireTrim(szInput != NULL, __func__, "szInput != NULL");
    RequireTrim(szOutput != NULL, __func__, "szOutput != NULL");
    RequireTrim(szOutput != szInput, __func__, "szOutput != szInput");
    while (*szInput != '\0' && IsSpace(*szInput))
        ++szInput;
    return std::strcpy(szOutput, szInput);
}

char* r_trim(char* szOutput, const char* szInput)
{
    RequireTrim(szInput != NULL, __func__, "szInput != NULL");
    RequireTrim(szOutput != NULL, __func__, "szOutput != NULL");
    RequireTrim(szOutput != szInput, __func__, "szOutput != szInput");
    std::strcpy(szOutput, szInput);
    StripTrailingSpace(szOutput);
    return szOutput;
}

// The left trim's own checks catch identical buffers here too.
char* a_trim(char* szOutput, const char* szInput)
{
    RequireTrim(szInput != NULL, __func__, "szInput != NULL");
    RequireTrim(szOutput != NULL, __func__, "szOutput != NULL");
    l_trim(szOutput, szInput);
    StripTrailingSpace(szOutput);
    return szOutput;
}
