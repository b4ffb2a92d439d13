// Finding the board: every USB serial port with what sysfs says about it.
#pragma once
#include <string>
#include <vector>

struct SerialPortInfo {
    std::string path;     // /dev/ttyUSB0
    std::string vendor;   // USB idVendor, 4 hex digits ("" when not a USB device)
    std::string product;  // USB idProduct
    std::string serial;   // USB serial number string
    std::string driver;   // kernel driver of the interface
    std::string byId;     // /dev/serial/by-id/... link naming it, when there is one
};

// Ports named ttyUSB* and ttyACM* under `devRoot`, in name order, described from
// `sysRoot` (the roots are parameters so that tests can use a made-up tree).
std::vector<SerialPortInfo> ListSerialPorts(const std::string& sysRoot = "/sys",
                                            const std::string& devRoot = "/dev");
