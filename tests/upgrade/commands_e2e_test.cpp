// The everyday commands from the command line against the simulated target: what
// each leaves in flash, what it prints, that --verify sends no erase or write, and
// that bad values are refused before the target is touched.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/upgrade/upgrade_fixtures.h"
#include "upgrade/UpGrade.h"

namespace {

const uint8_t kOpEraseFlash = 0x19;
const uint8_t kOpWriteSector = 0x1B;
const uint8_t kOpGetFlashId = 0x18;

// The lines of the run's standard output that are JSON objects of this event.
std::vector<nlohmann::json> Events(const std::string& out, const std::string& event)
{
    std::vector<nlohmann::json> events;
    for (const std::string& line : TextLines(out)) {
        nlohmann::json j = nlohmann::json::parse(line, nullptr, false);
        if (!j.is_discarded() && j.value("event", "") == event)
            events.push_back(j);
    }
    return events;
}

// Runs the tool in `folder` under script(1), which gives it a terminal: standard
// error stays on it, standard output goes to /dev/null. Returns what the terminal
// received. The console stays open so that no end-of-file reaches the terminal.
std::string RunWithStderrOnTerminal(const std::vector<std::string>& args, const std::string& folder)
{
    std::string command = "exec '" + ToolPath() + "'";
    for (const std::string& arg : args)
        command += " '" + arg + "'";
    ProcessOptions options(folder);
    options.keepStdinOpen = true;
    return RunProcess("/usr/bin/script", {"-qec", command + " >/dev/null", "/dev/null"}, options).out;
}

// The progress line shows on a terminal and is cleared at the end; on a pipe there
// is none.
TEST(CommandsEndToEnd, ProgressLineOnlyOnATerminalAndClearedWhenDone)
{
    UpgradeBench bench;
    SimProcess sim({"--flash", bench.Path("flash.bin")});
    ASSERT_TRUE(sim.Started());
    const std::string terminal = RunWithStderrOnTerminal({"-c", sim.DevicePath(), "--erase-all"}, bench.Path(""));
    EXPECT_TRUE(Has(terminal, "\033[Kflash erase: 65536/4194304 bytes   1% ")) << terminal;
    EXPECT_TRUE(Has(terminal, "flash erase: 4194304/4194304 bytes 100% ")) << terminal;
    ASSERT_GE(terminal.size(), 4u);
    EXPECT_EQ("\r\033[K", terminal.substr(terminal.size() - 4)) << terminal;

    // A target that does not answer at once: the waits show too.
    SimProcess slow({"--flash", bench.Path("flash.bin"), "--sync-fail", "1"});
    ASSERT_TRUE(slow.Started());
    const std::string waited = RunWithStderrOnTerminal({"-c", slow.DevicePath(), "--info"}, bench.Path(""));
    EXPECT_TRUE(Has(waited, "waiting for the target's answer: attempt 1 of 5\r")) << waited;

    ProcessResult piped = bench.Run({"--erase-all"});
    EXPECT_EQ(0, piped.exitStatus);
    EXPECT_FALSE(Has(piped.err, "KB/s")) << piped.err;
}

TEST(CommandsEndToEnd, InfoShowsIdentifierCapacityResponderAndRate)
{
    UpgradeBench bench;
    ProcessResult r = bench.Run({"--info"});
    EXPECT_EQ(0, r.exitStatus);
    for (const char* line : {"Flash ID: C8 40 16\n", "Flash maker: 0xC8\n",
                             "Flash capacity: 4194304 bytes (4096 KiB)\n", "Responder code: 1\n",
                             "Boot-loader running: yes\n", "Rate: 921600\n"})
        EXPECT_TRUE(Has(r.out, line)) << r.out;

    ProcessResult j = bench.Run({"--info", "--json"}, {"--responder", "2", "--flash-id", "EF4001"});
    ASSERT_EQ(1u, Events(j.out, "info").size()) << j.out;
    // Capacity 0: the identifier's last byte is no capacity code.
    EXPECT_EQ(nlohmann::json({{"event", "info"}, {"flash_id", "EF4001"}, {"maker", "0xEF"}, {"capacity", 0},
                              {"responder", 2}, {"boot_loader", false}, {"rate", 921600}}), Events(j.out, "info")[0]);
    EXPECT_EQ(bench.InitialFlash(), bench.Flash());

    // No device: the upgrade text's failure is told, then the connection's.
    ProcessResult none = RunProcess(ToolPath(), {"--info", "-c", bench.Path("ttyNone")}, {bench.Path("")});
    EXPECT_EQ(255, none.exitStatus);
    EXPECT_EQ(2u, CountOccurrences(none.out, "Open uart error!")) << none.out;
}

// Flash that holds exactly what the upgrade would write; then one byte changed.
TEST(CommandsEndToEnd, VerifyComparesWithoutErasingOrWriting)
{
    UpgradeBench bench;
    const Bytes image = MakeImage(2, {70000, 30000}, 4, 0x8000, 0x1F8000);
    bench.WriteFile("main.img", image);
    Bytes flash = bench.InitialFlash();
    ModelBlockWrite(flash, 0, image);
    ModelOtaArea(flash, 0x1F8000, 0x8000);
    bench.WriteFile("flash.bin", flash);

    ProcessResult same = bench.Run({"-i", "main.img", "--verify"});
    EXPECT_EQ(0, same.exitStatus) << same.out;
    EXPECT_TRUE(Has(same.out, "Verify main 0x00000000 len:0x" )) << same.out;
    EXPECT_EQ(2u, CountOccurrences(same.out, ": equal\n")) << same.out;
    EXPECT_TRUE(Has(same.out, "Verify OK!\n"));
    EXPECT_EQ(0u, CountFramesReceived(bench.Trace(), kOpEraseFlash) + CountFramesReceived(bench.Trace(), kOpWriteSector));

    flash[0x12345] ^= 0x5A, flash[0x18000] ^= 0x5A;  // two differences in one block
    bench.WriteFile("flash.bin", flash);
    ProcessResult differs = bench.Run({"-i", "main.img", "--verify"});
    EXPECT_EQ(7, differs.exitStatus) << differs.out;
    EXPECT_TRUE(Has(differs.out, ": differs at 0x00012345 (1 block(s))\n")) << differs.out;
    EXPECT_EQ(0u, CountFramesReceived(bench.Trace(), kOpEraseFlash) + CountFramesReceived(bench.Trace(), kOpWriteSector));
    EXPECT_EQ(flash, bench.Flash());

    ProcessResult json = bench.Run({"-i", "main.img", "--verify", "--json"});
    EXPECT_EQ(7, json.exitStatus);
    const std::vector<nlohmann::json> regions = Events(json.out, "verify");
    ASSERT_EQ(2u, regions.size()) << json.out;
    EXPECT_EQ(std::vector<uint32_t>{0x10000}, regions[0]["blocks"].get<std::vector<uint32_t>>());
    EXPECT_EQ(0x12345, regions[0]["first_difference"]);
    EXPECT_EQ(true, regions[1]["equal"]);

    // A read the target refuses is a failed flash command, not a difference.
    ProcessResult refused = bench.Run({"-i", "main.img", "--verify", "--exit-code"}, {"--fault", "ReadSector:1:error2"});
    EXPECT_EQ(6, refused.exitStatus) << refused.out;
    EXPECT_TRUE(Has(refused.out, "Read failed at 0x00000000: ")) << refused.out;

    // An image that cannot be used ends the verify before any connection.
    bench.WriteFile("bad.img", Bytes(100, 0));
    const struct { std::vector<std::string> args; const char* line; } images[] = {
        {{"-i", "bad.img"}, "Failed to open image file: bad.img ("},
        {{"-i", "main.img", "-e", "1", "-I", "bad.img"}, "Failed to open etf image file: bad.img\n"},
    };
    for (const auto& c : images) {
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"--verify", "--exit-code"});
        ProcessResult bad = bench.Run(args);
        EXPECT_EQ(3, bad.exitStatus) << bad.out;
        EXPECT_TRUE(Has(bad.out, c.line)) << bad.out;
        EXPECT_EQ(0u, CountFramesReceived(bench.Trace(), 0x18)) << "no flash identifier asked for";
    }
}

// The ETF image is compared where the upgrade puts it: behind an OTA area that
// starts inside a block, without its first section.
TEST(CommandsEndToEnd, VerifyFindsTheEtfImageBehindTheOtaArea)
{
    UpgradeBench bench;
    const uint32_t otaAddress = 0x000FFC00, otaSize = 32768;
    const Bytes image = MakeImage(2, {3000, 500}, 30, otaSize, otaAddress);
    const Bytes etf = MakeImage(1, {1000, 60000, 50000}, 31);
    bench.WriteFile("main.img", image);
    bench.WriteFile("etf.img", etf);
    Bytes flash = bench.InitialFlash();
    ModelBlockWrite(flash, 0, image);
    ModelOtaArea(flash, otaAddress, otaSize);
    ModelEtfWrite(flash, otaAddress + otaSize, Bytes(etf.begin() + 64 + 1000, etf.end()));
    bench.WriteFile("flash.bin", flash);
    const std::vector<std::string> args = {"-i", "main.img", "-e", "1", "-I", "etf.img", "--verify"};

    ProcessResult same = bench.Run(args);
    EXPECT_EQ(0, same.exitStatus) << same.out;
    EXPECT_EQ(3u, CountOccurrences(same.out, ": equal\n")) << same.out;
    EXPECT_TRUE(Has(same.out, "Verify etf 0x00107C00 len:0x0001AE30: equal\n")) << same.out;

    flash[0x120000] ^= 1;
    bench.WriteFile("flash.bin", flash);
    ProcessResult differs = bench.Run(args);
    EXPECT_EQ(7, differs.exitStatus) << differs.out;
    EXPECT_TRUE(Has(differs.out, "Verify etf 0x00107C00 len:0x0001AE30: differs at 0x00120000 (1 block(s))\n"))
        << differs.out;
}

TEST(CommandsEndToEnd, EraseAllErasesTheCapacityInUse)
{
    const struct {
        std::vector<std::string> options;
        std::vector<std::string> sim;
        uint32_t erasedBytes;  // from 0; the rest as before
        int status;
    } cases[] = {
        {{"--erase-all"}, {}, kFlashSize, 0},
        {{"--erase-all", "--flash-size", "1M"}, {"--flash-id", "C84001"}, 1u << 20, 0},
        {{"--erase-all"}, {"--flash-id", "C84001"}, 0, 255},  // capacity unknown: refused
        {{"--erase-all"}, {"--fault", "EraseFlash:3:error3"}, 2 * kBlock, 255},  // the third erase fails: the end
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.erasedBytes);
        UpgradeBench bench;
        ProcessResult r = bench.Run(c.options, c.sim);
        EXPECT_EQ(c.status, r.exitStatus) << r.out;
        Bytes expected = bench.InitialFlash();
        std::fill(expected.begin(), expected.begin() + c.erasedBytes, 0xFF);
        EXPECT_EQ(-1, FirstDifference(bench.Flash(), expected));
        const bool failed = c.status != 0 && c.erasedBytes != 0;  // the erase that failed was sent too
        EXPECT_EQ(c.erasedBytes / kBlock + failed, CountFramesReceived(bench.Trace(), kOpEraseFlash));
        EXPECT_EQ(failed, Has(r.out, "Erase failed at 0x00020000: ")) << r.out;
        char done[80];  // the range erased, on success only
        std::snprintf(done, sizeof done, "Erase all: 0x00000000-0x%08X (%u bytes) OK!\n", c.erasedBytes - 1, c.erasedBytes);
        EXPECT_EQ(c.status == 0, Has(r.out, done)) << r.out;
        EXPECT_EQ(1u, CountFramesReceived(bench.Trace(), 0x10, "921600")) << "the target sent back to 115200";
    }
}

// Two binaries (one starting inside a block, one ending inside one) and an Intel
// HEX file with two segments: the bytes of partly covered blocks that no file
// covers stay as they were.
TEST(CommandsEndToEnd, WriteLeavesFlashEqualToTheModel)
{
    UpgradeBench bench;
    // a.bin covers the block at 0x20000 whole: that block is not read first
    const Bytes a = PatternBytes(0x20000, 1), b = PatternBytes(300, 2);
    bench.WriteFile("a.bin", a);
    bench.WriteFile("b.bin", b);
    WriteText(bench.Path("c.hex"), ":020000040030CA\n:0400100001020304E2\n:02000004003FBB\n:02FFF000AABBAA\n:00000001FF\n");
    ProcessResult r = bench.Run({"--json", "--write", "0x10100:a.bin", "--write", "256K:b.bin", "--write", "c.hex"});
    EXPECT_EQ(0, r.exitStatus) << r.err;
    EXPECT_TRUE(Has(r.err, "Write a.bin at 0x00010100-0x000300FF OK!\n")) << r.err;
    EXPECT_TRUE(Has(r.out, R"({"bytes":393216,"event":"region")")) << r.out;  // six blocks
    Bytes expected = bench.InitialFlash();
    std::copy(a.begin(), a.end(), expected.begin() + 0x10100);
    std::copy(b.begin(), b.end(), expected.begin() + 0x40000);
    const Bytes hexBytes = {1, 2, 3, 4};
    std::copy(hexBytes.begin(), hexBytes.end(), expected.begin() + 0x300010);
    expected[0x3FFFF0] = 0xAA;
    expected[0x3FFFF1] = 0xBB;
    EXPECT_EQ(-1, FirstDifference(bench.Flash(), expected));
}

// Every refusal comes before the target is touched: no identification, flash as it was.
TEST(CommandsEndToEnd, BadValuesAreRefusedBeforeTheConnection)
{
    // exitCode: with --exit-code
    const struct { std::vector<std::string> options; std::string line; int exitCode; } cases[] = {
        {{"--write", "0x1000x:a.bin"}, "Bad --write value: 0x1000x:a.bin", 2},
        {{"--write", "0:absent.bin"}, "Failed to read file: absent.bin\n", 3},
        {{"--write", "sum.hex"}, "Bad Intel HEX file: sum.hex line 1: checksum error\n", 3},
        {{"--write", "0:a.bin", "--write", "0x100:a.bin"}, "Refused: a.bin 0x00000000-0x000001FF overlaps a.bin", 2},
        {{"--write", "4M:a.bin", "--flash-size", "4M"}, "ends past the flash's 4194304 bytes", 2},
        {{"--erase-all", "--flash-size", "12Q"}, "Bad --flash-size value: 12Q", 2},
        {{"--erase-all", "--flash-size", "0"}, "Bad --flash-size value: 0", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        UpgradeBench bench;
        bench.WriteFile("a.bin", PatternBytes(0x200, 3));
        WriteText(bench.Path("sum.hex"), ":0400100001020304E3\n:00000001FF\n");
        ProcessResult r = bench.Run(c.options);
        EXPECT_EQ(255, r.exitStatus) << r.out;
        EXPECT_TRUE(Has(r.out, c.line)) << r.out;
        EXPECT_EQ(0u, CountFramesReceived(bench.Trace(), kOpGetFlashId));
        std::vector<std::string> withCode = c.options;
        withCode.push_back("--exit-code");
        EXPECT_EQ(c.exitCode, bench.Run(withCode).exitStatus);
        EXPECT_EQ(bench.InitialFlash(), bench.Flash());
    }
}

}  // namespace
