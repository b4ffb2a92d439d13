#include "frontend/adapter_info.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <vector>

#include "frontend/port_list.h"

namespace {

struct FamilyRow {
    const char* vendor;
    const char* product;  // "" = any product of the vendor
    AdapterFamily family;
};

// The highest dependable rate of each family, at most the top of the rate table.
const FamilyRow kFamilies[] = {
    // FTDI FT232R and FT-X data sheets: up to 3 Mbaud.
    {"0403", "6001", {"FTDI FT232R", 3000000}},
    {"0403", "6015", {"FTDI FT-X", 3000000}},
    // FT2232H/FT4232H/FT232H data sheets: up to 12 Mbaud; 3000000 is the table's top.
    {"0403", "6010", {"FTDI FT2232", 3000000}},
    {"0403", "6011", {"FTDI FT4232", 3000000}},
    {"0403", "6014", {"FTDI FT232H", 3000000}},
    {"0403", "", {"FTDI", 3000000}},
    // CP2102/CP2104 data sheets: up to 1 Mbaud; users report errors above it.
    {"10c4", "ea60", {"CP210x", 1000000}},
    // WCH lists the CH340/CH341 up to 2 Mbaud, but errors at 921600 and above are
    // reported over and over: 921600, the lowest fast rate, is all that is tried.
    {"1a86", "7523", {"CH340", 921600}},
    {"1a86", "5523", {"CH341", 921600}},
    // CH9102 data sheet: up to 4 Mbaud.
    {"1a86", "55d4", {"CH9102", 3000000}},
    // PL2303 parts claim up to 6 or 12 Mbaud depending on the revision; rates above
    // 921600 are not dependable across revisions and drivers.
    {"067b", "2303", {"PL2303", 921600}},
};

std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string BaseName(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The tty name behind a path (by-id links followed).
std::string TtyName(const std::string& device)
{
    char resolved[PATH_MAX];
    return BaseName(realpath(device.c_str(), resolved) ? std::string(resolved) : device);
}

}  // namespace

AdapterFamily AdapterFamilyOf(const std::string& vendor, const std::string& product)
{
    const std::string v = Lower(vendor), p = Lower(product);
    for (const FamilyRow& row : kFamilies) {
        if (v == row.vendor && (*row.product == '\0' || p == row.product))
            return row.family;
    }
    return AdapterFamily{"", 0};
}

AdapterFamily AdapterFamilyOfPort(const std::string& device, const std::string& sysRoot, const std::string& devRoot)
{
    const std::string name = TtyName(device);
    for (const SerialPortInfo& port : ListSerialPorts(sysRoot, devRoot)) {
        if (BaseName(port.path) == name)
            return AdapterFamilyOf(port.vendor, port.product);
    }
    return AdapterFamily{"", 0};
}

bool ModemManagerRunning(const std::string& procRoot)
{
    DIR* dir = opendir(procRoot.c_str());
    if (!dir)
        return false;
    bool found = false;
    while (dirent* entry = readdir(dir)) {
        if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0])))
            continue;
        std::ifstream comm(procRoot + "/" + entry->d_name + "/comm");
        std::string name;
        if (std::getline(comm, name) && name == "ModemManager") {
            found = true;
            break;
        }
    }
    closedir(dir);
    return found;
}

void WarnIfModemManagerProbes(const std::string& device, const std::string& procRoot)
{
    if (TtyName(device).compare(0, 6, "ttyACM") != 0 || !ModemManagerRunning(procRoot))
        return;
    std::fprintf(stderr,
                 "warning: ModemManager is running and may probe %s with AT commands, which disturbs the "
                 "board; stop it or mark the device with ID_MM_DEVICE_IGNORE\n",
                 device.c_str());
}
