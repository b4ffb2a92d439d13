// The settings loader and the options applied over it.
#include "frontend/Setting.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "frontend/options.h"
#include "tests/support/process.h"

namespace {

void Load(std::string path) { GetDefaultSettings(&path[0]); }

// Every field of g_Setting on one line.
std::string Describe()
{
    const Setting& s = g_Setting;
    char numbers[160];
    std::snprintf(numbers, sizeof numbers, "r%u u%u e%u d%u f%u g%u op%u A%X L%X", s.bReadAndCheck,
                  s.bUpdateChangeOnly, s.bEtfFw, s.bLogLevel, s.bFlashCompat, s.bCombineImage,
                  s.iDebugOp, s.iAddress, s.iLength);
    return std::string(s.strComDev) + " " + std::to_string(s.iBaud) + " " + s.strLogFile + " " +
           s.strImagePath + " " + s.strEtfImagePath + " [" + s.strCombineImagePath + "] " +
           s.strWriteBinFile + " " + numbers;
}

// Defaults, then the options.
OptionOutcome Apply(std::vector<std::string> words)
{
    Load("/nonexistent/settings_mac.ini");
    g_Setting.bCombineImage = 0;
    g_Setting.strCombineImagePath[0] = '\0';
    ArgList args(std::move(words));
    return ApplyOptions(args.argc(), args.argv());
}

TEST(GetDefaultSettings, FileValuesAndDefaults)
{
    std::memset(&g_Setting, 0x5A, sizeof g_Setting);
    g_Setting.strCombineImagePath[0] = '\0';
    Load("/nonexistent/settings_mac.ini");
    // The combine flag is never touched by the loader.
    EXPECT_EQ("/dev/ttyUSB0 921600 ./log/log.txt tq-system.img tq-system_etf.img [] a.bin "
              "r0 u1 e0 d0 f1 g90 op1 A0 L200", Describe());

    const std::pair<std::string, const char*> cases[] = {
        {"[debug]\niDebugOp=n\n", "op0"}, {"[debug]\niDebugOp=R\n", "op0"}, {"[debug]\niDebugOp=\n", "op0"},
        {"[debug]\niDebugOp=write\n", "op2"}, {"[debug]\niDebugOp=erase\n", "op3"},
        {"[debug]\niAddress=0x10000\niLength=0x2000\n", "A10000 L2000"}, {"[debug]\niAddress=10000\n", "A0 "},
        {"[setting]\nbEtfFw=257\nbLogLevel=256\n", "e1 d0"}, {"[setting]\nbEtfFw=yes\n", "e0"},
        {"[comm]\niBaud=115200\n", " 115200 "},
    };
    TempDir dir;
    for (const auto& c : cases) {
        WriteText(dir.File("s.ini"), c.first);
        Load(dir.File("s.ini"));
        EXPECT_NE(std::string::npos, Describe().find(c.second)) << c.first << Describe();
    }
    // A reload replaces each text field whole; a found empty value is not the default.
    WriteText(dir.File("a.ini"), "[comm]\nstrComDev=/dev/a-long-name\n[log]\nstrLogFile=\n");
    Load(dir.File("a.ini"));
    EXPECT_STREQ("", g_Setting.strLogFile);
    WriteText(dir.File("b.ini"), "[comm]\nstrComDev=/dev/b\n");
    Load(dir.File("b.ini"));
    EXPECT_STREQ("/dev/b", g_Setting.strComDev);
    EXPECT_STREQ("./log/log.txt", g_Setting.strLogFile);
    // Sectors per fast-link command: 1 to 15 as given; outside, a warning and the usual 4 (0).
    const struct { const char* value; uint32_t stored; bool warned; } sectors[] = {
        {"1", 1, false}, {"15", 15, false}, {"0", 0, false}, {"16", 0, true}, {"-1", 0, true}};
    for (const auto& c : sectors) {
        WriteText(dir.File("s.ini"), std::string("[setting]\niSectorsPerCommand=") + c.value + "\n");
        testing::internal::CaptureStderr();
        Load(dir.File("s.ini"));
        EXPECT_EQ(c.warned, !testing::internal::GetCapturedStderr().empty()) << c.value;
        EXPECT_EQ(c.stored, g_Setting.iSectorsPerCommand) << c.value;
    }
}

TEST(ApplyOptions, FieldsInTheOrderGiven)
{
    // expected: Describe() after the options
    struct Case { std::vector<std::string> words; const char* expected; };
    const std::string longName(5000, 'a');
    const Case cases[] = {
        {{"-A", "0x1000", "-L", "4096"}, "op1 A1000 L1000"},
        {{"-A", "010000", "-L", "0x1FFFFFFFF"}, "op1 A1000 LFFFFFFFF"}, {{"-b9600"}, "/dev/ttyUSB0 9600 "},
        {{"115200", "-b", "9600"}, "921600"},  // a plain word ends the options
        {{"--", "-b", "9600"}, "921600"}, {{"-e", "1"}, "e1 d0 f1"}, {{"-e", "0"}, "e0 d0 f0"},
        {{"-e", "1", "-f", "0"}, "e1 d0 f0"}, {{"-f", "0", "-e", "1"}, "e1 d0 f1"}, {{"-D", "e", "-D", "rw"}, "op1"},
        {{"-D", "w", "-B", "w.bin", "-c", "/dev/x", "-l", "l.txt"}, "/dev/x 921600 l.txt"},
        {{"-g", "1", "-G", "o.cimg", "-I", "e.img"}, "e.img [o.cimg] a.bin"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(OptionOutcome::kRunRoads, Apply(c.words)) << c.expected;
        EXPECT_NE(std::string::npos, Describe().find(c.expected)) << Describe();
    }
    Apply({"-b", "1", "-d", "258", "-r", "1", "-u", "0", "-D", "w", "-B", "w.bin", "-i", longName});
    EXPECT_EQ(std::string("/dev/ttyUSB0 1 ./log/log.txt ") + std::string(259, 'a') +
                  " tq-system_etf.img [] w.bin r1 u0 e0 d2 f1 g0 op2 A0 L200", Describe());
}

TEST(ApplyOptions, OutcomesAndStopRules)
{
    for (std::string word : {"n", "x", "R"}) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(OptionOutcome::kRunRoads, Apply({"-D", word}));
        EXPECT_EQ("Error operation:" + word + "\n", testing::internal::GetCapturedStdout());
        EXPECT_EQ(0u, g_Setting.iDebugOp);
    }
    const struct { std::vector<std::string> words; OptionOutcome outcome; const char* imagePath; } cases[] = {
        {{"-h"}, OptionOutcome::kShowUsage, "tq-system.img"},
        {{"-v", "-i", "x.img"}, OptionOutcome::kShowUsage, "tq-system.img"},
        {{"-?"}, OptionOutcome::kShowUsage, "tq-system.img"},
        {{"-i", "x.img", "-Z"}, OptionOutcome::kBadOption, "x.img"},
        {{"-g"}, OptionOutcome::kBadOption, "tq-system.img"},  // missing argument
        {{"-s", "-i", "other.img"}, OptionOutcome::kShowInfo, "tq-system.img"},
        {{"-i", "other.img", "-s"}, OptionOutcome::kShowInfo, "other.img"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.outcome, Apply(c.words)) << c.words[0];
        EXPECT_STREQ(c.imagePath, g_Setting.strImagePath) << c.words[0];
    }
}

TEST(ApplyOptions, ReloadKeepsOnlyTheCombineFields)
{
    TempDir dir;
    WriteText(dir.File("other.ini"), "[comm]\niBaud=57600\n");
    Apply({"-b", "115200", "-C", dir.File("other.ini")});
    EXPECT_EQ(57600u, g_Setting.iBaud);
    Apply({"-g", "1", "-G", "o.cimg", "-D", "e", "-b", "9600", "-c", "x", "-C", "/nonexistent.ini"});
    EXPECT_EQ("/dev/ttyUSB0 921600 ./log/log.txt tq-system.img tq-system_etf.img [o.cimg] a.bin "
              "r0 u1 e0 d0 f1 g1 op1 A0 L200", Describe());
}

}  // namespace
