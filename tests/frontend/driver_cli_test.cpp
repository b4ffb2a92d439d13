// The built program, run as a user would, in a fresh folder.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "image/FwParser.h"
#include "tests/support/process.h"
#include "tools/image_builder.h"

namespace {

const char kUsage[] =
    "\nVersion: v1.2.00908m(by macbook)\n"
    "kestrelQT_u -A [debug flash address]  (default: 0x00000000)\n"
    "kestrelQT_u -b [baud rate]  (default: 921600)\n"
    "kestrelQT_u -B [flash debug bin file for write]  (default: a.bin)\n"
    "kestrelQT_u -c [com dev] (default: /dev/ttyUSB0)\n"
    "kestrelQT_u -C [config file] (default: ./settings.ini)\n"
    "kestrelQT_u -d [debug log level]  (default: 0)\n"
    "kestrelQT_u -D [debug flash mode]  (default: n=NULL)\n"
    "kestrelQT_u -e [enable etf image]  (default: 0)\n"
    "kestrelQT_u -f [enable flash compat]  (default: 1)\n"
    "kestrelQT_u -g [enable combine images]\n"
    "kestrelQT_u -G [combine image path]  (default: combine_image.cimg)\n"
    "kestrelQT_u -h [help msg]\n"
    "kestrelQT_u -i [wlan image path]  (default: tq-system.img)\n"
    "kestrelQT_u -I [ETF image path]  (default: tq-system_etf.img)\n"
    "kestrelQT_u -l [log file path]   (default: ./log/log.txt)\n"
    "kestrelQT_u -L [debug flash length]   (default: 0x00000200)\n"
    "kestrelQT_u -r [read and check after write]  (default: 0)\n"
    "kestrelQT_u -s [show image info]\n"
    "kestrelQT_u -u [update changed blocks only]  (default: 1)\n"
    "kestrelQT_u -v [show version]\n\n"
    "When it's upgrading, input 'stop' to stop it if you need.\n";

const char kAsterisks[] = "*************************************************\n";

class DriverCli : public testing::Test {
protected:
    ProcessResult Run(const std::vector<std::string>& args) { return RunProcess(ToolPath(), args, {dir.Path()}); }
    void WriteBytes(const std::string& name, size_t count, uint8_t seed)
    {
        ASSERT_TRUE(WriteFileBytes(dir.File(name), PatternBytes(count, seed)));
    }
    // A valid one-section image file of `count` bytes in all (at least the header's 64).
    void WriteImage(const std::string& name, size_t count, uint8_t seed)
    {
        ImageSpec spec;
        spec.sections.resize(1);
        spec.sections[0].data = PatternBytes(count - 64, seed);
        ASSERT_TRUE(WriteFileBytes(dir.File(name), BuildImage(spec)));
    }
    TempDir dir;
};

TEST_F(DriverCli, UsageTextEndsTheRunWithStatusZero)
{
    for (const char* option : {"-v", "-h", "-?"}) {
        ProcessResult r = Run({option, "-D", "e"});
        EXPECT_EQ(0, r.exitStatus) << option;
        EXPECT_EQ(kUsage, r.out) << option;
        EXPECT_EQ("", r.err) << option;
    }
    // getopt's own diagnostics go to the error stream, the usage text follows.
    for (std::vector<std::string> bad : {std::vector<std::string>{"-Z"}, {"-D", "e", "-g"}}) {
        ProcessResult r = Run(bad);
        EXPECT_EQ(0, r.exitStatus);
        EXPECT_EQ(kUsage, r.out);
        EXPECT_NE("", r.err);
    }
}

TEST_F(DriverCli, NoArgumentsShowsUsageThenTakesTheSettingsRoad)
{
    WriteText(dir.File("settings_mac.ini"), "[comm]\nstrComDev=/nonexistent/tty\n");
    ProcessResult r = Run({});
    std::string head = std::string(kUsage) + "--------------SETTING--------------\nCOM:/nonexistent/tty\nBaud:921600\n"
                       "Log path:./log/log.txt\nLog level:0\n\nFlash debug mode:\n";
    EXPECT_EQ(head, r.out.substr(0, head.size()));
    EXPECT_FALSE(Has(r.out, "Image path:"));
    EXPECT_EQ(255, r.exitStatus);
}

TEST_F(DriverCli, SettingsReportAndEmptyCombinePath)
{
    WriteImage("tq-system.img", 74, 1);
    WriteImage("tq-system_etf.img", 74, 2);
    ProcessResult r = Run({"-D", "n", "-g", "1"});
    EXPECT_EQ("Error operation:n\n--------------SETTING--------------\nCOM:/dev/ttyUSB0\n"
              "Baud:921600\nLog path:./log/log.txt\nLog level:0\nImage path:tq-system.img\n"
              "ETF image path:tq-system_etf.img\nRead and check:NO\nUpdate change only:YES\n"
              "Program ETF image:NO\nUse flash compat:YES\n\nEnable combine image!\n"
              "Combine image path:\nFailed to create combine image file: \n", r.out);
    EXPECT_EQ(255, r.exitStatus);
}

TEST_F(DriverCli, CombineWritesBothImagesBackToBack)
{
    WriteImage("main.img", 5000, 3);
    WriteImage("etf.img", 67, 9);
    ProcessResult r = Run({"-D", "n", "-g", "1", "-i", "main.img", "-I", "etf.img", "-G", "out.cimg"});
    EXPECT_EQ(0, r.exitStatus);
    EXPECT_TRUE(Has(r.out, "Combine image path:out.cimg\nCreate combine image file: out.cimg SUCCESS!\n"));
    std::vector<unsigned char> both = ReadFileBytes(dir.File("main.img")), etf = ReadFileBytes(dir.File("etf.img"));
    both.insert(both.end(), etf.begin(), etf.end());
    EXPECT_EQ(both, ReadFileBytes(dir.File("out.cimg")));

    r = Run({"-D", "n", "-g", "1", "-i", "main.img", "-I", "none.img", "-G", "out.cimg"});
    EXPECT_TRUE(Has(r.out, "Failed to open ETF image file: none.img\n"));
    EXPECT_EQ(255, r.exitStatus);
}

// A combine that cannot write its output says so and leaves no partial image: a
// full device is reported (and, not being a regular file, left alone), and a
// regular file cut short by the file size limit is removed.
TEST_F(DriverCli, CombineThatCannotWriteLeavesNoPartialImage)
{
    // 5,000 bytes fail in a write; 300 stay in the stream's buffer until the close.
    ProcessResult r;
    for (size_t mainSize : {5000, 300}) {
        SCOPED_TRACE(mainSize);
        WriteImage("main.img", mainSize, 3);
        WriteImage("etf.img", 67, 9);
        r = Run({"-D", "n", "-g", "1", "-i", "main.img", "-I", "etf.img", "-G", "/dev/full"});
        EXPECT_EQ(255, r.exitStatus);
        EXPECT_TRUE(Has(r.out, "Failed to write combine image file: /dev/full\n")) << r.out;
        EXPECT_FALSE(Has(r.out, "SUCCESS")) << r.out;
    }
    WriteImage("main.img", 5000, 3);
    struct stat info;
    ASSERT_EQ(0, stat("/dev/full", &info));
    EXPECT_TRUE(S_ISCHR(info.st_mode));

    // One 1 KiB block may be written; the signal for exceeding it is ignored, so
    // the write fails with an error the way a full disk makes it fail.
    r = RunProcess("/bin/sh", {"-c", "ulimit -f 1; trap '' XFSZ; exec \"$0\" \"$@\"", ToolPath(),
                               "-D", "n", "-g", "1", "-i", "main.img", "-I", "etf.img", "-G", "out.cimg"},
                   {dir.Path()});
    EXPECT_EQ(255, r.exitStatus);
    EXPECT_TRUE(Has(r.out, "Failed to write combine image file: out.cimg\n")) << r.out;
    EXPECT_NE(0, access(dir.File("out.cimg").c_str(), F_OK));
}

TEST_F(DriverCli, InformationReportShowsBothImagesAndIgnoresLaterOptions)
{
    ImageSpec spec;
    spec.sections.resize(2);
    spec.sections[1].data.assign(5, 0x11);
    ASSERT_TRUE(WriteFileBytes(dir.File("main.img"), BuildImage(spec)));
    FwParser parser;
    parser.SetFilePath(dir.File("main.img"));
    ASSERT_EQ(0, parser.Parse());

    // Options after -s are not applied (--json neither); a missing image shows only in the report.
    ProcessResult r = Run({"-i", "main.img", "-s", "-I", "main.img", "--json"});
    EXPECT_EQ(std::string(kAsterisks) + "                firmware information             \n" +
                  kAsterisks + parser.GetFwInfo() + kAsterisks +
                  "             ETF firmware information            \n" + kAsterisks +
                  "Invalid Fiwmare: Open image file failed !!", r.out);
    EXPECT_EQ(0, r.exitStatus);
}

}  // namespace

// Input the tool takes without complaint is explained on the error stream, never
// on standard output. Each run fails fast on a device that does not exist.
TEST(DriverWarnings, SilentSurprisesAreExplainedOnStderr)
{
    const std::string kNoPort = "/nonexistent/tty";
    // settings: the text of settings_mac.ini; empty for no file
    // err: the warnings expected; empty for none at all
    const struct { std::string settings; std::vector<std::string> args; std::vector<std::string> err; } cases[] = {
        {"", {"-D", "r"}, {}}, {"", {"-D", "r", "extra", "-b", "9600"},
         {"warning: option parsing stopped at \"extra\"; ignored: extra -b 9600\n"}},
        {"[comm]\niBuad=9600\n[comms]\nx=1\n[setting]\nbFastLink=1x\n[debug]\niAddress=0x10g\niLength=1x200\n",
         {"-D", "r"}, {"warning: ./settings_mac.ini:2: unknown key iBuad in [comm]; ignored\n",
          "warning: ./settings_mac.ini:3: unknown section [comms]; its keys are ignored\n",
          "warning: ./settings_mac.ini:6: bFastLink=1x is not a whole decimal number",
          "warning: ./settings_mac.ini:8: iAddress=0x10g is not a whole 0x hexadecimal number",
          "warning: ./settings_mac.ini:9: iLength=1x200 is not a whole 0x hexadecimal number",
          "warning: address 0x00000010 is not at a 512-byte sector start"}},
        {"", {"-C", "absent.ini", "-D", "r"},
         {"warning: settings file absent.ini cannot be read (No such file or directory)"}},
        {"", {"-D", "r", "-A", "1M"},
         {"warning: -A 1M: not a whole number; taken as 1\n", "warning: address 0x00000001 is not at a 512-byte"}},
        {"", {"-D", "r", "-A", "xyz", "-r", "1y"},
         {"warning: -A xyz: not a whole number; taken as 0\n", "warning: -r 1y: not a whole number; taken as 1\n"}},
        {"", {"-D", "e", "-A", "0x10080", "-L", "0x100"},
         {"warning: erase widened to whole 64 KiB blocks: 0x00010000-0x0001FFFF is erased\n"}},
        {"", {"-D", "r", "-A", "0x10080"},
         {"warning: address 0x00010080 is not at a 512-byte sector start; the flash commands start at 0x00010000\n"}},
        {"", {"-D", "w", "-B", "big.bin"}, {"warning: big.bin holds 10000 bytes; only the first 0x200 (-L) are written\n"}},
        {"", {"-D", "w", "-B", ".", "-L", "1"}, {}},  // a folder is no file that holds bytes
        {"", {"-D", "r", "-b", "12345"}, {"warning: the serial port does not take 12345 bit/s"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[1] + (c.args.size() > 2 ? " " + c.args[2] : ""));
        TempDir dir;
        if (!c.settings.empty())
            WriteText(dir.File("settings_mac.ini"), c.settings);
        WriteFileBytes(dir.File("big.bin"), PatternBytes(10000, 1));
        std::vector<std::string> args = {"-c", kNoPort};
        args.insert(args.end(), c.args.begin(), c.args.end());
        ProcessResult r = RunProcess(ToolPath(), args, {dir.Path()});
        EXPECT_EQ(255, r.exitStatus) << r.out;
        EXPECT_TRUE(Has(r.out, "Open uart error!")) << r.out;
        EXPECT_FALSE(Has(r.out, "warning")) << r.out;
        const std::vector<std::string> lines = TextLines(r.err);  // no warning beyond those listed
        EXPECT_EQ(long(c.err.size()), std::count_if(lines.begin(), lines.end(), [](auto& l) { return Has(l, "warning"); }))
            << r.err;
        for (const std::string& line : c.err)
            EXPECT_TRUE(Has(r.err, line)) << r.err;
    }
    // With the fast link an unsupported rate is an error before the port is opened:
    // a usage failure (class 2 with --exit-code; a port failure would be class 4).
    TempDir dir;
    ProcessResult fast = RunProcess(ToolPath(), {"-c", kNoPort, "-D", "e", "--fast", "--exit-code", "-b", "460800"}, {dir.Path()});
    EXPECT_EQ(2, fast.exitStatus);
    EXPECT_TRUE(Has(fast.err, "error: the serial port does not take 460800 bit/s")) << fast.err;
}

// Refused before anything is written: an output that is one of the inputs (found
// by device and inode, so another name for the same file counts), an input that
// is not an image, a path cut to fit its field. The inputs stay byte for byte, no
// output appears, and the status is the combine road's failure (its class with
// --exit-code).
TEST_F(DriverCli, CombineRefusesWhatWouldLoseAnInput)
{
    WriteImage("main.img", 5000, 3);
    WriteImage("etf.img", 67, 9);
    WriteBytes("junk.img", 300, 4);
    ASSERT_EQ(0, symlink("main.img", dir.File("alias.img").c_str()));
    const std::string longPath(260, 'x');  // one byte more than the field holds
    const struct { std::vector<std::string> args; const char* line; int exitCode; } cases[] = {
        {{"-G", "main.img"}, "Refused: the combine image file main.img is the image file main.img; nothing written\n", 2},
        {{"-G", "./etf.img"}, "Refused: the combine image file ./etf.img is the ETF image file etf.img; nothing written\n", 2},
        {{"-G", "alias.img"}, "Refused: the combine image file alias.img is the image file main.img", 2},
        {{"-i", "junk.img", "-G", "out.cimg"}, "Refused: junk.img is not a valid image (Wrong Section Header MAGIC); nothing written\n", 3},
        {{"-G", longPath, "-B", longPath + "y"}, "Refused: the path of -G is 260 bytes, longer than the 259 its field holds: xxx", 2},
    };
    const Bytes mainBefore = ReadFileBytes(dir.File("main.img")), etfBefore = ReadFileBytes(dir.File("etf.img"));
    for (const auto& c : cases) {
        for (bool exitCode : {false, true}) {
            std::vector<std::string> args{"-D", "n", "-g", "1", "-i", "main.img", "-I", "etf.img"};
            args.insert(args.end(), c.args.begin(), c.args.end());
            if (exitCode)
                args.push_back("--exit-code");
            ProcessResult r = Run(args);
            SCOPED_TRACE(c.line);
            EXPECT_TRUE(Has(r.out, c.line)) << r.out;
            EXPECT_EQ(exitCode ? c.exitCode : 255, r.exitStatus);
            EXPECT_FALSE(Has(r.out, "SUCCESS"));
            EXPECT_EQ(mainBefore, ReadFileBytes(dir.File("main.img")));
            EXPECT_EQ(etfBefore, ReadFileBytes(dir.File("etf.img")));
            EXPECT_NE(0, access(dir.File("out.cimg").c_str(), F_OK));
        }
    }
}

// --json -s: the report as data, one "image" event per image with its section
// headers (none for an image that does not parse, with the parser's reason), then
// the result.
TEST_F(DriverCli, JsonReportGivesTheImagesAsData)
{
    ImageSpec spec;
    spec.version = 2;
    spec.sections.resize(2);
    spec.sections[0].data = PatternBytes(100, 1);
    spec.sections[0].id = 7;
    spec.sections[1].data = PatternBytes(10, 2);
    ASSERT_TRUE(WriteFileBytes(dir.File("main.img"), BuildImage(spec)));
    ProcessResult r = Run({"--json", "-i", "main.img", "-I", "n\xC3\xB6ne.img", "-s"});  // UTF-8 stays as it is
    EXPECT_EQ(3, r.exitStatus);  // --json implies --exit-code: an image failed
    const std::vector<std::string> got = TextLines(r.out);
    ASSERT_EQ(3u, got.size()) << r.out;
    for (const char* part : {"\"event\":\"image\",\"path\":\"main.img\",\"role\":\"main\",\"sections\":[{\"ID\":7,"
                             "\"attribute\":0,\"data_checksum\":",
                             "\"data_size\":100,\"next_section\":164,", "\"next_section\":4294967295,", "\"valid\":true"})
        EXPECT_TRUE(Has(got[0], part)) << got[0];
    EXPECT_EQ("{\"error\":\"Open image file failed\",\"event\":\"image\",\"path\":\"n\xC3\xB6ne.img\",\"role\":\"etf\","
              "\"sections\":[],\"valid\":false}", got[1]);
    EXPECT_TRUE(Has(got[2], "\"event\":\"result\"")) << got[2];
}
