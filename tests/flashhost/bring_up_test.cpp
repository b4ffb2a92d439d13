// Connection bring-up against the scripted target: which commands go out on each
// road, the failure texts, and that every failure gives the device back.
#include <functional>

#include "common/byte_order.h"
#include "tests/flashhost/host_fixture.h"

namespace {

struct Step {
    unsigned char opcode;
    uint32_t param;  // first 32-bit parameter, where the command has one
};

const Step kFlashId = {0x18, 0};
const Step kUpload = {0x09, 0x00010000};
const Step kStart = {0x13, 0x00010101};

TEST_F(HostOnFakeTarget, BringUpTakesTheRoadTheFlagAndResponderChoose)
{
    struct RoadCase {
        const char* name;
        int useBrom;
        unsigned char responder;
        unsigned int baud;
        std::vector<Step> steps;
    };
    const RoadCase cases[] = {
        {"upload at 921600", 1, 1, 921600,
         {kFlashId, {0x10, 0x030E1000}, kUpload, kStart, {0x10, 0x030E1000}}},
        {"upload capped, then 3000000", 1, 1, 3000000,
         {kFlashId, {0x10, 0x030E1000}, kUpload, kStart, {0x10, 0x032DC6C0}}},
        {"upload at 115200", 1, 1, 115200,
         {kFlashId, {0x10, 0x0301C200}, kUpload, kStart, {0x10, 0x0301C200}}},
        {"upload forbidden", 0, 1, 921600, {kFlashId, {0x10, 0x030E1000}}},
        {"responder serves the flash", 1, 2, 921600, {kFlashId, {0x10, 0x030E1000}}},
        {"responder 7, upload forbidden", 0, 7, 460800, {kFlashId, {0x10, 0x03070800}}},
    };
    for (const RoadCase& c : cases) {
        SCOPED_TRACE(c.name);
        fake.ClearRecord();
        fake.SetResponderCode(c.responder);
        host->SetUseBrom(c.useBrom);
        host->SetBaud(c.baud);
        int result = -1;
        CapturedStdout([&] { result = host->OpenUart(); });  // 460800 prints the rate list
        ASSERT_EQ(0, result) << host->m_strMsg;
        EXPECT_EQ(c.baud, host->GetBaud());

        std::vector<ReceivedCommand> sent = fake.Commands();
        ASSERT_EQ(c.steps.size(), sent.size());
        for (size_t i = 0; i < sent.size(); ++i) {
            EXPECT_EQ(c.steps[i].opcode, sent[i].Opcode()) << "step " << i;
            if (sent[i].frame.size() >= 17) {
                EXPECT_EQ(c.steps[i].param, sent[i].Param32(0)) << "step " << i;
            }
            EXPECT_TRUE(sent[i].answered) << "the fake target found step " << i << " malformed";
        }
        host->Close();
    }
}

TEST_F(HostOnFakeTarget, UploadWritesTheWholeBootLoaderImage)
{
    fake.SetResponderCode(1);
    host->SetUseBrom(1);
    host->SetBaud(921600);
    ASSERT_EQ(0, host->OpenUart()) << host->m_strMsg;
    std::vector<ReceivedCommand> uploads = fake.CommandsWith(0x09);
    ASSERT_EQ(1u, uploads.size());
    EXPECT_EQ(5868u, uploads[0].Param32(4));
    ASSERT_EQ(5868u, tq_BRom_size);
    EXPECT_TRUE(Bytes(tq_BRom, tq_BRom + tq_BRom_size) == uploads[0].data);
}

TEST(BootLoaderImage, HasTheVectorTableTheTargetStartsFrom)
{
    ASSERT_EQ(5868u, tq_BRom_size);
    EXPECT_EQ(0x0007E000u, LoadLe32(tq_BRom));
    EXPECT_EQ(0x00010101u, LoadLe32(tq_BRom + 4));
    for (int i = 2; i < 64; ++i)
        EXPECT_EQ(0x00010127u, LoadLe32(tq_BRom + 4 * i)) << "vector " << i;
}

TEST(BringUpFailures, EachFailureLeavesItsTextAndClosesThePort)
{
    struct FailureCase {
        const char* name;
        int useBrom;
        std::function<void(FakeTarget&)> script;
        std::string text;
        bool hangsUp;  // the line is gone afterwards, so the device cannot be reopened
    };
    const FailureCase cases[] = {
        {"no answer to the first sync", 0, [](FakeTarget& f) { f.HangUpOn(0x55); },
         "Synchron1 error!", true},
        {"flash id refused", 0, [](FakeTarget& f) { f.ScriptReply(0x18, MakeErrorReply(1)); },
         "Get Flash ID error!", false},
        {"upload refused", 1, [](FakeTarget& f) { f.ScriptReply(0x09, MakeErrorReply(5)); },
         "Load Brom error!", false},
        {"upload data refused", 1,
         [](FakeTarget& f) { f.ScriptReply(0x09, MakeErrorReply(3), 1, 1); }, "Load Brom error!",
         false},
        {"start refused", 1, [](FakeTarget& f) { f.ScriptReply(0x13, MakeErrorReply(4)); },
         "Load Brom error!", false},
        {"speed change refused", 0, [](FakeTarget& f) { f.ScriptReply(0x10, MakeErrorReply(1)); },
         "Unknown CMD!", false},
        {"boot-loader silent", 1, [](FakeTarget& f) { f.HangUpOn(0x55, 3); }, "Synchron error!",
         true},
    };
    for (const FailureCase& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        UseLog(dir, 1);
        FakeTarget fake;
        ASSERT_TRUE(fake.Ok());
        c.script(fake);
        CFlashHost host;
        host.SetComNum(fake.DevicePath());
        host.SetUseBrom(c.useBrom);
        host.SetBaud(921600);
        EXPECT_EQ(-1, host.OpenUart());
        EXPECT_EQ(c.text, host.m_strMsg);

        std::string log = ReadText(g_Setting.strLogFile);
        size_t text = log.find("]" + c.text + "\n");
        size_t closed = log.find("]Close uart!\n");
        EXPECT_NE(std::string::npos, text) << log;
        EXPECT_NE(std::string::npos, closed) << log;
        EXPECT_LT(text, closed);

        if (!c.hangsUp) {
            EXPECT_TRUE(DeviceFree(fake.DevicePath())) << "the port was left open";
        }
        g_Setting.bLogLevel = 0;
    }
}

TEST(BringUpFailures, MissingDeviceIsAnOpenError)
{
    TempDir dir;
    UseLog(dir, 1);
    CFlashHost host;
    host.SetComNum(dir.File("no-such-tty"));
    CapturedStdout([&] { EXPECT_EQ(-1, host.OpenUart()); });
    EXPECT_EQ("Open uart error!", host.m_strMsg);
    std::string log = ReadText(g_Setting.strLogFile);
    EXPECT_NE(std::string::npos, log.find("]Open uart...\n")) << log;
    EXPECT_NE(std::string::npos, log.find("]Open uart error!\n")) << log;
    EXPECT_EQ(std::string::npos, log.find("Close uart!")) << "nothing to close";
    g_Setting.bLogLevel = 0;
}

TEST_F(HostOnFakeTarget, LongFlashIdentifierDoesNotOverrunItsField)
{
    Bytes id(200);
    for (size_t i = 0; i < id.size(); ++i)
        id[i] = static_cast<unsigned char>(i);
    fake.SetFlashIdPayload(id);
    Connect(921600);
    EXPECT_EQ(0, host->GetFlashId()) << host->m_strMsg;
}

TEST_F(HostOnFakeTarget, CloseReturnsTheTargetTo115200AndKeepsTheText)
{
    TempDir dir;
    UseLog(dir, 1);
    Connect(921600);
    host->m_strMsg = "Write failed somewhere";
    host->Close();
    EXPECT_EQ("Write failed somewhere", host->m_strMsg);
    EXPECT_EQ(115200u, host->GetBaud());
    std::vector<ReceivedCommand> sent = fake.CommandsWith(0x10);
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(0x0301C200u, sent[0].Param32(0));
    EXPECT_TRUE(DeviceFree(fake.DevicePath()));

    std::string log = ReadText(g_Setting.strLogFile);
    size_t kept = log.find("]Write failed somewhere\n");
    EXPECT_NE(std::string::npos, kept);
    EXPECT_LT(kept, log.find("]Close uart!\n"));
}

TEST_F(HostOnFakeTarget, UpgradeTextGoesOutAndThePortIsGivenBack)
{
    EXPECT_EQ(0, host->SendUpgradeCmd()) << host->m_strMsg;
    ASSERT_TRUE(fake.WaitForRawBytes(9));
    EXPECT_EQ("75 70 67 72 61 64 65 0A 00", ToHex(fake.RawBytes()));
    EXPECT_TRUE(DeviceFree(fake.DevicePath()));

    CFlashHost missing;
    missing.SetComNum("/nonexistent/tty");
    CapturedStdout([&] { EXPECT_EQ(-1, missing.SendUpgradeCmd()); });
    EXPECT_EQ("Open uart error!", missing.m_strMsg);
}

}  // namespace
