// The write cycle: how every region of an upgrade gets into flash. Optional check
// against flash, erase, write, optional read-back and compare, each step announced
// by a progress line, the whole retried up to five times.
#pragma once
#include <cstdint>
#include <functional>

#include "common/failure_kind.h"
#include "common/flash_geometry.h"
#include "common/link_timing.h"

enum {
    kUpgradeBlockSize = flash_geometry::kUpgradeBlockSize,  // and the size of both run buffers
    kWriteAttempts = link_timing::kWriteCycleAttempts,
};

enum CycleStep { kStepPrepare, kStepCheck, kStepErase, kStepWrite, kStepRead, kStepVerify, kCycleSteps };

// The console words of one step. A numbered cycle (a full block) prints
// "%d%%: <progress> the %d block,total %d block(s)...\n" and, on failure,
// "<error> the %d block error ! Total %d block(s)!\n"; any other cycle prints
// "%d%%: <progress>\n" and its error text as a line. Keeping the words apart from
// the formats keeps every format a literal the compiler can check.
struct StepText {
    const char* progress;
    const char* error;
};

struct WriteCycle {
    uint32_t address = 0;
    uint32_t length = 0;                   // 1 to 65,536 bytes
    const StepText* texts = nullptr;       // kCycleSteps entries, indexed by CycleStep
    int percent[kCycleSteps] = {};
    int blockNumber = 0;                   // numbered texts when blockTotal is not 0
    int blockTotal = 0;
    bool checkAndErase = true;             // false only for writes into flash already erased
    bool eraseErrorShowsHostMsg = false;   // the main image's full blocks add "msg:" lines
    std::function<int()> prepare;          // run at the start of every attempt; 0 = ready

    // For progress events: the region ("main", "ota", "etf"), how many of its bytes
    // were done before this cycle, and its size.
    const char* region = "main";
    uint64_t regionDone = 0;
    uint64_t regionTotal = 0;
};

// True once the operator asked to stop. The one place the upgrade engine reads the
// stop request.
bool StopRequested();

// Runs the cycle on the run's data buffer (what is to be written) and compare buffer
// (what is read back). 0 when flash holds the data; -1 when the run must abort: a
// stop was requested or all five attempts failed, and `failure` (unless it already
// holds one) says which: stopped, the link lost, verify or a flash command.
int RunWriteCycle(const WriteCycle& cycle, unsigned char* data, unsigned char* compare,
                  FailureKind& failure);

// Percentage of step `step` (0 check and erase, 1 write, 2 read, 3 verify) of full
// block `index` (from 0) out of `total`: 10 + (80*index + 20*step) / total, worked
// out the way the progress numbering always has been, in unsigned 32-bit.
uint32_t BlockPercent(uint32_t index, uint32_t step, uint32_t total);

// The words of a full 64 KiB block, shared by the main image and the ETF image.
extern const StepText kFullBlockTexts[kCycleSteps];

// Fills in a full-block cycle's length, percentages, numbering and texts.
void DescribeFullBlock(WriteCycle& cycle, uint32_t index, uint32_t total);

// Fills in a tail cycle (less than one block): its length, its texts, and the
// percentages 90 (check) to 94 (verify).
void DescribeTail(WriteCycle& cycle, uint32_t length, const StepText* texts);
