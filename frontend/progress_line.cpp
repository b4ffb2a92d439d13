#include "frontend/progress_line.h"

namespace {

// Redrawn at most this often, and always at the end of a region's bytes.
constexpr std::chrono::milliseconds kRedrawInterval(100);
// Erases from the cursor to the end of the line.
const char kClearToEnd[] = "\033[K";

}  // namespace

std::string ProgressLineText(const char* region, const char* phase, uint64_t done, uint64_t total,
                             double seconds)
{
    const unsigned percent = total ? static_cast<unsigned>(done * 100 / total) : 0;
    const double kbPerS = seconds > 0 ? done / 1000.0 / seconds : 0.0;
    char left[32] = "--";
    if (done > 0 && total > done && seconds > 0) {
        const unsigned long long remaining = static_cast<unsigned long long>((total - done) * seconds / done + 0.5);
        std::snprintf(left, sizeof left, "%llum%02llus", remaining / 60, remaining % 60);
    } else if (total && done >= total) {
        std::snprintf(left, sizeof left, "0m00s");
    }
    char line[160];
    std::snprintf(line, sizeof line, "%s %s: %llu/%llu bytes %3u%% %.1f KB/s %s left", region, phase,
                  static_cast<unsigned long long>(done), static_cast<unsigned long long>(total), percent, kbPerS,
                  left);
    return line;
}

void ProgressLineSink::Progress(const char* region, const char* phase, uint64_t done, uint64_t total)
{
    const auto now = std::chrono::steady_clock::now();
    if (m_region != region || !m_shown) {
        if (m_region != region)
            m_regionStart = now;
        m_region = region;
    } else if (now - m_lastDrawn < kRedrawInterval && done < total) {
        return;
    }
    m_lastDrawn = now;
    const std::chrono::duration<double> took = now - m_regionStart;
    // The cursor is left at the line's start, so console text that follows on the
    // same terminal writes over the line instead of after it.
    std::fprintf(m_out, "%s%s\r", kClearToEnd, ProgressLineText(region, phase, done, total, took.count()).c_str());
    std::fflush(m_out);
    m_shown = true;
}

void ProgressLineSink::Waiting(const char* what, unsigned attempt, unsigned attempts)
{
    std::fprintf(m_out, "%s%s: attempt %u of %u\r", kClearToEnd, what, attempt, attempts);
    std::fflush(m_out);
    m_shown = true;
}

void ProgressLineSink::Clear()
{
    if (!m_shown)
        return;
    std::fprintf(m_out, "\r%s", kClearToEnd);
    std::fflush(m_out);
    m_shown = false;
}
