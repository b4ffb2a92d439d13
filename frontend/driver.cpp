// The program driver: loads the settings, applies the options, prints the settings
// report and takes exactly one road.
#include "frontend/driver.h"

#include <chrono>
#include <cstdio>
#include <memory>
#include <unistd.h>
#include <string>

#include "common/run_report.h"
#include "flashhost/CFlashHost.h"
#include "frontend/Setting.h"
#include "frontend/command_roads.h"
#include "frontend/link_setup.h"
#include "frontend/options.h"
#include "frontend/adapter_info.h"
#include "frontend/port_discovery.h"
#include "frontend/port_list.h"
#include "frontend/progress_line.h"
#include "frontend/preflight.h"
#include "frontend/run_outcome.h"
#include "frontend/run_sinks.h"
#include "frontend/stop_signals.h"
#include "frontend/upgrade_start.h"
#include "frontend/warnings.h"
#include "image/FwParser.h"
#include "upgrade/UpGrade.h"

namespace {

const char kDefaultSettingsFile[] = "./settings_mac.ini";

const char kBannerLine[] = "*************************************************";

const char* const kUsageLines[] = {
    "\nVersion: v1.2.00908m(by macbook)",
    "kestrelQT_u -A [debug flash address]  (default: 0x00000000)",
    "kestrelQT_u -b [baud rate]  (default: 921600)",
    "kestrelQT_u -B [flash debug bin file for write]  (default: a.bin)",
    "kestrelQT_u -c [com dev] (default: /dev/ttyUSB0)",
    "kestrelQT_u -C [config file] (default: ./settings.ini)",
    "kestrelQT_u -d [debug log level]  (default: 0)",
    "kestrelQT_u -D [debug flash mode]  (default: n=NULL)",
    "kestrelQT_u -e [enable etf image]  (default: 0)",
    "kestrelQT_u -f [enable flash compat]  (default: 1)",
    "kestrelQT_u -g [enable combine images]",
    "kestrelQT_u -G [combine image path]  (default: combine_image.cimg)",
    "kestrelQT_u -h [help msg]",
    "kestrelQT_u -i [wlan image path]  (default: tq-system.img)",
    "kestrelQT_u -I [ETF image path]  (default: tq-system_etf.img)",
    "kestrelQT_u -l [log file path]   (default: ./log/log.txt)",
    "kestrelQT_u -L [debug flash length]   (default: 0x00000200)",
    "kestrelQT_u -r [read and check after write]  (default: 0)",
    "kestrelQT_u -s [show image info]",
    "kestrelQT_u -u [update changed blocks only]  (default: 1)",
    "kestrelQT_u -v [show version]\n",
    "When it's upgrading, input 'stop' to stop it if you need.",
};

const char* YesNo(uint8_t flag)
{
    return flag ? "YES" : "NO";
}

// The part of the settings report that every road after option parsing shows.
void PrintConnectionSettings()
{
    std::printf("--------------SETTING--------------\n");
    std::printf("COM:%s\n", g_Setting.strComDev);
    std::printf("Baud:%d\n", static_cast<int>(g_Setting.iBaud));
    std::printf("Log path:%s\n", g_Setting.strLogFile);
    std::printf("Log level:%u\n", static_cast<unsigned>(g_Setting.bLogLevel));
}

// The rest of the report, shown by the combining and upgrade roads.
void PrintImageSettings()
{
    std::printf("Image path:%s\n", g_Setting.strImagePath);
    std::printf("ETF image path:%s\n", g_Setting.strEtfImagePath);
    std::printf("Read and check:%s\n", YesNo(g_Setting.bReadAndCheck));
    std::printf("Update change only:%s\n", YesNo(g_Setting.bUpdateChangeOnly));
    std::printf("Program ETF image:%s\n", YesNo(g_Setting.bEtfFw));
    std::printf("Use flash compat:%s\n\n", YesNo(g_Setting.bFlashCompat));
}

void PrintBanner(const char* title)
{
    std::printf("%s\n%s\n%s\n", kBannerLine, title, kBannerLine);
}

// Parses one image and prints its report (with --json also as data); the parser
// keeps nothing afterwards. True when the image is valid.
bool ReportImage(FwParser& parser, const char* path, JsonSink* json, const char* role)
{
    parser.SetFilePath(path);
    const bool valid = parser.Parse() == 0;
    std::printf("%s", parser.GetFwInfo().c_str());
    if (json) {
        std::vector<SectionHeader> sections;
        for (int i = 0; valid && i < parser.iSectionCount; ++i)
            sections.push_back(DecodeSectionHeader(parser.pSection[i].get()));
        json->Image(role, path, valid, parser.strErrMsg, sections);
    }
    parser.FreeParser();
    return valid;
}

// -s: the report on both images. Its status is always 0: a missing or damaged
// image shows in the report text (and, for --exit-code, in the returned class).
FailureKind InformationRoad(JsonSink* json)
{
    PrintBanner("                firmware information             ");
    const bool mainValid = ReportImage(g_fwParser, g_Setting.strImagePath, json, "main");
    PrintBanner("             ETF firmware information            ");
    const bool etfValid = ReportImage(g_etfFwParser, g_Setting.strEtfImagePath, json, "etf");
    return mainValid && etfValid ? FailureKind::kNone : FailureKind::kImage;
}

// Only the device and the speed reach the flash host: no boot-loader is uploaded
// for a debug operation.
int DebugRoad(FailureKind& failure)
{
    std::printf("\nFlash debug mode:\n");
    g_flashHost.SetComNum(g_Setting.strComDev);
    g_flashHost.SetBaud(g_Setting.iBaud);
    warnings::DebugRange(g_Setting.iDebugOp, g_Setting.iAddress, g_Setting.iLength, g_Setting.strWriteBinFile);
    return FlashOperate(g_Setting.iDebugOp, g_Setting.iAddress, g_Setting.iLength,
                        g_Setting.strWriteBinFile, &failure);
}

int CombineRoad(FailureKind& failure)
{
    std::printf("Enable combine image!\n");
    std::printf("Combine image path:%s\n", g_Setting.strCombineImagePath);
    return CombineImage(&failure);
}

// The end of every road: the classic exit status, or with --exit-code the outcome
// class; with --json the result line.
class Conclusion {
public:
    Conclusion() : m_started(std::chrono::steady_clock::now()) {}

    void UseJson(std::FILE* out) { m_json.reset(new JsonSink(out)); }
    JsonSink* Json() { return m_json.get(); }

    int Finish(int classicStatus, bool succeeded, FailureKind kind, const std::string& successText)
    {
        run_report::SetSink(nullptr);
        const RunResult result = ConcludeRun(classicStatus, succeeded, kind, g_Setting.bExitCode != 0,
                                             successText, g_flashHost.m_strMsg);
        if (m_json) {
            const std::chrono::duration<double> took = std::chrono::steady_clock::now() - m_started;
            m_json->Result(result.code, result.message, took.count());
        }
        return result.exitStatus;
    }

private:
    std::chrono::steady_clock::time_point m_started;
    std::unique_ptr<JsonSink> m_json;
};

// --json: standard output carries only JSON lines. The real standard output is kept
// for them, and descriptor 1 becomes the error stream, so every line of human text
// (ours or a library's) goes there. Nothing is lost if this fails: the run goes on
// with text on standard output.
std::FILE* DivertTextToStderr()
{
    std::fflush(stdout);
    int jsonFd = dup(STDOUT_FILENO);
    if (jsonFd < 0)
        return nullptr;
    std::FILE* json = fdopen(jsonFd, "w");
    if (!json || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        if (json)
            std::fclose(json);
        else
            close(jsonFd);
        return nullptr;
    }
    return json;
}

void PrintLongHelp()
{
    HelpMsg();
    for (int i = 0; i < kLongOptionLineCount; ++i)
        std::printf("%s\n", kLongOptionLines[i]);
}

// --list-ports: a table, or one JSON object per port.
void ListPorts(JsonSink* json)
{
    const std::vector<SerialPortInfo> ports = ListSerialPorts();
    if (json) {
        for (const SerialPortInfo& p : ports)
            json->Port(p.path, p.vendor, p.product, p.serial, p.driver, p.byId);
        return;
    }
    // Adapter awareness: the chip family comes last, so the columns before it stay.
    std::printf("%-16s %-9s %-20s %-12s %s ADAPTER\n", "PORT", "VID:PID", "SERIAL", "DRIVER", "BY-ID");
    for (const SerialPortInfo& p : ports) {
        const std::string ids = p.vendor.empty() ? "-" : p.vendor + ":" + p.product;
        const char* family = AdapterFamilyOf(p.vendor, p.product).name;
        std::printf("%-16s %-9s %-20s %-12s %s %s\n", p.path.c_str(), ids.c_str(),
                    p.serial.empty() ? "-" : p.serial.c_str(), p.driver.empty() ? "-" : p.driver.c_str(),
                    p.byId.empty() ? "-" : p.byId.c_str(), *family ? family : "-");
    }
    if (ports.empty())
        std::printf("No USB serial port found.\n");
}

}  // namespace

void HelpMsg()
{
    for (const char* line : kUsageLines)
        std::printf("%s\n", line);
}

int DriverMain(int argc, char* argv[])
{
    Conclusion end;
    if (WantsJson(argc, argv)) {
        if (std::FILE* json = DivertTextToStderr())
            end.UseJson(json);
    }
    char settingsFile[sizeof kDefaultSettingsFile];
    std::snprintf(settingsFile, sizeof settingsFile, "%s", kDefaultSettingsFile);
    GetDefaultSettings(settingsFile);
    warnings::SettingsFile(settingsFile, false);

    // Without arguments the usage text is a reminder; the run goes on with the file's settings.
    if (argc < 2)
        HelpMsg();

    switch (ApplyOptions(argc, argv)) {
    case OptionOutcome::kShowUsage:
        HelpMsg();
        return end.Finish(0, true, FailureKind::kNone, "usage");
    case OptionOutcome::kBadOption:
        HelpMsg();
        return end.Finish(0, false, FailureKind::kUsage, "");
    case OptionOutcome::kShowLongHelp:
        PrintLongHelp();
        return end.Finish(0, true, FailureKind::kNone, "usage");
    case OptionOutcome::kShowVersion:
        std::printf("kestrelQT_u %s\n", KESTREL_VERSION);
        return end.Finish(0, true, FailureKind::kNone, KESTREL_VERSION);
    case OptionOutcome::kListPorts:
        ListPorts(end.Json());
        return end.Finish(0, true, FailureKind::kNone, "ports listed");
    case OptionOutcome::kShowInfo: {
        const FailureKind kind = InformationRoad(end.Json());
        return end.Finish(0, kind == FailureKind::kNone, kind, "images reported");
    }
    case OptionOutcome::kRunRoads:
        warnings::IgnoredWords(argc, argv, optind);
        break;
    }

    // The one link profile of the debug and upgrade roads; first contact: a
    // sequence that cannot be read is refused before any connection.
    LinkProfile link = BuildLinkProfile(g_Setting);
    std::string linkError;
    if (!ApplyFirstContact(g_Setting, link, linkError)) {
        std::fprintf(stderr, "%s\n", linkError.c_str());
        return end.Finish(2, false, FailureKind::kUsage, "");
    }
    g_flashHost.SetLinkProfile(link);
    if (std::string(g_Setting.strComDev) == kAutoPortWord) {
        std::string chosen;
        if (!DiscoverBoardPort(chosen, linkError)) {
            std::fprintf(stderr, "%s\n", linkError.c_str());
            return end.Finish(1, false, FailureKind::kPortOpen, "");
        }
        CopySettingText(g_Setting.strComDev, chosen.c_str());
    }
    // Adapter awareness: ModemManager on a ttyACM port; the family's highest
    // dependable rate caps the auto-baud ladder.
    WarnIfModemManagerProbes(g_Setting.strComDev);
    if (link.autoBaud) {
        link.rateCeiling = AdapterFamilyOfPort(g_Setting.strComDev).maxRate;
        g_flashHost.SetLinkProfile(link);
    }
    SummarySink summary(g_Setting.iBaud);
    if (end.Json())
        run_report::SetSink(end.Json());
    else if (g_Setting.bFastLink)
        run_report::SetSink(&summary);
    // Progress line: on a terminal's error stream, beside the sink above (not with --json).
    // The line goes first: it is cleared before a summary line is printed over it.
    ProgressLineSink progress(stderr);
    FanOutSink fanOut;
    if (!end.Json() && isatty(STDERR_FILENO))
        fanOut.Add(&progress);
    fanOut.Add(run_report::GetSink());
    run_report::SetSink(&fanOut);

    PrintConnectionSettings();
    // Warnings: a rate the port cannot take is found out before the target switches.
    const bool connects = g_Setting.iCommand != kCommandNone || g_Setting.iDebugOp != kDebugNone ||
                          !g_Setting.bCombineImage;
    if (connects && warnings::WorkingRate(g_Setting.iBaud, g_Setting.bFastLink != 0) != 0)
        return end.Finish(-1, false, FailureKind::kUsage, "");
    // Everyday commands (--verify, --erase-all, --write, --info): roads of their own.
    if (g_Setting.iCommand != kCommandNone) {
        // Safe by default, as the debug road: the port is checked before any byte.
        const FailureKind refused = RefuseUnsafeRun(PreflightRoad::kUpgrade);
        if (refused != FailureKind::kNone)
            return end.Finish(-1, false, refused, "");
        InstallStopSignals(g_Setting.bExitCode ? static_cast<int>(FailureKind::kStopped) : 255);
        const CommandOutcome command = RunCommandRoad(end.Json());
        return end.Finish(command.classicStatus, command.failure == FailureKind::kNone, command.failure,
                          command.successText);
    }
    FailureKind failure = FailureKind::kNone;
    if (g_Setting.iDebugOp != kDebugNone) {
        // Safe by default: refused before the first byte; Ctrl-C stops between blocks.
        if ((failure = RefuseUnsafeRun(PreflightRoad::kDebug)) != FailureKind::kNone)
            return end.Finish(-1, false, failure, "");
        InstallStopSignals(g_Setting.bExitCode ? static_cast<int>(FailureKind::kStopped) : 255);
        const int status = DebugRoad(failure);
        return end.Finish(status, status == 0, failure, "Debug operation OK!");
    }
    PrintImageSettings();
    if (g_Setting.bCombineImage) {
        if ((failure = RefuseUnsafeRun(PreflightRoad::kCombine)) != FailureKind::kNone)
            return end.Finish(-1, false, failure, "");
        const int status = CombineRoad(failure);
        return end.Finish(status, status == 0, failure, "Combine image OK!");
    }
    // Safe by default: an upgrade refused here fails as every failed upgrade does
    // (status 0, update status 2, no "Upgrade OK!").
    if ((failure = RefuseUnsafeRun(PreflightRoad::kUpgrade)) != FailureKind::kNone) {
        g_iUpdateStatus = 2;
        return end.Finish(0, false, failure, "");
    }
    InstallStopSignals(g_Setting.bExitCode ? static_cast<int>(FailureKind::kStopped) : 0);
    UpgradeOutcome outcome;
    const int status = RunUpgradeRoad(outcome);
    return end.Finish(status, status == 0 && g_iUpdateStatus == 1, outcome.failure, "Upgrade OK!");
}
