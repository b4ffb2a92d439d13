// The upgrade engine's entry points.
#pragma once
#include <cstdint>
#include <string>

#include "common/failure_kind.h"

// Outcome of an upgrade: -1 before the run, 0 while it runs, 1 success, 2 failure or stop.
extern int32_t g_iUpdateStatus;

// What the upgrade worker hands back to the driver that started it: the class of
// the run's failure (kNone after success). Owned by the driver, passed as the
// worker's thread argument, read after the join.
struct UpgradeOutcome {
    FailureKind failure = FailureKind::kNone;
};

// The upgrade worker. `arg` is the driver's UpgradeOutcome, or null when nobody
// asks for the failure's class.
void* UpGradeThread(void* arg);

// One flash debug operation (1 read, 2 write, 3 erase); 0 success, -1 failure with
// its class in *failure when one is handed in.
int FlashOperate(unsigned int op, unsigned int address, unsigned int length, char* file,
                 FailureKind* failure = nullptr);

// The file a debug read of this range goes to, in the working folder.
std::string DebugReadFileName(unsigned int address, unsigned int length);

// The OTA header image, rebuilt by GenerateOtaBuf; returns the slot count.
enum { kOtaHeaderSize = 2048 };
extern unsigned char OtaBuf[kOtaHeaderSize];
unsigned int GenerateOtaBuf(unsigned int size);
