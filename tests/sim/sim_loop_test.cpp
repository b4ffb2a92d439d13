// The simulator as a process on its pty: bytes at the wrong line speed are lost,
// the device survives reopening until the last session, and a vanishing target
// takes its device with it.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <unistd.h>

#include "serial/CCommU.h"
#include "tests/support/process.h"

namespace {

bool WaitUntilGone(const std::string& path)
{
    for (int i = 0; i < 250 && access(path.c_str(), F_OK) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return access(path.c_str(), F_OK) != 0;
}

TEST(SimLoop, WrongSpeedBytesAreLostAndTheLastSessionEndsTheSimulator)
{
    TempDir dir;
    std::string link = dir.File("ttySIM");
    SimProcess sim({"--sessions", "2", "--link", link, "--trace", dir.File("trace.txt")});
    ASSERT_TRUE(sim.Started());
    unsigned char sync = 0x55;
    unsigned char answer[2] = {};
    {
        CCommU port;
        ASSERT_EQ(0, port.Uart_Init(&link[0], 9600));
        EXPECT_EQ(1, port.WriteMsg(&sync, 1));
        EXPECT_NE(0u, port.ReadMsg(answer, 2)) << "answered at the wrong speed";
        port.UART_Close();
    }
    EXPECT_EQ(0, access(link.c_str(), F_OK)) << "ended after one session";
    {
        CCommU port;
        ASSERT_EQ(0, port.Uart_Init(&link[0], 115200));
        EXPECT_EQ(1, port.WriteMsg(&sync, 1));
        EXPECT_EQ(0u, port.ReadMsg(answer, 2));
        EXPECT_EQ('O', answer[0]);
        port.UART_Close();
    }
    EXPECT_TRUE(WaitUntilGone(link));
    EXPECT_TRUE(Has(ReadText(dir.File("trace.txt")), "ignored 9600 115200 1\n"));
}

TEST(SimLoop, VanishClosesTheDeviceAndEndsTheSimulator)
{
    TempDir dir;
    std::string link = dir.File("ttySIM");
    SimProcess sim({"--link", link, "--fault", "any:1:vanish"});
    ASSERT_TRUE(sim.Started());
    CCommU port;
    ASSERT_EQ(0, port.Uart_Init(&link[0], 115200));
    unsigned char getFlashId[] = {0x42, 0x52, 0x4F, 0x4D, 0x04, 0x00, 0x60, 0x51, 0x00, 0x00, 0x00, 0x01, 0x18};
    EXPECT_EQ(13, port.WriteMsg(getFlashId, sizeof getFlashId));
    EXPECT_TRUE(WaitUntilGone(link));
    unsigned char reply[12];
    EXPECT_NE(0u, port.ReadMsg(reply, sizeof reply));
    EXPECT_TRUE(port.LinkLost());
}

}  // namespace
