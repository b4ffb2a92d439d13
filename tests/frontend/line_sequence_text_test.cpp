// The modem-line grammar of --reset and --after, and its presets, as a table.
#include <gtest/gtest.h>

#include "frontend/line_sequence_text.h"

namespace {

// A sequence written back in the grammar's own words, to compare with the table.
std::string Spelled(const LineSequence& seq)
{
    std::string out;
    for (unsigned int i = 0; i < seq.count; ++i) {
        const LineStep& s = seq.steps[i];
        if (!out.empty())
            out += ",";
        if (s.kind == LineStep::kWait) {
            out += "W" + std::to_string(s.waitMs);
            continue;
        }
        if (s.dtr != LineStep::kKeep)
            out += std::string("D") + (s.dtr == LineStep::kAssert ? "1" : "0");
        if (s.dtr != LineStep::kKeep && s.rts != LineStep::kKeep)
            out += "+";
        if (s.rts != LineStep::kKeep)
            out += std::string("R") + (s.rts == LineStep::kAssert ? "1" : "0");
    }
    return out;
}

// steps: the steps read, in canonical spelling
struct Row { const char* text; bool valid; const char* steps; };

TEST(LineSequenceText, GrammarAndPresets)
{
    const Row rows[] = {
        {"", true, ""}, {"none", true, ""}, {"classic", true, "D0+R1,W100,D1+R0,W50,D0"},
        {"inverted", true, "D1+R0,W100,D0+R1,W50,R0"}, {"R1,W100,R0", true, "R1,W100,R0"},
        {"R0+D1", true, "D1+R0"},  // either order, one call
        {"W0,W10000", true, "W0,W10000"}, {"W10001", false, ""}, {"W", false, ""}, {"W-1", false, ""},
        {"W1x", false, ""}, {"D2", false, ""}, {"d1", false, ""},
        {"D1+D0", false, ""},  // one line twice in one step
        {"D1+R0+R1", false, ""}, {"D1,", false, ""}, {",D1", false, ""}, {"Classic", false, ""},
        {"stay", false, ""},  // an after action, not a sequence
    };
    for (const Row& row : rows) {
        LineSequence seq;
        std::string error;
        EXPECT_EQ(row.valid, ParseLineSequence(row.text, seq, error)) << row.text;
        EXPECT_EQ(row.steps, Spelled(seq)) << row.text;
        EXPECT_EQ(row.valid, error.empty()) << row.text << ": " << error;
    }
}

TEST(LineSequenceText, LengthIsBoundedByTheFixedList)
{
    std::string text = "D1";
    for (int i = 1; i < LineSequence::kMaxSteps; ++i)
        text += ",D1";
    LineSequence seq;
    std::string error;
    EXPECT_TRUE(ParseLineSequence(text, seq, error));
    EXPECT_EQ(static_cast<unsigned>(LineSequence::kMaxSteps), seq.count);
    EXPECT_FALSE(ParseLineSequence(text + ",D0", seq, error));
    EXPECT_EQ("more than 32 steps", error);
}

TEST(LineSequenceText, AfterActions)
{
    struct AfterRow { const char* text; bool valid; LinkProfile::AfterAction action; unsigned int steps; } rows[] = {
        {"", true, LinkProfile::kAfterStay, 0}, {"stay", true, LinkProfile::kAfterStay, 0},
        {"none", true, LinkProfile::kAfterStay, 0}, {"reboot", true, LinkProfile::kAfterReboot, 0},
        {"R1,W100,R0", true, LinkProfile::kAfterLines, 3}, {"classic", true, LinkProfile::kAfterLines, 5},
        {"Reboot", false, LinkProfile::kAfterLines, 0},
    };
    for (const AfterRow& row : rows) {
        LinkProfile link;
        std::string error;
        EXPECT_EQ(row.valid, ParseAfterAction(row.text, link, error)) << row.text;
        EXPECT_EQ(row.action, link.after) << row.text;
        EXPECT_EQ(row.steps, link.afterLines.count) << row.text;
    }
}

}  // namespace
