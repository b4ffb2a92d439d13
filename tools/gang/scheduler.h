// The gang's loop: starts boards up to the job limit, reads their events, forwards
// a stop, reaps the ones that ended, and redraws, until every board has ended.
#pragma once
#include <chrono>
#include <csignal>
#include <cstddef>
#include <vector>

#include "tools/gang/board.h"
#include "tools/gang/child_process.h"
#include "tools/gang/display.h"

// After "stop" is typed, a board has this long to end before its process group
// gets SIGTERM, and as long again before SIGKILL. The tool looks at the stop
// request between two steps, and one step (a 64 KiB block written, read back and
// retried at 115200 bit/s) can take most of this.
constexpr std::chrono::seconds kStopGrace{30};
// How long one wait for output lasts: also how soon a stop or an ended board is seen.
constexpr int kPollMilliseconds = 200;

struct GangRun {
    size_t jobs = 0;                     // boards at once; 0: all
    SpawnFunction spawn = SpawnChild;
    // Counts the stop requests (SIGINT, SIGTERM) the gang has received: the
    // first types "stop" on every board's console, each further one takes every
    // board still running one step further (SIGTERM, then SIGKILL) at once.
    const volatile sig_atomic_t* stopRequests = nullptr;
    Display* display = nullptr;          // required
};

// Runs every board to its end. True when every one of them succeeded.
bool RunBoards(std::vector<Board>& boards, const GangRun& run);
