// Memory and register commands: what is copied out, the two-phase bulk write, and
// the wait-for-ack text of every command.
#include <functional>

#include "tests/flashhost/host_fixture.h"

namespace {

const unsigned int kSram = 0x00020000;  // inside the target's SRAM

TEST_F(HostOnSim, ValuesAndBlocksComeBackExactlyAsWrittenAndNoFurther)
{
    Connect();
    Bytes value = PatternBytes(8, 1);
    ASSERT_EQ(0, host.Write_8_byte(kSram, value.data())) << host.m_strMsg;
    typedef int (CFlashHost::*Read)(unsigned int, unsigned char*);
    const std::pair<Read, size_t> reads[] = {{&CFlashHost::Read_1_byte, 1},
                                             {&CFlashHost::Read_2_byte, 2}, {&CFlashHost::Read_4_byte, 4},
                                             {&CFlashHost::Read_8_byte, 8}};
    for (const auto& r : reads) {
        SCOPED_TRACE(r.second);
        Bytes out(12, 0xEE), expected(12, 0xEE);
        ASSERT_EQ(0, (host.*r.first)(kSram, out.data())) << host.m_strMsg;
        std::copy(value.begin(), value.begin() + static_cast<long>(r.second), expected.begin());
        EXPECT_EQ(expected, out);
    }

    link.ClearRecord();
    Bytes block = PatternBytes(3000, 13);
    ASSERT_EQ(0, host.WriteMemoryLen(kSram, block.data(), 3000)) << host.m_strMsg;
    unsigned char none = 0;  // nothing to send: the announced checksum is FF FF
    ASSERT_EQ(0, host.WriteMemoryLen(kSram, &none, 0)) << host.m_strMsg;
    std::vector<SimCommand> sent = link.Commands();
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ(block, sent[0].data);
    EXPECT_EQ("00 00 00 00 FF FF", ToHex(Bytes(sent[1].frame.begin() + 17, sent[1].frame.end())));

    Bytes out(3008, 0xEE);
    ASSERT_EQ(0, host.ReadMemoryLen(kSram, out.data(), 3000)) << host.m_strMsg;
    EXPECT_EQ(block, Bytes(out.begin(), out.begin() + 3000));
    EXPECT_EQ(Bytes(8, 0xEE), Bytes(out.begin() + 3000, out.end()));
    ASSERT_EQ(0, host.ReadMemoryLen(kSram, out.data(), 0)) << host.m_strMsg;
}

// A reply shorter than asked for leaves the caller's buffer as it was; a read the
// reply buffer cannot hold is refused before anything is sent.
TEST_F(HostOnSim, ShortRepliesAndOversizedReadsAreRefusedAndNothingIsCopied)
{
    Connect(921600);
    Bytes out(2048, 0xEE);
    link.SetFaults({RawReplyFault("Read_8_byte", MakeAck({1, 2, 3, 4})),
                    RawReplyFault("ReadSector", MakeAck(Bytes(512, 0x11)))});
    EXPECT_EQ(-1, host.Read_8_byte(0, out.data()));
    EXPECT_EQ("Reply payload too short!", host.m_strMsg);
    EXPECT_EQ(-1, host.ReadSector(0, out.data(), 4));
    EXPECT_EQ("Reply payload too short!", host.m_strMsg);
    EXPECT_EQ(Bytes(2048, 0xEE), out);

    link.ClearRecord();
    Bytes big(16 * 512);
    EXPECT_EQ(-1, host.ReadMemoryLen(kSram, big.data(), 8191));
    EXPECT_EQ("Read request exceeds the 8190-byte reply buffer!", host.m_strMsg);
    EXPECT_EQ(-1, host.ReadSector(0, big.data(), 16));
    EXPECT_EQ("Read request exceeds the 8190-byte reply buffer!", host.m_strMsg);
    EXPECT_EQ(0u, link.written.size());
    EXPECT_EQ(0, host.ReadMemoryLen(kSram, big.data(), 8190)) << host.m_strMsg;
    EXPECT_EQ(0, host.ReadSector(0, big.data(), 15)) << host.m_strMsg;
}

// The data would be sync bytes, each drawing an answer, had it been sent.
TEST_F(HostOnSim, RefusedBulkCommandSendsNoData)
{
    Bytes data(2048, 0x55);
    const std::pair<const char*, std::function<int(CFlashHost&)>> cases[] = {
        {"outside SRAM", [&](CFlashHost& h) { return h.WriteMemoryLen(0x20000000, data.data(), 600); }},
        {"beyond the flash", [&](CFlashHost& h) { return h.WriteFlashLength(SimLink::kFlashSize, data.data(), 2048); }},
    };
    Connect();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        link.ClearRecord();
        EXPECT_EQ(-1, c.second(host));
        EXPECT_EQ("CMD invalid!", host.m_strMsg);
        EXPECT_EQ(23u, link.written.size());
    }
}

// The target vanishes when the command arrives, so the reply header never comes.
TEST(CommandTimeouts, EveryCommandNamesItsWaitForAck)
{
    static unsigned char buf[4 * 512];
    typedef int (CFlashHost::*Single)(unsigned int, unsigned char*);
    // what: "Cmd <what> waits for ack timeout or comm error!"
    struct TimeoutCase { std::function<int(CFlashHost&)> send; const char* what; };
    auto single = [](Single f) { return [f](CFlashHost& h) { return (h.*f)(kSram, buf); }; };
    const TimeoutCase cases[] = {
        {single(&CFlashHost::Read_1_byte), "read 1 byte"}, {single(&CFlashHost::Read_2_byte), "read 2 byte"},
        {single(&CFlashHost::Read_4_byte), "read 4 byte"}, {single(&CFlashHost::Read_8_byte), "read 8 byte"},
        {single(&CFlashHost::Write_1_byte), "write 1 byte"}, {single(&CFlashHost::Write_2_byte), "write 2 byte"},
        {single(&CFlashHost::Write_4_byte), "write 4 byte"}, {single(&CFlashHost::Write_8_byte), "write 8 byte"},
        {[](CFlashHost& h) { return h.ReadMemoryLen(kSram, buf, 4); }, "read sectors"},
        {[](CFlashHost& h) { return h.WriteMemoryLen(kSram, buf, 4); }, "write sectors"},
        {[](CFlashHost& h) { return h.SetJtag(1); }, "read 1 byte"},
        {[](CFlashHost& h) { return h.SetPC(0x00010101); }, "read 1 byte"},
        {[](CFlashHost& h) { return h.GetFlashId(); }, "read 1 byte"},
        {[](CFlashHost& h) { return h.SysReboot(); }, "read 1 byte"},
        {[](CFlashHost& h) { return h.ChangeBaud(0x030E1000); }, "change baud"},
        {[](CFlashHost& h) { return h.EraseFlash(0); }, "erase"},
        {[](CFlashHost& h) { return h.ReadSector(0, buf, 1); }, "read sectors"},
        {[](CFlashHost& h) { return h.WriteSector(0, buf, 1); }, "write sectors"},
    };
    g_Setting.bLogLevel = 0;
    for (const TimeoutCase& c : cases) {
        SCOPED_TRACE(c.what);
        HostAndLink side;
        side.host.SetBaud(921600);
        ASSERT_EQ(0, side.host.OpenUart()) << side.host.m_strMsg;
        side.link.SetFaults({"any:1:vanish"});
        EXPECT_EQ(-1, c.send(side.host));
        EXPECT_EQ(std::string("Cmd ") + c.what + " waits for ack timeout or comm error!", side.host.m_strMsg);
    }
}

// The same text when the data phase of a two-phase command goes unanswered; an
// error reply to the data phase is reported as such.
TEST_F(HostOnSim, DataPhaseRepliesAreJudgedLikeCommandReplies)
{
    Connect();
    unsigned char data[512] = {};
    link.SetFaults({"WriteSector:1:noreply", "WriteMemoryLen:1:error4"});
    EXPECT_EQ(-1, host.WriteSector(0, data, 1));
    EXPECT_EQ("Cmd write sectors waits for ack timeout or comm error!", host.m_strMsg);
    EXPECT_EQ(-1, host.WriteMemoryLen(kSram, data, 16));
    EXPECT_EQ("CMD invalid!", host.m_strMsg);
}

}  // namespace
