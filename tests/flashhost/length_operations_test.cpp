// Length operations: how a byte range becomes sector and erase commands, and what
// lands in the caller's buffer or the flash.
#include "tests/flashhost/host_fixture.h"

namespace {

// 64 KiB takes 32 four-sector commands at 921600; at every other rate the classic
// link sends a command per sector;
// a rest is rounded up to whole sectors in one more command.
TEST_F(HostOnSim, ReadFlashLengthSplitsTheRangeIntoSectorCommands)
{
    const struct {
        const char* name;
        unsigned int baud;
        uint32_t address, length;
        size_t commands;
        uint32_t firstSector, perCommand, lastCount;  // perCommand: all but the last
    } cases[] = {
        {"64 KiB fast", 921600, 0x10000, 65536, 32, 0x80, 4, 4}, {"8 KiB slow", 115200, 0x10000, 8192, 16, 0x80, 1, 1},
        {"3000 bytes fast", 921600, 0x8000, 3000, 2, 0x40, 4, 2},
        {"3000 bytes slow", 115200, 0x8000, 3000, 6, 0x40, 1, 1},
        {"3000 bytes above 921600, classic link", 2000000, 0x8000, 3000, 6, 0x40, 1, 1},
        {"unaligned start", 115200, 0x1234, 512, 1, 9, 1, 1}, {"one byte", 921600, 0x400, 1, 1, 2, 1, 1},
    };
    Bytes pattern(0x30000);
    for (size_t i = 0; i < pattern.size(); ++i)
        pattern[i] = static_cast<unsigned char>(i * 7 + (i >> 9));
    link.Preload(0, pattern);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Connect(c.baud);
        std::vector<unsigned char> buffer(65536 + 512, 0xEE);
        ASSERT_EQ(0, host.ReadFlashLength(c.address, buffer.data(), c.length)) << host.m_strMsg;

        std::vector<SimCommand> reads = link.CommandsWith(0x1A);
        ASSERT_EQ(c.commands, reads.size());
        uint32_t next = c.firstSector;
        for (size_t i = 0; i < reads.size(); ++i) {
            EXPECT_EQ(next, reads[i].Param32(0)) << "command " << i;
            EXPECT_EQ(i + 1 < reads.size() ? c.perCommand : c.lastCount, reads[i].Param32(4)) << "command " << i;
            next += reads[i].Param32(4);
        }
        // Whole sectors travel, but only the bytes asked for land in the buffer.
        uint32_t from = c.firstSector * 512;
        EXPECT_TRUE(Bytes(buffer.begin(), buffer.begin() + c.length) == link.Flash(from, c.length));
        EXPECT_EQ(0xEE, buffer[c.length]) << "nothing stored past the length";
        host.Close();
    }
}

TEST_F(HostOnSim, ZeroLengthSendsNothing)
{
    Connect();
    unsigned char buffer[512];
    EXPECT_EQ(0, host.ReadFlashLength(0x1000, buffer, 0));
    EXPECT_EQ(0, host.WriteFlashLength(0x1000, buffer, 0));
    EXPECT_EQ(0, host.EraseFlashLength(0x10000, 0));
    EXPECT_EQ(0u, link.written.size());
}

TEST_F(HostOnSim, WriteFlashLengthSendsEachChunkAfterItsCommand)
{
    Connect(921600);
    ASSERT_EQ(0, host.EraseFlashLength(0x20000, 0x10000)) << host.m_strMsg;
    link.ClearRecord();
    std::vector<unsigned char> data(3072, 0xFF);
    for (size_t i = 0; i < 3000; ++i)
        data[i] = static_cast<unsigned char>(i * 5 + 3);
    ASSERT_EQ(0, host.WriteFlashLength(0x20000, data.data(), 3000)) << host.m_strMsg;

    std::vector<SimCommand> w = link.CommandsWith(0x1B);
    ASSERT_EQ(2u, w.size());
    EXPECT_EQ(0x100u, w[0].Param32(0));
    EXPECT_EQ(4u, w[0].Param32(4));
    EXPECT_EQ(0x104u, w[1].Param32(0));
    EXPECT_EQ(2u, w[1].Param32(4));
    EXPECT_EQ(Bytes(data.begin(), data.begin() + 2048), w[0].data);
    EXPECT_EQ(Bytes(data.begin() + 2048, data.end()), w[1].data);
    EXPECT_TRUE(Bytes(data.begin(), data.end()) == link.Flash(0x20000, 3072));
}

// A range reaching the top of the address space ends there: the block after
// 0xFFFF0000 would otherwise wrap round to 0 and erase from the start.
TEST_F(HostOnSim, EraseFlashLengthErasesEveryBlockTheRangeMeetsAndDoesNotWrap)
{
    Connect();
    const struct { uint32_t address, length; std::vector<uint32_t> blocks; } cases[] = {
        {0x12345, 0x20000, {0x10000, 0x20000, 0x30000}}, {0x10000, 0x10000, {0x10000}}, {0x10080, 0x100, {0x10000}},
        {0x1FFFF, 2, {0x10000, 0x20000}}, {0xFFFF8000, 0x18000, {0xFFFF0000}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.address);
        link.ClearRecord();
        if (c.address >= SimLink::kFlashSize)
            link.SetFaults({RawReplyFault("EraseFlash", MakeAck())});  // the flash is smaller; say yes
        ASSERT_EQ(0, host.EraseFlashLength(c.address, c.length)) << host.m_strMsg;
        std::vector<uint32_t> blocks;
        for (const SimCommand& e : link.CommandsWith(0x19)) {
            EXPECT_EQ(3, e.frame[13]) << "erase mode";
            blocks.push_back(e.Param32(1));
        }
        EXPECT_EQ(c.blocks, blocks);
    }
}

TEST_F(HostOnSim, FirstFailingCommandEndsTheOperation)
{
    Connect(921600);
    link.SetFaults({"ReadSector:2:error3", "EraseFlash:1:error4"});
    std::vector<unsigned char> buffer(65536);
    EXPECT_EQ(-1, host.ReadFlashLength(0, buffer.data(), 65536));
    EXPECT_EQ("CMD checksum error!", host.m_strMsg);
    EXPECT_EQ(2u, link.CommandsWith(0x1A).size());

    link.ClearRecord();
    EXPECT_EQ(-1, host.EraseFlashLength(0, 0x30000));
    EXPECT_EQ("CMD invalid!", host.m_strMsg);
    EXPECT_EQ(1u, link.CommandsWith(0x19).size());
}

}  // namespace

namespace {

// The two operations whose variant the link profile picks inside the flash host.
// The change check: the classic link reads the whole range; the fast one stops at
// the first command whose piece differs. The write into erased flash: the classic
// link sends every sector, the fast one skips sectors that are all 0xFF. Either
// way the answer and the flash are the same.
TEST_F(HostOnSim, TheLinkProfileChoosesHowTheChangeCheckAndTheErasedWriteGo)
{
    // checkReads: read commands of a 16 KiB check that differs in its first piece
    // writeCommands: write commands for 16 KiB whose middle 8 KiB are 0xFF
    struct Case { bool fast; size_t checkReads; size_t writeCommands; };
    Bytes data(16384, 0xFF);
    for (size_t i = 0; i < 4096; ++i) {
        data[i] = static_cast<unsigned char>(i * 3 + 1);
        data[12288 + i] = static_cast<unsigned char>(i * 5 + 2);
    }
    for (const Case& c : {Case{false, 8, 8}, Case{true, 1, 4}}) {
        SCOPED_TRACE(c.fast ? "fast link" : "classic link");
        LinkProfile profile;
        profile.fast = c.fast;
        host.SetLinkProfile(profile);
        Connect(921600);
        ASSERT_EQ(0, host.EraseFlashLength(0x40000, 0x10000)) << host.m_strMsg;
        link.ClearRecord();

        Bytes scratch(data.size());
        int differs = 0;
        ASSERT_EQ(0, host.CheckFlashLength(0x40000, data.data(), 16384, scratch.data(), &differs));
        EXPECT_EQ(1, differs);
        EXPECT_EQ(c.checkReads, link.CommandsWith(0x1A).size());

        link.ClearRecord();
        ASSERT_EQ(0, host.WriteErasedFlashLength(0x40000, data.data(), 16384)) << host.m_strMsg;
        EXPECT_EQ(c.writeCommands, link.CommandsWith(0x1B).size());
        EXPECT_TRUE(link.Flash(0x40000, 16384) == data);

        ASSERT_EQ(0, host.CheckFlashLength(0x40000, data.data(), 16384, scratch.data(), &differs));
        EXPECT_EQ(0, differs) << "what was written reads back the same";
        host.Close();
    }
    host.SetLinkProfile(LinkProfile());
}

}  // namespace
