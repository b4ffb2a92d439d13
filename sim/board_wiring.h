// How the adapter's modem lines reach the chip's reset input and boot strap pin.
#pragma once
#include <string>

namespace ksim {

enum class Wiring {
    None,                   // no lines wired: the chip never sees the host's DTR or RTS
    TwoTransistorRtsReset,  // the common two-transistor circuit, RTS drives reset
    TwoTransistorDtrReset,  // the same circuit with the roles of DTR and RTS swapped
    DirectRtsReset,         // RTS straight to reset, DTR straight to the boot strap
    DirectDtrReset,         // DTR straight to reset, RTS straight to the boot strap
};

// The host's view of the lines: true while the line is asserted (its TIOCM bit set).
struct ModemLines {
    bool dtr = false;
    bool rts = false;
    bool operator==(const ModemLines& other) const { return dtr == other.dtr && rts == other.rts; }
    bool operator!=(const ModemLines& other) const { return !(*this == other); }
};

// What the chip's pins see: true while the input is active.
struct ChipPins {
    bool resetHeld = false;
    bool bootStrapHeld = false;
};

struct BoardWiring {
    Wiring wiring = Wiring::None;
    // Direct wirings only. An adapter drives an asserted line low; with active-low
    // inputs (the default) a pin is active while the host asserts its line, with
    // active-high inputs while the host releases it.
    bool activeHigh = false;

    bool Wired() const { return wiring != Wiring::None; }
    ChipPins Pins(const ModemLines& lines) const;
};

// "two-transistor-rts-reset" and the like; false for an unknown name.
bool ParseWiring(const std::string& name, Wiring& wiring);

}  // namespace ksim
