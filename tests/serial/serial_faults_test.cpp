// The serial port over ports that behave like real USB adapters: writes taken in
// pieces or refused while the FIFO is full, reads that fail after an unplug, rates
// the adapter refuses, devices that cannot be opened.
#include <gtest/gtest.h>

#include <cerrno>
#include <unistd.h>
#include <vector>

#include "serial/CCommU.h"
#include "tests/support/memory_port.h"
#include "tests/support/serial_fixtures.h"

namespace {

const unsigned int kTimedOut = 0xFFFFFFFFu;

// The serial part of the fast link (waiting reads, refused rates fail) or the classic one.
LinkProfile SerialProfile(bool fast)
{
    LinkProfile link;
    link.fast = fast;
    link.ratePolicy = fast ? LinkProfile::kRefuseUnsupported : LinkProfile::kSilentFallback;
    return link;
}

int OpenOn(CCommU& port, MemoryPort& memory, unsigned int baud = 921600)
{
    port.UsePort(&memory);
    char path[] = "/dev/memory";
    return port.Uart_Init(path, baud);
}

TEST(SerialWritePath, PartialWritesAndTransientErrorsAreFinishedHardErrorsAreNot)
{
    const struct {
        const char* name;
        size_t maxWrite;
        std::vector<int> errors;
        bool neverWritable;
        int expected;  // -2: the whole length
        bool lineLost;
        uint64_t elapsedUs;  // on the port's clock
        size_t pauses;       // of 1 ms, each after a refusal following the first
    } cases[] = {
        {"taken at once", static_cast<size_t>(-1), {}, false, -2, false, 0, 0},
        {"taken 1000 bytes at a time", 1000, {}, false, -2, false, 0, 0},
        {"FIFO full twice, then room", 4096, {0, EAGAIN, EAGAIN}, false, -2, false, 1000, 1},
        {"interrupted by a signal", static_cast<size_t>(-1), {EINTR}, false, -2, false, 0, 0},
        {"unplugged before the first byte", static_cast<size_t>(-1), {EIO}, false, -1, true, 0, 0},
        {"unplugged after the first piece", 4096, {0, EIO}, false, -1, true, 0, 0},
        // the deadline: twice the 9,216 bytes' 100,000 us at 921600 bit/s, and a second
        {"FIFO never drains", 100, {}, true, 0, false, 1200000, 0},
        // room said, write refused, ever again: 1 ms pauses until that deadline
        {"room said but refused", 100, {0}, false, 0, false, 1200000, 1200},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        MemoryPort memory;
        memory.maxWrite = c.maxWrite;
        memory.writeErrors.assign(c.errors.begin(), c.errors.end());
        if (c.expected == 0) {
            // Room for 100 bytes, then never again until the deadline passes.
            memory.writeErrors.resize(100000, EAGAIN);
            memory.writableNever = c.neverWritable;
        }
        CCommU port;
        ASSERT_EQ(0, OpenOn(port, memory));
        std::vector<unsigned char> data = PatternBytes(9216, 2);
        const int result = port.WriteMsg(data.data(), data.size());
        EXPECT_EQ(c.expected == -2 ? 9216 : c.expected, result);
        if (c.expected == -2) {
            EXPECT_TRUE(memory.written == data);
        }
        EXPECT_EQ(c.lineLost, port.LinkLost());
        EXPECT_EQ(c.elapsedUs, memory.clockUs);
        EXPECT_EQ(std::vector<unsigned int>(c.pauses, 1000), memory.pauses);
    }
}

// A reply that never comes is given up after 101 polls of 5 ms at 921600 bit/s and
// of 20 ms at every other rate; the fast link keeps the same deadline but waits on
// the line instead of pausing. Measured on the port's clock.
TEST(SerialReadPath, AMissingReplyIsGivenUpAfter101PollIntervalsOfItsRate)
{
    const struct { bool fast; unsigned int baud; uint64_t elapsedUs; size_t pauses; unsigned int pauseUs; } cases[] = {
        {false, 921600, 505000, 101, 5000},   {false, 115200, 2020000, 101, 20000},
        {false, 2000000, 2020000, 101, 20000}, {true, 921600, 505000, 0, 0}, {true, 3000000, 2020000, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.baud) + (c.fast ? ", fast link" : ", polled"));
        MemoryPort memory;
        CCommU port;
        port.SetLinkProfile(SerialProfile(c.fast));
        ASSERT_EQ(0, OpenOn(port, memory, c.baud));
        unsigned char buf[12];
        EXPECT_EQ(kTimedOut, port.ReadMsg(buf, 12));
        EXPECT_EQ(c.elapsedUs, memory.clockUs);
        EXPECT_EQ(std::vector<unsigned int>(c.pauses, c.pauseUs), memory.pauses);
        EXPECT_FALSE(port.LinkLost());
    }
}

TEST(SerialReadPath, UnplugEndsTheReadAtOnceAndMarksTheLinkLost)
{
    struct Case { const char* name; bool fast; bool hangUp; };
    for (const Case& c : {Case{"EIO, polled", false, false}, Case{"EIO, fast link", true, false},
                          Case{"hang-up, polled", false, true}, Case{"hang-up, fast link", true, true}}) {
        SCOPED_TRACE(c.name);
        MemoryPort memory;
        if (c.hangUp) {
            memory.hungUp = true;
            memory.readErrors.assign(3, EAGAIN);
        } else {
            memory.readErrors.assign(1, EIO);
        }
        CCommU port;
        port.SetLinkProfile(SerialProfile(c.fast));
        ASSERT_EQ(0, OpenOn(port, memory, 115200));
        unsigned char buf[12];
        EXPECT_EQ(kTimedOut, port.ReadMsg(buf, 12));
        EXPECT_TRUE(port.LinkLost());
        // Not one poll per interval for two seconds: the failure ends the read.
        EXPECT_LE(memory.readCalls, 4u);
    }
}

// Whatever the pieces a reply arrives in, the bytes are stored in order.
TEST(SerialReadPath, AReplyArrivingInPiecesIsAssembledInOrder)
{
    struct Case { bool fast; size_t size, piece; };
    for (const Case& c : {Case{false, 12, 5}, Case{true, 12, 1}, Case{true, 2060, 5}}) {
        SCOPED_TRACE(c.fast ? "fast link" : "polled");
        MemoryPort memory;
        memory.maxRead = c.piece;
        const std::vector<unsigned char> reply = PatternBytes(c.size, 3);
        memory.Feed(reply.data(), reply.size());
        CCommU port;
        port.SetLinkProfile(SerialProfile(c.fast));
        ASSERT_EQ(0, OpenOn(port, memory));
        std::vector<unsigned char> buf(reply.size());
        EXPECT_EQ(0u, port.ReadMsg(buf.data(), static_cast<unsigned int>(buf.size())));
        EXPECT_TRUE(buf == reply);
        EXPECT_FALSE(port.LinkLost());
    }
}

// Draining stale input goes on until one poll interval passes without a byte: the
// quiet interval comes after the last byte, not after the first read.
TEST(SerialReadPath, DrainingEndsOnlyAfterAQuietIntervalFollowingTheLastByte)
{
    struct Case { bool fast; unsigned int baud; size_t stale; std::vector<unsigned int> pauses; uint64_t clockUs; };
    for (const Case& c : {Case{false, 115200, 600, {20000, 20000}, 40000}, Case{false, 115200, 0, {20000}, 20000},
                          Case{true, 921600, 600, {}, 5000}}) {
        SCOPED_TRACE(std::to_string(c.stale) + (c.fast ? " bytes, fast link" : " bytes, polled"));
        MemoryPort memory;
        CCommU port;
        port.SetLinkProfile(SerialProfile(c.fast));
        ASSERT_EQ(0, OpenOn(port, memory, c.baud));
        const std::vector<unsigned char> stale = PatternBytes(c.stale, 5);
        memory.Feed(stale.data(), stale.size());
        port.DrainInput();
        EXPECT_EQ(c.pauses, memory.pauses);
        EXPECT_EQ(c.clockUs, memory.clockUs);
        EXPECT_EQ(0, memory.Wait(false, 0));  // nothing left
    }
}

// The classic line goes on whatever the device says; the fast link refuses to run
// at a speed the adapter did not take. The port only reports it, as it reports a
// failed open (the flash host prints the texts): nothing reaches either stream.
TEST(SerialRates, ARefusedRateFailsOnlyOnTheFastLinkAndThePortPrintsNothing)
{
    for (bool fast : {false, true}) {
        SCOPED_TRACE(fast ? "fast link" : "classic");
        MemoryPort memory;
        memory.refusedRates = {230400};
        CCommU port;
        port.SetLinkProfile(SerialProfile(fast));
        ASSERT_EQ(0, OpenOn(port, memory, 115200));
        testing::internal::CaptureStdout();
        const int result = port.ChangeUartBaud(230400);
        EXPECT_EQ("", testing::internal::GetCapturedStdout());
        EXPECT_EQ(fast ? -1 : 0, result);
        EXPECT_EQ(fast, port.RateRefused());
        EXPECT_EQ(0, port.ChangeUartBaud(115200));
        EXPECT_FALSE(port.RateRefused()) << "each change reports its own outcome";
    }
    MemoryPort memory;  // a failed open keeps its cause, and prints nothing either
    memory.openErrno = EACCES;
    CCommU port;
    testing::internal::CaptureStderr();
    EXPECT_EQ("", CapturedStdout([&] { EXPECT_EQ(-1, OpenOn(port, memory)); }));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(EACCES, port.iOpenErrno);
}

}  // namespace
