// Frames on the wire: the worked example frames, synchronisation, and how a strict
// target refuses frames that are not quite right.
#include <gtest/gtest.h>

#include "tests/sim/sim_wire_client.h"
#include "tests/support/process.h"

namespace {

struct ExampleFrame {
    const char* name;
    const char* hex;
    Bytes built;        // the same frame from the test's own builder
    size_t payload;     // acknowledgement payload expected
};

// The worked examples, each the exact bytes a host sends.
std::vector<ExampleFrame> ExampleFrames()
{
    return {
        {"GetFlashId", "42 52 4F 4D 04 00 60 51 00 00 00 01 18", GetFlashIdFrame(), 3},
        {"SysReboot", "42 52 4F 4D 04 00 60 57 00 00 00 01 12", CommandFrame(0x12, {}), 0},
        {"ChangeBaud", "42 52 4F 4D 04 00 52 42 00 00 00 05 10 03 0E 10 00", ChangeBaudFrame(921600), 0},
        {"SetPC", "42 52 4F 4D 04 00 5E 51 00 00 00 05 13 00 01 01 01", SetPcFrame(0x00010101), 0},
        {"EraseFlash", "42 52 4F 4D 04 00 5D 4A 00 00 00 06 19 03 00 01 00 00", EraseFrame(0x10000), 0},
        {"ReadSector", "42 52 4F 4D 04 00 DC 47 00 00 00 09 1A 00 00 00 80 00 00 00 04",
         ReadSectorFrame(0x80, 4), 2048},
        {"WriteSector", "42 52 4F 4D 04 00 E0 44 00 00 00 0B 1B 00 00 00 80 00 00 00 01 00 FF",
         WriteSectorFrame(0x80, 1, 0x00FF), 0},
    };
}

TEST(SimFrames, TestBuilderReproducesTheWorkedExamples)
{
    for (const ExampleFrame& example : ExampleFrames())
        EXPECT_EQ(ToHex(example.built), example.hex) << example.name;
    EXPECT_EQ(DataChecksum(Bytes(512, 0xFF)), 0x00FF);
}

TEST(SimFrames, WorkedExamplesAreAcceptedAndAnsweredWithCheckedReplies)
{
    for (const ExampleFrame& example : ExampleFrames()) {
        // A fresh target each time: the ROM here serves flash, nothing changes speed first.
        SimProcess sim({"--responder", "2"});
        ASSERT_TRUE(sim.Started());
        SimPort port(sim.DevicePath());
        SimReply reply = port.Exchange(FromHex(example.hex));
        ASSERT_TRUE(reply.complete) << example.name;
        EXPECT_EQ(reply.flags, 0x06) << example.name;
        EXPECT_TRUE(reply.checksumOk) << example.name;
        EXPECT_EQ(reply.responder, 2) << example.name;
        EXPECT_EQ(reply.payload.size(), example.payload) << example.name;
    }
}

TEST(SimFrames, GetFlashIdCarriesTheResponderCodeAndIdentifier)
{
    struct Case {
        std::vector<std::string> args;
        uint8_t responder;
        const char* id;
    } cases[] = {
        {{}, 1, "C8 40 16"},
        {{"--responder", "3", "--flash-id", "EF4018AA"}, 3, "EF 40 18 AA"},
        {{"--flash-id", "0102030405060708090A0B0C0D0E0F101112131415161718"}, 1,
         "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 14 15 16 17 18"},
    };
    for (const Case& c : cases) {
        SimProcess sim(c.args);
        SimPort port(sim.DevicePath());
        SimReply reply = port.Exchange(GetFlashIdFrame());
        ASSERT_TRUE(reply.IsAck());
        EXPECT_EQ(reply.responder, c.responder);
        EXPECT_EQ(ToHex(reply.payload), c.id);
    }
}

TEST(SimFrames, SyncByteIsAnsweredOk)
{
    SimProcess sim({});
    SimPort port(sim.DevicePath());
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(port.Sync());
}

TEST(SimFrames, SyncFailLeavesTheFirstSyncBytesUnanswered)
{
    SimProcess sim({"--sync-fail", "3"});
    SimPort port(sim.DevicePath());
    for (int i = 0; i < 3; ++i) {
        port.Send({0x55});
        EXPECT_TRUE(port.Silent(200)) << "sync " << i + 1;
    }
    EXPECT_TRUE(port.Sync());
}

TEST(SimFrames, MalformedFramesGetTheMatchingErrorType)
{
    Bytes badChecksum = GetFlashIdFrame();
    badChecksum[7] ^= 0x01;
    // A GetFlashId with an extra body byte, correctly summed over what was sent.
    Bytes longBody = CommandFrame(0x18, {{0, 1}});
    Bytes shortBody = CommandFrame(0x04, {{0x10000, 2}});       // Read_4_byte, 2-byte address
    Bytes unknown = CommandFrame(0x30, {});
    // Flags 0x06 with the checksum adjusted to match: flags are summed as the low
    // byte of the word at offset 4, so the sum grows by 2 and the checksum shrinks by 2.
    Bytes badFlags = GetFlashIdFrame();
    badFlags[4] = 0x06;
    uint16_t adjusted = static_cast<uint16_t>(((badFlags[6] << 8) | badFlags[7]) - 2);
    badFlags[6] = static_cast<uint8_t>(adjusted >> 8);
    badFlags[7] = static_cast<uint8_t>(adjusted);
    // Checksum over the frame as it travels, not in host order.
    Bytes wireSummed = CommandFrame(0x13, {{0x01010100, 4}});  // SetPC, parameter byte-swapped
    wireSummed[13] = 0x00; wireSummed[14] = 0x01; wireSummed[15] = 0x01; wireSummed[16] = 0x01;
    Bytes lengthZero = FromHex("42 52 4F 4D 04 00 00 00 00 00 00 00");
    Bytes lengthHuge = FromHex("42 52 4F 4D 04 00 00 00 00 00 10 00");
    Bytes eraseMode = CommandFrame(0x19, {{2, 1}, {0x10000, 4}});
    Bytes eraseOutside = EraseFrame(0x00400000);
    Bytes readTooMany = ReadSectorFrame(0, 16);
    Bytes readPastEnd = ReadSectorFrame(8191, 2);
    Bytes memoryOutside = CommandFrame(0x08, {{0x20000000, 4}, {16, 4}});
    Bytes memoryTooLong = CommandFrame(0x08, {{0x00010000, 4}, {8191, 4}});
    Bytes writeMemoryOutside = WriteMemoryFrame(0x0007FF00, 0x200, 0);
    Bytes writeTooManySectors = WriteSectorFrame(0, 17, 0);
    Bytes speedZero = CommandFrame(0x10, {{0x03000000, 4}});

    struct Case {
        const char* name;
        Bytes frame;
        int type;
    } cases[] = {
        {"checksum", badChecksum, 3},
        {"checksum over wire order", wireSummed, 3},
        {"body too long for opcode", longBody, 4},
        {"body too short for opcode", shortBody, 4},
        {"unknown opcode", unknown, 1},
        {"flags not 0x04", badFlags, 4},
        {"length 0", lengthZero, 4},
        {"length beyond any command", lengthHuge, 4},
        {"erase mode other than 3", eraseMode, 4},
        {"erase outside flash", eraseOutside, 4},
        {"read more than a reply holds", readTooMany, 4},
        {"read past the flash end", readPastEnd, 4},
        {"memory read outside SRAM", memoryOutside, 4},
        {"memory read beyond the reply buffer", memoryTooLong, 4},
        {"memory write past the SRAM end", writeMemoryOutside, 4},
        {"write sectors beyond the buffer", writeTooManySectors, 5},
        {"speed 0", speedZero, 4},
    };
    SimProcess sim({"--rom-flash", "yes"});
    SimPort port(sim.DevicePath());
    for (const Case& c : cases) {
        SimReply reply = port.Exchange(c.frame);
        ASSERT_TRUE(reply.complete) << c.name;
        EXPECT_EQ(reply.flags & 0x01, 0x01) << c.name;
        EXPECT_EQ(reply.errorType, c.type) << c.name;
        EXPECT_TRUE(reply.checksumOk) << c.name;
        EXPECT_TRUE(port.Silent(50)) << c.name << ": more bytes than one error reply";
    }
    // After all that the target still answers normally.
    EXPECT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
}

TEST(SimFrames, GarbageBeforeAFrameIsSkipped)
{
    SimProcess sim({});
    SimPort port(sim.DevicePath());
    Bytes stream = FromHex("00 FF 42 52 4F 00 13 42 42 52");   // includes broken magics
    Bytes frame = GetFlashIdFrame();
    stream.insert(stream.end(), frame.begin(), frame.end());
    SimReply reply = port.Exchange(stream);
    EXPECT_TRUE(reply.IsAck());
    EXPECT_EQ(ToHex(reply.payload), "C8 40 16");
    EXPECT_TRUE(port.Silent(100));
}

TEST(SimFrames, HalfAFrameOrDataPhaseIsForgottenAfterAQuietTime)
{
    SimProcess sim({});
    SimPort port(sim.DevicePath());
    Bytes frame = GetFlashIdFrame();
    port.Send(Bytes(frame.begin(), frame.begin() + 7));
    EXPECT_TRUE(port.Silent(700));
    SimReply reply = port.Exchange(frame);
    EXPECT_TRUE(reply.IsAck());

    // Likewise a data phase the host gave up on: the next frame is a frame again.
    ASSERT_TRUE(port.Exchange(WriteMemoryFrame(0x00020000, 64, 0)).IsAck());
    port.Send(Bytes(20, 0x11));
    EXPECT_TRUE(port.Silent(700));
    EXPECT_TRUE(port.Exchange(frame).IsAck());
}

TEST(SimFrames, RegisterAndMemoryAccessesRoundTrip)
{
    SimProcess sim({});
    SimPort port(sim.DevicePath());
    // Write_4_byte at a register address outside SRAM, value bytes sent as they lie.
    ASSERT_TRUE(port.Exchange(CommandFrame(0x05, {{0x20000000, 4}}, {0x78, 0x56, 0x34, 0x12})).IsAck());
    SimReply word = port.Exchange(CommandFrame(0x04, {{0x20000000, 4}}));
    ASSERT_TRUE(word.IsAck());
    EXPECT_EQ(ToHex(word.payload), "78 56 34 12");
    SimReply half = port.Exchange(CommandFrame(0x02, {{0x20000002, 4}}));
    EXPECT_EQ(ToHex(half.payload), "34 12");
    SimReply never = port.Exchange(CommandFrame(0x06, {{0x40000000, 4}}));
    EXPECT_EQ(ToHex(never.payload), "00 00 00 00 00 00 00 00");

    // Bulk write into SRAM, read back with ReadMemoryLen and a single-byte read.
    Bytes data = {1, 2, 3, 4, 5};
    ASSERT_TRUE(port.Exchange(WriteMemoryFrame(0x00020000, 5, DataChecksum(data))).IsAck());
    port.Send(data);
    ASSERT_TRUE(port.ReadReply().IsAck());
    SimReply back = port.Exchange(CommandFrame(0x08, {{0x00020000, 4}, {5, 4}}));
    EXPECT_EQ(back.payload, data);
    EXPECT_EQ(ToHex(port.Exchange(CommandFrame(0x00, {{0x00020004, 4}})).payload), "05");
    // A byte count of 0 is acknowledged with an empty payload.
    SimReply none = port.Exchange(CommandFrame(0x08, {{0x00020000, 4}, {0, 4}}));
    EXPECT_TRUE(none.IsAck());
    EXPECT_EQ(none.length, 0u);
    EXPECT_TRUE(port.Exchange(CommandFrame(0x11, {{1, 1}})).IsAck());   // SetJtag
}

TEST(SimFrames, DataPhaseWithWrongChecksumIsRefusedAndNotStored)
{
    SimProcess sim({});
    SimPort port(sim.DevicePath());
    Bytes data = {9, 9, 9, 9};
    ASSERT_TRUE(port.Exchange(WriteMemoryFrame(0x00030000, 4, DataChecksum(data) ^ 1)).IsAck());
    port.Send(data);
    SimReply reply = port.ReadReply();
    EXPECT_EQ(reply.errorType, 3);
    EXPECT_EQ(ToHex(port.Exchange(CommandFrame(0x08, {{0x00030000, 4}, {4, 4}})).payload), "00 00 00 00");
}

TEST(SimFrames, TraceRecordsFramesRepliesAndEvents)
{
    TempDir dir;
    std::string tracePath = dir.File("trace.txt");
    SimProcess sim({"--trace", tracePath});
    {
        SimPort port(sim.DevicePath());
        ASSERT_TRUE(port.Sync());
        ASSERT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
        ASSERT_TRUE(port.Exchange(ChangeBaudFrame(921600)).IsAck());
    }
    sim.Stop();
    std::string trace = ReadTextFile(tracePath);
    EXPECT_NE(trace.find("rx 115200 55\ntx 115200 4F 4B\n"), std::string::npos) << trace;
    EXPECT_NE(trace.find("rx 115200 42 52 4F 4D 04 00 60 51 00 00 00 01 18\n"
                         "tx 115200 42 52 4F 4D 06 01 1E 87 00 00 00 03 C8 40 16\n"),
              std::string::npos) << trace;
    EXPECT_NE(trace.find("event baud 921600\n"), std::string::npos) << trace;
}

}  // namespace
