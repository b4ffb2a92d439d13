// The byte port of a real serial device: a POSIX terminal opened non-blocking with
// an exclusive lock.
#pragma once
#include <string>

#include "serial/byte_port.h"

class TtyPort : public BytePort {
public:
    TtyPort() = default;
    ~TtyPort() override;
    TtyPort(const TtyPort&) = delete;
    TtyPort& operator=(const TtyPort&) = delete;

    int Open(const char* path) override;
    void Close() override;
    int Configure(int speed, unsigned int baud) override;
    void Flush() override;
    long Read(unsigned char* buf, size_t len) override;
    long Write(const unsigned char* buf, size_t len) override;
    int Wait(bool forWrite, unsigned int timeoutUs) override;
    void SetLowLatency() override;
    int LoweredLatencyTimerMs() const override { return m_savedLatencyTimerMs; }
    int SetModemLines(int dtr, int rts) override;

    // Raw 8N1 at `speed` on any descriptor; -1 when the attributes cannot be read
    // or the speed is not taken.
    static int ConfigureRaw(int fd, int speed);

private:
    void RestoreLatency();
    void SetLowLatencyFlag();
    void LowerLatencyTimer();
    void RestoreLatencyTimer();

    int m_fd = -1;
    bool m_latencyChanged = false;
    int m_savedSerialFlags = 0;
    std::string m_path;                 // as opened, for the adapter's sysfs folder
    std::string m_latencyTimerPath;     // the latency_timer file lowered, if any
    int m_savedLatencyTimerMs = 0;      // its value before, restored at Close
};
