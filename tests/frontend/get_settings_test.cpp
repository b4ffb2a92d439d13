#include "frontend/get_settings.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/process.h"

namespace {

// GetProfileString on a file holding text, with a zero-filled buffer and default "DEF".
std::pair<int, std::string> LookupString(const std::string& text, std::string section, std::string key)
{
    TempDir dir;
    std::string path = dir.File("settings.ini");
    WriteText(path, text);
    char value[260] = {};
    std::string def = "DEF";
    int result = GetProfileString(&path[0], &section[0], &key[0], value, &def[0]);
    return {result, value};
}

struct StringCase {
    const char* name;
    std::string text;
    std::string section;
    std::string key;
    int result;
    std::string value;
};

TEST(GetProfileString, LookupFollowsTheLineRules)
{
    const std::string key31(31, 'k'), key32(32, 'k'), sect29(29, 's'), sect30(30, 's');
    const StringCase cases[] = {
        {"plain entry", "[comm]\nkey=value\n", "comm", "key", 0, "value"},
        {"blanks and tabs", "[comm]\n \t\f key \t=\t value \v\n", "comm", "key", 0, "value"},
        {"key in other case", "[comm]\nKEY=value\n", "comm", "key", -1, "DEF"},
        {"colon instead of =", "[comm]\nkey:value\n", "comm", "key", -1, "DEF"},
        {"no such section", "[log]\nkey=value\n", "comm", "key", -1, "DEF"},
        {"only second copy of section", "[comm]\na=1\n[x]\n[comm]\nkey=v\n", "comm", "key", -1, "DEF"},
        {"first key wins", "[comm]\nkey=1\nkey=2\n", "comm", "key", 0, "1"},
        {"entry before any header", "key=v\n[comm]\n", "comm", "key", -1, "DEF"},
        {"next header ends section", "[comm]\n[log]\nkey=v\n", "comm", "key", -1, "DEF"},
        {"comment with =", "[comm]\n#key=x\nkey=y\n", "comm", "key", 0, "y"},
        {"semicolon is no comment", "[comm]\n;key=x\nkey=y\n", "comm", "key", 0, "y"},
        {"text after header", "[comm] # c\nkey=v\n", "comm", "key", 0, "v"},
        {"blanks inside brackets", "[ comm ]\nkey=v\n", "comm", "key", -1, "DEF"},
        {"last line without LF", "[comm]\nkey=v", "comm", "key", 0, "v"},
        {"header on last line", "[comm]", "comm", "key", -1, "DEF"},
        {"CR LF lines", "[comm]\r\n\r\nkey=value\r\n", "comm", "key", 0, "value"},
        {"two words before =", "[comm]\nkey other=v w\n", "comm", "key", 0, "v w"},
        {"= inside the value", "[comm]\nkey=a=b\n", "comm", "key", 0, "a=b"},
        {"token stops at |", "[comm]\nkey|x=v\n", "comm", "key", 0, "v"},
        {"empty value keeps buffer", "[comm]\nkey=\n", "comm", "key", 0, ""},
        {"blank value untrimmed", "[comm]\nkey=   \n", "comm", "key", 0, "   "},
        {"high bytes are no blanks", "[comm]\nkey=\xA0v\xA0\n", "comm", "key", 0, "\xA0v\xA0"},
        {"comment tail read as entry", "[comm]\n#" + std::string(98, 'x') + "key=tail\n", "comm", "key", 0, "tail"},
        {"value cut at 99-character piece", "[comm]\nkey=" + std::string(120, 'v') + "\n", "comm",
         "key", 0, std::string(95, 'v')},
        {"31-character key", "[comm]\n" + key31 + "=v\n", "comm", key31, 0, "v"},
        {"32-character key never matches", "[comm]\n" + key32 + "=v\n", "comm", key32, -1, "DEF"},
        {"long token is no prefix match", "[comm]\n" + key32 + "=v\n", "comm", key31, -1, "DEF"},
        {"29-character section", "[" + sect29 + "]\nkey=v\n", sect29, "key", 0, "v"},
        {"30-character section", "[" + sect30 + "]\nkey=v\n", sect30, "key", -1, "DEF"},
    };
    for (const StringCase& c : cases)
        EXPECT_EQ(std::make_pair(c.result, c.value), LookupString(c.text, c.section, c.key)) << c.name;
}

// value: the text after "key="; "<none>" leaves the key out
struct NumberCase { std::string value; int asInt; unsigned asHex; float asFloat; };

TEST(GetProfileNumbers, ConversionRules)
{
    // The hex getter skips the first two characters whatever they are; atof reads
    // hexadecimal text as well.
    const NumberCase cases[] = {
        {"<none>", 77, 512, 2.5f}, {"   ", 0, 0, 0.0f}, {"abc", 0, 0xC, 0.0f}, {"12abc", 12, 0xABC, 12.0f},
        {"-5", -5, 0, -5.0f}, {"0x00010000", 0, 65536, 65536.0f}, {"0X1f", 0, 31, 31.0f}, {"0x200", 0, 512, 512.0f},
        {"1000", 1000, 0, 1000.0f}, {"", 0, 0, 0.0f},  // nothing left over from the value before
        {"0x", 0, 0, 0.0f}, {"0x1FFFFFFFF", 0, 0xFFFFFFFF, 8589934591.0f}, {"1.5", 1, 5, 1.5f},
        // Longer than 19 characters: cut to its first 19, never written past the buffer.
        {"000000000000000000012", 0, 0, 0.0f},
    };
    TempDir dir;
    std::string path = dir.File("n.ini"), section = "s", key = "key";
    for (const NumberCase& c : cases) {
        WriteText(path, c.value == "<none>" ? "[s]\n" : "[s]\nkey=" + c.value + "\n");
        EXPECT_EQ(c.asInt, GetProfileInt(&path[0], &section[0], &key[0], 77)) << c.value;
        EXPECT_EQ(c.asHex, GetProfileHex(&path[0], &section[0], &key[0], 512.0f)) << c.value;
        EXPECT_FLOAT_EQ(c.asFloat, GetProfileFloat(&path[0], &section[0], &key[0], 2.5f)) << c.value;
    }
    WriteText(path, "");
    // Defaults: truncated toward zero; negative ones wrap; beyond 32 bits, 0.
    const std::pair<float, unsigned int> defaults[] = {{3.9f, 3u}, {-2.0f, 0xFFFFFFFEu}, {5e9f, 0u}, {-3e9f, 0u}};
    for (const auto& d : defaults)
        EXPECT_EQ(d.second, GetProfileHex(&path[0], &section[0], &key[0], d.first)) << d.first;
}

// Each trim copies its input without the blanks at one end or at both; an all-blank
// input gives an empty string.
TEST(Trims, CopyTheInputWithoutTheBlanksAtOneEndOrBoth)
{
    const struct { const char* in; const char* left; const char* right; const char* both; } rows[] = {
        {" \t a b \r\n", "a b \r\n", " \t a b", "a b"}, {"   ", "", "", ""}, {"x", "x", "x", "x"}};
    for (const auto& r : rows) {
        char out[16];
        EXPECT_STREQ(r.left, l_trim(out, r.in));
        EXPECT_STREQ(r.right, r_trim(out, r.in));
        EXPECT_STREQ(r.both, a_trim(out, r.in));
    }
}

}  // namespace
