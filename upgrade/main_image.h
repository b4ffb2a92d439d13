// The main image phase: the main image written from flash address 0 in 64 KiB
// blocks and a tail.
#pragma once
#include "upgrade/run_state.h"

// 0 when the whole image is in flash; -1 when the run must abort.
int WriteMainImage(UpgradeRun& run);
