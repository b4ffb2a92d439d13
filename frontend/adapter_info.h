// Adapter awareness (Linux, from sysfs; nothing where it is unknown): the USB-serial
// chip family behind a port, the highest rate that family carries dependably, and
// whether ModemManager may be probing the port.
#pragma once
#include <cstdint>
#include <string>

struct AdapterFamily {
    const char* name;   // "" when the vendor:product is not in the table
    uint32_t maxRate;   // 0: no limit known
};

// The family of a USB vendor:product (4 hex digits each, either case).
AdapterFamily AdapterFamilyOf(const std::string& vendor, const std::string& product);

// The family of the adapter behind a device path (as --list-ports sees it; by-id
// names are followed). Unknown: name "".
AdapterFamily AdapterFamilyOfPort(const std::string& device, const std::string& sysRoot = "/sys",
                                  const std::string& devRoot = "/dev");

// True when a process named ModemManager runs (its /proc/PID/comm).
bool ModemManagerRunning(const std::string& procRoot = "/proc");

// Once per run, on standard error, when the device is a ttyACM port and ModemManager
// runs: it probes such ports with AT commands, which disturbs the board.
void WarnIfModemManagerProbes(const std::string& device, const std::string& procRoot = "/proc");
