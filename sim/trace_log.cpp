#include "sim/trace_log.h"

#include <cerrno>
#include <cstring>

namespace ksim {

std::string HexBytes(const uint8_t* data, size_t n)
{
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(n * 3);
    for (size_t i = 0; i < n; ++i) {
        if (i > 0)
            text += ' ';
        text += kDigits[data[i] >> 4];
        text += kDigits[data[i] & 0x0F];
    }
    return text;
}

bool TraceLog::Open(const std::string& path, std::string& error)
{
    m_file.reset(std::fopen(path.c_str(), "w"));
    if (!m_file) {
        error = "cannot open trace file " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void TraceLog::Bytes(const char* tag, uint32_t baud, const uint8_t* data, size_t n)
{
    if (!m_file)
        return;
    std::string text = std::string(tag) + ' ' + std::to_string(baud);
    if (n > 0)
        text += ' ' + HexBytes(data, n);
    Line(text);
}

void TraceLog::Ignored(uint32_t hostBaud, uint32_t targetBaud, size_t count)
{
    if (m_file)
        Line("ignored " + std::to_string(hostBaud) + ' ' + std::to_string(targetBaud) + ' ' +
             std::to_string(count));
}

void TraceLog::Event(const std::string& text)
{
    if (m_file)
        Line("event " + text);
}

void TraceLog::Line(const std::string& text)
{
    std::fputs(text.c_str(), m_file.get());
    std::fputc('\n', m_file.get());
    std::fflush(m_file.get());
}

}  // namespace ksim
