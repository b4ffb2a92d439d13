#include "tests/support/fake_sysfs.h"

#include <cerrno>
#include <fstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

namespace {

const char kUsbDevice[] = "sys/devices/pci0000:00/0000:00:14.0/usb1/1-2";

bool IsAcm(const FakeAdapter& adapter) { return adapter.ttyName.compare(0, 6, "ttyACM") == 0; }

std::string Interface() { return std::string(kUsbDevice) + "/1-2:1.0"; }

// The device the tty hangs off: the USB serial port, or for cdc_acm the interface.
std::string PortFolder(const FakeAdapter& adapter)
{
    return IsAcm(adapter) ? Interface() : Interface() + "/" + adapter.ttyName;
}

std::string TtyFolder(const FakeAdapter& adapter) { return PortFolder(adapter) + "/tty/" + adapter.ttyName; }

std::vector<std::string> Split(const std::string& path)
{
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos)
            slash = path.size();
        if (slash > start)
            parts.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    return parts;
}

bool MakeFolders(const std::string& root, const std::string& folder)
{
    std::string path = root;
    for (const std::string& part : Split(folder)) {
        path += "/" + part;
        if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    }
    return true;
}

bool WriteFile(const std::string& root, const std::string& file, const std::string& text)
{
    std::ofstream out(root + "/" + file);
    out << text << "\n";
    return static_cast<bool>(out);
}

// A link at `link` to `target`, both relative to the root; written relative to the
// link's folder, as sysfs writes its links.
bool Link(const std::string& root, const std::string& link, const std::string& target)
{
    std::vector<std::string> from = Split(link), to = Split(target);
    from.pop_back();
    size_t common = 0;
    while (common < from.size() && common < to.size() && from[common] == to[common])
        ++common;
    std::string relative;
    for (size_t i = common; i < from.size(); ++i)
        relative += "../";
    for (size_t i = common; i < to.size(); ++i)
        relative += to[i] + (i + 1 < to.size() ? "/" : "");
    // A link made again (a second port of the same adapter) is replaced.
    unlink((root + "/" + link).c_str());
    return MakeFolders(root, link.substr(0, link.find_last_of('/'))) &&
           symlink(relative.c_str(), (root + "/" + link).c_str()) == 0;
}

}  // namespace

bool MakeFakeAdapter(const std::string& root, const std::string& ptyPath, const FakeAdapter& adapter)
{
    const std::string usb = kUsbDevice;
    const std::string tty = TtyFolder(adapter);
    const std::string port = PortFolder(adapter);
    const std::string bus = IsAcm(adapter) ? "usb" : "usb-serial";
    bool ok = MakeFolders(root, tty) && MakeFolders(root, "sys/bus/" + bus + "/drivers/" + adapter.driver) &&
              MakeFolders(root, "sys/bus/usb/drivers/" + adapter.driver) &&
              WriteFile(root, usb + "/idVendor", adapter.vendor) &&
              WriteFile(root, usb + "/idProduct", adapter.product) &&
              WriteFile(root, usb + "/serial", adapter.serial) &&
              WriteFile(root, usb + "/manufacturer", adapter.manufacturer) &&
              WriteFile(root, usb + "/product", adapter.productName) &&
              Link(root, Interface() + "/driver", "sys/bus/usb/drivers/" + adapter.driver) &&
              Link(root, tty + "/device", port) && Link(root, "sys/class/tty/" + adapter.ttyName, tty);
    if (ok && !IsAcm(adapter))
        ok = Link(root, port + "/driver", "sys/bus/usb-serial/drivers/" + adapter.driver) &&
             Link(root, "sys/bus/usb-serial/devices/" + adapter.ttyName, port);
    if (ok && adapter.latencyTimer >= 0)
        ok = WriteFile(root, port + "/latency_timer", std::to_string(adapter.latencyTimer));
    struct stat device;
    if (ok && stat(ptyPath.c_str(), &device) == 0)
        ok = Link(root, "sys/dev/char/" + std::to_string(major(device.st_rdev)) + ":" +
                            std::to_string(minor(device.st_rdev)), tty);
    const std::string byId = "usb-" + adapter.manufacturer + "_" + adapter.productName + "_" + adapter.serial +
                             (IsAcm(adapter) ? "-if00" : "-if00-port0");
    return ok && MakeFolders(root, "dev/serial/by-id") &&
           symlink(ptyPath.c_str(), (root + "/dev/" + adapter.ttyName).c_str()) == 0 &&
           Link(root, "dev/serial/by-id/" + byId, "dev/" + adapter.ttyName);
}

std::string FakeLatencyTimer(const std::string& root, const FakeAdapter& adapter)
{
    std::ifstream in(root + "/" + PortFolder(adapter) + "/latency_timer");
    std::string line;
    std::getline(in, line);
    return line;
}
