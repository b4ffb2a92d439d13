// Connection bring-up: which commands go out on each road, that the flash is then
// served (by the uploaded boot-loader or by the boot ROM), the failure texts, and
// that every failure gives the device back.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/flashhost/host_fixture.h"

namespace {

// param: first 32-bit parameter, where the command has one
struct Step { unsigned char opcode; uint32_t param; };

const Step kFlashId = {0x18, 0xFFFFFFFF};
const Step kUpload = {0x09, 0x00010000};
const Step kStart = {0x13, 0x00010101};

ksim::TargetConfig Target(unsigned char responder, bool romServesFlash, uint32_t syncFails = 0, size_t flashIdSize = 3)
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
    const struct {
        const char* name;
        int useBrom;
        ksim::TargetConfig target;
        unsigned int baud;
        std::vector<Step> steps;
    } cases[] = {
        {"upload at 921600", 1, Target(1, false), 921600,
         {kFlashId, {0x10, 0x030E1000}, kUpload, kStart, {0x10, 0x030E1000}}},
        {"upload capped, then 3000000", 1, Target(1, false), 3000000,
         {kFlashId, {0x10, 0x030E1000}, kUpload, kStart, {0x10, 0x032DC6C0}}},
        {"upload at 115200", 1, Target(1, false), 115200,
         {kFlashId, {0x10, 0x0301C200}, kUpload, kStart, {0x10, 0x0301C200}}},
        {"upload forbidden", 0, Target(1, true), 921600, {kFlashId, {0x10, 0x030E1000}}},
        {"responder serves the flash", 1, Target(2, true), 921600, {kFlashId, {0x10, 0x030E1000}}},
        {"sync answered on the fifth try", 1, Target(2, true, 4), 921600, {kFlashId, {0x10, 0x030E1000}}},
        {"flash id longer than its field", 1, Target(2, true, 0, 200), 921600, {kFlashId, {0x10, 0x030E1000}}},
        {"responder 7, upload forbidden", 0, Target(7, true), 230400, {kFlashId, {0x10, 0x03038400}}},
    };
    const Bytes pattern = PatternBytes(0x1000, 7);
    for (const auto& c : cases) {
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
        // An unanswered sync waits out 101 polls of 20 ms at 115200 bit/s; a sector
        // command is followed by a pause of 50 ms before its reply is read.
        const std::vector<unsigned int>& pauses = side.link.pauses;
        EXPECT_EQ(101 * c.target.syncFailCount, std::count(pauses.begin(), pauses.end(), 20000u));
        EXPECT_EQ(side.link.CommandsWith(0x1A).size(), std::count(pauses.begin(), pauses.end(), 50000u));
        EXPECT_EQ(side.link.CommandsWith(0x1A).size() + 101 * c.target.syncFailCount, pauses.size());
    }
}

TEST(BringUpFailures, EachFailureLeavesItsTextAndClosesThePort)
{
    const struct {
        const char* name;
        int useBrom;
        std::vector<std::string> faults;
        unsigned int hangUpAtSync;
        std::string text;
        uint32_t syncFails = 0;
    } cases[] = {
        {"line dead at the first sync", 0, {}, 1, "Synchron1 error!"},
        {"five syncs unanswered", 0, {}, 0, "Synchron1 error!", 5},
        {"flash id refused", 0, {"GetFlashId:1:error1"}, 0, "Get Flash ID error!"},
        {"device vanishes", 1, {"GetFlashId:1:vanish"}, 0, "Get Flash ID error!"},
        {"upload data refused", 1, {"WriteMemoryLen:1:error3"}, 0, "Load Brom error!"},
        {"start refused", 1, {"SetPC:1:error4"}, 0, "Load Brom error!"},
        {"start reply damaged", 1, {"SetPC:1:badsum"}, 0, "Load Brom error!"},
        {"speed change refused", 0, {"ChangeBaud:1:error1"}, 0, "Unknown CMD!"},
        {"boot-loader silent", 1, {}, 3, "Synchron error!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        UseLog(dir, 1);
        HostAndLink side(Target(1, false, c.syncFails), c.useBrom);
        side.link.SetFaults(c.faults);
        side.link.HangUpAtSync(c.hangUpAtSync);
        side.host.SetBaud(921600);
        EXPECT_EQ(-1, side.host.OpenUart());
        EXPECT_EQ(c.text, side.host.m_strMsg);
        EXPECT_EQ(FailureKind::kNoAnswer, side.host.m_failKind) << "kept through the close";
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
    EXPECT_EQ(FailureKind::kPortOpen, host.m_failKind);
    std::string log = ReadText(g_Setting.strLogFile);
    EXPECT_TRUE(Has(log, "]Open uart...\n")) << log;
    EXPECT_TRUE(Has(log, "]Open uart error!\n")) << log;
    EXPECT_FALSE(Has(log, "Close uart!")) << "nothing to close";
    g_Setting.bLogLevel = 0;
    host.m_strMsg.clear();
    CapturedStdout([&] { EXPECT_EQ(-1, host.SendUpgradeCmd()); });
    EXPECT_EQ("Open uart error!", host.m_strMsg);
}

// A log whose folder cannot be made stops the connection before the port is
// touched: a local file's failure, and the text stays what it was.
TEST(BringUpFailures, ALogFolderThatCannotBeMadeIsALocalFileFailure)
{
    TempDir dir;
    WriteText(dir.File("plain"), "not a folder");
    g_Setting.bLogLevel = 1;
    CopySettingText(g_Setting.strLogFile, dir.File("plain/log/log.txt").c_str());
    HostAndLink side;
    side.host.m_strMsg = "earlier text";
    const std::string out = CapturedStdout([&] { EXPECT_EQ(-1, side.host.OpenUart()); });
    g_Setting.bLogLevel = 0;
    EXPECT_TRUE(Has(out, "Failed to create folder!\n")) << out;
    EXPECT_EQ(FailureKind::kLocalFile, side.host.m_failKind);
    EXPECT_EQ("earlier text", side.host.m_strMsg);
    EXPECT_FALSE(side.link.open);
}

// The port reports what it found; the flash host prints it, on the streams and in
// the words the user has always seen.
TEST(BringUpTexts, WhatThePortFoundIsPrintedByTheHost)
{
    struct OpenCase { int error; const char* hint; };
    for (const OpenCase& c : {OpenCase{ENOENT, nullptr}, OpenCase{EACCES, "dialout"},
                              OpenCase{EBUSY, "another program"}, OpenCase{EWOULDBLOCK, "another program"}}) {
        SCOPED_TRACE(c.error);
        HostAndLink side;
        side.link.openErrno = c.error;
        testing::internal::CaptureStderr();
        const std::string out = CapturedStdout([&] { EXPECT_EQ(-1, side.host.OpenUart()); });
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ("ERR: can't open serial port:sim!\r\n", out);
        EXPECT_NE(std::string::npos, err.find(strerror(c.error))) << err;
        EXPECT_EQ(c.hint != nullptr, c.hint && err.find(c.hint) != std::string::npos) << err;
    }

    LinkProfile fast;
    fast.fast = true;
    fast.ratePolicy = LinkProfile::kRefuseUnsupported;
    HostAndLink refusing;
    refusing.host.SetLinkProfile(fast);
    refusing.link.refusedRates = {921600};
    refusing.host.SetBaud(921600);
    const std::string refused = CapturedStdout([&] { EXPECT_EQ(-1, refusing.host.OpenUart()); });
    EXPECT_EQ(0u, refused.find("ERR: speed change: the serial port sim does not take 921600 bit/s!\r\n")) << refused;
    EXPECT_EQ("Change uart baud error!", refusing.host.m_strMsg);
    EXPECT_EQ(FailureKind::kNoAnswer, refusing.host.m_failKind);

    HostAndLink unlisted;
    unlisted.link.HangUpAtSync(2);  // the handshake at the new speed: no need to wait it out
    unlisted.host.SetBaud(500000);
    const std::string list = CapturedStdout([&] { unlisted.host.OpenUart(); });
    EXPECT_EQ(0u, list.find("Baud should be one of the values below:\r\n110 300 600 1200 2400 4800 "
                            "9600 19200 38400 57600 115200 230400 921600 1000000 1500000 2000000 3000000 \r\n\r\n"))
        << list;
}

// The identifier read at the connection, and the capacity its last byte gives.
TEST(BringUp, TheFlashIdentifierGivesTheCapacity)
{
    const struct { Bytes id; uint64_t capacity; } cases[] = {
        {{0xC8, 0x40, 0x16}, 4u << 20}, {{0xEF, 0x40, 0x10}, 65536},  {{0xEF, 0x40, 0x1C}, 1u << 28},
        {{0xEF, 0x40, 0x0F}, 0},        {{0xEF, 0x40, 0x1D}, 0},      {{0xFF, 0xFF, 0xFF}, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(ToHex(c.id));
        EXPECT_EQ(c.capacity, flash_geometry::FlashCapacityFromId(c.id.data(), c.id.size()));
        ksim::TargetConfig config = RomServesFlash();
        config.flashId = c.id;
        HostAndLink side(config);
        side.host.SetBaud(115200);
        ASSERT_EQ(0, side.host.OpenUart()) << side.host.m_strMsg;
        EXPECT_EQ(c.id, Bytes(side.host.FlashId(), side.host.FlashId() + side.host.FlashIdLength()));
        EXPECT_EQ(c.capacity, side.host.FlashCapacity());
    }
    EXPECT_EQ(0u, flash_geometry::FlashCapacityFromId(nullptr, 0));
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

    // The after-action lines (here one 7 ms wait) belong to the close of a run that
    // succeeded, and to that close only.
    LinkProfile after;
    after.after = LinkProfile::kAfterLines;
    after.afterLines.count = 1;
    after.afterLines.steps[0].kind = LineStep::kWait;
    after.afterLines.steps[0].waitMs = 7;
    host.SetLinkProfile(after);
    Connect(921600);
    host.CloseAfterSuccess();
    Connect(921600);
    host.Close();
    EXPECT_EQ(1, std::count(link.pauses.begin(), link.pauses.end(), 7000u));
}

// A rate is kept only when the proof read at it gives the reference sector back byte
// for byte, its last byte too: a reply whose checksum is right but whose data is not
// sends the negotiation one rate down, and when no rate is left the run goes on at
// the boot rate.
TEST(BringUp, NegotiationKeepsOnlyARateWhoseProofMatchesEveryByte)
{
    const struct { unsigned int ceiling; const char* said; unsigned int speed; } cases[] = {
        {3000000, "link: 2000000 bit/s, verified\n", 2000000},
        {921600, "link: no rate from 921600 bit/s down to 921600 bit/s carried the data; staying at 115200 bit/s", 115200},
    };
    for (const auto& c : cases) {
        HostAndLink side(Target(2, true));
        const Bytes pattern = PatternBytes(4096, 9);
        side.link.Preload(0, pattern);
        Bytes forged(pattern.begin(), pattern.begin() + 2048);
        forged[511] ^= 0x01;
        side.link.SetFaults({RawReplyFault("ReadSector", MakeAck(forged), 2)});  // the first proof read
        LinkProfile fast;
        fast.fast = fast.autoBaud = true;
        fast.ratePolicy = LinkProfile::kRefuseUnsupported;
        side.host.SetLinkProfile(fast);
        side.host.SetBaud(c.ceiling);
        testing::internal::CaptureStderr();
        ASSERT_EQ(0, side.host.OpenUart()) << side.host.m_strMsg;
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_NE(std::string::npos, said.find(c.said)) << said;
        EXPECT_EQ(c.speed, side.link.TargetSpeed());
    }
}

TEST(BringUp, UpgradeTextGoesOutAndThePortIsGivenBack)
{
    ksim::TargetConfig firmware;
    firmware.startAsFirmware = true;
    HostAndLink side(firmware);
    EXPECT_EQ(0, side.host.SendUpgradeCmd()) << side.host.m_strMsg;
    EXPECT_EQ("75 70 67 72 61 64 65 0A 00", ToHex(side.link.written));
    EXPECT_EQ(std::vector<unsigned int>{50000}, side.link.pauses) << "the firmware's time to let go";
    EXPECT_FALSE(side.link.open);
}

}  // namespace
