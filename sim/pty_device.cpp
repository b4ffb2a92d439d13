#include "sim/pty_device.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/inotify.h>
#endif

#include "sim/line_speed.h"

namespace ksim {

namespace {

std::string SystemError(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

bool SetRaw115200(int fd)
{
    termios attributes;
    if (tcgetattr(fd, &attributes) != 0)
        return false;
    cfmakeraw(&attributes);
    attributes.c_cflag |= CLOCAL | CREAD;
    attributes.c_cflag &= ~(CSTOPB | PARENB | CRTSCTS);
    attributes.c_cc[VMIN] = 0;
    attributes.c_cc[VTIME] = 0;
    cfsetispeed(&attributes, B115200);
    cfsetospeed(&attributes, B115200);
    return tcsetattr(fd, TCSANOW, &attributes) == 0;
}

}  // namespace

bool PtyDevice::Open(std::string& error)
{
    m_master.Reset(posix_openpt(O_RDWR | O_NOCTTY));
    if (!m_master.Valid() || grantpt(m_master.Get()) != 0 || unlockpt(m_master.Get()) != 0) {
        error = SystemError("cannot create a pseudo-terminal");
        return false;
    }
    const char* name = ptsname(m_master.Get());
    if (!name) {
        error = SystemError("cannot name the pseudo-terminal");
        return false;
    }
    m_slavePath = name;
    m_slave.Reset(open(m_slavePath.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK));
    if (!m_slave.Valid() || !SetRaw115200(m_slave.Get())) {
        error = SystemError("cannot set up " + m_slavePath);
        return false;
    }
    int flags = fcntl(m_master.Get(), F_GETFL);
    if (flags < 0 || fcntl(m_master.Get(), F_SETFL, flags | O_NONBLOCK) != 0) {
        error = SystemError("cannot make the pty master non-blocking");
        return false;
    }
    return WatchCloses(error);
}

bool PtyDevice::WatchCloses(std::string& error)
{
#ifdef __linux__
    m_watch.Reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!m_watch.Valid() ||
        inotify_add_watch(m_watch.Get(), m_slavePath.c_str(), IN_CLOSE_WRITE | IN_CLOSE_NOWRITE) < 0) {
        error = SystemError("cannot watch " + m_slavePath);
        return false;
    }
#else
    (void)error;
#endif
    return true;
}

bool PtyDevice::Link(const std::string& linkPath, std::string& error)
{
    unlink(linkPath.c_str());
    if (symlink(m_slavePath.c_str(), linkPath.c_str()) != 0) {
        error = SystemError("cannot create link " + linkPath);
        return false;
    }
    m_linkPath = linkPath;
    return true;
}

void PtyDevice::Close()
{
    if (!m_linkPath.empty()) {
        unlink(m_linkPath.c_str());
        m_linkPath.clear();
    }
    m_watch.Reset();
    m_slave.Reset();
    m_master.Reset();
}

uint32_t PtyDevice::HostSpeed() const
{
    termios attributes;
#ifdef __linux__
    // The master reports the slave's settings, which are the host's.
    int fd = m_master.Get();
#else
    int fd = m_slave.Get();
#endif
    if (fd < 0 || tcgetattr(fd, &attributes) != 0)
        return 0;
    return SpeedToBaud(cfgetospeed(&attributes));
}

int PtyDevice::TakeHostCloses()
{
    int closes = 0;
#ifdef __linux__
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        ssize_t n = read(m_watch.Get(), buffer, sizeof buffer);
        if (n <= 0)
            break;
        for (ssize_t at = 0; at < n;) {
            const inotify_event* event = reinterpret_cast<const inotify_event*>(buffer + at);
            if (event->mask & (IN_CLOSE_WRITE | IN_CLOSE_NOWRITE))
                ++closes;
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    if (closes > 0)
        ioctl(m_slave.Get(), TIOCNXCL);
#endif
    return closes;
}

}  // namespace ksim
