// Command frames, their checksums, the send-and-acknowledge sequence every command
// follows, and the reply check.
#include <cstdio>
#include <cstring>

#include "common/byte_order.h"
#include "common/checksum16.h"
#include "flashhost/CFlashHost.h"
#include "flashhost/protocol.h"
#include "common/setting_record.h"

using namespace protocol;

namespace {

const char kTextInvalidResponse[] = "Invalid response!";
const char kTextNoErrorType[] = "Failed to read error type!";
const char kTextPayloadError[] = "Read payload data error!";
const char kTextAckChecksum[] = "Ack checksum error!";
const char kTextNoAck[] = "No ack flag!";
// An acknowledgement announcing more than the reply buffer's 8,190 payload bytes is
// refused before a byte of it is read, and what has arrived of it is thrown away.
const char kTextPayloadTooLong[] = "Payload too long!";
// A reply whose payload is shorter than the data asked for is refused rather than
// padded with whatever the reply buffer held before.
const char kTextPayloadTooShort[] = "Reply payload too short!";

const char* const kErrorTypeTexts[] = {
    nullptr, "Unknown CMD!", "CMD timeout!", "CMD checksum error!", "CMD invalid!", "CMD no mem!",
};

// Only a write that took every byte counts as sent. A system error or a partial
// write leaves the target waiting for bytes that never come; the reply is still
// awaited so that nothing it might send is left for the next command.
bool WroteAll(int written, unsigned int expected)
{
    return written >= 0 && static_cast<unsigned int>(written) == expected;
}

}  // namespace

const char kOperationOkText[] = "Operation OK !";

int CFlashHost::CommandFailed(const char* text)
{
    m_strMsg = text;
    m_failKind = FailureKind::kFlashCommand;
    return -1;
}

unsigned short CFlashHost::CheckSum16(unsigned char* buf, int len)
{
    return Sum16Words(buf, len);
}

unsigned int CFlashHost::Swap32(unsigned int value)
{
    return (value >> 24) | ((value >> 8) & 0xFF00u) | ((value << 8) & 0xFF0000u) | (value << 24);
}

unsigned short CFlashHost::Swap16(unsigned short value)
{
    return static_cast<unsigned short>((value >> 8) | (value << 8));
}

// The header checksum is taken over the frame in host order (length and every
// numeric parameter little-endian, checksum field 0); only then are those fields
// rewritten big-endian for the wire.
unsigned int CFlashHost::BuildCommand(unsigned char opcode, const FrameField* fields,
                                      int fieldCount, const unsigned char* raw,
                                      unsigned int rawLen)
{
    memset(m_cmdBuf, 0, sizeof m_cmdBuf);
    memcpy(m_cmdBuf, kMagic, sizeof kMagic);
    m_cmdBuf[kFlagsOffset] = kFlagChecksum;

    unsigned char* body = m_cmdBuf + kFrameHeaderSize;
    unsigned int length = 0;
    body[length++] = opcode;
    for (int i = 0; i < fieldCount; ++i) {
        StoreLeN(body + length, fields[i].value, fields[i].size);
        length += fields[i].size;
    }
    if (rawLen > 0) {
        memcpy(body + length, raw, rawLen);  // data bytes travel as they lie in memory
        length += rawLen;
    }
    StoreLe32(m_cmdBuf + kLengthOffset, length);
    unsigned short check = static_cast<unsigned short>(
        ~CheckSum16(m_cmdBuf, static_cast<int>(kFrameHeaderSize + length)));

    StoreBe32(m_cmdBuf + kLengthOffset, length);
    StoreBe16(m_cmdBuf + kChecksumOffset, check);
    unsigned int offset = 1;
    for (int i = 0; i < fieldCount; ++i) {
        StoreBeN(body + offset, fields[i].value, fields[i].size);
        offset += fields[i].size;
    }
    return kFrameHeaderSize + length;
}

int CFlashHost::Exchange(const char* name, unsigned int frameSize, const char* timeoutText,
                         unsigned int pauseUs)
{
    WriteLogBuf(std::string(name) + " cmd:", m_cmdBuf, frameSize);
    int written = m_comm.WriteMsg(m_cmdBuf, frameSize);
    return AwaitReply(name, written, frameSize, timeoutText, pauseUs);
}

// The data phase of a two-phase command: the bytes go straight from the caller's
// memory, unframed, and get a reply header of their own.
int CFlashHost::DataPhase(const char* name, unsigned char* data, unsigned int count,
                          const char* timeoutText, unsigned int pauseUs)
{
    int written = m_comm.WriteMsg(data, count);
    return AwaitReply(name, written, count, timeoutText, pauseUs);
}

int CFlashHost::AwaitReply(const char* name, int written, unsigned int expected,
                           const char* timeoutText, unsigned int pauseUs)
{
    if (pauseUs > 0)
        m_comm.Pause(pauseUs);
    unsigned int readResult = m_comm.ReadMsg(m_comm.RecvBuf, kFrameHeaderSize);
    if (!WroteAll(written, expected) || readResult != 0) {
        return CommandFailed(timeoutText);
    }
    WriteLogBuf(std::string(name) + " rps:", m_comm.RecvBuf, kFrameHeaderSize);
    return CheckAck();
}

int CFlashHost::CheckAck()
{
    unsigned char* header = m_comm.RecvBuf;
    if (memcmp(header, kMagic, sizeof kMagic) != 0) {
        WriteLogBuf("Error rps:", header, kFrameHeaderSize);
        printf("magic:0x%08X, 0x%08X\n", static_cast<unsigned int>(LoadLe32(header)),
               static_cast<unsigned int>(kMagicWord));
        m_comm.DrainInput();  // the rest of an unreadable reply must not start the next one
        return CommandFailed(kTextInvalidResponse);
    }
    unsigned char flags = header[kFlagsOffset];
    if (flags & kFlagError)  // tested first: a reply with both bits is an error reply
        return ReadErrorReply();
    if (flags & kFlagAck)
        return ReadAckPayload();
    return CommandFailed(kTextNoAck);
}

int CFlashHost::ReadErrorReply()
{
    if (m_comm.ReadMsg(m_comm.RecvBuf, 1) != 0) {
        return CommandFailed(kTextNoErrorType);
    }
    unsigned char type = m_comm.RecvBuf[0];
    WriteLogBuf("Error type rps:", m_comm.RecvBuf, 1);
    if (type >= 1 && type <= 5) {
        m_strMsg = kErrorTypeTexts[type];
    } else {
        // Outside the known types only the byte itself says anything.
        char text[40];
        snprintf(text, sizeof text, "Unknown error type 0x%02X!", type);
        m_strMsg = text;
    }
    m_failKind = FailureKind::kFlashCommand;
    return -1;
}

int CFlashHost::ReadAckPayload()
{
    unsigned char* header = m_comm.RecvBuf;
    unsigned int length = LoadBe32(header + kLengthOffset);
    StoreLe32(header + kLengthOffset, length);
    StoreLe16(header + kChecksumOffset, LoadBe16(header + kChecksumOffset));

    if (length > static_cast<unsigned int>(kMaxReplyPayload)) {
        m_comm.DrainInput();
        return CommandFailed(kTextPayloadTooLong);
    }
    unsigned char* payload = header + kFrameHeaderSize;
    if (m_comm.ReadMsg(payload, length) != 0) {
        return CommandFailed(kTextPayloadError);
    }
    if (g_Setting.bLogLevel >= 2 && length > 0)
        WriteLogBuf("Payload rps:", payload, length);
    if ((header[kFlagsOffset] & kFlagChecksum) &&
        CheckSum16(header, static_cast<int>(kFrameHeaderSize + length)) != 0xFFFF) {
        return CommandFailed(kTextAckChecksum);
    }
    m_strMsg = kOperationOkText;
    m_failKind = FailureKind::kNone;
    return 0;
}

// After CheckAck the reply's length field is in host order.
unsigned int CFlashHost::ReplyPayloadLength() const
{
    return LoadLe32(m_comm.RecvBuf + kLengthOffset);
}

int CFlashHost::CopyPayload(unsigned char* out, unsigned int count)
{
    if (ReplyPayloadLength() < count) {
        return CommandFailed(kTextPayloadTooShort);
    }
    if (count > 0)
        memcpy(out, m_comm.RecvBuf + kFrameHeaderSize, count);
    return 0;
}
