// The stop console: which lines stop an upgrade, what is echoed, and the end of input.
#include <gtest/gtest.h>

#include <pthread.h>
#include <string>
#include <unistd.h>

#include "flashhost/CFlashHost.h"
#include "frontend/upgrade_start.h"

namespace {

// Feeds `text` to InputThread as its standard input, runs the thread to its end
// (the writer is closed, so it always ends) and returns what it printed.
std::string RunConsole(const std::string& text)
{
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const int savedStdin = dup(0);
    dup2(fds[0], 0);
    close(fds[0]);
    clearerr(stdin);

    testing::internal::CaptureStdout();
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, nullptr, InputThread, nullptr), 0);
    EXPECT_EQ(write(fds[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fds[1]);
    pthread_join(thread, nullptr);
    std::string out = testing::internal::GetCapturedStdout();

    // Whatever the thread left unread must not reach the next case.
    char rest[300];
    while (fgets(rest, sizeof rest, stdin)) {
    }
    dup2(savedStdin, 0);
    close(savedStdin);
    clearerr(stdin);
    return out;
}

std::string Echo(const std::string& line) { return "Data:" + line + "TIP:Input 'stop' to stop upgrading.\n"; }

TEST(StopConsole, OnlyTheExactStopLineStops)
{
    const std::string longLine(300, 'x');
    const struct { const char* what; std::string input; bool stops; std::string output; } cases[] = {
        {"stop first", "stop\n", true, ""}, {"one line, then stop", "abc\nstop\n", true, Echo("abc\n")},
        {"case and blanks matter", "Stop\nstop \n stop\n", false, Echo("Stop\n") + Echo("stop \n") + Echo(" stop\n")},
        {"empty input", "", false, ""}, {"stop without its line feed", "stop", false, Echo("stop")},
        {"an empty line is echoed", "\nstop\n", true, Echo("\n")},
        {"a long line arrives in pieces", longLine + "\nstop\n", true,
         Echo(std::string(259, 'x')) + Echo(std::string(41, 'x') + "\n")},
        {"stop as the tail of a long line", std::string(259, 'y') + "stop\n", true, Echo(std::string(259, 'y'))},
    };
    for (const auto& c : cases) {
        g_flashHost.SetStartUpdate();
        std::string out = RunConsole(c.input);
        EXPECT_EQ(g_flashHost.GetUpdateStatus() != 0, c.stops) << c.what;
        EXPECT_EQ(out, c.output) << c.what;
    }
    g_flashHost.SetStartUpdate();
}

}  // namespace
