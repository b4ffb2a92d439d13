// Whole upgrade runs of the main image against the simulated target: progress
// numbering, change detection, retries, the speed fall-back and the stop console.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <unistd.h>

#include "tests/upgrade/upgrade_fixtures.h"

namespace {

constexpr uint8_t kEraseFlash = 0x19;
constexpr uint8_t kWriteSector = 0x1B;
constexpr uint8_t kReadSector = 0x1A;

// One section: 64 header bytes and the rest data.
Bytes MainImageOfSize(size_t total, uint32_t seed) { return MakeImage(1, {total - 64}, seed); }

Bytes ExpectedAfterMainImage(Bytes flash, const Bytes& image)
{
    ModelBlockWrite(flash, 0, image);
    return flash;
}

TEST(UpgradeRun, FullRunThenUnchangedRunChecksOnlyThenOnlyTheChangedBlockIsRewritten)
{
    UpgradeBench bench;
    const Bytes image = MainImageOfSize(200000, 1);
    bench.WriteFile("main.img", image);

    ProcessResult first = bench.Run({"-i", "main.img", "-u", "0", "-r", "1"});
    ASSERT_EQ(first.exitStatus, 0) << first.out << first.err;
    EXPECT_EQ(ProgressPercents(first.out),
              (std::vector<int>{3, 10, 16, 23, 30, 36, 43, 50, 56, 63, 70, 76, 83, 91, 92, 93, 94, 100})) << first.out;
    for (const char* line : {"not Combined image!!\n", "\n3%: Opening com...\n",
                             "\n16%: Writing the 1 block,total 3 block(s)...\n",
                             "\n94%: Verifying rest data of 64k...\n", "\n100%: Upgrade OK!\n"})
        EXPECT_TRUE(Has(first.out, line)) << line;
    const Bytes expected = ExpectedAfterMainImage(bench.InitialFlash(), image);
    EXPECT_EQ(FirstDifference(bench.Flash(), expected), -1);

    ProcessResult second = bench.Run({"-i", "main.img", "-u", "1", "-r", "1"});
    ASSERT_EQ(second.exitStatus, 0) << second.out << second.err;
    EXPECT_EQ(ProgressPercents(second.out), (std::vector<int>{3, 10, 36, 63, 90, 100})) << second.out;
    EXPECT_EQ(CountOccurrences(second.out, "block(s)...\n"), 3u);
    EXPECT_EQ(CountOccurrences(second.out, "%: Checking the "), 3u);
    EXPECT_EQ(CountOccurrences(second.out, "90%: Checking rest data of 64k...\n"), 1u);
    EXPECT_EQ(CountFramesReceived(bench.Trace(), kEraseFlash) + CountFramesReceived(bench.Trace(), kWriteSector), 0u);
    EXPECT_EQ(FirstDifference(bench.Flash(), expected), -1);

    // Two data words swapped in the second block: the word sum, and so the header,
    // stay the same, and the image stays valid.
    Bytes changed = image;
    std::swap_ranges(changed.begin() + 100000, changed.begin() + 100002, changed.begin() + 100002);
    ASSERT_NE(changed, image);
    bench.WriteFile("main.img", changed);
    ProcessResult third = bench.Run({"-i", "main.img", "-u", "1"});
    ASSERT_EQ(third.exitStatus, 0) << third.out;
    EXPECT_EQ(CountOccurrences(third.out, "Erasing the 2 block,total 3 block(s)"), 1u) << third.out;
    EXPECT_EQ(CountOccurrences(third.out, "Erasing"), 1u) << third.out;
    EXPECT_EQ(CountFramesReceived(bench.Trace(), kEraseFlash), 1u);
    EXPECT_EQ(FirstDifference(bench.Flash(), ExpectedAfterMainImage(bench.InitialFlash(), changed)), -1);
}

// Error replies are retried; five failed attempts at 921600 fall back to 115200 for
// the fifth, and a target failing at every speed ends the run after five attempts.
TEST(UpgradeRun, FaultsAreRetriedFallBackTo115200AndAbortAfterFiveAttempts)
{
    const struct {
        size_t size;
        std::vector<std::string> args, simArgs;
        std::string repeated;
        size_t repeats;
        bool ok;
        std::string also;   // and this line, five times
    } cases[] = {
        {70000, {"-r", "1"}, {"--fault", "WriteSector:5:error2"}, "Write the 1 block error ! Total 1 block(s)!\n", 1,
         true, ""},
        // a main image's full block adds the host's message to an erase error
        {70000, {}, {"--fault", "EraseFlash:1:error2"}, "Erase the 1 block error ! Total 1 block(s)!\nmsg:", 1, true, ""},
        {3000, {"-r", "1", "-b", "921600"}, {"--fault", "WriteSector:every:error2@921600"},
         "Write rest data of 64k error!\n", 4, true, "92%: Writing rest data of 64k...\n"},
        {3000, {"-b", "115200"}, {"--fault", "EraseFlash:every:error3"}, "Erase rest data of 64k error!\n", 5, false,
         "Erasing rest data of 64k"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.simArgs[1]);
        UpgradeBench bench;
        const Bytes image = MainImageOfSize(c.size, 3);
        bench.WriteFile("main.img", image);
        std::vector<std::string> args = {"-i", "main.img", "-u", "0"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        ProcessResult run = bench.Run(args, c.simArgs);
        ASSERT_EQ(run.exitStatus, 0) << run.out;
        EXPECT_EQ(CountOccurrences(run.out, c.repeated), c.repeats) << run.out;
        EXPECT_EQ(Has(run.out, "100%: Upgrade OK!"), c.ok);
        EXPECT_FALSE(Has(run.out, "User stoped!"));
        if (!c.also.empty()) {
            EXPECT_EQ(CountOccurrences(run.out, c.also), 5u);
        }
        const std::string trace = bench.Trace();
        if (!c.ok) {
            EXPECT_EQ(CountFramesReceived(trace, kWriteSector), 0u);
            continue;
        }
        EXPECT_EQ(FirstDifference(bench.Flash(), ExpectedAfterMainImage(bench.InitialFlash(), image)), -1);
        if (c.size == 70000) {
            EXPECT_EQ(CountOccurrences(run.out, "Erasing the 1 block,total 1 block(s)"), 2u);
        } else {
            EXPECT_EQ(CountFramesReceived(trace, kWriteSector, "921600"), 4u);
            // At 115200 one sector per command: 3,000 bytes are six sectors.
            EXPECT_EQ(CountFramesReceived(trace, kWriteSector, "115200"), 6u);
        }
    }
}

// A stop typed before or while the connection is being opened is seen only once
// OpenUart has returned: the bring-up completes, then not one flash command follows.
TEST(UpgradeRun, StopTypedWhileConnectingIsSeenAfterOpenUart)
{
    for (const char* syncFail : {"0", "3"}) {
        SCOPED_TRACE(syncFail);
        UpgradeBench bench;
        bench.WriteFile("main.img", MainImageOfSize(70000, 6));
        ProcessResult run = bench.Run({"-i", "main.img"}, {"--sync-fail", syncFail}, "stop\n");
        EXPECT_EQ(run.exitStatus, 0);
        EXPECT_EQ(ProgressPercents(run.out), std::vector<int>{3}) << run.out;
        const size_t stopped = run.out.find("User stoped!\n");
        ASSERT_NE(stopped, std::string::npos) << run.out;
        EXPECT_LT(run.out.find("3%: Opening com...\n"), stopped);
        EXPECT_FALSE(Has(run.out, "Data:"));  // the stop line is not echoed
        const std::string trace = bench.Trace();
        EXPECT_TRUE(Has(trace, "event bootloader started"));
        EXPECT_EQ(CountFramesReceived(trace, kEraseFlash) + CountFramesReceived(trace, kReadSector) +
                      CountFramesReceived(trace, kWriteSector), 0u);
        EXPECT_EQ(bench.Flash(), bench.InitialFlash());
    }
}

// Ctrl-C (SIGINT to the tool alone) is the console's stop: an upgrade ends between
// steps and a debug read between blocks, through the normal path, so the port is
// closed with the target back at 115200 and a second run against the same
// simulator succeeds. A second signal (SIGTERM after SIGINT: two of one kind may
// merge) ends at once. No temporary file is left.
// The tool runs under a shell inside one UpgradeBench run: "$@" is the tool with
// the simulator's port, WAIT is what shows the run is under way. The console stays
// open (its reader blocked in a read must not keep the process alive).
TEST(UpgradeRun, CtrlCStopsBetweenStepsAndTheNextRunSucceeds)
{
    const char* const kScript =
        "\"$@\" 0<&0 > first.txt 2>&1 & pid=$!; i=0\n"
        "until eval \"$WAIT\" || [ $i -gt 400 ]; do sleep 0.05; i=$((i+1)); done\n"
        "kill -INT $pid; [ -n \"$TWICE\" ] && kill -TERM $pid\n"
        "wait $pid; echo \"FIRST $?\"; cat first.txt; echo SECOND; ls\n"
        "[ -n \"$TWICE\" ] || \"$@\"\n";
    const struct {
        std::vector<std::string> args;
        const char* wait;
        bool twice;
        const char* firstStatus;
        const char* secondLine;
    } cases[] = {
        {{"-i", "main.img", "-u", "0"}, "grep -q Writing first.txt", false, "FIRST 0\n", "100%: Upgrade OK!\n"},
        {{"-D", "r", "-A", "0", "-L", "0x40000"}, "ls | grep -q 'bin[.]'", false, "FIRST 255\n",
         "Read addr:0x00000000 len:0x00040000 OK!\n"},
        {{"-D", "r", "-A", "0", "-L", "0x40000"}, "ls | grep -q 'bin[.]'", true, "FIRST 255\n", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[1] + (c.twice ? " twice" : ""));
        UpgradeBench bench;
        const Bytes image = MainImageOfSize(400000, 8);
        bench.WriteFile("main.img", image);
        bench.toolLauncher = {"/usr/bin/env", std::string("WAIT=") + c.wait, c.twice ? "TWICE=1" : "TWICE=",
                              "/bin/sh", "-c", kScript, "sh"};
        const bool debug = c.args[0] == "-D";  // the boot ROM serves the debug mode's flash
        ProcessResult run = bench.Run(c.args, debug ? std::vector<std::string>{"--rom-flash", "yes"}
                                                    : std::vector<std::string>{},
                                      "", true);  // the console stays open, as at a terminal
        const size_t second = run.out.find("SECOND\n");
        ASSERT_NE(std::string::npos, second) << run.out;
        const std::string first = run.out.substr(0, second), after = run.out.substr(second);
        EXPECT_TRUE(Has(first, c.firstStatus)) << first;
        EXPECT_EQ(!c.twice, Has(first, "User stoped!\n")) << first;
        EXPECT_FALSE(Has(first, "OK!")) << first;
        EXPECT_FALSE(Has(after, "bin.")) << after;  // no temporary read file
        if (c.twice)
            continue;
        EXPECT_EQ(0, run.exitStatus) << after;
        EXPECT_TRUE(Has(after, c.secondLine)) << after;
        if (!debug) {
            EXPECT_EQ(-1, FirstDifference(bench.Flash(), ExpectedAfterMainImage(bench.InitialFlash(), image)));
        }
    }
}

TEST(UpgradeRun, ImageProblemsEndTheRunBeforeAnyConnection)
{
    const struct { std::vector<std::string> args; std::string message; } cases[] = {
        {{"-i", "nothing.img"}, "Failed to open image file: nothing.img\n"}, {{"-i", "bad.img"}, "Invalid image!\n"},
        {{"-i", "main.img", "-e", "1", "-I", "none.img"}, "Failed to open etf image file: none.img\n"},
        {{"-i", "main.img", "-e", "1", "-I", "bad.img"}, "Invalid etf image!\n"},
        {{"-i", "small_ota.img"}, "smaller than the 2048-byte OTA header"},
        {{"-i", "main.img", "-e", "1", "-I", "etf.img"}, "defines no OTA area"},
    };
    UpgradeBench bench;
    Bytes image = MainImageOfSize(3000, 8);
    bench.WriteFile("main.img", image);
    image[500] ^= 1;
    bench.WriteFile("bad.img", image);
    bench.WriteFile("small_ota.img", MakeImage(2, {1000, 1000}, 9, 2047, 0x00100000));
    bench.WriteFile("etf.img", MakeImage(1, {100, 1000}, 10));
    for (const auto& c : cases) {
        ProcessResult run = bench.Run(c.args);
        EXPECT_EQ(run.exitStatus, 0) << c.message;
        EXPECT_TRUE(Has(run.out, c.message)) << run.out;
        EXPECT_FALSE(Has(run.out, "Opening com")) << c.message;
        EXPECT_TRUE(ProgressPercents(run.out).empty()) << c.message;
    }
    EXPECT_EQ(bench.Flash(), bench.InitialFlash());
}

// An image file that shrinks after it was checked (replaced on disk, a network
// share that went away) is never programmed with erased bytes in place of the
// missing data: the run ends at the block the file cannot supply, and that block
// and everything after it are left as they were.
TEST(UpgradeImageFile, ImageThatShrinksMidRunAbortsBeforeTheBlockItCannotSupply)
{
    UpgradeBench bench;
    const Bytes image = MakeImage(1, {200000 - 64}, 5);  // three blocks and a tail
    bench.WriteFile("main.img", image);
    // Two unanswered synchronisations hold the connection for about four seconds;
    // the file is cut to one block and a bit long before the first block is read.
    std::thread shrink([&bench] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1000));
        EXPECT_EQ(0, truncate(bench.Path("main.img").c_str(), 70000));
    });
    ProcessResult run = bench.Run({"-i", "main.img", "-u", "0", "-r", "1"}, {"--sync-fail", "2"});
    shrink.join();

    EXPECT_TRUE(Has(run.out, "Failed to read image file: main.img\n")) << run.out;
    EXPECT_FALSE(Has(run.out, "Upgrade OK!")) << run.out;
    Bytes expected = bench.InitialFlash();
    ModelBlockWrite(expected, 0, Bytes(image.begin(), image.begin() + kBlock));
    EXPECT_EQ(-1, FirstDifference(expected, bench.Flash()));
}

}  // namespace
