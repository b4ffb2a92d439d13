#include "tests/support/process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

namespace {

// Starts `program` in `cwd` (empty: this folder) with `streams` as its standard
// input, output and error (-1 keeps the test's own). Every descriptor in `pipes`
// is closed in the child, so the ends the test keeps see their end of file.
pid_t Spawn(const std::string& program, const std::vector<std::string>& args, const std::string& cwd,
            const int (&streams)[3], const std::vector<int>& pipes)
{
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    for (int i = 0; i < 3; ++i)
        if (streams[i] >= 0)
            dup2(streams[i], i);
    for (int fd : pipes)
        close(fd);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0)
        _exit(126);
    execv(program.c_str(), argv.data());
    _exit(127);
}

void DrainInto(int fd, std::string& sink, bool& open)
{
    char buf[4096];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0)
        sink.append(buf, static_cast<size_t>(n));
    else if (n == 0 || (errno != EAGAIN && errno != EINTR))
        open = false;
}

// Reads `fd` into `sink` until it ends, `done` says so or ten seconds pass;
// returns whether the descriptor is still open.
template <class Done>
bool DrainFor10s(int fd, std::string& sink, Done done)
{
    bool open = true;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (open && !done() && std::chrono::steady_clock::now() < deadline) {
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 100) > 0)
            DrainInto(fd, sink, open);
    }
    return open;
}

}  // namespace

ProcessResult RunProcess(const std::string& program, const std::vector<std::string>& args,
                         const ProcessOptions& options)
{
    ProcessResult result;
    int inPipe[2], outPipe[2], errPipe[2];
    if (pipe(inPipe) != 0 || pipe(outPipe) != 0 || pipe(errPipe) != 0)
        return result;
    pid_t pid = Spawn(program, args, options.cwd, {inPipe[0], outPipe[1], errPipe[1]},
                      {inPipe[0], inPipe[1], outPipe[0], outPipe[1], errPipe[0], errPipe[1]});
    close(inPipe[0]);
    close(outPipe[1]);
    close(errPipe[1]);
    signal(SIGPIPE, SIG_IGN);
    if (!options.stdinText.empty()) {
        ssize_t ignored = write(inPipe[1], options.stdinText.data(), options.stdinText.size());
        (void)ignored;
    }
    if (!options.keepStdinOpen)
        close(inPipe[1]);

    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.timeoutSeconds);
    bool outOpen = true, errOpen = true;
    while (outOpen || errOpen) {
        pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
        poll(fds, 2, 100);
        if (outOpen && (fds[0].revents & (POLLIN | POLLHUP)))
            DrainInto(outPipe[0], result.out, outOpen);
        if (errOpen && (fds[1].revents & (POLLIN | POLLHUP)))
            DrainInto(errPipe[0], result.err, errOpen);
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            break;
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (options.keepStdinOpen)
        close(inPipe[1]);
    close(outPipe[0]);
    close(errPipe[0]);
    if (WIFEXITED(status))
        result.exitStatus = WEXITSTATUS(status);
    return result;
}

std::string ToolPath() { return KESTREL_TOOL_BIN; }
std::string SimPath() { return KESTREL_SIM_BIN; }
std::string MkImagePath() { return KESTREL_MKIMAGE_BIN; }

TempDir::TempDir()
{
    char templ[] = "/tmp/kestrel-test-XXXXXX";
    const char* made = mkdtemp(templ);
    m_path = made ? made : "";
}

TempDir::~TempDir()
{
    if (!m_path.empty()) {
        std::string cmd = "rm -rf '" + m_path + "'";
        int ignored = std::system(cmd.c_str());
        (void)ignored;
    }
}

SimProcess::SimProcess(const std::vector<std::string>& args)
{
    int outPipe[2];
    if (pipe(outPipe) != 0)
        return;
    m_pid = Spawn(SimPath(), args, "", {-1, outPipe[1], -1}, {outPipe[0], outPipe[1]});
    close(outPipe[1]);
    m_outFd = outPipe[0];
    fcntl(m_outFd, F_SETFL, O_NONBLOCK);
    // The first line is the device path.
    std::string text;
    DrainFor10s(m_outFd, text, [&] { return text.find('\n') != std::string::npos; });
    size_t nl = text.find('\n');
    if (nl != std::string::npos) {
        m_device = text.substr(0, nl);
        m_rest = text.substr(nl + 1);
    }
}

SimProcess::~SimProcess() { Stop(); }

std::string SimProcess::Stop()
{
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        if (DrainFor10s(m_outFd, m_rest, [] { return false; }))
            kill(m_pid, SIGKILL);
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        close(m_outFd);
        m_outFd = -1;
    }
    return m_rest;
}

std::vector<unsigned char> ReadFileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string ReadText(const std::string& path)
{
    std::vector<unsigned char> bytes = ReadFileBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

std::vector<std::string> TextLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

void WriteText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::vector<unsigned char> PatternBytes(size_t count, uint32_t seed)
{
    std::vector<unsigned char> bytes(count);
    uint32_t x = seed * 2654435761u + 12345u;
    for (size_t i = 0; i < count; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        bytes[i] = static_cast<unsigned char>(x >> 8);
    }
    return bytes;
}
