// A flash host of its own talking to a FakeTarget, plus small helpers for the flash
// host tests.
#pragma once
#include <cstring>
#include <memory>
#include <sstream>

#include "flashhost/CFlashHost.h"
#include "frontend/Setting.h"
#include "tests/flashhost/fake_target.h"

// "42 52 4F 4D" -> bytes.
inline Bytes HexBytes(const std::string& text)
{
    std::istringstream in(text);
    Bytes bytes;
    unsigned int value;
    while (in >> std::hex >> value)
        bytes.push_back(static_cast<unsigned char>(value));
    return bytes;
}

inline std::string ToHex(const Bytes& bytes)
{
    std::string text;
    char pair[4];
    for (unsigned char b : bytes) {
        snprintf(pair, sizeof pair, "%02X ", b);
        text += pair;
    }
    if (!text.empty())
        text.pop_back();
    return text;
}

// The host log in a temporary folder, at the given level.
inline void UseLog(const TempDir& dir, unsigned char level)
{
    g_Setting.bLogLevel = level;
    std::string path = dir.File("log/log.txt");
    snprintf(g_Setting.strLogFile, sizeof g_Setting.strLogFile, "%s", path.c_str());
}

// True when nothing else holds the device: a host's lock is gone.
inline bool DeviceFree(std::string path)
{
    CCommU probe;
    bool free = probe.Uart_Init(&path[0], 115200) == 0;
    probe.UART_Close();
    return free;
}

class HostOnFakeTarget : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(fake.Ok());
        g_Setting.bLogLevel = 0;
        host.reset(new CFlashHost);
        host->SetComNum(fake.DevicePath());
        host->SetUseBrom(0);
    }

    void TearDown() override { g_Setting.bLogLevel = 0; }

    // Brings the link up without the boot-loader and forgets the bring-up traffic.
    void Connect(unsigned int baud = 921600)
    {
        host->SetBaud(baud);
        ASSERT_EQ(0, host->OpenUart()) << host->m_strMsg;
        fake.ClearRecord();
    }

    FakeTarget fake;
    std::unique_ptr<CFlashHost> host;
};
