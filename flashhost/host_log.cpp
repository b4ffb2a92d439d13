// The host log: one time-stamped line per command, reply and event, with hex dumps.
// Each line opens, appends to and closes the file, so nothing stays open between
// lines and other programs can follow the file during a run.
#include "flashhost/host_log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

#include "common/stdio_file.h"
#include "flashhost/CFlashHost.h"
#include "common/setting_record.h"

namespace {

const char kLineEnd = '\n';
const mode_t kFolderMode = 0755;

void AppendHexByte(std::string& line, unsigned char byte)
{
    static const char kDigits[] = "0123456789ABCDEF";
    line += kDigits[byte >> 4];
    line += kDigits[byte & 0x0F];
    line += ' ';
}

}  // namespace

std::string FormatLogTimeStamp(const timeval& now)
{
    time_t seconds = now.tv_sec;
    tm local;
    localtime_r(&seconds, &local);
    char stamp[32];
    snprintf(stamp, sizeof stamp, "[%02d:%02d:%02d.%03ld]", local.tm_hour, local.tm_min,
             local.tm_sec, static_cast<long>(now.tv_usec) / 1000);
    return stamp;
}

std::string LogFolderOf(const std::string& path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

// Walks the path from its second character, so that the leading "/" of an absolute
// path is never taken for an empty folder name; the "/" appended to the copy makes
// the last component a folder too.
int CreateMultiDirectory(std::string path)
{
    std::string walk = path + '/';
    for (size_t i = 1; i < walk.size(); ++i) {
        if (walk[i] != '/')
            continue;
        walk[i] = '\0';  // c_str() now ends at this folder
        if (access(walk.c_str(), F_OK) != 0 && mkdir(walk.c_str(), kFolderMode) != 0) {
            printf("mkdir=%s:msg=%s\n", walk.c_str(), strerror(errno));
            return 0;
        }
        walk[i] = '/';
    }
    return 1;
}

bool CFlashHost::InitLogFile()
{
    if (g_Setting.bLogLevel == 0)
        return true;
    if (CreateMultiDirectory(LogFolderOf(g_Setting.strLogFile)) == 0) {
        printf("Failed to create folder!\n");
        return false;
    }
    UniqueFile file = OpenFile(g_Setting.strLogFile, "w+");  // starts the log empty
    if (!file) {
        printf("Failed to open log file!\n");
        return false;
    }
    return true;
}

void CFlashHost::WriteLog(std::string text, unsigned int size)
{
    timeval now;
    gettimeofday(&now, nullptr);
    std::string stamp = FormatLogTimeStamp(now);

    UniqueFile file = OpenFile(g_Setting.strLogFile, "a");
    if (!file) {
        printf("Failed to open log file!\n");  // this line is lost; the caller goes on
        return;
    }
    fseek(file.get(), 0, SEEK_END);
    fwrite(stamp.data(), 1, stamp.size(), file.get());
    fwrite(text.data(), 1, std::min<size_t>(size, text.size()), file.get());
    fputc(kLineEnd, file.get());
}

void CFlashHost::WriteLogBuf(std::string title, unsigned char* buf, unsigned int len)
{
    if (g_Setting.bLogLevel == 0)
        return;
    std::string line = title;
    if (len > 0) {
        line.reserve(title.size() + 32 + size_t(len) * 3);
        line += " length " + std::to_string(len) + " < ";
        for (unsigned int i = 0; i < len; ++i)
            AppendHexByte(line, buf[i]);
        line += '>';
    }
    WriteLog(line, static_cast<unsigned int>(line.size()));
}
