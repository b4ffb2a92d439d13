// The serial port: opens and configures the device as a raw 8N1 line, writes bytes,
// and reads replies of a known length by polling. It knows nothing of frames and
// prints nothing: the flash host reads what happened and tells the user.
#pragma once
#include <string>

#include "common/link_profile.h"
#include "serial/tty_port.h"

// Size of the reply buffer that the flash host reads replies into: a 12-byte
// header plus 8,190 payload bytes.
enum { kReplyBufferSize = 8202 };

// Rate table, searched in parallel by index.
extern const unsigned int name_arr[];
extern const int speed_arr[];
extern const int kRateTableSize;

class CCommU {
public:
    CCommU();
    ~CCommU();
    CCommU(const CCommU&) = delete;
    CCommU& operator=(const CCommU&) = delete;

    int Uart_Init(char* path, unsigned int baud);
    int ChangeUartBaud(unsigned int baud);
    void set_termios(int fd, int speed);
    int WriteMsg(unsigned char* buf, unsigned int len);
    unsigned int ReadMsg(unsigned char* buf, unsigned int len);
    unsigned int ReadMsgNoLen(unsigned char* buf, unsigned int len);
    void UART_Close();

    // The byte port under this serial port: nullptr (the default) is the built-in
    // terminal port; tests and fuzzers hand in a port of their own. Only while the
    // port is closed.
    void UsePort(BytePort* port);

    // The serial part of the link profile: on the fast link replies are awaited by
    // waiting on the line and read the moment they arrive (within the same total
    // deadline as the polled reads); lowLatency asks the adapter's driver for its
    // low-latency mode at the open; the rate policy says whether a rate the device
    // refuses fails the call. The default profile is the classic link.
    void SetLinkProfile(const LinkProfile& link);

    // True once a read or a write failed in a way the line does not recover from
    // (unplugged adapter, hang-up), until the next Uart_Init.
    bool LinkLost() const { return m_lineLost; }
    // The last Uart_Init or ChangeUartBaud asked for a rate not in the table: the
    // line went on at 115200.
    bool RateUnlisted() const { return m_rateUnlisted; }
    // The last Uart_Init or ChangeUartBaud failed because the device did not take
    // the rate (only under kRefuseUnsupported).
    bool RateRefused() const { return m_rateRefused; }

    // Reads and throws away whatever arrives until the line has been quiet for one
    // poll interval (bounded like ReadMsg), so that the rest of a reply that was
    // refused cannot be taken for the start of the next one.
    void DrainInput();

    // 0 when the open device takes `baud` (a table rate); the line is put back to
    // its current rate either way, its queues discarded.
    int ProbeRate(unsigned int baud);
    // The adapter's latency timer lowered to 1 ms at the open, in ms before; 0: none.
    int LoweredLatencyTimerMs() const { return m_port->LoweredLatencyTimerMs(); }

    // A fixed pause of the protocol, on the port's clock.
    void Pause(unsigned int us) { m_port->Pause(us); }

    // The modem lines, as BytePort::SetModemLines: -1 where the port has none.
    int SetModemLines(int dtr, int rts) { return m_port->SetModemLines(dtr, rts); }

    int iFd;                   // 0 = no device open; negative after a failed open
    std::string strPortName;
    int iSpeed;                // terminal speed constant in use
    unsigned int iBaudRate;    // numeric rate in use
    unsigned char RecvBuf[kReplyBufferSize];  // filled by the flash host, never by the port
    int iOpenErrno = 0;        // why the last Uart_Init could not open the device

private:
    void SelectRate(unsigned int baud);
    int ApplyRate();
    unsigned int ReadPolled(unsigned char* buf, unsigned int len);
    unsigned int ReadWaiting(unsigned char* buf, unsigned int len);
    enum ReadOutcome { kReadData, kReadNothing, kReadFailed };
    ReadOutcome ReadSome(unsigned char* dest, unsigned int wanted, unsigned int* got);
    ReadOutcome ReadMore(unsigned char* buf, unsigned int len, unsigned int* received);

    TtyPort m_tty;
    BytePort* m_port = &m_tty;
    LinkProfile m_link;
    bool m_lineLost = false;
    bool m_rateUnlisted = false;
    bool m_rateRefused = false;
};
