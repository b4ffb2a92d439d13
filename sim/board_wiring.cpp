#include "sim/board_wiring.h"

namespace ksim {

ChipPins BoardWiring::Pins(const ModemLines& lines) const
{
    ChipPins pins;
    switch (wiring) {
    case Wiring::None:
        break;
    // Each transistor pulls its pin low only while its own line is asserted and the
    // other is not; with both lines equal neither pin moves, so a terminal program
    // that raises or drops both at once leaves the chip alone.
    case Wiring::TwoTransistorRtsReset:
        pins.resetHeld = lines.rts && !lines.dtr;
        pins.bootStrapHeld = lines.dtr && !lines.rts;
        break;
    case Wiring::TwoTransistorDtrReset:
        pins.resetHeld = lines.dtr && !lines.rts;
        pins.bootStrapHeld = lines.rts && !lines.dtr;
        break;
    case Wiring::DirectRtsReset:
        pins.resetHeld = lines.rts != activeHigh;
        pins.bootStrapHeld = lines.dtr != activeHigh;
        break;
    case Wiring::DirectDtrReset:
        pins.resetHeld = lines.dtr != activeHigh;
        pins.bootStrapHeld = lines.rts != activeHigh;
        break;
    }
    return pins;
}

bool ParseWiring(const std::string& name, Wiring& wiring)
{
    static const struct {
        const char* name;
        Wiring wiring;
    } kNames[] = {
        {"two-transistor-rts-reset", Wiring::TwoTransistorRtsReset},
        {"two-transistor-dtr-reset", Wiring::TwoTransistorDtrReset},
        {"direct-rts-reset", Wiring::DirectRtsReset},
        {"direct-dtr-reset", Wiring::DirectDtrReset},
    };
    for (const auto& entry : kNames) {
        if (name == entry.name) {
            wiring = entry.wiring;
            return true;
        }
    }
    return false;
}

}  // namespace ksim
