#include "tests/support/sim_link.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sstream>

#include "sim/frame_codec.h"
#include "sim/sim_loop.h"
#include "sim/trace_log.h"
#include "sim/wire_bytes.h"

namespace {

const size_t kFrameHeader = 12;

}  // namespace

uint32_t SimCommand::Param32(size_t offset) const
{
    size_t at = kFrameHeader + 1 + offset;
    return frame.size() >= at + 4 ? ksim::LoadBe32(&frame[at]) : 0xFFFFFFFFu;
}

SimLink::SimLink(const ksim::TargetConfig& config) : m_target(config, m_flash, m_faults, m_trace)
{
    std::string error;
    EXPECT_TRUE(m_flash.Open("", kFlashSize, error)) << error;
    EXPECT_TRUE(m_trace.Open(m_dir.File("trace.txt"), error)) << error;
}

void SimLink::SetFaults(const std::vector<std::string>& specs)
{
    m_faults = ksim::FaultPlan();
    std::string error;
    for (const std::string& spec : specs)
        EXPECT_TRUE(m_faults.Add(spec, error)) << error;
}

std::vector<SimCommand> TraceCommands(const std::string& trace)
{
    std::istringstream lines(trace);
    std::vector<SimCommand> commands;
    std::string tag, baud, rest;
    while (lines >> tag >> baud && std::getline(lines, rest)) {
        Bytes bytes = HexBytes(rest);
        if (tag == "rx" && bytes.size() > kFrameHeader && bytes[0] == 'B')
            commands.push_back(SimCommand{baud, bytes, Bytes()});
        else if (tag == "rxdata" && !commands.empty())
            commands.back().data = bytes;
    }
    return commands;
}

std::vector<SimCommand> SimLink::Commands() const
{
    return TraceCommands(ReadText(m_dir.File("trace.txt")).substr(m_traceStart));
}

std::vector<SimCommand> SimLink::CommandsWith(unsigned char opcode) const
{
    std::vector<SimCommand> matching;
    for (const SimCommand& c : Commands())
        if (c.Opcode() == opcode)
            matching.push_back(c);
    return matching;
}

void SimLink::ClearRecord()
{
    m_traceStart = ReadText(m_dir.File("trace.txt")).size();
    written.clear();
}

Bytes SimLink::Flash(uint32_t address, uint32_t length) const
{
    Bytes bytes(length);
    m_flash.Read(address, bytes.data(), length);
    return bytes;
}

void SimLink::Preload(uint32_t address, const Bytes& bytes)
{
    EXPECT_TRUE(m_flash.Program(address, bytes.data(), bytes.size()));
}

// Changing the rate discards both queues, as a terminal does.
int SimLink::Configure(int speed, unsigned int baud)
{
    int result = MemoryPort::Configure(speed, baud);
    Flush();
    return result;
}

// What the port takes reaches the target at once; bytes sent at another speed than
// the target's are lost, as framing errors are. A vanished target hangs the line up.
long SimLink::Write(const unsigned char* buf, size_t len)
{
    if (m_hangUpAtSync != 0 && len == 1 && buf[0] == 0x55 && --m_hangUpAtSync == 0)
        hungUp = true;
    if (hungUp) {
        errno = EIO;
        return -1;
    }
    long n = MemoryPort::Write(buf, len);
    if (n <= 0 || hungUp)
        return n;
    if (rate != m_target.LineSpeed()) {
        m_trace.Ignored(rate, m_target.LineSpeed(), static_cast<size_t>(n));
        return n;
    }
    std::vector<ksim::Reply> replies;
    m_target.Receive(buf, static_cast<size_t>(n), ksim::MonotonicUs(), replies);
    for (const ksim::Reply& reply : replies) {
        Feed(reply.bytes.data(), reply.bytes.size());
        m_trace.Bytes("tx", m_target.LineSpeed(), reply.bytes.data(), reply.bytes.size());
        m_target.ReplySent(reply);
    }
    hungUp = m_target.Vanished();
    return n;
}

Bytes MakeReply(unsigned char flags, const Bytes& payload)
{
    Bytes reply = ksim::BuildAck(0, payload.data(), payload.size());
    reply[4] = flags;
    // The checksum covers the header with its length little-endian and itself zero.
    Bytes hostOrder = reply;
    hostOrder[6] = hostOrder[7] = 0;
    std::reverse(hostOrder.begin() + 8, hostOrder.begin() + 12);
    uint16_t sum = ksim::DataChecksum(hostOrder.data(), hostOrder.size());
    reply[6] = static_cast<unsigned char>(sum >> 8);
    reply[7] = static_cast<unsigned char>(sum);
    return reply;
}

Bytes MakeAck(const Bytes& payload) { return MakeReply(ksim::kAckFlags, payload); }

Bytes MakeErrorReply(unsigned char type) { return MakeReply(ksim::kErrorFlags, Bytes{type}); }

std::string RawReplyFault(const char* command, const Bytes& reply, int nth)
{
    std::string spec = std::string(command) + ":" + std::to_string(nth) + ":raw=";
    char pair[3];
    for (unsigned char b : reply) {
        snprintf(pair, sizeof pair, "%02X", b);
        spec += pair;
    }
    return spec;
}

Bytes HexBytes(const std::string& text)
{
    std::istringstream in(text);
    Bytes bytes;
    unsigned int value;
    while (in >> std::hex >> value)
        bytes.push_back(static_cast<unsigned char>(value));
    return bytes;
}

std::string ToHex(const Bytes& bytes) { return ksim::HexBytes(bytes.data(), bytes.size()); }
