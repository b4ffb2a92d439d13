#include "upgrade/write_cycle.h"

#include <cstdio>
#include <cstring>

#include "common/run_report.h"
#include "common/setting_record.h"
#include "flashhost/CFlashHost.h"

namespace {

// The speed the last attempt falls back to, and the only speed it falls back from.
constexpr unsigned int kFallBackFromBaud = link_timing::kDefaultWorkingRate;
constexpr unsigned int kSafeBaud = link_timing::kBootRate;

enum AttemptResult { kAttemptDone, kAttemptFailed, kAttemptStopped };

const char* const kPhaseNames[kCycleSteps] = {"read", "check", "erase", "write", "read", "verify"};

void PrintProgress(const WriteCycle& cycle, CycleStep step)
{
    const char* words = cycle.texts[step].progress;
    if (cycle.blockTotal != 0)
        std::printf("%d%%: %s the %d block,total %d block(s)...\n", cycle.percent[step], words,
                    cycle.blockNumber, cycle.blockTotal);
    else
        std::printf("%d%%: %s\n", cycle.percent[step], words);
    // Progress must show at once, also when the output goes to a pipe.
    std::fflush(stdout);
    run_report::Progress(cycle.region, kPhaseNames[step], cycle.regionDone, cycle.regionTotal);
}

void PrintError(const WriteCycle& cycle, CycleStep step)
{
    const char* words = cycle.texts[step].error;
    if (cycle.blockTotal != 0)
        std::printf("%s the %d block error ! Total %d block(s)!\n", words, cycle.blockNumber,
                    cycle.blockTotal);
    else
        std::puts(words);
    if (step == kStepErase && cycle.eraseErrorShowsHostMsg)
        std::printf("msg:%s\n", g_flashHost.m_strMsg.c_str());
    std::fflush(stdout);
}

// Polls the stop flag and announces the step; false when a stop was requested.
bool BeginStep(const WriteCycle& cycle, CycleStep step)
{
    if (StopRequested())
        return false;
    PrintProgress(cycle, step);
    return true;
}

struct Attempt {
    AttemptResult result;
    CycleStep failedStep;
};

Attempt Done() { return {kAttemptDone, kStepPrepare}; }
Attempt Stopped() { return {kAttemptStopped, kStepPrepare}; }

Attempt Fail(const WriteCycle& cycle, CycleStep step)
{
    PrintError(cycle, step);
    return {kAttemptFailed, step};
}

Attempt RunAttempt(const WriteCycle& cycle, unsigned char* data, unsigned char* compare)
{
    if (cycle.prepare) {
        if (!BeginStep(cycle, kStepPrepare))
            return Stopped();
        if (cycle.prepare() != 0)
            return Fail(cycle, kStepPrepare);
    }
    if (cycle.checkAndErase) {
        if (g_Setting.bUpdateChangeOnly) {
            if (!BeginStep(cycle, kStepCheck))
                return Stopped();
            int differs = 0;
            if (g_flashHost.CheckFlashLength(cycle.address, data, cycle.length, compare, &differs) != 0)
                return Fail(cycle, kStepCheck);
            if (!differs)
                return Done();  // flash already holds the data: nothing to erase or write
        }
        if (!BeginStep(cycle, kStepErase))
            return Stopped();
        if (g_flashHost.EraseFlashLength(cycle.address, cycle.length) != 0)
            return Fail(cycle, kStepErase);
    }
    if (!BeginStep(cycle, kStepWrite))
        return Stopped();
    // Every write of a cycle goes into erased flash (erased by this attempt, or
    // already erased for the cycles without an erase step).
    if (g_flashHost.WriteErasedFlashLength(cycle.address, data, cycle.length) != 0)
        return Fail(cycle, kStepWrite);
    if (!g_Setting.bReadAndCheck)
        return Done();
    if (!BeginStep(cycle, kStepRead))
        return Stopped();
    if (g_flashHost.ReadFlashLength(cycle.address, compare, cycle.length) != 0)
        return Fail(cycle, kStepRead);
    if (!BeginStep(cycle, kStepVerify))
        return Stopped();
    if (std::memcmp(data, compare, cycle.length) != 0)
        return Fail(cycle, kStepVerify);
    return Done();
}

// Before the last attempt a link at 921600 drops to 115200 for the rest of the run;
// the switch is attempted blindly, the attempt itself shows whether the link works.
// At a negotiated rate (auto-baud) every retry first steps one rate down the
// negotiated ladder instead, while there is a lower rate: the failure is most
// likely the line at that rate, and a rate near it is much faster than 115200.
void FallBackToSafeSpeed(int attempt)
{
    if (g_flashHost.RateNegotiated() && g_flashHost.StepRateDown() == 0)
        return;
    if (attempt != kWriteAttempts || g_flashHost.GetBaud() != kFallBackFromBaud)
        return;
    g_flashHost.SetBaud(kSafeBaud);
    g_flashHost.ChangeUartBaud();
}

// The class of a cycle that used up its attempts: a compare that kept finding
// differences is a verify failure, anything else a failing flash command.
FailureKind FailureClass(CycleStep lastFailedStep)
{
    return lastFailedStep == kStepVerify ? FailureKind::kVerify : FailureKind::kFlashCommand;
}

}  // namespace

bool StopRequested()
{
    return g_flashHost.GetUpdateStatus() != 0;
}

const StepText kFullBlockTexts[kCycleSteps] = {
    {"", ""},  // full blocks have no preparation
    {"Checking", "Checking"},
    {"Erasing", "Erase"},
    {"Writing", "Write"},
    {"Reading", "Read"},
    {"Verifying", "Verify"},
};

uint32_t BlockPercent(uint32_t index, uint32_t step, uint32_t total)
{
    return (320u * index + 80u * step) / total / 4u + 10u;
}

void DescribeFullBlock(WriteCycle& cycle, uint32_t index, uint32_t total)
{
    cycle.length = kUpgradeBlockSize;
    cycle.texts = kFullBlockTexts;
    cycle.blockNumber = static_cast<int>(index + 1);
    cycle.blockTotal = static_cast<int>(total);
    cycle.percent[kStepCheck] = static_cast<int>(BlockPercent(index, 0, total));
    cycle.percent[kStepErase] = static_cast<int>(BlockPercent(index, 0, total));
    cycle.percent[kStepWrite] = static_cast<int>(BlockPercent(index, 1, total));
    cycle.percent[kStepRead] = static_cast<int>(BlockPercent(index, 2, total));
    cycle.percent[kStepVerify] = static_cast<int>(BlockPercent(index, 3, total));
}

void DescribeTail(WriteCycle& cycle, uint32_t length, const StepText* texts)
{
    cycle.length = length;
    cycle.texts = texts;
    for (int step = kStepCheck; step <= kStepVerify; ++step)
        cycle.percent[step] = 90 + (step - kStepCheck);
}

int RunWriteCycle(const WriteCycle& cycle, unsigned char* data, unsigned char* compare,
                  FailureKind& failure)
{
    CycleStep lastFailed = kStepPrepare;
    for (int attempt = 1; attempt <= kWriteAttempts; ++attempt) {
        if (StopRequested())
            break;
        if (attempt > 1)
            FallBackToSafeSpeed(attempt);
        Attempt outcome = RunAttempt(cycle, data, compare);
        if (outcome.result == kAttemptDone) {
            run_report::Progress(cycle.region, "done", cycle.regionDone + cycle.length,
                                 cycle.regionTotal);
            return 0;
        }
        if (outcome.result == kAttemptStopped)
            break;
        lastFailed = outcome.failedStep;
        // An unplugged adapter does not come back on the same descriptor: further
        // attempts could only fail the same way, seconds later.
        if (g_flashHost.LinkLost()) {
            KeepFirstFailure(failure, FailureKind::kNoAnswer);
            return -1;
        }
        g_flashHost.Pause(link_timing::kWriteCycleRetryPauseUs);
        if (attempt == kWriteAttempts)
            KeepFirstFailure(failure, FailureClass(lastFailed));
    }
    if (StopRequested())
        KeepFirstFailure(failure, FailureKind::kStopped);
    return -1;
}
