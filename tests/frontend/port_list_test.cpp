// The port lister reads sysfs: a made-up tree shaped like the kernel's (a USB
// device folder with its ids, an interface, the tty's device link and driver link)
// is handed to it as its roots.
#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "frontend/adapter_info.h"
#include "frontend/port_list.h"
#include "tests/support/fake_sysfs.h"
#include "tests/support/process.h"

namespace {

void MakeFolders(const std::string& path)
{
    for (size_t at = 1; at != std::string::npos; at = path.find('/', at + 1))
        mkdir(path.substr(0, at).c_str(), 0755);
    mkdir(path.c_str(), 0755);
}

size_t OpenDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

TEST(PortList, UsbIdsSerialDriverAndByIdNameComeFromSysfsAndEveryFolderReadIsClosed)
{
    TempDir dir;
    const std::string sys = dir.File("sys"), dev = dir.File("dev");
    ASSERT_TRUE(MakeFakeAdapter(dir.Path(), "/dev/null"));
    for (const char* name : {"ttyACM0", "ttyS0", "console"})
        WriteText(dev + "/" + name, "");

    const size_t descriptors = OpenDescriptors();
    const std::vector<SerialPortInfo> ports = ListSerialPorts(sys, dev);
    EXPECT_EQ(descriptors, OpenDescriptors());
    ASSERT_EQ(2u, ports.size()) << "ttyS0 and console are not USB serial ports";
    EXPECT_EQ(dev + "/ttyACM0", ports[0].path);
    EXPECT_EQ("", ports[0].vendor) << "no sysfs entry: nothing invented";
    EXPECT_EQ("", ports[0].byId);
    const SerialPortInfo& usb = ports[1];  // path, vendor, product, serial, driver, by-id name
    EXPECT_EQ((std::vector<std::string>{dev + "/ttyUSB0", "0403", "6001", "KS000001", "ftdi_sio",
                                        dev + "/serial/by-id/usb-FTDI_FT232R_USB_UART_KS000001-if00-port0"}),
              (std::vector<std::string>{usb.path, usb.vendor, usb.product, usb.serial, usb.driver, usb.byId}));
}

// The tool looks at the real /sys and /dev (whatever ports this machine has): the
// table's heading or one JSON line per port, and the result line last.
TEST(PortList, TheToolListsTheMachinesPortsAndSucceeds)
{
    ProcessResult table = RunProcess(ToolPath(), {"--list-ports"});
    EXPECT_EQ(0, table.exitStatus);
    EXPECT_EQ(0u, table.out.find("PORT             VID:PID   SERIAL")) << table.out;
    ProcessResult json = RunProcess(ToolPath(), {"--json", "--list-ports"});
    EXPECT_EQ(0, json.exitStatus);
    const size_t result = json.out.find("\"event\":\"result\"");
    ASSERT_NE(std::string::npos, result) << json.out;
    EXPECT_EQ(json.out.size(), json.out.find('\n', result) + 1) << "the result line is the last";
}

}  // namespace

// Adapter awareness: the family table by vendor:product (either case), and
// ModemManager found by its process name.
TEST(AdapterInfo, FamilyAndItsHighestDependableRate)
{
    const struct { const char *vendor, *product, *family; uint32_t maxRate; } rows[] = {
        {"0403", "6001", "FTDI FT232R", 3000000}, {"0403", "6099", "FTDI", 3000000},
        {"10C4", "EA60", "CP210x", 1000000},      {"1a86", "7523", "CH340", 921600},
        {"067b", "2303", "PL2303", 921600},       {"2e8a", "000a", "", 0}, {"", "", "", 0},
    };
    for (const auto& row : rows) {
        const AdapterFamily f = AdapterFamilyOf(row.vendor, row.product);
        EXPECT_STREQ(row.family, f.name) << row.vendor << ":" << row.product;
        EXPECT_EQ(row.maxRate, f.maxRate) << row.vendor << ":" << row.product;
    }
}

TEST(AdapterInfo, ModemManagerIsFoundByItsProcessName)
{
    TempDir dir;
    const std::string proc = dir.File("proc");
    MakeFolders(proc + "/1");
    MakeFolders(proc + "/self");
    WriteText(proc + "/1/comm", "systemd\n");
    WriteText(proc + "/self/comm", "ModemManager\n");  // not a process number
    EXPECT_FALSE(ModemManagerRunning(proc));
    MakeFolders(proc + "/812");
    WriteText(proc + "/812/comm", "ModemManager\n");
    EXPECT_TRUE(ModemManagerRunning(proc));
    for (const char* device : {"/dev/ttyUSB0", "/dev/ttyACM0"}) {  // it probes ACM ports only
        testing::internal::CaptureStderr();
        WarnIfModemManagerProbes(device, proc);
        EXPECT_EQ(Has(device, "ACM"), Has(testing::internal::GetCapturedStderr(), "ModemManager is running")) << device;
    }
    EXPECT_FALSE(ModemManagerRunning(dir.File("none")));
}
