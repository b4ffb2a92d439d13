#include "frontend/run_outcome.h"

#include "flashhost/CFlashHost.h"

const char* FailureKindName(FailureKind kind)
{
    switch (kind) {
    case FailureKind::kNone: return "success";
    case FailureKind::kUsage: return "usage error";
    case FailureKind::kImage: return "image error";
    case FailureKind::kPortOpen: return "port cannot be opened";
    case FailureKind::kNoAnswer: return "no answer from the target";
    case FailureKind::kFlashCommand: return "flash command failed";
    case FailureKind::kVerify: return "verify mismatch";
    case FailureKind::kStopped: return "stopped by the user";
    case FailureKind::kLocalFile: return "local file error";
    case FailureKind::kOther: break;
    }
    return "failed";
}

RunResult ConcludeRun(int classicStatus, bool succeeded, FailureKind kind, bool exitCodes,
                      const std::string& successText, const std::string& hostText)
{
    RunResult result{0, classicStatus, successText};
    if (!succeeded) {
        // A road that failed without saying why still fails.
        const FailureKind cause = kind == FailureKind::kNone ? FailureKind::kOther : kind;
        result.code = static_cast<int>(cause);
        result.message = FailureKindName(cause);
        if (!hostText.empty() && hostText != kOperationOkText)
            result.message += ": " + hostText;
    }
    if (exitCodes)
        result.exitStatus = result.code;
    return result;
}
