// The host log: levels, folders, the line format and its failures.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "flashhost/CFlashHost.h"
#include "flashhost/host_log.h"
#include "frontend/Setting.h"
#include "tests/support/process.h"

namespace {

std::string ReadText(const std::string& path)
{
    std::vector<unsigned char> bytes = ReadFileBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

bool IsFolder(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool Exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

// "[hh:mm:ss.mmm]" followed by `text` and one line feed.
void ExpectLine(const std::string& line, const std::string& text)
{
    ASSERT_EQ(14 + text.size() + 1, line.size()) << line;
    EXPECT_EQ('[', line[0]);
    for (int i : {1, 2, 4, 5, 7, 8, 10, 11, 12})
        EXPECT_TRUE(isdigit(static_cast<unsigned char>(line[i]))) << line;
    EXPECT_EQ(':', line[3]);
    EXPECT_EQ(':', line[6]);
    EXPECT_EQ('.', line[9]);
    EXPECT_EQ(']', line[13]);
    EXPECT_EQ(text + "\n", line.substr(14));
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size() - 1;
        lines.push_back(text.substr(start, end - start + 1));
        start = end + 1;
    }
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

TEST_F(HostLogTest, LevelZeroCreatesAndWritesNothing)
{
    UseLog(dir.File("log/log.txt"), 0);
    EXPECT_TRUE(host.InitLogFile());
    unsigned char byte = 0x42;
    host.WriteLogBuf("Open uart...", &byte, 1);
    EXPECT_FALSE(Exists(dir.File("log")));
}

TEST_F(HostLogTest, NestedFoldersAreCreatedAndTheLogStartsEmpty)
{
    std::string path = dir.File("out/a/b/log.txt");
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

// The working folder is changed for this test only.
TEST_F(HostLogTest, PathWithoutFolderLogsIntoTheWorkingFolder)
{
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    ASSERT_EQ(0, chdir(dir.Path().c_str()));
    UseLog("run.log", 1);
    EXPECT_TRUE(host.InitLogFile());
    host.WriteLogBuf("Open uart OK!", nullptr, 0);
    std::string text = ReadText("run.log");
    ASSERT_EQ(0, chdir(cwd));
    ExpectLine(text, "Open uart OK!");
}

TEST_F(HostLogTest, DefaultRelativePathCreatesItsFolder)
{
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    ASSERT_EQ(0, chdir(dir.Path().c_str()));
    UseLog("./log/log.txt", 1);
    bool made = host.InitLogFile();
    ASSERT_EQ(0, chdir(cwd));
    EXPECT_TRUE(made);
    EXPECT_TRUE(IsFolder(dir.File("log")));
    EXPECT_EQ("", ReadText(dir.File("log/log.txt")));
}

struct DumpCase {
    std::string title;
    std::vector<unsigned char> bytes;
    std::string text;
};

TEST_F(HostLogTest, LinesCarryTheStampTheTitleAndTheDump)
{
    std::string path = dir.File("log.txt");
    UseLog(path, 1);
    ASSERT_TRUE(host.InitLogFile());
    const DumpCase cases[] = {
        {"Open uart...", {}, "Open uart..."},
        {"T", {0x0A}, "T length 1 < 0A >"},
        {"X", {0xAB, 0x00, 0x7f}, "X length 3 < AB 00 7F >"},
        {"GetFlashId cmd:",
         {0x42, 0x52, 0x4F, 0x4D, 0x04, 0x00, 0x60, 0x51, 0x00, 0x00, 0x00, 0x01, 0x18},
         "GetFlashId cmd: length 13 < 42 52 4F 4D 04 00 60 51 00 00 00 01 18 >"},
    };
    for (const DumpCase& c : cases) {
        std::vector<unsigned char> bytes = c.bytes;
        host.WriteLogBuf(c.title, bytes.empty() ? nullptr : bytes.data(),
                         static_cast<unsigned int>(bytes.size()));
    }
    std::vector<std::string> lines = Lines(ReadText(path));
    ASSERT_EQ(4u, lines.size());
    for (size_t i = 0; i < lines.size(); ++i)
        ExpectLine(lines[i], cases[i].text);
}

struct StampCase {
    long usec;
    const char* millis;
};

TEST(HostLogStamp, MillisecondsAreTruncatedAndPadded)
{
    const StampCase cases[] = {{0, ".000]"}, {7000, ".007]"}, {7999, ".007]"}, {45600, ".045]"},
                               {999999, ".999]"}};
    time_t noon = 12 * 3600;
    tm local;
    localtime_r(&noon, &local);
    char hms[16];
    snprintf(hms, sizeof hms, "[%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
    for (const StampCase& c : cases) {
        timeval now;
        now.tv_sec = noon;
        now.tv_usec = c.usec;
        std::string stamp = FormatLogTimeStamp(now);
        EXPECT_EQ(std::string(hms) + c.millis, stamp);
        EXPECT_EQ(14u, stamp.size());
    }
}

TEST_F(HostLogTest, FolderThatCannotBeMadeFailsTheStart)
{
    std::string file = dir.File("plain");
    FILE* f = fopen(file.c_str(), "w");
    ASSERT_NE(nullptr, f);
    fclose(f);
    UseLog(file + "/sub/log.txt", 1);
    testing::internal::CaptureStdout();
    bool made = host.InitLogFile();
    fflush(stdout);
    EXPECT_FALSE(made);
    EXPECT_EQ("mkdir=" + file + "/sub:msg=Not a directory\nFailed to create folder!\n",
              testing::internal::GetCapturedStdout());
}

TEST_F(HostLogTest, LogFileThatCannotBeOpenedFailsTheStartAndLosesLines)
{
    UseLog(dir.Path(), 1);  // a folder, not a file
    testing::internal::CaptureStdout();
    bool made = host.InitLogFile();
    host.WriteLogBuf("lost", nullptr, 0);
    fflush(stdout);
    EXPECT_FALSE(made);
    EXPECT_EQ("Failed to open log file!\nFailed to open log file!\n",
              testing::internal::GetCapturedStdout());
}

}  // namespace
