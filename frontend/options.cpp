// Option parsing with getopt: every option overwrites one field of g_Setting (or, for
// -C, reloads the record), strictly in the order given.
#include "frontend/options.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "frontend/Setting.h"

const char kOptionString[] = "A:b:B:c:C:d:D:e:f:g:G:hi:I:l:L:r:su:v?";

namespace {

// Option scanning stops at the first word that is not an option. glibc's getopt
// reorders the words unless the option string starts with '+'; elsewhere getopt
// stops there by itself.
std::string ScanString()
{
#ifdef __GLIBC__
    return std::string("+") + kOptionString;
#else
    return kOptionString;
#endif
}

// Restarts getopt's scan from argv[1] with its state cleared.
void ResetGetopt()
{
#if defined(__GLIBC__)
    optind = 0;  // 0 also clears glibc's internal state
#elif defined(__APPLE__) || defined(__FreeBSD__) || defined(__NetBSD__) || defined(__OpenBSD__)
    optreset = 1;
    optind = 1;
#else
    optind = 1;
#endif
    opterr = 1;
}

// A flag option keeps the low 8 bits of its number.
uint8_t FlagValue(const char* text)
{
    return static_cast<uint8_t>(std::atoi(text));
}

// Addresses and lengths: "0x" hexadecimal, a leading 0 octal, else decimal.
uint32_t NumberValue(const char* text)
{
    return static_cast<uint32_t>(std::strtoul(text, nullptr, 0));
}

void ApplyDebugOp(const char* text)
{
    g_Setting.iDebugOp = DebugOpFromText(text);
    if (g_Setting.iDebugOp == kDebugNone)
        std::printf("Error operation:%s\n", text);
}

// Applies one option that changes the record; false for a letter that is not one of them.
bool ApplySettingOption(int letter, char* arg)
{
    switch (letter) {
    case 'A': g_Setting.iAddress = NumberValue(arg); break;
    case 'b': g_Setting.iBaud = static_cast<uint32_t>(std::atoi(arg)); break;
    case 'B': CopySettingText(g_Setting.strWriteBinFile, arg); break;
    case 'c': CopySettingText(g_Setting.strComDev, arg); break;
    case 'C': GetDefaultSettings(arg); break;
    case 'd': g_Setting.bLogLevel = FlagValue(arg); break;
    case 'D': ApplyDebugOp(arg); break;
    case 'e': g_Setting.bEtfFw = g_Setting.bFlashCompat = FlagValue(arg); break;
    case 'f': g_Setting.bFlashCompat = FlagValue(arg); break;
    case 'g': g_Setting.bCombineImage = FlagValue(arg); break;
    case 'G': CopySettingText(g_Setting.strCombineImagePath, arg); break;
    case 'i': CopySettingText(g_Setting.strImagePath, arg); break;
    case 'I': CopySettingText(g_Setting.strEtfImagePath, arg); break;
    case 'l': CopySettingText(g_Setting.strLogFile, arg); break;
    case 'L': g_Setting.iLength = NumberValue(arg); break;
    case 'r': g_Setting.bReadAndCheck = FlagValue(arg); break;
    case 'u': g_Setting.bUpdateChangeOnly = FlagValue(arg); break;
    default: return false;
    }
    return true;
}

}  // namespace

OptionOutcome ApplyOptions(int argc, char* argv[])
{
    const std::string scan = ScanString();
    ResetGetopt();
    int letter;
    while ((letter = getopt(argc, argv, scan.c_str())) != -1) {
        if (letter == 's')
            return OptionOutcome::kShowInfo;
        // -h, -v, -? and getopt's own errors ('?', after its diagnostic on stderr).
        if (!ApplySettingOption(letter, optarg))
            return OptionOutcome::kShowUsage;
    }
    return OptionOutcome::kRunRoads;
}
