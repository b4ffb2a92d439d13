// The class of a failure, returned beside its text by every layer (m_failKind next
// to the flash host's m_strMsg, a field of the upgrade run, an out parameter of the
// debug mode) and mapped to the exit status and the JSON result by the driver
// alone. The values are the exit statuses --exit-code gives.
#pragma once

enum class FailureKind : int {
    kNone = 0,
    kSuccess = kNone,
    kOther = 1,         // anything not classed below
    kUsage = 2,         // bad option or option value
    kImage = 3,         // image file missing, unreadable or malformed
    kPortOpen = 4,      // the serial device could not be opened
    kNoAnswer = 5,      // the target did not answer (sync, identity, boot-loader)
    kFlashCommand = 6,  // an erase, write or read command failed
    kVerify = 7,        // read back and compare found a difference
    kStopped = 8,       // the operator typed "stop"
    kLocalFile = 9,     // a local file could not be made, written or read back
                        // (log folder, host log, combined image, debug read file)
};

// Records `kind` unless a failure is already recorded: the first is the cause,
// later ones (closing a dead port, say) are its consequences.
inline void KeepFirstFailure(FailureKind& recorded, FailureKind kind)
{
    if (recorded == FailureKind::kNone)
        recorded = kind;
}
