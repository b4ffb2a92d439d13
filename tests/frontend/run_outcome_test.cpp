// The one mapping from a road's end to what the caller sees: exit status with and
// without --exit-code, and the JSON result's message.
#include <gtest/gtest.h>

#include "frontend/run_outcome.h"

namespace {

TEST(RunOutcome, EachFailureKindGivesItsStatusAndMessage)
{
    const struct { FailureKind kind; int code; const char* message; } cases[] = {
        {FailureKind::kNone, 1, "failed"},  // failed without a class: still a failure
        {FailureKind::kOther, 1, "failed"}, {FailureKind::kUsage, 2, "usage error"},
        {FailureKind::kImage, 3, "image error"}, {FailureKind::kPortOpen, 4, "port cannot be opened"},
        {FailureKind::kNoAnswer, 5, "no answer from the target"},
        {FailureKind::kFlashCommand, 6, "flash command failed"}, {FailureKind::kVerify, 7, "verify mismatch"},
        {FailureKind::kStopped, 8, "stopped by the user"}, {FailureKind::kLocalFile, 9, "local file error"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        for (int classic : {0, -1}) {
            const RunResult plain = ConcludeRun(classic, false, c.kind, false, "Upgrade OK!", "");
            EXPECT_EQ(classic, plain.exitStatus) << "without --exit-code the status is the classic one";
            EXPECT_EQ(c.code, plain.code);
            EXPECT_EQ(c.message, plain.message);
            EXPECT_EQ(c.code, ConcludeRun(classic, false, c.kind, true, "Upgrade OK!", "").exitStatus);
        }
    }
    const RunResult ok = ConcludeRun(0, true, FailureKind::kNone, true, "Upgrade OK!", "Operation OK !");
    EXPECT_TRUE(ok.exitStatus == 0 && ok.code == 0 && ok.message == "Upgrade OK!");
    // The flash host's text explains a failure, unless it is the success text.
    EXPECT_EQ("flash command failed: Unknown CMD!",
              ConcludeRun(0, false, FailureKind::kFlashCommand, false, "", "Unknown CMD!").message);
    EXPECT_EQ("no answer from the target",
              ConcludeRun(0, false, FailureKind::kNoAnswer, false, "", "Operation OK !").message);
}

}  // namespace
