// A line driven faster than it carries cleanly: above a rate limit, bits of every
// byte (both directions) flip at random with a given probability per bit. Seeded,
// so that a run can be repeated bit for bit.
#pragma once
#include <cstddef>
#include <cstdint>

namespace ksim {

class LineNoise {
public:
    static constexpr uint32_t kNoLimit = 0xFFFFFFFFu;
    // 1e-3 per bit: a 2 KiB reply survives about once in ten million, a 64 KiB block
    // never, while a sync byte and its answer mostly get through.
    static constexpr double kDefaultBitErrorRate = 1e-3;

    enum class Direction { FromHost, ToHost };

    explicit LineNoise(uint32_t cleanRateMax = kNoLimit, double bitErrorRate = kDefaultBitErrorRate,
                       uint64_t seed = 1);

    void SetCleanRateMax(uint32_t rate) { m_cleanRateMax = rate; }
    uint32_t CleanRateMax() const { return m_cleanRateMax; }
    bool Garbles(uint32_t speed) const { return speed > m_cleanRateMax && m_bitErrorRate > 0; }
    // Flips bits of the `n` bytes travelling at `speed`; returns how many it flipped.
    size_t Garble(Direction direction, uint32_t speed, uint8_t* data, size_t n);

private:
    // Each direction draws its errors from a stream of its own, so where they fall
    // does not depend on how the two directions interleave.
    struct Stream {
        uint64_t state = 0;
        uint64_t cleanBits = 0;   // bits still to pass before the next flip
    };
    uint64_t NextGap(Stream& stream) const;

    uint32_t m_cleanRateMax;
    double m_bitErrorRate;
    Stream m_streams[2];
};

}  // namespace ksim
