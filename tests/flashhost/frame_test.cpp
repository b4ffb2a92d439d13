// Command frames byte for byte, and the acknowledgement check on crafted replies.
#include <functional>

#include "tests/flashhost/host_fixture.h"

namespace {

const char kOk[] = "Operation OK !";
const char kSetPcTimeout[] = "Cmd read 1 byte waits for ack timeout or comm error!";

// Parameters go big-endian, data bytes as they lie in memory; the target checks
// every checksum, so each command must also be acknowledged.
TEST_F(HostOnSim, WorkedExamplesGoOutByteForByte)
{
    Connect();
    static unsigned char sectors[4 * 512];
    static unsigned char erased[512];
    static unsigned char value[8] = {0x78, 0x56, 0x34, 0x12, 0xA1, 0xB2, 0xC3, 0xD4};
    memset(erased, 0xFF, sizeof erased);
    // The register writes are pinned from their length field on.
    struct FrameCase { const char* name; std::function<int(CFlashHost&)> send; const char* frame; };
    typedef int (CFlashHost::*Write)(unsigned int, unsigned char*);
    auto write = [](Write f) { return [f](CFlashHost& h) { return (h.*f)(0x00020000, value); }; };
    const FrameCase cases[] = {
        {"Write_1_byte", write(&CFlashHost::Write_1_byte), "00 00 00 06 01 00 02 00 00 78"},
        {"Write_2_byte", write(&CFlashHost::Write_2_byte), "00 00 00 07 03 00 02 00 00 78 56"},
        {"Write_4_byte", write(&CFlashHost::Write_4_byte), "00 00 00 09 05 00 02 00 00 78 56 34 12"},
        {"Write_8_byte", write(&CFlashHost::Write_8_byte), "00 00 00 0D 07 00 02 00 00 78 56 34 12 A1 B2 C3 D4"},
        {"GetFlashId", [](CFlashHost& h) { return h.GetFlashId(); }, "42 52 4F 4D 04 00 60 51 00 00 00 01 18"},
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
        // Last: the target restarts at 115200.
        {"SysReboot", [](CFlashHost& h) { return h.SysReboot(); }, "42 52 4F 4D 04 00 60 57 00 00 00 01 12"},
    };
    for (const FrameCase& c : cases) {
        SCOPED_TRACE(c.name);
        link.ClearRecord();
        EXPECT_EQ(0, c.send(host)) << host.m_strMsg;
        std::vector<SimCommand> sent = link.Commands();
        ASSERT_EQ(1u, sent.size());
        const long from = c.frame[0] == '4' ? 0 : 8;
        EXPECT_EQ(c.frame, ToHex(Bytes(sent[0].frame.begin() + from, sent[0].frame.end())));
        if (sent[0].Opcode() == 0x1B) {
            EXPECT_EQ(Bytes(512, 0xFF), sent[0].data);
        }
    }
}

struct AckCase { const char* name; Bytes reply; int result; std::string text; };

// A reply cut to its first `size` bytes.
Bytes Cut(Bytes reply, size_t size)
{
    reply.resize(size);
    return reply;
}

std::vector<AckCase> AckCases()
{
    Bytes corrupted = MakeAck({1, 2, 3});
    corrupted[7] ^= 0x01;
    Bytes errorAndAck = MakeReply(0x03, Bytes());
    errorAndAck.push_back(2);
    Bytes badMagic = MakeAck({1, 2, 3, 4});
    memcpy(badMagic.data(), "MORB", 4);
    return {
        {"ack, checksum, no payload", MakeAck(), 0, kOk}, {"ack, checksum, payload", MakeAck({1, 2, 3}), 0, kOk},
        {"ack, largest payload", MakeAck(Bytes(8190, 0x3C)), 0, kOk},
        {"ack, wrong checksum", corrupted, -1, "Ack checksum error!"},
        {"ack without checksum flag", HexBytes("42 52 4F 4D 02 00 12 34 00 00 00 02 09 09"), 0, kOk},
        {"error and ack flags", errorAndAck, -1, "CMD timeout!"},
        {"no flags", MakeReply(0x00, Bytes()), -1, "No ack flag!"},
        {"checksum flag only", MakeReply(0x04, Bytes()), -1, "No ack flag!"},
        {"error type 1", MakeErrorReply(1), -1, "Unknown CMD!"},
        {"error type 2", MakeErrorReply(2), -1, "CMD timeout!"},
        {"error type 3", MakeErrorReply(3), -1, "CMD checksum error!"},
        {"error type 4", MakeErrorReply(4), -1, "CMD invalid!"}, {"error type 5", MakeErrorReply(5), -1, "CMD no mem!"},
        {"error type 0", MakeErrorReply(0), -1, "Unknown error type 0x00!"},
        {"error type 6", MakeErrorReply(6), -1, "Unknown error type 0x06!"},
        {"error type 0x7F", MakeErrorReply(0x7F), -1, "Unknown error type 0x7F!"},
        {"error type missing", MakeReply(0x01, Bytes()), -1, "Failed to read error type!"},
        {"payload of 8191 bytes", Cut(MakeReply(0x06, Bytes(8191, 0x11)), 12 + 300), -1, "Payload too long!"},
        {"payload length all ones", HexBytes("42 52 4F 4D 06 00 00 00 FF FF FF FF"), -1, "Payload too long!"},
        {"payload stops short", Cut(MakeAck(Bytes(10, 0x22)), 12 + 4), -1, "Read payload data error!"},
        {"bad magic", badMagic, -1, "Invalid response!"}, {"header stops short", Cut(MakeAck(), 8), -1, kSetPcTimeout},
    };
}

// Each crafted reply answers one SetPC; the command after it must find a clean line.
TEST_F(HostOnSim, CheckAckJudgesEveryKindOfReply)
{
    Connect();
    for (const AckCase& c : AckCases()) {
        SCOPED_TRACE(c.name);
        link.SetFaults({RawReplyFault("SetPC", c.reply)});
        std::string console = CapturedStdout([&] { EXPECT_EQ(c.result, host.SetPC(0x00010101)); });
        EXPECT_EQ(c.text, host.m_strMsg);
        // Only a reply that is no reply at all is shown on the console.
        EXPECT_EQ(c.reply[0] == 'M' ? "magic:0x42524F4D, 0x4D4F5242\n" : "", console);
        EXPECT_EQ(0, host.SetPC(0x00010101)) << "next command: " << host.m_strMsg;
    }
}

// Level 1 dumps frames and reply headers; level 2 adds payloads and sector data.
TEST(HostLogLevels, LevelTwoAddsPayloadsAndSectorData)
{
    for (unsigned char level : {1, 2}) {
        SCOPED_TRACE(int(level));
        TempDir dir;
        UseLog(dir, level);
        HostAndLink side;
        side.host.SetBaud(921600);
        ASSERT_EQ(0, side.host.OpenUart()) << side.host.m_strMsg;
        static unsigned char sectors[2048];
        ASSERT_EQ(0, side.host.ReadSector(0, sectors, 4)) << side.host.m_strMsg;
        Bytes data(512, 0xA5);
        ASSERT_EQ(0, side.host.WriteSector(0x100, data.data(), 1)) << side.host.m_strMsg;
        side.host.Close();
        g_Setting.bLogLevel = 0;

        std::string log = ReadText(g_Setting.strLogFile);
        bool bulk = level >= 2;
        EXPECT_EQ(bulk, Has(log, "]Payload rps: length 2048 < "));
        EXPECT_EQ(bulk, Has(log, "]WriteSector cmd: length 512 < A5 A5 "));
        for (const char* line : {"]ReadSector cmd: length 21 < 42 52 4F 4D 04 00 5C 47 00 00 00 09 1A "
                                 "00 00 00 00 00 00 00 04 >\n",
                                 "]ReadSector rps: length 12 < 42 52 4F 4D 06 ", "]Synchron rps: length 2 < 4F 4B >\n"})
            EXPECT_TRUE(Has(log, line)) << line;
    }
}

}  // namespace
