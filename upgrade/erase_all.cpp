// --erase-all: every 64 KiB block of the flash, one erase command each.
#include <chrono>
#include <cstdio>

#include "common/flash_geometry.h"
#include "common/run_report.h"
#include "flashhost/CFlashHost.h"
#include "upgrade/everyday_commands.h"
#include "upgrade/write_cycle.h"

int EraseAllFlash(FailureKind& failure)
{
    if (ConnectForCommand(failure) != 0)
        return -1;
    const uint64_t capacity = FlashCapacityInUse();
    if (capacity == 0) {
        // Erasing "until the chip refuses" could run far past a small part.
        std::printf("Refused: the flash's capacity is unknown (identifier gives none); give it with --flash-size\n");
        KeepFirstFailure(failure, FailureKind::kUsage);
        g_flashHost.Close();
        return -1;
    }
    const uint64_t block = flash_geometry::kEraseBlockSize;
    const auto start = std::chrono::steady_clock::now();
    for (uint64_t address = 0; address < capacity; address += block) {
        if (StopRequested()) {
            KeepFirstFailure(failure, FailureKind::kStopped);
            g_flashHost.Close();
            return -1;
        }
        if (g_flashHost.EraseFlash(static_cast<uint32_t>(address)) != 0) {
            std::printf("Erase failed at 0x%08X: %s\n", static_cast<unsigned>(address),
                        g_flashHost.m_strMsg.c_str());
            KeepFirstFailure(failure, g_flashHost.LinkLost() ? FailureKind::kNoAnswer : FailureKind::kFlashCommand);
            g_flashHost.Close();
            return -1;
        }
        run_report::Progress("flash", "erase", address + block, capacity);
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    run_report::Region("flash", capacity, took.count());
    std::printf("Erase all: 0x%08X-0x%08X (%llu bytes) OK!\n", 0u, static_cast<unsigned>(capacity - 1),
                static_cast<unsigned long long>(capacity));
    g_flashHost.Close();
    return 0;
}
