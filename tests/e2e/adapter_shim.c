/* Loaded with LD_PRELOAD into the tool by the end-to-end tests: writes to a
 * terminal behave like a USB-serial adapter's driver with a 4 KiB transmit FIFO.
 * One write takes at most KESTREL_SHIM_MAX_WRITE bytes (default 4096), and every
 * KESTREL_SHIM_EAGAIN_EVERY-th write to a terminal (default 3) fails with EAGAIN as
 * if the FIFO were full. Writes to anything else (pipes, files) are untouched. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

typedef ssize_t (*write_fn)(int, const void*, size_t);

static unsigned long setting(const char* name, unsigned long fallback)
{
    const char* text = getenv(name);
    return text && *text ? strtoul(text, NULL, 10) : fallback;
}

ssize_t write(int fd, const void* buf, size_t count)
{
    static write_fn real_write;
    static unsigned long terminal_writes;
    if (!real_write)
        real_write = (write_fn)dlsym(RTLD_NEXT, "write");
    if (count == 0 || !isatty(fd))
        return real_write(fd, buf, count);
    unsigned long every = setting("KESTREL_SHIM_EAGAIN_EVERY", 3);
    if (every != 0 && ++terminal_writes % every == 0) {
        errno = EAGAIN;
        return -1;
    }
    size_t most = setting("KESTREL_SHIM_MAX_WRITE", 4096);
    return real_write(fd, buf, count < most ? count : most);
}
