#include "frontend/stop_signals.h"

#include <csignal>
#include <unistd.h>

#include "common/cleanup_files.h"
#include "flashhost/CFlashHost.h"

namespace {

volatile sig_atomic_t s_count = 0;
volatile sig_atomic_t s_immediateStatus = 0;

// Only async-signal-safe work here: the stop request is a lock-free atomic store,
// the clean-up is unlink over a fixed table, the end is _exit.
void OnStopSignal(int)
{
    s_count = s_count + 1;
    if (s_count == 1) {
        RequestUpgradeStop();
        return;
    }
    RemoveCleanupFiles();
    _exit(s_immediateStatus);
}

}  // namespace

void InstallStopSignals(int immediateStatus)
{
    s_count = 0;
    s_immediateStatus = immediateStatus;
    struct sigaction action {};
    action.sa_handler = OnStopSignal;
    // Both signals are held while one is handled, so the count never races itself;
    // interrupted reads restart (the console reader's fgets among them).
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGINT);
    sigaddset(&action.sa_mask, SIGTERM);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}
