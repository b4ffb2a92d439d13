// The upgrade road and the console stop reader.
#include "frontend/upgrade_start.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "flashhost/CFlashHost.h"
#include "frontend/Setting.h"
#include "image/FwParser.h"
#include "upgrade/UpGrade.h"

pthread_t g_hUpgradeThread;
pthread_t g_hInputThread;

namespace {

// The console line buffer: a line of at most 259 characters, its line feed included.
enum { kConsoleLineSize = 260 };
const char kStopLine[] = "stop\n";
constexpr useconds_t kEchoPauseUs = 10000;

// Reads the next console line into the cleared buffer; false at the end of input
// or on a read error.
bool ReadConsoleLine(char (&line)[kConsoleLineSize])
{
    std::memset(line, 0, sizeof line);
    return std::fgets(line, sizeof line, stdin) != nullptr;
}

bool IsStopLine(const char* line)
{
    return std::strcmp(line, kStopLine) == 0;
}

}  // namespace

void* InputThread(void*)
{
    char line[kConsoleLineSize];
    // The end of standard input (closed, or redirected from an empty file) is not a
    // stop request: the thread just ends, so an unattended run without a console
    // still completes, and nothing spins or echoes forever.
    if (!ReadConsoleLine(line))
        return nullptr;
    while (!IsStopLine(line)) {
        std::printf("Data:%sTIP:Input 'stop' to stop upgrading.\n", line);
        std::fflush(stdout);
        if (!ReadConsoleLine(line))
            return nullptr;
        usleep(kEchoPauseUs);
    }
    // Never g_flashHost itself: this thread may outlive it (see RequestUpgradeStop).
    RequestUpgradeStop();
    return nullptr;
}

void HandSettingsToHost()
{
    g_flashHost.SetComNum(g_Setting.strComDev);
    g_flashHost.SetBaud(g_Setting.iBaud);
    g_flashHost.SetBitUpdateChangeOnly(g_Setting.bUpdateChangeOnly);
    g_flashHost.SetUseBrom(g_Setting.bFlashCompat);
    g_flashHost.SetStartUpdate();
    g_fwParser.SetFilePath(g_Setting.strImagePath);
    g_etfFwParser.SetFilePath(g_Setting.strEtfImagePath);
}

int RunUpgradeRoad(UpgradeOutcome& outcome)
{
    g_iUpdateStatus = -1;
    HandSettingsToHost();

    if (pthread_create(&g_hUpgradeThread, nullptr, UpGradeThread, &outcome) != 0) {
        std::puts("Create UpGradeThread error!");
        return -1;
    }
    if (pthread_create(&g_hInputThread, nullptr, InputThread, nullptr) != 0) {
        std::puts("Create InputThread error!");
        // The worker is already running: ending now could cut a flash operation
        // short. Ask it to stop and let it wind down between two steps.
        g_flashHost.SetStopUpdate();
        pthread_join(g_hUpgradeThread, nullptr);
        return -1;
    }
    // The console thread is never joined: it usually still waits for a line when the
    // upgrade ends, and it ends with the process. Detached, it leaves nothing behind
    // when it has ended early (at the end of input or after a stop).
    pthread_detach(g_hInputThread);
    pthread_join(g_hUpgradeThread, nullptr);
    return 0;
}
