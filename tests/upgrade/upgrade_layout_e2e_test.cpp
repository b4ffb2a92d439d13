// Whole upgrade runs that place the OTA area and the ETF image, from separate files
// and from a combined image; every byte of the flash file is compared.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/sim_link.h"
#include "tests/upgrade/upgrade_fixtures.h"

namespace {

// The flash after a run: the main image from 0, the OTA area, then the ETF data.
Bytes Expected(const Bytes& initial, const Bytes& image, uint32_t otaAddress, uint32_t otaSize,
               const Bytes& etfData = {})
{
    Bytes flash = initial;
    ModelBlockWrite(flash, 0, image);
    ModelOtaArea(flash, otaAddress, otaSize);
    if (!etfData.empty())
        ModelEtfWrite(flash, otaAddress + otaSize, etfData);
    return flash;
}

// Each of these lines must appear in the output.
void ExpectLines(const std::string& out, std::initializer_list<const char*> lines)
{
    for (const char* line : lines)
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
}

TEST(OtaAreaRun, LeavesHeaderAndErasedAreaAndNothingElseChanged)
{
    const struct {
        uint32_t address;
        uint32_t size;
        size_t innerErases;  // data2: blocks wholly inside the area
        bool remainder;      // data4: the header does not fit in the first block
        uint32_t failedInnerErase;  // 0, or the inner block whose erase is refused
    } cases[] = {
        {0x000FFC00, 32768, 0, true, 0},    // the header split across two blocks
        {0x00100000, 0x30000, 2, false, 0}, // spans four blocks
        // the first inner block's erase (the run's third) is refused: reported,
        // passed over after a second's pause, and the run still ends well
        {0x00100000, 0x30000, 2, false, 0x00110000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.address);
        UpgradeBench bench;
        bench.UseShim(KESTREL_ADAPTER_SHIM);
        const Bytes image = MakeImage(2, {3000, 2000}, 20, c.size, c.address);
        bench.WriteFile("main.img", image);
        const std::vector<std::string> fault = {"--fault", "EraseFlash:3:error3"};
        ProcessResult run =
            bench.Run({"-i", "main.img", "-u", "0", "-r", "1"}, c.failedInnerErase ? fault : std::vector<std::string>());
        ASSERT_EQ(run.exitStatus, 0) << run.out;
        ExpectLines(run.out, {"95%: Writing OTA data1...\n", "100%: Upgrade OK!\n"});
        EXPECT_EQ(CountOccurrences(run.out, "96%: Erasing OTA data2...\n"), c.innerErases);
        EXPECT_EQ(Has(run.out, "99%: Writing OTA data4...\n"), c.remainder);
        const size_t failed = c.failedInnerErase != 0 ? 1 : 0;
        EXPECT_EQ(CountOccurrences(run.out, "Erase OTA data2 error!\n"), failed);
        EXPECT_EQ(bench.PausesOf(1000000), failed);
        Bytes expected = Expected(bench.InitialFlash(), image, c.address, c.size);
        if (failed != 0)
            std::copy_n(bench.InitialFlash().begin() + c.failedInnerErase, kBlock,
                        expected.begin() + c.failedInnerErase);
        EXPECT_EQ(FirstDifference(bench.Flash(), expected), -1);
    }
}

TEST(EtfImageRun, LandsBehindTheOtaAreaWithoutItsFirstSection)
{
    UpgradeBench bench;
    const uint32_t otaAddress = 0x000FFC00, otaSize = 32768;
    const Bytes image = MakeImage(2, {3000, 500}, 30, otaSize, otaAddress);
    const Bytes etf = MakeImage(1, {1000, 60000, 50000}, 31);
    bench.WriteFile("main.img", image);
    bench.WriteFile("etf.img", etf);

    ProcessResult run = bench.Run({"-i", "main.img", "-e", "1", "-I", "etf.img", "-u", "0", "-r", "1"});
    ASSERT_EQ(run.exitStatus, 0) << run.out;
    // F = 0x00107C00: 33,792 bytes fill the first block, then one full block and a tail.
    ExpectLines(run.out, {"             ETF firmware information            \n",
                          "\n\nStart the ETF image programing...\n4%: Read ETF old data1...\n",
                          "10%: Erasing the 1 block,total 1 block(s)...\n",
                          "91%: Erasing rest ETF data of 64k...\n", "100%: Upgrade OK!\n"});
    const Bytes etfData(etf.begin() + 64 + 1000, etf.end());   // behind the first section
    ASSERT_EQ(etfData.size() - 33792, 65536u + 10800u);
    EXPECT_EQ(FirstDifference(bench.Flash(), Expected(bench.InitialFlash(), image, otaAddress, otaSize, etfData)), -1);

    // A refused erase of the ETF's full block, or of its first block (the last erase of
    // the block it shares with the OTA area), is retried; unlike the main image's, the
    // error line is not followed by the host's message.
    size_t erases = 0, etfBlockErase = 0, sharedBlockErase = 0;
    for (const SimCommand& c : TraceCommands(bench.Trace()))
        if (c.Opcode() == 0x19 && ++erases) {
            etfBlockErase = c.Param32(1) == 0x00110000 ? erases : etfBlockErase;
            sharedBlockErase = c.Param32(1) == 0x00100000 ? erases : sharedBlockErase;
        }
    ASSERT_TRUE(etfBlockErase > 0 && sharedBlockErase > 0);
    for (const size_t erase : {etfBlockErase, sharedBlockErase}) {
        ProcessResult retried = bench.Run({"-i", "main.img", "-e", "1", "-I", "etf.img", "-u", "0"},
                                          {"--fault", "EraseFlash:" + std::to_string(erase) + ":error2"});
        ExpectLines(retried.out, {erase == etfBlockErase ? "Erase the 1 block error ! Total 1 block(s)!\n" : "error",
                                  "100%: Upgrade OK!\n"});
        EXPECT_FALSE(Has(retried.out, "msg:")) << retried.out;
    }
}

// Index (from 1) of the first WriteSector frame the target received after its
// `erases`-th EraseFlash frame.
size_t FirstWriteAfterErase(const std::string& trace, size_t erases)
{
    size_t erasesSeen = 0, writesSeen = 0;
    for (const SimCommand& c : TraceCommands(trace)) {
        erasesSeen += c.Opcode() == 0x19;
        if (c.Opcode() == 0x1B && ++writesSeen && erasesSeen == erases)
            return writesSeen;
    }
    return 0;
}

// The ETF image starts inside the block that holds the OTA header. A write of that
// block fails after its erase; the retry must not take the erased flash for the
// block's old content, or the OTA header would be lost while the run says OK.
TEST(EtfImageRun, RetryAfterAFailedWriteKeepsTheOtaHeaderInTheSharedBlock)
{
    const uint32_t otaAddress = 0x0010AC00, otaSize = 0x1000;
    const Bytes image = MakeImage(2, {9000}, 32, otaSize, otaAddress);
    const Bytes etf = MakeImage(1, {1000, 20000}, 33);
    const std::vector<std::string> args = {"-i", "main.img", "-e", "1", "-I", "etf.img", "-u", "0", "-r", "1"};

    UpgradeBench clean;
    clean.WriteFile("main.img", image);
    clean.WriteFile("etf.img", etf);
    ASSERT_EQ(0, clean.Run(args).exitStatus);
    // Erases: the main image's block, the OTA block, then the ETF's first block.
    const size_t write = FirstWriteAfterErase(clean.Trace(), 3);
    ASSERT_GT(write, 0u);

    UpgradeBench bench;
    bench.WriteFile("main.img", image);
    bench.WriteFile("etf.img", etf);
    const std::string fault = "WriteSector:" + std::to_string(write + 2) + ":error3";
    ProcessResult run = bench.Run(args, {"--fault", fault});
    ExpectLines(run.out, {"Write ETF data1 error!", "100%: Upgrade OK!\n"});
    const Bytes etfData(etf.begin() + 64 + 1000, etf.end());
    EXPECT_EQ(FirstDifference(bench.Flash(), Expected(bench.InitialFlash(), image, otaAddress, otaSize, etfData)), -1);
}

// The ETF part of a combined image is parsed where it starts (right after the main
// image) and its data found from its own first section, whatever the main image's
// first section is: same extent, shorter, longer.
TEST(EtfImageRun, CombinedImageWritesBothParts)
{
    const uint32_t otaAddress = 0x001F8000, otaSize = 32768;
    for (size_t etfFirst : {1500, 200, 5000}) {
        SCOPED_TRACE(etfFirst);
        UpgradeBench bench;
        const Bytes image = MakeImage(2, {1500, 70000}, 40, otaSize, otaAddress);
        const Bytes etf = MakeImage(1, {etfFirst, 3000}, 41);
        Bytes combined = image;
        combined.insert(combined.end(), etf.begin(), etf.end());
        bench.WriteFile("both.cimg", combined);

        ProcessResult run = bench.Run({"-i", "both.cimg", "-u", "0"});
        ASSERT_EQ(run.exitStatus, 0) << run.out;
        ExpectLines(run.out, {"\nCombined image!!\n", "Start the ETF image programing...", "100%: Upgrade OK!\n"});
        EXPECT_EQ(run.out.find("ETF firmware information"), std::string::npos);
        const Bytes etfData(etf.begin() + 64 + etfFirst, etf.end());
        EXPECT_EQ(FirstDifference(bench.Flash(), Expected(bench.InitialFlash(), image, otaAddress, otaSize, etfData)), -1);
    }
}

// Refused before the first erase, with a line naming the regions: a main image
// reaching into its own OTA area, one larger than the flash, an ETF image past the
// flash's end, a combined image whose ETF part does not parse. The flash stays
// byte for byte, the run ends as a failed upgrade (status 0 without --exit-code,
// never "Upgrade OK!"), and with --exit-code as an image failure.
TEST(UpgradeRefusal, RegionsThatDoNotFitAreRefusedBeforeTheFirstErase)
{
    const Bytes etf = MakeImage(1, {100, 3000}, 41);
    Bytes badEtf = etf;
    badEtf[0] ^= 0xFF;  // the ETF part's magic
    const Bytes fits = MakeImage(2, {1500, 70000}, 40, 32768, 0x001F8000);
    auto combine = [](Bytes a, const Bytes& b) { a.insert(a.end(), b.begin(), b.end()); return a; };
    const struct { const char* name; Bytes image; std::vector<std::string> args; const char* line; } cases[] = {
        {"main.img", MakeImage(2, {1500, 200000}, 40, 32768, 0x00010000), {},
         "Refused: main image 0x00000000-0x0003139B overlaps OTA area 0x00010000-0x00017FFF\n"},
        {"main.img", MakeImage(1, {kFlashSize}, 42), {},
         "Refused: main image 0x00000000-0x0040003F ends past the flash's 4194304 bytes (0x00000000-0x003FFFFF)\n"},
        {"main.img", MakeImage(2, {1500}, 40, 32768, 0x003F8000), {"-e", "1", "-I", "etf.img"},
         "Refused: ETF image 0x00400000-0x00400BF7 ends past the flash's 4194304 bytes"},
        {"both.cimg", combine(fits, badEtf), {},
         "Invalid etf image in combined image file: both.cimg (Wrong Section Header MAGIC at offset 0x000117CC)\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        for (bool exitCode : {false, true}) {
            UpgradeBench bench;
            bench.WriteFile(c.name, c.image);
            bench.WriteFile("etf.img", etf);
            std::vector<std::string> args{"-i", c.name, "-u", "0"};
            args.insert(args.end(), c.args.begin(), c.args.end());
            if (exitCode)
                args.push_back("--exit-code");
            ProcessResult run = bench.Run(args);
            EXPECT_EQ(exitCode ? 3 : 0, run.exitStatus);
            EXPECT_TRUE(Has(run.out, c.line)) << run.out;
            EXPECT_FALSE(Has(run.out, "Upgrade OK!")) << run.out;
            EXPECT_EQ(0u, CountFramesReceived(bench.Trace(), 0x19));  // no erase
            EXPECT_EQ(-1, FirstDifference(bench.Flash(), bench.InitialFlash()));
        }
    }
}

}  // namespace
