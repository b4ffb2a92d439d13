// TEMPORARY stub, replaced by the real implementation.
#include "frontend/upgrade_start.h"
int RunUpgradeRoad() { return -1; }
void* InputThread(void*) { return nullptr; }
