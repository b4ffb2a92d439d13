// A byte port in memory, for tests and fuzzing (a test aid, never in the product):
// the bytes the target "sends" are queued in advance, what the host writes is
// kept, and the faults of real adapters can be injected: writes taken in pieces,
// EAGAIN while the FIFO is full, EINTR, EIO after an unplug, a hang-up, a refused
// rate, an open that fails.
#pragma once
#include <cstdint>
#include <deque>
#include <set>
#include <vector>

#include "serial/byte_port.h"

class MemoryPort : public BytePort {
public:
    // What the port does.
    int openErrno = 0;                    // non-zero: Open fails with it
    std::set<unsigned int> refusedRates;  // Configure fails for these
    size_t maxWrite = static_cast<size_t>(-1);  // bytes one Write takes at most
    size_t maxRead = static_cast<size_t>(-1);   // bytes one Read returns at most
    std::deque<int> writeErrors;          // one per Write call: 0 = normal, else errno
    std::deque<int> readErrors;           // one per Read call: 0 = normal, else errno
    bool writableNever = false;           // Wait for writing never succeeds
    bool hungUp = false;                  // Wait reports a hang-up
    bool hangUpWhenDrained = false;       // ... once every fed byte has been read
    // The port's own clock, in microseconds: it moves only by a pause or by a wait
    // that times out (by its whole timeout), so waits cost no time in a test and
    // come out exact.
    uint64_t clockUs = 0;

    // What happened.
    std::vector<unsigned char> written;
    size_t readCalls = 0;
    unsigned int rate = 0;
    bool open = false;
    std::vector<unsigned int> pauses;     // every Pause, in order

    // Queues bytes for the host to read.
    void Feed(const unsigned char* data, size_t len);

    int Open(const char* path) override;
    void Close() override;
    int Configure(int speed, unsigned int baud) override;
    void Flush() override;
    long Read(unsigned char* buf, size_t len) override;
    long Write(const unsigned char* buf, size_t len) override;
    int Wait(bool forWrite, unsigned int timeoutUs) override;
    uint64_t NowUs() override { return clockUs; }
    void Pause(unsigned int us) override;

private:
    std::deque<unsigned char> m_incoming;
};
