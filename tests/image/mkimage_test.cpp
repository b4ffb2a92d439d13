// The image builder program, run as a user would.
#include <gtest/gtest.h>

#include <string>

#include "image/FwParser.h"
#include "tests/image/image_fixtures.h"
#include "tests/support/process.h"

namespace {

class MkImage : public testing::Test {
protected:
    ProcessResult Run(const std::vector<std::string>& args) { return RunProcess(MkImagePath(), args, {dir.Path()}); }
    TempDir dir;
};

TEST_F(MkImage, BuildsAnImageThatParses)
{
    ProcessResult data = Run({"--make-data", "d.bin", "70000", "7"});
    ASSERT_EQ(0, data.exitStatus) << data.err;
    EXPECT_EQ("Wrote d.bin: 70000 pseudo-random bytes (seed 7)\n", data.out);

    ProcessResult r = Run({"-o", "out.img", "-v", "2", "--ota-size", "0x8000", "--ota-addr",
                           "0x1F8000", "--id", "0x01000000", "--attr", "1", "d.bin", "--gap", "10",
                           "--sram", "0x20000000", "--random-data", "5", "7"});
    ASSERT_EQ(0, r.exitStatus) << r.err;
    EXPECT_EQ("Wrote out.img: 2 sections, 70143 bytes, version 2\n", r.out);
    EXPECT_EQ("", r.err) << "version 2 keeps its OTA parameters: no note";

    FwParser parser;
    parser.SetFilePath(dir.File("out.img"));
    ASSERT_EQ(0, parser.Parse()) << parser.strErrMsg;
    ASSERT_EQ(2, parser.iSectionCount);
    SectionHeader first = DecodeSectionHeader(parser.pSection[0].get());
    SectionHeader second = DecodeSectionHeader(parser.pSection[1].get());
    // version, ID, attribute, data size, OTA size word and address, next section
    EXPECT_EQ((std::vector<uint32_t>{2, 0x01000000, 1, 70000, 0x8000u << 8, 0x1F8000, 64 + 70000 + 10}),
              (std::vector<uint32_t>{first.version, first.ID, first.attribute, first.data_size, LoadLe32(first.priv),
                                     LoadLe32(first.priv + 4), first.next_section}));
    EXPECT_EQ(0x20000000u, second.sram_offs);
    EXPECT_EQ(0u, second.ID);  // section options apply to one section only

    // The same seed gives the same bytes, as a file or inside an image.
    std::vector<unsigned char> file = ReadFileBytes(dir.File("d.bin"));
    std::vector<unsigned char> image = ReadFileBytes(dir.File("out.img"));
    EXPECT_TRUE(std::equal(file.begin(), file.end(), image.begin() + 64));
    EXPECT_TRUE(std::equal(file.begin(), file.begin() + 5, image.end() - 5));
    EXPECT_EQ(std::vector<unsigned char>(10, 0), std::vector<unsigned char>(image.end() - 79, image.end() - 69)) << "gap";
    EXPECT_NE(file, std::vector<unsigned char>(file.size(), file[0]));
    EXPECT_EQ(0, Run({"-o", "last.img", "--random-data", "5", "7", "d.bin"}).exitStatus) << "a data file may end the list";
}

TEST_F(MkImage, BadArgumentsGiveUsageAndStatusOne)
{
    const std::vector<std::vector<std::string>> cases = {
        {}, {"-o", "x.img"}, {"-o", "x.img", "missing.bin"}, {"-o", "x.img", "--random-data", "5", "1", "--id", "3"},
        {"-o", "x.img", "--id", "12z", "--random-data", "5", "1"},
        {"-o", "x.img", "--ota-size", "100", "--random-data", "5", "1"},
        // data reaching into the image's own OTA area
        {"-o", "x.img", "-v", "2", "--ota-size", "0x8000", "--ota-addr", "0x10000", "--random-data", "70000", "1"},
        {"-o", "x.img", "--bogus", "--random-data", "5", "1"}, {"-o"}, {"-o", "x.img", "--random-data", "5"},
        {"--random-data", "5", "1"}, {"-o", "x.img", "--gap", "10", "--random-data", "5", "1"},
        {"-o", "x.img", "--ota-size", "0x1000000", "--ota-addr", "0x10000", "--random-data", "5", "1"},
        {"--make-data", "d.bin", "-1", "1"}, {"--make-data", "d.bin", "", "1"}, {"--make-data", "/dev/full", "70000", "1"},
    };
    for (const std::vector<std::string>& args : cases) {
        ProcessResult r = Run(args);
        EXPECT_EQ(1, r.exitStatus) << (args.empty() ? "" : args.back());
        EXPECT_NE(std::string::npos, r.err.find("kestrel_mkimage")) << r.err;
    }
    EXPECT_TRUE(ReadFileBytes(dir.File("x.img")).empty());
    // Asked for, the usage and the version end well, on standard output.
    for (const char* asked : {"-h", "--version"}) {
        ProcessResult r = Run({asked});
        EXPECT_EQ(0, r.exitStatus) << asked;
        EXPECT_NE(std::string::npos, r.out.find("kestrel_mkimage")) << asked << r.out;
    }
}

}  // namespace
