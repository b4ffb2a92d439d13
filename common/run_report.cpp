#include "common/run_report.h"

namespace run_report {
namespace {

// Set by the driver before a run starts, read by the worker thread during it.
Sink* g_sink = nullptr;

}  // namespace

void SetSink(Sink* sink) { g_sink = sink; }
Sink* GetSink() { return g_sink; }

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

void Waiting(const char* what, unsigned attempt, unsigned attempts)
{
    if (g_sink)
        g_sink->Waiting(what, attempt, attempts);
}

void Link(uint32_t rate)
{
    if (g_sink)
        g_sink->Link(rate);
}

}  // namespace run_report
