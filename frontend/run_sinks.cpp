#include "frontend/run_sinks.h"

#include <nlohmann/json.hpp>

#include "common/run_event_names.h"
#include "frontend/adapter_info.h"

using nlohmann::json;
using namespace run_event;

void JsonSink::Emit(const std::string& line)
{
    std::fprintf(m_out, "%s\n", line.c_str());
    std::fflush(m_out);  // a reader sees each event as it happens
}

void JsonSink::Start(const std::string& port, uint32_t rate, const std::vector<std::string>& images)
{
    json start{{kFieldEvent, kEventStart}, {kFieldPort, port}, {kFieldRate, rate}, {kFieldImages, images}};
    // Adapter awareness: the chip family, where sysfs tells it.
    const AdapterFamily family = AdapterFamilyOfPort(port);
    if (*family.name)
        start[kFieldAdapter] = family.name;
    Emit(start.dump(-1, ' ', false, json::error_handler_t::replace));
}

void JsonSink::Progress(const char* region, const char* phase, uint64_t done, uint64_t total)
{
    // A reader draws a bar from these: done never passes total (a cycle's whole
    // block may be longer than what is left of a region) and never goes back
    // within a region (a retried block starts over).
    if (done > total)
        done = total;
    if (m_progressRegion == region && done < m_progressDone)
        done = m_progressDone;
    m_progressRegion = region;
    m_progressDone = done;
    // The debug mode reports no regions: its bytes are what its progress reached.
    if (m_progressRegion == "debug")
        m_debugBytes = done;
    Emit(json{{kFieldEvent, kEventProgress}, {kFieldRegion, region}, {kFieldPhase, phase}, {kFieldDone, done},
              {kFieldTotal, total}}
             .dump());
}

void JsonSink::Region(const char* region, uint64_t bytes, double seconds)
{
    m_bytes += bytes;
    const double rate = seconds > 0 ? bytes / 1000.0 / seconds : 0.0;
    Emit(json{{kFieldEvent, kEventRegion}, {kFieldRegion, region}, {kFieldBytes, bytes}, {kFieldSeconds, seconds},
              {kFieldKbytesPerS, rate}}
             .dump());
}

// Auto-baud.
void JsonSink::Link(uint32_t rate)
{
    Emit(json{{kFieldEvent, kEventLink}, {kFieldRate, rate}}.dump());
}

void JsonSink::Port(const std::string& path, const std::string& vendor, const std::string& product,
                    const std::string& serial, const std::string& driver, const std::string& byId)
{
    Emit(json{{kFieldEvent, kEventPort}, {kFieldPath, path}, {kFieldVid, vendor}, {kFieldPid, product},
              {kFieldSerial, serial}, {kFieldDriver, driver}, {kFieldById, byId},
              {kFieldAdapter, AdapterFamilyOf(vendor, product).name}}
             .dump(-1, ' ', false, json::error_handler_t::replace));
}

void JsonSink::Image(const char* role, const std::string& path, bool valid, const std::string& error,
                     const std::vector<SectionHeader>& sections)
{
    json list = json::array();
    for (const SectionHeader& h : sections)
        list.push_back(json{{"version", h.version}, {"data_checksum", h.data_checksum},
                            {"data_size", h.data_size}, {"sram_offs", h.sram_offs},
                            {"attribute", h.attribute}, {"next_section", h.next_section},
                            {"ID", h.ID}, {"private", std::vector<unsigned>(h.priv, h.priv + sizeof h.priv)}});
    Emit(json{{kFieldEvent, kEventImage}, {kFieldRole, role}, {kFieldPath, path}, {kFieldValid, valid},
              {kFieldError, valid ? std::string() : error}, {kFieldSections, list}}
             .dump(-1, ' ', false, json::error_handler_t::replace));
}

void JsonSink::Result(int exitCode, const std::string& message, double seconds)
{
    // Paths and texts may hold bytes that are not UTF-8: they are replaced, never
    // allowed to make the line invalid.
    Emit(json{{kFieldEvent, kEventResult}, {kFieldOk, exitCode == 0}, {kFieldExitCode, exitCode},
              {kFieldMessage, message}, {kFieldSeconds, seconds}, {kFieldBytes, m_bytes + m_debugBytes}}
             .dump(-1, ' ', false, json::error_handler_t::replace));
}

std::string RegionSummary(const char* region, uint64_t bytes, double seconds, uint32_t lineRate)
{
    const double kbPerS = seconds > 0 ? bytes / 1000.0 / seconds : 0.0;
    // 8N1: ten bits on the wire per byte.
    const double lineShare = seconds > 0 && lineRate > 0 ? 100.0 * bytes * 10.0 / (lineRate * seconds) : 0.0;
    char line[160];
    std::snprintf(line, sizeof line, "%s: %llu bytes in %.1f s, %.1f KB/s, %.0f%% of line", region,
                  static_cast<unsigned long long>(bytes), seconds, kbPerS, lineShare);
    return line;
}

void SummarySink::Region(const char* region, uint64_t bytes, double seconds)
{
    std::printf("%s\n", RegionSummary(region, bytes, seconds, m_lineRate).c_str());
    std::fflush(stdout);
}
