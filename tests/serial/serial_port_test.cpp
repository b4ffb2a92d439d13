// The serial port against a pseudo-terminal: line set-up, the rate table, writes,
// exact-length polled reads, the device lock and closing.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include "serial/CCommU.h"
#include "tests/support/process.h"
#include "tests/support/serial_fixtures.h"

namespace {

const unsigned int kTimedOut = 0xFFFFFFFFu;

class SerialPortTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(pty.Ok()); }

    int Open(CCommU& port, unsigned int baud)
    {
        std::string path = pty.SlavePath();
        return port.Uart_Init(&path[0], baud);
    }

    static speed_t OutputSpeed(int fd)
    {
        termios t;
        EXPECT_EQ(0, tcgetattr(fd, &t));
        return cfgetospeed(&t);
    }

    // Nothing is waiting on the port's side of the line.
    static bool InputEmpty(int fd)
    {
        unsigned char byte;
        return read(fd, &byte, 1) <= 0;
    }

    PtyPair pty;
};

TEST_F(SerialPortTest, OpensARawNonBlockingLineWithOneStopBitAndNoParity)
{
    CCommU port;
    ASSERT_EQ(0, Open(port, 115200));
    ASSERT_GT(port.iFd, 0);
    EXPECT_EQ(pty.SlavePath(), port.strPortName);

    termios t;
    ASSERT_EQ(0, tcgetattr(port.iFd, &t));
    EXPECT_EQ(0u, t.c_iflag);
    EXPECT_EQ(0u, t.c_oflag);
    EXPECT_EQ(0u, t.c_lflag);
    EXPECT_EQ(static_cast<tcflag_t>(CS8), t.c_cflag & CSIZE);
    EXPECT_TRUE(t.c_cflag & CREAD);
    EXPECT_TRUE(t.c_cflag & CLOCAL);
    EXPECT_FALSE(t.c_cflag & (PARENB | CSTOPB | HUPCL));
#ifdef CRTSCTS
    EXPECT_FALSE(t.c_cflag & CRTSCTS);
#endif
    EXPECT_EQ(0, t.c_cc[VMIN]);
    EXPECT_EQ(0, t.c_cc[VTIME]);
    EXPECT_TRUE(fcntl(port.iFd, F_GETFL) & O_NONBLOCK);
    port.UART_Close();
}

struct RateCase {
    unsigned int rate;
    speed_t speed;
};

TEST_F(SerialPortTest, TableRatesSelectTheirSpeedConstant)
{
    std::vector<RateCase> cases = {
        {110, B110}, {9600, B9600}, {115200, B115200}, {230400, B230400}};
#ifdef B921600
    cases.push_back({921600, B921600});
#endif
#ifdef B3000000
    cases.push_back({3000000, B3000000});
#endif
    for (const RateCase& c : cases) {
        SCOPED_TRACE(c.rate);
        CCommU port;
        testing::internal::CaptureStdout();
        ASSERT_EQ(0, Open(port, c.rate));
        fflush(stdout);
        EXPECT_EQ("", testing::internal::GetCapturedStdout());  // no rate list
        EXPECT_EQ(c.rate, port.iBaudRate);
        EXPECT_EQ(c.speed, OutputSpeed(port.iFd));
        port.UART_Close();
    }
}

std::string ExpectedRateList()
{
    std::string text = "Baud should be one of the values below:\r\n";
    for (int i = 0; i < kRateTableSize; ++i)
        text += std::to_string(name_arr[i]) + " ";
    return text + "\r\n\r\n";
}

TEST_F(SerialPortTest, UnknownRatePrintsTheRateListAndFallsBackTo115200)
{
    CCommU port;
    testing::internal::CaptureStdout();
    int result = Open(port, 500000);
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, result);
    EXPECT_EQ(ExpectedRateList(), out);
    EXPECT_EQ(0u, out.find("Baud should be one of the values below:\r\n110 300 600 1200 2400 "
                           "4800 9600 19200 38400 57600 115200 230400 921600 "));
    EXPECT_EQ(115200u, port.iBaudRate);
    EXPECT_EQ(static_cast<speed_t>(B115200), OutputSpeed(port.iFd));

    // The same fallback when the speed is changed on an open port.
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, port.ChangeUartBaud(12345));
    fflush(stdout);
    EXPECT_EQ(ExpectedRateList(), testing::internal::GetCapturedStdout());
    EXPECT_EQ(115200u, port.iBaudRate);
    port.UART_Close();
}

TEST_F(SerialPortTest, ChangeUartBaudMovesAnOpenPortAndDiscardsWaitingInput)
{
    CCommU port;
    ASSERT_EQ(0, Open(port, 115200));
    pty.Write({1, 2, 3});
    usleep(20000);
    EXPECT_EQ(0, port.ChangeUartBaud(230400));
    EXPECT_EQ(230400u, port.iBaudRate);
    EXPECT_EQ(static_cast<speed_t>(B230400), OutputSpeed(port.iFd));
    EXPECT_TRUE(InputEmpty(port.iFd));
    port.UART_Close();
}

TEST_F(SerialPortTest, ChangeUartBaudSucceedsWhenTheAttributesCannotBeRead)
{
    TempDir dir;
    std::string path = dir.File("not-a-tty");
    FILE* f = fopen(path.c_str(), "w");
    ASSERT_NE(nullptr, f);
    fclose(f);
    CCommU port;
    ASSERT_EQ(0, port.Uart_Init(&path[0], 115200));
    EXPECT_EQ(0, port.ChangeUartBaud(921600));
    EXPECT_EQ(921600u, port.iBaudRate);
    port.UART_Close();
}

TEST_F(SerialPortTest, ClosedPortNeitherWritesNorWaits)
{
    CCommU port;
    unsigned char buf[4] = {9, 9, 9, 9};
    EXPECT_EQ(0, port.WriteMsg(buf, 4));
    EXPECT_EQ(0u, port.ReadMsg(buf, 4));
    EXPECT_EQ(9, buf[0]);
    EXPECT_EQ(0u, pty.Read(1, 50).size());
}

TEST_F(SerialPortTest, ReadMsgOfZeroBytesLeavesWaitingInputAlone)
{
    CCommU port;
    ASSERT_EQ(0, Open(port, 921600));
    pty.Write({0x4F, 0x4B});
    unsigned char buf[2] = {};
    EXPECT_EQ(0u, port.ReadMsg(buf, 0));
    EXPECT_EQ(0u, port.ReadMsg(buf, 2));
    EXPECT_EQ(0x4F, buf[0]);
    EXPECT_EQ(0x4B, buf[1]);
    port.UART_Close();
}

TEST_F(SerialPortTest, ReadMsgReturnsExactlyTheRequestedBytesAndLeavesTheRest)
{
    CCommU port;
    ASSERT_EQ(0, Open(port, 921600));
    pty.Write({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14});
    unsigned char first[12] = {};
    unsigned char second[2] = {};
    ASSERT_EQ(0u, port.ReadMsg(first, 12));
    ASSERT_EQ(0u, port.ReadMsg(second, 2));
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(i + 1, first[i]);
    EXPECT_EQ(13, second[0]);
    EXPECT_EQ(14, second[1]);
    port.UART_Close();
}

TEST_F(SerialPortTest, ReadMsgTimesOutAndEmptiesTheQueues)
{
    CCommU port;
    ASSERT_EQ(0, Open(port, 921600));
    pty.Write({1, 2, 3});
    unsigned char buf[10] = {};
    EXPECT_EQ(kTimedOut, port.ReadMsg(buf, 10));
    EXPECT_TRUE(InputEmpty(port.iFd));
    port.UART_Close();
}

TEST_F(SerialPortTest, ReadMsgBeyondTheCapNeverSucceeds)
{
    CCommU port;
    ASSERT_EQ(0, Open(port, 921600));
    std::vector<unsigned char> plenty(8197, 0x5A);
    pty.Write(plenty);
    std::vector<unsigned char> buf(8197);
    EXPECT_EQ(kTimedOut, port.ReadMsg(buf.data(), 8197));
    port.UART_Close();
}

// The poll bound is two seconds at this rate; a line that is gone must not use it.
TEST_F(SerialPortTest, ReadMsgFailsAtOnceWhenTheLineHangsUp)
{
    CCommU port;
    ASSERT_EQ(0, Open(port, 115200));
    pty.CloseMaster();
    unsigned char buf[12];
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kTimedOut, port.ReadMsg(buf, 12));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
    port.UART_Close();
}

TEST_F(SerialPortTest, SecondOpenOfALockedDeviceFailsAtOnce)
{
    CCommU first;
    CCommU second;
    ASSERT_EQ(0, Open(first, 115200));

    testing::internal::CaptureStdout();
    int result = Open(second, 115200);
    fflush(stdout);
    EXPECT_EQ(-1, result);
    EXPECT_EQ("ERR: can't open serial port:" + pty.SlavePath() + "!\r\n",
              testing::internal::GetCapturedStdout());
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
