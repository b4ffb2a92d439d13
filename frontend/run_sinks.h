// What the front end does with a run's events: JSON lines for scripts (--json) and,
// on the fast link, one summary line per finished region.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

#include "common/run_report.h"
#include "image/image_format.h"

// JSON objects, one per line, on `out` (the real standard output; everything else
// goes to the error stream in this mode). Strings are escaped by the JSON library,
// so any path or message stays valid JSON.
class JsonSink : public run_report::Sink {
public:
    explicit JsonSink(std::FILE* out) : m_out(out) {}
    void Start(const std::string& port, uint32_t rate, const std::vector<std::string>& images) override;
    void Progress(const char* region, const char* phase, uint64_t done, uint64_t total) override;
    void Region(const char* region, uint64_t bytes, double seconds) override;
    // One serial port found by --list-ports.
    void Port(const std::string& path, const std::string& vendor, const std::string& product,
              const std::string& serial, const std::string& driver, const std::string& byId);
    // One object of an everyday command (--info, --verify), already serialised.
    void Object(const std::string& jsonText) { Emit(jsonText); }
    // One image of the -s report: its parsed section headers (none when invalid).
    void Image(const char* role, const std::string& path, bool valid, const std::string& error,
               const std::vector<SectionHeader>& sections);
    // The last line of every run, exactly once.
    void Result(int exitCode, const std::string& message, double seconds);
    // Auto-baud: {"event":"link","rate":N} for each rate the run moves to.
    void Link(uint32_t rate) override;

private:
    void Emit(const std::string& line);

    std::FILE* m_out;
    uint64_t m_bytes = 0;
    // The last progress event's region and done (kept monotonic, see Progress).
    std::string m_progressRegion;
    uint64_t m_progressDone = 0;
    uint64_t m_debugBytes = 0;
};

// "main: 1048576 bytes in 13.9 s, 75.4 KB/s, 82% of line" for each region, on
// standard output. KB are 1,000 bytes; the line rate is the working rate.
class SummarySink : public run_report::Sink {
public:
    explicit SummarySink(uint32_t lineRate) : m_lineRate(lineRate) {}
    void Start(const std::string&, uint32_t, const std::vector<std::string>&) override {}
    void Progress(const char*, const char*, uint64_t, uint64_t) override {}
    void Region(const char* region, uint64_t bytes, double seconds) override;
    // Auto-baud: the summary's line rate is the rate in use.
    void Link(uint32_t rate) override { m_lineRate = rate; }

private:
    uint32_t m_lineRate;
};

// The summary line itself (without the line feed).
std::string RegionSummary(const char* region, uint64_t bytes, double seconds, uint32_t lineRate);
