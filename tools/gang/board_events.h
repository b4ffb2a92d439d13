// What a board's output and exit status mean: its JSON lines update the row, and
// its end is judged from the result line and the exit status together.
#pragma once
#include <cstddef>
#include <string>

#include "tools/gang/board.h"

// Bytes from the board's standard output: every complete line is taken as an event.
void TakeOutput(Board& board, const char* data, size_t size, GangClock::time_point now);

// One line: progress, region and result events change the row; anything else
// (text, broken JSON, fields of the wrong type) is ignored.
void TakeEvent(Board& board, const std::string& line, GangClock::time_point now);

// The board's tool has ended with this wait status. It succeeded only when its
// result line says ok with exit code 0 and it exited with status 0; a status that
// contradicts its result line, or no result line at all, is a failure.
void JudgeEnd(Board& board, int status, GangClock::time_point now);

// A board that ends without its tool running (it could not be started, or the
// gang was stopped first).
void EndUnstarted(Board& board, int exitCode, const std::string& message);
