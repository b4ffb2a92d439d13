// The protocol host: command frames and acknowledgements, memory and flash commands,
// connection bring-up, and the host log. One instance exists: g_flashHost.
#pragma once
#include <atomic>
#include <cstdio>
#include <string>

#include "serial/CCommU.h"

enum {
    kCmdBufferSize = 16384,
    kFrameHeaderSize = 12,
    kMaxReplyPayload = kReplyBufferSize - kFrameHeaderSize,  // 8,190 bytes
    kSectorSize = 512,
    kEraseBlockSize = 65536,
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
    bool LinkLost() const { return m_comm.LineLost(); }

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

    // The fast link (off by default): no fixed pause after sector commands, the
    // configured sectors per command (1 to 15, 0 = 4) at every rate from 921600
    // up, and the serial port's fast mode. Off, every command is the classic one.
    void SetFastLink(bool on);
    bool GetFastLink() const { return m_fastLink; }
    void SetSectorsPerCommand(unsigned int count);

    // Reads the range command by command into `scratch` (which holds `length`
    // bytes) and compares each piece with `expected` as it arrives; the first piece
    // that differs ends the read with *differs set to 1. 0 unless a command failed.
    int CompareFlashLength(unsigned int address, const unsigned char* expected,
                           unsigned int length, unsigned char* scratch, int* differs);
    // WriteFlashLength for flash that is known to be erased: sectors whose bytes
    // are all 0xFF already hold them and are not sent.
    int WriteFlashLengthAfterErase(unsigned int address, unsigned char* data, unsigned int length);

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
    unsigned int ReplyPayloadLength() const;
    int CopyPayload(unsigned char* out, unsigned int count);

    // Single-value memory access (memory_commands.cpp).
    int ReadValue(const char* name, unsigned char opcode, unsigned int address,
                  unsigned char* out, unsigned int size, const char* timeoutText);
    int WriteValue(const char* name, unsigned char opcode, unsigned int address,
                   const unsigned char* value, unsigned int size, const char* timeoutText);

    // Bring-up steps (connection.cpp).
    int CloseWith(const char* text);
    int ChangeUartBaudOrClose();
    int StartBootLoader();

    // Length operations (flash_commands.cpp).
    unsigned int SectorsPerCommand(bool forRead) const;
    unsigned int SectorPauseUs() const;
    int ReadPiece(unsigned int sector, unsigned char* dest, unsigned int bytes, unsigned int sectors);
    int WritePiece(unsigned int sector, unsigned char* data, unsigned int bytes, unsigned int sectors);

    unsigned char m_cmdBuf[kCmdBufferSize];
    // The last, partial sectors of a length operation: padded with 0xFF here for a
    // write, read here for a read, so the caller's buffer is never read or written
    // past the length it gave.
    unsigned char m_partialBuf[kMaxWriteSectorsPerCommand * kSectorSize];
    bool m_fastLink = false;
    unsigned int m_sectorsPerCommand = 0;

public:
    std::string m_strMsg;  // outcome of the last operation

private:
    CCommU m_comm;
    unsigned char* m_pHeader = nullptr;
    std::string m_strComNum;
    unsigned int m_iBaud = 0;
    int m_iIndex = 0;
    int m_iICType = 0;
    int m_iUpdateChangeOnly = 0;
    int m_iUseBrom = 0;
    int m_iResponderCode = 0;
    unsigned char m_flashId[kFlashIdSize] = {};
};

extern CFlashHost g_flashHost;
