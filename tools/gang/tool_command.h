// The command line each board's kestrelQT_u gets. Every board runs in a working
// folder of its own, so that what the tool writes to its current folder (flash
// debug read files, a combined image, the default log) never collides. The files
// it reads are still found from the gang's folder: the settings file, and the
// image and debug-write files named by options or by the settings, are handed
// to it as absolute paths.
#pragma once
#include <string>
#include <vector>

// The tool beside this program (or one folder up, as in the build tree), then on PATH.
std::string FindTool(const char* argv0);

// A relative path made absolute against `base`; absolute and empty paths stay.
std::string Anchored(const std::string& path, const std::string& base);

class ToolCommand {
public:
    // tool: the program; toolArgs: the words after "--"; base: the gang's folder.
    ToolCommand(const std::string& tool, const std::vector<std::string>& toolArgs, const std::string& base);

    // The words for one board: its port, its log and --json, the settings and
    // input paths anchored (a relative port name too), then the caller's words. Every settings load (-C
    // reloads the whole record) is followed by the board's port and log again.
    std::vector<std::string> For(const std::string& port, const std::string& logFile) const;

private:
    enum class Slot { kWord, kPort, kLog };
    void Add(const std::string& word, Slot slot = Slot::kWord);
    void AddSettingsLoad(const std::string& settingsFile);  // empty: the defaults
    void AddCallerWords(const std::vector<std::string>& words);

    std::string m_base;
    std::vector<std::pair<Slot, std::string>> m_words;
};
