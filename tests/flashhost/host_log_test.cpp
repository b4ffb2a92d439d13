// The host log: levels, folders, the line format and its failures.
#include <cctype>
#include <sstream>
#include <sys/stat.h>

#include "flashhost/CFlashHost.h"
#include "frontend/Setting.h"
#include "tests/support/serial_fixtures.h"

namespace {

// "[hh:mm:ss.mmm]" followed by `text` and one line feed.
void ExpectLine(const std::string& line, const std::string& text)
{
    const std::string shape = "[00:00:00.000]";
    bool stamped = line.size() >= shape.size();
    for (size_t i = 0; stamped && i < shape.size(); ++i)
        stamped = shape[i] == '0' ? isdigit(static_cast<unsigned char>(line[i])) != 0 : line[i] == shape[i];
    EXPECT_TRUE(stamped) << line;
    EXPECT_EQ(text + "\n", line.substr(std::min<size_t>(14, line.size())));
}

// Each line with its line feed; a last line without one is kept as it is.
std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(in.eof() ? line : line + "\n");
    return lines;
}

class HostLogTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(dir.Path().empty()); }
    void TearDown() override { g_Setting.bLogLevel = 0; }

    void UseLog(const std::string& path, unsigned char level)
    {
        snprintf(g_Setting.strLogFile, sizeof g_Setting.strLogFile, "%s", path.c_str());
        g_Setting.bLogLevel = level;
    }

    TempDir dir;
    CFlashHost host;
};

// At level 0 nothing is made at all.
TEST_F(HostLogTest, NestedFoldersAreCreatedAndTheLogStartsEmpty)
{
    std::string path = dir.File("out/a/b/log.txt");
    UseLog(path, 0);
    EXPECT_TRUE(host.InitLogFile());
    host.WriteLogBuf("Open uart...", nullptr, 0);
    EXPECT_NE(0, access(dir.File("out").c_str(), F_OK));
    UseLog(path, 1);
    mode_t old = umask(0);
    EXPECT_TRUE(host.InitLogFile());
    umask(old);
    for (const char* folder : {"out", "out/a", "out/a/b"}) {
        struct stat info;
        ASSERT_EQ(0, stat(dir.File(folder).c_str(), &info)) << folder;
        EXPECT_TRUE(S_ISDIR(info.st_mode));
        EXPECT_EQ(0755u, info.st_mode & 0777u) << folder;
    }
    EXPECT_EQ("", ReadText(path));

    host.WriteLogBuf("first run", nullptr, 0);
    EXPECT_NE("", ReadText(path));
    EXPECT_TRUE(host.InitLogFile()) << "existing folders are fine";
    EXPECT_EQ("", ReadText(path)) << "every connection starts a fresh log";
}

TEST_F(HostLogTest, LinesCarryTheStampTheTitleAndTheDump)
{
    struct DumpCase { std::string title; std::vector<unsigned char> bytes; std::string text; };
    std::string path = dir.File("log.txt");
    UseLog(path, 1);
    ASSERT_TRUE(host.InitLogFile());
    const DumpCase cases[] = {
        {"Open uart...", {}, "Open uart..."}, {"T", {0x0A}, "T length 1 < 0A >"},
        {"X", {0xAB, 0x00, 0x7f}, "X length 3 < AB 00 7F >"},
        {"GetFlashId cmd:", {0x42, 0x52, 0x4F, 0x4D, 0x04, 0x00, 0x60, 0x51, 0x00, 0x00, 0x00, 0x01, 0x18},
         "GetFlashId cmd: length 13 < 42 52 4F 4D 04 00 60 51 00 00 00 01 18 >"},
    };
    for (const DumpCase& c : cases) {
        std::vector<unsigned char> bytes = c.bytes;
        host.WriteLogBuf(c.title, bytes.empty() ? nullptr : bytes.data(), static_cast<unsigned int>(bytes.size()));
    }
    std::vector<std::string> lines = Lines(ReadText(path));
    ASSERT_EQ(4u, lines.size());
    for (size_t i = 0; i < lines.size(); ++i)
        ExpectLine(lines[i], cases[i].text);
}

// A failed start is reported on the console, as is every line then lost.
TEST_F(HostLogTest, LogThatCannotBeMadeFailsTheStart)
{
    std::string file = dir.File("plain");
    fclose(fopen(file.c_str(), "w"));
    const std::pair<std::string, std::string> cases[] = {
        {file + "/sub/log.txt", "mkdir=" + file + "/sub:msg=Not a directory\nFailed to create folder!\n"
         "Failed to open log file!\n"},
        {dir.Path(), "Failed to open log file!\nFailed to open log file!\n"},  // a folder
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        UseLog(c.first, 1);
        bool made = true;
        std::string out = CapturedStdout([&] {
            made = host.InitLogFile();
            host.WriteLogBuf("lost", nullptr, 0);
        });
        EXPECT_FALSE(made);
        EXPECT_EQ(c.second, out);
    }
}

}  // namespace
