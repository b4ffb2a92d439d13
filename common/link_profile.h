// How the link to the target is run: one value, built by the driver from the
// settings and handed to the flash host (SetLinkProfile), which configures its
// serial port with the serial part. Below the driver nothing asks which link is
// in use: the port and the flash host each do their variant inside.
#pragma once

#include <cstdint>

// One step of a modem-line sequence: set DTR and/or RTS (in one call when both are
// given), or wait. "Asserted" is the line's TIOCM bit set.
struct LineStep {
    enum Kind : uint8_t { kLines, kWait };
    enum Level : int8_t { kKeep = -1, kRelease = 0, kAssert = 1 };
    Kind kind = kLines;
    Level dtr = kKeep;
    Level rts = kKeep;
    uint32_t waitMs = 0;
};

// A fixed list of steps: a sequence longer than this is refused when it is read.
struct LineSequence {
    enum { kMaxSteps = 32 };
    LineStep steps[kMaxSteps];
    unsigned int count = 0;
};

struct LinkProfile {
    // What a rate the adapter does not take means.
    enum RatePolicy {
        kSilentFallback,      // classic: the line goes on, the attempt shows whether it works
        kRefuseUnsupported,   // fast: an error naming the rate and the device
    };

    // The fast transport: replies awaited by waiting on the line (no fixed pause
    // after sector commands), the configured sectors per command from 921600 up,
    // erased sectors not sent, the change check stopping at the first difference.
    bool fast = false;
    // Sectors per flash command on the fast link, 1 to 15; 0 = 4.
    unsigned int sectorsPerCommand = 0;
    // Ask the adapter's driver to pass received bytes on at once.
    bool lowLatency = false;
    RatePolicy ratePolicy = kSilentFallback;

    // First contact, all off by default: the modem lines reset the target into its
    // boot ROM right after the port is opened for a connection (before the first
    // sync byte), and say what happens once a run has succeeded.
    LineSequence resetSequence;  // empty: no line is touched
    enum AfterAction {
        kAfterStay,      // the target stays in the boot ROM (the classic end)
        kAfterReboot,    // SysReboot before the port is closed
        kAfterLines,     // afterLines run on the port before it is closed
    };
    AfterAction after = kAfterStay;
    LineSequence afterLines;
    // Fast link only: the working rate is the ceiling; once the boot-loader answers,
    // the rates from there down to the default working rate are tried and the first
    // that carries data both ways is kept; a block attempt that fails at it steps one
    // rate down.
    bool autoBaud = false;
    // The highest rate the adapter is known to carry (0: no limit known).
    unsigned int rateCeiling = 0;
};
