#include "serial/tty_port.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#ifdef __linux__
#include <linux/serial.h>
#endif
#ifdef __APPLE__
#include <IOKit/serial/ioss.h>
#endif

namespace {

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

}  // namespace

TtyPort::~TtyPort()
{
    Close();
}

int TtyPort::Open(const char* path)
{
    Close();
    int flags = O_RDWR | O_NONBLOCK | O_NOCTTY;
#ifdef O_EXLOCK
    flags |= O_EXLOCK;
#endif
    int fd = open(path, flags);
    if (fd == 0) {
        // A handle of 0 would read as "no device open": move it up. The lock
        // belongs to the open file, so it travels with the copy.
        int moved = fcntl(fd, F_DUPFD, 1);
        int saved = errno;
        close(fd);
        errno = saved;
        fd = moved;
    }
    if (fd > 0 && !TakeExclusiveLock(fd)) {
        int saved = errno;
        close(fd);
        errno = saved;
        fd = -1;
    }
    m_fd = fd;
    m_path = path;
    return fd > 0 ? fd : -1;
}

void TtyPort::Close()
{
    if (m_fd <= 0)
        return;
    RestoreLatency();
    close(m_fd);
    m_fd = -1;
}

#if defined(__APPLE__) && defined(IOSSIOSPEED)
namespace {

// The highest rate macOS sets through the terminal attributes; above it the
// attributes carry this rate and IOSSIOSPEED the real one (speed values there are
// the plain bit rates).
const int kAppleAttributeRateMax = 230400;

}  // namespace
#endif

int TtyPort::ConfigureRaw(int fd, int speed)
{
#if defined(__APPLE__) && defined(IOSSIOSPEED)
    if (speed > kAppleAttributeRateMax) {
        if (ConfigureRaw(fd, kAppleAttributeRateMax) != 0)
            return -1;
        speed_t rate = static_cast<speed_t>(speed);
        return ioctl(fd, IOSSIOSPEED, &rate) == 0 ? 0 : -1;
    }
#endif
    termios current;
    if (tcgetattr(fd, &current) != 0)
        return -1;  // not a terminal (or gone): leave it as it is

    // Raw 8N1: no input, output or local processing, no flow control, modem lines
    // ignored; VMIN and VTIME 0 so that a read returns at once with what is there.
    termios raw;
    memset(&raw, 0, sizeof raw);
    raw.c_cflag = CS8 | CREAD | CLOCAL;
    int result = 0;
    if (cfsetispeed(&raw, static_cast<speed_t>(speed)) != 0 ||
        cfsetospeed(&raw, static_cast<speed_t>(speed)) != 0)
        result = -1;
    tcflush(fd, TCIOFLUSH);
    if (tcsetattr(fd, TCSANOW, &raw) != 0)
        result = -1;
    // tcsetattr succeeds when any one change was made: only reading the speed back
    // shows whether the driver took this one.
    termios applied;
    if (result == 0 && (tcgetattr(fd, &applied) != 0 ||
                        cfgetospeed(&applied) != static_cast<speed_t>(speed)))
        result = -1;
    return result;
}

int TtyPort::Configure(int speed, unsigned int)
{
    return ConfigureRaw(m_fd, speed);
}

void TtyPort::Flush()
{
    tcflush(m_fd, TCIOFLUSH);
}

long TtyPort::Read(unsigned char* buf, size_t len)
{
    return static_cast<long>(read(m_fd, buf, len));
}

long TtyPort::Write(const unsigned char* buf, size_t len)
{
    return static_cast<long>(write(m_fd, buf, len));
}

int TtyPort::Wait(bool forWrite, unsigned int timeoutUs)
{
    pollfd p = {m_fd, static_cast<short>(forWrite ? POLLOUT : POLLIN), 0};
    // Rounded up, so a short wait is never a busy spin of zero-millisecond polls.
    int ms = static_cast<int>((timeoutUs + 999) / 1000);
    int n = poll(&p, 1, ms);
    if (n < 0)
        return errno == EINTR ? 0 : -1;
    if (n == 0)
        return 0;
    // A hung-up terminal also reports itself readable; bytes still buffered are
    // read by the caller's next read, which then returns 0 or fails.
    if (p.revents & (POLLHUP | POLLERR | POLLNVAL))
        return -1;
    return 1;
}

void TtyPort::SetLowLatency()
{
    SetLowLatencyFlag();
    LowerLatencyTimer();
}

void TtyPort::SetLowLatencyFlag()
{
#if defined(__linux__) && defined(TIOCGSERIAL) && defined(ASYNC_LOW_LATENCY)
    serial_struct info;
    if (m_latencyChanged || ioctl(m_fd, TIOCGSERIAL, &info) != 0)
        return;  // not a serial driver that has the flag (a pseudo-terminal, say)
    if (info.flags & ASYNC_LOW_LATENCY)
        return;
    m_savedSerialFlags = info.flags;
    info.flags |= ASYNC_LOW_LATENCY;
    if (ioctl(m_fd, TIOCSSERIAL, &info) == 0)
        m_latencyChanged = true;  // refusal (no permission) is ignored
#endif
}

void TtyPort::RestoreLatency()
{
    RestoreLatencyTimer();
#if defined(__linux__) && defined(TIOCGSERIAL)
    if (!m_latencyChanged)
        return;
    serial_struct info;
    if (ioctl(m_fd, TIOCGSERIAL, &info) == 0) {
        info.flags = m_savedSerialFlags;
        ioctl(m_fd, TIOCSSERIAL, &info);
    }
    m_latencyChanged = false;
#endif
}

// One line: TIOCMBIS or TIOCMBIC for its bit alone. Both: the current state read and
// written back changed in a single TIOCMSET.
int TtyPort::SetModemLines(int dtr, int rts)
{
    if (dtr < 0 && rts < 0)
        return 0;
    if (dtr < 0 || rts < 0) {
        int bit = dtr >= 0 ? TIOCM_DTR : TIOCM_RTS;
        const bool assert = (dtr >= 0 ? dtr : rts) != 0;
        return ioctl(m_fd, assert ? TIOCMBIS : TIOCMBIC, &bit) == 0 ? 0 : -1;
    }
    int lines = 0;
    if (ioctl(m_fd, TIOCMGET, &lines) != 0)
        return -1;
    lines = dtr ? (lines | TIOCM_DTR) : (lines & ~TIOCM_DTR);
    lines = rts ? (lines | TIOCM_RTS) : (lines & ~TIOCM_RTS);
    return ioctl(m_fd, TIOCMSET, &lines) == 0 ? 0 : -1;
}

// FTDI adapters hold received bytes up to their latency timer (16 ms by default),
// and some driver versions ignore the low-latency flag: the timer itself is set to
// 1 ms through sysfs where the file is writable, and put back at Close.
void TtyPort::LowerLatencyTimer()
{
#ifdef __linux__
    if (m_savedLatencyTimerMs > 0)
        return;
    char resolved[PATH_MAX];
    const std::string device = realpath(m_path.c_str(), resolved) ? resolved : m_path;
    const std::string name = device.substr(device.find_last_of('/') + 1);
    const std::string path = "/sys/class/tty/" + name + "/device/latency_timer";
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return;  // not an FTDI adapter
    char text[16] = {};
    const long got = read(fd, text, sizeof text - 1);
    close(fd);
    const int ms = got > 0 ? std::atoi(text) : 0;
    if (ms <= 1)
        return;
    fd = open(path.c_str(), O_WRONLY | O_TRUNC);
    if (fd < 0)
        return;  // not writable (permissions): the timer stays
    if (write(fd, "1", 1) == 1) {
        m_savedLatencyTimerMs = ms;
        m_latencyTimerPath = path;
    }
    close(fd);
#endif
}

void TtyPort::RestoreLatencyTimer()
{
    if (m_savedLatencyTimerMs <= 0)
        return;
    const int fd = open(m_latencyTimerPath.c_str(), O_WRONLY | O_TRUNC);
    if (fd >= 0) {
        char text[16];
        const int n = std::snprintf(text, sizeof text, "%d", m_savedLatencyTimerMs);
        if (write(fd, text, static_cast<size_t>(n)) != n) {
            // nothing more to do: the adapter keeps 1 ms until it is plugged again
        }
        close(fd);
    }
    m_savedLatencyTimerMs = 0;
}
