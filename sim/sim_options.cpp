#include "sim/sim_options.h"

#include <cerrno>
#include <cstdlib>
#include <getopt.h>

namespace ksim {

namespace {

enum OptionId {
    kOptFlash = 1000, kOptFlashSize, kOptLink, kOptTrace, kOptResponder, kOptFlashId,
    kOptRomFlash, kOptFirmware, kOptPace, kOptEraseMs, kOptProgramMs,
    kOptUsbLatencyMs, kOptSyncFail,
    kOptSessions, kOptFault, kOptWiring, kOptLineActive, kOptModemChannel, kOptCleanRateMax,
    kOptBitErrorRate, kOptSeed, kOptHelp,
};

const option kLongOptions[] = {
    {"flash", required_argument, nullptr, kOptFlash},
    {"flash-size", required_argument, nullptr, kOptFlashSize},
    {"link", required_argument, nullptr, kOptLink},
    {"trace", required_argument, nullptr, kOptTrace},
    {"responder", required_argument, nullptr, kOptResponder},
    {"flash-id", required_argument, nullptr, kOptFlashId},
    {"rom-flash", required_argument, nullptr, kOptRomFlash},
    {"firmware", no_argument, nullptr, kOptFirmware},
    {"pace", no_argument, nullptr, kOptPace},
    {"erase-ms", required_argument, nullptr, kOptEraseMs},
    {"program-ms", required_argument, nullptr, kOptProgramMs},
    {"usb-latency-ms", required_argument, nullptr, kOptUsbLatencyMs},
    {"sync-fail", required_argument, nullptr, kOptSyncFail},
    {"sessions", required_argument, nullptr, kOptSessions},
    {"fault", required_argument, nullptr, kOptFault},
    {"wiring", required_argument, nullptr, kOptWiring},
    {"line-active", required_argument, nullptr, kOptLineActive},
    {"modem-channel", required_argument, nullptr, kOptModemChannel},
    {"clean-rate-max", required_argument, nullptr, kOptCleanRateMax},
    {"bit-error-rate", required_argument, nullptr, kOptBitErrorRate},
    {"seed", required_argument, nullptr, kOptSeed},
    {"help", no_argument, nullptr, kOptHelp},
    {nullptr, 0, nullptr, 0},
};

// A whole-string unsigned number; base 0 accepts 0x.. hex as well as decimal.
bool ParseNumber(const char* text, unsigned long max, uint32_t& value)
{
    if (!text || !*text || *text == '-' || *text == '+' || *text == ' ')
        return false;
    char* end = nullptr;
    unsigned long parsed = std::strtoul(text, &end, 0);
    if (*end != '\0' || parsed > max)
        return false;
    value = static_cast<uint32_t>(parsed);
    return true;
}

bool ParseNamedNumber(const char* name, const char* text, unsigned long max, uint32_t& value,
                      std::string& error)
{
    if (ParseNumber(text, max, value))
        return true;
    error = std::string("bad ") + name + " value: " + text;
    return false;
}

// A probability per bit: a whole-string number from 0 to 1 ("1e-3" and "0.001" alike).
bool ParseProbability(const char* text, double& value)
{
    if (!text || !*text || *text == ' ')
        return false;
    char* end = nullptr;
    double parsed = std::strtod(text, &end);
    if (*end != '\0' || !(parsed >= 0.0 && parsed <= 1.0))
        return false;
    value = parsed;
    return true;
}

bool ParseSeed(const char* text, uint64_t& value)
{
    if (!text || !*text || *text == '-' || *text == '+' || *text == ' ')
        return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long parsed = std::strtoull(text, &end, 0);
    if (*end != '\0' || errno == ERANGE)
        return false;
    value = parsed;
    return true;
}

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// "C84016" -> C8 40 16. Up to 8,190 bytes, so that an identifier longer than the
// host expects can be tried out.
bool ParseHexBytes(const std::string& text, std::vector<uint8_t>& bytes)
{
    if (text.size() % 2 != 0 || text.size() / 2 > 8190)
        return false;
    bytes.clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        int high = HexDigit(text[i]);
        int low = HexDigit(text[i + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes.push_back(static_cast<uint8_t>(high * 16 + low));
    }
    return true;
}

bool ApplyOption(int id, const char* arg, SimOptions& options, std::string& error)
{
    uint32_t number = 0;
    switch (id) {
    case kOptFlash: options.flashPath = arg; return true;
    case kOptLink: options.linkPath = arg; return true;
    case kOptTrace: options.tracePath = arg; return true;
    case kOptFirmware: options.firmware = true; return true;
    case kOptPace: options.pace = true; return true;
    case kOptFault: options.faults.push_back(arg); return true;
    case kOptHelp: options.help = true; return true;
    case kOptFlashSize:
        return ParseNamedNumber("--flash-size", arg, 0xFFFFFFFFul, options.flashSize, error);
    case kOptResponder:
        if (ParseNumber(arg, 255, number)) {
            options.responder = static_cast<uint8_t>(number);
            return true;
        }
        error = "bad --responder (0..255)";
        return false;
    case kOptFlashId:
        if (ParseHexBytes(arg, options.flashId))
            return true;
        error = "bad --flash-id (pairs of hex digits)";
        return false;
    case kOptRomFlash:
        if (std::string(arg) == "yes" || std::string(arg) == "no") {
            options.romFlash = std::string(arg) == "yes" ? 1 : 0;
            return true;
        }
        error = "bad --rom-flash (yes or no)";
        return false;
    case kOptEraseMs: return ParseNamedNumber("--erase-ms", arg, 60000, options.eraseMs, error);
    case kOptProgramMs: return ParseNamedNumber("--program-ms", arg, 60000, options.programMs, error);
    case kOptUsbLatencyMs:
        return ParseNamedNumber("--usb-latency-ms", arg, 1000, options.usbLatencyMs, error);
    case kOptSyncFail: return ParseNamedNumber("--sync-fail", arg, 0xFFFFFFFFul, options.syncFail, error);
    case kOptSessions: return ParseNamedNumber("--sessions", arg, 0xFFFFFFFFul, options.sessions, error);
    case kOptModemChannel: options.modemChannelPath = arg; return true;
    case kOptWiring:
        if (ParseWiring(arg, options.wiring))
            return true;
        error = "bad --wiring (two-transistor-rts-reset, two-transistor-dtr-reset, direct-rts-reset "
                "or direct-dtr-reset)";
        return false;
    case kOptLineActive:
        if (std::string(arg) == "low" || std::string(arg) == "high") {
            options.lineActiveHigh = std::string(arg) == "high" ? 1 : 0;
            return true;
        }
        error = "bad --line-active (low or high)";
        return false;
    case kOptCleanRateMax:
        return ParseNamedNumber("--clean-rate-max", arg, 0xFFFFFFFFul, options.cleanRateMax, error);
    case kOptBitErrorRate:
        if (ParseProbability(arg, options.bitErrorRate))
            return true;
        error = std::string("bad --bit-error-rate value (0 to 1): ") + arg;
        return false;
    case kOptSeed:
        if (ParseSeed(arg, options.seed))
            return true;
        error = std::string("bad --seed value: ") + arg;
        return false;
    }
    error = "unknown option";
    return false;
}

}  // namespace

bool ParseSimOptions(int argc, char** argv, SimOptions& options, std::string& error)
{
    optind = 1;
    opterr = 0;
    int id = 0;
    while ((id = getopt_long(argc, argv, "", kLongOptions, nullptr)) != -1) {
        if (id == '?' || id == ':') {
            error = std::string("unknown option or missing value: ") + argv[optind - 1];
            return false;
        }
        if (!ApplyOption(id, optarg, options, error))
            return false;
    }
    if (optind < argc) {
        error = std::string("unexpected argument: ") + argv[optind];
        return false;
    }
    if (options.lineActiveHigh >= 0 && options.wiring != Wiring::DirectRtsReset &&
        options.wiring != Wiring::DirectDtrReset) {
        error = "--line-active applies to the direct wirings only";
        return false;
    }
    return true;
}

const char* SimUsage()
{
    return "usage: kestrel_sim [options]\n"
           "  --flash FILE        flash model file (created erased when missing)\n"
           "  --flash-size BYTES  flash size, a multiple of 65536 (default 4194304)\n"
           "  --link PATH         also make PATH a symlink to the device\n"
           "  --trace FILE        write one line per event to FILE\n"
           "  --responder N       responder code in the GetFlashId reply (default 1)\n"
           "  --flash-id HEX      GetFlashId payload (default C84016)\n"
           "  --rom-flash yes|no  boot ROM serves flash commands (default: responder != 1)\n"
           "  --firmware          start as firmware waiting for \"upgrade\\n\\0\"\n"
           "  --pace              take real time per byte, erase and program\n"
           "  --erase-ms N        with --pace: ms per 64 KiB erase (default 30)\n"
           "  --program-ms N      with --pace: ms per 512-byte sector (default 1)\n"
           "  --usb-latency-ms N  hold every reply N ms, as an adapter's latency timer does\n"
           "  --sync-fail N       leave the first N sync bytes unanswered\n"
           "  --sessions N        exit after the host closed the device N times\n"
           "  --fault SPEC        WHAT:WHEN:KIND[@BAUD], repeatable (see sim/README.md)\n"
           "  --wiring W          modem lines to reset and boot strap: two-transistor-rts-reset,\n"
           "                      two-transistor-dtr-reset, direct-rts-reset, direct-dtr-reset\n"
           "  --line-active L     direct wirings: pins active low (default) or high\n"
           "  --modem-channel P   listen on socket P for the host's modem line changes\n"
           "  --clean-rate-max N  above N bit/s flip bits at --bit-error-rate\n"
           "  --bit-error-rate P  per bit (default 1e-3)\n"
           "  --seed S            seed of the bit errors (default 1)\n";
}

}  // namespace ksim
