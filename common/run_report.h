// Progress events of a run, beyond its console text (for machine-readable output
// and the fast link's per-region summary). The upgrade engine and the flash debug
// mode call the free functions below; the front end installs a sink. With no sink
// installed every call is a cheap no-op. The outcome of a run is not reported
// here: it travels back as a FailureKind (common/failure_kind.h).
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace run_report {

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
    // Progress line: a wait for a target that has not answered yet (attempt of
    // attempts). Not an event of the JSON lines, so a no-op unless a sink shows it.
    virtual void Waiting(const char* /*what*/, unsigned /*attempt*/, unsigned /*attempts*/) {}
    // Auto-baud: the working rate was verified or, after errors, stepped down to.
    virtual void Link(uint32_t rate) { (void)rate; }
};

// Installs (or with nullptr removes) the sink. Not thread-safe: call before a run.
void SetSink(Sink* sink);
Sink* GetSink();

// Forwarders to the sink; no-ops without one.
void Start(const std::string& port, uint32_t rate, const std::vector<std::string>& images);
void Progress(const char* region, const char* phase, uint64_t done, uint64_t total);
void Region(const char* region, uint64_t bytes, double seconds);
void Waiting(const char* what, unsigned attempt, unsigned attempts);
void Link(uint32_t rate);

}  // namespace run_report
