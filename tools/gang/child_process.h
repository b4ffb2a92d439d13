// Child processes of the gang: started with pipes to their standard input and
// output, optionally in a process group of their own, and reaped without blocking.
#pragma once
#include <string>
#include <sys/types.h>
#include <vector>

// A descriptor that closes itself.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return m_fd; }
    bool IsOpen() const { return m_fd >= 0; }
    int Release();
    void Reset(int fd = -1);

private:
    int m_fd = -1;
};

struct ChildSpec {
    std::vector<std::string> argv;  // argv[0] is looked up on PATH when it has no '/'
    std::string folder;             // its working folder; empty: the gang's own
    std::string errorFile;          // its standard error; empty: the gang's own
    // A group of its own: a Ctrl-C typed at the terminal signals the terminal's
    // foreground group, and that must reach the gang only, which then stops the
    // boards in order instead of having them killed mid-write.
    bool ownGroup = false;
    bool console = false;  // a pipe to its standard input (else it inherits the gang's)
};

struct Child {
    pid_t pid = -1;  // also its process group when started with ownGroup
    UniqueFd out;    // its standard output
    UniqueFd in;     // its standard input, when started with console
};

// Starts the child. False, with the reason in `why`, when the pipes, the error
// file, the fork, the working folder or the exec failed; the exec failure is
// known before this returns (a close-on-exec pipe carries it back).
bool SpawnChild(const ChildSpec& spec, Child& child, std::string& why);

// The spawn the gang uses; tests hand the scheduler a failing one instead.
using SpawnFunction = bool (*)(const ChildSpec& spec, Child& child, std::string& why);

// True, with the wait status, once the child has ended; never blocks.
bool ChildEnded(Child& child, int& status);

// Sends a signal to the child's process group.
void SignalGroup(const Child& child, int signal);

// Runs a command to its end and returns its standard output (empty when it
// cannot be started).
std::string CaptureOutput(const std::vector<std::string>& argv);
