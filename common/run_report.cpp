#include "common/run_report.h"

#include <atomic>

namespace run_report {
namespace {

Sink* g_sink = nullptr;
// Written by the worker thread, read by the main thread after the join.
std::atomic<int> g_outcome{static_cast<int>(Outcome::kSuccess)};

}  // namespace

void SetSink(Sink* sink) { g_sink = sink; }
Sink* GetSink() { return g_sink; }

void Reset() { g_outcome.store(static_cast<int>(Outcome::kSuccess)); }

void NoteFailure(Outcome outcome)
{
    int expected = static_cast<int>(Outcome::kSuccess);
    g_outcome.compare_exchange_strong(expected, static_cast<int>(outcome));
}

Outcome RecordedOutcome() { return static_cast<Outcome>(g_outcome.load()); }

void Start(const std::string& port, uint32_t rate, const std::vector<std::string>& images)
{
    if (g_sink)
        g_sink->Start(port, rate, images);
}

void Progress(const char* region, const char* phase, uint64_t done, uint64_t total)
{
    if (g_sink)
        g_sink->Progress(region, phase, done, total);
}

void Region(const char* region, uint64_t bytes, double seconds)
{
    if (g_sink)
        g_sink->Region(region, bytes, seconds);
}

}  // namespace run_report
