// Frame layout seen from the target: checking command frames and building replies.
//
// A frame is a 12-byte header ("BROM", flags, responder code, checksum, length) and
// `length` body bytes. Length, checksum and every multi-byte command parameter travel
// big-endian, but the checksum is the complement of the word sum taken with those
// fields little-endian and the checksum field zero. Reply payloads are data and are
// summed as they travel.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "sim/opcodes.h"

namespace ksim {

constexpr size_t kHeaderSize = 12;
constexpr uint8_t kFlagError = 0x01;
constexpr uint8_t kFlagAck = 0x02;
constexpr uint8_t kFlagChecksum = 0x04;
constexpr uint8_t kCommandFlags = kFlagChecksum;
constexpr uint8_t kAckFlags = kFlagAck | kFlagChecksum;
constexpr uint8_t kErrorFlags = kFlagError | kFlagChecksum;

// Error types of an error reply.
enum ErrorType : uint8_t {
    kErrUnknownCommand = 1,
    kErrTimeout = 2,
    kErrChecksum = 3,
    kErrInvalid = 4,
    kErrNoMemory = 5,
};

extern const uint8_t kMagic[4];

// The checksum a command frame must carry: the complement of the word sum over the
// frame in host order. `frame` holds the whole frame (header and op.bodyLength body
// bytes) as it travels; its own checksum field is ignored.
uint16_t CommandChecksum(const uint8_t* frame, const OpcodeInfo& op);
bool CommandChecksumOk(const uint8_t* frame, const OpcodeInfo& op);

// Complement of the word sum over bulk data (the data phase check value).
uint16_t DataChecksum(const uint8_t* data, size_t n);

// An acknowledgement (flags 0x06) carrying `payload`, with a correct header checksum.
std::vector<uint8_t> BuildAck(uint8_t responder, const uint8_t* payload, size_t n);
// An error reply: header with the error flag, `length` 1, and the type byte.
std::vector<uint8_t> BuildError(uint8_t responder, uint8_t type);

}  // namespace ksim
