// The fast link against the simulated target: the same upgrades and flash debug
// operations as on the classic link, with and without faults, end with the same
// console text (but for the per-region summary lines), status and flash, even with
// terminal writes shaped like a USB-serial adapter's; on the wire the change check
// stops at the first difference and erased sectors are not sent; every fast rate
// works.
#include <gtest/gtest.h>

#include "tests/upgrade/upgrade_fixtures.h"

namespace {

constexpr uint8_t kReadSector = 0x1A;
constexpr uint8_t kWriteSector = 0x1B;

// Device paths and the fast link's own summary lines are all that may differ.
std::string Comparable(const std::string& out)
{
    std::string kept;
    for (const std::string& line : TextLines(WithoutDevicePaths(out))) {
        const bool summary = line.size() > 8 && line.compare(line.size() - 8, 8, " of line") == 0 &&
                             (line.rfind("main: ", 0) == 0 || line.rfind("ota: ", 0) == 0 ||
                              line.rfind("etf: ", 0) == 0);
        if (!summary)
            kept += line + "\n";
    }
    return kept;
}

// retryPauses: of one second, between a block's attempts
struct Outcome { ProcessResult result; Bytes flash; size_t retryPauses; };

// The reference run is the classic link with every terminal write taken whole; the
// other has the fast link with writes shaped like a USB-serial adapter's (at most
// 4 KiB taken per write, EAGAIN every third write). Both log their pauses.
Outcome RunOnce(bool fastAndShaped, std::vector<std::string> args, const std::vector<std::string>& simArgs,
                const Bytes& mainImage)
{
    UpgradeBench bench;
    bench.WriteFile("main.img", mainImage);
    bench.WriteFile("etf.img", MakeImage(1, {4096, 9000}, 22));
    bench.WriteFile("data.bin", PatternBytes(0x8345, 13));
    bench.UseShim(KESTREL_ADAPTER_SHIM);
    if (fastAndShaped)
        args.insert(args.begin(), "--fast");
    else
        bench.toolLauncher.insert(bench.toolLauncher.end(),
                                  {"KESTREL_SHIM_EAGAIN_EVERY=0", "KESTREL_SHIM_MAX_WRITE=4294967295"});
    Outcome outcome{bench.Run(args, simArgs), bench.Flash(), bench.PausesOf(1000000)};
    outcome.result.out = Comparable(outcome.result.out);
    return outcome;
}

// smallImage: the fallback runs at 115200 with one sector per command
struct LinkCase { std::vector<std::string> toolArgs, simArgs; bool smallImage; size_t retryPauses; };

// Runs each case on both links. The cases are split over three tests so that they
// run side by side.
void ExpectBothLinksEndAlike(const std::vector<LinkCase>& cases)
{
    for (const auto& c : cases) {
        SCOPED_TRACE(c.toolArgs.back() + (c.simArgs.empty() ? "" : " " + c.simArgs[1]));
        const Bytes image =
            c.smallImage ? MakeImage(1, {3000}, 23) : MakeImage(2, {20000, 3000}, 21, 0x8000, 0x1F8000);
        Outcome classic = RunOnce(false, c.toolArgs, c.simArgs, image);
        Outcome fast = RunOnce(true, c.toolArgs, c.simArgs, image);
        EXPECT_EQ(classic.result.exitStatus, fast.result.exitStatus);
        EXPECT_EQ(classic.result.out, fast.result.out);
        EXPECT_EQ(-1, FirstDifference(classic.flash, fast.flash));
        EXPECT_EQ(c.retryPauses, classic.retryPauses);
        EXPECT_EQ(c.retryPauses, fast.retryPauses);
        // Without faults the runs must have done their work, not failed alike.
        if (c.simArgs.empty() || c.simArgs[0] != "--fault") {
            EXPECT_FALSE(Has(fast.result.out, "rror")) << fast.result.out;
            EXPECT_FALSE(Has(fast.result.out, "failed")) << fast.result.out;
        }
    }
}

TEST(LinkVariants, FastLinkOverAnAdapterEndsUpgradesWithTheClassicLinksTextStatusAndFlash)
{
    ExpectBothLinksEndAlike({
        {{"-i", "main.img", "-e", "1", "-I", "etf.img", "-u", "0", "-r", "1"}, {}, false, 0},
        {{"-i", "main.img", "-e", "1", "-I", "etf.img", "-u", "1"}, {}, false, 0},  // change check on old flash
    });
}

// Faults count commands; the fast link sends fewer reads (the change check stops
// early), so faults here name commands both links send alike.
TEST(LinkVariants, FastLinkOverAnAdapterEndsFaultedUpgradesWithTheClassicLinksTextStatusAndFlash)
{
    ExpectBothLinksEndAlike({
        {{"-i", "main.img", "-u", "0", "-r", "1"}, {"--fault", "WriteSector:7:error2"}, false, 1},
        {{"-i", "main.img", "-u", "1"}, {"--fault", "EraseFlash:2:noreply"}, false, 1},
        {{"-i", "main.img", "-u", "0"}, {"--fault", "EraseFlash:every:error2@921600"}, true, 4},  // falls back
        {{"-i", "main.img", "-u", "0", "-r", "1"}, {"--fault", "ReadSector:1+:bitflip"}, true, 5},
    });
}

TEST(LinkVariants, FastLinkOverAnAdapterEndsFlashDebugWithTheClassicLinksTextStatusAndFlash)
{
    const std::vector<std::string> romFlash = {"--rom-flash", "yes"};
    ExpectBothLinksEndAlike({
        {{"-D", "r", "-A", "0x30200", "-L", "0x8345"}, romFlash, true, 0},
        {{"-D", "w", "-A", "0x20000", "-L", "0x8345", "-B", "data.bin"}, romFlash, true, 0},
        {{"-D", "e", "-A", "0x10080", "-L", "0x20000"}, romFlash, true, 0},
    });
}

// A two-block image whose second block has 16 erased sectors, then the same image
// changed in the last chunk of block 1 and the first chunk of block 2.
TEST(FastLink, ChangeCheckStopsAtTheFirstDifferenceAndErasedSectorsAreNotSent)
{
    ImageSpec spec;
    SectionSpec section;
    section.data = PatternBytes(2 * kBlock - 64, 31);
    const size_t blankFrom = kBlock + 8 * 512, blankTo = kBlock + 24 * 512;  // flash offsets
    std::fill(section.data.begin() + (blankFrom - 64), section.data.begin() + (blankTo - 64), 0xFF);
    spec.sections.push_back(section);
    const Bytes image = BuildImage(spec);

    UpgradeBench bench;
    bench.WriteFile("main.img", image);
    ProcessResult first = bench.Run({"--fast", "-i", "main.img", "-u", "1"});
    ASSERT_TRUE(Has(first.out, "Upgrade OK!")) << first.out;
    Bytes expected = bench.InitialFlash();
    ModelBlockWrite(expected, 0, image);
    EXPECT_EQ(-1, FirstDifference(expected, bench.Flash()));
    const std::string trace1 = bench.Trace();
    // The old flash differs at once: one read command per block. 256 sectors to
    // write, 16 of them erased: 240 in commands of four.
    EXPECT_EQ(2u, CountFramesReceived(trace1, kReadSector));
    EXPECT_EQ(60u, CountFramesReceived(trace1, kWriteSector));

    // Swapping the low bytes of two 16-bit words keeps the data checksum, so the
    // header (at the start of block 1) stays as it was: block 1 differs only in its
    // last chunk, block 2 in its first.
    const size_t endOfBlock1 = kBlock - 2 - 64, startOfBlock2 = kBlock - 64;
    ASSERT_NE(section.data[endOfBlock1], section.data[startOfBlock2]);
    std::swap(section.data[endOfBlock1], section.data[startOfBlock2]);
    spec.sections[0] = section;
    const Bytes changed = BuildImage(spec);
    bench.WriteFile("main.img", changed);
    ProcessResult second = bench.Run({"--fast", "-i", "main.img", "-u", "1"});
    ASSERT_TRUE(Has(second.out, "Upgrade OK!")) << second.out;
    const std::string trace2 = bench.Trace();
    // Block 1 is read to its last chunk (32 commands), block 2 only its first.
    EXPECT_EQ(33u, CountFramesReceived(trace2, kReadSector));
    ModelBlockWrite(expected, 0, changed);
    EXPECT_EQ(-1, FirstDifference(expected, bench.Flash()));
}

// Rates above 921600: the boot-loader goes over at 921600, then
// the line moves up; the image lands whole. The last row turns the fast link on
// through the settings file instead of --fast.
TEST(FastLink, RatesAbove921600UpgradeWithReadBack)
{
    const Bytes main = MakeImage(2, {90000}, 41, 0x8000, 0x1F8000);
    const struct { const char* rate; bool throughSettings; } cases[] = {
        {"1000000", false}, {"3000000", false}, {"1500000", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.rate) + (c.throughSettings ? " (bFastLink=1)" : " (--fast)"));
        UpgradeBench bench;
        bench.WriteFile("main.img", main);
        std::vector<std::string> args = {"-b", c.rate, "-i", "main.img", "-u", "0", "-r", "1"};
        if (c.throughSettings)
            WriteText(bench.Path("settings_mac.ini"), "[setting]\nbFastLink=1\n[debug]\niDebugOp=n\n");
        else
            args.insert(args.begin(), "--fast");
        ProcessResult r = bench.Run(args);
        EXPECT_NE(std::string::npos, r.out.find("100%: Upgrade OK!")) << r.out;
        EXPECT_NE(std::string::npos, r.out.find("main: 90064 bytes in ")) << r.out;
        Bytes expected = bench.InitialFlash();
        ModelBlockWrite(expected, 0, main);
        ModelOtaArea(expected, 0x1F8000, 0x8000);
        EXPECT_EQ(-1, FirstDifference(expected, bench.Flash()));
        // The working rate was really used on the line.
        EXPECT_NE(std::string::npos, bench.Trace().find(std::string("rx ") + c.rate + " ")) << c.rate;
    }
}

// A thread that cannot be started ends the run as a failure and never cuts a flash
// operation short: without the worker nothing is written; without the console
// reader the upgrade already under way is asked to stop between two steps and
// waited for, neither cut short nor let run to its end.
TEST(UpgradeStart, AThreadThatCannotStartFailsTheRunBetweenSteps)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own pthread_create comes before the shim's";
#endif
    const struct { const char* failing; const char* said; const char* then; } cases[] = {
        {"KESTREL_SHIM_FAIL_THREAD=1", "Create UpGradeThread error!\n", ""},
        {"KESTREL_SHIM_FAIL_THREAD=2", "Create InputThread error!\n", "User stoped!\n"},
    };
    for (const auto& c : cases) {
        UpgradeBench bench;
        bench.WriteFile("main.img", MakeImage(1, {200000}, 12));
        bench.UseShim(KESTREL_ADAPTER_SHIM);
        bench.toolLauncher.push_back(c.failing);
        ProcessResult r = bench.Run({"-i", "main.img"});
        EXPECT_TRUE(Has(r.out, c.said) && Has(r.out, c.then)) << r.out;
        EXPECT_EQ(255, r.exitStatus);
        EXPECT_EQ(bench.InitialFlash(), bench.Flash());
    }
}

}  // namespace
