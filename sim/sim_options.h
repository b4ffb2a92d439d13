// The simulator's command line.
#pragma once
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include "sim/board_wiring.h"
#include "sim/line_noise.h"

namespace ksim {

// The identifier a GetFlashId reply carries unless --flash-id says otherwise.
inline constexpr uint8_t kDefaultFlashId[] = {0xC8, 0x40, 0x16};

struct SimOptions {
    std::string flashPath;                 // empty: flash kept in memory only
    uint32_t flashSize = 4u << 20;
    std::string linkPath;
    std::string tracePath;
    uint8_t responder = 1;
    std::vector<uint8_t> flashId{std::begin(kDefaultFlashId), std::end(kDefaultFlashId)};
    int romFlash = -1;                     // -1: decided by the responder code
    bool firmware = false;
    bool pace = false;
    uint32_t eraseMs = 30;
    uint32_t programMs = 1;
    uint32_t usbLatencyMs = 0;             // every reply held this long (adapter latency timer)
    uint32_t syncFail = 0;
    uint32_t sessions = 0;
    std::vector<std::string> faults;
    Wiring wiring = Wiring::None;
    int lineActiveHigh = -1;               // -1: not given (low)
    std::string modemChannelPath;
    uint32_t cleanRateMax = LineNoise::kNoLimit;
    double bitErrorRate = LineNoise::kDefaultBitErrorRate;
    uint64_t seed = 1;
    bool help = false;

    // Whether the boot ROM serves the flash commands: --rom-flash, or by default
    // whenever the responder code is not 1.
    bool RomServesFlash() const { return romFlash < 0 ? responder != 1 : romFlash == 1; }
};

// Parses argv; false with a message in `error` for anything malformed.
bool ParseSimOptions(int argc, char** argv, SimOptions& options, std::string& error);
const char* SimUsage();

}  // namespace ksim
