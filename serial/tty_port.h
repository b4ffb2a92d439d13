// The byte port of a real serial device: a POSIX terminal opened non-blocking with
// an exclusive lock.
#pragma once
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
    int SetModemLines(int dtr, int rts) override;

    // Raw 8N1 at `speed` on any descriptor; -1 when the attributes cannot be read
    // or the speed is not taken.
    static int ConfigureRaw(int fd, int speed);

private:
    void RestoreLatency();

    int m_fd = -1;
    bool m_latencyChanged = false;
    int m_savedSerialFlags = 0;
};
