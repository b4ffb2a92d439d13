// The loader of the settings record: every key from the file, or its default.
#include "frontend/Setting.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "common/link_timing.h"
#include "frontend/get_settings.h"

namespace {

// The reader takes mutable strings; these wrappers hand it private copies of
// the section, key and default texts.
std::vector<SettingsKey>& NotedKeys()
{
    static std::vector<SettingsKey> keys;
    return keys;
}

// Each load names its key here once; later loads of the same file or of a -C file
// find it already noted.
void NoteKey(const std::string& section, const std::string& key, SettingsKeyKind kind)
{
    for (const SettingsKey& noted : NotedKeys())
        if (noted.section == section && noted.key == key)
            return;
    NotedKeys().push_back({section, key, kind});
}

void LoadText(char* path, std::string section, std::string key, char (&field)[kSettingTextSize],
              std::string defaultText)
{
    NoteKey(section, key, SettingsKeyKind::kText);
    GetProfileString(path, section.data(), key.data(), field, defaultText.data());
}

int LoadInt(char* path, std::string section, std::string key, int defaultValue)
{
    NoteKey(section, key, SettingsKeyKind::kDecimal);
    return GetProfileInt(path, section.data(), key.data(), defaultValue);
}

uint8_t LoadFlag(char* path, std::string key, int defaultValue)
{
    return static_cast<uint8_t>(LoadInt(path, "setting", key, defaultValue));  // low 8 bits
}

uint32_t LoadHex(char* path, std::string section, std::string key, float defaultValue)
{
    NoteKey(section, key, SettingsKeyKind::kHex);
    return GetProfileHex(path, section.data(), key.data(), defaultValue);
}

uint32_t LoadDebugOp(char* path)
{
    char word[100] = {};
    std::string section = "debug", key = "iDebugOp", defaultWord = "r";
    NoteKey(section, key, SettingsKeyKind::kWord);
    GetProfileString(path, section.data(), key.data(), word, defaultWord.data());
    return DebugOpFromText(word);
}

}  // namespace

const std::vector<SettingsKey>& SettingsKeys()
{
    return NotedKeys();
}

// Sectors per fast-link command: 1 to 15 (a reply buffer holds 15 sectors). A value
// outside that range is reported on the error stream and the default (4, stored
// as 0) is used: a typo in the file must not stop a production line, nor send
// commands the target refuses.
uint32_t LoadSectorsPerCommand(char* path)
{
    const int value = LoadInt(path, "setting", "iSectorsPerCommand", 0);
    if (value == 0 || (value >= 1 && value <= 15))
        return static_cast<uint32_t>(value);
    std::fprintf(stderr, "iSectorsPerCommand=%d is not 1 to 15; using 4\n", value);
    return 0;
}

void GetDefaultSettings(char* path)
{
    // The text fields are cleared first: the reader leaves a found but empty
    // value's buffer as it was, and copies defaults without a terminator.
    std::memset(g_Setting.strWriteBinFile, 0, kSettingTextSize);
    std::memset(g_Setting.strComDev, 0, kSettingTextSize);
    std::memset(g_Setting.strLogFile, 0, kSettingTextSize);
    std::memset(g_Setting.strImagePath, 0, kSettingTextSize);
    std::memset(g_Setting.strEtfImagePath, 0, kSettingTextSize);

    LoadText(path, "comm", "strComDev", g_Setting.strComDev, "/dev/ttyUSB0");
    LoadText(path, "log", "strLogFile", g_Setting.strLogFile, "./log/log.txt");
    LoadText(path, "firmware", "strImagePath", g_Setting.strImagePath, "tq-system.img");
    LoadText(path, "firmware", "strEtfImagePath", g_Setting.strEtfImagePath, "tq-system_etf.img");
    LoadText(path, "debug", "strWriteBinFile", g_Setting.strWriteBinFile, "a.bin");

    g_Setting.bReadAndCheck = LoadFlag(path, "bReadAndCheck", 0);
    g_Setting.bUpdateChangeOnly = LoadFlag(path, "bUpdateChangeOnly", 1);
    g_Setting.bEtfFw = LoadFlag(path, "bEtfFw", 0);
    g_Setting.bFlashCompat = LoadFlag(path, "bFlashCompat", 1);
    g_Setting.bLogLevel = LoadFlag(path, "bLogLevel", 0);

    g_Setting.iBaud = static_cast<uint32_t>(LoadInt(path, "comm", "iBaud", link_timing::kDefaultWorkingRate));
    g_Setting.iAddress = LoadHex(path, "debug", "iAddress", 0.0f);
    g_Setting.iLength = LoadHex(path, "debug", "iLength", 512.0f);
    g_Setting.iDebugOp = LoadDebugOp(path);

    // Keys beyond the classic set, all off by default.
    g_Setting.bFastLink = LoadFlag(path, "bFastLink", 0);
    g_Setting.bExitCode = LoadFlag(path, "bExitCode", 0);
    g_Setting.iSectorsPerCommand = LoadSectorsPerCommand(path);

    // First contact: the modem-line sequences, empty unless the file sets them.
    std::memset(g_Setting.strResetSequence, 0, kSettingTextSize);
    std::memset(g_Setting.strAfter, 0, kSettingTextSize);
    LoadText(path, "comm", "strResetSequence", g_Setting.strResetSequence, "");
    LoadText(path, "comm", "strAfter", g_Setting.strAfter, "");
    g_Setting.bAutoBaud = LoadFlag(path, "bAutoBaud", 0);
}
