// The modem-line sequence grammar of --reset and --after, and their presets.
#pragma once
#include <string>

#include "common/link_profile.h"

// SEQ is a preset name or comma-separated steps: D1/D0 assert/release DTR, R1/R0
// the same for RTS, two of them joined by '+' set both lines in one call (D1+R0),
// W<ms> waits (at most 10000 ms). Presets:
//   none      no line is touched
//   classic   the common two-transistor circuit, RTS to reset and DTR to the boot
//             strap: D0+R1,W100,D1+R0,W50,D0 (reset held, released with the strap
//             held, strap released)
//   inverted  the same circuit wired the other way, DTR to reset and RTS to the
//             strap: D1+R0,W100,D0+R1,W50,R0
// False with the reason in `error` for anything else.
bool ParseLineSequence(const std::string& text, LineSequence& out, std::string& error);

// --after: empty or "stay" (the classic end), "reboot" (SysReboot), or a sequence.
bool ParseAfterAction(const std::string& text, LinkProfile& link, std::string& error);
