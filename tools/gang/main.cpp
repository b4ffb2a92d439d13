// kestrel_gang: flashes several boards at once. One kestrelQT_u per port, each with
// --json, in a working folder of its own and in a process group of its own; their
// event lines feed a live table (or plain lines when the output is not a
// terminal) and, at the end, a JSON report. Ctrl-C types "stop" on every board's
// console and waits for them to wind down; a second Ctrl-C terminates the rest.
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "common/stdio_file.h"
#include "tools/gang/board_plan.h"
#include "tools/gang/gang_options.h"
#include "tools/gang/gang_report.h"
#include "tools/gang/scheduler.h"

namespace {

volatile sig_atomic_t g_stopRequests = 0;

void OnStopSignal(int)
{
    g_stopRequests = g_stopRequests + 1;
}

void InstallStopSignals()
{
    // A board that has ended closes its console: writing "stop" to it must not end the gang.
    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction stop = {};
    stop.sa_handler = OnStopSignal;
    sigaction(SIGINT, &stop, nullptr);
    sigaction(SIGTERM, &stop, nullptr);
}

int Refuse(const std::string& why)
{
    std::fprintf(stderr, "kestrel_gang: %s\n", why.c_str());
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    // --version: one line, like the tool's.
    if (argc == 2 && std::string(argv[1]) == "--version") {
        std::printf("kestrel_gang %s\n", KESTREL_VERSION);
        return 0;
    }
    GangOptions options;
    switch (ParseGangArgs(argc, argv, options)) {
    case GangRequest::kHelp:
        PrintUsage(stdout);
        return 0;
    case GangRequest::kBad:
        PrintUsage(stderr);
        return 2;
    case GangRequest::kRun:
        break;
    }
    if (options.tool.empty())
        options.tool = FindTool(argv[0]);
    char cwd[PATH_MAX];
    if (!getcwd(cwd, sizeof cwd))
        return Refuse(std::string("cannot read the current folder: ") + std::strerror(errno));

    // Everything that can be refused is refused before any board is touched.
    const std::vector<std::string> ports = ExpandPorts(options.ports, options.tool);
    std::string why;
    if (ports.empty())
        return Refuse("no port to flash");
    if (!NoPortTwice(ports, why))
        return Refuse(why);
    UniqueFile report;
    if (!options.report.empty() && !(report = OpenFile(options.report.c_str(), "w")))
        return Refuse("cannot write " + options.report + ": " + std::strerror(errno));
    std::vector<Board> boards;
    if (!PlanBoards(ports, BoardsRoot(options, cwd), ToolCommand(options.tool, options.toolArgs, cwd), boards, why))
        return Refuse(why);

    InstallStopSignals();
    Display display(isatty(STDOUT_FILENO) != 0);
    GangRun run;
    run.jobs = options.jobs;
    run.stopRequests = &g_stopRequests;
    run.display = &display;
    const bool allOk = RunBoards(boards, run);

    if (report) {
        const std::string text = ReportText(boards);
        const bool written = std::fwrite(text.data(), 1, text.size(), report.get()) == text.size();
        if (std::fclose(report.release()) != 0 || !written) {
            std::fprintf(stderr, "kestrel_gang: cannot write %s\n", options.report.c_str());
            return 1;
        }
    }
    return allOk ? 0 : 1;
}
