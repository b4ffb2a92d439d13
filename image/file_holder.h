// A stdio stream that closes itself: the one way this program holds an open file.
#pragma once
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
