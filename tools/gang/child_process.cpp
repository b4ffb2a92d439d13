#include "tools/gang/child_process.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept
{
    if (this != &other)
        Reset(other.Release());
    return *this;
}

int UniqueFd::Release()
{
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

void UniqueFd::Reset(int fd)
{
    if (m_fd >= 0)
        close(m_fd);
    m_fd = fd;
}

namespace {

// What a child that could not become the tool sends back before it ends.
struct StartFailure {
    int stage;
    int error;
};
enum { kStageFolder = 1, kStageExec = 2 };

// Close-on-exec, so that no child inherits another board's pipes (a board's
// console would never see its end, and its output would stay open after it ended).
bool MakePipe(UniqueFd& readEnd, UniqueFd& writeEnd)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    readEnd.Reset(fds[0]);
    writeEnd.Reset(fds[1]);
    return true;
}

// dup2 onto itself would keep the close-on-exec flag: cleared instead.
void MoveTo(int fd, int target)
{
    if (fd == target)
        fcntl(fd, F_SETFD, 0);
    else
        dup2(fd, target);
}

// In the child between fork and exec: async-signal-safe calls only.
[[noreturn]] void BecomeChild(const ChildSpec& spec, char* const* argv, int in, int out, int err, int report)
{
    if (spec.ownGroup)
        setpgid(0, 0);
    // The gang ignores SIGPIPE for itself; the tool gets the usual disposition.
    signal(SIGPIPE, SIG_DFL);
    StartFailure failure = {kStageFolder, 0};
    if (spec.folder.empty() || chdir(spec.folder.c_str()) == 0) {
        if (in >= 0)
            MoveTo(in, STDIN_FILENO);
        MoveTo(out, STDOUT_FILENO);
        if (err >= 0)
            MoveTo(err, STDERR_FILENO);
        execvp(argv[0], argv);
        failure.stage = kStageExec;
    }
    failure.error = errno;
    ssize_t ignored = write(report, &failure, sizeof failure);
    (void)ignored;
    _exit(127);
}

std::string Reason(const ChildSpec& spec, const StartFailure& failure)
{
    if (failure.stage == kStageFolder)
        return "cannot enter " + spec.folder + ": " + std::strerror(failure.error);
    return "cannot run " + spec.argv[0] + ": " + std::strerror(failure.error);
}

}  // namespace

bool SpawnChild(const ChildSpec& spec, Child& child, std::string& why)
{
    if (spec.argv.empty()) {
        why = "nothing to run";
        return false;
    }
    UniqueFd outRead, outWrite, inRead, inWrite, reportRead, reportWrite, err;
    if (!MakePipe(outRead, outWrite) || (spec.console && !MakePipe(inRead, inWrite)) ||
        !MakePipe(reportRead, reportWrite)) {
        why = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    if (!spec.errorFile.empty()) {
        err.Reset(open(spec.errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!err.IsOpen()) {
            why = "cannot write " + spec.errorFile + ": " + std::strerror(errno);
            return false;
        }
    }
    // Built before the fork: the child must not allocate.
    std::vector<char*> argv;
    for (const std::string& word : spec.argv)
        argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);

    const pid_t pid = fork();
    if (pid < 0) {
        why = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    if (pid == 0)
        BecomeChild(spec, argv.data(), inRead.Get(), outWrite.Get(), err.Get(), reportWrite.Get());
    // Set on both sides, so the group exists before any signal is forwarded to it.
    if (spec.ownGroup)
        setpgid(pid, pid);
    reportWrite.Reset();
    outWrite.Reset();
    inRead.Reset();
    StartFailure failure = {};
    ssize_t got;
    while ((got = read(reportRead.Get(), &failure, sizeof failure)) < 0 && errno == EINTR) {
    }
    if (got == static_cast<ssize_t>(sizeof failure)) {
        waitpid(pid, nullptr, 0);
        why = Reason(spec, failure);
        return false;
    }
    child.pid = pid;
    child.out = std::move(outRead);
    child.in = std::move(inWrite);
    return true;
}

bool ChildEnded(Child& child, int& status)
{
    if (child.pid <= 0 || waitpid(child.pid, &status, WNOHANG) != child.pid)
        return false;
    child.pid = -1;  // reaped: the number may belong to another process from now on
    return true;
}

void SignalGroup(const Child& child, int signal)
{
    if (child.pid > 0)
        kill(-child.pid, signal);
}

std::string CaptureOutput(const std::vector<std::string>& argv)
{
    ChildSpec spec;
    spec.argv = argv;
    Child child;
    std::string why, out;
    if (!SpawnChild(spec, child, why))
        return out;
    char buffer[4096];
    ssize_t got;
    while ((got = read(child.out.Get(), buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR)) {
        if (got > 0)
            out.append(buffer, static_cast<size_t>(got));
    }
    int status;
    waitpid(child.pid, &status, 0);
    return out;
}
