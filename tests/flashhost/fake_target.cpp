#include "tests/flashhost/fake_target.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace {

const size_t kHeader = 12;
const unsigned char kSync = 0x55;

uint32_t Be32(const unsigned char* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

uint16_t Sum16(const Bytes& b)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < b.size(); i += 2)
        sum += b[i] | (i + 1 < b.size() ? b[i + 1] << 8 : 0);
    return static_cast<uint16_t>(sum);
}

// Sizes of the numeric parameters after each opcode, in order; data bytes that
// follow them (the single-value writes) are not numbers and keep their order.
std::vector<int> ParameterSizes(unsigned char opcode)
{
    switch (opcode) {
    case 0x00: case 0x01: case 0x02: case 0x03: case 0x04: case 0x05: case 0x06: case 0x07:
    case 0x10: case 0x13:
        return {4};
    case 0x08: case 0x1A:
        return {4, 4};
    case 0x09: case 0x1B:
        return {4, 4, 2};
    case 0x11:
        return {1};
    case 0x19:
        return {1, 4};
    default:
        return {};
    }
}

// The target's view of a frame: length, checksum and parameters turned back to
// little-endian, after which a correct frame sums to 0xFFFF.
bool FrameChecksumOk(const Bytes& frame)
{
    Bytes host(frame);
    std::reverse(host.begin() + 6, host.begin() + 8);
    std::reverse(host.begin() + 8, host.begin() + 12);
    size_t at = kHeader + 1;
    for (int size : ParameterSizes(frame[kHeader])) {
        if (at + size > host.size())
            return false;
        std::reverse(host.begin() + at, host.begin() + at + size);
        at += size;
    }
    return Sum16(host) == 0xFFFF;
}

}  // namespace

uint32_t ReceivedCommand::Param32(size_t offset) const
{
    return Be32(&frame[kHeader + 1 + offset]);
}

Bytes MakeReply(unsigned char flags, const Bytes& payload, unsigned char responder)
{
    Bytes reply = {'B', 'R', 'O', 'M', flags, responder, 0, 0};
    uint32_t length = static_cast<uint32_t>(payload.size());
    for (int i = 0; i < 4; ++i)
        reply.push_back(static_cast<unsigned char>(length >> (8 * i)));  // little-endian to sum
    reply.insert(reply.end(), payload.begin(), payload.end());
    uint16_t check = static_cast<uint16_t>(~Sum16(reply));
    reply[6] = static_cast<unsigned char>(check >> 8);
    reply[7] = static_cast<unsigned char>(check);
    for (int i = 0; i < 4; ++i)
        reply[8 + i] = static_cast<unsigned char>(length >> (24 - 8 * i));
    return reply;
}

Bytes MakeAck(const Bytes& payload) { return MakeReply(0x06, payload); }

Bytes MakeErrorReply(unsigned char type)
{
    Bytes reply = MakeReply(0x05, Bytes());
    reply.push_back(type);
    return reply;
}

FakeTarget::FakeTarget() : m_flash(kFlashSize)
{
    for (uint32_t a = 0; a < kFlashSize; ++a)
        m_flash[a] = static_cast<unsigned char>(a * 31 + (a >> 9));
    if (m_pty.Ok())
        m_thread = std::thread(&FakeTarget::Run, this);
}

FakeTarget::~FakeTarget()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
}

// Caller holds the lock. Counts the matching item when it is not yet its turn.
bool FakeTarget::HangUpDue(unsigned char opcode)
{
    return m_hangUpOpcode == opcode && m_hangUpSkip-- == 0;
}

std::vector<ReceivedCommand> FakeTarget::CommandsWith(unsigned char opcode)
{
    std::vector<ReceivedCommand> some;
    for (const ReceivedCommand& c : Commands())
        if (c.Opcode() == opcode)
            some.push_back(c);
    return some;
}

bool FakeTarget::WaitForRawBytes(size_t count, int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        if (RawBytes().size() >= count)
            return true;
        usleep(2000);
    }
    return false;
}

void FakeTarget::Run()
{
    while (!m_stop && !m_hungUp) {
        pollfd p = {m_pty.Master(), POLLIN, 0};
        if (poll(&p, 1, 5) > 0 && (p.revents & POLLIN)) {
            unsigned char buf[4096];
            ssize_t n = read(m_pty.Master(), buf, sizeof buf);
            if (n > 0) {
                m_pending.insert(m_pending.end(), buf, buf + n);
                std::lock_guard<std::mutex> lock(m_mutex);
                m_raw.insert(m_raw.end(), buf, buf + n);
            }
        }
        while (!m_hungUp && Step()) {
        }
    }
}

bool FakeTarget::Step()
{
    if (m_dataExpected > 0) {
        if (m_pending.size() < m_dataExpected)
            return false;
        Bytes data(m_pending.begin(), m_pending.begin() + m_dataExpected);
        m_pending.erase(m_pending.begin(), m_pending.begin() + m_dataExpected);
        m_dataExpected = 0;
        HandleData(data);
        return true;
    }
    if (m_pending.empty())
        return false;
    if (m_pending[0] == kSync) {
        m_pending.erase(m_pending.begin());
        HandleSync();
        return true;
    }
    static const unsigned char kMagic[4] = {'B', 'R', 'O', 'M'};
    size_t have = std::min<size_t>(4, m_pending.size());
    if (memcmp(m_pending.data(), kMagic, have) == 0) {
        if (m_pending.size() < kHeader)
            return false;
        uint32_t length = Be32(m_pending.data() + 8);
        if (length > 0 && length <= 64) {
            if (m_pending.size() < kHeader + length)
                return false;
            Bytes frame(m_pending.begin(), m_pending.begin() + kHeader + length);
            m_pending.erase(m_pending.begin(), m_pending.begin() + kHeader + length);
            HandleFrame(frame);
            return true;
        }
    }
    m_pending.erase(m_pending.begin());  // a stray byte
    return true;
}

void FakeTarget::HandleSync()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (HangUpDue(kSync)) {
        lock.unlock();
        HangUp();
        return;
    }
    lock.unlock();
    m_pty.Write({'O', 'K'});
}

// Every pending script for this opcode and phase counts the command; the first one
// whose turn it is supplies the reply.
bool FakeTarget::TakeScript(unsigned char opcode, int phase, Bytes* reply)
{
    int chosen = -1;
    for (size_t i = 0; i < m_scripts.size(); ++i) {
        Script& s = m_scripts[i];
        if (s.opcode != opcode || s.phase != phase)
            continue;
        if (s.skip > 0)
            --s.skip;
        else if (chosen < 0)
            chosen = static_cast<int>(i);
    }
    if (chosen < 0)
        return false;
    *reply = m_scripts[chosen].reply;
    m_scripts.erase(m_scripts.begin() + chosen);
    return true;
}

void FakeTarget::HandleFrame(const Bytes& frame)
{
    ReceivedCommand command = {frame, Bytes(), true};
    Bytes reply;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (HangUpDue(command.Opcode())) {
            m_commands.push_back(command);
            m_hungUp = true;
        } else if (TakeScript(command.Opcode(), 0, &reply)) {
            command.answered = false;
        } else if (frame[4] != 0x04 || frame[5] != 0 || !FrameChecksumOk(frame)) {
            reply = MakeErrorReply(3);
        } else {
            reply = NormalReply(command);
        }
        if (!m_hungUp)
            m_commands.push_back(command);
    }
    if (m_hungUp) {
        HangUp();
        return;
    }
    if (!reply.empty())
        m_pty.Write(reply);
}

// Caller holds the lock.
Bytes FakeTarget::NormalReply(const ReceivedCommand& command)
{
    switch (command.Opcode()) {
    case 0x00: case 0x02: case 0x04: case 0x06:
        return MakeAck({1, 2, 3, 4, 5, 6, 7, 8});
    case 0x08: {
        uint32_t count = command.Param32(4);
        if (count > 8190)
            return MakeErrorReply(5);
        Bytes payload(count);
        for (uint32_t i = 0; i < count; ++i)
            payload[i] = static_cast<unsigned char>(i);
        return MakeAck(payload);
    }
    case 0x09:
    case 0x1B: {
        uint32_t count = command.Param32(4);
        m_dataExpected = command.Opcode() == 0x1B ? size_t(count) * 512 : count;
        if (m_dataExpected == 0) {
            Bytes both = MakeAck();  // an empty data phase is acknowledged at once
            Bytes second = MakeAck();
            both.insert(both.end(), second.begin(), second.end());
            return both;
        }
        return MakeAck();
    }
    case 0x18:
        return MakeReply(0x06, m_flashId, m_responder);
    case 0x19: {
        uint32_t block = command.Param32(1) & ~0xFFFFu;
        if (block >= kFlashSize)
            return MakeErrorReply(4);
        std::fill(m_flash.begin() + block, m_flash.begin() + block + 0x10000, 0xFF);
        return MakeAck();
    }
    case 0x1A: {
        uint64_t from = uint64_t(command.Param32(0)) * 512;
        uint64_t bytes = uint64_t(command.Param32(4)) * 512;
        if (from + bytes > kFlashSize || bytes > 8190)
            return MakeErrorReply(4);
        return MakeAck(Bytes(m_flash.begin() + from, m_flash.begin() + from + bytes));
    }
    default:
        return MakeAck();
    }
}

void FakeTarget::HandleData(const Bytes& data)
{
    Bytes reply;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ReceivedCommand& command = m_commands.back();
        command.data = data;
        const unsigned char* check = command.frame.data() + kHeader + 1 + 8;
        uint16_t announced = static_cast<uint16_t>((check[0] << 8) | check[1]);
        if (TakeScript(command.Opcode(), 1, &reply)) {
            command.answered = false;
        } else if (static_cast<uint16_t>(~Sum16(data)) != announced) {
            reply = MakeErrorReply(3);
        } else {
            if (command.Opcode() == 0x1B) {
                uint64_t at = uint64_t(command.Param32(0)) * 512;
                for (size_t i = 0; i < data.size() && at + i < kFlashSize; ++i)
                    m_flash[at + i] &= data[i];  // NOR: programming only clears bits
            }
            reply = MakeAck();
        }
    }
    if (!reply.empty())
        m_pty.Write(reply);
}

void FakeTarget::HangUp()
{
    m_hungUp = true;
    m_pty.CloseMaster();
}
