#include "common/stdio_file.h"

#include <sys/types.h>

int64_t FileLength(FILE* file)
{
    const off_t position = ftello(file);
    if (position < 0 || fseeko(file, 0, SEEK_END) != 0)
        return -1;
    const off_t length = ftello(file);
    if (fseeko(file, position, SEEK_SET) != 0)
        return -1;
    return static_cast<int64_t>(length);
}

bool SeekTo(FILE* file, int64_t offset)
{
    return fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0;
}
