// The one place where the end of a road becomes what the caller sees: the exit
// status (classic, or the failure's class with --exit-code) and the text of the
// JSON result.
#pragma once
#include <string>

#include "common/failure_kind.h"

struct RunResult {
    int code;             // 0 after success, else the failure's class (kOther without one)
    int exitStatus;       // what main returns
    std::string message;  // the JSON result's message
};

// `classicStatus` is the status the road has always ended with; `hostText` the
// flash host's last outcome text, added to a failure's message unless it is
// empty or the success text.
RunResult ConcludeRun(int classicStatus, bool succeeded, FailureKind kind, bool exitCodes,
                      const std::string& successText, const std::string& hostText);

// A short name for a failure's class, for the result message.
const char* FailureKindName(FailureKind kind);
