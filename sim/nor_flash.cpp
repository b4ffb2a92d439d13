#include "sim/nor_flash.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ksim {

namespace {

bool WriteAll(int fd, const uint8_t* data, size_t count, off_t offset)
{
    while (count > 0) {
        ssize_t done = pwrite(fd, data, count, offset);
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        data += done;
        count -= static_cast<size_t>(done);
        offset += done;
    }
    return true;
}

bool ReadAll(int fd, uint8_t* out, size_t count)
{
    off_t offset = 0;
    while (count > 0) {
        ssize_t done = pread(fd, out, count, offset);
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        out += done;
        count -= static_cast<size_t>(done);
        offset += done;
    }
    return true;
}

}  // namespace

bool NorFlash::Open(const std::string& path, uint32_t size, std::string& error)
{
    if (size == 0 || size % kBlockSize != 0 || size > kMaxSize) {
        error = "flash size must be a non-zero multiple of 65536 up to 268435456";
        return false;
    }
    m_cells.assign(size, 0xFF);
    m_eraseCounts.assign(size / kBlockSize, 0);
    if (path.empty())
        return true;
    return LoadFile(path, error);
}

bool NorFlash::LoadFile(const std::string& path, std::string& error)
{
    FdHolder file(open(path.c_str(), O_RDWR | O_CREAT, 0644));
    struct stat info;
    if (!file.Valid() || fstat(file.Get(), &info) != 0) {
        error = "cannot open flash file " + path + ": " + std::strerror(errno);
        return false;
    }
    if (info.st_size == 0) {
        if (!WriteAll(file.Get(), m_cells.data(), m_cells.size(), 0)) {
            error = "cannot write flash file " + path + ": " + std::strerror(errno);
            return false;
        }
    } else if (static_cast<uint64_t>(info.st_size) != m_cells.size()) {
        error = "flash file " + path + " holds " + std::to_string(info.st_size) +
                " bytes, expected " + std::to_string(m_cells.size());
        return false;
    } else if (!ReadAll(file.Get(), m_cells.data(), m_cells.size())) {
        error = "cannot read flash file " + path + ": " + std::strerror(errno);
        return false;
    }
    m_file = std::move(file);
    return true;
}

bool NorFlash::Contains(uint32_t address, uint32_t count) const
{
    return address <= m_cells.size() && count <= m_cells.size() - address;
}

bool NorFlash::ContainsSectors(uint32_t sector, uint32_t count) const
{
    uint64_t end = (static_cast<uint64_t>(sector) + count) * kSectorSize;
    return end <= m_cells.size();
}

bool NorFlash::EraseBlock(uint32_t address)
{
    uint32_t block = address / kBlockSize;
    uint32_t start = block * kBlockSize;
    std::memset(&m_cells[start], 0xFF, kBlockSize);
    ++m_eraseCounts[block];
    return WriteThrough(start, kBlockSize);
}

bool NorFlash::Program(uint32_t address, const uint8_t* data, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        m_cells[address + i] &= data[i];
    return WriteThrough(address, count);
}

void NorFlash::Read(uint32_t address, uint8_t* out, size_t count) const
{
    if (count > 0)
        std::memcpy(out, &m_cells[address], count);
}

bool NorFlash::WriteThrough(uint32_t address, size_t count)
{
    if (!m_file.Valid() || count == 0)
        return true;
    if (WriteAll(m_file.Get(), &m_cells[address], count, static_cast<off_t>(address)))
        return true;
    m_lastError = std::string("flash file write failed: ") + std::strerror(errno);
    return false;
}

}  // namespace ksim
