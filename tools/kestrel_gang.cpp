// kestrel_gang: flashes several boards at once. One kestrelQT_u per port, each with
// --json and a log file of its own; their event lines feed a live table (or plain
// lines when the output is not a terminal) and, at the end, a JSON report. Ctrl-C
// sends "stop" to every board's console and waits for them to wind down.
//
//   kestrel_gang [--report FILE.json] [--jobs N] [--tool PATH] [--log-dir DIR]
//                PORT... [-- TOOL OPTIONS]
//
// PORT "auto" stands for every port `kestrelQT_u --list-ports --json` finds. The
// exit status is 0 only when every board succeeded.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <limits.h>
#include <poll.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using nlohmann::json;

namespace {

volatile sig_atomic_t g_stopRequested = 0;

void OnStopSignal(int)
{
    g_stopRequested = 1;
}

struct Options {
    std::string report;
    std::string tool;
    std::string logDir = ".";
    size_t jobs = 0;  // 0: all at once
    std::vector<std::string> ports;
    std::vector<std::string> toolArgs;
};

struct Board {
    std::string port;
    std::string errorFile;  // the child's standard error
    std::string logName;  // file-name-safe form of the port
    pid_t pid = -1;
    int out = -1;         // the child's standard output (JSON lines)
    int in = -1;          // the child's standard input (its console)
    std::string pending;  // a partial line
    bool started = false, finished = false, haveResult = false, stopSent = false;
    std::string phase = "waiting";
    std::string region;
    double percent = 0;
    double kbPerS = 0;
    bool ok = false;
    int exitCode = 0;
    std::string message;
    double seconds = 0;
    uint64_t bytes = 0;
    std::chrono::steady_clock::time_point began;
};

void Usage()
{
    std::fprintf(stderr,
                 "usage: kestrel_gang [--report FILE.json] [--jobs N] [--tool PATH] [--log-dir DIR]\n"
                 "                    PORT... [-- TOOL OPTIONS]\n"
                 "PORT may be \"auto\": every port kestrelQT_u --list-ports finds.\n");
}

bool ParseArgs(int argc, char** argv, Options& options)
{
    int i = 1;
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--") {
            ++i;
            break;
        }
        if ((a == "--report" || a == "--jobs" || a == "--tool" || a == "--log-dir") && i + 1 < argc) {
            std::string value = argv[++i];
            if (a == "--report")
                options.report = value;
            else if (a == "--tool")
                options.tool = value;
            else if (a == "--log-dir")
                options.logDir = value;
            else
                options.jobs = std::strtoul(value.c_str(), nullptr, 10);
        } else if (a == "-h" || a == "--help" || (!a.empty() && a[0] == '-')) {
            return false;
        } else {
            options.ports.push_back(a);
        }
    }
    for (; i < argc; ++i)
        options.toolArgs.push_back(argv[i]);
    return !options.ports.empty();
}

bool Executable(const std::string& path)
{
    return access(path.c_str(), X_OK) == 0;
}

// The tool beside this program first (or one folder up, as in the build tree),
// then on PATH.
std::string FindTool(const char* argv0)
{
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string dir = n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string(argv0);
    dir = dir.substr(0, dir.find_last_of('/') + 1);
    for (const char* place : {"", "../"}) {
        if (!dir.empty() && Executable(dir + place + "kestrelQT_u"))
            return dir + place + "kestrelQT_u";
    }
    const char* path = std::getenv("PATH");
    std::string rest = path ? path : "";
    while (!rest.empty()) {
        size_t colon = rest.find(':');
        std::string folder = rest.substr(0, colon);
        if (!folder.empty() && Executable(folder + "/kestrelQT_u"))
            return folder + "/kestrelQT_u";
        rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
    }
    return "kestrelQT_u";
}

// Runs a command and returns its standard output.
std::string Capture(const std::vector<std::string>& command)
{
    int fds[2];
    if (pipe(fds) != 0)
        return "";
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        close(fds[0]);
        close(fds[1]);
        std::vector<char*> argv;
        for (const std::string& word : command)
            argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(fds[1]);
    std::string out;
    char buffer[4096];
    ssize_t got;
    while ((got = read(fds[0], buffer, sizeof buffer)) > 0)
        out.append(buffer, static_cast<size_t>(got));
    close(fds[0]);
    int status;
    waitpid(pid, &status, 0);
    return out;
}

std::vector<std::string> AutoPorts(const std::string& tool)
{
    std::vector<std::string> ports;
    std::string out = Capture({tool, "--json", "--list-ports"});
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find('\n', start);
        json event = json::parse(out.substr(start, end - start), nullptr, false);
        if (!event.is_discarded() && event.value("event", "") == "port")
            ports.push_back(event.value("path", ""));
        start = end == std::string::npos ? out.size() : end + 1;
    }
    return ports;
}

std::string SafeName(const std::string& port)
{
    std::string name = port;
    for (char& c : name) {
        if (c == '/' || c == ' ')
            c = '_';
    }
    while (!name.empty() && name[0] == '_')
        name.erase(0, 1);
    return name.empty() ? "port" : name;
}

bool StartBoard(Board& board, const Options& options)
{
    int out[2], in[2];
    if (pipe(out) != 0 || pipe(in) != 0)
        return false;
    const std::string log = options.logDir + "/" + board.logName + ".log";
    const std::string errors = options.logDir + "/" + board.logName + ".stderr";
    board.errorFile = errors;
    pid_t pid = fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        int err = open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (err >= 0)
            dup2(err, STDERR_FILENO);
        for (int fd : {in[0], in[1], out[0], out[1]})
            close(fd);
        std::vector<std::string> words = {options.tool, "-c", board.port, "--json", "-l", log};
        words.insert(words.end(), options.toolArgs.begin(), options.toolArgs.end());
        std::vector<char*> argv;
        for (const std::string& word : words)
            argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        std::fprintf(stderr, "cannot run %s: %s\n", options.tool.c_str(), std::strerror(errno));
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    board.pid = pid;
    board.out = out[0];
    board.in = in[1];
    board.started = true;
    board.phase = "starting";
    board.began = std::chrono::steady_clock::now();
    return true;
}

void TakeEvent(Board& board, const std::string& line)
{
    json event = json::parse(line, nullptr, false);
    if (event.is_discarded() || !event.is_object())
        return;  // not ours: ignored
    const std::string kind = event.value("event", "");
    if (kind == "progress") {
        board.region = event.value("region", "");
        board.phase = board.region + " " + event.value("phase", "");
        const double total = event.value("total", 0.0);
        board.percent = total > 0 ? 100.0 * event.value("done", 0.0) / total : 0;
    } else if (kind == "region") {
        board.kbPerS = event.value("kbytes_per_s", 0.0);
    } else if (kind == "result") {
        board.haveResult = true;
        board.ok = event.value("ok", false);
        board.exitCode = event.value("exit_code", 1);
        board.message = event.value("message", "");
        board.seconds = event.value("seconds", 0.0);
        board.bytes = event.value("bytes", uint64_t(0));
        board.phase = board.ok ? "done" : "failed";
    }
}

void ReadOutput(Board& board)
{
    char buffer[4096];
    ssize_t got = read(board.out, buffer, sizeof buffer);
    if (got <= 0) {
        close(board.out);
        board.out = -1;
        return;
    }
    board.pending.append(buffer, static_cast<size_t>(got));
    size_t newline;
    while ((newline = board.pending.find('\n')) != std::string::npos) {
        TakeEvent(board, board.pending.substr(0, newline));
        board.pending.erase(0, newline + 1);
    }
}

std::string LastLine(const std::string& path)
{
    std::ifstream in(path);
    std::string line, last;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty())
            last = line;
    }
    return last;
}

// The child has ended: what its status says where no result line said it.
void Finish(Board& board, int status)
{
    board.finished = true;
    if (board.in >= 0)
        close(board.in);
    board.in = -1;
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - board.began;
    if (WIFSIGNALED(status)) {
        board.ok = false;
        board.exitCode = 128 + WTERMSIG(status);
        board.message = "crashed (signal " + std::to_string(WTERMSIG(status)) + ")";
        board.phase = "crashed";
    } else if (!board.haveResult) {
        board.ok = false;
        board.exitCode = WIFEXITED(status) && WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : 1;
        const std::string last = LastLine(board.errorFile);
        board.message = "ended without a result line" + (last.empty() ? "" : ": " + last);
        board.phase = "failed";
    } else if (WIFEXITED(status) && WEXITSTATUS(status) != board.exitCode) {
        board.ok = false;
        board.exitCode = WEXITSTATUS(status);
    }
    if (board.seconds == 0)
        board.seconds = took.count();
}

void SendStop(std::vector<Board>& boards)
{
    for (Board& board : boards) {
        if (board.started && !board.finished && !board.stopSent && board.in >= 0) {
            static const char kStop[] = "stop\n";
            ssize_t ignored = write(board.in, kStop, sizeof kStop - 1);
            (void)ignored;
            board.stopSent = true;
        }
    }
}

class Display {
public:
    explicit Display(bool live) : m_live(live) {}

    void Show(const std::vector<Board>& boards)
    {
        if (!m_live)
            return;
        if (m_lines > 0)
            std::printf("\033[%dA", m_lines);
        std::printf("\033[J%-28s %-18s %6s %9s  %s\n", "PORT", "PHASE", "%", "KB/s", "RESULT");
        for (const Board& b : boards) {
            std::string result = b.finished ? (b.ok ? "ok" : "FAILED " + std::to_string(b.exitCode) + ": " + b.message) : "";
            std::printf("%-28s %-18s %5.0f%% %9.1f  %s\n", b.port.c_str(), b.phase.c_str(), b.percent,
                        b.kbPerS, result.c_str());
        }
        std::fflush(stdout);
        m_lines = static_cast<int>(boards.size()) + 1;
    }

    // Piped output: one line per board as it starts and as it ends.
    void Note(const Board& board, const char* what)
    {
        if (m_live)
            return;
        if (std::string(what) == "end")
            std::printf("%s: %s (exit %d) %s, %.1f s, %llu bytes\n", board.port.c_str(),
                        board.ok ? "ok" : "FAILED", board.exitCode, board.message.c_str(), board.seconds,
                        static_cast<unsigned long long>(board.bytes));
        else
            std::printf("%s: started\n", board.port.c_str());
        std::fflush(stdout);
    }

private:
    bool m_live;
    int m_lines = 0;
};

json Report(const std::vector<Board>& boards)
{
    json list = json::array();
    for (const Board& b : boards)
        list.push_back({{"port", b.port}, {"ok", b.ok}, {"exit_code", b.exitCode}, {"message", b.message},
                        {"seconds", b.seconds}, {"bytes", b.bytes}});
    return json{{"boards", list}};
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!ParseArgs(argc, argv, options)) {
        Usage();
        return 2;
    }
    if (options.tool.empty())
        options.tool = FindTool(argv[0]);

    std::vector<std::string> ports;
    for (const std::string& port : options.ports) {
        if (port == "auto") {
            std::vector<std::string> found = AutoPorts(options.tool);
            ports.insert(ports.end(), found.begin(), found.end());
        } else {
            ports.push_back(port);
        }
    }
    // The same board twice would fight over one port: refused before anything runs.
    std::set<std::string> seen;
    for (const std::string& port : ports) {
        if (!seen.insert(port).second) {
            std::fprintf(stderr, "kestrel_gang: %s is named twice\n", port.c_str());
            return 2;
        }
    }
    if (ports.empty()) {
        std::fprintf(stderr, "kestrel_gang: no port to flash\n");
        return 2;
    }
    // A report that cannot be written is found out before any board is touched.
    std::FILE* report = nullptr;
    if (!options.report.empty() && !(report = std::fopen(options.report.c_str(), "w"))) {
        std::fprintf(stderr, "kestrel_gang: cannot write %s: %s\n", options.report.c_str(), std::strerror(errno));
        return 2;
    }
    mkdir(options.logDir.c_str(), 0755);

    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction stop = {};
    stop.sa_handler = OnStopSignal;
    sigaction(SIGINT, &stop, nullptr);
    sigaction(SIGTERM, &stop, nullptr);

    std::vector<Board> boards(ports.size());
    for (size_t i = 0; i < ports.size(); ++i) {
        boards[i].port = ports[i];
        boards[i].logName = SafeName(ports[i]);
    }
    const size_t jobs = options.jobs == 0 ? boards.size() : options.jobs;
    Display display(isatty(STDOUT_FILENO) != 0);

    for (;;) {
        size_t running = 0, done = 0;
        for (const Board& b : boards) {
            running += b.started && !b.finished;
            done += b.finished;
        }
        if (done == boards.size())
            break;
        for (Board& b : boards) {
            if (running >= jobs || g_stopRequested)
                break;
            if (!b.started) {
                if (!StartBoard(b, options)) {
                    b.started = b.finished = true;
                    b.exitCode = 1;
                    b.message = "could not start the tool";
                }
                display.Note(b, "start");
                ++running;
            }
        }
        if (g_stopRequested) {
            SendStop(boards);
            for (Board& b : boards) {
                if (!b.started) {  // never started: nothing to stop
                    b.started = b.finished = true;
                    b.exitCode = 8;
                    b.message = "not started: stopped by the user";
                }
            }
        }
        std::vector<pollfd> fds;
        std::vector<Board*> owners;
        for (Board& b : boards) {
            if (b.out >= 0) {
                fds.push_back({b.out, POLLIN, 0});
                owners.push_back(&b);
            }
        }
        if (!fds.empty() && poll(fds.data(), fds.size(), 200) > 0) {
            for (size_t i = 0; i < fds.size(); ++i) {
                if (fds[i].revents)
                    ReadOutput(*owners[i]);
            }
        } else if (fds.empty()) {
            usleep(50000);
        }
        for (Board& b : boards) {
            int status;
            if (b.started && !b.finished && b.pid > 0 && b.out < 0 && waitpid(b.pid, &status, WNOHANG) == b.pid) {
                Finish(b, status);
                display.Note(b, "end");
            }
        }
        display.Show(boards);
    }

    bool allOk = true;
    for (const Board& b : boards)
        allOk = allOk && b.ok;
    if (report) {
        std::fprintf(report, "%s\n", Report(boards).dump(2, ' ', false, json::error_handler_t::replace).c_str());
        std::fclose(report);
    }
    return allOk ? 0 : 1;
}
