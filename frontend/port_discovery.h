// -c auto: the board's port among the USB serial ports --list-ports finds.
#pragma once
#include <string>

// The word that asks for discovery instead of naming a device.
extern const char kAutoPortWord[];

// One port: that one. Several: each is opened, the reset sequence run (if any) and
// the synchronisation tried; the one port that answers. The chosen port is said on
// standard error. False with the reason and the candidates (their by-id names) in
// `error` when none or more than one is found or answers. The roots are parameters
// for the tests' made-up trees.
bool DiscoverBoardPort(std::string& chosen, std::string& error, const std::string& sysRoot = "/sys",
                       const std::string& devRoot = "/dev");
