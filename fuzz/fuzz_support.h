// Shared by the fuzz targets: the input written to a private temporary file, for
// the parts of the program that read their input from a path.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

class FuzzInputFile {
public:
    FuzzInputFile(const uint8_t* data, size_t size)
    {
        char name[] = "/tmp/kestrel-fuzz-XXXXXX";
        int fd = mkstemp(name);
        if (fd < 0)
            return;
        m_path = name;
        size_t done = 0;
        while (done < size) {
            ssize_t n = write(fd, data + done, size - done);
            if (n <= 0)
                break;
            done += static_cast<size_t>(n);
        }
        close(fd);
    }
    ~FuzzInputFile()
    {
        if (!m_path.empty())
            unlink(m_path.c_str());
    }
    FuzzInputFile(const FuzzInputFile&) = delete;
    FuzzInputFile& operator=(const FuzzInputFile&) = delete;

    bool Ok() const { return !m_path.empty(); }
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};
