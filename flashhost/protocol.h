// Wire constants of the request/acknowledge protocol and the texts shared by several
// commands. Private to the flash host.
#pragma once
#include <cstdint>

namespace protocol {

// Frame header flags (byte 4).
const unsigned char kFlagError = 0x01;
const unsigned char kFlagAck = 0x02;
const unsigned char kFlagChecksum = 0x04;  // every command carries it

const unsigned char kMagic[4] = {'B', 'R', 'O', 'M'};
const uint32_t kMagicWord = 0x4D4F5242;  // "BROM" read as a little-endian word

// Header offsets.
const unsigned int kFlagsOffset = 4;
const unsigned int kResponderOffset = 5;
const unsigned int kChecksumOffset = 6;
const unsigned int kLengthOffset = 8;

// Opcodes (first body byte of a command).
enum Opcode : unsigned char {
    kRead1 = 0x00,
    kWrite1 = 0x01,
    kRead2 = 0x02,
    kWrite2 = 0x03,
    kRead4 = 0x04,
    kWrite4 = 0x05,
    kRead8 = 0x06,
    kWrite8 = 0x07,
    kReadMemoryLen = 0x08,
    kWriteMemoryLen = 0x09,
    kChangeBaud = 0x10,
    kSetJtag = 0x11,
    kSysReboot = 0x12,
    kSetPC = 0x13,
    kGetFlashId = 0x18,
    kEraseFlash = 0x19,
    kReadSector = 0x1A,
    kWriteSector = 0x1B,
};

// Wait-for-ack texts used by more than one command.
const char kTextRead1Timeout[] = "Cmd read 1 byte waits for ack timeout or comm error!";
const char kTextReadSectorsTimeout[] = "Cmd read sectors waits for ack timeout or comm error!";
const char kTextWriteSectorsTimeout[] = "Cmd write sectors waits for ack timeout or comm error!";
// ReadSector and ReadMemoryLen take their data in one reply, which holds at most
// 8,190 payload bytes: a larger request is refused before anything is sent.
const char kTextReadTooLong[] = "Read request exceeds the 8190-byte reply buffer!";

}  // namespace protocol
