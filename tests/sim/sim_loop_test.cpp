// The simulator as a process on its pty: bytes at the wrong line speed are lost,
// the device survives reopening until the last session, a vanishing target takes
// its device with it, and a line driven above its clean rate garbles (the noise
// model alone, then through the process with the degrade fault).
#include <gtest/gtest.h>

#include <bitset>
#include <chrono>
#include <thread>
#include <unistd.h>

#include "serial/CCommU.h"
#include "sim/line_noise.h"
#include "tests/support/process.h"

namespace {

size_t BitsDiffering(const Bytes& a, const Bytes& b)
{
    size_t bits = 0;
    for (size_t i = 0; i < a.size() && i < b.size(); ++i)
        bits += std::bitset<8>(a[i] ^ b[i]).count();
    return bits;
}

TEST(SimLineNoise, BitsFlipOnlyAboveTheCleanRateTheSameForTheSameSeed)
{
    using Direction = ksim::LineNoise::Direction;
    const Bytes sent = PatternBytes(100000, 5);
    ksim::LineNoise noise(115200, 1e-2, 7);
    Bytes at = sent;
    EXPECT_EQ(0u, noise.Garble(Direction::FromHost, 115200, at.data(), at.size()));
    EXPECT_EQ(sent, at);
    Bytes above = sent;
    const size_t flipped = noise.Garble(Direction::FromHost, 230400, above.data(), above.size());
    EXPECT_EQ(flipped, BitsDiffering(sent, above));
    EXPECT_GT(flipped, 7000u);  // 8,000 expected of 800,000 bits
    EXPECT_LT(flipped, 9000u);

    // Each direction has its own errors: how the two interleave, and how the bytes
    // are cut into pieces, changes nothing.
    ksim::LineNoise a(0, 1e-3, 3), b(0, 1e-3, 3), otherSeed(0, 1e-3, 4);
    Bytes rxA = sent, txA = sent, rxB = sent, txB = sent, rxC = sent;
    a.Garble(Direction::FromHost, 9600, rxA.data(), rxA.size());
    a.Garble(Direction::ToHost, 9600, txA.data(), txA.size());
    b.Garble(Direction::ToHost, 9600, txB.data(), txB.size());
    b.Garble(Direction::FromHost, 9600, rxB.data(), 777);
    b.Garble(Direction::FromHost, 9600, rxB.data() + 777, rxB.size() - 777);
    otherSeed.Garble(Direction::FromHost, 9600, rxC.data(), rxC.size());
    EXPECT_EQ(rxA, rxB);
    EXPECT_EQ(txA, txB);
    EXPECT_NE(rxA, txA);
    EXPECT_NE(rxA, rxC);
}

// Four erased sectors read at 115200: clean while the line is clean up to 115200 and
// for the command the degrade fault names, garbled once the limit is 9600.
TEST(SimLineNoise, TheLineGarblesAboveItsCleanRateOnceTheDegradeFaultLowersIt)
{
    TempDir dir;
    std::string link = dir.File("ttySIM");
    SimProcess sim({"--link", link, "--rom-flash", "yes", "--clean-rate-max", "115200", "--bit-error-rate", "1e-2",
                    "--fault", "ReadSector:2:degrade=9600", "--trace", dir.File("trace.txt")});
    ASSERT_TRUE(sim.Started());
    unsigned char readSector[] = {0x42, 0x52, 0x4F, 0x4D, 0x04, 0x00, 0xDC, 0x47, 0x00, 0x00, 0x00,
                                  0x09, 0x1A, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x00, 0x04};
    CCommU port;
    ASSERT_EQ(0, port.Uart_Init(&link[0], 115200));
    Bytes replies[3];
    for (Bytes& reply : replies) {
        reply.assign(12 + 2048, 0);
        EXPECT_EQ(21, port.WriteMsg(readSector, sizeof readSector));
        if (port.ReadMsg(reply.data(), static_cast<unsigned int>(reply.size())) != 0)
            reply.clear();
    }
    port.UART_Close();
    EXPECT_EQ(Bytes(2048, 0xFF), Bytes(replies[0].begin() + 12, replies[0].end()));
    EXPECT_EQ(replies[0], replies[1]);
    EXPECT_NE(replies[0], replies[2]);
    const std::string trace = ReadText(dir.File("trace.txt"));
    EXPECT_TRUE(Has(trace, "event clean rate max 9600\n"));
    EXPECT_TRUE(Has(trace, "event noise rx "));
}

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
