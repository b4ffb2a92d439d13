// Memory and register commands: what is copied out, the two-phase bulk write, and
// the wait-for-ack text of every command.
#include <functional>

#include "tests/flashhost/host_fixture.h"

namespace {

TEST_F(HostOnFakeTarget, SingleValueReadsCopyExactlyTheirSize)
{
    Connect();
    struct ReadCase {
        int (CFlashHost::*read)(unsigned int, unsigned char*);
        unsigned char opcode;
        size_t size;
    };
    const ReadCase cases[] = {{&CFlashHost::Read_1_byte, 0x00, 1},
                              {&CFlashHost::Read_2_byte, 0x02, 2},
                              {&CFlashHost::Read_4_byte, 0x04, 4},
                              {&CFlashHost::Read_8_byte, 0x06, 8}};
    for (const ReadCase& c : cases) {
        SCOPED_TRACE(c.size);
        fake.ClearRecord();
        Bytes out(12, 0xEE), expected(12, 0xEE);
        ASSERT_EQ(0, (host.get()->*c.read)(0x40001000, out.data())) << host->m_strMsg;
        for (size_t i = 0; i < c.size; ++i)
            expected[i] = static_cast<unsigned char>(i + 1);  // the fake's payload 01 02 .. 08
        EXPECT_EQ(expected, out);
        std::vector<ReceivedCommand> sent = fake.Commands();
        ASSERT_EQ(1u, sent.size());
        EXPECT_EQ(c.opcode, sent[0].Opcode());
        EXPECT_EQ(0x40001000u, sent[0].Param32(0));
        EXPECT_EQ(17u, sent[0].frame.size());
    }
}

// A reply shorter than asked for leaves the caller's buffer as it was.
TEST_F(HostOnFakeTarget, ShortReplyPayloadIsRefusedAndNotCopied)
{
    Connect(921600);
    Bytes out(2048, 0xEE);
    fake.ScriptReply(0x06, MakeAck({1, 2, 3, 4}));
    EXPECT_EQ(-1, host->Read_8_byte(0, out.data()));
    EXPECT_EQ("Reply payload too short!", host->m_strMsg);
    fake.ScriptReply(0x1A, MakeAck(Bytes(512, 0x11)));
    EXPECT_EQ(-1, host->ReadSector(0, out.data(), 4));
    EXPECT_EQ("Reply payload too short!", host->m_strMsg);
    EXPECT_EQ(Bytes(2048, 0xEE), out);
}

TEST_F(HostOnFakeTarget, WriteMemoryLenSendsTheDataAfterTheAcknowledgedCommand)
{
    Connect();
    Bytes data(3000);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>(i * 13 + 1);
    ASSERT_EQ(0, host->WriteMemoryLen(0x00020000, data.data(), 3000)) << host->m_strMsg;
    unsigned char none = 0;  // nothing to send: the announced checksum is FF FF
    ASSERT_EQ(0, host->WriteMemoryLen(0x00020000, &none, 0)) << host->m_strMsg;
    std::vector<ReceivedCommand> sent = fake.Commands();
    ASSERT_EQ(2u, sent.size());
    EXPECT_TRUE(sent[0].answered) << "the fake target found a checksum wrong";
    EXPECT_EQ(23u, sent[0].frame.size());
    EXPECT_EQ(0x00020000u, sent[0].Param32(0));
    EXPECT_EQ(3000u, sent[0].Param32(4));
    EXPECT_EQ(data, sent[0].data);
    EXPECT_EQ("00 00 00 00 FF FF", ToHex(Bytes(sent[1].frame.begin() + 17, sent[1].frame.end())));
}

// The data would be sync bytes, each drawing an answer, had it been sent.
TEST_F(HostOnFakeTarget, RefusedBulkCommandSendsNoData)
{
    Bytes data(2048, 0x55);
    struct RefusedCase {
        unsigned char opcode, error;
        const char* text;
        std::function<int(CFlashHost&)> send;
    };
    const RefusedCase cases[] = {
        {0x09, 5, "CMD no mem!",
         [&](CFlashHost& h) { return h.WriteMemoryLen(0x00020000, data.data(), 600); }},
        {0x1B, 2, "CMD timeout!",
         [&](CFlashHost& h) { return h.WriteFlashLength(0, data.data(), 2048); }},
    };
    for (const RefusedCase& c : cases) {
        SCOPED_TRACE(c.text);
        Connect();
        fake.ScriptReply(c.opcode, MakeErrorReply(c.error));
        EXPECT_EQ(-1, c.send(*host));
        EXPECT_EQ(c.text, host->m_strMsg);
        usleep(100000);
        EXPECT_EQ(23u, fake.RawBytes().size());
        host->Close();
    }
}

TEST_F(HostOnFakeTarget, ReadMemoryLenCopiesTheBlock)
{
    Connect();
    Bytes out(40, 0xEE);
    ASSERT_EQ(0, host->ReadMemoryLen(0x00030000, out.data(), 32)) << host->m_strMsg;
    for (size_t i = 0; i < 32; ++i)
        EXPECT_EQ(i, out[i]);
    EXPECT_EQ(0xEE, out[32]);
    fake.ClearRecord();
    ASSERT_EQ(0, host->ReadMemoryLen(0x00030000, out.data(), 0)) << host->m_strMsg;
    std::vector<ReceivedCommand> sent = fake.Commands();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(0u, sent[0].Param32(4));
}

TEST_F(HostOnFakeTarget, ReadsBeyondTheReplyBufferAreRefusedBeforeSending)
{
    Connect();
    Bytes big(16 * 512);
    EXPECT_EQ(-1, host->ReadMemoryLen(0, big.data(), 8191));
    EXPECT_EQ("Read request exceeds the 8190-byte reply buffer!", host->m_strMsg);
    EXPECT_EQ(-1, host->ReadSector(0, big.data(), 16));
    EXPECT_EQ("Read request exceeds the 8190-byte reply buffer!", host->m_strMsg);
    EXPECT_EQ(0u, fake.RawBytes().size());
    EXPECT_EQ(0, host->ReadMemoryLen(0, big.data(), 8190)) << host->m_strMsg;
    EXPECT_EQ(0, host->ReadSector(0, big.data(), 15)) << host->m_strMsg;
}

// The target hangs up when the command arrives, so the reply header never comes.
TEST(CommandTimeouts, EveryCommandNamesItsWaitForAck)
{
    static unsigned char buf[4 * 512];
    typedef int (CFlashHost::*Single)(unsigned int, unsigned char*);
    struct TimeoutCase {
        unsigned char opcode;
        std::function<int(CFlashHost&)> send;
        const char* what;  // "Cmd <what> waits for ack timeout or comm error!"
    };
    auto single = [](Single f) { return [f](CFlashHost& h) { return (h.*f)(0, buf); }; };
    const TimeoutCase cases[] = {
        {0x00, single(&CFlashHost::Read_1_byte), "read 1 byte"},
        {0x02, single(&CFlashHost::Read_2_byte), "read 2 byte"},
        {0x04, single(&CFlashHost::Read_4_byte), "read 4 byte"},
        {0x06, single(&CFlashHost::Read_8_byte), "read 8 byte"},
        {0x01, single(&CFlashHost::Write_1_byte), "write 1 byte"},
        {0x03, single(&CFlashHost::Write_2_byte), "write 2 byte"},
        {0x05, single(&CFlashHost::Write_4_byte), "write 4 byte"},
        {0x07, single(&CFlashHost::Write_8_byte), "write 8 byte"},
        {0x08, [](CFlashHost& h) { return h.ReadMemoryLen(0, buf, 4); }, "read sectors"},
        {0x09, [](CFlashHost& h) { return h.WriteMemoryLen(0, buf, 4); }, "write sectors"},
        {0x11, [](CFlashHost& h) { return h.SetJtag(1); }, "read 1 byte"},
        {0x13, [](CFlashHost& h) { return h.SetPC(0x00010101); }, "read 1 byte"},
        {0x18, [](CFlashHost& h) { return h.GetFlashId(); }, "read 1 byte"},
        {0x12, [](CFlashHost& h) { return h.SysReboot(); }, "read 1 byte"},
        {0x10, [](CFlashHost& h) { return h.ChangeBaud(0x030E1000); }, "change baud"},
        {0x19, [](CFlashHost& h) { return h.EraseFlash(0); }, "erase"},
        {0x1A, [](CFlashHost& h) { return h.ReadSector(0, buf, 1); }, "read sectors"},
        {0x1B, [](CFlashHost& h) { return h.WriteSector(0, buf, 1); }, "write sectors"},
    };
    g_Setting.bLogLevel = 0;
    for (const TimeoutCase& c : cases) {
        SCOPED_TRACE(int(c.opcode));
        FakeTarget fake;
        ASSERT_TRUE(fake.Ok());
        CFlashHost host;
        host.SetComNum(fake.DevicePath());
        host.SetBaud(921600);
        ASSERT_EQ(0, host.OpenUart()) << host.m_strMsg;
        fake.HangUpOn(c.opcode);
        EXPECT_EQ(-1, c.send(host));
        EXPECT_EQ(std::string("Cmd ") + c.what + " waits for ack timeout or comm error!",
                  host.m_strMsg);
    }
}

// The same text when the data phase of a two-phase command goes unanswered.
TEST_F(HostOnFakeTarget, UnansweredDataPhaseGivesTheWriteText)
{
    Connect();
    unsigned char data[512] = {};
    fake.ScriptReply(0x1B, Bytes(), 1, 1);
    EXPECT_EQ(-1, host->WriteSector(0, data, 1));
    EXPECT_EQ("Cmd write sectors waits for ack timeout or comm error!", host->m_strMsg);
    fake.ScriptReply(0x09, MakeErrorReply(4), 1, 1);
    EXPECT_EQ(-1, host->WriteMemoryLen(0, data, 16));
    EXPECT_EQ("CMD invalid!", host->m_strMsg);
}

}  // namespace
