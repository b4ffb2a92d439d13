// The NOR flash model behind EraseFlash, ReadSector and WriteSector, and its file.
#include <gtest/gtest.h>

#include "tests/sim/sim_wire_client.h"
#include "tests/support/process.h"

namespace {

Bytes Pattern(size_t size, uint8_t seed)
{
    Bytes data(size);
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<uint8_t>(seed + i * 13);
    return data;
}

Bytes AndOf(const Bytes& a, const Bytes& b)
{
    Bytes out(a.size());
    for (size_t i = 0; i < a.size(); ++i)
        out[i] = a[i] & b[i];
    return out;
}

TEST(SimFlash, SectorsProgramByAndAndEraseSetsFF)
{
    TempDir dir;
    std::string flashPath = dir.File("flash.bin");
    SimProcess sim({"--rom-flash", "yes", "--flash", flashPath, "--flash-size", "0x20000"});
    SimPort port(sim.DevicePath());

    Bytes first = Pattern(1024, 0x5A);
    Bytes second = Pattern(1024, 0xC3);
    ASSERT_TRUE(WriteSectors(port, 0x81, first));
    EXPECT_EQ(ReadSectors(port, 0x81, 2), first);
    ASSERT_TRUE(WriteSectors(port, 0x81, second));
    EXPECT_EQ(ReadSectors(port, 0x81, 2), AndOf(first, second));

    // The file holds every change as soon as it was acknowledged.
    Bytes file = ReadFileBytes(flashPath);
    ASSERT_EQ(file.size(), 0x20000u);
    EXPECT_EQ(Bytes(file.begin() + 0x10200, file.begin() + 0x10600), AndOf(first, second));
    EXPECT_EQ(file[0x101FF], 0xFF);
    EXPECT_EQ(file[0x10600], 0xFF);

    // Erasing any address inside the block clears the whole block, and only it.
    ASSERT_TRUE(WriteSectors(port, 0x7F, Pattern(512, 1)));   // last sector of block 0
    ASSERT_TRUE(port.Exchange(EraseFrame(0x1ABCD)).IsAck());
    EXPECT_EQ(ReadSectors(port, 0x80, 4), Bytes(2048, 0xFF));
    EXPECT_EQ(ReadSectors(port, 0x7F, 1), Pattern(512, 1));
    file = ReadFileBytes(flashPath);
    EXPECT_EQ(Bytes(file.begin() + 0x10000, file.end()), Bytes(0x10000, 0xFF));

    std::string exitOutput = sim.Stop();
    EXPECT_EQ(exitOutput, "erase-count 0x00010000 1\n");
}

TEST(SimFlash, FileKeepsItsContentsAcrossRuns)
{
    TempDir dir;
    std::string flashPath = dir.File("flash.bin");
    Bytes data = Pattern(512, 7);
    {
        SimProcess sim({"--rom-flash", "yes", "--flash", flashPath, "--flash-size", "65536"});
        SimPort port(sim.DevicePath());
        ASSERT_TRUE(WriteSectors(port, 3, data));
    }
    SimProcess sim({"--rom-flash", "yes", "--flash", flashPath, "--flash-size", "65536"});
    SimPort port(sim.DevicePath());
    EXPECT_EQ(ReadSectors(port, 3, 1), data);
    EXPECT_EQ(ReadSectors(port, 4, 1), Bytes(512, 0xFF));
}

TEST(SimFlash, NewFileIsErasedAndAWrongSizedFileIsRefused)
{
    TempDir dir;
    std::string flashPath = dir.File("flash.bin");
    {
        SimProcess sim({"--flash", flashPath});
        ASSERT_TRUE(sim.Started());
    }
    EXPECT_EQ(ReadFileBytes(flashPath), Bytes(4u << 20, 0xFF));

    ProcessResult wrongSize = RunProcess(SimPath(), {"--flash", flashPath, "--flash-size", "131072"});
    EXPECT_EQ(wrongSize.exitStatus, 2);
    EXPECT_NE(wrongSize.err.find("expected 131072"), std::string::npos) << wrongSize.err;
    EXPECT_EQ(ReadFileBytes(flashPath).size(), 4u << 20);
}

TEST(SimFlash, BootRomServesFlashOnlyWhenConfigured)
{
    struct Case {
        std::vector<std::string> args;
        bool served;
    } cases[] = {
        {{}, false},
        {{"--responder", "2"}, true},
        {{"--responder", "2", "--rom-flash", "no"}, false},
        {{"--rom-flash", "yes"}, true},
    };
    for (const Case& c : cases) {
        SimProcess sim(c.args);
        SimPort port(sim.DevicePath());
        for (const Bytes& frame : {EraseFrame(0), ReadSectorFrame(0, 1), WriteSectorFrame(0, 1, 0x00FF)}) {
            SimReply reply = port.Exchange(frame);
            ASSERT_TRUE(reply.complete);
            if (c.served) {
                EXPECT_TRUE(reply.IsAck());
            } else {
                EXPECT_EQ(reply.errorType, 1);
            }
            if (reply.IsAck() && frame[12] == 0x1B) {
                port.Send(Bytes(512, 0xFF));
                EXPECT_TRUE(port.ReadReply().IsAck());
            }
        }
    }
}

TEST(SimFlash, WriteSectorWithBadDataChecksumProgramsNothing)
{
    SimProcess sim({"--rom-flash", "yes"});
    SimPort port(sim.DevicePath());
    Bytes data = Pattern(512, 0);
    ASSERT_TRUE(port.Exchange(WriteSectorFrame(10, 1, DataChecksum(data) ^ 0x8000)).IsAck());
    port.Send(data);
    EXPECT_EQ(port.ReadReply().errorType, 3);
    EXPECT_EQ(ReadSectors(port, 10, 1), Bytes(512, 0xFF));
}

TEST(SimFlash, FlashRangesEndAtTheConfiguredSize)
{
    SimProcess sim({"--rom-flash", "yes", "--flash-size", "131072"});
    SimPort port(sim.DevicePath());
    EXPECT_TRUE(port.Exchange(EraseFrame(0x1FFFF)).IsAck());
    EXPECT_EQ(port.Exchange(EraseFrame(0x20000)).errorType, 4);
    EXPECT_EQ(ReadSectors(port, 255, 1).size(), 512u);
    EXPECT_EQ(port.Exchange(ReadSectorFrame(255, 2)).errorType, 4);
    EXPECT_EQ(port.Exchange(ReadSectorFrame(0xFFFFFFFF, 1)).errorType, 4);
    EXPECT_EQ(port.Exchange(WriteSectorFrame(256, 1, 0)).errorType, 4);
}

}  // namespace
