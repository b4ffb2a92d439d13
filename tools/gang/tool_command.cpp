#include "tools/gang/tool_command.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "frontend/Setting.h"
#include "frontend/options.h"

namespace {

// The file the tool reads from its current folder before its options.
const char kSettingsFileName[] = "settings_mac.ini";

bool Executable(const std::string& path)
{
    return access(path.c_str(), X_OK) == 0;
}

// The tool's own option letters say which options take a value.
bool TakesValue(char letter)
{
    const char* at = std::strchr(kOptionString, letter);
    return letter != ':' && at != nullptr && at[1] == ':';
}

}  // namespace

std::string FindTool(const char* argv0)
{
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string dir = n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string(argv0);
    dir = dir.substr(0, dir.find_last_of('/') + 1);
    for (const char* place : {"", "../"}) {
        if (!dir.empty() && Executable(dir + place + "kestrelQT_u"))
            return dir + place + "kestrelQT_u";
    }
    const char* path = std::getenv("PATH");
    std::string rest = path ? path : "";
    while (!rest.empty()) {
        const size_t colon = rest.find(':');
        const std::string folder = rest.substr(0, colon);
        if (!folder.empty() && Executable(folder + "/kestrelQT_u"))
            return folder + "/kestrelQT_u";
        rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
    }
    return "kestrelQT_u";
}

std::string Anchored(const std::string& path, const std::string& base)
{
    return path.empty() || path[0] == '/' ? path : base + "/" + path;
}

ToolCommand::ToolCommand(const std::string& tool, const std::vector<std::string>& toolArgs,
                         const std::string& base)
    : m_base(base)
{
    // A bare name is looked up on PATH; any other path must still work from the board's folder.
    Add(tool.find('/') == std::string::npos ? tool : Anchored(tool, base));
    const std::string settings = base + "/" + kSettingsFileName;
    AddSettingsLoad(access(settings.c_str(), F_OK) == 0 ? settings : "");
    Add("--json");
    AddCallerWords(toolArgs);
}

std::vector<std::string> ToolCommand::For(const std::string& port, const std::string& logFile) const
{
    std::vector<std::string> words;
    for (const auto& [slot, word] : m_words)
        words.push_back(slot == Slot::kPort ? Anchored(port, m_base) : slot == Slot::kLog ? logFile : word);
    return words;
}

void ToolCommand::Add(const std::string& word, Slot slot)
{
    m_words.emplace_back(slot, word);
}

// The input paths are read with the tool's own settings reader, so that they are
// exactly the ones the tool would take from that file.
void ToolCommand::AddSettingsLoad(const std::string& settingsFile)
{
    if (!settingsFile.empty()) {
        Add("-C");
        Add(settingsFile);
    }
    char path[kSettingTextSize] = {};
    std::strncpy(path, settingsFile.c_str(), sizeof path - 1);
    GetDefaultSettings(path);  // a missing file gives the defaults
    const struct {
        const char* option;
        const char* value;
    } inputs[] = {{"-i", g_Setting.strImagePath}, {"-I", g_Setting.strEtfImagePath}, {"-B", g_Setting.strWriteBinFile}};
    for (const auto& input : inputs) {
        if (input.value[0] != '\0' && input.value[0] != '/') {
            Add(input.option);
            Add(Anchored(input.value, m_base));
        }
    }
    Add("-c");
    Add("", Slot::kPort);
    Add("-l");
    Add("", Slot::kLog);
}

// Walks the words as the tool's option scan does: it ends at "--", at the first
// word that is not an option, and at -s. Long options carry no path the tool reads
// in a gang run, so they pass unchanged.
void ToolCommand::AddCallerWords(const std::vector<std::string>& words)
{
    size_t i = 0;
    for (; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word == "--" || word.size() < 2 || word[0] != '-')
            break;
        if (word[1] == '-') {
            Add(word);
            continue;
        }
        size_t at = 1;
        while (at < word.size() && !TakesValue(word[at]))
            ++at;
        if (word.find('s', 1) < at)
            break;  // -s: the rest is not read as options
        if (at == word.size() || (at + 1 == word.size() && i + 1 == words.size())) {
            Add(word);  // flags only, or a value missing: the tool says so itself
            continue;
        }
        if (at > 1)
            Add(word.substr(0, at));
        const char letter = word[at];
        const std::string value = at + 1 < word.size() ? word.substr(at + 1) : words[++i];
        if (letter == 'C') {
            AddSettingsLoad(Anchored(value, m_base));
            continue;
        }
        Add(std::string("-") + letter);
        Add(letter == 'i' || letter == 'I' || letter == 'B' ? Anchored(value, m_base) : value);
    }
    for (; i < words.size(); ++i)
        Add(words[i]);
}
