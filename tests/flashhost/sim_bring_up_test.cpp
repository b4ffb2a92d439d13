// Bring-up against the simulated target, checked through its trace of the wire.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "flashhost/CFlashHost.h"
#include "frontend/Setting.h"
#include "tests/support/process.h"

namespace {

const char kGetFlashIdAt115200[] = "rx 115200 42 52 4F 4D 04 00 60 51 00 00 00 01 18\n";
const char kChangeBaudTo921600[] = " 42 52 4F 4D 04 00 52 42 00 00 00 05 10 03 0E 10 00\n";
const char kSetPcAt921600[] = "rx 921600 42 52 4F 4D 04 00 5E 51 00 00 00 05 13 00 01 01 01\n";

std::string ReadText(const std::string& path)
{
    std::vector<unsigned char> bytes = ReadFileBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

bool Has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// A 4 MiB flash file with a pattern that differs from sector to sector.
void WritePatternFlash(const std::string& path)
{
    std::vector<unsigned char> flash(4u << 20);
    for (size_t a = 0; a < flash.size(); ++a)
        flash[a] = static_cast<unsigned char>(a * 7 + (a >> 9));
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, f);
    ASSERT_EQ(flash.size(), fwrite(flash.data(), 1, flash.size(), f));
    fclose(f);
}

struct SimRoad {
    const char* name;
    std::vector<std::string> simArgs;
    int useBrom;
    bool uploads;
};

class SimBringUp : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_Setting.bLogLevel = 1;
        snprintf(g_Setting.strLogFile, sizeof g_Setting.strLogFile, "%s",
                 dir.File("log/log.txt").c_str());
        WritePatternFlash(dir.File("flash.bin"));
    }
    void TearDown() override { g_Setting.bLogLevel = 0; }

    std::vector<std::string> SimArgs(const std::vector<std::string>& extra)
    {
        std::vector<std::string> args = {"--flash", dir.File("flash.bin"), "--trace",
                                         dir.File("trace.txt")};
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    }

    TempDir dir;
};

// After the bring-up the flash is served either by the uploaded boot-loader or by
// the boot ROM itself; a sector read proves whichever it is answers.
TEST_F(SimBringUp, RoadsThroughTheBootRomAndTheBootLoader)
{
    const SimRoad roads[] = {
        {"responder 1, boot-loader allowed", {"--responder", "1"}, 1, true},
        {"responder 1, boot-loader forbidden",
         {"--responder", "1", "--rom-flash", "yes"}, 0, false},
        {"responder 2", {"--responder", "2"}, 1, false},
    };
    for (const SimRoad& road : roads) {
        SCOPED_TRACE(road.name);
        SimProcess sim(SimArgs(road.simArgs));
        ASSERT_TRUE(sim.Started());
        CFlashHost host;
        host.SetComNum(sim.DevicePath());
        host.SetBaud(921600);
        host.SetUseBrom(road.useBrom);
        ASSERT_EQ(0, host.OpenUart()) << host.m_strMsg;
        std::vector<unsigned char> sectors(2048);
        EXPECT_EQ(0, host.ReadFlashLength(0x200, sectors.data(), 2048)) << host.m_strMsg;
        std::vector<unsigned char> flash = ReadFileBytes(dir.File("flash.bin"));
        EXPECT_TRUE(std::vector<unsigned char>(flash.begin() + 0x200, flash.begin() + 0xA00) ==
                    sectors);
        host.Close();
        sim.Stop();

        std::string trace = ReadText(dir.File("trace.txt"));
        EXPECT_TRUE(Has(trace, kGetFlashIdAt115200)) << trace.substr(0, 2000);
        EXPECT_TRUE(Has(trace, std::string("rx 115200") + kChangeBaudTo921600));
        EXPECT_EQ(road.uploads, Has(trace, kSetPcAt921600));
    }
}

TEST_F(SimBringUp, SyncAnsweredOnlyOnTheFourthTry)
{
    SimProcess sim(SimArgs({"--sync-fail", "3", "--responder", "2"}));
    ASSERT_TRUE(sim.Started());
    CFlashHost host;
    host.SetComNum(sim.DevicePath());
    host.SetBaud(921600);
    EXPECT_EQ(0, host.OpenUart()) << host.m_strMsg;
    host.Close();
}

struct SimFailure {
    const char* name;
    std::vector<std::string> simArgs;
    std::string text;
};

TEST_F(SimBringUp, FailuresLeaveTheirTextBeforeTheClose)
{
    const SimFailure failures[] = {
        {"flash id refused", {"--fault", "GetFlashId:1:error1"}, "Get Flash ID error!"},
        {"device vanishes", {"--fault", "GetFlashId:1:vanish"}, "Get Flash ID error!"},
        {"upload refused", {"--fault", "WriteMemoryLen:1:error5"}, "Load Brom error!"},
        {"start refused", {"--fault", "SetPC:1:badsum"}, "Load Brom error!"},
    };
    for (const SimFailure& f : failures) {
        SCOPED_TRACE(f.name);
        SimProcess sim(SimArgs(f.simArgs));
        ASSERT_TRUE(sim.Started());
        CFlashHost host;
        host.SetComNum(sim.DevicePath());
        host.SetBaud(921600);
        host.SetUseBrom(1);
        EXPECT_EQ(-1, host.OpenUart());
        EXPECT_EQ(f.text, host.m_strMsg);
        std::string log = ReadText(g_Setting.strLogFile);
        size_t text = log.find("]" + f.text + "\n");
        ASSERT_NE(std::string::npos, text) << log;
        EXPECT_LT(text, log.find("]Close uart!\n"));
    }
}

}  // namespace
