// A flash host of its own talking to the simulated target in this process, plus
// small helpers for the flash host tests.
#pragma once
#include <cstring>
#include <memory>

#include "flashhost/CFlashHost.h"
#include "frontend/Setting.h"
#include "tests/support/serial_fixtures.h"
#include "tests/support/sim_link.h"

// The host log in a temporary folder, at the given level.
inline void UseLog(const TempDir& dir, unsigned char level)
{
    g_Setting.bLogLevel = level;
    std::string path = dir.File("log/log.txt");
    snprintf(g_Setting.strLogFile, sizeof g_Setting.strLogFile, "%s", path.c_str());
}

// A target whose boot ROM serves flash commands, so the host needs no upload.
inline ksim::TargetConfig RomServesFlash()
{
    ksim::TargetConfig config;
    config.romServesFlash = true;
    return config;
}

// The host's side of a link: `host` talks over `link` (declared first, so it
// outlives the host).
struct HostAndLink {
    explicit HostAndLink(const ksim::TargetConfig& config = RomServesFlash(), int useBrom = 0)
        : link(config)
    {
        host.UsePort(&link);
        host.SetComNum("sim");
        host.SetUseBrom(useBrom);
    }
    SimLink link;
    CFlashHost host;
};

class HostOnSim : public ::testing::Test, protected HostAndLink {
protected:
    void SetUp() override { g_Setting.bLogLevel = 0; }
    void TearDown() override { g_Setting.bLogLevel = 0; }

    // Brings the link up without the boot-loader and forgets the bring-up traffic.
    void Connect(unsigned int baud = 921600)
    {
        host.SetBaud(baud);
        ASSERT_EQ(0, host.OpenUart()) << host.m_strMsg;
        link.ClearRecord();
    }
};
