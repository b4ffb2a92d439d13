// Child processes for black-box and end-to-end tests: the tool itself and the
// simulated target.
#pragma once
#include <cstdint>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>
#include <vector>

typedef std::vector<unsigned char> Bytes;

// exitStatus: the exit code, or -1 when the process did not exit normally
// out: standard output
// err: standard error
struct ProcessResult { int exitStatus = -1; std::string out; std::string err; };

struct ProcessOptions {
    ProcessOptions() = default;
    ProcessOptions(std::string folder) : cwd(std::move(folder)) {}  // RunProcess(p, args, {dir.Path()})
    std::string cwd;            // empty: the test's own working directory
    std::string stdinText;      // written to the child's standard input, then closed
    bool keepStdinOpen = false; // leave standard input open until the child ends
    int timeoutSeconds = 120;   // the child is killed after this long
};

// Runs a program to its end and collects its output.
ProcessResult RunProcess(const std::string& program, const std::vector<std::string>& args,
                         const ProcessOptions& options = {});

// Paths of the built programs (set by the build).
std::string ToolPath();      // kestrelQT_u
std::string SimPath();       // kestrel_sim
std::string MkImagePath();   // kestrel_mkimage

// A fresh, empty temporary directory removed (with its contents) on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// The simulated target running as a child process. The constructor starts it and
// waits for the device path it prints on its first line; the destructor stops it.
class SimProcess {
public:
    explicit SimProcess(const std::vector<std::string>& args);
    ~SimProcess();
    SimProcess(const SimProcess&) = delete;
    SimProcess& operator=(const SimProcess&) = delete;

    bool Started() const { return !m_device.empty(); }
    const std::string& DevicePath() const { return m_device; }
    // Stops the simulator (SIGTERM) and returns everything it printed after the path.
    std::string Stop();

private:
    pid_t m_pid = -1;
    int m_outFd = -1;
    std::string m_device;
    std::string m_rest;
};

// Files and text. A file that cannot be read reads as empty.
std::vector<unsigned char> ReadFileBytes(const std::string& path);
std::string ReadText(const std::string& path);
void WriteText(const std::string& path, const std::string& text);
// The lines of a text, without their line feeds.
std::vector<std::string> TextLines(const std::string& text);
inline bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
// The process's file-creation mask (it can only be read by setting it).
inline mode_t CurrentUmask()
{
    const mode_t mask = umask(022);
    umask(mask);
    return mask;
}

// argv for getopt: a program name followed by the words, kept alive by the object.
class ArgList {
public:
    explicit ArgList(std::vector<std::string> words) : m_words(std::move(words))
    {
        m_words.insert(m_words.begin(), "prog");
        for (std::string& w : m_words)
            m_argv.push_back(&w[0]);
        m_argv.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(m_words.size()); }
    char** argv() { return m_argv.data(); }

private:
    std::vector<std::string> m_words;
    std::vector<char*> m_argv;
};

// Deterministic filler that differs from the erased value almost everywhere.
Bytes PatternBytes(size_t count, uint32_t seed);
