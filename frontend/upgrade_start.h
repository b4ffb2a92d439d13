// The upgrade road: hands the settings over, starts the worker and the console reader.
#pragma once

// Runs a whole upgrade and returns the exit status.
int RunUpgradeRoad();

// Console thread: reads lines until "stop\n" and then requests the stop.
void* InputThread(void* arg);
