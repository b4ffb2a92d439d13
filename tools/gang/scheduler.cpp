#include "tools/gang/scheduler.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "common/run_event_names.h"
#include "tools/gang/board_events.h"

namespace {

// The line the tool's console takes as a stop request.
const char kStopLine[] = "stop\n";
// While every running board has closed its output but not yet ended.
constexpr int kReapPollMilliseconds = 50;

size_t StopRequests(const GangRun& run)
{
    return run.stopRequests ? static_cast<size_t>(*run.stopRequests) : 0;
}

void StartBoard(Board& board, const GangRun& run, GangClock::time_point now)
{
    ChildSpec spec;
    spec.argv = board.command;
    spec.folder = board.folder;
    spec.errorFile = BoardErrorFile(board);
    spec.ownGroup = true;
    spec.console = true;
    board.began = now;
    std::string why;
    if (!run.spawn(spec, board.child, why)) {
        EndUnstarted(board, 1, "could not start the tool: " + why);
        run.display->Ended(board);
        return;
    }
    // Read without blocking: a board's output is drained when it ends, whatever
    // its own children still hold open.
    fcntl(board.child.out.Get(), F_SETFL, O_NONBLOCK);
    board.started = true;
    board.phase = "starting";
    run.display->Started(board);
}

// Step 1: boards waiting for a place start, as long as no stop was asked for.
void StartWaiting(std::vector<Board>& boards, const GangRun& run, GangClock::time_point now)
{
    if (StopRequests(run) > 0)
        return;
    const size_t jobs = run.jobs == 0 ? boards.size() : run.jobs;
    size_t running = std::count_if(boards.begin(), boards.end(),
                                   [](const Board& b) { return b.started && !b.finished; });
    for (Board& board : boards) {
        if (running >= jobs)
            break;
        if (!board.started) {
            StartBoard(board, run, now);
            running += board.finished ? 0 : 1;  // one that could not start holds no place
        }
    }
}

void TakeStopStep(Board& board, GangClock::time_point now)
{
    switch (board.stopStep) {
    case StopStep::kNone: {
        ssize_t ignored = write(board.child.in.Get(), kStopLine, sizeof kStopLine - 1);
        (void)ignored;  // a console already closed: the next step follows after the grace
        board.stopStep = StopStep::kTyped;
        break;
    }
    case StopStep::kTyped:
        SignalGroup(board.child, SIGTERM);
        board.stopStep = StopStep::kTerminated;
        break;
    case StopStep::kTerminated:
    case StopStep::kKilled:
        SignalGroup(board.child, SIGKILL);
        board.stopStep = StopStep::kKilled;
        break;
    }
    board.stopStepAt = now;
}

// Step 2: after a stop request the boards that have not started end at once, and
// each running board is taken one stop step further on a new request, or when
// its last step has gone unanswered for the grace period.
void ForwardStop(std::vector<Board>& boards, const GangRun& run, size_t& seenRequests, GangClock::time_point now)
{
    const size_t requests = StopRequests(run);
    if (requests == 0)
        return;
    const bool fresh = requests > seenRequests;
    seenRequests = requests;
    for (Board& board : boards) {
        if (!board.started) {
            EndUnstarted(board, run_event::kExitStopped, "not started: stopped by the user");
            run.display->Ended(board);
        } else if (!board.finished && board.stopStep != StopStep::kKilled) {
            const bool overdue = board.stopStep != StopStep::kNone && now - board.stopStepAt >= kStopGrace;
            if (fresh || overdue)
                TakeStopStep(board, now);
        }
    }
}

// One read; false when nothing more is there now (or ever: then it is closed).
bool ReadSome(Board& board, GangClock::time_point now)
{
    char buffer[4096];
    const ssize_t got = read(board.child.out.Get(), buffer, sizeof buffer);
    if (got > 0) {
        TakeOutput(board, buffer, static_cast<size_t>(got), now);
        return true;
    }
    const int error = got < 0 ? errno : 0;
    if (got == 0 || (error != EAGAIN && error != EINTR))
        board.child.out.Reset();
    return error == EINTR;
}

// Step 3: waits for output from any board and takes one piece from each that has some.
void TakeOutputs(std::vector<Board>& boards)
{
    std::vector<pollfd> fds;
    std::vector<Board*> owners;
    for (Board& board : boards) {
        if (board.started && !board.finished && board.child.out.IsOpen()) {
            fds.push_back({board.child.out.Get(), POLLIN, 0});
            owners.push_back(&board);
        }
    }
    const int timeout = fds.empty() ? kReapPollMilliseconds : kPollMilliseconds;
    if (poll(fds.data(), fds.size(), timeout) <= 0)
        return;  // nothing, or a signal: the loop looks at the stop requests next
    const GangClock::time_point now = GangClock::now();
    for (size_t i = 0; i < fds.size(); ++i) {
        if (fds[i].revents != 0)
            ReadSome(*owners[i], now);
    }
}

// Step 4: boards whose tool has ended take the rest of their output and their verdict.
void ReapEnded(std::vector<Board>& boards, const GangRun& run)
{
    for (Board& board : boards) {
        int status;
        if (!board.started || board.finished || !ChildEnded(board.child, status))
            continue;
        const GangClock::time_point now = GangClock::now();
        while (board.child.out.IsOpen() && ReadSome(board, now)) {
        }
        JudgeEnd(board, status, now);
        run.display->Ended(board);
    }
}

bool AllEnded(const std::vector<Board>& boards)
{
    return std::all_of(boards.begin(), boards.end(), [](const Board& b) { return b.finished; });
}

}  // namespace

bool RunBoards(std::vector<Board>& boards, const GangRun& run)
{
    size_t seenRequests = 0;
    while (!AllEnded(boards)) {
        StartWaiting(boards, run, GangClock::now());
        ForwardStop(boards, run, seenRequests, GangClock::now());
        TakeOutputs(boards);
        ReapEnded(boards, run);
        run.display->Show(boards);
    }
    return std::all_of(boards.begin(), boards.end(), [](const Board& b) { return b.ok; });
}
