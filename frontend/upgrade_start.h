// The upgrade road: hands the settings over, starts the worker and the console reader.
#pragma once
#include <pthread.h>

#include "upgrade/UpGrade.h"

// Hands the run's settings to the flash host (device, speed, change-only and
// boot-loader flags, a cleared stop request) and the image paths to both parsers:
// what every road that connects like an upgrade does first.
void HandSettingsToHost();

// Runs a whole upgrade and returns the exit status; the worker leaves the class of
// a failure in `outcome`.
int RunUpgradeRoad(UpgradeOutcome& outcome);

// Console thread: reads lines until "stop\n" and then requests the stop.
void* InputThread(void* arg);

// Handles of the upgrade worker and the console thread of the current run.
extern pthread_t g_hUpgradeThread;
extern pthread_t g_hInputThread;
