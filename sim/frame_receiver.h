// Splits the byte stream from the host into what the target acts on: single
// synchronisation bytes, command frames, data phases, and runs of garbage.
#pragma once
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace ksim {

enum class RxKind {
    Sync,        // the byte 0x55 between frames
    Frame,       // header and body of a command frame
    BadLength,   // a header whose length fits no command (0 or longer than any command body)
    Data,        // the bytes of a data phase
    Garbage,     // bytes dropped while looking for a sync byte or a magic
};

struct RxItem {
    RxKind kind = RxKind::Garbage;
    std::vector<uint8_t> bytes;
};

class FrameReceiver {
public:
    // Half-received frames and data phases are dropped after this much silence, so a
    // host that gave up in the middle does not wedge the target.
    static constexpr int64_t kQuietUs = 500 * 1000;

    void Append(const uint8_t* data, size_t n, int64_t nowUs);
    // Takes the next complete item from the bytes appended so far.
    bool Next(RxItem& item);
    // The next `count` bytes are a data phase, taken whole whatever they hold; the
    // quiet time for it runs from `nowUs`.
    void ExpectData(size_t count, int64_t nowUs);
    // Drops an unfinished frame or data phase once the line has been quiet for
    // kQuietUs; true when something was dropped, with the count of bytes it held.
    bool DropIfQuiet(int64_t nowUs, size_t& dropped);
    // When DropIfQuiet would next have work to do; -1 when nothing is half received.
    int64_t QuietDeadlineUs() const;
    void Reset();

private:
    enum class State { Idle, Header, Body, Data };

    bool TakeIdleByte(uint8_t byte, RxItem& item);
    bool TakeHeaderByte(uint8_t byte, RxItem& item);
    bool TakeBodyByte(uint8_t byte, RxItem& item);
    bool TakeDataBytes(RxItem& item);
    bool FlushGarbage(RxItem& item);
    void RescanFrom(size_t skip);

    State m_state = State::Idle;
    std::deque<uint8_t> m_pending;       // appended, not yet looked at
    std::vector<uint8_t> m_frame;        // the frame or data phase being collected
    std::vector<uint8_t> m_garbage;      // dropped bytes not yet reported
    size_t m_frameSize = 0;              // header + body of the frame being collected
    size_t m_dataSize = 0;               // bytes of the data phase being collected
    int64_t m_lastByteUs = 0;
};

}  // namespace ksim
