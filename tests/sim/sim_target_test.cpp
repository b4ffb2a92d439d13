// The simulated target as a host sees it on the wire: the worked example frames,
// synchronisation, how a strict target refuses frames that are not quite right, the
// NOR flash model, the line and the chip's states (speeds, the boot-loader start,
// reboot, running firmware, sessions, pacing) and injected faults.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <unistd.h>

#include "tests/sim/sim_wire_client.h"
#include "tests/support/process.h"

namespace {

// GetFlashId answers with the configured responder code and identifier.
TEST(SimFrames, WorkedExamplesMatchTheBuilderAndAreAnsweredWithCheckedReplies)
{
    const struct {
        const char* hex;
        Bytes built;        // the same frame from the test's own builder
        size_t payload;     // acknowledgement payload expected
    } examples[] = {
        {"42 52 4F 4D 04 00 60 51 00 00 00 01 18", GetFlashIdFrame(), 24},
        {"42 52 4F 4D 04 00 60 57 00 00 00 01 12", CommandFrame(0x12, {}), 0},
        {"42 52 4F 4D 04 00 52 42 00 00 00 05 10 03 0E 10 00", ChangeBaudFrame(921600), 0},
        {"42 52 4F 4D 04 00 5E 51 00 00 00 05 13 00 01 01 01", SetPcFrame(0x00010101), 0},
        {"42 52 4F 4D 04 00 5D 4A 00 00 00 06 19 03 00 01 00 00", EraseFrame(0x10000), 0},
        {"42 52 4F 4D 04 00 DC 47 00 00 00 09 1A 00 00 00 80 00 00 00 04", ReadSectorFrame(0x80, 4), 2048},
        {"42 52 4F 4D 04 00 E0 44 00 00 00 0B 1B 00 00 00 80 00 00 00 01 00 FF",
         WriteSectorFrame(0x80, 1, 0x00FF), 0},
    };
    EXPECT_EQ(DataChecksum(Bytes(512, 0xFF)), 0x00FF);
    for (const auto& example : examples) {
        SCOPED_TRACE(example.hex);
        EXPECT_EQ(ToHex(example.built), example.hex);
        // A fresh target each time: the ROM here serves flash, nothing changes speed first.
        SimProcess sim({"--responder", "2", "--flash-id", "0102030405060708090A0B0C0D0E0F101112131415161718"});
        ASSERT_TRUE(sim.Started());
        SimPort port(sim.DevicePath());
        SimReply reply = port.Exchange(FromHex(example.hex));
        ASSERT_TRUE(reply.IsAck());
        EXPECT_EQ(reply.responder, 2);
        EXPECT_EQ(reply.payload.size(), example.payload);
        if (example.payload == 24) {
            EXPECT_EQ(ToHex(reply.payload), "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 14 15 16 17 18");
        }
    }
}

TEST(SimFrames, SyncFailLeavesTheFirstSyncBytesUnansweredThenEverySyncIsOk)
{
    SimProcess sim({"--sync-fail", "3"});
    SimPort port(sim.DevicePath());
    for (int i = 0; i < 3; ++i) {
        port.Send({0x55});
        EXPECT_TRUE(port.Silent(200)) << "sync " << i + 1;
    }
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(port.Sync());
}

TEST(SimFrames, MalformedFramesAndDataPhasesGetTheMatchingErrorTypeAndStoreNothing)
{
    Bytes badChecksum = GetFlashIdFrame();
    badChecksum[7] ^= 0x01;
    // Flags 0x06 with the checksum adjusted to match: flags are summed as the low
    // byte of the word at offset 4, so the sum grows by 2 and the checksum shrinks by 2.
    Bytes badFlags = GetFlashIdFrame();
    badFlags[4] = 0x06;
    badFlags[7] = static_cast<uint8_t>(badFlags[7] - 2);   // 0x51: no borrow
    // Checksum over the frame as it travels, not in host order: SetPC, parameter byte-swapped.
    Bytes wireSummed = CommandFrame(0x13, {{0x01010100, 4}});
    std::reverse(wireSummed.begin() + 13, wireSummed.end());
    const struct {
        const char* name;
        Bytes frame;
        int type;
    } cases[] = {
        {"checksum", badChecksum, 3},
        {"checksum over wire order", wireSummed, 3},
        {"body too long for opcode", CommandFrame(0x18, {{0, 1}}), 4},
        {"body too short for opcode", CommandFrame(0x04, {{0x10000, 2}}), 4},
        {"unknown opcode", CommandFrame(0x30, {}), 1},
        {"flags not 0x04", badFlags, 4},
        {"length 0", FromHex("42 52 4F 4D 04 00 00 00 00 00 00 00"), 4},
        {"length beyond any command", FromHex("42 52 4F 4D 04 00 00 00 00 00 10 00"), 4},
        {"erase mode other than 3", CommandFrame(0x19, {{2, 1}, {0x10000, 4}}), 4},
        {"erase outside flash", EraseFrame(0x00400000), 4},
        {"read more than a reply holds", ReadSectorFrame(0, 16), 4},
        {"read past the flash end", ReadSectorFrame(8191, 2), 4},
        {"memory read outside SRAM", CommandFrame(0x08, {{0x20000000, 4}, {16, 4}}), 4},
        {"memory read beyond the reply buffer", CommandFrame(0x08, {{0x00010000, 4}, {8191, 4}}), 4},
        {"memory write past the SRAM end", WriteMemoryFrame(0x0007FF00, 0x200, 0), 4},
        {"write sectors beyond the buffer", WriteSectorFrame(0, 17, 0), 5},
        {"speed 0", CommandFrame(0x10, {{0x03000000, 4}}), 4},
    };
    SimProcess sim({"--rom-flash", "yes"});
    SimPort port(sim.DevicePath());
    for (const auto& c : cases) {
        SimReply reply = port.Exchange(c.frame);
        ASSERT_TRUE(reply.complete) << c.name;
        EXPECT_EQ(reply.flags & 0x01, 0x01) << c.name;
        EXPECT_EQ(reply.errorType, c.type) << c.name;
        EXPECT_TRUE(reply.checksumOk) << c.name;
        EXPECT_TRUE(port.Silent(50)) << c.name << ": more bytes than one error reply";
    }
    // A data phase with the wrong checksum is refused and not stored.
    Bytes data = {9, 9, 9, 9};
    EXPECT_EQ(WriteWithData(port, WriteMemoryFrame(0x00030000, 4, DataChecksum(data) ^ 1), data).errorType, 3);
    EXPECT_EQ(ToHex(port.Exchange(CommandFrame(0x08, {{0x00030000, 4}, {4, 4}})).payload), "00 00 00 00");
    Bytes sector(512, 0);
    EXPECT_EQ(WriteWithData(port, WriteSectorFrame(10, 1, DataChecksum(sector) ^ 0x8000), sector).errorType, 3);
    EXPECT_EQ(ReadSectors(port, 10, 1), Bytes(512, 0xFF));
    // After all that the target still answers normally.
    EXPECT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
}

TEST(SimFrames, GarbageIsSkippedAndHalfAFrameOrDataPhaseIsForgottenAfterAQuietTime)
{
    SimProcess sim({});
    SimPort port(sim.DevicePath());
    const Bytes frame = GetFlashIdFrame();
    Bytes stream = FromHex("00 FF 42 52 4F 00 13 42 42 52");   // includes broken magics
    stream.insert(stream.end(), frame.begin(), frame.end());
    SimReply reply = port.Exchange(stream);
    EXPECT_TRUE(reply.IsAck());
    EXPECT_EQ(ToHex(reply.payload), "C8 40 16");
    EXPECT_TRUE(port.Silent(100));

    port.Send(Bytes(frame.begin(), frame.begin() + 7));
    EXPECT_TRUE(port.Silent(700));
    EXPECT_TRUE(port.Exchange(frame).IsAck());
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
    EXPECT_EQ(ToHex(port.Exchange(CommandFrame(0x04, {{0x20000000, 4}})).payload), "78 56 34 12");
    EXPECT_EQ(ToHex(port.Exchange(CommandFrame(0x02, {{0x20000002, 4}})).payload), "34 12");
    EXPECT_EQ(ToHex(port.Exchange(CommandFrame(0x06, {{0x40000000, 4}})).payload), "00 00 00 00 00 00 00 00");

    // Bulk write into SRAM, read back with ReadMemoryLen and a single-byte read.
    Bytes data = {1, 2, 3, 4, 5};
    ASSERT_TRUE(WriteWithData(port, WriteMemoryFrame(0x00020000, 5, DataChecksum(data)), data).IsAck());
    EXPECT_EQ(port.Exchange(CommandFrame(0x08, {{0x00020000, 4}, {5, 4}})).payload, data);
    EXPECT_EQ(ToHex(port.Exchange(CommandFrame(0x00, {{0x00020004, 4}})).payload), "05");
    // A byte count of 0 is acknowledged with an empty payload.
    SimReply none = port.Exchange(CommandFrame(0x08, {{0x00020000, 4}, {0, 4}}));
    EXPECT_TRUE(none.IsAck());
    EXPECT_EQ(none.length, 0u);
    EXPECT_TRUE(port.Exchange(CommandFrame(0x11, {{1, 1}})).IsAck());   // SetJtag
}

Bytes Pattern(size_t size, uint8_t seed)
{
    Bytes data(size);
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<uint8_t>(seed + i * 13);
    return data;
}

TEST(SimFlash, SectorsProgramByAndEraseSetsFFAndRangesEndAtTheConfiguredSize)
{
    TempDir dir;
    std::string flashPath = dir.File("flash.bin");
    SimProcess sim({"--rom-flash", "yes", "--flash", flashPath, "--flash-size", "0x20000"});
    SimPort port(sim.DevicePath());

    Bytes first = Pattern(1024, 0x5A), second = Pattern(1024, 0xC3), both(1024);
    for (size_t i = 0; i < both.size(); ++i)
        both[i] = first[i] & second[i];
    ASSERT_TRUE(WriteSectors(port, 0x81, first));
    EXPECT_EQ(ReadSectors(port, 0x81, 2), first);
    ASSERT_TRUE(WriteSectors(port, 0x81, second));
    EXPECT_EQ(ReadSectors(port, 0x81, 2), both);

    // The file holds every change as soon as it was acknowledged.
    Bytes file = ReadFileBytes(flashPath);
    ASSERT_EQ(file.size(), 0x20000u);
    EXPECT_EQ(Bytes(file.begin() + 0x10200, file.begin() + 0x10600), both);
    EXPECT_EQ(file[0x101FF], 0xFF);
    EXPECT_EQ(file[0x10600], 0xFF);

    // Erasing any address inside the block clears the whole block, and only it.
    ASSERT_TRUE(WriteSectors(port, 0x7F, Pattern(512, 1)));   // last sector of block 0
    ASSERT_TRUE(port.Exchange(EraseFrame(0x1ABCD)).IsAck());
    EXPECT_EQ(ReadSectors(port, 0x80, 4), Bytes(2048, 0xFF));
    EXPECT_EQ(ReadSectors(port, 0x7F, 1), Pattern(512, 1));
    file = ReadFileBytes(flashPath);
    EXPECT_EQ(Bytes(file.begin() + 0x10000, file.end()), Bytes(0x10000, 0xFF));
    EXPECT_TRUE(port.Exchange(EraseFrame(0x1FFFF)).IsAck());
    EXPECT_EQ(port.Exchange(EraseFrame(0x20000)).errorType, 4);
    EXPECT_EQ(ReadSectors(port, 255, 1).size(), 512u);
    for (const Bytes& frame : {ReadSectorFrame(255, 2), ReadSectorFrame(0xFFFFFFFF, 1), WriteSectorFrame(256, 1, 0)})
        EXPECT_EQ(port.Exchange(frame).errorType, 4);
    EXPECT_EQ(sim.Stop(), "erase-count 0x00010000 2\n");
}

TEST(SimFlash, NewFileIsErasedKeepsItsContentsAcrossRunsAndAWrongSizeIsRefused)
{
    TempDir dir;
    std::string flashPath = dir.File("flash.bin");
    {
        SimProcess sim({"--rom-flash", "yes", "--flash", flashPath});
        SimPort port(sim.DevicePath());
        ASSERT_TRUE(WriteSectors(port, 3, Pattern(512, 7)));
    }
    Bytes expected(4u << 20, 0xFF);
    Bytes data = Pattern(512, 7);
    std::copy(data.begin(), data.end(), expected.begin() + 3 * 512);
    EXPECT_EQ(ReadFileBytes(flashPath), expected);
    {
        SimProcess sim({"--rom-flash", "yes", "--flash", flashPath});
        SimPort port(sim.DevicePath());
        EXPECT_EQ(ReadSectors(port, 3, 1), data);
    }
    ProcessResult wrongSize = RunProcess(SimPath(), {"--flash", flashPath, "--flash-size", "131072"});
    EXPECT_EQ(wrongSize.exitStatus, 2);
    EXPECT_NE(wrongSize.err.find("expected 131072"), std::string::npos) << wrongSize.err;
    EXPECT_EQ(ReadFileBytes(flashPath), expected);
}

TEST(SimFlash, BootRomServesFlashOnlyWhenConfigured)
{
    const struct {
        std::vector<std::string> args;
        bool served;
    } cases[] = {
        {{}, false},
        {{"--responder", "2"}, true},
        {{"--responder", "0"}, true},
        {{"--responder", "2", "--rom-flash", "no"}, false},
        {{"--rom-flash", "yes"}, true},
    };
    for (const auto& c : cases) {
        SimProcess sim(c.args);
        SimPort port(sim.DevicePath());
        for (const Bytes& frame : {EraseFrame(0), ReadSectorFrame(0, 1), WriteSectorFrame(0, 1, 0x00FF)}) {
            SimReply reply = port.Exchange(frame);
            ASSERT_TRUE(reply.complete);
            EXPECT_EQ(reply.IsAck() ? 0 : reply.errorType, c.served ? 0 : 1) << c.args.size();
            if (reply.IsAck() && frame[12] == 0x1B) {
                port.Send(Bytes(512, 0xFF));
                EXPECT_TRUE(port.ReadReply().IsAck());
            }
        }
    }
}


bool Contains(const std::string& text, const std::string& what)
{
    return text.find(what) != std::string::npos;
}

TEST(SimLine, BytesAtTheWrongSpeedAreIgnored)
{
    TempDir dir;
    SimProcess sim({"--trace", dir.File("trace.txt")});
    SimPort port(sim.DevicePath(), 9600);
    port.Send({0x55});
    EXPECT_TRUE(port.Silent(300));
    port.Send(GetFlashIdFrame());
    EXPECT_TRUE(port.Silent(300));
    port.SetSpeed(115200);
    EXPECT_TRUE(port.Sync());
    sim.Stop();
    std::string trace = ReadTextFile(dir.File("trace.txt"));
    EXPECT_TRUE(Contains(trace, "ignored 9600 115200 1\n")) << trace;
    EXPECT_TRUE(Contains(trace, "ignored 9600 115200 13\n")) << trace;
}

// The fault limited to 921600 also shows which speed the target is at.
TEST(SimLine, ChangeBaudMovesTheTargetAfterItsAcknowledgementAndBaudQualifiedFaultsFollow)
{
    SimProcess sim({"--fault", "GetFlashId:every:error2@921600"});
    SimPort port(sim.DevicePath());
    EXPECT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
    ASSERT_TRUE(port.Exchange(ChangeBaudFrame(921600)).IsAck());   // at the old speed
    // The old speed no longer works; the new one does.
    port.Send({0x55});
    EXPECT_TRUE(port.Silent(200));
    port.SetSpeed(921600);
    EXPECT_TRUE(port.Sync());
    EXPECT_EQ(port.Exchange(GetFlashIdFrame()).errorType, 2);
}

// SysReboot then returns to the boot ROM at reset speed.
TEST(SimLine, UploadedBootLoaderStartsAtResetSpeedServesFlashIsTracedAndRebootEndsIt)
{
    TempDir dir;
    SimProcess sim({"--trace", dir.File("trace.txt")});
    SimPort port(sim.DevicePath());
    ASSERT_TRUE(port.Sync());
    ASSERT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
    EXPECT_EQ(port.Exchange(EraseFrame(0)).errorType, 1);   // this ROM has no flash driver
    ASSERT_TRUE(port.Exchange(ChangeBaudFrame(921600)).IsAck());
    port.SetSpeed(921600);
    ASSERT_TRUE(port.Sync());
    ASSERT_TRUE(StartBootLoader(port));   // ends with a sync at 115200
    EXPECT_TRUE(port.Exchange(EraseFrame(0)).IsAck());
    ASSERT_TRUE(port.Exchange(ChangeBaudFrame(921600)).IsAck());
    port.SetSpeed(921600);
    ASSERT_TRUE(port.Sync());
    ASSERT_TRUE(port.Exchange(CommandFrame(0x12, {})).IsAck());
    port.SetSpeed(115200);
    EXPECT_TRUE(port.Sync());
    EXPECT_EQ(port.Exchange(EraseFrame(0)).errorType, 1);
    sim.Stop();
    std::string trace = ReadTextFile(dir.File("trace.txt"));
    EXPECT_TRUE(Contains(trace, "rx 115200 55\ntx 115200 4F 4B\n")) << trace;
    EXPECT_TRUE(Contains(trace, "rx 115200 42 52 4F 4D 04 00 60 51 00 00 00 01 18\n"
                                "tx 115200 42 52 4F 4D 06 01 1E 87 00 00 00 03 C8 40 16\n"));
    EXPECT_TRUE(Contains(trace, "event baud 921600\n"));
    EXPECT_TRUE(Contains(trace, "event bootloader started\nevent baud 115200\n"));
    EXPECT_TRUE(Contains(trace, "rxdata 921600 00 E0 07 00 01 01 01 00"));
}

TEST(SimLine, SetPcStartsOnlyAPlausibleUpload)
{
    const struct {
        const char* name;
        uint32_t stack, reset, pc;
    } cases[] = {
        {"stack outside SRAM", 0x20001000, 0x00010101, 0x00010101},
        {"reset vector without Thumb bit", 0x0007E000, 0x00010100, 0x00010100},
        {"reset vector outside the image", 0x0007E000, 0x00030001, 0x00030001},
        {"pc is not the reset vector", 0x0007E000, 0x00010101, 0x00010201},
    };
    for (const auto& c : cases) {
        SimProcess sim({});
        SimPort port(sim.DevicePath());
        Bytes image = BootLoaderImage(1024);
        for (int i = 0; i < 4; ++i) {
            image[i] = static_cast<uint8_t>(c.stack >> (8 * i));
            image[4 + i] = static_cast<uint8_t>(c.reset >> (8 * i));
        }
        EXPECT_TRUE(UploadAndRun(port, image, c.pc)) << c.name;
        // Still the ROM without flash: the boot-loader did not start.
        EXPECT_EQ(port.Exchange(EraseFrame(0)).errorType, 1) << c.name;
    }
}

TEST(SimLine, FirmwareIgnoresEverythingUntilTheUpgradeText)
{
    SimProcess sim({"--firmware"});
    SimPort port(sim.DevicePath());
    port.Send({0x55});
    port.Send(GetFlashIdFrame());
    EXPECT_TRUE(port.Silent(300));
    // Without its terminating zero byte the text is not enough.
    port.Send(Bytes{'u', 'p', 'g', 'r', 'a', 'd', 'e', '\n'});
    port.Send({0x55});
    EXPECT_TRUE(port.Silent(300));
    port.Send(Bytes{'u', 'u', 'p', 'g', 'r', 'a', 'd', 'e', '\n', 0x00});
    EXPECT_TRUE(port.Silent(100));
    EXPECT_TRUE(port.Sync());
    EXPECT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
}

TEST(SimLine, ReopenedDeviceKeepsTheLineAndSessionsEndTheSimulator)
{
    TempDir dir;
    std::string link = dir.File("ttySIM");
    SimProcess sim({"--sessions", "2", "--link", link});
    ASSERT_TRUE(sim.Started());
    for (int session = 0; session < 2; ++session) {
        {
            SimPort port(link);
            ASSERT_TRUE(port.Sync()) << "session " << session;
        }
        if (session == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            EXPECT_EQ(access(link.c_str(), F_OK), 0) << "ended after one session";
        }
    }
    EXPECT_TRUE(WaitUntilGone(link));
}

long MillisecondsFor(SimPort& port, const Bytes& frame, size_t payload)
{
    auto start = std::chrono::steady_clock::now();
    SimReply reply = port.Exchange(frame);
    EXPECT_TRUE(reply.IsAck());
    EXPECT_EQ(reply.payload.size(), payload);
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start).count());
}

TEST(SimLine, PacedRepliesTakeAtLeastTheirLineAndFlashTime)
{
    SimProcess sim({"--pace", "--rom-flash", "yes", "--erase-ms", "150"});
    SimPort port(sim.DevicePath());
    EXPECT_GE(MillisecondsFor(port, EraseFrame(0), 0), 150);
    // 4 sectors: 2,060 reply bytes at 115200 bit/s take about 179 ms on the line.
    EXPECT_GE(MillisecondsFor(port, ReadSectorFrame(0, 4), 2048), 178);

    // A data phase longer than the quiet time on a slow line is still one data phase:
    // 1,000 bytes at 9600 bit/s are on the line for over a second.
    ASSERT_TRUE(port.Exchange(ChangeBaudFrame(9600)).IsAck());
    port.SetSpeed(9600);
    Bytes data(1000, 0x3C);
    EXPECT_TRUE(WriteWithData(port, WriteMemoryFrame(0x00040000, 1000, DataChecksum(data)), data, 3000).IsAck());
}

TEST(SimFaults, EachReplyFaultShowsOnTheWire)
{
    const struct {
        const char* kind;
        size_t headerBytes;
        const char* magic;    // the header's first four bytes
        uint8_t flags;
        uint32_t length;
        int errorType;
        bool complete, checksumOk;
        const char* payload;  // its first bytes, at most four
    } cases[] = {
        {"error2", 12, "42 52 4F 4D", 0x01, 1, 2, true, true, "02"},
        {"error5", 12, "42 52 4F 4D", 0x01, 1, 5, true, true, "05"},
        {"error7F", 12, "42 52 4F 4D", 0x01, 1, 0x7F, true, true, "7F"},
        {"noreply", 0, "", 0, 0, -1, false, false, ""},
        {"badsum", 12, "42 52 4F 4D", 0x06, 3, -1, true, false, "C8 40 16"},
        {"badmagic", 12, "4D 4F 52 42", 0x06, 3, -1, true, false, "C8 40 16"},
        {"short", 12, "42 52 4F 4D", 0x06, 19, -1, false, false, ""},   // 3 payload bytes of 19
        {"toolong", 12, "42 52 4F 4D", 0x06, 8191, -1, true, true, "C8 40 16 00"},
        {"bitflip", 12, "42 52 4F 4D", 0x06, 3, -1, true, true, "C0 40 16"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind);
        SimProcess sim({"--fault", std::string("GetFlashId:1:") + c.kind});
        SimPort port(sim.DevicePath());
        SimReply r = port.Exchange(GetFlashIdFrame(), 500);
        ASSERT_EQ(r.header.size(), c.headerBytes);
        if (c.headerBytes) {
            EXPECT_EQ(ToHex(Bytes(r.header.begin(), r.header.begin() + 4)), c.magic);
            EXPECT_EQ(r.flags & (c.errorType >= 0 ? 0x01 : 0xFF), c.flags);
            EXPECT_EQ(r.length, c.length);
        }
        EXPECT_EQ(r.errorType, c.errorType);
        EXPECT_EQ(r.complete, c.complete);
        EXPECT_EQ(r.checksumOk, c.checksumOk);
        if (c.complete) {
            EXPECT_EQ(ToHex(Bytes(r.payload.begin(), r.payload.begin() + std::min<size_t>(4, r.payload.size()))), c.payload);
        }
        EXPECT_TRUE(port.Silent(50));
        // Only the first GetFlashId was meant.
        EXPECT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
    }
}

TEST(SimFaults, WhenAndWhatSelectWhichCommandsAreHit)
{
    const struct {
        const char* spec;
        std::vector<bool> hit;   // for the 1st .. 5th Read_4_byte
    } cases[] = {
        {"Read_4_byte:2:error4", {false, true, false, false, false}},
        {"0x04:3+:error4", {false, false, true, true, true}},
        {"any:every:error4", {true, true, true, true, true}},
    };
    for (const auto& c : cases) {
        SimProcess sim({"--fault", c.spec});
        SimPort port(sim.DevicePath());
        for (size_t i = 0; i < c.hit.size(); ++i) {
            SimReply reply = port.Exchange(CommandFrame(0x04, {{0x20000000, 4}}));
            EXPECT_EQ(reply.errorType == 4, c.hit[i]) << c.spec << " command " << i + 1;
            // Other commands are neither hit nor counted (except by "any").
            if (c.spec[0] != 'a') {
                EXPECT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
            }
        }
    }
}

TEST(SimFaults, RefusingFaultsLeaveTheCommandUndone)
{
    SimProcess sim({"--rom-flash", "yes", "--fault", "EraseFlash:2:noreply", "--fault", "ChangeBaud:1:error2"});
    SimPort port(sim.DevicePath());
    ASSERT_TRUE(WriteSectors(port, 0, Bytes(512, 0)));
    ASSERT_TRUE(port.Exchange(EraseFrame(0)).IsAck());
    ASSERT_TRUE(WriteSectors(port, 0, Bytes(512, 0)));
    EXPECT_FALSE(port.Exchange(EraseFrame(0), 300).complete);
    EXPECT_EQ(ReadSectors(port, 0, 1), Bytes(512, 0));
    // The refused speed change left the target at 115200.
    EXPECT_EQ(port.Exchange(ChangeBaudFrame(921600)).errorType, 2);
    EXPECT_TRUE(port.Sync());
}

TEST(SimFaults, TwoPhaseCommandsTakeTheFaultOnTheDataReply)
{
    Bytes data(1024, 0x00);
    data[700] = 0xA5;
    Bytes flipped = data;
    flipped[700] = 0xA4;   // bitflip: one wrong bit programmed behind a normal ack
    const struct {
        const char* kind;
        bool acked;
        Bytes stored;
    } cases[] = {{"error2", false, Bytes(1024, 0xFF)}, {"noreply", false, Bytes(1024, 0xFF)},
                 {"badsum", false, data}, {"bitflip", true, flipped}};
    for (const auto& c : cases) {
        SimProcess sim({"--rom-flash", "yes", "--fault", std::string("WriteSector:1:") + c.kind});
        SimPort port(sim.DevicePath());
        SimReply reply = WriteWithData(port, WriteSectorFrame(4, 2, DataChecksum(data)), data, 400);
        EXPECT_TRUE(reply.complete || !c.acked) << c.kind;
        EXPECT_EQ(reply.IsAck(), c.acked) << c.kind;
        EXPECT_EQ(ReadSectors(port, 4, 2), c.stored) << c.kind;
    }
}

TEST(SimFaults, VanishClosesTheDeviceAndEndsTheSimulator)
{
    TempDir dir;
    std::string link = dir.File("ttySIM");
    SimProcess sim({"--link", link, "--fault", "any:2:vanish"});
    SimPort port(sim.DevicePath());
    ASSERT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
    EXPECT_TRUE(port.Exchange(GetFlashIdFrame(), 500).header.empty());
    EXPECT_TRUE(WaitUntilGone(link));
}

}  // namespace
