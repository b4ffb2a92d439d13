// The serial port: a raw 8N1 line on a non-blocking descriptor, writes that hand
// over every byte, and exact-length reads by polling (or, on the fast link, by
// waiting on the line). It prints nothing: what went wrong (the open's errno, a
// rate not in the table, a rate the device refused) is kept for the flash host,
// which tells the user.
#include "serial/CCommU.h"

#include <cerrno>
#include <termios.h>

#include "common/link_timing.h"

namespace {

// The most one ReadMsg call accepts: a reply header and its largest payload.
const unsigned int kMaxReadLength = 8196;

const unsigned int kReadTimedOut = 0xFFFFFFFFu;

bool WouldBlock(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

CCommU::CCommU() : iFd(0), iSpeed(0), iBaudRate(0), RecvBuf() {}

// Closing here as well costs nothing and keeps a port object that goes away early
// from leaking its descriptor and the lock on the device.
CCommU::~CCommU()
{
    UART_Close();
}

void CCommU::UsePort(BytePort* port)
{
    UART_Close();
    m_port = port ? port : &m_tty;
}

void CCommU::SetLinkProfile(const LinkProfile& link)
{
    m_link = link;
}

void CCommU::SelectRate(unsigned int baud)
{
    iSpeed = 0;
    iBaudRate = baud;
    m_rateUnlisted = false;
    m_rateRefused = false;
    for (int i = 0; i < kRateTableSize; ++i) {
        if (name_arr[i] == baud) {
            iSpeed = speed_arr[i];
            return;
        }
    }
    // Not an error: the line goes on at the boot ROM's own rate.
    m_rateUnlisted = true;
    iSpeed = B115200;
    iBaudRate = link_timing::kBootRate;
}

void CCommU::set_termios(int fd, int speed)
{
    TtyPort::ConfigureRaw(fd, speed);
}

// Classic behaviour ignores whether the device took the rate. The fast link does
// not: a line at another speed than the target's only produces garbage, so a rate
// the adapter refuses is an error there.
int CCommU::ApplyRate()
{
    if (m_port->Configure(iSpeed, iBaudRate) == 0 ||
        m_link.ratePolicy == LinkProfile::kSilentFallback)
        return 0;
    m_rateRefused = true;
    return -1;
}

int CCommU::Uart_Init(char* path, unsigned int baud)
{
    strPortName = path;
    SelectRate(baud);
    m_lineLost = false;
    iOpenErrno = 0;
    iFd = m_port->Open(path);
    if (iFd < 0) {
        iOpenErrno = errno;
        return -1;
    }
    if (m_link.lowLatency)
        m_port->SetLowLatency();
    return ApplyRate();
}

int CCommU::ChangeUartBaud(unsigned int baud)
{
    SelectRate(baud);
    // Descriptor 0 means no device: never reconfigure whatever else sits there.
    if (iFd > 0)
        return ApplyRate();
    return 0;
}

// Every byte goes out, or the call fails. A USB adapter's driver takes a few KiB at
// a time: a write may take only part of the bytes, or fail with EAGAIN while its
// FIFO is full. Then the port waits until it can take more, within twice the
// bytes' time on the wire plus a margin. Past that deadline the result is 0, as for
// a write that took nothing, so callers report their usual failure texts; a hard
// error (EIO after an unplug) returns -1 at once. When the first write takes
// everything, the result and the bytes on the wire are exactly the single write's.
int CCommU::WriteMsg(unsigned char* buf, unsigned int len)
{
    if (iFd <= 0)
        return 0;
    if (len == 0)
        return static_cast<int>(m_port->Write(buf, 0));
    const uint64_t deadline = m_port->NowUs() + link_timing::WriteDeadlineUs(len, iBaudRate);
    unsigned int sent = 0;
    int refusedInARow = 0;
    while (sent < len) {
        long n = m_port->Write(buf + sent, len - sent);
        if (n > 0) {
            sent += static_cast<unsigned int>(n);
            refusedInARow = 0;
            continue;
        }
        if (n < 0 && !WouldBlock(errno)) {
            m_lineLost = true;
            return -1;
        }
        const uint64_t now = m_port->NowUs();
        if (now >= deadline)
            return 0;
        if (m_port->Wait(true, static_cast<unsigned int>(deadline - now)) < 0) {
            m_lineLost = true;
            return -1;
        }
        // A driver that says it has room and then refuses again must not turn the
        // wait into a busy loop.
        if (++refusedInARow > 1)
            m_port->Pause(link_timing::kWriteRefusedAgainPauseUs);
    }
    return static_cast<int>(len);
}

CCommU::ReadOutcome CCommU::ReadSome(unsigned char* dest, unsigned int wanted, unsigned int* got)
{
    *got = 0;
    long n = m_port->Read(dest, wanted);
    if (n > 0) {
        *got = static_cast<unsigned int>(n);
        return kReadData;
    }
    if (n < 0 && !WouldBlock(errno)) {
        m_lineLost = true;
        return kReadFailed;
    }
    // With VMIN and VTIME 0 an idle line also reads nothing; only a hang-up that
    // the port reports makes it a failure (and keeps a waiting read from spinning
    // on a line that reports itself ready for ever).
    if (m_port->Wait(false, 0) < 0) {
        m_lineLost = true;
        return kReadFailed;
    }
    return kReadNothing;
}

// One read of what is waiting, added to what `buf` already holds: kReadData once
// all `len` bytes are in, kReadFailed when the line failed, else kReadNothing. The
// bytes of a reply arriving in pieces are stored in order.
CCommU::ReadOutcome CCommU::ReadMore(unsigned char* buf, unsigned int len, unsigned int* received)
{
    unsigned int got = 0;
    if (ReadSome(buf + *received, len - *received, &got) == kReadFailed)
        return kReadFailed;
    *received += got;
    return *received == len ? kReadData : kReadNothing;
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
        m_port->Flush();
        return kReadTimedOut;
    }
    return m_link.fast ? ReadWaiting(buf, len) : ReadPolled(buf, len);
}

// At most 101 reads with a fixed sleep after each: about 0.5 s at 921600, 2 s at
// every other rate.
unsigned int CCommU::ReadPolled(unsigned char* buf, unsigned int len)
{
    unsigned int received = 0;
    for (int attempt = 0; attempt < link_timing::kReplyPolls; ++attempt) {
        ReadOutcome step = ReadMore(buf, len, &received);
        if (step != kReadNothing)
            return step == kReadData ? 0 : kReadTimedOut;
        m_port->Pause(link_timing::PollIntervalUs(iBaudRate));
    }
    m_port->Flush();
    return kReadTimedOut;
}

// The same total deadline, but the line is waited on and read the moment bytes
// arrive, so a reply costs its wire time and not a poll interval on top.
unsigned int CCommU::ReadWaiting(unsigned char* buf, unsigned int len)
{
    const uint64_t deadline = m_port->NowUs() + link_timing::ReplyDeadlineUs(iBaudRate);
    unsigned int received = 0;
    for (;;) {
        ReadOutcome step = ReadMore(buf, len, &received);
        if (step != kReadNothing)
            return step == kReadData ? 0 : kReadTimedOut;
        const uint64_t now = m_port->NowUs();
        if (now >= deadline)
            break;
        // A hang-up is not final here: the next read takes any bytes still
        // buffered and fails only when there are none.
        m_port->Wait(false, static_cast<unsigned int>(deadline - now));
    }
    m_port->Flush();
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
    const unsigned int quietUs = link_timing::PollIntervalUs(iBaudRate);
    for (int round = 0; round < link_timing::kReplyPolls; ++round) {
        if (m_link.fast) {
            if (m_port->Wait(false, quietUs) <= 0)
                return;  // quiet for one interval, or gone
        } else {
            m_port->Pause(quietUs);
        }
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
        m_port->Close();
    iFd = 0;
}

int CCommU::ProbeRate(unsigned int baud)
{
    if (iFd <= 0)
        return -1;
    for (int i = 0; i < kRateTableSize; ++i) {
        if (name_arr[i] != baud)
            continue;
        const int taken = m_port->Configure(speed_arr[i], baud);
        m_port->Configure(iSpeed, iBaudRate);
        return taken == 0 ? 0 : -1;
    }
    return -1;
}
