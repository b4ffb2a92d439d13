// A made-up USB serial adapter in a fake sysfs and /dev, for the adapter shim's
// KESTREL_SHIM_SYSFS_ROOT (tests/e2e/adapter_shim.c): with the shim preloaded and
// the variable naming `root`, a program sees the adapter at /dev/ttyUSB0 (or the
// name given), its USB identity and driver in /sys, a /dev/serial/by-id link, and
// opening the device reaches the simulator's pty. Laid out as Linux does:
//   sys/devices/pci0000:00/0000:00:14.0/usb1/1-2/            idVendor idProduct serial
//                                                             manufacturer product
//     1-2:1.0/                                                the interface; driver ->
//     1-2:1.0/ttyUSB0/                                        USB serial port: driver ->,
//                                                             latency_timer (FTDI)
//     1-2:1.0/ttyUSB0/tty/ttyUSB0/device -> the port          (ttyACM*: tty/ttyACM0 sits
//                                                             in the interface)
//   sys/class/tty/ttyUSB0 -> the tty folder    sys/dev/char/MAJ:MIN -> the tty folder
//   sys/bus/usb-serial/devices/ttyUSB0 -> the port
//   dev/ttyUSB0 -> the pty    dev/serial/by-id/usb-MANUFACTURER_PRODUCT_SERIAL-if00-port0
//                             (-if00 for ttyACM*) -> ../../ttyUSB0
// Links are relative within the tree, as in sysfs; MAJ:MIN are the pty's.
#pragma once
#include <string>

struct FakeAdapter {
    std::string ttyName = "ttyUSB0";        // ttyUSB* (USB serial driver) or ttyACM* (cdc_acm)
    std::string vendor = "0403";            // idVendor, 4 hex digits
    std::string product = "6001";           // idProduct
    std::string driver = "ftdi_sio";        // cp210x, ch341, pl2303, cdc_acm, ...
    std::string serial = "KS000001";
    std::string manufacturer = "FTDI";      // for the by-id link
    std::string productName = "FT232R_USB_UART";
    int latencyTimer = 16;                  // ms; -1: no latency_timer file (not an FTDI)
};

// Builds the tree under `root` (an existing folder, absolute path) for an adapter
// whose device is `ptyPath`. False when a file or link could not be made.
bool MakeFakeAdapter(const std::string& root, const std::string& ptyPath, const FakeAdapter& adapter = {});

// The port folder's latency_timer as it stands ("" when there is none).
std::string FakeLatencyTimer(const std::string& root, const FakeAdapter& adapter = {});
