#include "tools/gang/board_plan.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sys/stat.h>

#include "common/run_event_names.h"
#include "tools/gang/child_process.h"

using nlohmann::json;

namespace {

std::vector<std::string> ListedPorts(const std::string& tool)
{
    using namespace run_event;
    std::vector<std::string> ports;
    const std::string out = CaptureOutput({tool, "--json", "--list-ports"});
    size_t start = 0;
    while (start < out.size()) {
        const size_t end = out.find('\n', start);
        const json event = json::parse(out.substr(start, end - start), nullptr, false);
        if (event.is_object() && event.value(kFieldEvent, json()) == kEventPort) {
            const json path = event.value(kFieldPath, json());
            if (path.is_string())
                ports.push_back(path.get<std::string>());
        }
        start = end == std::string::npos ? out.size() : end + 1;
    }
    return ports;
}

// The device a name leads to; a name that leads nowhere stands for itself.
std::string RealPath(const std::string& port)
{
    char real[PATH_MAX];
    return realpath(port.c_str(), real) ? std::string(real) : port;
}

bool MakeFolder(const std::string& path)
{
    struct stat info;
    return mkdir(path.c_str(), 0755) == 0 || (errno == EEXIST && stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode));
}

}  // namespace

std::vector<std::string> ExpandPorts(const std::vector<std::string>& asked, const std::string& tool)
{
    std::vector<std::string> ports;
    for (const std::string& port : asked) {
        if (port == "auto") {
            const std::vector<std::string> found = ListedPorts(tool);
            ports.insert(ports.end(), found.begin(), found.end());
        } else {
            ports.push_back(port);
        }
    }
    return ports;
}

bool NoPortTwice(const std::vector<std::string>& ports, std::string& why)
{
    std::map<std::string, std::string> seen;  // device -> the name it was first given as
    for (const std::string& port : ports) {
        const auto [at, isNew] = seen.emplace(RealPath(port), port);
        if (!isNew) {
            why = port + " is named twice" + (at->second == port ? "" : " (as " + at->second + ")");
            return false;
        }
    }
    return true;
}

std::string FolderName(const std::string& port)
{
    std::string name = port;
    for (char& c : name) {
        if (c == '/' || c == ' ')
            c = '_';
    }
    const size_t first = name.find_first_not_of('_');
    name = first == std::string::npos ? "" : name.substr(first);
    return name.empty() || name == "." || name == ".." ? "port" : name;
}

bool MakeFolders(const std::string& path)
{
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        MakeFolder(path.substr(0, slash));
    return MakeFolder(path);
}

bool PlanBoards(const std::vector<std::string>& ports, const std::string& root, const ToolCommand& command,
                std::vector<Board>& boards, std::string& why)
{
    if (!MakeFolders(root)) {
        why = "cannot make " + root + ": " + std::strerror(errno);
        return false;
    }
    std::set<std::string> names;
    boards.resize(ports.size());
    for (size_t i = 0; i < ports.size(); ++i) {
        std::string name = FolderName(ports[i]);
        for (int n = 2; !names.insert(name).second; ++n)
            name = FolderName(ports[i]) + "-" + std::to_string(n);
        Board& board = boards[i];
        board.port = ports[i];
        board.folder = root + "/" + name;
        if (!MakeFolder(board.folder)) {
            why = "cannot make " + board.folder + ": " + std::strerror(errno);
            return false;
        }
        board.command = command.For(board.port, BoardLogFile(board));
    }
    return true;
}
