#include "tools/gang/gang_options.h"

#include <cstdlib>

#include "tools/gang/tool_command.h"

namespace {

bool TakeJobs(const std::string& text, size_t& jobs)
{
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || text[0] == '-')
        return false;
    jobs = value;
    return true;
}

}  // namespace

GangRequest ParseGangArgs(int argc, char** argv, GangOptions& options)
{
    int i = 1;
    for (; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--") {
            ++i;
            break;
        }
        if (word == "-h" || word == "--help")
            return GangRequest::kHelp;
        const bool valued = word == "--report" || word == "--jobs" || word == "--tool" || word == "--log-dir";
        if (valued && i + 1 < argc) {
            const std::string value = argv[++i];
            if (word == "--report")
                options.report = value;
            else if (word == "--tool")
                options.tool = value;
            else if (word == "--log-dir")
                options.logDir = value;
            else if (!TakeJobs(value, options.jobs))
                return GangRequest::kBad;
        } else if (!word.empty() && word[0] == '-') {
            return GangRequest::kBad;
        } else {
            options.ports.push_back(word);
        }
    }
    for (; i < argc; ++i)
        options.toolArgs.push_back(argv[i]);
    return options.ports.empty() ? GangRequest::kBad : GangRequest::kRun;
}

void PrintUsage(std::FILE* to)
{
    std::fprintf(to,
                 "usage: kestrel_gang [--report FILE.json] [--jobs N] [--tool PATH] [--log-dir DIR]\n"
                 "                    PORT... [-- TOOL OPTIONS]\n"
                 "PORT may be \"auto\": every port kestrelQT_u --list-ports finds.\n"
                 "Each board runs in a folder of its own, DIR/PORT (DIR: --log-dir, else the\n"
                 "report's folder, else the current folder), which holds its log.txt, its\n"
                 "stderr.txt and whatever the tool writes to its current folder.\n"
                 "Ctrl-C types \"stop\" on every board's console; a second one terminates the\n"
                 "boards still running. The status is 0 only when every board succeeded.\n");
}

std::string BoardsRoot(const GangOptions& options, const std::string& cwd)
{
    if (!options.logDir.empty())
        return Anchored(options.logDir, cwd);
    const size_t slash = options.report.find_last_of('/');
    if (slash == std::string::npos)
        return cwd;
    return Anchored(slash == 0 ? "/" : options.report.substr(0, slash), cwd);
}
