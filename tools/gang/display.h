// What the gang shows on standard output: on a terminal a live table redrawn in
// place, one row per board; piped, one line per board as it starts and as it ends.
#pragma once
#include <cstddef>
#include <string>
#include <vector>

#include "tools/gang/board.h"

// The table's heading and a board's row, cut so that they fit a terminal `width`
// columns wide without wrapping (a wrapped row would throw the redraw off by a line).
std::string TableHeading(size_t width);
std::string TableRow(const Board& board, size_t width);

// The text cut to at most `columns` characters (UTF-8 sequences kept whole).
std::string FitColumns(const std::string& text, size_t columns);

class Display {
public:
    explicit Display(bool live) : m_live(live) {}
    void Show(const std::vector<Board>& boards);
    void Started(const Board& board);
    void Ended(const Board& board);

private:
    bool m_live;
    int m_lines = 0;  // lines drawn last time, to move back over
};
