// A standard C stream that closes itself.
#pragma once
#include <cstdio>
#include <memory>

struct StdioFileCloser {
    void operator()(FILE* file) const { fclose(file); }
};

typedef std::unique_ptr<FILE, StdioFileCloser> StdioFile;

inline StdioFile OpenStdioFile(const char* path, const char* mode)
{
    return StdioFile(fopen(path, mode));
}
