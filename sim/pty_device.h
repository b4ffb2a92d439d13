// The pseudo-terminal the host talks to. The simulator reads and writes the master
// side; the host opens the slave path as if it were a serial adapter.
#pragma once
#include <cstdint>
#include <string>

#include "sim/fd_holder.h"

namespace ksim {

class PtyDevice {
public:
    PtyDevice() = default;
    ~PtyDevice() { Close(); }
    PtyDevice(const PtyDevice&) = delete;
    PtyDevice& operator=(const PtyDevice&) = delete;

    // Opens master and slave, sets the slave raw 8N1 at 115200 and keeps a slave
    // descriptor of our own so that the host's close and reopen never hang the line up.
    bool Open(std::string& error);
    // Also makes `linkPath` a symlink to the slave device, removed again by Close.
    bool Link(const std::string& linkPath, std::string& error);
    void Close();

    const std::string& SlavePath() const { return m_slavePath; }
    int MasterFd() const { return m_master.Get(); }

    // The speed the host has set on its end, in bit/s; 0 when it cannot be told.
    uint32_t HostSpeed() const;

    // Host close detection (Linux: inotify on the slave path). -1 when unavailable.
    int CloseWatchFd() const { return m_watch.Get(); }
    bool CanCountCloses() const { return m_watch.Valid(); }
    // Reads the pending notifications; returns how many times the host closed the
    // device. Each close also lifts an exclusive-use flag the host may have set, which
    // would otherwise outlive its close because our own descriptor keeps the tty alive.
    int TakeHostCloses();

private:
    bool WatchCloses(std::string& error);

    FdHolder m_master;
    FdHolder m_slave;
    FdHolder m_watch;
    std::string m_slavePath;
    std::string m_linkPath;
};

}  // namespace ksim
