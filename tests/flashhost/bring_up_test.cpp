// Connection bring-up: which commands go out on each road, that the flash is then
// served (by the uploaded boot-loader or by the boot ROM), the failure texts, and
// that every failure gives the device back.
#include <algorithm>

#include "tests/flashhost/host_fixture.h"

namespace {

struct Step {
    unsigned char opcode;
    uint32_t param;  // first 32-bit parameter, where the command has one
};

const Step kFlashId = {0x18, 0xFFFFFFFF};
const Step kUpload = {0x09, 0x00010000};
const Step kStart = {0x13, 0x00010101};

ksim::TargetConfig Target(unsigned char responder, bool romServesFlash, uint32_t syncFails = 0,
                          size_t flashIdSize = 3)
{
    ksim::TargetConfig config;
    config.responder = responder;
    config.romServesFlash = romServesFlash;
    config.syncFailCount = syncFails;
    config.flashId = PatternBytes(flashIdSize, 4);
    return config;
}

TEST(BringUp, TakesTheRoadTheFlagAndResponderChooseThenServesTheFlash)
{
    struct RoadCase {
        const char* name;
        int useBrom;
        ksim::TargetConfig target;
        unsigned int baud;
        std::vector<Step> steps;
    };
    const RoadCase cases[] = {
        {"upload at 921600", 1, Target(1, false), 921600,
         {kFlashId, {0x10, 0x030E1000}, kUpload, kStart, {0x10, 0x030E1000}}},
        {"upload capped, then 3000000", 1, Target(1, false), 3000000,
         {kFlashId, {0x10, 0x030E1000}, kUpload, kStart, {0x10, 0x032DC6C0}}},
        {"upload at 115200", 1, Target(1, false), 115200,
         {kFlashId, {0x10, 0x0301C200}, kUpload, kStart, {0x10, 0x0301C200}}},
        {"upload forbidden", 0, Target(1, true), 921600, {kFlashId, {0x10, 0x030E1000}}},
        {"responder serves the flash", 1, Target(2, true), 921600,
         {kFlashId, {0x10, 0x030E1000}}},
        {"sync answered on the second try", 1, Target(2, true, 1), 921600,
         {kFlashId, {0x10, 0x030E1000}}},
        {"flash id longer than its field", 1, Target(2, true, 0, 200), 921600,
         {kFlashId, {0x10, 0x030E1000}}},
        {"responder 7, upload forbidden", 0, Target(7, true), 230400,
         {kFlashId, {0x10, 0x03038400}}},
    };
    const Bytes pattern = PatternBytes(0x1000, 7);
    for (const RoadCase& c : cases) {
        SCOPED_TRACE(c.name);
        HostAndLink side(c.target, c.useBrom);
        side.link.Preload(0, pattern);
        side.host.SetBaud(c.baud);
        ASSERT_EQ(0, side.host.OpenUart()) << side.host.m_strMsg;
        EXPECT_EQ(c.baud, side.host.GetBaud());
        EXPECT_EQ(c.baud, side.link.TargetSpeed());

        std::vector<SimCommand> sent = side.link.Commands();
        ASSERT_EQ(c.steps.size(), sent.size());
        for (size_t i = 0; i < sent.size(); ++i) {
            EXPECT_EQ(c.steps[i].opcode, sent[i].Opcode()) << "step " << i;
            EXPECT_EQ(c.steps[i].param, sent[i].Param32(0)) << "step " << i;
        }
        if (c.steps.size() > 2) {
            ASSERT_EQ(5868u, tq_BRom_size);
            EXPECT_TRUE(Bytes(tq_BRom, tq_BRom + tq_BRom_size) == sent[2].data);
        }
        Bytes sectors(2048);
        EXPECT_EQ(0, side.host.ReadFlashLength(0x200, sectors.data(), 2048)) << side.host.m_strMsg;
        EXPECT_TRUE(std::equal(sectors.begin(), sectors.end(), pattern.begin() + 0x200));
    }
}

TEST(BringUpFailures, EachFailureLeavesItsTextAndClosesThePort)
{
    struct FailureCase {
        const char* name;
        int useBrom;
        std::vector<std::string> faults;
        unsigned int hangUpAtSync;
        std::string text;
    };
    const FailureCase cases[] = {
        {"line dead at the first sync", 0, {}, 1, "Synchron1 error!"},
        {"flash id refused", 0, {"GetFlashId:1:error1"}, 0, "Get Flash ID error!"},
        {"device vanishes", 1, {"GetFlashId:1:vanish"}, 0, "Get Flash ID error!"},
        {"upload data refused", 1, {"WriteMemoryLen:1:error3"}, 0, "Load Brom error!"},
        {"start refused", 1, {"SetPC:1:error4"}, 0, "Load Brom error!"},
        {"start reply damaged", 1, {"SetPC:1:badsum"}, 0, "Load Brom error!"},
        {"speed change refused", 0, {"ChangeBaud:1:error1"}, 0, "Unknown CMD!"},
        {"boot-loader silent", 1, {}, 3, "Synchron error!"},
    };
    for (const FailureCase& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        UseLog(dir, 1);
        HostAndLink side(Target(1, false), c.useBrom);
        side.link.SetFaults(c.faults);
        side.link.HangUpAtSync(c.hangUpAtSync);
        side.host.SetBaud(921600);
        EXPECT_EQ(-1, side.host.OpenUart());
        EXPECT_EQ(c.text, side.host.m_strMsg);
        EXPECT_FALSE(side.link.open) << "the port was left open";

        std::string log = ReadText(g_Setting.strLogFile);
        size_t text = log.find("]" + c.text + "\n");
        EXPECT_NE(std::string::npos, text) << log;
        EXPECT_LT(text, log.find("]Close uart!\n")) << log;
        g_Setting.bLogLevel = 0;
    }
}

TEST(BringUpFailures, MissingDeviceIsAnOpenErrorForTheConnectionAndTheUpgradeText)
{
    TempDir dir;
    UseLog(dir, 1);
    CFlashHost host;
    host.SetComNum(dir.File("no-such-tty"));
    CapturedStdout([&] { EXPECT_EQ(-1, host.OpenUart()); });
    EXPECT_EQ("Open uart error!", host.m_strMsg);
    std::string log = ReadText(g_Setting.strLogFile);
    EXPECT_TRUE(Has(log, "]Open uart...\n")) << log;
    EXPECT_TRUE(Has(log, "]Open uart error!\n")) << log;
    EXPECT_FALSE(Has(log, "Close uart!")) << "nothing to close";
    g_Setting.bLogLevel = 0;
    host.m_strMsg.clear();
    CapturedStdout([&] { EXPECT_EQ(-1, host.SendUpgradeCmd()); });
    EXPECT_EQ("Open uart error!", host.m_strMsg);
}

TEST_F(HostOnSim, CloseReturnsTheTargetTo115200AndKeepsTheText)
{
    TempDir dir;
    UseLog(dir, 1);
    Connect(921600);
    host.m_strMsg = "Write failed somewhere";
    host.Close();
    EXPECT_EQ("Write failed somewhere", host.m_strMsg);
    EXPECT_EQ(115200u, host.GetBaud());
    EXPECT_EQ(115200u, link.TargetSpeed());
    EXPECT_FALSE(link.open);

    std::string log = ReadText(g_Setting.strLogFile);
    size_t kept = log.find("]Write failed somewhere\n");
    EXPECT_NE(std::string::npos, kept);
    EXPECT_LT(kept, log.find("]Close uart!\n"));
}

TEST(BringUp, UpgradeTextGoesOutAndThePortIsGivenBack)
{
    ksim::TargetConfig firmware;
    firmware.startAsFirmware = true;
    HostAndLink side(firmware);
    EXPECT_EQ(0, side.host.SendUpgradeCmd()) << side.host.m_strMsg;
    EXPECT_EQ("75 70 67 72 61 64 65 0A 00", ToHex(side.link.written));
    EXPECT_FALSE(side.link.open);
}

}  // namespace
