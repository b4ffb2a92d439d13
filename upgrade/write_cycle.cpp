#include "upgrade/write_cycle.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "flashhost/CFlashHost.h"
#include "frontend/Setting.h"

namespace {

// The speed the last attempt falls back to, and the only speed it falls back from.
constexpr unsigned int kFastBaud = 921600;
constexpr unsigned int kSafeBaud = 115200;
constexpr useconds_t kRetryPauseUs = 1000000;

enum AttemptResult { kAttemptDone, kAttemptFailed, kAttemptStopped };

bool StopRequested()
{
    return g_flashHost.GetUpdateStatus() != 0;
}

void PrintProgress(const WriteCycle& cycle, CycleStep step)
{
    const char* format = cycle.texts[step].progress;
    if (cycle.blockTotal != 0)
        std::printf(format, cycle.percent[step], cycle.blockNumber, cycle.blockTotal);
    else
        std::printf(format, cycle.percent[step]);
    // Progress must show at once, also when the output goes to a pipe.
    std::fflush(stdout);
}

void PrintError(const WriteCycle& cycle, CycleStep step)
{
    const char* text = cycle.texts[step].error;
    if (cycle.blockTotal != 0)
        std::printf(text, cycle.blockNumber, cycle.blockTotal);
    else
        std::puts(text);
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

AttemptResult Fail(const WriteCycle& cycle, CycleStep step)
{
    PrintError(cycle, step);
    return kAttemptFailed;
}

AttemptResult RunAttempt(const WriteCycle& cycle, unsigned char* data, unsigned char* compare)
{
    if (cycle.prepare) {
        if (!BeginStep(cycle, kStepPrepare))
            return kAttemptStopped;
        if (cycle.prepare() != 0)
            return Fail(cycle, kStepPrepare);
    }
    if (cycle.checkAndErase) {
        if (g_Setting.bUpdateChangeOnly) {
            if (!BeginStep(cycle, kStepCheck))
                return kAttemptStopped;
            if (g_flashHost.ReadFlashLength(cycle.address, compare, cycle.length) != 0)
                return Fail(cycle, kStepCheck);
            if (std::memcmp(data, compare, cycle.length) == 0)
                return kAttemptDone;  // flash already holds the data: nothing to erase or write
        }
        if (!BeginStep(cycle, kStepErase))
            return kAttemptStopped;
        if (g_flashHost.EraseFlashLength(cycle.address, cycle.length) != 0)
            return Fail(cycle, kStepErase);
    }
    if (!BeginStep(cycle, kStepWrite))
        return kAttemptStopped;
    if (g_flashHost.WriteFlashLength(cycle.address, data, cycle.length) != 0)
        return Fail(cycle, kStepWrite);
    if (!g_Setting.bReadAndCheck)
        return kAttemptDone;
    if (!BeginStep(cycle, kStepRead))
        return kAttemptStopped;
    if (g_flashHost.ReadFlashLength(cycle.address, compare, cycle.length) != 0)
        return Fail(cycle, kStepRead);
    if (!BeginStep(cycle, kStepVerify))
        return kAttemptStopped;
    if (std::memcmp(data, compare, cycle.length) != 0)
        return Fail(cycle, kStepVerify);
    return kAttemptDone;
}

// Before the last attempt a link at 921600 drops to 115200 for the rest of the run;
// the switch is attempted blindly, the attempt itself shows whether the link works.
void FallBackToSafeSpeed()
{
    if (g_flashHost.GetBaud() != kFastBaud)
        return;
    g_flashHost.SetBaud(kSafeBaud);
    g_flashHost.ChangeUartBaud();
}

}  // namespace

const StepText kFullBlockTexts[kCycleSteps] = {
    {"", ""},  // full blocks have no preparation
    {"%d%%: Checking the %d block,total %d block(s)...\n", "Checking the %d block error ! Total %d block(s)!\n"},
    {"%d%%: Erasing the %d block,total %d block(s)...\n", "Erase the %d block error ! Total %d block(s)!\n"},
    {"%d%%: Writing the %d block,total %d block(s)...\n", "Write the %d block error ! Total %d block(s)!\n"},
    {"%d%%: Reading the %d block,total %d block(s)...\n", "Read the %d block error ! Total %d block(s)!\n"},
    {"%d%%: Verifying the %d block,total %d block(s)...\n", "Verify the %d block error ! Total %d block(s)!\n"},
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

int RunWriteCycle(const WriteCycle& cycle, unsigned char* data, unsigned char* compare)
{
    for (int attempt = 1; attempt <= kWriteAttempts; ++attempt) {
        if (StopRequested())
            return -1;
        if (attempt == kWriteAttempts)
            FallBackToSafeSpeed();
        AttemptResult result = RunAttempt(cycle, data, compare);
        if (result == kAttemptDone)
            return 0;
        if (result == kAttemptStopped)
            return -1;
        usleep(kRetryPauseUs);
    }
    return -1;
}
