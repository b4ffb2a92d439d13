#include "tests/support/memory_port.h"

#include <algorithm>
#include <cerrno>

namespace {

// The handle a memory port hands out: positive, so the serial port takes it for an
// open device, and never used as a descriptor.
const int kMemoryHandle = 1000;

int NextError(std::deque<int>& errors)
{
    if (errors.empty())
        return 0;
    int e = errors.front();
    errors.pop_front();
    return e;
}

}  // namespace

void MemoryPort::Feed(const unsigned char* data, size_t len) { m_incoming.insert(m_incoming.end(), data, data + len); }

int MemoryPort::Open(const char*)
{
    if (openErrno != 0) {
        errno = openErrno;
        return -1;
    }
    open = true;
    return kMemoryHandle;
}

void MemoryPort::Close() { open = false; }

int MemoryPort::Configure(int, unsigned int baud)
{
    if (refusedRates.count(baud) != 0)
        return -1;
    rate = baud;
    return 0;
}

void MemoryPort::Flush() { m_incoming.clear(); }

long MemoryPort::Read(unsigned char* buf, size_t len)
{
    ++readCalls;
    if (int e = NextError(readErrors)) {
        errno = e;
        return -1;
    }
    size_t n = std::min({len, maxRead, m_incoming.size()});
    if (n == 0 && len != 0) {
        errno = EAGAIN;
        return -1;
    }
    std::copy(m_incoming.begin(), m_incoming.begin() + static_cast<long>(n), buf);
    m_incoming.erase(m_incoming.begin(), m_incoming.begin() + static_cast<long>(n));
    return static_cast<long>(n);
}

long MemoryPort::Write(const unsigned char* buf, size_t len)
{
    if (int e = NextError(writeErrors)) {
        errno = e;
        return -1;
    }
    size_t n = std::min(len, maxWrite);
    written.insert(written.end(), buf, buf + n);
    return static_cast<long>(n);
}

int MemoryPort::Wait(bool forWrite, unsigned int timeoutUs)
{
    if (hungUp || (hangUpWhenDrained && !forWrite && m_incoming.empty()))
        return -1;
    bool ready = forWrite ? !writableNever : !m_incoming.empty();
    if (!ready)
        clockUs += timeoutUs;
    return ready ? 1 : 0;
}

void MemoryPort::Pause(unsigned int us)
{
    pauses.push_back(us);
    clockUs += us;
}
