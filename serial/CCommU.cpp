// The serial port: a raw 8N1 line on a non-blocking descriptor, exact-length reads by
// polling.
#include "serial/CCommU.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <termios.h>
#include <unistd.h>

namespace {

// A reply is awaited for at most this many reads, with one poll interval of sleep
// after each: about 0.5 s at 921600 bit/s and about 2 s at every other rate.
const int kReadAttempts = 101;
const unsigned int kFastPollUs = 5000;
const unsigned int kSlowPollUs = 20000;
const unsigned int kFastPollRate = 921600;

// The most one ReadMsg call accepts: a reply header and its largest payload.
const unsigned int kMaxReadLength = 8196;

const unsigned int kReadTimedOut = 0xFFFFFFFFu;

bool LineHungUp(int fd)
{
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

// Keeps other processes off the device while it is open. Where open() cannot take
// the lock itself, flock() takes it at once afterwards; either way a second
// instance fails immediately instead of waiting, since nothing here blocks.
bool TakeExclusiveLock(int fd)
{
#ifdef O_EXLOCK
    (void)fd;  // taken by open()
    return true;
#else
    return flock(fd, LOCK_EX | LOCK_NB) == 0;
#endif
}

int OpenDevice(const char* path)
{
    int flags = O_RDWR | O_NONBLOCK | O_NOCTTY;
#ifdef O_EXLOCK
    flags |= O_EXLOCK;
#endif
    int fd = open(path, flags);
    if (fd == 0) {
        // A descriptor of 0 would read as "no device open": move it up. The lock
        // belongs to the open file, so it travels with the copy.
        int moved = fcntl(fd, F_DUPFD, 1);
        close(fd);
        fd = moved;
    }
    if (fd > 0 && !TakeExclusiveLock(fd)) {
        close(fd);
        fd = -1;
    }
    return fd;
}

void PrintRateList()
{
    printf("Baud should be one of the values below:\r\n");
    for (int i = 0; i < kRateTableSize; ++i)
        printf("%u ", name_arr[i]);
    printf("\r\n\r\n");
}

}  // namespace

CCommU::CCommU() : iFd(0), iSpeed(0), iBaudRate(0), RecvBuf() {}

// Closing here as well costs nothing and keeps a port object that goes away early
// from leaking its descriptor and the lock on the device.
CCommU::~CCommU()
{
    UART_Close();
}

void CCommU::SelectRate(unsigned int baud)
{
    iSpeed = 0;
    iBaudRate = baud;
    for (int i = 0; i < kRateTableSize; ++i) {
        if (name_arr[i] == baud) {
            iSpeed = speed_arr[i];
            return;
        }
    }
    // Not an error: the line goes on at the boot ROM's own rate.
    PrintRateList();
    iSpeed = B115200;
    iBaudRate = 115200;
}

unsigned int CCommU::PollIntervalUs() const
{
    return iBaudRate == kFastPollRate ? kFastPollUs : kSlowPollUs;
}

void CCommU::set_termios(int fd, int speed)
{
    termios current;
    if (tcgetattr(fd, &current) != 0)
        return;  // not a terminal (or gone): leave it as it is

    // Raw 8N1: no input, output or local processing, no flow control, modem lines
    // ignored; VMIN and VTIME 0 so that a read returns at once with what is there.
    termios raw;
    memset(&raw, 0, sizeof raw);
    raw.c_cflag = CS8 | CREAD | CLOCAL;
    cfsetispeed(&raw, static_cast<speed_t>(speed));
    cfsetospeed(&raw, static_cast<speed_t>(speed));
    tcflush(fd, TCIOFLUSH);
    tcsetattr(fd, TCSANOW, &raw);
}

int CCommU::Uart_Init(char* path, unsigned int baud)
{
    strPortName = path;
    SelectRate(baud);
    iFd = OpenDevice(path);
    if (iFd < 0) {
        printf("ERR: can't open serial port:%s!\r\n", path);
        return -1;
    }
    set_termios(iFd, iSpeed);
    return 0;
}

int CCommU::ChangeUartBaud(unsigned int baud)
{
    SelectRate(baud);
    // Descriptor 0 means no device: never reconfigure whatever else sits there.
    if (iFd > 0)
        set_termios(iFd, iSpeed);
    return 0;
}

int CCommU::WriteMsg(unsigned char* buf, unsigned int len)
{
    if (iFd <= 0)
        return 0;
    return static_cast<int>(write(iFd, buf, len));
}

CCommU::ReadOutcome CCommU::ReadSome(unsigned char* dest, unsigned int wanted, unsigned int* got)
{
    *got = 0;
    ssize_t n = read(iFd, dest, wanted);
    if (n > 0) {
        *got = static_cast<unsigned int>(n);
        return kReadData;
    }
    if (n < 0)
        return (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) ? kReadNothing
                                                                          : kReadFailed;
    // With VMIN and VTIME 0 an idle line also reads 0 bytes; only a hang-up that
    // poll() reports makes it a failure.
    return LineHungUp(iFd) ? kReadFailed : kReadNothing;
}

// A read that fails (adapter unplugged, the other end of the line gone) ends the
// call at once with -1: a vanished device cannot answer, so polling on for two
// seconds would only delay the failure.
unsigned int CCommU::ReadMsg(unsigned char* buf, unsigned int len)
{
    if (len == 0 || iFd == 0)
        return 0;
    if (len > kMaxReadLength) {
        // Can never succeed: take the bytes that are waiting and fail now rather
        // than after the full wait.
        tcflush(iFd, TCIOFLUSH);
        return kReadTimedOut;
    }
    unsigned int received = 0;
    for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
        unsigned int got = 0;
        if (ReadSome(buf + received, len - received, &got) == kReadFailed)
            return kReadTimedOut;
        received += got;
        if (received == len)
            return 0;
        usleep(PollIntervalUs());
    }
    tcflush(iFd, TCIOFLUSH);
    return kReadTimedOut;
}

unsigned int CCommU::ReadMsgNoLen(unsigned char* buf, unsigned int len)
{
    return ReadMsg(buf, len);
}

void CCommU::DrainInput()
{
    if (iFd <= 0)
        return;
    unsigned char scratch[256];
    for (int round = 0; round < kReadAttempts; ++round) {
        usleep(PollIntervalUs());
        bool quiet = true;
        unsigned int got = 0;
        while (ReadSome(scratch, sizeof scratch, &got) == kReadData)
            quiet = false;
        if (quiet)
            return;
    }
}

void CCommU::UART_Close()
{
    if (iFd > 0)
        close(iFd);
    iFd = 0;
}
