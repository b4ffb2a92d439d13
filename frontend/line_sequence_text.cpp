#include "frontend/line_sequence_text.h"

#include <cstdlib>

namespace {

struct Preset {
    const char* name;
    const char* steps;
};

const Preset kPresets[] = {
    {"none", ""},
    {"classic", "D0+R1,W100,D1+R0,W50,D0"},
    {"inverted", "D1+R0,W100,D0+R1,W50,R0"},
};

// A wait longer than this is taken for a typo, not a circuit's need.
const unsigned long kMaxWaitMs = 10000;

std::string PresetSteps(const std::string& text)
{
    for (const Preset& p : kPresets)
        if (text == p.name)
            return p.steps;
    return text;
}

// "D1", "R0": one line's level into the step; false when the word is not one, or
// names a line the step already sets.
bool ParseLine(const std::string& word, LineStep& step)
{
    if (word.size() != 2 || (word[1] != '0' && word[1] != '1'))
        return false;
    const LineStep::Level level = word[1] == '1' ? LineStep::kAssert : LineStep::kRelease;
    LineStep::Level* line = word[0] == 'D' ? &step.dtr : word[0] == 'R' ? &step.rts : nullptr;
    if (!line || *line != LineStep::kKeep)
        return false;
    *line = level;
    return true;
}

bool ParseStep(const std::string& word, LineStep& step)
{
    step = LineStep();
    if (word.size() > 1 && word[0] == 'W') {
        char* end = nullptr;
        const unsigned long ms = std::strtoul(word.c_str() + 1, &end, 10);
        if (*end != '\0' || word[1] < '0' || word[1] > '9' || ms > kMaxWaitMs)
            return false;
        step.kind = LineStep::kWait;
        step.waitMs = static_cast<uint32_t>(ms);
        return true;
    }
    const size_t plus = word.find('+');
    if (plus == std::string::npos)
        return ParseLine(word, step);
    return ParseLine(word.substr(0, plus), step) && ParseLine(word.substr(plus + 1), step);
}

}  // namespace

bool ParseLineSequence(const std::string& text, LineSequence& out, std::string& error)
{
    out = LineSequence();
    const std::string steps = PresetSteps(text);
    if (steps.empty())
        return true;
    size_t start = 0;
    while (true) {
        const size_t comma = steps.find(',', start);
        const std::string word = steps.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (out.count == LineSequence::kMaxSteps) {
            error = "more than 32 steps";
            return false;
        }
        if (!ParseStep(word, out.steps[out.count])) {
            error = "step \"" + word + "\" is not D0, D1, R0, R1, two of them joined by +, or W<ms> up to 10000";
            out = LineSequence();
            return false;
        }
        ++out.count;
        if (comma == std::string::npos)
            return true;
        start = comma + 1;
    }
}

bool ParseAfterAction(const std::string& text, LinkProfile& link, std::string& error)
{
    link.afterLines = LineSequence();
    if (text.empty() || text == "stay") {
        link.after = LinkProfile::kAfterStay;
        return true;
    }
    if (text == "reboot") {
        link.after = LinkProfile::kAfterReboot;
        return true;
    }
    link.after = LinkProfile::kAfterLines;
    if (!ParseLineSequence(text, link.afterLines, error))
        return false;
    if (link.afterLines.count == 0)
        link.after = LinkProfile::kAfterStay;  // "none"
    return true;
}
