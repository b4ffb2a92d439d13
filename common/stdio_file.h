// A stdio stream that closes itself: the one way this program holds an open file.
#pragma once
#include <cstdint>
#include <cstdio>
#include <memory>

struct FileCloser {
    void operator()(std::FILE* f) const
    {
        if (f)
            std::fclose(f);
    }
};

using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

// Opens path with an fopen mode; the holder is empty when the file cannot be opened.
inline UniqueFile OpenFile(const char* path, const char* mode)
{
    return UniqueFile(std::fopen(path, mode));
}

// Length of an open file, found by seeking to its end; the file position is kept,
// because one file may be read by two users at once (a combined image is both the
// main image and the ETF source). -1 when the stream cannot seek.
int64_t FileLength(std::FILE* file);

// Moves to an absolute position; false when the stream cannot seek there.
bool SeekTo(std::FILE* file, int64_t offset);
