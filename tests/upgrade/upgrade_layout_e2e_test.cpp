// Whole upgrade runs that place the OTA area and the ETF image, from separate files
// and from a combined image; every byte of the flash file is compared.
#include <gtest/gtest.h>

#include "tests/upgrade/upgrade_fixtures.h"

namespace {

struct OtaCase {
    const char* name;
    uint32_t address;
    uint32_t size;
    size_t innerErases;  // data2: blocks wholly inside the area
    bool remainder;      // data4: the header does not fit in the first block
};

void PrintTo(const OtaCase& c, std::ostream* os)
{
    *os << c.name;
}

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
    EXPECT_EQ(CountOccurrences(run.out, "96%: Erasing OTA data2...\n"), c.innerErases);
    EXPECT_EQ(run.out.find("99%: Writing OTA data4...\n") != std::string::npos, c.remainder);
    EXPECT_NE(run.out.find("100%: Upgrade OK!\n"), std::string::npos);

    Bytes expected = bench.InitialFlash();
    ModelBlockWrite(expected, 0, image);
    ModelOtaArea(expected, c.address, c.size);
    EXPECT_EQ(FirstDifference(bench.Flash(), expected), -1);
}

INSTANTIATE_TEST_SUITE_P(
    Placements, OtaAreaRun,
    testing::Values(OtaCase{"EndsOnABlockBoundary", 0x001F8000, 32768, 0, false},
                    OtaCase{"HeaderSplitAcrossBlocks", 0x000FFC00, 32768, 0, true},
                    OtaCase{"InsideOneBlock", 0x00050100, 8192, 0, false},
                    OtaCase{"SpansFourBlocks", 0x00100000, 0x30000, 2, false}),
    [](const testing::TestParamInfo<OtaCase>& info) { return std::string(info.param.name); });

TEST(EtfImageRun, LandsBehindTheOtaAreaWithoutItsFirstSection)
{
    UpgradeBench bench;
    const uint32_t otaAddress = 0x000FFC00, otaSize = 32768;
    const Bytes image = MakeImage(2, {3000, 500}, 30, otaSize, otaAddress);
    const std::vector<size_t> etfSections = {1000, 60000, 50000};
    const Bytes etf = MakeImage(1, etfSections, 31);
    bench.WriteFile("main.img", image);
    bench.WriteFile("etf.img", etf);

    ProcessResult run = bench.Run({"-i", "main.img", "-e", "1", "-I", "etf.img", "-u", "0", "-r", "1"});
    ASSERT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_NE(run.out.find("             ETF firmware information            \n"), std::string::npos);
    EXPECT_NE(run.out.find("\n\nStart the ETF image programing...\n4%: Read ETF old data1...\n"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("100%: Upgrade OK!\n"), std::string::npos);

    // F = 0x00107C00: 33,792 bytes fill the first block, then one full block and a tail.
    const Bytes etfData(etf.begin() + SecondSectionOffset(etfSections), etf.end());
    ASSERT_EQ(etfData.size() - 33792, 65536u + 10800u);
    EXPECT_NE(run.out.find("10%: Erasing the 1 block,total 1 block(s)...\n"), std::string::npos);
    EXPECT_NE(run.out.find("91%: Erasing rest ETF data of 64k...\n"), std::string::npos);
    Bytes expected = bench.InitialFlash();
    ModelBlockWrite(expected, 0, image);
    ModelOtaArea(expected, otaAddress, otaSize);
    ModelEtfWrite(expected, otaAddress + otaSize, etfData);
    EXPECT_EQ(FirstDifference(bench.Flash(), expected), -1);
}

TEST(EtfImageRun, CombinedImageWritesBothParts)
{
    UpgradeBench bench;
    const uint32_t otaAddress = 0x001F8000, otaSize = 32768;
    // The ETF image's first section has the extent of the main image's first section:
    // that is how the ETF data are found inside the combined file.
    const std::vector<size_t> mainSections = {1500, 70000};
    const std::vector<size_t> etfSections = {1500, 3000};
    const Bytes image = MakeImage(2, mainSections, 40, otaSize, otaAddress);
    const Bytes etf = MakeImage(1, etfSections, 41);
    Bytes combined = image;
    combined.insert(combined.end(), etf.begin(), etf.end());
    bench.WriteFile("both.cimg", combined);

    ProcessResult run = bench.Run({"-i", "both.cimg", "-u", "0"});
    ASSERT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_NE(run.out.find("\nCombined image!!\n"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("ETF firmware information"), std::string::npos);
    EXPECT_NE(run.out.find("Start the ETF image programing..."), std::string::npos);
    EXPECT_NE(run.out.find("100%: Upgrade OK!\n"), std::string::npos);

    Bytes expected = bench.InitialFlash();
    ModelBlockWrite(expected, 0, image);
    ModelOtaArea(expected, otaAddress, otaSize);
    ModelEtfWrite(expected, otaAddress + otaSize,
                  Bytes(etf.begin() + SecondSectionOffset(etfSections), etf.end()));
    EXPECT_EQ(FirstDifference(bench.Flash(), expected), -1) << run.out;
}

}  // namespace
