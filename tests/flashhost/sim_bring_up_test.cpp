// Bring-up against the simulated target, checked through its trace of the wire.
#include <algorithm>
#include <memory>

#include "flashhost/CFlashHost.h"
#include "frontend/Setting.h"
#include "tests/support/serial_fixtures.h"

namespace {

const char kGetFlashIdAt115200[] = "rx 115200 42 52 4F 4D 04 00 60 51 00 00 00 01 18\n";
const char kChangeBaudTo921600[] = "rx 115200 42 52 4F 4D 04 00 52 42 00 00 00 05 10 03 0E 10 00\n";
const char kSetPcAt921600[] = "rx 921600 42 52 4F 4D 04 00 5E 51 00 00 00 05 13 00 01 01 01\n";

// A 4 MiB flash file with a pattern that differs from sector to sector.
void WritePatternFlash(const std::string& path)
{
    std::vector<unsigned char> flash(4u << 20);
    for (size_t a = 0; a < flash.size(); ++a)
        flash[a] = static_cast<unsigned char>(a * 7 + (a >> 9));
    WriteBytes(path, flash);
}

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

    // Starts the simulated target and brings a host up against it.
    int OpenOnSim(CFlashHost& host, std::unique_ptr<SimProcess>& sim,
                  const std::vector<std::string>& extra, int useBrom)
    {
        std::vector<std::string> args = {"--flash", dir.File("flash.bin"), "--trace",
                                         dir.File("trace.txt")};
        args.insert(args.end(), extra.begin(), extra.end());
        sim.reset(new SimProcess(args));
        EXPECT_TRUE(sim->Started());
        host.SetComNum(sim->DevicePath());
        host.SetBaud(921600);
        host.SetUseBrom(useBrom);
        return host.OpenUart();
    }

    TempDir dir;
};

// After the bring-up the flash is served either by the uploaded boot-loader or by
// the boot ROM itself; a sector read proves whichever it is answers.
TEST_F(SimBringUp, RoadsThroughTheBootRomAndTheBootLoader)
{
    struct SimRoad {
        const char* name;
        std::vector<std::string> simArgs;
        int useBrom;
        bool uploads;
    };
    const SimRoad roads[] = {
        {"responder 1, boot-loader allowed", {"--responder", "1"}, 1, true},
        {"responder 1, boot-loader forbidden",
         {"--responder", "1", "--rom-flash", "yes"}, 0, false},
        {"responder 2", {"--responder", "2"}, 1, false},
        {"sync answered on the fourth try", {"--sync-fail", "3", "--responder", "2"}, 1, false},
    };
    for (const SimRoad& road : roads) {
        SCOPED_TRACE(road.name);
        std::unique_ptr<SimProcess> sim;
        CFlashHost host;
        ASSERT_EQ(0, OpenOnSim(host, sim, road.simArgs, road.useBrom)) << host.m_strMsg;
        std::vector<unsigned char> sectors(2048);
        EXPECT_EQ(0, host.ReadFlashLength(0x200, sectors.data(), 2048)) << host.m_strMsg;
        std::vector<unsigned char> flash = ReadFileBytes(dir.File("flash.bin"));
        EXPECT_TRUE(std::equal(sectors.begin(), sectors.end(), flash.begin() + 0x200));
        host.Close();
        sim->Stop();

        std::string trace = ReadText(dir.File("trace.txt"));
        EXPECT_TRUE(Has(trace, kGetFlashIdAt115200)) << trace.substr(0, 2000);
        EXPECT_TRUE(Has(trace, kChangeBaudTo921600));
        EXPECT_EQ(road.uploads, Has(trace, kSetPcAt921600));
    }
}

TEST_F(SimBringUp, FailuresLeaveTheirTextBeforeTheClose)
{
    struct SimFailure {
        const char* name;
        std::vector<std::string> simArgs;
        std::string text;
    };
    const SimFailure failures[] = {
        {"flash id refused", {"--fault", "GetFlashId:1:error1"}, "Get Flash ID error!"},
        {"device vanishes", {"--fault", "GetFlashId:1:vanish"}, "Get Flash ID error!"},
        {"upload refused", {"--fault", "WriteMemoryLen:1:error5"}, "Load Brom error!"},
        {"start refused", {"--fault", "SetPC:1:badsum"}, "Load Brom error!"},
    };
    for (const SimFailure& f : failures) {
        SCOPED_TRACE(f.name);
        std::unique_ptr<SimProcess> sim;
        CFlashHost host;
        EXPECT_EQ(-1, OpenOnSim(host, sim, f.simArgs, 1));
        EXPECT_EQ(f.text, host.m_strMsg);
        std::string log = ReadText(g_Setting.strLogFile);
        size_t text = log.find("]" + f.text + "\n");
        ASSERT_NE(std::string::npos, text) << log;
        EXPECT_LT(text, log.find("]Close uart!\n"));
    }
}

}  // namespace
