#include "sim/stop_signal.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace ksim {

namespace {

int g_stopPipe[2] = {-1, -1};

void OnStopSignal(int)
{
    int saved = errno;
    const char byte = 1;
    ssize_t ignored = write(g_stopPipe[1], &byte, 1);
    (void)ignored;
    errno = saved;
}

}  // namespace

bool InstallStopSignals(std::string& error)
{
    if (pipe(g_stopPipe) != 0) {
        error = std::string("cannot create the signal pipe: ") + std::strerror(errno);
        return false;
    }
    for (int fd : g_stopPipe) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    // A host that vanished must not kill us through a write to a dead pipe or pty.
    signal(SIGPIPE, SIG_IGN);
    return true;
}

int StopSignalFd()
{
    return g_stopPipe[0];
}

}  // namespace ksim
