#include "tools/gang/board_events.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include "common/run_event_names.h"

using nlohmann::json;

namespace {

// A line longer than this is no event of the tool's: it is dropped rather than
// kept growing.
constexpr size_t kLongestLine = 64 * 1024;

// Field readers that never throw: a missing field or one of another type reads
// as the fallback.
double Number(const json& event, const char* key)
{
    const auto it = event.find(key);
    return it != event.end() && it->is_number() ? it->get<double>() : 0.0;
}

std::string Text(const json& event, const char* key)
{
    const auto it = event.find(key);
    return it != event.end() && it->is_string() ? it->get<std::string>() : std::string();
}

bool Flag(const json& event, const char* key)
{
    const auto it = event.find(key);
    return it != event.end() && it->is_boolean() && it->get<bool>();
}

int Integer(const json& event, const char* key, int fallback)
{
    const auto it = event.find(key);
    if (it == event.end() || !it->is_number_integer())
        return fallback;
    return static_cast<int>(std::clamp<int64_t>(it->get<int64_t>(), -1, 255));
}

double SecondsSince(GangClock::time_point since, GangClock::time_point now)
{
    return std::chrono::duration<double>(now - since).count();
}

void TakeProgress(Board& board, const json& event, GangClock::time_point now)
{
    using namespace run_event;
    const std::string region = Text(event, kFieldRegion);
    const double done = Number(event, kFieldDone);
    const double total = Number(event, kFieldTotal);
    // A new region starts its own clock: the rate shown is this region's.
    if (region != board.region || done < board.regionDoneAtStart) {
        board.region = region;
        board.regionSince = now;
        board.regionDoneAtStart = done;
        board.kbPerS = 0;
    }
    board.phase = region + " " + Text(event, kFieldPhase);
    board.percent = total > 0 ? std::clamp(100.0 * done / total, 0.0, 100.0) : 0.0;
    const double seconds = SecondsSince(board.regionSince, now);
    if (seconds > 0 && done > board.regionDoneAtStart)
        board.kbPerS = (done - board.regionDoneAtStart) / 1000.0 / seconds;
}

void TakeResult(Board& board, const json& event)
{
    using namespace run_event;
    board.haveResult = true;
    board.resultOk = Flag(event, kFieldOk);
    board.resultExitCode = Integer(event, kFieldExitCode, board.resultOk ? 0 : 1);
    board.message = Text(event, kFieldMessage);
    board.seconds = Number(event, kFieldSeconds);
    const double bytes = Number(event, kFieldBytes);
    board.bytes = bytes > 0 ? static_cast<uint64_t>(bytes) : 0;
    board.phase = board.resultOk ? "done" : "failed";
}

std::string LastLine(const std::string& path)
{
    std::ifstream in(path);
    std::string line, last;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty())
            last = line;
    }
    return last;
}

}  // namespace

void TakeOutput(Board& board, const char* data, size_t size, GangClock::time_point now)
{
    board.pending.append(data, size);
    size_t newline;
    while ((newline = board.pending.find('\n')) != std::string::npos) {
        TakeEvent(board, board.pending.substr(0, newline), now);
        board.pending.erase(0, newline + 1);
    }
    if (board.pending.size() > kLongestLine)
        board.pending.clear();
}

void TakeEvent(Board& board, const std::string& line, GangClock::time_point now)
{
    using namespace run_event;
    const json event = json::parse(line, nullptr, false);
    if (event.is_discarded() || !event.is_object())
        return;
    const std::string kind = Text(event, kFieldEvent);
    if (kind == kEventProgress) {
        TakeProgress(board, event, now);
    } else if (kind == kEventRegion) {
        board.kbPerS = Number(event, kFieldKbytesPerS);
    } else if (kind == kEventResult) {
        TakeResult(board, event);
    }
}

void JudgeEnd(Board& board, int status, GangClock::time_point now)
{
    board.finished = true;
    board.child.in.Reset();
    board.child.out.Reset();
    if (board.seconds == 0)
        board.seconds = SecondsSince(board.began, now);
    board.ok = false;
    if (WIFSIGNALED(status)) {
        const std::string signal = std::to_string(WTERMSIG(status));
        if (board.stopStep >= StopStep::kTerminated) {  // the gang's own signal
            board.exitCode = run_event::kExitStopped;
            board.message = "stopped: no answer to stop, ended by signal " + signal;
            board.phase = "stopped";
        } else {
            board.exitCode = 128 + WTERMSIG(status);
            board.message = "crashed (signal " + signal + ")";
            board.phase = "crashed";
        }
        return;
    }
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    if (!board.haveResult) {
        board.exitCode = code != 0 ? code : 1;
        const std::string last = LastLine(BoardErrorFile(board));
        board.message = "ended without a result line" + (last.empty() ? "" : ": " + last);
        board.phase = "failed";
        return;
    }
    const int said = board.resultExitCode;
    const bool agree = board.resultOk ? said == 0 && code == 0 : said != 0 && said == code;
    board.ok = board.resultOk && agree;
    board.exitCode = agree ? code : (code != 0 ? code : (said != 0 ? said : 1));
    if (!agree)
        board.message += " (exit status " + std::to_string(code) + " contradicts the result line)";
    board.phase = board.ok ? "done" : board.exitCode == run_event::kExitStopped ? "stopped" : "failed";
}

void EndUnstarted(Board& board, int exitCode, const std::string& message)
{
    board.started = board.finished = true;
    board.ok = false;
    board.exitCode = exitCode;
    board.message = message;
    board.phase = exitCode == run_event::kExitStopped ? "stopped" : "failed";
}
