// The program driver: loads the settings, applies the options, prints the settings
// report and takes exactly one road.
#include "frontend/driver.h"

#include <cstdio>
#include <string>

#include "flashhost/CFlashHost.h"
#include "frontend/Setting.h"
#include "frontend/options.h"
#include "frontend/upgrade_start.h"
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

// Parses one image and prints its report; the parser keeps nothing afterwards.
void ReportImage(FwParser& parser, const char* path)
{
    parser.SetFilePath(path);
    parser.Parse();
    std::printf("%s", parser.GetFwInfo().c_str());
    parser.FreeParser();
}

// -s: the report on both images. It never fails: a missing or damaged image shows
// in the report text.
int InformationRoad()
{
    PrintBanner("                firmware information             ");
    ReportImage(g_fwParser, g_Setting.strImagePath);
    PrintBanner("             ETF firmware information            ");
    ReportImage(g_etfFwParser, g_Setting.strEtfImagePath);
    return 0;
}

// Only the device and the speed reach the flash host: no boot-loader is uploaded
// for a debug operation.
int DebugRoad()
{
    std::printf("\nFlash debug mode:\n");
    g_flashHost.SetComNum(g_Setting.strComDev);
    g_flashHost.SetBaud(g_Setting.iBaud);
    return FlashOperate(g_Setting.iDebugOp, g_Setting.iAddress, g_Setting.iLength,
                        g_Setting.strWriteBinFile);
}

int CombineRoad()
{
    std::printf("Enable combine image!\n");
    std::printf("Combine image path:%s\n", g_Setting.strCombineImagePath);
    return CombineImage();
}

}  // namespace

void HelpMsg()
{
    for (const char* line : kUsageLines)
        std::printf("%s\n", line);
}

int DriverMain(int argc, char* argv[])
{
    char settingsFile[sizeof kDefaultSettingsFile];
    std::snprintf(settingsFile, sizeof settingsFile, "%s", kDefaultSettingsFile);
    GetDefaultSettings(settingsFile);

    // Without arguments the usage text is a reminder; the run goes on with the file's settings.
    if (argc < 2)
        HelpMsg();

    switch (ApplyOptions(argc, argv)) {
    case OptionOutcome::kShowUsage:
        HelpMsg();
        return 0;
    case OptionOutcome::kShowInfo:
        return InformationRoad();
    case OptionOutcome::kRunRoads:
        break;
    }

    PrintConnectionSettings();
    if (g_Setting.iDebugOp != kDebugNone)
        return DebugRoad();
    PrintImageSettings();
    if (g_Setting.bCombineImage)
        return CombineRoad();
    return RunUpgradeRoad();
}
