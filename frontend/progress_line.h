// A progress line a person can watch: on the error stream, when it is a terminal,
// one line rewritten in place (region and phase, bytes, %, KB/s, time left) and
// cleared when the region ends. Beside it, a fan-out hands every event to several
// sinks (the JSON lines or the fast-link summary, and this line).
#pragma once
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "common/run_report.h"

class ProgressLineSink : public run_report::Sink {
public:
    explicit ProgressLineSink(std::FILE* out) : m_out(out) {}
    ~ProgressLineSink() override { Clear(); }
    ProgressLineSink(const ProgressLineSink&) = delete;
    ProgressLineSink& operator=(const ProgressLineSink&) = delete;

    void Start(const std::string&, uint32_t, const std::vector<std::string>&) override {}
    void Progress(const char* region, const char* phase, uint64_t done, uint64_t total) override;
    void Region(const char*, uint64_t, double) override { Clear(); }
    // "waiting for the target's answer: attempt 2 of 5".
    void Waiting(const char* what, unsigned attempt, unsigned attempts) override;
    // Removes the line, if one is shown.
    void Clear();

private:
    std::FILE* m_out;
    std::string m_region;
    std::chrono::steady_clock::time_point m_regionStart;
    std::chrono::steady_clock::time_point m_lastDrawn;
    bool m_shown = false;
};

// The text of the line (without control characters), for a region `seconds` old.
std::string ProgressLineText(const char* region, const char* phase, uint64_t done, uint64_t total,
                             double seconds);

class FanOutSink : public run_report::Sink {
public:
    void Add(run_report::Sink* sink)
    {
        if (sink)
            m_sinks.push_back(sink);
    }
    bool Empty() const { return m_sinks.empty(); }
    void Start(const std::string& port, uint32_t rate, const std::vector<std::string>& images) override
    {
        for (run_report::Sink* s : m_sinks)
            s->Start(port, rate, images);
    }
    void Progress(const char* region, const char* phase, uint64_t done, uint64_t total) override
    {
        for (run_report::Sink* s : m_sinks)
            s->Progress(region, phase, done, total);
    }
    void Region(const char* region, uint64_t bytes, double seconds) override
    {
        for (run_report::Sink* s : m_sinks)
            s->Region(region, bytes, seconds);
    }
    void Waiting(const char* what, unsigned attempt, unsigned attempts) override
    {
        for (run_report::Sink* s : m_sinks)
            s->Waiting(what, attempt, attempts);
    }
    void Link(uint32_t rate) override
    {
        for (run_report::Sink* s : m_sinks)
            s->Link(rate);
    }

private:
    std::vector<run_report::Sink*> m_sinks;
};
