// Option parsing with getopt: every option overwrites one field of g_Setting (or, for
// -C, reloads the record), strictly in the order given.
#include "frontend/options.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <string>
#include <unistd.h>

#include "frontend/Setting.h"
#include "frontend/command_options.h"
#include "frontend/warnings.h"
#include "frontend/preflight.h"

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
    case 'C': GetDefaultSettings(arg); warnings::SettingsFile(arg, true); break;
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

// Long options have no letters; getopt_long returns these values for them.
enum LongOption {
    kOptHelp = 0x100,
    kOptVersion,
    kOptFast,
    kOptExitCode,
    kOptJson,
    kOptListPorts,
    // Everyday commands.
    kOptVerify,
    kOptEraseAll,
    kOptWrite,
    kOptInfo,
    kOptFlashSize,
    // First contact.
    kOptReset,
    kOptAfter,
    kOptAutoBaud,
};

const option kLongOptions[] = {
    {"help", no_argument, nullptr, kOptHelp},
    {"version", no_argument, nullptr, kOptVersion},
    {"fast", no_argument, nullptr, kOptFast},
    {"exit-code", no_argument, nullptr, kOptExitCode},
    {"json", no_argument, nullptr, kOptJson},
    {"list-ports", no_argument, nullptr, kOptListPorts},
    // Everyday commands.
    {"verify", no_argument, nullptr, kOptVerify},
    {"erase-all", no_argument, nullptr, kOptEraseAll},
    {"write", required_argument, nullptr, kOptWrite},
    {"info", no_argument, nullptr, kOptInfo},
    {"flash-size", required_argument, nullptr, kOptFlashSize},
    // First contact: modem-line sequences.
    {"reset", required_argument, nullptr, kOptReset},
    {"after", required_argument, nullptr, kOptAfter},
    {"auto-baud", no_argument, nullptr, kOptAutoBaud},
    {nullptr, 0, nullptr, 0},
};

}  // namespace

const char* const kLongOptionLines[] = {
    "Long options:",
    "kestrelQT_u --help  (this text)",
    "kestrelQT_u --version  (one version line)",
    "kestrelQT_u --fast  (fast link; settings key bFastLink, default: 0)",
    "kestrelQT_u --exit-code  (exit status tells the outcome; settings key bExitCode, default: 0)",
    "kestrelQT_u --json  (JSON lines on standard output, text on standard error; implies --exit-code)",
    "kestrelQT_u --list-ports  (serial ports with USB vendor:product, serial number, driver, by-id name)",
    // First contact.
    "kestrelQT_u --reset SEQ  (DTR/RTS reset before the sync: none, classic, inverted or steps D1,R0,D0+R1,W100; settings key strResetSequence, default: none)",
    "kestrelQT_u --after ACTION  (after a successful upgrade: stay, reboot or a DTR/RTS sequence; settings key strAfter, default: stay)",
    "kestrelQT_u -c auto  (the USB serial port whose board answers; settings key strComDev=auto)",
    "kestrelQT_u --auto-baud  (fast link: -b is the ceiling, the fastest rate that carries data is kept; settings key bAutoBaud, default: 0)",
    // Everyday commands.
    "kestrelQT_u --verify  (compare flash with the main image, OTA header and ETF image; writes nothing)",
    "kestrelQT_u --erase-all  (erase the whole flash; capacity from the flash identifier or --flash-size)",
    "kestrelQT_u --write ADDR:FILE  (repeatable: erase, write and read back raw files; FILE.hex alone for Intel HEX)",
    "kestrelQT_u --info  (flash identifier, maker, capacity, responder code, boot-loader, rate)",
    "kestrelQT_u --flash-size SIZE  (flash capacity for --erase-all and the --write range checks)",
    "Sizes and addresses of these options: 0x hexadecimal or decimal, K and M suffixes (0x10000, 64K, 4M).",
    "-v prints the usage text above (the version: --version); -D takes r (read), w (write),",
    "e (erase) or n (none: upgrade or combine); -C names the settings file, read first from",
    "./settings_mac.ini (not ./settings.ini).",
};
const int kLongOptionLineCount = sizeof kLongOptionLines / sizeof kLongOptionLines[0];

// A '?' from getopt is either the -? option or a refusal. A refused letter, or a
// missing argument, leaves the letter in optopt; -? and an unknown long option
// leave 0 there, and only the latter is a word beginning "--".
static bool RefusedOption(int letter, char* argv[])
{
    if (letter != '?')
        return false;
    return optopt != 0 || (optind > 0 && std::strncmp(argv[optind - 1], "--", 2) == 0);
}

bool WantsJson(int argc, char* argv[])
{
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--json")
            return true;
        if (word == "--" || word == "-s")
            return false;
    }
    return false;
}

OptionOutcome ApplyOptions(int argc, char* argv[])
{
    const std::string scan = ScanString();
    ResetGetopt();
    PendingCommandArguments() = CommandArguments();
    g_Setting.iCommand = kCommandNone;
    ResetPathNotes();  // safe by default: a path cut to fit its field is refused later
    int letter;
    while ((letter = getopt_long(argc, argv, scan.c_str(), kLongOptions, nullptr)) != -1) {
        switch (letter) {
        case 's': return OptionOutcome::kShowInfo;
        case kOptHelp: return OptionOutcome::kShowLongHelp;
        case kOptVersion: return OptionOutcome::kShowVersion;
        case kOptFast: g_Setting.bFastLink = 1; continue;
        case kOptExitCode: g_Setting.bExitCode = 1; continue;
        case kOptJson: g_Setting.bJson = g_Setting.bExitCode = 1; continue;
        case kOptListPorts: return OptionOutcome::kListPorts;
        // Everyday commands: the road is chosen by the last of them.
        case kOptVerify: g_Setting.iCommand = kCommandVerify; continue;
        case kOptEraseAll: g_Setting.iCommand = kCommandEraseAll; continue;
        case kOptWrite:
            g_Setting.iCommand = kCommandWrite;
            PendingCommandArguments().writes.push_back(optarg);
            continue;
        case kOptInfo: g_Setting.iCommand = kCommandInfo; continue;
        case kOptFlashSize: PendingCommandArguments().flashSize = optarg; continue;
        case kOptReset: CopySettingText(g_Setting.strResetSequence, optarg); continue;
        case kOptAfter: CopySettingText(g_Setting.strAfter, optarg); continue;
        case kOptAutoBaud: g_Setting.bAutoBaud = 1; continue;
        case 'h':
        case 'v':
            return OptionOutcome::kShowUsage;
        default:
            break;
        }
        NotePathOption(letter, optarg);  // safe by default (see ResetPathNotes above)
        // getopt's own errors ('?', after its diagnostic on stderr) and -?.
        warnings::OptionNumber(letter, optarg);
        if (!ApplySettingOption(letter, optarg))
            return RefusedOption(letter, argv) ? OptionOutcome::kBadOption : OptionOutcome::kShowUsage;
    }
    return OptionOutcome::kRunRoads;
}
