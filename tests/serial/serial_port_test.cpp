// The serial port against a pseudo-terminal: line set-up, the rate table, writes,
// exact-length polled reads, the device lock and closing.
#include <cstdlib>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "serial/CCommU.h"
#include "serial/tty_port.h"
#include "tests/support/serial_fixtures.h"

namespace {

const unsigned int kTimedOut = 0xFFFFFFFFu;

// The code under test opens the slave side of a pseudo-terminal by its path; the
// test plays the other end of the line on the master.
class SerialPortTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
        ASSERT_GE(master, 0);
        ASSERT_EQ(0, grantpt(master) | unlockpt(master));
        path = ptsname(master);
        // Holding one slave descriptor open keeps the master readable while the
        // code under test closes and reopens the device.
        keeper = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    }
    void TearDown() override
    {
        close(master);
        close(keeper);
    }

    int Open(CCommU& port, unsigned int baud) { return port.Uart_Init(&path[0], baud); }

    void Feed(const std::vector<unsigned char>& bytes) const
    {
        for (size_t done = 0; done < bytes.size();) {
            ssize_t n = write(master, bytes.data() + done, bytes.size() - done);
            done += n > 0 ? static_cast<size_t>(n) : 0;
        }
    }

    static speed_t OutputSpeed(int fd)
    {
        termios t;
        EXPECT_EQ(0, tcgetattr(fd, &t));
        return cfgetospeed(&t);
    }

    static bool InputEmpty(int fd)
    {
        unsigned char byte;
        return read(fd, &byte, 1) <= 0;
    }

    int master = -1, keeper = -1;
    std::string path;
};

TEST_F(SerialPortTest, OpensARawNonBlockingLineWithOneStopBitAndNoParity)
{
    CCommU port;
    ASSERT_EQ(0, Open(port, 115200));
    ASSERT_GT(port.iFd, 0);
    EXPECT_EQ(path, port.strPortName);
    termios t;
    ASSERT_EQ(0, tcgetattr(port.iFd, &t));
    EXPECT_EQ(0u, t.c_iflag | t.c_oflag | t.c_lflag);
    EXPECT_EQ(static_cast<tcflag_t>(CS8), t.c_cflag & CSIZE);
    EXPECT_EQ(static_cast<tcflag_t>(CREAD | CLOCAL), t.c_cflag & (CREAD | CLOCAL));
    EXPECT_FALSE(t.c_cflag & (PARENB | CSTOPB | HUPCL));
#ifdef CRTSCTS
    EXPECT_FALSE(t.c_cflag & CRTSCTS);
#endif
    EXPECT_EQ(0, t.c_cc[VMIN] | t.c_cc[VTIME]);
    EXPECT_TRUE(fcntl(port.iFd, F_GETFL) & O_NONBLOCK);
    port.UART_Close();
}

// A rate outside the table is reported (the flash host prints the list of rates)
// and falls back to 115200.
TEST_F(SerialPortTest, RatesSelectTheirSpeedConstantOrFallBackTo115200)
{
    struct RateCase { unsigned int rate, used; speed_t speed; };
    std::vector<RateCase> cases = {{110, 110, B110},          {9600, 9600, B9600},
                                   {115200, 115200, B115200}, {230400, 230400, B230400},
                                   {500000, 115200, B115200}};
#ifdef B921600
    cases.push_back({921600, 921600, B921600});
#endif
#ifdef B3000000
    cases.push_back({3000000, 3000000, B3000000});
#endif
    for (const RateCase& c : cases) {
        SCOPED_TRACE(c.rate);
        CCommU port;
        int result = -1;
        std::string out = CapturedStdout([&] { result = Open(port, c.rate); });
        ASSERT_EQ(0, result);
        EXPECT_EQ("", out);
        EXPECT_EQ(c.rate != c.used, port.RateUnlisted());
        EXPECT_EQ(c.used, port.iBaudRate);
        EXPECT_EQ(c.speed, OutputSpeed(port.iFd));
        port.UART_Close();
    }
}

TEST_F(SerialPortTest, ChangeUartBaudMovesAnOpenPortAndDiscardsWaitingInput)
{
    CCommU port;
    ASSERT_EQ(0, Open(port, 115200));
    Feed({1, 2, 3});
    usleep(20000);
    EXPECT_EQ(0, port.ChangeUartBaud(230400));
    EXPECT_EQ(230400u, port.iBaudRate);
    EXPECT_EQ(static_cast<speed_t>(B230400), OutputSpeed(port.iFd));
    EXPECT_TRUE(InputEmpty(port.iFd));
    EXPECT_EQ(0, port.ChangeUartBaud(12345));
    EXPECT_TRUE(port.RateUnlisted());
    EXPECT_EQ(115200u, port.iBaudRate);
    port.UART_Close();

    TempDir dir;  // not a terminal: the attributes cannot be read, yet the change succeeds
    std::string path = dir.File("not-a-tty");
    fclose(fopen(path.c_str(), "w"));
    ASSERT_EQ(0, port.Uart_Init(&path[0], 115200));
    EXPECT_EQ(0, port.ChangeUartBaud(921600));
    EXPECT_EQ(921600u, port.iBaudRate);
    port.UART_Close();
}

// Not opened: the descriptor is 0, the test's standard input, never to be used.
TEST_F(SerialPortTest, ClosedPortNeitherWritesNorReads)
{
    CCommU port;
    unsigned char buf[4] = {9, 9, 9, 9};
    EXPECT_EQ(0, port.WriteMsg(buf, 4));
    EXPECT_EQ(0u, port.ReadMsg(buf, 4));
    EXPECT_EQ(9, buf[0]);
}

// Reads take exactly what is asked and leave the rest; a read that cannot be
// completed times out and empties the queues; 8197 bytes is beyond the cap.
TEST_F(SerialPortTest, ReadMsgTakesExactlyTheRequestedBytesOrTimesOut)
{
    const struct {
        const char* name;
        size_t sent;
        std::vector<unsigned int> reads;
        unsigned int lastResult;
    } cases[] = {
        {"zero bytes, then two", 2, {0, 2}, 0}, {"twelve, then two", 14, {12, 2}, 0},
        {"ten of three", 3, {10}, kTimedOut}, {"beyond the cap", 8197, {8197}, kTimedOut},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CCommU port;
        ASSERT_EQ(0, Open(port, 921600));
        std::vector<unsigned char> sent(c.sent);
        for (size_t i = 0; i < sent.size(); ++i)
            sent[i] = static_cast<unsigned char>(i + 1);
        Feed(sent);
        std::vector<unsigned char> got;
        unsigned int result = 0;
        for (unsigned int n : c.reads) {
            std::vector<unsigned char> buf(n);
            result = port.ReadMsg(buf.data(), n);
            got.insert(got.end(), buf.begin(), buf.end());
        }
        EXPECT_EQ(c.lastResult, result);
        if (result == 0)
            EXPECT_EQ(sent, got);
        else
            EXPECT_TRUE(InputEmpty(port.iFd));
        port.UART_Close();
    }
}

// A wait on an idle line lasts its whole timeout and says so; a byte makes it ready.
TEST_F(SerialPortTest, WaitOnAnIdleLineTimesOutAndOnAFedOneIsReady)
{
    TtyPort tty;
    ASSERT_GT(tty.Open(path.c_str()), 0);
    ASSERT_EQ(0, tty.Configure(B115200, 115200));  // raw: a byte is ready without a newline
    EXPECT_EQ(0, tty.Wait(false, 20000));
    Feed({7});
    EXPECT_EQ(1, tty.Wait(false, 20000));
}

TEST_F(SerialPortTest, SecondOpenOfALockedDeviceFailsAtOnce)
{
    CCommU first, second;
    ASSERT_EQ(0, Open(first, 115200));
    int result = 0;
    EXPECT_EQ("", CapturedStdout([&] { result = Open(second, 115200); }));
    EXPECT_EQ(-1, result);
    EXPECT_NE(0, second.iOpenErrno);
    EXPECT_LT(second.iFd, 0);
    second.UART_Close();
    EXPECT_EQ(0, second.iFd);
    first.UART_Close();
    EXPECT_EQ(0, Open(second, 115200)) << "the lock goes with the close";
    second.UART_Close();
}

TEST_F(SerialPortTest, SecondCloseDoesNotTouchADescriptorReusedMeanwhile)
{
    CCommU port;
    ASSERT_EQ(0, Open(port, 115200));
    int old = port.iFd;
    port.UART_Close();
    EXPECT_EQ(0, port.iFd);
    EXPECT_EQ(-1, fcntl(old, F_GETFD));
    int reused = open("/dev/null", O_RDONLY);  // most likely gets the same number
    ASSERT_GE(reused, 0);
    port.UART_Close();
    EXPECT_EQ(0, port.iFd);
    EXPECT_NE(-1, fcntl(reused, F_GETFD));
    close(reused);
}

}  // namespace
