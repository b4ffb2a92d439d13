// The byte port under the serial port: the few system operations CCommU needs,
// behind one interface, so the protocol above can be driven without a terminal
// (tests, fuzzing) and the terminal code stays in one place.
#pragma once
#include <cstddef>
#include <cstdint>

class BytePort {
public:
    virtual ~BytePort() = default;

    // Opens the device: a positive handle, or -1 with errno set (ENOENT, EACCES,
    // EBUSY or EWOULDBLOCK when another program holds it, ...).
    virtual int Open(const char* path) = 0;
    virtual void Close() = 0;
    // Raw 8N1 at the terminal speed constant `speed` (numeric rate `baud`), both
    // queues discarded. 0 when the line runs at that speed; -1 when the device
    // refused it (or is no terminal).
    virtual int Configure(int speed, unsigned int baud) = 0;
    // Discards unread input and unsent output.
    virtual void Flush() = 0;
    // As read(2) and write(2) on a non-blocking descriptor: bytes moved, 0, or -1
    // with errno (EAGAIN, EINTR, EIO, ...).
    virtual long Read(unsigned char* buf, size_t len) = 0;
    virtual long Write(const unsigned char* buf, size_t len) = 0;
    // Waits up to timeoutUs until bytes can be read (or, with forWrite, written):
    // 1 ready, 0 timed out, -1 when the line hung up or failed.
    virtual int Wait(bool forWrite, unsigned int timeoutUs) = 0;
    // The line's clock and its pauses. Every deadline and fixed wait of the serial
    // port and of the protocol above it is measured here, so that a port in memory
    // can keep a clock of its own: its waits then cost nothing and can be counted
    // exactly. The device's own: a monotonic clock in microseconds, and a sleep.
    virtual uint64_t NowUs();
    virtual void Pause(unsigned int us);
    // Asks the driver to pass received bytes on at once instead of holding them for
    // its latency timer; refused quietly where the driver does not allow it. The
    // previous setting comes back at Close.
    virtual void SetLowLatency() {}
    // The latency timer SetLowLatency found and lowered to 1 ms through sysfs (FTDI
    // adapters whose driver ignores the flag), in ms; 0 when it lowered none.
    virtual int LoweredLatencyTimerMs() const { return 0; }
    // Sets the modem lines: each of dtr and rts is -1 (left as it is), 0 (released)
    // or 1 (asserted: its TIOCM bit set). Both given change in one call, since some
    // drivers lose or reorder transitions made one call at a time. 0, or -1 with
    // errno when the port has no modem lines; the default port has none.
    virtual int SetModemLines(int dtr, int rts)
    {
        (void)dtr;
        (void)rts;
        return -1;
    }
};
