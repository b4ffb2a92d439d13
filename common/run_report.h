// What a run reports beyond its console text: the class of outcome (for exit codes
// a script can tell apart) and progress events (for machine-readable output and the
// fast link's per-region summary). The upgrade engine and the flash debug mode call
// the free functions below; the front end installs a sink and reads the outcome.
// With no sink installed every call is a cheap no-op, and the console text and the
// exit status are exactly as they always were.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace run_report {

// Distinct outcome classes. With --exit-code (or --json) the process exits with the
// value; otherwise the exit status stays as the driver has always given it.
enum class Outcome : int {
    kSuccess = 0,
    kOther = 1,         // anything not classed below
    kUsage = 2,         // bad option or option value
    kImage = 3,         // image file missing, unreadable or malformed
    kPortOpen = 4,      // the serial device could not be opened
    kNoAnswer = 5,      // the target did not answer (sync, identity, boot-loader)
    kFlashCommand = 6,  // an erase, write or read command failed
    kVerify = 7,        // read back and compare found a difference
    kStopped = 8,       // the operator typed "stop"
};

// Receives events; implemented by the front end (JSON lines, fast-link summary).
// Called from the upgrade worker thread (Progress, Region) and the main thread.
class Sink {
public:
    virtual ~Sink() = default;
    virtual void Start(const std::string& port, uint32_t rate,
                       const std::vector<std::string>& images) = 0;
    // region: "main", "ota", "etf" or "debug"; phase: "check", "erase", "write",
    // "read", "verify"; done and total in bytes of the region.
    virtual void Progress(const char* region, const char* phase, uint64_t done,
                          uint64_t total) = 0;
    // A region finished: bytes programmed or read, and the seconds it took.
    virtual void Region(const char* region, uint64_t bytes, double seconds) = 0;
};

// Installs (or with nullptr removes) the sink. Not thread-safe: call before a run.
void SetSink(Sink* sink);
Sink* GetSink();

// Clears the recorded outcome; the driver calls it before a run.
void Reset();
// Records the class of a failure. The first class recorded after Reset() is kept:
// it is the cause, later failures (closing a dead port, say) are consequences.
void NoteFailure(Outcome outcome);
// kSuccess when nothing was recorded.
Outcome RecordedOutcome();

// Forwarders to the sink; no-ops without one.
void Start(const std::string& port, uint32_t rate, const std::vector<std::string>& images);
void Progress(const char* region, const char* phase, uint64_t done, uint64_t total);
void Region(const char* region, uint64_t bytes, double seconds);

}  // namespace run_report
