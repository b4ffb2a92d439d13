// One board of the gang: where and how its tool runs, what its JSON lines said so
// far, and its outcome.
#pragma once
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/gang/child_process.h"

using GangClock = std::chrono::steady_clock;

// How far the gang has gone in stopping a board: each step is taken after the
// one before it went unanswered.
enum class StopStep { kNone, kTyped, kTerminated, kKilled };

struct Board {
    // The plan, fixed before anything runs.
    std::string port;
    std::string folder;                // its working folder: its log, errors, debug files
    std::vector<std::string> command;  // the tool and its words

    // The run.
    Child child;
    bool started = false;
    bool finished = false;
    std::string pending;  // the start of a line not yet ended
    GangClock::time_point began;
    StopStep stopStep = StopStep::kNone;
    GangClock::time_point stopStepAt;

    // What its events said.
    std::string phase = "waiting";
    std::string region;
    double percent = 0;  // of the current region, never above 100
    double kbPerS = 0;   // of the current region: live, then the region's own figure
    GangClock::time_point regionSince;
    double regionDoneAtStart = 0;
    bool haveResult = false;
    bool resultOk = false;
    int resultExitCode = 0;

    // The outcome: from the result line and the exit status together.
    bool ok = false;
    int exitCode = 0;
    std::string message;
    double seconds = 0;
    uint64_t bytes = 0;
};

// The files the gang keeps in a board's folder.
inline std::string BoardLogFile(const Board& board) { return board.folder + "/log.txt"; }
inline std::string BoardErrorFile(const Board& board) { return board.folder + "/stderr.txt"; }
