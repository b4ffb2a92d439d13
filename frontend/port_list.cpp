#include "frontend/port_list.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <unistd.h>

namespace {

std::vector<std::string> Entries(const std::string& folder)
{
    std::vector<std::string> names;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (name != "." && name != "..")
                names.push_back(name);
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool StartsWith(const std::string& text, const char* prefix)
{
    return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

std::string FirstLine(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

std::string BaseName(const std::string& path)
{
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string LinkTarget(const std::string& path)
{
    char target[PATH_MAX];
    ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

std::string RealPath(const std::string& path)
{
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) ? std::string(resolved) : std::string();
}

// The USB device is the nearest folder above the tty's device that has idVendor.
void DescribeFromSysfs(const std::string& sysRoot, SerialPortInfo& port)
{
    const std::string device = sysRoot + "/class/tty/" + BaseName(port.path) + "/device";
    port.driver = BaseName(LinkTarget(device + "/driver"));
    std::string folder = RealPath(device);
    const std::string top = RealPath(sysRoot);
    while (!folder.empty() && folder.size() > top.size()) {
        if (access((folder + "/idVendor").c_str(), R_OK) == 0) {
            port.vendor = FirstLine(folder + "/idVendor");
            port.product = FirstLine(folder + "/idProduct");
            port.serial = FirstLine(folder + "/serial");
            return;
        }
        folder = folder.substr(0, folder.find_last_of('/'));
    }
}

}  // namespace

std::vector<SerialPortInfo> ListSerialPorts(const std::string& sysRoot, const std::string& devRoot)
{
    std::vector<SerialPortInfo> ports;
    for (const std::string& name : Entries(devRoot)) {
        if (!StartsWith(name, "ttyUSB") && !StartsWith(name, "ttyACM"))
            continue;
        SerialPortInfo port;
        port.path = devRoot + "/" + name;
        DescribeFromSysfs(sysRoot, port);
        ports.push_back(port);
    }
    const std::string byId = devRoot + "/serial/by-id";
    for (const std::string& link : Entries(byId)) {
        const std::string target = BaseName(LinkTarget(byId + "/" + link));
        for (SerialPortInfo& port : ports) {
            if (BaseName(port.path) == target)
                port.byId = byId + "/" + link;
        }
    }
    return ports;
}
