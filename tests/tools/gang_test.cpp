// kestrel_gang as a program, against a stand-in tool (a shell script speaking the
// tool's JSON lines) whose behaviour each port name chooses, and end to end with
// the real tool on simulated boards.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/run_event_names.h"
#include "tests/support/process.h"
#include "tools/image_builder.h"

namespace {

std::string GangPath() { return KESTREL_GANG_BIN; }

const char kFakeTool[] = R"SH(#!/bin/sh
# Stand-in for kestrelQT_u: the port (the last -c) says what to do.
case " $* " in *" --list-ports "*) printf '{"event":"port","path":"/x/ok1","vid":"0403"}\n[1]\n'; exit 0 ;; esac
port=
while [ $# -gt 0 ]; do [ "$1" = -c ] && port=$2; shift; done
name=$(basename "$port")
touch "$(dirname "$0")/started-$name"
echo '{"event":"start","port":"'"$port"'","rate":921600,"images":["main.img"]}'
echo 'not json at all'
echo '{"event":"progress","region":7,"done":"x","total":null}'
ok='{"event":"result","ok":true,"exit_code":0,"message":"Upgrade OK!","seconds":0.5,"bytes":100}'
case $name in
  # ok: more progress than a pipe holds, so a gang that stops reading would stall it
  ok*) for i in $(seq 2000); do echo '{"event":"progress","region":"main","phase":"write","done":50,"total":100}'; done
       echo '{"event":"region","region":"main","bytes":100,"seconds":0.5,"kbytes_per_s":0.2}'
       echo "$ok"; exit 0 ;;
  read*) printf %s "$port" > flash_A_0x0_L_0x200.bin; echo "$ok"; exit 0 ;;
  crash*) kill -SEGV $$ ;;
  utf*) echo '{"event":"result","ok":true,"exit_code":0,"message":"prêt à l’emploi","seconds":1,"bytes":1}'; exit 0 ;;
  silent*) echo "lost the line" >&2; exit 3 ;;
  wait*) read line
       [ "$line" = stop ] && echo '{"event":"result","ok":false,"exit_code":8,"message":"stopped by the user","seconds":1,"bytes":0}'
       exit 8 ;;
  deaf*) read line; touch "$(dirname "$0")/heard-$name"; sleep 30; exit 0 ;;
  stubborn*) trap 'touch "$(dirname "$0")/termed-$name"' TERM
       read line; touch "$(dirname "$0")/heard-$name"; for i in $(seq 60); do sleep 1 & wait $!; done ;;
esac
)SH";

class Gang : public testing::Test {
protected:
    void SetUp() override
    {
        tool = dir.File("fake_tool");
        std::ofstream(tool) << kFakeTool;
        chmod(tool.c_str(), 0755);
    }

    std::vector<std::string> Args(std::vector<std::string> ports)
    {
        std::vector<std::string> args = {"--tool", tool, "--log-dir", dir.File("logs"), "--report", reportPath};
        args.insert(args.end(), ports.begin(), ports.end());
        return args;
    }

    nlohmann::json Report() { return nlohmann::json::parse(std::ifstream(reportPath), nullptr, false); }

    bool Marked(const std::string& name) { return access(dir.File(name).c_str(), F_OK) == 0; }

    bool WaitForMarks(const std::vector<std::string>& names)
    {
        for (int i = 0; i < 200; ++i) {
            bool all = true;
            for (const std::string& name : names)
                all = all && Marked(name);
            if (all)
                return true;
            usleep(25000);
        }
        return false;
    }

    // The gang in a process group of its own, as a shell starts a foreground job:
    // a signal to that group is what a Ctrl-C typed at the terminal sends.
    pid_t StartInItsOwnGroup(std::vector<std::string> args)
    {
        pid_t pid = fork();
        if (pid == 0) {
            setpgid(0, 0);
            ArgList argList(args);
            dup2(open(dir.File("gang.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
            execv(GangPath().c_str(), argList.argv());
            _exit(127);
        }
        setpgid(pid, pid);
        return group = pid;
    }
    // A gang a failed assertion left running is killed: it holds the test's output open.
    void TearDown() override
    {
        if (group > 0 && waitpid(group, nullptr, WNOHANG) == 0 && kill(-group, SIGKILL) == 0)
            waitpid(group, nullptr, 0);
    }
    // Whether the gang started so ends within 20 s; if not, its group is killed, so
    // that a gang that never ends fails the test instead of hanging it.
    bool Ends(pid_t pid, int& status)
    {
        for (int i = 0; i < 400; ++i, usleep(50000))
            if (waitpid(pid, &status, WNOHANG) == pid)
                return true;
        kill(-pid, SIGKILL);
        waitpid(pid, &status, 0);
        return false;
    }

    TempDir dir;
    std::string tool;
    std::string reportPath = dir.File("report.json");
    pid_t group = 0;  // the gang started in its own group, if any
};

TEST_F(Gang, EveryBoardHasItsRowAndTheStatusIsZeroOnlyWhenAllSucceeded)
{
    ProcessResult all = RunProcess(GangPath(), Args({"auto", "/x/read1", "/x/read2"}));
    EXPECT_EQ(0, all.exitStatus) << all.out << all.err;
    EXPECT_TRUE(Has(all.out, "/x/ok1: ok (exit 0)")) << all.out;  // "auto": the ports the tool lists
    // Each board writes its debug read file into its own folder.
    EXPECT_EQ("/x/read1", ReadText(dir.File("logs/x_read1/flash_A_0x0_L_0x200.bin")));
    EXPECT_EQ("/x/read2", ReadText(dir.File("logs/x_read2/flash_A_0x0_L_0x200.bin")));
    // A board's error stream is kept as an ordinary file, rw-r--r-- before the umask.
    struct stat info = {};
    ASSERT_EQ(0, stat(dir.File("logs/x_ok1/stderr.txt").c_str(), &info));
    const mode_t mask = CurrentUmask();
    EXPECT_EQ(0644 & ~mask, info.st_mode & 07777);

    // How a result line and an exit status are judged is pinned in process; here the
    // real wait status of a crash and the last words of a tool that said nothing.
    ProcessResult mixed = RunProcess(GangPath(), Args({"/x/ok1", "/x/crash1", "/x/silent1"}));
    EXPECT_EQ(1, mixed.exitStatus);
    EXPECT_TRUE(Has(mixed.out, "/x/silent1: FAILED (exit 3)")) << mixed.out;
    EXPECT_TRUE(Has(mixed.out, "/x/ok1: started\n")) << mixed.out;
    nlohmann::json report = Report();
    ASSERT_FALSE(report.is_discarded());
    const struct { const char* port; bool ok; int exitCode; const char* message; } rows[] = {
        {"/x/ok1", true, 0, "Upgrade OK!"},
        {"/x/crash1", false, 128 + SIGSEGV, "crashed (signal 11)"},
        {"/x/silent1", false, 3, "ended without a result line: lost the line"}};
    ASSERT_EQ(3u, report["boards"].size());
    for (size_t i = 0; i < 3; ++i) {
        const nlohmann::json& board = report["boards"][i];
        EXPECT_EQ(rows[i].port, board["port"]);
        EXPECT_EQ(rows[i].ok, board["ok"]) << rows[i].port;
        EXPECT_EQ(rows[i].exitCode, board["exit_code"]) << rows[i].port;
        EXPECT_EQ(rows[i].message, board["message"]) << rows[i].port;
    }
    EXPECT_EQ(100, report["boards"][0]["bytes"]);
    EXPECT_EQ(dir.File("logs/x_crash1"), report["boards"][1]["folder"]);

    // A report the disk does not take (its bytes are buffered, the close fails) fails the run.
    reportPath = "/dev/full";
    ProcessResult full = RunProcess(GangPath(), Args({"/x/ok1"}));
    EXPECT_EQ(1, full.exitStatus);
    EXPECT_TRUE(Has(full.err, "cannot write /dev/full")) << full.err;
    // The report keeps the tool's text as it came (UTF-8), not escaped.
    reportPath = dir.File("report.json");
    EXPECT_EQ(0, RunProcess(GangPath(), Args({"/x/utf1"})).exitStatus);
    EXPECT_TRUE(Has(ReadText(reportPath), "\"prêt à l’emploi\"")) << ReadText(reportPath);
    EXPECT_EQ(0u, ReadText(reportPath).find("{\n  \"boards\": [\n    {\n")) << ReadText(reportPath);  // for people too
    // Started with its standard input closed, the gang reads its first board through descriptor 0.
    ProcessResult closedIn = RunProcess("/bin/sh", {"-c", "exec 0<&-; exec \"$0\" \"$@\"", GangPath(), "--tool",
                                                    tool, "--log-dir", dir.File("logs"), "/x/ok1"});
    EXPECT_EQ(0, closedIn.exitStatus) << closedIn.out << closedIn.err;
}

TEST_F(Gang, BadRequestsAreRefusedBeforeAnyBoardIsTouched)
{
    ProcessResult twice = RunProcess(GangPath(), Args({"/x/ok1", "/x/ok1"}));
    EXPECT_EQ(2, twice.exitStatus);
    EXPECT_TRUE(Has(twice.err, "/x/ok1 is named twice")) << twice.err;
    // The same device under a second name.
    WriteText(dir.File("ok2"), "");
    ASSERT_EQ(0, symlink(dir.File("ok2").c_str(), dir.File("ok3").c_str()));
    ProcessResult linked = RunProcess(GangPath(), Args({dir.File("ok2"), dir.File("ok3")}));
    EXPECT_EQ(2, linked.exitStatus);
    EXPECT_TRUE(Has(linked.err, dir.File("ok3") + " is named twice (as " + dir.File("ok2") + ")")) << linked.err;
    reportPath = dir.File("no-such-folder/report.json");
    ProcessResult unwritable = RunProcess(GangPath(), Args({"/x/ok4"}));
    EXPECT_EQ(2, unwritable.exitStatus);
    reportPath = dir.File("report.json");
    for (const char* jobs : {"", "-1", "2x"})  // --jobs takes a whole count, nothing else
        EXPECT_EQ(2, RunProcess(GangPath(), Args({"--jobs", jobs, "/x/ok1"})).exitStatus) << jobs;
    ProcessResult missing = RunProcess(GangPath(), {"/x/ok1", "--report"});  // its value missing
    EXPECT_EQ(2, missing.exitStatus);
    EXPECT_TRUE(Has(missing.err, "usage: kestrel_gang")) << missing.err;
    WriteText(dir.File("plain"), "");  // a board folder cannot be made under a file
    EXPECT_EQ(2, RunProcess(GangPath(), Args({"--log-dir", dir.File("plain/logs"), "/x/ok1"})).exitStatus);
    for (const char* name : {"ok1", "ok2", "ok3", "ok4"})
        EXPECT_FALSE(Marked(std::string("started-") + name)) << name;

    ProcessResult help = RunProcess(GangPath(), {"--help"});
    EXPECT_EQ(0, help.exitStatus);
    EXPECT_TRUE(Has(help.out, "usage: kestrel_gang")) << help.out;
    EXPECT_EQ("", help.err);
    EXPECT_EQ(0, RunProcess(GangPath(), {"--version"}).exitStatus);
}

TEST_F(Gang, ACtrlCAtTheTerminalOrASigtermStopsEveryBoardInsteadOfKillingIt)
{
    for (int signal : {SIGINT, SIGTERM}) {  // Ctrl-C reaches the whole group; SIGTERM (a service stop) the gang
        for (const char* mark : {"started-wait1", "started-wait2"})
            unlink(dir.File(mark).c_str());
        pid_t pid = StartInItsOwnGroup(Args({"--jobs", "2", "/x/wait1", "/x/wait2", "/x/ok3"}));
        ASSERT_TRUE(WaitForMarks({"started-wait1", "started-wait2"}));
        kill(signal == SIGINT ? -pid : pid, signal);
        int status = 0;
        ASSERT_TRUE(Ends(pid, status));
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(1, WEXITSTATUS(status));
        nlohmann::json report = Report();
        ASSERT_EQ(3u, report["boards"].size());
        const char* const messages[] = {"stopped by the user", "stopped by the user", "not started: stopped by the user"};
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(run_event::kExitStopped, report["boards"][i]["exit_code"]) << signal << " " << i;
            EXPECT_EQ(messages[i], report["boards"][i]["message"]) << signal << " " << i;
        }
        EXPECT_FALSE(Marked("started-ok3"));
        const std::string shown = ReadText(dir.File("gang.out"));  // the board never started has its line too
        EXPECT_TRUE(Has(shown, "/x/ok3: FAILED (exit 8) not started: stopped by the user")) << shown;
    }
}

// Each Ctrl-C takes a board one step further: "stop" typed, then SIGTERM, then SIGKILL
// for one that outlives SIGTERM too.
TEST_F(Gang, EachFurtherCtrlCEndsABoardThatDoesNotAnswerStopHarder)
{
    const struct { const char* port; std::vector<std::string> marks; const char* message; } rows[] = {
        {"/x/deaf1", {"heard-deaf1"}, "stopped: no answer to stop, ended by signal 15"},
        {"/x/stubborn1", {"heard-stubborn1", "termed-stubborn1"}, "stopped: no answer to stop, ended by signal 9"},
    };
    for (const auto& row : rows) {
        pid_t pid = StartInItsOwnGroup(Args({row.port}));
        ASSERT_TRUE(WaitForMarks({"started-" + std::string(row.port + 3)}));
        for (const std::string& mark : row.marks) {
            kill(-pid, SIGINT);
            ASSERT_TRUE(WaitForMarks({mark})) << mark;
        }
        kill(-pid, SIGINT);
        int status = 0;
        ASSERT_TRUE(Ends(pid, status));
        nlohmann::json board = Report()["boards"][0];
        EXPECT_EQ(run_event::kExitStopped, board["exit_code"]);
        EXPECT_EQ(row.message, board["message"]);
    }
}

// The real tool on three simulated boards, one of which never answers: two rows
// succeed with the whole image, one fails with "no answer", and the gang fails.
// The image and the settings are found from the gang's folder, though each
// board runs in its own.
TEST(GangEndToEnd, RealToolOnSimulatedBoardsOneOfThemDead)
{
    TempDir dir;
    ImageSpec spec;
    spec.sections.resize(1);
    spec.sections[0].data.assign(30000, 0x3C);
    ASSERT_TRUE(WriteFileBytes(dir.File("main.img"), BuildImage(spec)));
    std::ofstream(dir.File("settings_mac.ini")) << "[debug]\niDebugOp=n\n";
    SimProcess good1({"--flash", dir.File("f1.bin")});
    SimProcess good2({"--flash", dir.File("f2.bin")});
    SimProcess dead({"--flash", dir.File("f3.bin"), "--fault", "GetFlashId:every:noreply"});
    ASSERT_TRUE(good1.Started() && good2.Started() && dead.Started());
    ProcessResult r = RunProcess(GangPath(), {"--report", "report.json", "--log-dir", "logs",
                                              good1.DevicePath(), dead.DevicePath(), good2.DevicePath(),
                                              "--", "--fast", "-i", "main.img", "-r", "1"}, {dir.Path()});
    EXPECT_EQ(1, r.exitStatus) << r.out;
    nlohmann::json report = nlohmann::json::parse(std::ifstream(dir.File("report.json")), nullptr, false);
    ASSERT_EQ(3u, report["boards"].size());
    EXPECT_EQ(true, report["boards"][0]["ok"]);
    EXPECT_EQ(30064, report["boards"][0]["bytes"]);
    EXPECT_EQ(5, report["boards"][1]["exit_code"]);
    EXPECT_EQ(true, report["boards"][2]["ok"]);
}

}  // namespace
