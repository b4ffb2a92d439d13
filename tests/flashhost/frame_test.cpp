// Command frames byte for byte, and the acknowledgement check on crafted replies.
#include <functional>

#include "tests/flashhost/host_fixture.h"

namespace {

const char kOk[] = "Operation OK !";
const char kSetPcTimeout[] = "Cmd read 1 byte waits for ack timeout or comm error!";

TEST(FrameArithmetic, ChecksumAndSwaps)
{
    CFlashHost host;
    const std::pair<Bytes, unsigned short> sums[] = {
        {{}, 0x0000},
        {{0xAB}, 0x00AB},
        {{0x01, 0x02, 0x03}, 0x0201 + 0x03},  // odd last byte added alone
        {HexBytes("42 52 4F 4D 04 00 00 00 01 00 00 00 18"), 0x9FAE},
        {{0xFF, 0xFF, 0x02, 0x00}, 0x0001},  // wraps modulo 65536, no fold-back
    };
    for (auto c : sums)
        EXPECT_EQ(c.second, host.CheckSum16(c.first.data(), static_cast<int>(c.first.size())))
            << ToHex(c.first);
    EXPECT_EQ(0x78563412u, host.Swap32(0x12345678u));
    EXPECT_EQ(0x3412, host.Swap16(0x1234));
}

TEST_F(HostOnFakeTarget, WorkedExamplesGoOutByteForByte)
{
    Connect();
    struct FrameCase {
        const char* name;
        std::function<int(CFlashHost&)> send;
        const char* frame;
    };
    static unsigned char sectors[4 * 512];
    static unsigned char erased[512];
    memset(erased, 0xFF, sizeof erased);
    const FrameCase cases[] = {
        {"GetFlashId", [](CFlashHost& h) { return h.GetFlashId(); },
         "42 52 4F 4D 04 00 60 51 00 00 00 01 18"},
        {"SysReboot", [](CFlashHost& h) { return h.SysReboot(); },
         "42 52 4F 4D 04 00 60 57 00 00 00 01 12"},
        {"ChangeBaud", [](CFlashHost& h) { return h.ChangeBaud(0x030E1000); },
         "42 52 4F 4D 04 00 52 42 00 00 00 05 10 03 0E 10 00"},
        {"SetPC", [](CFlashHost& h) { return h.SetPC(0x00010101); },
         "42 52 4F 4D 04 00 5E 51 00 00 00 05 13 00 01 01 01"},
        {"EraseFlash", [](CFlashHost& h) { return h.EraseFlash(0x00010000); },
         "42 52 4F 4D 04 00 5D 4A 00 00 00 06 19 03 00 01 00 00"},
        {"ReadSector", [](CFlashHost& h) { return h.ReadSector(0x80, sectors, 4); },
         "42 52 4F 4D 04 00 DC 47 00 00 00 09 1A 00 00 00 80 00 00 00 04"},
        {"WriteSector", [](CFlashHost& h) { return h.WriteSector(0x80, erased, 1); },
         "42 52 4F 4D 04 00 E0 44 00 00 00 0B 1B 00 00 00 80 00 00 00 01 00 FF"},
    };
    for (const FrameCase& c : cases) {
        SCOPED_TRACE(c.name);
        fake.ClearRecord();
        EXPECT_EQ(0, c.send(*host)) << host->m_strMsg;
        std::vector<ReceivedCommand> sent = fake.Commands();
        ASSERT_EQ(1u, sent.size());
        EXPECT_EQ(c.frame, ToHex(sent[0].frame));
    }
    std::vector<ReceivedCommand> written = fake.CommandsWith(0x1B);
    ASSERT_EQ(1u, written.size());
    EXPECT_EQ(Bytes(512, 0xFF), written[0].data);
}

// Parameters go big-endian, data bytes as they lie in memory.
TEST_F(HostOnFakeTarget, SingleValueWritesCarryTheirBytesUnchanged)
{
    Connect();
    unsigned char value[8] = {0x78, 0x56, 0x34, 0x12, 0xA1, 0xB2, 0xC3, 0xD4};
    struct WriteCase {
        int (CFlashHost::*write)(unsigned int, unsigned char*);
        const char* lengthAndBody;
    };
    const WriteCase cases[] = {
        {&CFlashHost::Write_1_byte, "00 00 00 06 01 20 00 00 00 78"},
        {&CFlashHost::Write_2_byte, "00 00 00 07 03 20 00 00 00 78 56"},
        {&CFlashHost::Write_4_byte, "00 00 00 09 05 20 00 00 00 78 56 34 12"},
        {&CFlashHost::Write_8_byte, "00 00 00 0D 07 20 00 00 00 78 56 34 12 A1 B2 C3 D4"},
    };
    for (const WriteCase& c : cases) {
        SCOPED_TRACE(c.lengthAndBody);
        fake.ClearRecord();
        ASSERT_EQ(0, (host.get()->*c.write)(0x20000000, value)) << host->m_strMsg;
        std::vector<ReceivedCommand> sent = fake.Commands();
        ASSERT_EQ(1u, sent.size());
        EXPECT_TRUE(sent[0].answered) << "the fake target found the checksum wrong";
        EXPECT_EQ(c.lengthAndBody, ToHex(Bytes(sent[0].frame.begin() + 8, sent[0].frame.end())));
    }
}

struct AckCase {
    const char* name;
    Bytes reply;
    int result;
    std::string text;
};

Bytes WithChecksumField(Bytes reply, unsigned char high, unsigned char low)
{
    reply[6] = high;
    reply[7] = low;
    return reply;
}

Bytes Truncated(const Bytes& reply, size_t size)
{
    return Bytes(reply.begin(), reply.begin() + size);
}

std::vector<AckCase> AckCases()
{
    Bytes sum = MakeAck({1, 2, 3});
    Bytes corrupted = WithChecksumField(sum, sum[6], static_cast<unsigned char>(sum[7] ^ 0x01));
    Bytes errorAndAck = MakeReply(0x03, Bytes());
    errorAndAck.push_back(2);
    Bytes overlong = MakeReply(0x06, Bytes(8191, 0x11));
    Bytes overlongWithTail = Truncated(overlong, 12 + 300);
    Bytes hugeLength = WithChecksumField(MakeReply(0x06, Bytes()), 0, 0);
    for (int i = 8; i < 12; ++i)
        hugeLength[i] = 0xFF;
    return {
        {"ack, checksum, no payload", MakeAck(), 0, kOk},
        {"ack, checksum, payload", MakeAck({1, 2, 3}), 0, kOk},
        {"ack, largest payload", MakeAck(Bytes(8190, 0x3C)), 0, kOk},
        {"ack, wrong checksum", corrupted, -1, "Ack checksum error!"},
        {"ack without checksum flag", WithChecksumField(MakeReply(0x02, {9, 9}), 0x12, 0x34), 0,
         kOk},
        {"error and ack flags", errorAndAck, -1, "CMD timeout!"},
        {"no flags", MakeReply(0x00, Bytes()), -1, "No ack flag!"},
        {"checksum flag only", MakeReply(0x04, Bytes()), -1, "No ack flag!"},
        {"error type 1", MakeErrorReply(1), -1, "Unknown CMD!"},
        {"error type 2", MakeErrorReply(2), -1, "CMD timeout!"},
        {"error type 3", MakeErrorReply(3), -1, "CMD checksum error!"},
        {"error type 4", MakeErrorReply(4), -1, "CMD invalid!"},
        {"error type 5", MakeErrorReply(5), -1, "CMD no mem!"},
        {"error type 0", MakeErrorReply(0), -1, "Unknown error type 0x00!"},
        {"error type 0x7F", MakeErrorReply(0x7F), -1, "Unknown error type 0x7F!"},
        {"error type missing", MakeReply(0x01, Bytes()), -1, "Failed to read error type!"},
        {"payload of 8191 bytes", overlongWithTail, -1, "Payload too long!"},
        {"payload length all ones", hugeLength, -1, "Payload too long!"},
        {"payload stops short", Truncated(MakeAck(Bytes(10, 0x22)), 12 + 4), -1,
         "Read payload data error!"},
        {"header stops short", Truncated(MakeAck(), 8), -1, kSetPcTimeout},
        {"no reply", Bytes(), -1, kSetPcTimeout},
    };
}

// Each crafted reply answers one SetPC; the command after it must find a clean line.
TEST_F(HostOnFakeTarget, CheckAckJudgesEveryKindOfReply)
{
    Connect();
    for (const AckCase& c : AckCases()) {
        SCOPED_TRACE(c.name);
        fake.ScriptReply(0x13, c.reply);
        EXPECT_EQ(c.result, host->SetPC(0x00010101));
        EXPECT_EQ(c.text, host->m_strMsg);
        EXPECT_EQ(0, host->SetPC(0x00010101)) << "next command: " << host->m_strMsg;
    }
}

TEST_F(HostOnFakeTarget, BadMagicIsReportedOnTheConsole)
{
    Connect();
    Bytes reply = MakeAck({1, 2, 3, 4});
    memcpy(reply.data(), "MORB", 4);
    fake.ScriptReply(0x13, reply);
    EXPECT_EQ("magic:0x42524F4D, 0x4D4F5242\n",
              CapturedStdout([&] { EXPECT_EQ(-1, host->SetPC(0x00010101)); }));
    EXPECT_EQ("Invalid response!", host->m_strMsg);
    EXPECT_EQ(0, host->SetPC(0x00010101)) << "the rest of the bad reply was left on the line";
}

// Level 1 dumps frames and reply headers; level 2 adds payloads and sector data.
TEST_F(HostOnFakeTarget, LevelTwoAddsPayloadsAndSectorData)
{
    for (unsigned char level : {1, 2}) {
        SCOPED_TRACE(int(level));
        TempDir dir;
        UseLog(dir, level);
        Connect(921600);
        static unsigned char sectors[2048];
        ASSERT_EQ(0, host->ReadSector(0, sectors, 4)) << host->m_strMsg;
        Bytes data(512, 0xA5);
        ASSERT_EQ(0, host->WriteSector(0x100, data.data(), 1)) << host->m_strMsg;
        host->Close();

        std::string log = ReadText(g_Setting.strLogFile);
        bool bulk = level >= 2;
        EXPECT_EQ(bulk, log.find("]Payload rps: length 2048 < ") != std::string::npos);
        EXPECT_EQ(bulk, log.find("]WriteSector cmd: length 512 < A5 A5 ") != std::string::npos);
        EXPECT_NE(std::string::npos,
                  log.find("]ReadSector cmd: length 21 < 42 52 4F 4D 04 00 5C 47 00 00 00 09 1A "
                           "00 00 00 00 00 00 00 04 >\n"));
        EXPECT_NE(std::string::npos, log.find("]ReadSector rps: length 12 < 42 52 4F 4D 06 "));
        EXPECT_NE(std::string::npos, log.find("]WriteSector cmd: length 23 < "));
        EXPECT_NE(std::string::npos, log.find("]Synchron cmd: length 1 < 55 >\n"));
        EXPECT_NE(std::string::npos, log.find("]Synchron rps: length 2 < 4F 4B >\n"));
    }
}

}  // namespace
