// kestrel_gang against a stand-in tool (a shell script speaking the tool's JSON
// lines) whose behaviour each port name chooses: success, failure, a crash, no
// result line, or waiting at its console until "stop" arrives.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/support/process.h"
#include "tools/image_builder.h"

namespace {

std::string GangPath() { return KESTREL_GANG_BIN; }

const char kFakeTool[] = R"SH(#!/bin/sh
# Stand-in for kestrelQT_u: the port (after -c) says what to do.
port=
while [ $# -gt 0 ]; do [ "$1" = -c ] && port=$2; shift; done
touch "$(dirname "$0")/started-$(basename "$port")"
echo '{"event":"start","port":"'"$port"'","rate":921600,"images":["main.img"]}'
echo 'not json at all'
case $(basename "$port") in
  ok*) echo '{"event":"progress","region":"main","phase":"write","done":50,"total":100}'
       echo '{"event":"region","region":"main","bytes":100,"seconds":0.5,"kbytes_per_s":0.2}'
       echo '{"event":"result","ok":true,"exit_code":0,"message":"Upgrade OK!","seconds":0.5,"bytes":100}'
       exit 0 ;;
  fail*) echo '{"event":"result","ok":false,"exit_code":6,"message":"flash command failed","seconds":0.1,"bytes":0}'
       exit 6 ;;
  crash*) kill -SEGV $$ ;;
  silent*) echo "lost the line" >&2; exit 3 ;;
  wait*) read line
       [ "$line" = stop ] && echo '{"event":"result","ok":false,"exit_code":8,"message":"stopped by the user","seconds":1,"bytes":0}'
       exit 8 ;;
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
        std::vector<std::string> args = {"--tool", tool, "--log-dir", dir.File("logs"), "--report", report};
        args.insert(args.end(), ports.begin(), ports.end());
        return args;
    }

    nlohmann::json Report() { return nlohmann::json::parse(std::ifstream(report), nullptr, false); }

    bool Started(const std::string& name) { return access(dir.File("started-" + name).c_str(), F_OK) == 0; }

    TempDir dir;
    std::string tool;
    std::string report = dir.File("report.json");
};

TEST_F(Gang, EveryBoardHasItsRowAndTheStatusIsZeroOnlyWhenAllSucceeded)
{
    ProcessResult all = RunProcess(GangPath(), Args({"/x/ok1", "/x/ok2"}));
    EXPECT_EQ(0, all.exitStatus) << all.out << all.err;

    ProcessResult mixed = RunProcess(GangPath(), Args({"/x/ok1", "/x/fail1", "/x/crash1", "/x/silent1"}));
    EXPECT_EQ(1, mixed.exitStatus);
    nlohmann::json report = Report();
    ASSERT_FALSE(report.is_discarded());
    struct Row {
        const char* port;
        bool ok;
        int exitCode;
        const char* message;
    };
    const Row rows[] = {{"/x/ok1", true, 0, "Upgrade OK!"},
                        {"/x/fail1", false, 6, "flash command failed"},
                        {"/x/crash1", false, 128 + SIGSEGV, "crashed (signal 11)"},
                        {"/x/silent1", false, 3, "ended without a result line: lost the line"}};
    ASSERT_EQ(4u, report["boards"].size());
    for (size_t i = 0; i < 4; ++i) {
        const nlohmann::json& board = report["boards"][i];
        EXPECT_EQ(rows[i].port, board["port"]);
        EXPECT_EQ(rows[i].ok, board["ok"]) << rows[i].port;
        EXPECT_EQ(rows[i].exitCode, board["exit_code"]) << rows[i].port;
        EXPECT_EQ(rows[i].message, board["message"]) << rows[i].port;
    }
    EXPECT_EQ(100, report["boards"][0]["bytes"]);
    // Each board has its own log files.
    EXPECT_EQ(0, access(dir.File("logs/x_ok1.stderr").c_str(), F_OK));
    EXPECT_EQ(0, access(dir.File("logs/x_fail1.stderr").c_str(), F_OK));
}

TEST_F(Gang, BadRequestsAreRefusedBeforeAnyBoardIsTouched)
{
    ProcessResult twice = RunProcess(GangPath(), Args({"/x/ok1", "/x/ok1"}));
    EXPECT_EQ(2, twice.exitStatus);
    EXPECT_NE(std::string::npos, twice.err.find("named twice")) << twice.err;
    report = dir.File("no-such-folder/report.json");
    ProcessResult unwritable = RunProcess(GangPath(), Args({"/x/ok2"}));
    EXPECT_EQ(2, unwritable.exitStatus);
    EXPECT_FALSE(Started("ok1"));
    EXPECT_FALSE(Started("ok2"));
}

TEST_F(Gang, InterruptSendsStopToEveryConsoleAndWaitsForTheBoards)
{
    pid_t pid = fork();
    if (pid == 0) {
        ArgList args(Args({"/x/wait1", "/x/wait2"}));
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        execv(GangPath().c_str(), args.argv());
        _exit(127);
    }
    for (int i = 0; i < 100 && !(Started("wait1") && Started("wait2")); ++i)
        usleep(50000);
    ASSERT_TRUE(Started("wait1") && Started("wait2"));
    kill(pid, SIGINT);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(1, WEXITSTATUS(status));
    nlohmann::json report = Report();
    ASSERT_EQ(2u, report["boards"].size());
    for (const nlohmann::json& board : report["boards"]) {
        EXPECT_EQ(8, board["exit_code"]);
        EXPECT_EQ("stopped by the user", board["message"]);
    }
}

// The real tool on three simulated boards, one of which never answers: two rows
// succeed with the whole image, one fails with "no answer", and the gang fails.
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
                                              "--", "--fast", "-i", "main.img", "-r", "1"},
                                 {dir.Path()});
    EXPECT_EQ(1, r.exitStatus) << r.out;
    nlohmann::json report = nlohmann::json::parse(std::ifstream(dir.File("report.json")), nullptr, false);
    ASSERT_EQ(3u, report["boards"].size());
    EXPECT_EQ(true, report["boards"][0]["ok"]);
    EXPECT_EQ(30064, report["boards"][0]["bytes"]);
    EXPECT_EQ(5, report["boards"][1]["exit_code"]);
    EXPECT_EQ(true, report["boards"][2]["ok"]);
}

}  // namespace
