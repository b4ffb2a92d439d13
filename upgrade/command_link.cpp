// The connection and capacity shared by the everyday commands.
#include <cstdio>

#include "common/setting_record.h"
#include "flashhost/CFlashHost.h"
#include "upgrade/everyday_commands.h"

int ConnectForCommand(FailureKind& failure)
{
    // Running firmware makes way on this text, as before an upgrade.
    if (g_flashHost.SendUpgradeCmd() != 0)
        std::printf("%s", g_flashHost.m_strMsg.c_str());
    if (g_flashHost.OpenUart() != 0) {
        KeepFirstFailure(failure, g_flashHost.m_failKind);
        std::printf("%s\n", g_flashHost.m_strMsg.c_str());
        std::fflush(stdout);
        return -1;
    }
    return 0;
}
