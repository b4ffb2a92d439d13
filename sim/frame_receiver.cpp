#include "sim/frame_receiver.h"

#include <algorithm>

#include "sim/frame_codec.h"
#include "sim/opcodes.h"
#include "sim/wire_bytes.h"

namespace ksim {

namespace {
constexpr uint8_t kSyncByte = 0x55;
}

void FrameReceiver::Append(const uint8_t* data, size_t n, int64_t nowUs)
{
    m_pending.insert(m_pending.end(), data, data + n);
    if (n > 0)
        m_lastByteUs = nowUs;
}

bool FrameReceiver::Next(RxItem& item)
{
    if (m_state == State::Data)
        return TakeDataBytes(item);
    while (!m_pending.empty()) {
        uint8_t byte = m_pending.front();
        m_pending.pop_front();
        bool done = false;
        switch (m_state) {
        case State::Idle: done = TakeIdleByte(byte, item); break;
        case State::Header: done = TakeHeaderByte(byte, item); break;
        case State::Body: done = TakeBodyByte(byte, item); break;
        case State::Data: break;
        }
        if (done)
            return true;
    }
    // Report dropped bytes once everything available has been looked at.
    return FlushGarbage(item);
}

void FrameReceiver::ExpectData(size_t count, int64_t nowUs)
{
    m_state = State::Data;
    m_lastByteUs = nowUs;
    m_dataSize = count;
    m_frame.clear();
}

bool FrameReceiver::TakeIdleByte(uint8_t byte, RxItem& item)
{
    if (byte == kSyncByte || byte == kMagic[0]) {
        // A resynchronisation point: report the garbage before it first.
        if (!m_garbage.empty()) {
            m_pending.push_front(byte);
            return FlushGarbage(item);
        }
        if (byte == kSyncByte) {
            item.kind = RxKind::Sync;
            item.bytes.assign(1, byte);
            return true;
        }
        m_frame.assign(1, byte);
        m_state = State::Header;
        return false;
    }
    m_garbage.push_back(byte);
    return false;
}

bool FrameReceiver::TakeHeaderByte(uint8_t byte, RxItem& item)
{
    size_t at = m_frame.size();
    if (at < sizeof kMagic && byte != kMagic[at]) {
        // Not a magic after all: the first byte is garbage, the rest is looked at again.
        m_frame.push_back(byte);
        RescanFrom(1);
        return false;
    }
    m_frame.push_back(byte);
    if (m_frame.size() < kHeaderSize)
        return false;
    uint32_t length = LoadBe32(&m_frame[8]);
    if (length == 0 || length > kMaxCommandBody) {
        item.kind = RxKind::BadLength;
        item.bytes.swap(m_frame);
        m_frame.clear();
        m_state = State::Idle;
        return true;
    }
    m_frameSize = kHeaderSize + length;
    m_state = State::Body;
    return false;
}

bool FrameReceiver::TakeBodyByte(uint8_t byte, RxItem& item)
{
    m_frame.push_back(byte);
    if (m_frame.size() < m_frameSize)
        return false;
    item.kind = RxKind::Frame;
    item.bytes.swap(m_frame);
    m_frame.clear();
    m_state = State::Idle;
    return true;
}

bool FrameReceiver::TakeDataBytes(RxItem& item)
{
    while (m_frame.size() < m_dataSize && !m_pending.empty()) {
        size_t take = std::min(m_dataSize - m_frame.size(), m_pending.size());
        m_frame.insert(m_frame.end(), m_pending.begin(), m_pending.begin() + static_cast<long>(take));
        m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<long>(take));
    }
    if (m_frame.size() < m_dataSize)
        return false;
    item.kind = RxKind::Data;
    item.bytes.swap(m_frame);
    m_frame.clear();
    m_state = State::Idle;
    return true;
}

bool FrameReceiver::FlushGarbage(RxItem& item)
{
    if (m_garbage.empty())
        return false;
    item.kind = RxKind::Garbage;
    item.bytes.swap(m_garbage);
    m_garbage.clear();
    return true;
}

void FrameReceiver::RescanFrom(size_t skip)
{
    m_garbage.insert(m_garbage.end(), m_frame.begin(), m_frame.begin() + static_cast<long>(skip));
    m_pending.insert(m_pending.begin(), m_frame.begin() + static_cast<long>(skip), m_frame.end());
    m_frame.clear();
    m_state = State::Idle;
}

bool FrameReceiver::DropIfQuiet(int64_t nowUs, size_t& dropped)
{
    int64_t deadline = QuietDeadlineUs();
    if (deadline < 0 || nowUs < deadline)
        return false;
    dropped = m_frame.size();
    m_frame.clear();
    m_state = State::Idle;
    return true;
}

int64_t FrameReceiver::QuietDeadlineUs() const
{
    if (m_state == State::Idle || !m_pending.empty())
        return -1;
    return m_lastByteUs + kQuietUs;
}

void FrameReceiver::Reset()
{
    m_state = State::Idle;
    m_pending.clear();
    m_frame.clear();
    m_garbage.clear();
    m_frameSize = 0;
    m_dataSize = 0;
}

}  // namespace ksim
