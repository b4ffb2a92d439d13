// The upgrade engine's entry points.
#pragma once
#include <cstdint>

// Outcome of an upgrade: -1 before the run, 0 while it runs, 1 success, 2 failure or stop.
extern int32_t g_iUpdateStatus;

// The upgrade worker; started with a null argument by the upgrade road.
void* UpGradeThread(void* arg);

// One flash debug operation (1 read, 2 write, 3 erase); 0 success, -1 failure.
int FlashOperate(unsigned int op, unsigned int address, unsigned int length, char* file);

// The OTA header image, rebuilt by GenerateOtaBuf; returns the slot count.
enum { kOtaHeaderSize = 2048 };
extern unsigned char OtaBuf[kOtaHeaderSize];
unsigned int GenerateOtaBuf(unsigned int size);
