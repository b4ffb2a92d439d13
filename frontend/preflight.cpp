#include "frontend/preflight.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/sysmacros.h>
#endif

#include "common/setting_record.h"
#include "upgrade/UpGrade.h"

namespace {

// The first path option whose text was longer than its field: letter 0 when none.
struct PathNote {
    int letter = 0;
    size_t length = 0;
    std::string text;
};
PathNote s_tooLong;

bool IsPathOption(int letter)
{
    return std::strchr("BcGiIl", letter) != nullptr && letter != 0;
}

FailureKind Refuse(const std::string& line, FailureKind kind)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    return kind;
}

const char* KindOfFile(mode_t mode)
{
    if (S_ISREG(mode))
        return "a regular file";
    if (S_ISDIR(mode))
        return "a folder";
    if (S_ISFIFO(mode))
        return "a pipe";
    if (S_ISSOCK(mode))
        return "a socket";
    if (S_ISBLK(mode))
        return "a block device";
    return "not a terminal";
}

#ifdef __linux__
// The class of a character device as the kernel files it ("tty", "mem", ...);
// empty when it is not listed (pseudo-terminals are not), which decides nothing.
std::string CharDeviceClass(dev_t device)
{
    char link[64];
    std::snprintf(link, sizeof link, "/sys/dev/char/%u:%u/subsystem", major(device), minor(device));
    char target[PATH_MAX];
    const ssize_t n = readlink(link, target, sizeof target - 1);
    if (n <= 0)
        return "";
    target[n] = '\0';
    const char* slash = std::strrchr(target, '/');
    return slash ? slash + 1 : target;
}
#endif

bool SameFile(const char* a, const char* b)
{
    struct stat sa;
    struct stat sb;
    return stat(a, &sa) == 0 && stat(b, &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// An output that is one of the inputs would be emptied before it is read.
FailureKind RefuseSameFile(const char* output, const char* what, const char* input, const char* inputWhat)
{
    if (!SameFile(output, input))
        return FailureKind::kNone;
    return Refuse(std::string("Refused: the ") + what + " " + output + " is the " + inputWhat + " " +
                      input + "; nothing written",
                  FailureKind::kUsage);
}

}  // namespace

void NotePathOption(int letter, const char* text)
{
    if (!IsPathOption(letter) || text == nullptr || s_tooLong.letter != 0)
        return;
    const size_t length = std::strlen(text);
    if (length < kSettingTextSize)
        return;
    s_tooLong.letter = letter;
    s_tooLong.length = length;
    s_tooLong.text = text;
}

void ResetPathNotes()
{
    s_tooLong = PathNote();
}

int CheckPortIsTerminal(const char* path, std::string& why)
{
    struct stat info;
    if (stat(path, &info) != 0)
        return 0;
    if (!S_ISCHR(info.st_mode)) {
        why = std::string("Refused: the port ") + path + " is " + KindOfFile(info.st_mode) +
              ", not a terminal; nothing written";
        return -1;
    }
#ifdef __linux__
    const std::string cls = CharDeviceClass(info.st_rdev);
    if (!cls.empty() && cls != "tty") {
        why = std::string("Refused: the port ") + path + " is a " + cls +
              " device, not a terminal; nothing written";
        return -1;
    }
#endif
    return 0;
}

FailureKind RefuseUnsafeRun(PreflightRoad road)
{
    if (s_tooLong.letter != 0) {
        char line[128];
        std::snprintf(line, sizeof line, "Refused: the path of -%c is %zu bytes, longer than the %d its field holds: ",
                      s_tooLong.letter, s_tooLong.length, kSettingTextSize - 1);
        return Refuse(line + s_tooLong.text, FailureKind::kUsage);
    }
    if (road == PreflightRoad::kCombine) {
        FailureKind kind = RefuseSameFile(g_Setting.strCombineImagePath, "combine image file",
                                          g_Setting.strImagePath, "image file");
        if (kind == FailureKind::kNone)
            kind = RefuseSameFile(g_Setting.strCombineImagePath, "combine image file",
                                  g_Setting.strEtfImagePath, "ETF image file");
        return kind;
    }
    std::string why;
    if (CheckPortIsTerminal(g_Setting.strComDev, why) != 0)
        return Refuse(why, FailureKind::kPortOpen);
    if (road == PreflightRoad::kDebug && g_Setting.iDebugOp == kDebugRead) {
        const std::string name = DebugReadFileName(g_Setting.iAddress, g_Setting.iLength);
        return RefuseSameFile(name.c_str(), "debug read file", g_Setting.strWriteBinFile, "-B file");
    }
    return FailureKind::kNone;
}
