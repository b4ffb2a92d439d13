#include "image/FwParser.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/image/image_fixtures.h"
#include "tests/support/process.h"

namespace {

class FwParserTest : public testing::Test {
protected:
    int ParseBytes(const std::vector<uint8_t>& bytes)
    {
        EXPECT_TRUE(WriteFileBytes(dir.File("x.img"), bytes));
        parser.FreeParser();
        parser.SetFilePath(dir.File("x.img"));
        return parser.Parse();
    }
    uint32_t RecordField(int i, int offset) { return LoadLe32(parser.pSection[i].get() + offset); }

    TempDir dir;
    FwParser parser;
};

TEST_F(FwParserTest, DamageIsFoundAtItsSection)
{
    // offset: byte of the three-section image to change
    struct Case { size_t offset; uint8_t xorMask; const char* error; };
    // Sections of 3, 0 and 16385 data bytes; the second header is at 67, the third at 131.
    const Case cases[] = {
        {0, 0x00, nullptr}, {0, 0x01, "Wrong Section Header MAGIC"},
        {67 + 20, 0x01, "Wrong Section Header Checksum"},  // words sum to 0xFFFE
        {64, 0x80, "Wrong Section Data Checksum"},
        {131 + 64 + 16384, 0x01, "Wrong Section Data Checksum"},  // the final odd byte
    };
    for (const Case& c : cases) {
        std::vector<uint8_t> image = SectionBytes({0x01, 0x02, 0x03}, 67);
        PlaceAt(image, 67, SectionBytes({}, 131));
        PlaceAt(image, 131, SectionBytes(PatternBytes(16385, 5), kLastSection));
        EXPECT_EQ(0xFDFB, LoadLe16(image.data() + kOffDataChecksum));
        image[c.offset] ^= c.xorMask;
        EXPECT_EQ(c.error ? -1 : 0, ParseBytes(image)) << c.offset;
        EXPECT_EQ(c.error ? std::string("Invalid Fiwmare: ") + c.error + " !!" : "3 sections",
                  c.error ? parser.GetFwInfo() : std::to_string(parser.iSectionCount) + " sections");
    }
}

TEST_F(FwParserTest, DataOfEverySizeAroundTheReadPieceIsChecked)
{
    std::vector<uint8_t> empty = SectionBytes({}, kLastSection);
    EXPECT_EQ(0, ParseBytes(empty));
    StoreLe16(empty.data() + kOffDataChecksum, 0xFFFE);
    SealSectionHeader(empty.data());
    EXPECT_EQ(-1, ParseBytes(empty));

    for (size_t size : {16383, 16384, 16385, 3 * 16384 + 1}) {
        std::vector<uint8_t> image = SectionBytes(PatternBytes(size, 9), kLastSection);
        EXPECT_EQ(0, ParseBytes(image)) << size;
        EXPECT_EQ(64 + size, ImageSectionsLength(parser));
        image.back() ^= 0x10;
        EXPECT_EQ(-1, ParseBytes(image)) << size;
        EXPECT_EQ(0u, ImageSectionsLength(parser)) << "a damaged image has no length";
    }
}

TEST_F(FwParserTest, SectionsAreTakenInChainOrderUpToOneHundred)
{
    std::vector<uint8_t> image;
    PlaceAt(image, 0, SectionBytes({1, 2}, 500, 0xA));
    PlaceAt(image, 200, SectionBytes({3}, kLastSection, 0xC));
    PlaceAt(image, 500, SectionBytes({4, 5, 6, 7}, 200, 0xB));
    ASSERT_EQ(0, ParseBytes(image));
    ASSERT_EQ(3, parser.iSectionCount);
    EXPECT_EQ((std::vector<uint32_t>{0xA, 0xB, 0xC}),
              (std::vector<uint32_t>{RecordField(0, kOffId), RecordField(1, kOffId), RecordField(2, kOffId)}));
    EXPECT_EQ(200u + 64 + 1, ImageSectionsLength(parser));

    auto chain = [](int count, uint32_t lastNext) {
        std::vector<uint8_t> bytes;
        for (int i = 0; i < count; ++i)
            PlaceAt(bytes, 65u * i, SectionBytes({uint8_t(i)}, i + 1 < count ? 65u * (i + 1) : lastNext));
        return bytes;
    };
    EXPECT_EQ(0, ParseBytes(chain(100, kLastSection)));
    EXPECT_EQ(65u * 99 + 64 + 1, ImageSectionsLength(parser));
    EXPECT_EQ(-1, ParseBytes(chain(101, kLastSection)));
    EXPECT_EQ("Too many sections", parser.strErrMsg);
    EXPECT_EQ(-1, ParseBytes(chain(3, 65)));  // the third section points back at the second
    EXPECT_EQ("Too many sections", parser.strErrMsg);
    EXPECT_EQ(100, parser.iSectionCount);  // a failure keeps the last good count
    EXPECT_EQ(0u, ImageSectionsLength(parser));  // but the image is not valid: no length
}

TEST_F(FwParserTest, ShortReadsAtTheEndOfTheFile)
{
    // A header cut short is never mistaken for the header read before it.
    std::vector<uint8_t> image = SectionBytes({1, 2, 3}, 67);
    PlaceAt(image, 67, {'Q', 'V', 'I', 'H'});
    EXPECT_EQ(-1, ParseBytes(image));
    EXPECT_EQ("Wrong Section Header Checksum", parser.strErrMsg);

    // Data claimed beyond the end: the last piece read stands in for each missing one.
    std::vector<uint8_t> piece = PatternBytes(16384, 3);
    uint16_t sum = static_cast<uint16_t>(3 * Sum16Words(piece.data(), 16384) + Sum16Words(piece.data(), 2));
    image = SectionBytes({}, kLastSection);
    StoreLe32(image.data() + kOffDataSize, 3 * 16384 + 2);
    StoreLe16(image.data() + kOffDataChecksum, static_cast<uint16_t>(0xFFFF - sum));
    SealSectionHeader(image.data());
    image.insert(image.end(), piece.begin(), piece.end());
    EXPECT_EQ(0, ParseBytes(image));
    StoreLe32(image.data() + kOffDataSize, 0xFFFFFFF0);  // must end quickly, not read 4 GiB
    SealSectionHeader(image.data());
    EXPECT_EQ(-1, ParseBytes(image));
}

// A parser that has read nothing reports nothing; in a combined file the chain
// holds the main part only.
TEST_F(FwParserTest, CombinedImageChainHoldsTheMainPartOnly)
{
    EXPECT_EQ("Invalid Fiwmare:  !!", parser.GetFwInfo());
    ImageSpec mainSpec, etfSpec;
    mainSpec.sections.resize(2);
    mainSpec.sections[0].data = PatternBytes(700, 1);
    mainSpec.sections[1].data = PatternBytes(301, 2);
    etfSpec.sections.resize(3);
    std::vector<uint8_t> combined = BuildImage(mainSpec);
    size_t mainLength = combined.size();
    std::vector<uint8_t> etf = BuildImage(etfSpec);
    combined.insert(combined.end(), etf.begin(), etf.end());
    ASSERT_EQ(0, ParseBytes(combined));
    EXPECT_EQ(2, parser.iSectionCount);
    EXPECT_EQ(mainLength, ImageSectionsLength(parser));
}

TEST_F(FwParserTest, ReportHasARowOfFieldsPerSection)
{
    ImageSpec spec;
    spec.version = 0xFFFFFFFE;  // printed as a signed number
    spec.sections.resize(2);
    spec.sections[0].id = 0x01000000;
    spec.sections[0].attribute = 1;
    spec.sections[0].data.assign(0x1234, 0);
    spec.sections[1].id = 0xABCDEF12;
    spec.sections[1].sramOffs = 0x20000000;
    spec.sections[1].priv = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0x0A, 0xBC};
    spec.sections[1].gapBefore = 0x1400 - 64 - 0x1234;
    ASSERT_EQ(0, ParseBytes(BuildImage(spec)));
    std::string stars(115, '*');
    EXPECT_EQ(stars + "\r\nbin version: -2\r\nbin count: 2\r\n"
                      "No.     ID\t\t sram_offs\t data_size\t next_section\t attribute\t private\r\n"
                      " 1      0x01000000       0x00000000\t 0x00001234\t 0x00001400\t 0x00000001\t "
                      "0xFFFFFFFFFFFFFFFFFFFFFFFF\r\n"
                      " 2      0xABCDEF12       0x20000000\t 0x00000000\t 0xFFFFFFFF\t 0x00000000\t "
                      "0x000102030405060708090ABC\r\n" + stars + "\r\n", parser.GetFwInfo());
}

}  // namespace
