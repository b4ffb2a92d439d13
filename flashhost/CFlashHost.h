// The protocol host: command frames and acknowledgements, memory and flash commands,
// connection bring-up, and the host log. One instance exists: g_flashHost.
#pragma once
#include <cstdint>
#include <string>

#include "common/failure_kind.h"
#include "common/flash_geometry.h"
#include "common/link_profile.h"
#include "serial/CCommU.h"

enum {
    kCmdBufferSize = 16384,
    kFrameHeaderSize = 12,
    kMaxReplyPayload = kReplyBufferSize - kFrameHeaderSize,  // 8,190 bytes
    kSectorSize = flash_geometry::kSectorSize,
    kEraseBlockSize = flash_geometry::kEraseBlockSize,
    kFlashIdSize = 20,
    // The most sectors one write command carries (the boot-loader's limit); a read
    // is held to what one reply buffer takes (15 sectors).
    kMaxWriteSectorsPerCommand = 16,
};

// The embedded boot-loader image, loaded at 0x00010000 and started at 0x00010101.
extern const unsigned char tq_BRom[];
extern const unsigned int tq_BRom_size;

// Asks a running upgrade to stop between two steps. Safe from any thread at any
// time, also while the program's globals are being destroyed; the flash host's
// SetStopUpdate and GetUpdateStatus use the same flag.
void RequestUpgradeStop();

// Creates every folder on the path; 1 on success, 0 when a folder cannot be made.
int CreateMultiDirectory(std::string path);

// The outcome text of every operation that succeeded; the driver compares with it.
extern const char kOperationOkText[];

class CFlashHost {
public:
    CFlashHost();
    ~CFlashHost();
    CFlashHost(const CFlashHost&) = delete;
    CFlashHost& operator=(const CFlashHost&) = delete;

    // The byte port under the serial line: nullptr is the device's terminal; tests
    // and fuzzers hand in a port of their own.
    void UsePort(BytePort* port) { m_comm.UsePort(port); }
    // True once the line failed in a way it does not recover from (unplugged).
    bool LinkLost() const { return m_comm.LinkLost(); }
    // A pause between attempts, on the line's clock (see BytePort::Pause).
    void Pause(unsigned int us) { m_comm.Pause(us); }

    // The link profile for the next connection (the default is the classic link):
    // the serial part goes to the port, the rest shapes the length operations.
    // The only place that knows which link is in use.
    void SetLinkProfile(const LinkProfile& link);

    // Frames and acknowledgement.
    unsigned short CheckSum16(unsigned char* buf, int len);
    unsigned int Swap32(unsigned int value);
    unsigned short Swap16(unsigned short value);
    int CheckAck();

    // Memory and register access.
    int Read_1_byte(unsigned int address, unsigned char* out);
    int Read_2_byte(unsigned int address, unsigned char* out);
    int Read_4_byte(unsigned int address, unsigned char* out);
    int Read_8_byte(unsigned int address, unsigned char* out);
    int Write_1_byte(unsigned int address, unsigned char* value);
    int Write_2_byte(unsigned int address, unsigned char* value);
    int Write_4_byte(unsigned int address, unsigned char* value);
    int Write_8_byte(unsigned int address, unsigned char* value);
    int ReadMemoryLen(unsigned int address, unsigned char* buffer, unsigned int count);
    int WriteMemoryLen(unsigned int address, unsigned char* data, unsigned int count);
    int SetJtag(unsigned char value);
    int SetPC(unsigned int address);

    // Connection bring-up and control.
    int OpenUart();
    int Synchron();
    int GetFlashId();
    int ChangeBaud(unsigned int word);
    int ChangeUartBaud();
    int LoadBRom();
    void Close();
    // The close of a run that succeeded: the link profile's after action (SysReboot,
    // or its line sequence) and then Close. Its failures are warnings only.
    void CloseAfterSuccess();
    // With auto-baud: true once a rate was negotiated; StepRateDown moves target and
    // port one rate down the ladder (0), or -1 when there is no lower rate or the
    // target cannot be reached at it.
    bool RateNegotiated() const { return m_ladderCount > 0; }
    // -c auto: opens `device` at the boot rate, runs the reset sequence and tries the
    // synchronisation, then closes it; 0 when the target answered.
    int ProbeSync(const std::string& device);
    int StepRateDown();
    int SendUpgradeCmd();
    int SysReboot();
    int CheckComm(std::string name);

    void SetComNum(std::string name);
    std::string GetComNum();
    void SetBaud(unsigned int baud);
    unsigned int GetBaud();
    void SetBitUpdateChangeOnly(int flag);
    int GetBitUpdateChangeOnly();
    void SetUseBrom(int flag);
    int GetUseBrom();
    void SetICType(int type);
    int GetICType();
    void SetIndex(int index);
    int GetIndex();
    void SetStartUpdate();  // clears the stop request
    void SetStopUpdate();   // requests a stop; safe from any thread
    int GetUpdateStatus();  // 1 once a stop was requested

    // Flash sectors and length operations.
    int EraseFlash(unsigned int address);
    int ReadSector(unsigned int sector, unsigned char* buffer, unsigned int count);
    int WriteSector(unsigned int sector, unsigned char* data, unsigned int count);
    int EraseFlashLength(unsigned int address, unsigned int length);
    int ReadFlashLength(unsigned int address, unsigned char* buffer, unsigned int length);
    int WriteFlashLength(unsigned int address, unsigned char* data, unsigned int length);

    // The change check: whether flash over the range holds `expected`, read into
    // `scratch` (which holds `length` bytes); *differs is 1 when it does not. The
    // classic link reads the whole range, then compares; the fast link compares each
    // command's piece as it arrives and stops at the first difference, since the
    // range is rewritten anyway. 0 unless a command failed.
    int CheckFlashLength(unsigned int address, const unsigned char* expected,
                         unsigned int length, unsigned char* scratch, int* differs);
    // A write into flash known to be erased. The classic link writes every sector;
    // the fast link does not send the sectors that are all 0xFF, since erased flash
    // already holds them (a read-back still compares them).
    int WriteErasedFlashLength(unsigned int address, unsigned char* data, unsigned int length);

    // The flash identifier read at the last connection, and the capacity it
    // announces (0: unknown, see flash_geometry::FlashCapacityFromId).
    const unsigned char* FlashId() const { return m_flashId; }
    unsigned int FlashIdLength() const { return m_flashIdLength; }
    uint64_t FlashCapacity() const;
    // The responder code of the last identification (above 1: the boot ROM serves
    // the flash itself, so no boot-loader is uploaded).
    int ResponderCode() const { return m_iResponderCode; }

    // Host log.
    bool InitLogFile();
    void WriteLog(std::string text, unsigned int size);
    void WriteLogBuf(std::string title, unsigned char* buf, unsigned int len);

private:
    // A numeric command parameter of 1, 2 or 4 bytes: summed in little-endian
    // form, sent big-endian.
    struct FrameField {
        unsigned int value;
        unsigned int size;
    };

    // Frames and the send-and-acknowledge sequence (frame.cpp).
    unsigned int BuildCommand(unsigned char opcode, const FrameField* fields, int fieldCount,
                              const unsigned char* raw = nullptr, unsigned int rawLen = 0);
    int Exchange(const char* name, unsigned int frameSize, const char* timeoutText,
                 unsigned int pauseUs = 0);
    int DataPhase(const char* name, unsigned char* data, unsigned int count,
                  const char* timeoutText, unsigned int pauseUs);
    int AwaitReply(const char* name, int written, unsigned int expected,
                   const char* timeoutText, unsigned int pauseUs);
    int ReadErrorReply();
    int ReadAckPayload();
    // Leaves the text and the kind of a failed command; always -1.
    int CommandFailed(const char* text);
    unsigned int ReplyPayloadLength() const;
    int CopyPayload(unsigned char* out, unsigned int count);

    // Single-value memory access (memory_commands.cpp).
    int ReadValue(const char* name, unsigned char opcode, unsigned int address,
                  unsigned char* out, unsigned int size, const char* timeoutText);
    int WriteValue(const char* name, unsigned char opcode, unsigned int address,
                   const unsigned char* value, unsigned int size, const char* timeoutText);

    // Bring-up steps (connection.cpp).
    int Connect();
    int CloseWith(const char* text);
    // The port's open and rate changes, each followed by what the port found told
    // to the user (the rate list, the open failure, a refused rate). Seam: the
    // first-contact profile fields (reset lines, rate ceiling) apply here.
    int OpenPort(std::string& device);
    int SetPortRate(unsigned int baud, const char* what);
    int ChangeUartBaudOrClose();
    int StartBootLoader();
    // Modem-line sequences (line_sequence.cpp): 0, or -1 when the port has no
    // modem lines (warned once per run on the error stream).
    int RunLineSequence(const LineSequence& sequence, const char* what);
    // Rate negotiation (rate_ladder.cpp).
    int GoToWorkingRate();
    int NegotiateRate();
    void BuildRateLadder(unsigned int ceiling);
    int ProveRate(const unsigned char* reference, unsigned char* scratch);
    int MoveRate(unsigned int from, unsigned int to);

    // Length operations (flash_commands.cpp).
    unsigned int SectorsPerCommand(bool forRead) const;
    unsigned int SectorPauseUs() const;
    int ReadPiece(unsigned int sector, unsigned char* dest, unsigned int bytes, unsigned int sectors);
    int WritePiece(unsigned int sector, unsigned char* data, unsigned int bytes, unsigned int sectors);
    int CompareFlashPieces(unsigned int address, const unsigned char* expected,
                           unsigned int length, unsigned char* scratch, int* differs);
    int WriteDataSectors(unsigned int address, unsigned char* data, unsigned int length);

    unsigned char m_cmdBuf[kCmdBufferSize];
    // The last, partial sectors of a length operation: padded with 0xFF here for a
    // write, read here for a read, so the caller's buffer is never read or written
    // past the length it gave.
    unsigned char m_partialBuf[kMaxWriteSectorsPerCommand * kSectorSize];
    LinkProfile m_link;

public:
    std::string m_strMsg;  // outcome of the last operation
    // The class of the last failure, set with every -1 beside m_strMsg and cleared
    // by a command that succeeds; Close keeps it.
    FailureKind m_failKind = FailureKind::kNone;

private:
    CCommU m_comm;
    std::string m_strComNum;
    unsigned int m_iBaud = 0;
    int m_iIndex = 0;
    int m_iICType = 0;
    int m_iUpdateChangeOnly = 0;
    int m_iUseBrom = 0;
    int m_iResponderCode = 0;
    unsigned char m_flashId[kFlashIdSize] = {};
    unsigned int m_flashIdLength = 0;
    bool m_linesWarned = false;    // the missing modem lines were reported
    bool m_afterLinesDue = false;  // Close runs the after-action lines
    bool m_latencyNoted = false;   // the lowered latency timer was reported
    enum { kMaxLadder = 16 };
    unsigned int m_rateLadder[kMaxLadder] = {};  // candidate rates, highest first
    unsigned int m_ladderCount = 0;  // 0 until a rate was negotiated
    unsigned int m_ladderPos = 0;    // index of the rate in use
};

extern CFlashHost g_flashHost;
