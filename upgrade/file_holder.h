// A FILE* owned for the length of a scope: closed when the holder goes away.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

class FileHolder {
public:
    FileHolder() = default;
    ~FileHolder() { Close(); }
    FileHolder(const FileHolder&) = delete;
    FileHolder& operator=(const FileHolder&) = delete;

    // Opens the path with the stdio mode; false when it cannot be opened.
    bool Open(const std::string& path, const char* mode)
    {
        Close();
        m_file = std::fopen(path.c_str(), mode);
        return m_file != nullptr;
    }

    void Close()
    {
        if (m_file)
            std::fclose(m_file);
        m_file = nullptr;
    }

    FILE* Get() const { return m_file; }
    bool IsOpen() const { return m_file != nullptr; }

private:
    FILE* m_file = nullptr;
};

// Length of an open file, found by seeking to its end; the file position is kept.
// -1 when the stream cannot seek.
int64_t FileLength(FILE* file);

// Moves to an absolute position; false when the stream cannot seek there.
bool SeekTo(FILE* file, int64_t offset);
