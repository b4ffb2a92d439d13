// How the link to the target is run: one value, built by the driver from the
// settings and handed to the flash host (SetLinkProfile), which configures its
// serial port with the serial part. Below the driver nothing asks which link is
// in use: the port and the flash host each do their variant inside.
#pragma once

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

    // Seam for the first-contact work (reset lines, rate ladder, adapter limits):
    // its fields join here, default off, and are read where the port is opened
    // (CFlashHost::OpenPort) and the rate is changed (CFlashHost::SetPortRate):
    //   resetSequence   - how the modem lines reset the target before the sync
    //   afterAction     - what the lines do once the run ends
    //   autoBaud        - try rates downward until the target answers
    //   rateCeiling     - the highest rate the adapter is known to carry
};
