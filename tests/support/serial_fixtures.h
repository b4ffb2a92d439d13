// A pseudo-terminal pair for serial and flash host tests: the code under test opens
// the slave device by its path, the test plays the other end of the line on the
// master.
#pragma once
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "tests/support/process.h"

// What `run` prints on standard output while it runs.
template <class Run>
std::string CapturedStdout(Run run)
{
    testing::internal::CaptureStdout();
    run();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

class PtyPair {
public:
    PtyPair()
    {
        m_master = posix_openpt(O_RDWR | O_NOCTTY);
        if (m_master < 0 || grantpt(m_master) != 0 || unlockpt(m_master) != 0)
            return;
        const char* name = ptsname(m_master);
        if (name == nullptr)
            return;
        m_slavePath = name;
        fcntl(m_master, F_SETFL, fcntl(m_master, F_GETFL) | O_NONBLOCK);
        // Holding one slave descriptor open keeps the master readable while the
        // code under test closes and reopens the device.
        m_keeper = open(name, O_RDWR | O_NOCTTY | O_NONBLOCK);
    }

    ~PtyPair()
    {
        CloseMaster();
        if (m_keeper >= 0)
            close(m_keeper);
    }

    PtyPair(const PtyPair&) = delete;
    PtyPair& operator=(const PtyPair&) = delete;

    bool Ok() const { return m_master >= 0 && m_keeper >= 0; }
    const std::string& SlavePath() const { return m_slavePath; }
    int Master() const { return m_master; }

    // Hangs up the line, as an unplugged adapter would.
    void CloseMaster()
    {
        if (m_master >= 0)
            close(m_master);
        m_master = -1;
    }

    void Write(const std::vector<unsigned char>& bytes) const
    {
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = write(m_master, bytes.data() + done, bytes.size() - done);
            if (n > 0)
                done += static_cast<size_t>(n);
            else
                usleep(1000);
        }
    }

private:
    int m_master = -1;
    int m_keeper = -1;
    std::string m_slavePath;
};
