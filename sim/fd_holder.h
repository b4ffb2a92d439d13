// Owns one POSIX file descriptor and closes it when it goes out of scope.
#pragma once
#include <unistd.h>

namespace ksim {

class FdHolder {
public:
    explicit FdHolder(int fd = -1) : m_fd(fd) {}
    ~FdHolder() { Reset(); }
    FdHolder(const FdHolder&) = delete;
    FdHolder& operator=(const FdHolder&) = delete;
    FdHolder(FdHolder&& other) noexcept : m_fd(other.Release()) {}
    FdHolder& operator=(FdHolder&& other) noexcept
    {
        if (this != &other)
            Reset(other.Release());
        return *this;
    }

    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }
    int Release()
    {
        int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void Reset(int fd = -1)
    {
        if (m_fd >= 0)
            close(m_fd);
        m_fd = fd;
    }

private:
    int m_fd;
};

}  // namespace ksim
