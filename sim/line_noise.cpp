#include "sim/line_noise.h"

#include <cmath>

namespace ksim {

namespace {

// splitmix64: small, fast and the same on every platform.
uint64_t NextRandom(uint64_t& state)
{
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

}  // namespace

LineNoise::LineNoise(uint32_t cleanRateMax, double bitErrorRate, uint64_t seed)
    : m_cleanRateMax(cleanRateMax), m_bitErrorRate(bitErrorRate)
{
    for (int i = 0; i < 2; ++i) {
        m_streams[i].state = seed * 2 + static_cast<uint64_t>(i);
        m_streams[i].cleanBits = NextGap(m_streams[i]);
    }
}

// Independent errors with probability p per bit leave geometrically distributed runs
// of clean bits between them; drawing the run length costs one number per error
// instead of one per bit.
uint64_t LineNoise::NextGap(Stream& stream) const
{
    if (m_bitErrorRate >= 1.0)
        return 0;
    if (m_bitErrorRate <= 0.0)
        return UINT64_MAX;
    // A uniform number in (0, 1].
    double u = (static_cast<double>(NextRandom(stream.state) >> 11) + 1.0) / 9007199254740992.0;
    double gap = std::floor(std::log(u) / std::log1p(-m_bitErrorRate));
    return gap >= 1e18 ? UINT64_MAX : static_cast<uint64_t>(gap);
}

size_t LineNoise::Garble(Direction direction, uint32_t speed, uint8_t* data, size_t n)
{
    if (!Garbles(speed))
        return 0;
    Stream& stream = m_streams[direction == Direction::FromHost ? 0 : 1];
    const uint64_t total = static_cast<uint64_t>(n) * 8;
    uint64_t bit = 0;
    size_t flipped = 0;
    while (stream.cleanBits < total - bit) {
        bit += stream.cleanBits;
        data[bit / 8] = static_cast<uint8_t>(data[bit / 8] ^ (1u << (bit % 8)));
        ++flipped;
        ++bit;
        stream.cleanBits = NextGap(stream);
    }
    stream.cleanBits -= total - bit;
    return flipped;
}

}  // namespace ksim
