// Terminal speed constants to bit rates.
#pragma once
#include <cstdint>
#include <termios.h>

namespace ksim {

// The bit rate of a speed constant; 0 for one that names no fixed rate.
uint32_t SpeedToBaud(speed_t speed);

}  // namespace ksim
