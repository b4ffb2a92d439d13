#include "frontend/port_discovery.h"

#include <cstdio>
#include <vector>

#include "flashhost/CFlashHost.h"
#include "frontend/port_list.h"

const char kAutoPortWord[] = "auto";

namespace {

std::string Described(const SerialPortInfo& port)
{
    return port.byId.empty() ? port.path : port.path + " (" + port.byId + ")";
}

std::string Listed(const std::vector<SerialPortInfo>& ports)
{
    std::string text;
    for (const SerialPortInfo& port : ports)
        text += "\n  " + Described(port);
    return text;
}

}  // namespace

bool DiscoverBoardPort(std::string& chosen, std::string& error, const std::string& sysRoot,
                       const std::string& devRoot)
{
    const std::vector<SerialPortInfo> ports = ListSerialPorts(sysRoot, devRoot);
    if (ports.empty()) {
        error = "-c auto: no USB serial port found";
        return false;
    }
    std::vector<SerialPortInfo> answering;
    if (ports.size() == 1) {
        answering = ports;
    } else {
        for (const SerialPortInfo& port : ports) {
            std::fprintf(stderr, "-c auto: trying %s\n", Described(port).c_str());
            if (g_flashHost.ProbeSync(port.path) == 0)
                answering.push_back(port);
        }
    }
    if (answering.size() != 1) {
        error = std::string("-c auto: ") + (answering.empty() ? "no port answered" : "more than one port answered") +
                "; candidates:" + Listed(answering.empty() ? ports : answering);
        return false;
    }
    chosen = answering[0].path;
    std::fprintf(stderr, "-c auto: using %s\n", Described(answering[0]).c_str());
    return true;
}
