// The upgrade worker: checks and reports the images, connects to the target,
// programs the main image, the OTA area and the ETF image, and leaves the outcome
// in g_iUpdateStatus.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/byte_order.h"
#include "common/flash_geometry.h"
#include "common/run_report.h"
#include "flashhost/CFlashHost.h"
#include "common/setting_record.h"
#include "image/FwParser.h"
#include "image/image_format.h"
#include "upgrade/UpGrade.h"
#include "upgrade/etf_image.h"
#include "upgrade/flash_regions.h"
#include "upgrade/main_image.h"
#include "upgrade/ota_area.h"
#include "upgrade/run_state.h"

int32_t g_iUpdateStatus = -1;

namespace {

enum { kStatusRunning = 0, kStatusSuccess = 1, kStatusFailed = 2 };

const char kStarLine[] = "*************************************************";
const char kMainTitle[] = "               firmware information              ";
const char kEtfTitle[] = "             ETF firmware information            ";

// What the phases after the main image will do, worked out before the connection
// is opened so that an image that cannot be programmed is refused before any of
// it is written.
struct PhasePlan {
    bool ota = false;
    OtaLayout otaLayout;
    bool etf = false;
    EtfPlan etfPlan;
};

void PrintLine(const std::string& text)
{
    std::puts(text.c_str());
    std::fflush(stdout);
}

// Parses one image and prints its report under the title; true when it is valid.
bool ParseAndReport(FwParser& parser, const char* title)
{
    parser.FreeParser();
    const bool valid = parser.Parse() == 0;
    std::puts(kStarLine);
    std::puts(title);
    std::puts(kStarLine);
    PrintLine(parser.GetFwInfo());
    return valid;
}

const unsigned char* FirstHeader(const FwParser& parser)
{
    return parser.pSection[0].get();
}

// Steps before any connection: parse and open the main image (and the ETF image
// when it is enabled). -1 ends the run at once.
int ImageFailure(UpgradeRun& run)
{
    KeepFirstFailure(run.failure, FailureKind::kImage);
    return -1;
}

int OpenImages(UpgradeRun& run)
{
    const bool mainValid = ParseAndReport(g_fwParser, kMainTitle);
    const std::string mainPath = g_fwParser.GetFilePath();
    run.mainPath = mainPath;
    run.mainFile = OpenFile(mainPath.c_str(), "rb");
    if (!run.mainFile) {
        std::printf("Failed to open image file: %s\n", mainPath.c_str());
        return ImageFailure(run);
    }
    if (!mainValid) {
        PrintLine("Invalid image!");
        return ImageFailure(run);
    }
    run.combined = IsCombinedImagePath(mainPath);
    PrintLine(run.combined ? "Combined image!!" : "not Combined image!!");

    if (!g_Setting.bEtfFw)
        return 0;
    g_iUpdateStatus = kStatusRunning;
    const bool etfValid = ParseAndReport(g_etfFwParser, kEtfTitle);
    const std::string etfPath = g_etfFwParser.GetFilePath();
    run.etfPath = etfPath;
    run.etfFile = OpenFile(etfPath.c_str(), "rb");
    if (!run.etfFile) {
        std::printf("Failed to open etf image file: %s\n", etfPath.c_str());
        return ImageFailure(run);
    }
    if (!etfValid) {
        PrintLine("Invalid etf image!");
        return ImageFailure(run);
    }
    return 0;
}

// The main image length: inside a combined image, where the main image's sections
// end; otherwise the whole file. The file position is left at its start.
int MeasureMainImage(UpgradeRun& run)
{
    FILE* file = run.mainFile.get();
    const int64_t fileLength = FileLength(file);
    if (fileLength < 0 || !SeekTo(file, 0)) {
        PrintImageReadFailure(g_fwParser.GetFilePath());
        return ImageFailure(run);
    }
    // Flash addresses are 32-bit; a longer file cannot be placed.
    if (!run.combined && fileLength > 0xFFFFFFFFll) {
        std::printf("Failed to program image file: %s is larger than 4 GiB\n",
                    g_fwParser.GetFilePath().c_str());
        return ImageFailure(run);
    }
    run.mainLength = run.combined ? ImageSectionsLength(g_fwParser)
                                  : static_cast<uint32_t>(fileLength);
    return 0;
}

FILE* EtfSourceFile(UpgradeRun& run)
{
    return run.combined ? run.mainFile.get() : run.etfFile.get();
}

const std::string& EtfSourcePath(const UpgradeRun& run)
{
    return run.combined ? run.mainPath : run.etfPath;
}

int PlanPhases(UpgradeRun& run, PhasePlan& plan)
{
    const unsigned char* mainHeader = FirstHeader(g_fwParser);
    const uint32_t version = LoadLe32(mainHeader + kOffVersion);
    const uint32_t otaSizeWord = LoadLe32(mainHeader + kOffOtaSizeWord);
    const uint32_t otaAddress = LoadLe32(mainHeader + kOffOtaAddress);
    std::string why;

    plan.ota = OtaPhaseWanted(version, otaAddress);
    if (plan.ota) {
        plan.otaLayout = ComputeOtaLayout(otaAddress, OtaAreaSize(otaSizeWord));
        if (CheckOtaLayout(plan.otaLayout, why) != 0) {
            PrintLine(why);
            return ImageFailure(run);
        }
    }

    plan.etf = run.combined || g_Setting.bEtfFw;
    if (!plan.etf)
        return 0;
    EtfSource source;
    if (run.combined) {
        // The ETF part is an image of its own starting right after the main
        // image: parsed there, checks included, its first section's next_section
        // gives where its data begin, whatever the main image's first extent is.
        FwParser etfPart;
        etfPart.SetFilePath(run.mainPath);
        if (etfPart.ParseAt(run.mainLength) != 0) {
            std::printf("Invalid etf image in combined image file: %s (%s at offset 0x%08X)\n",
                        run.mainPath.c_str(), etfPart.strErrMsg.c_str(), run.mainLength);
            std::fflush(stdout);
            return ImageFailure(run);
        }
        source.base = run.mainLength;
        source.firstNext = LoadLe32(FirstHeader(etfPart) + kOffNextSection);
    } else {
        source.firstNext = LoadLe32(FirstHeader(g_etfFwParser) + kOffNextSection);
    }
    source.end = FileLength(EtfSourceFile(run));
    if (source.end < 0) {
        std::printf("Failed to read etf image file: %s\n",
                    (run.combined ? g_fwParser : g_etfFwParser).GetFilePath().c_str());
        return ImageFailure(run);
    }
    if (PlanEtfImage(otaSizeWord, otaAddress, source, plan.etfPlan, why) != 0) {
        PrintLine(why);
        return ImageFailure(run);
    }
    return 0;
}

// Runs one phase and, when it succeeds, reports the region's bytes and time.
template <typename Phase>
int TimedRegion(const char* region, uint64_t bytes, Phase phase)
{
    const auto start = std::chrono::steady_clock::now();
    if (phase() != 0)
        return -1;
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    run_report::Region(region, bytes, took.count());
    return 0;
}

uint64_t EtfBytes(const EtfPlan& plan)
{
    const int64_t available = plan.sourceEnd - plan.sourceOffset;
    return available < 0 ? 0 : static_cast<uint64_t>(available);
}

// The phases on an open connection; -1 when the run must abort.
int ProgramFlash(UpgradeRun& run, const PhasePlan& plan)
{
    if (TimedRegion("main", run.mainLength, [&] { return WriteMainImage(run); }) != 0)
        return -1;
    if (plan.ota && TimedRegion("ota", plan.otaLayout.size,
                                [&] { return WriteOtaArea(run, plan.otaLayout); }) != 0)
        return -1;
    if (plan.etf && TimedRegion("etf", EtfBytes(plan.etfPlan), [&] {
            return WriteEtfImage(run, EtfSourceFile(run), EtfSourcePath(run), plan.etfPlan);
        }) != 0)
        return -1;
    return 0;
}

void AbortRun(UpgradeRun& run)
{
    if (StopRequested()) {
        KeepFirstFailure(run.failure, FailureKind::kStopped);
        PrintLine("User stoped!");
    }
    g_flashHost.Close();
    g_iUpdateStatus = kStatusFailed;
}

std::vector<std::string> ImagePaths()
{
    std::vector<std::string> paths{g_fwParser.GetFilePath()};
    if (g_Setting.bEtfFw)
        paths.push_back(g_etfFwParser.GetFilePath());
    return paths;
}

// The regions the phases will write, checked once the flash identifier is known
// and before the first erase: a main image reaching into its own OTA area would
// lose its tail to the OTA set-up, and a region past the flash's end would be
// erased block by block until the chip refuses a command.
int CheckRegions(UpgradeRun& run, const PhasePlan& plan)
{
    std::vector<FlashRegion> regions{{"main image", 0, run.mainLength}};
    if (plan.ota)
        regions.push_back({"OTA area", plan.otaLayout.address, plan.otaLayout.size});
    if (plan.etf)
        regions.push_back({"ETF image", plan.etfPlan.start, EtfBytes(plan.etfPlan)});
    std::string why;
    if (CheckFlashRegions(regions, FlashCapacityInUse(), why) == 0)
        return 0;
    PrintLine(why);
    return ImageFailure(run);
}

// Everything from the connection attempt on; leaves the final status.
void ConnectAndProgram(UpgradeRun& run, const PhasePlan& plan)
{
    std::printf("%d%%: Opening com...\n", 3);
    std::fflush(stdout);
    if (g_flashHost.OpenUart() != 0) {
        // The flash host tells whether the log, the port or the target failed.
        KeepFirstFailure(run.failure, g_flashHost.m_failKind);
        PrintLine(g_flashHost.m_strMsg);
        AbortRun(run);
        return;
    }
    if (CheckRegions(run, plan) != 0 || ProgramFlash(run, plan) != 0) {
        AbortRun(run);
        return;
    }
    g_flashHost.CloseAfterSuccess();  // the after action, if any, then Close
    g_iUpdateStatus = kStatusSuccess;
    std::printf("%d%%: Upgrade OK!\n", 100);
    std::fflush(stdout);
}

// Everything from the images to the end of the connection; leaves the status and,
// after a failure, its class in the run.
void RunUpgrade(UpgradeRun& run)
{
    PhasePlan plan;
    if (OpenImages(run) != 0 || MeasureMainImage(run) != 0 || PlanPhases(run, plan) != 0) {
        g_iUpdateStatus = kStatusFailed;
        return;
    }
    run.compare.reset(new unsigned char[kUpgradeBlockSize]);
    run.data.reset(new unsigned char[kUpgradeBlockSize]);

    if (g_flashHost.SendUpgradeCmd() != 0) {
        std::printf("%s", g_flashHost.m_strMsg.c_str());
        std::fflush(stdout);
    }
    std::memset(run.data.get(), flash_geometry::kErasedByte, kUpgradeBlockSize);
    std::memset(run.compare.get(), flash_geometry::kErasedByte, kUpgradeBlockSize);

    ConnectAndProgram(run, plan);
    // Every run that reached the connection leaves the stop flag set.
    g_flashHost.SetStopUpdate();
}

}  // namespace

// The result is always null: the outcome is in g_iUpdateStatus and, when the
// driver hands one in, the failure's class in its UpgradeOutcome.
void* UpGradeThread(void* arg)
{
    UpgradeOutcome* outcome = static_cast<UpgradeOutcome*>(arg);
    g_iUpdateStatus = kStatusRunning;
    run_report::Start(g_flashHost.GetComNum(), g_flashHost.GetBaud(), ImagePaths());
    UpgradeRun run;
    RunUpgrade(run);
    if (outcome)
        outcome->failure = run.failure;
    return nullptr;
}
