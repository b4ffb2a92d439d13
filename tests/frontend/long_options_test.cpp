// The command line beyond the classic options: --help, --version, exit codes that
// tell the outcome, JSON lines for scripts, and the fast link's summary line. With
// none of them given, the classic texts and statuses hold (driver_cli_test).
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "frontend/run_sinks.h"
#include "tests/support/process.h"
#include "tools/image_builder.h"

namespace {

ProcessResult RunTool(const TempDir& dir, const std::vector<std::string>& args)
{
    return RunProcess(ToolPath(), args, {dir.Path()});
}

TEST(LongOptions, HelpIsTheUsageFollowedByTheLongOptionsVersionIsOneLine)
{
    TempDir dir;
    ProcessResult usage = RunTool(dir, {"-h"});
    ProcessResult help = RunTool(dir, {"--help"});
    EXPECT_EQ(0, help.exitStatus);
    ASSERT_EQ(0u, help.out.find(usage.out)) << "the usage text comes first, unchanged";
    std::vector<std::string> extra = TextLines(help.out.substr(usage.out.size()));
    ASSERT_FALSE(extra.empty());
    EXPECT_EQ("Long options:", extra[0]);
    for (const char* option : {"--help", "--version", "--fast", "--exit-code", "--json", "--verify", "--erase-all",
                               "--write", "--info", "--flash-size", "-v prints the usage", "n (none", "settings_mac.ini"}) {
        bool listed = false;
        for (const std::string& line : extra)
            listed = listed || line.find(option) != std::string::npos;
        EXPECT_TRUE(listed) << option;
    }
    ProcessResult version = RunTool(dir, {"--version"});
    EXPECT_EQ(0, version.exitStatus);
    EXPECT_EQ(1u, TextLines(version.out).size());
    EXPECT_EQ(0u, version.out.find("kestrelQT_u 1.")) << version.out;
}

TEST(ExitCodes, OnlyWithTheOptionDoesTheStatusTellTheOutcome)
{
    TempDir dir;
    const struct { const char* name; std::vector<std::string> args; int classic, withCode; } cases[] = {
        {"unknown option", {"-x"}, 0, 2}, {"version", {"--version"}, 0, 0}, {"usage", {"-h"}, 0, 0},
        {"report on missing images", {"-i", "none.img", "-I", "none2.img", "-s"}, 0, 3},
        {"debug road, device missing", {"-D", "r", "-c", "/nonexistent/tty"}, 255, 4},
        {"combine, image missing", {"-D", "n", "-g", "1", "-i", "none.img"}, 255, 3},
        {"upgrade, image missing", {"-D", "n", "-i", "none.img"}, 0, 3},
        {"upgrade, device missing", {"-D", "n", "-i", "main.img", "-c", "/nonexistent/tty"}, 0, 4},
        {"verify, device missing", {"--verify", "-i", "main.img", "-c", "/nonexistent/tty"}, 255, 4},
        // The log's folder cannot be made (its parent is a file): a local file, not "no answer".
        {"debug road, log folder", {"-D", "r", "-d", "1", "-l", "plain/log.txt", "-c", "/none/tty"}, 255, 9},
        {"upgrade, log folder", {"-D", "n", "-i", "main.img", "-d", "1", "-l", "plain/log.txt", "-c", "/none/tty"}, 0, 9},
    };
    WriteText(dir.File("plain"), "a file, not a folder");
    ImageSpec spec;
    spec.sections.resize(1);
    spec.sections[0].data.assign(1000, 0x5A);
    ASSERT_TRUE(WriteFileBytes(dir.File("main.img"), BuildImage(spec)));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> withCode = c.args;
        withCode.insert(withCode.begin(), "--exit-code");
        EXPECT_EQ(c.classic, RunTool(dir, c.args).exitStatus);
        EXPECT_EQ(c.withCode, RunTool(dir, withCode).exitStatus);
    }
    // No device on the upgrade road: the upgrade text's failure is told, then the connection's.
    EXPECT_TRUE(Has(RunTool(dir, {"-D", "n", "-i", "main.img", "-c", "/none/tty"}).out, "Open uart error!3%: Opening com...\n"));
}

TEST(JsonLines, StdoutIsOnlyJsonEndingInOneResultWhateverThePathHolds)
{
    TempDir dir;
    const std::string oddPath = std::string("/nonexistent/q\"uote\\back\ttab\x01") + "\xff.tty";
    ProcessResult r = RunTool(dir, {"--json", "-D", "r", "-c", oddPath});
    EXPECT_EQ(4, r.exitStatus);
    std::vector<std::string> lines = TextLines(r.out);
    ASSERT_FALSE(lines.empty());
    for (size_t i = 0; i < lines.size(); ++i) {
        nlohmann::json event = nlohmann::json::parse(lines[i], nullptr, false);
        ASSERT_FALSE(event.is_discarded()) << lines[i];
        EXPECT_EQ(i + 1 == lines.size(), event["event"] == "result") << lines[i];
    }
    nlohmann::json result = nlohmann::json::parse(lines.back());
    EXPECT_EQ(false, result["ok"]);
    EXPECT_EQ(4, result["exit_code"]);
    EXPECT_NE(std::string::npos, result["message"].get<std::string>().find("Open uart error!"));
    // The human text went to the error stream.
    EXPECT_NE(std::string::npos, r.err.find("ERR: can't open serial port:")) << r.err;
}

TEST(FastSummary, OneLineWithBytesSecondsRateAndShareOfTheLine)
{
    // 1 MiB in 13.9 s at 921600 bit/s: 75.4 KB/s, 82% of the 92,160 bytes/s line.
    EXPECT_EQ("main: 1048576 bytes in 13.9 s, 75.4 KB/s, 82% of line",
              RegionSummary("main", 1048576, 13.9, 921600));
    EXPECT_EQ("etf: 0 bytes in 0.0 s, 0.0 KB/s, 0% of line", RegionSummary("etf", 0, 0.0, 921600));
    EXPECT_EQ("ota: 1000 bytes in 1.0 s, 1.0 KB/s, 0% of line", RegionSummary("ota", 1000, 1.0, 0));  // no rate known
    EXPECT_EQ("ota: 1000 bytes in 0.5 s, 2.0 KB/s, 2% of line", RegionSummary("ota", 1000, 0.5, 921600));
}

}  // namespace
