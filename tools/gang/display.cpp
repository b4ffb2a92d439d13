#include "tools/gang/display.h"

#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr size_t kPortColumn = 28;
constexpr size_t kFallbackWidth = 80;  // when the terminal does not say

// A long port name keeps its end, where names like /dev/serial/by-id/... differ.
std::string PortCell(const std::string& port)
{
    if (port.size() <= kPortColumn)
        return port;
    return "..." + port.substr(port.size() - (kPortColumn - 3));
}

std::string ResultCell(const Board& board)
{
    if (!board.finished)
        return "";
    return board.ok ? "ok" : "FAILED " + std::to_string(board.exitCode) + ": " + board.message;
}

// The last column stays empty: some terminals wrap as soon as it is written.
std::string FitRow(const std::string& row, size_t width)
{
    return FitColumns(row, width > 1 ? width - 1 : 1);
}

size_t TerminalWidth()
{
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return kFallbackWidth;
}

}  // namespace

std::string FitColumns(const std::string& text, size_t columns)
{
    size_t count = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool continuation = (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80;
        if (!continuation && count++ == columns)
            return text.substr(0, i);
    }
    return text;
}

std::string TableHeading(size_t width)
{
    char row[128];
    std::snprintf(row, sizeof row, "%-28s %-18s %6s %9s  %s", "PORT", "PHASE", "%", "KB/s", "RESULT");
    return FitRow(row, width);
}

std::string TableRow(const Board& board, size_t width)
{
    char figures[160];
    std::snprintf(figures, sizeof figures, "%-28s %-18s %5.0f%% %9.1f  ", PortCell(board.port).c_str(),
                  FitColumns(board.phase, 18).c_str(), board.percent, board.kbPerS);
    return FitRow(figures + ResultCell(board), width);
}

void Display::Show(const std::vector<Board>& boards)
{
    if (!m_live)
        return;
    const size_t width = TerminalWidth();
    if (m_lines > 0)
        std::printf("\033[%dA", m_lines);
    std::printf("\033[J%s\n", TableHeading(width).c_str());
    for (const Board& board : boards)
        std::printf("%s\n", TableRow(board, width).c_str());
    std::fflush(stdout);
    m_lines = static_cast<int>(boards.size()) + 1;
}

void Display::Started(const Board& board)
{
    if (m_live)
        return;
    std::printf("%s: started\n", board.port.c_str());
    std::fflush(stdout);
}

void Display::Ended(const Board& board)
{
    if (m_live)
        return;
    std::printf("%s: %s (exit %d) %s, %.1f s, %llu bytes\n", board.port.c_str(), board.ok ? "ok" : "FAILED",
                board.exitCode, board.message.c_str(), board.seconds,
                static_cast<unsigned long long>(board.bytes));
    std::fflush(stdout);
}
