// Whole upgrade runs of the main image against the simulated target: progress
// numbering, change detection, retries, the speed fall-back and the stop console.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/upgrade/upgrade_fixtures.h"

namespace {

constexpr uint8_t kEraseFlash = 0x19;
constexpr uint8_t kWriteSector = 0x1B;
constexpr uint8_t kReadSector = 0x1A;

Bytes MainImageOfSize(size_t total, uint32_t seed)
{
    // One section: 64 header bytes and the rest data.
    return MakeImage(1, {total - 64}, seed);
}

Bytes ExpectedAfterMainImage(const Bytes& initial, const Bytes& image)
{
    Bytes flash = initial;
    ModelBlockWrite(flash, 0, image);
    return flash;
}

TEST(UpgradeRun, FullRunThenUnchangedRunChecksOnly)
{
    UpgradeBench bench;
    const Bytes image = MainImageOfSize(200000, 1);
    bench.WriteFile("main.img", image);

    ProcessResult first = bench.Run({"-i", "main.img", "-u", "0", "-r", "1"});
    ASSERT_EQ(first.exitStatus, 0) << first.out << first.err;
    const std::vector<int> fullRun = {3, 10, 16, 23, 30, 36, 43, 50, 56, 63, 70, 76, 83,
                                      91, 92, 93, 94, 100};
    EXPECT_EQ(ProgressPercents(first.out), fullRun) << first.out;
    EXPECT_NE(first.out.find("not Combined image!!\n"), std::string::npos);
    EXPECT_NE(first.out.find("\n3%: Opening com...\n"), std::string::npos);
    EXPECT_NE(first.out.find("\n16%: Writing the 1 block,total 3 block(s)...\n"), std::string::npos);
    EXPECT_NE(first.out.find("\n94%: Verifying rest data of 64k...\n"), std::string::npos);
    EXPECT_NE(first.out.find("\n100%: Upgrade OK!\n"), std::string::npos);
    const Bytes expected = ExpectedAfterMainImage(bench.InitialFlash(), image);
    EXPECT_EQ(FirstDifference(bench.Flash(), expected), -1);

    ProcessResult second = bench.Run({"-i", "main.img", "-u", "1", "-r", "1"});
    ASSERT_EQ(second.exitStatus, 0) << second.out << second.err;
    EXPECT_EQ(ProgressPercents(second.out), (std::vector<int>{3, 10, 36, 63, 90, 100})) << second.out;
    EXPECT_EQ(CountOccurrences(second.out, "block(s)...\n"), 3u);
    EXPECT_EQ(CountOccurrences(second.out, "%: Checking the "), 3u);
    EXPECT_EQ(CountOccurrences(second.out, "90%: Checking rest data of 64k...\n"), 1u);
    EXPECT_EQ(CountFramesReceived(bench.Trace(), kEraseFlash), 0u);
    EXPECT_EQ(CountFramesReceived(bench.Trace(), kWriteSector), 0u);
    EXPECT_EQ(FirstDifference(bench.Flash(), expected), -1);
}

TEST(UpgradeRun, ChangedBlockIsTheOnlyOneRewritten)
{
    UpgradeBench bench;
    Bytes image = MainImageOfSize(140000, 2);
    bench.WriteFile("main.img", image);
    ASSERT_EQ(bench.Run({"-i", "main.img", "-u", "0"}).exitStatus, 0);

    // The same image with two data words swapped in its second block: the word sum,
    // and so the header, stay the same, and the image stays valid.
    Bytes changed = image;
    std::swap_ranges(changed.begin() + 100000, changed.begin() + 100002, changed.begin() + 100002);
    ASSERT_NE(changed, image);
    bench.WriteFile("main.img", changed);
    ProcessResult run = bench.Run({"-i", "main.img", "-u", "1"});
    ASSERT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_EQ(CountOccurrences(run.out, "Erasing the 2 block,total 2 block(s)"), 1u) << run.out;
    EXPECT_EQ(CountOccurrences(run.out, "Erasing"), 1u) << run.out;
    EXPECT_EQ(CountFramesReceived(bench.Trace(), kEraseFlash), 1u);
    EXPECT_EQ(FirstDifference(bench.Flash(), ExpectedAfterMainImage(bench.InitialFlash(), changed)), -1);
}

TEST(UpgradeRun, ErrorReplyIsRetriedAndTheResultIsExact)
{
    UpgradeBench bench;
    const Bytes image = MainImageOfSize(70000, 3);
    bench.WriteFile("main.img", image);
    ProcessResult run = bench.Run({"-i", "main.img", "-u", "0", "-r", "1"},
                                  {"--fault", "WriteSector:5:error2"});
    ASSERT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_EQ(CountOccurrences(run.out, "Write the 1 block error ! Total 1 block(s)!\n"), 1u) << run.out;
    EXPECT_EQ(CountOccurrences(run.out, "Erasing the 1 block,total 1 block(s)"), 2u);
    EXPECT_NE(run.out.find("100%: Upgrade OK!"), std::string::npos);
    EXPECT_EQ(FirstDifference(bench.Flash(), ExpectedAfterMainImage(bench.InitialFlash(), image)), -1);
}

TEST(UpgradeRun, FallsBackTo115200BeforeTheFifthAttempt)
{
    UpgradeBench bench;
    const Bytes image = MainImageOfSize(3000, 4);
    bench.WriteFile("main.img", image);
    ProcessResult run = bench.Run({"-i", "main.img", "-u", "0", "-r", "1", "-b", "921600"},
                                  {"--fault", "WriteSector:every:error2@921600"});
    ASSERT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_EQ(CountOccurrences(run.out, "Write rest data of 64k error!\n"), 4u) << run.out;
    EXPECT_EQ(CountOccurrences(run.out, "92%: Writing rest data of 64k...\n"), 5u);
    EXPECT_NE(run.out.find("100%: Upgrade OK!"), std::string::npos);
    const std::string trace = bench.Trace();
    EXPECT_EQ(CountFramesReceived(trace, kWriteSector, "921600"), 4u);
    // At 115200 one sector per command: 3,000 bytes are six sectors.
    EXPECT_EQ(CountFramesReceived(trace, kWriteSector, "115200"), 6u);
    EXPECT_EQ(FirstDifference(bench.Flash(), ExpectedAfterMainImage(bench.InitialFlash(), image)), -1);
}

TEST(UpgradeRun, FailingTargetAbortsAfterFiveAttempts)
{
    UpgradeBench bench;
    bench.WriteFile("main.img", MainImageOfSize(3000, 5));
    ProcessResult run = bench.Run({"-i", "main.img", "-u", "0", "-b", "115200"},
                                  {"--fault", "EraseFlash:every:error3"});
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_EQ(CountOccurrences(run.out, "Erase rest data of 64k error!\n"), 5u) << run.out;
    EXPECT_EQ(run.out.find("Upgrade OK"), std::string::npos);
    EXPECT_EQ(run.out.find("User stoped!"), std::string::npos);
    EXPECT_EQ(CountFramesReceived(bench.Trace(), kWriteSector), 0u);
}

// A stop typed before or while the connection is being opened is seen only once
// OpenUart has returned: the bring-up completes, then not one flash command follows.
TEST(UpgradeRun, StopTypedWhileConnectingIsSeenAfterOpenUart)
{
    struct Case {
        const char* what;
        std::vector<std::string> simArgs;
    };
    const Case cases[] = {
        {"stop as the first line", {}},
        {"stop during a slow bring-up", {"--sync-fail", "3"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        UpgradeBench bench;
        bench.WriteFile("main.img", MainImageOfSize(70000, 6));
        ProcessResult run = bench.Run({"-i", "main.img"}, c.simArgs, "stop\n");
        EXPECT_EQ(run.exitStatus, 0);
        EXPECT_EQ(ProgressPercents(run.out), std::vector<int>{3}) << run.out;
        const size_t opening = run.out.find("3%: Opening com...\n");
        const size_t stopped = run.out.find("User stoped!\n");
        ASSERT_NE(stopped, std::string::npos) << run.out;
        EXPECT_LT(opening, stopped);
        EXPECT_EQ(run.out.find("Data:"), std::string::npos);  // the stop line is not echoed
        const std::string trace = bench.Trace();
        EXPECT_NE(trace.find("event bootloader started"), std::string::npos);
        EXPECT_EQ(CountFramesReceived(trace, kEraseFlash) + CountFramesReceived(trace, kReadSector) +
                      CountFramesReceived(trace, kWriteSector),
                  0u);
        EXPECT_EQ(bench.Flash(), bench.InitialFlash());
    }
}

// The run ends on its own while the console thread still waits for a line.
TEST(UpgradeRun, OtherConsoleLinesAreEchoedAndDoNotStop)
{
    UpgradeBench bench;
    const Bytes image = MainImageOfSize(3000, 7);
    bench.WriteFile("main.img", image);
    ProcessResult run = bench.Run({"-i", "main.img", "-u", "0"}, {}, "Stop\n stop\n", true);
    ASSERT_EQ(run.exitStatus, 0);
    EXPECT_NE(run.out.find("Data:Stop\nTIP:Input 'stop' to stop upgrading.\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("Data: stop\nTIP:Input 'stop' to stop upgrading.\n"), std::string::npos);
    EXPECT_NE(run.out.find("100%: Upgrade OK!"), std::string::npos);
    EXPECT_EQ(FirstDifference(bench.Flash(), ExpectedAfterMainImage(bench.InitialFlash(), image)), -1);
}

TEST(UpgradeRun, ImageProblemsEndTheRunBeforeAnyConnection)
{
    struct Case {
        const char* what;
        std::vector<std::string> args;
        std::string message;
    };
    const Case cases[] = {
        {"missing image", {"-i", "nothing.img"}, "Failed to open image file: nothing.img\n"},
        {"damaged image", {"-i", "bad.img"}, "Invalid image!\n"},
        {"missing ETF image", {"-i", "main.img", "-e", "1", "-I", "none.img"},
         "Failed to open etf image file: none.img\n"},
        {"damaged ETF image", {"-i", "main.img", "-e", "1", "-I", "bad.img"}, "Invalid etf image!\n"},
        {"OTA area smaller than its header", {"-i", "small_ota.img"}, "smaller than the 2048-byte OTA header"},
        {"ETF image without an OTA area", {"-i", "main.img", "-e", "1", "-I", "etf.img"},
         "defines no OTA area"},
    };
    UpgradeBench bench;
    bench.WriteFile("main.img", MainImageOfSize(3000, 8));
    Bytes bad = MainImageOfSize(3000, 8);
    bad[500] ^= 1;
    bench.WriteFile("bad.img", bad);
    bench.WriteFile("small_ota.img", MakeImage(2, {1000, 1000}, 9, 2047, 0x00100000));
    bench.WriteFile("etf.img", MakeImage(1, {100, 1000}, 10));
    for (const Case& c : cases) {
        ProcessResult run = bench.Run(c.args);
        EXPECT_EQ(run.exitStatus, 0) << c.what;
        EXPECT_NE(run.out.find(c.message), std::string::npos) << c.what << "\n" << run.out;
        EXPECT_EQ(run.out.find("Opening com"), std::string::npos) << c.what;
        EXPECT_TRUE(ProgressPercents(run.out).empty()) << c.what;
    }
    EXPECT_EQ(bench.Flash(), bench.InitialFlash());
}

}  // namespace
