// The gang's parts in process: a board's events and verdict, its table row, its
// start, its tool command line, and the JSON words it shares with the tool.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/failure_kind.h"
#include "common/run_event_names.h"
#include "common/run_report.h"
#include "frontend/run_sinks.h"
#include "tests/support/process.h"
#include "tests/support/serial_fixtures.h"
#include "tools/gang/board_events.h"
#include "tools/gang/board_plan.h"
#include "tools/gang/display.h"
#include "tools/gang/gang_options.h"
#include "tools/gang/scheduler.h"
#include "tools/gang/tool_command.h"

namespace {

GangClock::time_point At(double seconds)
{
    return GangClock::time_point() + std::chrono::duration_cast<GangClock::duration>(std::chrono::duration<double>(seconds));
}

TEST(GangEvents, ThePercentIsCappedAndTheRateIsLiveForEachRegion)
{
    const struct { double at; const char* line; const char* phase; double percent; double kbPerS; } steps[] = {
        {10, R"({"event":"progress","region":"main","phase":"check","done":0,"total":100000})", "main check", 0, 0},
        {11, R"({"event":"progress","region":"main","phase":"write","done":50000,"total":100000})", "main write", 50, 50},
        {12, R"({"event":"progress","region":"main","phase":"done","done":120000,"total":100000})", "main done", 100, 60},
        {12, R"({"event":"region","region":"main","bytes":100000,"seconds":2,"kbytes_per_s":55.5})", "main done", 100, 55.5},
        {13, R"({"event":"progress","region":"ota","phase":"erase","done":0,"total":2048})", "ota erase", 0, 0},
        {15, R"({"event":"progress","region":"ota","phase":"write","done":2048,"total":2048})", "ota write", 100, 1.024},
        // a retried block back at the region's start: the last rate stays shown
        {15.5, R"({"event":"progress","region":"ota","phase":"write","done":0,"total":2048})", "ota write", 0, 1.024},
        {15, R"({"event":"progress","region":7,"phase":null,"done":"x"})", " ", 0, 0},  // wrong types: ignored fields
        {16, "not json", " ", 0, 0},
    };
    Board board;
    for (const auto& step : steps) {
        TakeEvent(board, step.line, At(step.at));
        EXPECT_EQ(step.phase, board.phase) << step.line;
        EXPECT_DOUBLE_EQ(step.percent, board.percent) << step.line;
        EXPECT_NEAR(step.kbPerS, board.kbPerS, 1e-9) << step.line;
    }
    // A line is kept up to 64 KiB while it arrives; a longer one is dropped.
    for (const size_t size : {size_t(64 * 1024), size_t(64 * 1024 + 1)}) {
        std::string line = R"({"event":"region","region":"main","bytes":1,"seconds":1,"kbytes_per_s":7})";
        line.resize(size, ' ');
        Board fed;
        TakeOutput(fed, line.data(), line.size(), At(0));
        TakeOutput(fed, "\n", 1, At(0));
        EXPECT_EQ(size == 64 * 1024 ? 7.0 : 0.0, fed.kbPerS) << size;
    }
}

TEST(GangVerdict, ABoardSucceedsOnlyWhenItsResultLineAndExitStatusAgreeOnSuccess)
{
    const int kNoResult = -1;
    struct Case {
        bool ok;
        int exitCode;  // in the result line; kNoResult: no line
        int status;    // the wait status
        StopStep stop;
        bool judgedOk;
        int judgedCode;
        const char* message;
    };
    const int exited5 = 5 << 8, exited6 = 6 << 8, exited8 = 8 << 8;
    const Case cases[] = {
        {true, 0, 0, StopStep::kNone, true, 0, "said"}, {false, 6, exited6, StopStep::kNone, false, 6, "said"},
        {false, 8, exited8, StopStep::kTyped, false, 8, "said"},
        {false, 255, 255 << 8, StopStep::kNone, false, 255, "said"},  // the tool's classic failure status
        {true, 0, exited5, StopStep::kNone, false, 5, "said (exit status 5 contradicts the result line)"},
        {false, 6, 0, StopStep::kNone, false, 6, "said (exit status 0 contradicts the result line)"},
        {false, 0, 0, StopStep::kNone, false, 1, "said (exit status 0 contradicts the result line)"},
        {true, 3, 0, StopStep::kNone, false, 3, "said (exit status 0 contradicts the result line)"},
        {false, kNoResult, 0, StopStep::kNone, false, 1, "ended without a result line"},
        {false, kNoResult, exited5, StopStep::kNone, false, 5, "ended without a result line"},
        {false, kNoResult, SIGSEGV, StopStep::kNone, false, 128 + SIGSEGV, "crashed (signal 11)"},
        {false, kNoResult, SIGTERM, StopStep::kTyped, false, 128 + SIGTERM, "crashed (signal 15)"},
        {false, kNoResult, SIGTERM, StopStep::kTerminated, false, run_event::kExitStopped,
         "stopped: no answer to stop, ended by signal 15"},
    };
    for (const Case& c : cases) {
        Board board;
        board.stopStep = c.stop;
        board.child.in = UniqueFd(dup(STDERR_FILENO));  // its console: closed when it ends
        if (c.exitCode != kNoResult)
            TakeEvent(board, nlohmann::json{{"event", "result"}, {"ok", c.ok}, {"exit_code", c.exitCode}, {"message", "said"}}.dump(), At(0));
        JudgeEnd(board, c.status, At(1));
        const std::string what = std::to_string(c.exitCode) + "/" + std::to_string(c.status);
        EXPECT_TRUE(board.finished && !board.child.in.IsOpen()) << what;
        EXPECT_EQ(c.judgedOk, board.ok) << what;
        EXPECT_EQ(c.judgedCode, board.exitCode) << what;
        EXPECT_EQ(c.message, board.message) << what;
        EXPECT_EQ(1.0, board.seconds) << what;  // no line said how long: the time since it began
    }
}

TEST(GangTable, RowsAreCutToTheTerminalWidth)
{
    Board board;
    board.port = "/dev/serial/by-id/usb-FTDI_FT232R_USB_UART_A10K3X7M-if00-port0";
    board.phase = "main verify";
    board.percent = 100;
    board.kbPerS = 81.25;
    board.finished = true;
    board.exitCode = 7;
    board.message = "verify mismatch";
    const std::string whole =
        "..._UART_A10K3X7M-if00-port0 main verify          100%      81.2  FAILED 7: verify mismatch";
    const struct { size_t width; std::string row; } cases[] = {
        {200, whole}, {80, whole.substr(0, 79)}, {40, whole.substr(0, 39)}, {1, "."}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.row, TableRow(board, c.width)) << c.width;
        EXPECT_GE(std::max<size_t>(c.width - 1, 1), TableHeading(c.width).size()) << c.width;
    }
    EXPECT_TRUE(Has(TableRow(Board(), 200), "waiting" + std::string(16, ' ') + "0%")) << TableRow(Board(), 200);
    board.port = "/dev/serial/by-id/usb-K-port";  // 28 characters: the port column holds them whole
    EXPECT_EQ(board.port + " main verify", TableRow(board, 200).substr(0, 40));
    // The live table redraws in place: up over the heading and both rows, once per redraw.
    Display live(true);
    const std::vector<Board> two(2);
    const std::string drawn = CapturedStdout([&] { live.Show(two); live.Show(two); });
    EXPECT_EQ(0u, drawn.find("\033[J")) << drawn;
    EXPECT_EQ(drawn.find("\033[3A"), drawn.rfind("\033[3A")) << drawn;
    EXPECT_NE(std::string::npos, drawn.find("\033[3A\033[J")) << drawn;
    // On a terminal the rows fit its width; one that gives no width gets 80 columns.
    for (const unsigned short columns : {50, 0}) {
        const int master = posix_openpt(O_RDWR | O_NOCTTY);
        ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
        const int terminal = open(ptsname(master), O_RDWR | O_NOCTTY), saved = dup(STDOUT_FILENO);
        const winsize size = {0, columns, 0, 0};
        ASSERT_EQ(0, ioctl(terminal, TIOCSWINSZ, &size));
        dup2(terminal, STDOUT_FILENO);
        Display(true).Show(two);
        dup2(saved, STDOUT_FILENO);
        char text[1024];
        const std::string shown(text, std::max<ssize_t>(0, read(master, text, sizeof text)));
        const size_t from = shown.find("\033[J") + 3;
        EXPECT_EQ(TableHeading(columns ? columns : 80), shown.substr(from, shown.find_first_of("\r\n", from) - from));
        close(master), close(terminal), close(saved);
    }
    // Characters, not bytes, and never half a character.
    EXPECT_EQ("a\xC3\xA4" "b", FitColumns("a\xC3\xA4" "bc", 3));
}

bool FailToFork(const ChildSpec&, Child&, std::string& why)
{
    why = "fork: Resource temporarily unavailable";
    return false;
}

TEST(GangStart, AToolThatCannotStartIsReportedInItsBoardsRow)
{
    std::vector<Board> boards(2);
    boards[0].port = "/x/a";
    boards[1].port = "/x/b";
    Display display(false);
    GangRun run;
    run.jobs = 1;
    run.spawn = FailToFork;
    run.display = &display;
    EXPECT_FALSE(RunBoards(boards, run));
    for (const Board& board : boards) {
        EXPECT_FALSE(board.ok);
        EXPECT_EQ(1, board.exitCode);
        EXPECT_EQ("could not start the tool: fork: Resource temporarily unavailable", board.message);
    }
    // The real spawn says why it failed before it returns.
    const struct { std::vector<std::string> argv; const char* folder; const char* why; } failures[] = {
        {{"/no/such/tool"}, "", "cannot run /no/such/tool: No such file or directory"},
        {{"/bin/true"}, "/no/such/folder", "cannot enter /no/such/folder: No such file or directory"},
        {{}, "", "nothing to run"}};
    for (const auto& f : failures) {
        ChildSpec spec;
        spec.argv = f.argv;
        spec.folder = f.folder;
        Child child;
        std::string why;
        EXPECT_FALSE(SpawnChild(spec, child, why));
        EXPECT_EQ(f.why, why);
    }
}

TEST(GangCommand, InputsAreFoundFromTheGangsFolderAndEverySettingsLoadKeepsTheBoardsPort)
{
    TempDir dir;
    const std::string b = dir.Path();
    WriteText(dir.File("settings_mac.ini"), "[firmware]\nstrImagePath=rel.img\nstrEtfImagePath=/abs/etf.img\n");
    ToolCommand command("bin/tool", {"-D", "n", "--fast", "-r1", "-imain.img", "-C", "o.ini", "-G", "o.cimg", "-s", "-i", "x"}, b);
    const std::vector<std::string> expected = {
        b + "/bin/tool", "-C", b + "/settings_mac.ini", "-i", b + "/rel.img", "-B", b + "/a.bin", "-c", "/dev/p",
        "-l", "/f/log.txt", "--json", "-D", "n", "--fast", "-r", "1", "-i", b + "/main.img",
        "-C", b + "/o.ini", "-i", b + "/tq-system.img", "-I", b + "/tq-system_etf.img", "-B", b + "/a.bin",
        "-c", "/dev/p", "-l", "/f/log.txt", "-G", "o.cimg", "-s", "-i", "x"};
    EXPECT_EQ(expected, command.For("/dev/p", "/f/log.txt"));
    EXPECT_EQ(b + "/pty", command.For("pty", "/f/log.txt")[8]);
    // A value missing at the end goes to the tool as it is, for the tool to refuse.
    EXPECT_EQ("-i", ToolCommand("bin/tool", {"-r1", "-i"}, b).For("/dev/p", "/f/log.txt").back());
    // A flag joined to an option with a value is passed on apart from it.
    const std::vector<std::string> joined = ToolCommand("bin/tool", {"-vix"}, b).For("/dev/p", "/f/log.txt");
    EXPECT_EQ((std::vector<std::string>{"-v", "-i", b + "/x"}), std::vector<std::string>(joined.end() - 3, joined.end()));
    EXPECT_EQ("x", ToolCommand("bin/tool", {"--", "-i", "x"}, b).For("/dev/p", "/f/log.txt").back());  // after "--": as is
}

TEST(GangPlan, EachBoardHasAFolderUnderTheLogDirElseUnderTheReportsFolder)
{
    const struct { const char* logDir; const char* report; const char* root; } roots[] = {
        {"", "", "/here"}, {"", "out/r.json", "/here/out"}, {"", "/r.json", "/"}, {"logs", "out/r.json", "/here/logs"}};
    for (const auto& r : roots) {
        GangOptions options;
        options.logDir = r.logDir;
        options.report = r.report;
        EXPECT_EQ(r.root, BoardsRoot(options, "/here")) << r.logDir << " " << r.report;
    }
    // One folder per board, also when two ports give one name.
    TempDir dir;
    std::vector<Board> boards;
    std::string why;
    const ToolCommand tool("tool", {}, dir.Path());
    ASSERT_TRUE(PlanBoards({"/x/a b", "/x/a_b", "/", ".."}, dir.File("boards"), tool, boards, why)) << why;
    EXPECT_EQ(dir.File("boards/x_a_b"), boards[0].folder);
    EXPECT_EQ(dir.File("boards/x_a_b-2"), boards[1].folder);
    EXPECT_EQ(dir.File("boards/port-2"), boards[3].folder);  // "/" and ".." name no folder: "port"
    const mode_t mask = CurrentUmask();
    for (const Board& board : boards) {
        struct stat info;
        EXPECT_TRUE(stat(board.folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) << board.folder;
        EXPECT_EQ(0755u & ~mask, info.st_mode & 07777u) << board.folder;
        const std::vector<std::string>& words = board.command;
        EXPECT_NE(words.end(), std::find(words.begin(), words.end(), board.folder + "/log.txt"));
    }
    WriteText(dir.File("boards/dev_ttyS0"), "");  // a file where the board's folder goes
    EXPECT_FALSE(PlanBoards({"/dev/ttyS0"}, dir.File("boards"), tool, boards, why));
    EXPECT_EQ("cannot make " + dir.File("boards/dev_ttyS0") + ": File exists", why);
}

// The tool's JSON writer and the gang agree on every word.
TEST(GangSchema, TheToolsJsonLinesUseTheSharedNames)
{
    static_assert(run_event::kExitStopped == static_cast<int>(FailureKind::kStopped), "stopped status");
    using namespace run_event;
    std::FILE* out = std::tmpfile();
    ASSERT_NE(nullptr, out);
    JsonSink sink(out);
    sink.Start("/dev/p", 921600, {"prêt.img"});
    sink.Progress("main", "write", 1, 2);
    sink.Region("main", 2, 1.0);
    sink.Port("/dev/p", "0403", "6001", "A1", "ftdi_sio", "usb-x");
    sink.Link(2000000);
    sink.Result(0, "Upgrade OK!", 1.0);
    const std::vector<std::vector<const char*>> expected = {
        {kEventStart, kFieldPort, kFieldRate, kFieldImages},
        {kEventProgress, kFieldRegion, kFieldPhase, kFieldDone, kFieldTotal},
        {kEventRegion, kFieldRegion, kFieldBytes, kFieldSeconds, kFieldKbytesPerS},
        {kEventPort, kFieldPath, kFieldVid, kFieldPid, kFieldSerial, kFieldDriver, kFieldById, kFieldAdapter},
        {kEventLink, kFieldRate},
        {kEventResult, kFieldOk, kFieldExitCode, kFieldMessage, kFieldSeconds, kFieldBytes}};
    std::rewind(out);
    char line[512];
    for (const std::vector<const char*>& words : expected) {
        ASSERT_NE(nullptr, std::fgets(line, sizeof line, out));
        const nlohmann::json event = nlohmann::json::parse(line);
        EXPECT_EQ(words[0], event[kFieldEvent]) << line;
        EXPECT_TRUE(words[0] != kEventStart || Has(line, "[\"prêt.img\"]")) << line;  // UTF-8 as it is, not escaped
        EXPECT_EQ(words.size(), event.size()) << line;  // the event field and the fields named
        for (size_t i = 1; i < words.size(); ++i)
            EXPECT_TRUE(event.contains(words[i])) << words[i] << " in " << line;
    }
    std::fclose(out);
}

}  // namespace
