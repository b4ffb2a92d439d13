// Option parsing on arbitrary command lines: the input is split into words at NUL
// and newline bytes, applied over a fresh settings record, again and again in one
// process (the scanner's state must reset between calls).
#include <cstring>
#include <string>
#include <vector>

#include "frontend/Setting.h"
#include "frontend/options.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> words{"kestrelQT_u"};
    std::string word;
    for (size_t i = 0; i < size; ++i) {
        const char c = static_cast<char>(data[i]);
        if (c == '\0' || c == '\n') {
            words.push_back(word);
            word.clear();
        } else {
            word += c;
        }
    }
    words.push_back(word);
    // -C names a settings file to load; reading devices or huge files is not what
    // this target is about, so such words are left out.
    for (std::string& w : words) {
        if (w.compare(0, 2, "-C") == 0)
            w = "-v";
    }
    std::vector<char*> argv;
    for (std::string& w : words)
        argv.push_back(&w[0]);
    argv.push_back(nullptr);
    std::memset(&g_Setting, 0, sizeof g_Setting);
    ApplyOptions(static_cast<int>(argv.size() - 1), argv.data());
    return 0;
}
