// Whole upgrade runs that place the OTA area and the ETF image, from separate files
// and from a combined image; every byte of the flash file is compared.
#include <gtest/gtest.h>

#include "tests/support/sim_link.h"
#include "tests/upgrade/upgrade_fixtures.h"

namespace {

struct OtaCase {
    const char* name;
    uint32_t address;
    uint32_t size;
    size_t innerErases;  // data2: blocks wholly inside the area
    bool remainder;      // data4: the header does not fit in the first block
};

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

void PrintTo(const OtaCase& c, std::ostream* os) { *os << c.name; }

class OtaAreaRun : public testing::TestWithParam<OtaCase> {};

TEST_P(OtaAreaRun, LeavesHeaderAndErasedAreaAndNothingElseChanged)
{
    const OtaCase& c = GetParam();
    UpgradeBench bench;
    const Bytes image = MakeImage(2, {3000, 2000}, 20, c.size, c.address);
    bench.WriteFile("main.img", image);
    ProcessResult run = bench.Run({"-i", "main.img", "-u", "0", "-r", "1"});
    ASSERT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_NE(run.out.find("95%: Writing OTA data1...\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("100%: Upgrade OK!\n"), std::string::npos);
    EXPECT_EQ(CountOccurrences(run.out, "96%: Erasing OTA data2...\n"), c.innerErases);
    EXPECT_EQ(run.out.find("99%: Writing OTA data4...\n") != std::string::npos, c.remainder);
    EXPECT_EQ(FirstDifference(bench.Flash(), Expected(bench.InitialFlash(), image, c.address, c.size)), -1);
}

INSTANTIATE_TEST_SUITE_P(
    Placements, OtaAreaRun,
    testing::Values(OtaCase{"HeaderSplitAcrossBlocks", 0x000FFC00, 32768, 0, true},
                    OtaCase{"SpansFourBlocks", 0x00100000, 0x30000, 2, false}),
    [](const testing::TestParamInfo<OtaCase>& info) { return std::string(info.param.name); });

// Each of these lines must appear in the output.
void ExpectLines(const std::string& out, std::initializer_list<const char*> lines)
{
    for (const char* line : lines)
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
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
    EXPECT_NE(run.out.find("Write ETF data1 error!"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("100%: Upgrade OK!\n"), std::string::npos) << run.out;
    const Bytes etfData(etf.begin() + 64 + 1000, etf.end());
    EXPECT_EQ(FirstDifference(bench.Flash(), Expected(bench.InitialFlash(), image, otaAddress, otaSize, etfData)), -1);
}

TEST(EtfImageRun, CombinedImageWritesBothParts)
{
    UpgradeBench bench;
    const uint32_t otaAddress = 0x001F8000, otaSize = 32768;
    // The ETF image's first section has the extent of the main image's first section:
    // that is how the ETF data are found inside the combined file.
    const Bytes image = MakeImage(2, {1500, 70000}, 40, otaSize, otaAddress);
    const Bytes etf = MakeImage(1, {1500, 3000}, 41);
    Bytes combined = image;
    combined.insert(combined.end(), etf.begin(), etf.end());
    bench.WriteFile("both.cimg", combined);

    ProcessResult run = bench.Run({"-i", "both.cimg", "-u", "0"});
    ASSERT_EQ(run.exitStatus, 0) << run.out;
    ExpectLines(run.out, {"\nCombined image!!\n", "Start the ETF image programing...", "100%: Upgrade OK!\n"});
    EXPECT_EQ(run.out.find("ETF firmware information"), std::string::npos);
    const Bytes etfData(etf.begin() + 64 + 1500, etf.end());
    EXPECT_EQ(FirstDifference(bench.Flash(), Expected(bench.InitialFlash(), image, otaAddress, otaSize, etfData)), -1);
}

}  // namespace
