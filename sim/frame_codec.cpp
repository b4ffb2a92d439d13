#include "sim/frame_codec.h"

#include <algorithm>
#include <cstring>

#include "sim/wire_bytes.h"

namespace ksim {

const uint8_t kMagic[4] = {0x42, 0x52, 0x4F, 0x4D};

namespace {

std::vector<uint8_t> BuildReply(uint8_t flags, uint8_t responder, const uint8_t* body, size_t n)
{
    std::vector<uint8_t> frame(kHeaderSize + n, 0);
    std::memcpy(frame.data(), kMagic, sizeof kMagic);
    frame[4] = flags;
    frame[5] = responder;
    StoreLe32(&frame[8], static_cast<uint32_t>(n));
    if (n > 0)
        std::memcpy(&frame[kHeaderSize], body, n);
    uint16_t checksum = static_cast<uint16_t>(~WordSum16(frame.data(), frame.size()));
    StoreBe16(&frame[6], checksum);
    StoreBe32(&frame[8], static_cast<uint32_t>(n));
    return frame;
}

}  // namespace

uint16_t CommandChecksum(const uint8_t* frame, const OpcodeInfo& op)
{
    uint8_t host[kHeaderSize + kMaxCommandBody];
    size_t size = kHeaderSize + op.bodyLength;
    std::memcpy(host, frame, size);
    host[6] = host[7] = 0;
    std::reverse(host + 8, host + 12);
    size_t offset = kHeaderSize + 1;
    for (uint8_t fieldSize : op.fieldSizes) {
        if (fieldSize == 0)
            break;
        std::reverse(host + offset, host + offset + fieldSize);
        offset += fieldSize;
    }
    return static_cast<uint16_t>(~WordSum16(host, size));
}

bool CommandChecksumOk(const uint8_t* frame, const OpcodeInfo& op)
{
    return CommandChecksum(frame, op) == LoadBe16(frame + 6);
}

uint16_t DataChecksum(const uint8_t* data, size_t n)
{
    return static_cast<uint16_t>(~WordSum16(data, n));
}

std::vector<uint8_t> BuildAck(uint8_t responder, const uint8_t* payload, size_t n)
{
    return BuildReply(kAckFlags, responder, payload, n);
}

std::vector<uint8_t> BuildError(uint8_t responder, uint8_t type)
{
    return BuildReply(kErrorFlags, responder, &type, 1);
}

}  // namespace ksim
