// The real tool with its terminal writes shaped like a USB-serial adapter's (at most
// 4 KiB taken per write, EAGAIN every third write): an upgrade with the boot-loader
// upload and each flash debug operation give exactly the console output, exit
// status and flash contents they give on a line that takes every write at once.
#include <gtest/gtest.h>


#include "tests/upgrade/upgrade_fixtures.h"

namespace {

struct Outcome {
    int status;
    std::string out;
    Bytes flash;
};


struct Operation {
    const char* name;
    std::vector<std::string> toolArgs;
    std::vector<std::string> simArgs;
};

Outcome RunOnce(const Operation& op, bool shaped)
{
    UpgradeBench bench;
    Bytes main = MakeImage(2, {20000, 3000}, 11, 0x8000, 0x1F8000);
    Bytes etf = MakeImage(1, {4096, 9000}, 12);
    bench.WriteFile("main.img", main);
    bench.WriteFile("etf.img", etf);
    bench.WriteFile("data.bin", PatternBytes(0x8345, 13));
    if (shaped)
        bench.toolLauncher = {"/usr/bin/env", std::string("LD_PRELOAD=") + KESTREL_ADAPTER_SHIM,
                              // the sanitizer runtimes want to come first; the shim
                              // only wraps write()
                              "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1"};
    ProcessResult r = bench.Run(op.toolArgs, op.simArgs);
    return {r.exitStatus, WithoutDevicePaths(r.out), bench.Flash()};
}

TEST(AdapterShapedWrites, SameOutputAndFlashAsWritesTakenWhole)
{
    const Operation operations[] = {
        {"upgrade: boot-loader upload, main image with OTA area, ETF image, read-back",
         {"-i", "main.img", "-e", "1", "-I", "etf.img", "-u", "0", "-r", "1"}, {}},
        {"debug read", {"-D", "r", "-A", "0x30200", "-L", "0x8345"}, {"--rom-flash", "yes"}},
        {"debug write", {"-D", "w", "-A", "0x20000", "-L", "0x8345", "-B", "data.bin"},
         {"--rom-flash", "yes"}},
        {"debug erase", {"-D", "e", "-A", "0x10080", "-L", "0x20000"}, {"--rom-flash", "yes"}},
    };
    for (const Operation& op : operations) {
        SCOPED_TRACE(op.name);
        Outcome plain = RunOnce(op, false);
        Outcome shaped = RunOnce(op, true);
        EXPECT_EQ(plain.status, shaped.status);
        EXPECT_EQ(plain.out, shaped.out);
        EXPECT_EQ(-1, FirstDifference(plain.flash, shaped.flash));
        // The runs must have done their work, not failed alike.
        EXPECT_EQ(std::string::npos, shaped.out.find("error")) << shaped.out;
        EXPECT_EQ(std::string::npos, shaped.out.find("failed")) << shaped.out;
    }
}

}  // namespace
