// The line and the chip's states: speeds, the boot-loader start, reboot, running
// firmware, host sessions and pacing.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <unistd.h>

#include "tests/sim/sim_wire_client.h"
#include "tests/support/process.h"

namespace {

TEST(SimLine, BytesAtTheWrongSpeedAreIgnored)
{
    TempDir dir;
    std::string tracePath = dir.File("trace.txt");
    SimProcess sim({"--trace", tracePath});
    SimPort port(sim.DevicePath(), 9600);
    port.Send({0x55});
    EXPECT_TRUE(port.Silent(300));
    port.Send(GetFlashIdFrame());
    EXPECT_TRUE(port.Silent(300));
    port.SetSpeed(115200);
    EXPECT_TRUE(port.Sync());
    sim.Stop();
    std::string trace = ReadTextFile(tracePath);
    EXPECT_NE(trace.find("ignored 9600 115200 1\n"), std::string::npos) << trace;
    EXPECT_NE(trace.find("ignored 9600 115200 13\n"), std::string::npos) << trace;
}

TEST(SimLine, ChangeBaudMovesTheTargetAfterItsAcknowledgement)
{
    SimProcess sim({});
    SimPort port(sim.DevicePath());
    SimReply ack = port.Exchange(ChangeBaudFrame(921600));
    ASSERT_TRUE(ack.IsAck());   // sent at the old speed, which the port still has
    // The old speed no longer works; the new one does.
    port.Send({0x55});
    EXPECT_TRUE(port.Silent(200));
    port.SetSpeed(921600);
    EXPECT_TRUE(port.Sync());
    EXPECT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
    ASSERT_TRUE(port.Exchange(ChangeBaudFrame(230400)).IsAck());
    port.SetSpeed(230400);
    EXPECT_TRUE(port.Sync());
}

TEST(SimLine, UploadedBootLoaderStartsAtResetSpeedAndServesFlash)
{
    TempDir dir;
    std::string tracePath = dir.File("trace.txt");
    SimProcess sim({"--trace", tracePath});
    SimPort port(sim.DevicePath());
    EXPECT_EQ(port.Exchange(EraseFrame(0)).errorType, 1);   // this ROM has no flash driver
    ASSERT_TRUE(port.Exchange(ChangeBaudFrame(921600)).IsAck());
    port.SetSpeed(921600);
    ASSERT_TRUE(port.Sync());
    ASSERT_TRUE(StartBootLoader(port));   // ends with a sync at 115200
    EXPECT_TRUE(port.Exchange(EraseFrame(0)).IsAck());
    EXPECT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
    sim.Stop();
    std::string trace = ReadTextFile(tracePath);
    EXPECT_NE(trace.find("event bootloader started\nevent baud 115200\n"), std::string::npos) << trace;
    EXPECT_NE(trace.find("rxdata 921600 00 E0 07 00 01 01 01 00"), std::string::npos);
}

TEST(SimLine, SetPcStartsOnlyAPlausibleUpload)
{
    struct Case {
        const char* name;
        uint32_t stack;
        uint32_t reset;
        uint32_t pc;
    } cases[] = {
        {"stack outside SRAM", 0x20001000, 0x00010101, 0x00010101},
        {"reset vector without Thumb bit", 0x0007E000, 0x00010100, 0x00010100},
        {"reset vector outside the image", 0x0007E000, 0x00030001, 0x00030001},
        {"pc is not the reset vector", 0x0007E000, 0x00010101, 0x00010201},
    };
    for (const Case& c : cases) {
        SimProcess sim({});
        SimPort port(sim.DevicePath());
        Bytes image = BootLoaderImage(1024);
        for (int i = 0; i < 4; ++i) {
            image[i] = static_cast<uint8_t>(c.stack >> (8 * i));
            image[4 + i] = static_cast<uint8_t>(c.reset >> (8 * i));
        }
        ASSERT_TRUE(port.Exchange(WriteMemoryFrame(0x00010000, 1024, DataChecksum(image))).IsAck());
        port.Send(image);
        ASSERT_TRUE(port.ReadReply().IsAck());
        EXPECT_TRUE(port.Exchange(SetPcFrame(c.pc)).IsAck()) << c.name;
        // Still the ROM without flash: the boot-loader did not start.
        EXPECT_EQ(port.Exchange(EraseFrame(0)).errorType, 1) << c.name;
    }
}

TEST(SimLine, SysRebootReturnsToTheBootRomAtResetSpeed)
{
    SimProcess sim({});
    SimPort port(sim.DevicePath());
    ASSERT_TRUE(StartBootLoader(port));
    ASSERT_TRUE(port.Exchange(ChangeBaudFrame(921600)).IsAck());
    port.SetSpeed(921600);
    ASSERT_TRUE(port.Sync());
    ASSERT_TRUE(port.Exchange(CommandFrame(0x12, {})).IsAck());
    port.SetSpeed(115200);
    EXPECT_TRUE(port.Sync());
    EXPECT_EQ(port.Exchange(EraseFrame(0)).errorType, 1);
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

TEST(SimLine, HostReopeningTheDeviceKeepsTheLine)
{
    SimProcess sim({});
    for (int session = 0; session < 3; ++session) {
        SimPort port(sim.DevicePath());
        EXPECT_TRUE(port.Sync()) << "session " << session;
    }
}

TEST(SimLine, SessionsEndTheSimulatorAndRemoveTheLink)
{
    TempDir dir;
    std::string link = dir.File("ttySIM");
    SimProcess sim({"--sessions", "2", "--link", link});
    ASSERT_TRUE(sim.Started());
    {
        SimPort port(link);
        ASSERT_TRUE(port.Sync());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(access(link.c_str(), F_OK), 0) << "ended after one session";
    {
        SimPort port(link);
        ASSERT_TRUE(port.Sync());
    }
    bool gone = false;
    for (int i = 0; i < 50 && !gone; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        gone = access(link.c_str(), F_OK) != 0;
    }
    EXPECT_TRUE(gone);
}

TEST(SimLine, PacedRepliesTakeAtLeastTheirLineAndFlashTime)
{
    SimProcess sim({"--pace", "--rom-flash", "yes", "--erase-ms", "150"});
    SimPort port(sim.DevicePath());
    using Clock = std::chrono::steady_clock;
    auto start = Clock::now();
    ASSERT_TRUE(port.Exchange(EraseFrame(0)).IsAck());
    auto eraseMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    EXPECT_GE(eraseMs, 150);
    // 4 sectors: 2,060 reply bytes at 115200 bit/s take about 179 ms on the line.
    start = Clock::now();
    EXPECT_EQ(port.Exchange(ReadSectorFrame(0, 4)).payload.size(), 2048u);
    auto readMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    EXPECT_GE(readMs, 178);

    // A data phase longer than the quiet time on a slow line is still one data phase:
    // 1,000 bytes at 9600 bit/s are on the line for over a second.
    ASSERT_TRUE(port.Exchange(ChangeBaudFrame(9600)).IsAck());
    port.SetSpeed(9600);
    Bytes data(1000, 0x3C);
    ASSERT_TRUE(port.Exchange(WriteMemoryFrame(0x00040000, 1000, DataChecksum(data))).IsAck());
    port.Send(data);
    EXPECT_TRUE(port.ReadReply(3000).IsAck());
}

}  // namespace
