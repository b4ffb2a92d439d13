/* Loaded with LD_PRELOAD into the tool (or a test program) by the end-to-end tests:
 * it makes the simulator's pseudo-terminal behave like a USB-serial adapter. Every
 * feature but the write shaping is off unless its environment variable is set.
 *
 * Write shaping (always on; the existing tests rely on these defaults)
 *   Writes to a terminal behave like an adapter driver's with a 4 KiB transmit FIFO:
 *   one write takes at most KESTREL_SHIM_MAX_WRITE bytes (default 4096), and every
 *   KESTREL_SHIM_EAGAIN_EVERY-th write to a terminal (default 3, 0: never) fails
 *   with EAGAIN as if the FIFO were full. Writes to anything else are untouched.
 *
 * KESTREL_SHIM_PAUSES=PATH: the pauses the program asks for
 *   Every usleep(us) appends the line "usleep <us>" to PATH, then sleeps as asked: a
 *   test reads each fixed pause by its exact length instead of timing anything. (A
 *   sanitizer runtime that wraps usleep itself comes first, so the log stays empty
 *   under ThreadSanitizer.)
 *
 * KESTREL_SHIM_MODEM=PATH: modem lines
 *   ioctl(fd, TIOCMSET / TIOCMBIS / TIOCMBIC / TIOCMGET, int*) on a terminal no longer
 *   reaches the pty (which has no modem lines and refuses them with ENOTTY). The shim
 *   keeps DTR and RTS itself, answers TIOCMGET from that state (only TIOCM_DTR and
 *   TIOCM_RTS are ever reported), and reports each change to the simulator, which
 *   listens on PATH (kestrel_sim --modem-channel PATH), a Unix stream socket. The
 *   protocol, one text line each way:
 *       "get\n"             ->  "lines dtr=D rts=R\n"    sent once, on connecting
 *       "set dtr=D rts=R\n" ->  "lines dtr=D rts=R\n"    for every change
 *   D and R are 1 for an asserted line (its TIOCM bit set). The ioctl returns only
 *   after the answer: the simulator answers once it has taken every byte written to
 *   the pty before the request and queued the change behind them, so bytes written
 *   before the ioctl meet the old lines and bytes written after it the new ones.
 *   TIOCMSET with both bits changes both lines in one request. A call that leaves the
 *   lines as they are sends nothing. The state is per process and starts as the
 *   simulator reports it. When the simulator cannot be reached or does not answer
 *   within 5 s, the ioctl fails with EIO (and a line on standard error). Without the
 *   variable these ioctls go to the pty unchanged.
 *
 * KESTREL_SHIM_MAX_RATE=N: an adapter that refuses rates above N bit/s
 *   tcsetattr() with an input or output speed above N fails with EINVAL and changes
 *   nothing, as the tool sets its rates with tcsetattr. cfsetispeed, cfsetospeed and
 *   cfsetspeed only fill in the structure and still succeed; the TCSETS ioctls are
 *   not looked at.
 *
 * KESTREL_SHIM_FAIL_THREAD=N: a thread that cannot be started
 *   The N-th pthread_create of the process fails with EAGAIN and starts nothing, as
 *   under a process limit. (A sanitizer runtime that wraps pthread_create itself
 *   comes first, so the failure does not happen in a sanitizer build.)
 *
 * KESTREL_SHIM_SYSFS_ROOT=DIR: a made-up adapter in a fake sysfs and /dev
 *   Paths are looked up under DIR instead when they are "/sys" or below it, "/dev"
 *   itself (so listing /dev shows DIR/dev), "/dev/serial" or below it, or begin with
 *   "/dev/ttyUSB" or "/dev/ttyACM". Redirected calls: open, open64, openat and
 *   openat64 with an absolute path, fopen, fopen64, opendir, readlink, realpath,
 *   access, stat, lstat, stat64, lstat64, fstatat, fstatat64. DIR is an absolute
 *   path. realpath gives its answer without the DIR prefix ("/sys/devices/..."), so
 *   that the answer can be handed back in, and it stops at the link that leaves the
 *   tree, as at a device node: a /dev/serial/by-id link resolves to "/dev/ttyUSB0".
 *   A redirected /sys file opened for writing is truncated first, so that a write
 *   replaces the value as writing a sysfs attribute does. The tree is built by
 *   tests/support/fake_sysfs.h: DIR/dev/ttyUSB0 is a symlink to the simulator's pty,
 *   so opening "/dev/ttyUSB0" reaches the simulator.
 *   When DIR/serial_flags exists the terminal has a serial driver's flags word:
 *   TIOCGSERIAL answers with the number on the file's last line as the flags (every
 *   other field zero) and TIOCSSERIAL appends the flags it is given as a new line, so
 *   the file ends as the history of what the program set. Without the file both
 *   requests go to the pseudo-terminal, which refuses them.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/serial.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

/* The C library's own function of that name, looked up once per call site. */
#define REAL(name)                                       \
    ({                                                   \
        static __typeof__(&name) real_##name;            \
        if (!real_##name)                                \
            real_##name = (__typeof__(&name))dlsym(RTLD_NEXT, #name); \
        real_##name;                                     \
    })

static unsigned long setting(const char* name, unsigned long fallback)
{
    const char* text = getenv(name);
    return text && *text ? strtoul(text, NULL, 10) : fallback;
}

/* ---- thread start ----------------------------------------------------------- */

int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg)
{
    static unsigned long calls;
    const unsigned long failing = setting("KESTREL_SHIM_FAIL_THREAD", 0);
    if (failing != 0 && ++calls == failing)
        return EAGAIN;
    int (*real)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) =
        (int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*))dlsym(RTLD_NEXT, "pthread_create");
    return real(thread, attr, start, arg);
}

/* ---- write shaping ---------------------------------------------------------- */

ssize_t write(int fd, const void* buf, size_t count)
{
    static unsigned long terminal_writes;
    if (count == 0 || !isatty(fd))
        return REAL(write)(fd, buf, count);
    unsigned long every = setting("KESTREL_SHIM_EAGAIN_EVERY", 3);
    if (every != 0 && ++terminal_writes % every == 0) {
        errno = EAGAIN;
        return -1;
    }
    size_t most = setting("KESTREL_SHIM_MAX_WRITE", 4096);
    return REAL(write)(fd, buf, count < most ? count : most);
}

/* ---- pauses ----------------------------------------------------------------- */

int usleep(useconds_t us)
{
    const char* path = getenv("KESTREL_SHIM_PAUSES");
    int fd = path ? REAL(open)(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600) : -1;
    if (fd >= 0) {
        char line[32];
        int n = snprintf(line, sizeof line, "usleep %u\n", (unsigned)us);
        if (REAL(write)(fd, line, (size_t)n) != n)
            fprintf(stderr, "adapter shim: cannot log a pause to %s\n", path);
        close(fd);
    }
    return REAL(usleep)(us);
}

/* ---- modem lines ------------------------------------------------------------ */

#define SHIM_LINES (TIOCM_DTR | TIOCM_RTS)

static pthread_mutex_t g_modem_lock = PTHREAD_MUTEX_INITIALIZER;
static int g_modem_fd = -1;
static int g_modem_bits; /* as the simulator holds them */

static void modem_drop(const char* why)
{
    fprintf(stderr, "adapter_shim: modem channel %s: %s\n", getenv("KESTREL_SHIM_MODEM"), why);
    if (g_modem_fd >= 0)
        close(g_modem_fd);
    g_modem_fd = -1;
}

/* Sends one request line and reads the answer "lines dtr=D rts=R\n" into *bits. */
static int modem_exchange(const char* request, int* bits)
{
    size_t length = strlen(request);
    if (send(g_modem_fd, request, length, MSG_NOSIGNAL) != (ssize_t)length)
        return -1;
    char answer[64];
    size_t got = 0;
    while (got == 0 || answer[got - 1] != '\n') {
        struct pollfd p = {g_modem_fd, POLLIN, 0};
        if (got + 1 >= sizeof answer || poll(&p, 1, 5000) != 1)
            return -1;
        ssize_t n = recv(g_modem_fd, answer + got, sizeof answer - 1 - got, 0);
        if (n <= 0)
            return -1;
        got += (size_t)n;
    }
    answer[got] = '\0';
    int dtr = 0, rts = 0;
    if (sscanf(answer, "lines dtr=%d rts=%d", &dtr, &rts) != 2)
        return -1;
    *bits = (dtr ? TIOCM_DTR : 0) | (rts ? TIOCM_RTS : 0);
    return 0;
}

static int modem_connect(const char* path)
{
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path)
        return -1;
    strcpy(address.sun_path, path);
    g_modem_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (g_modem_fd < 0)
        return -1;
    if (connect(g_modem_fd, (const struct sockaddr*)&address, sizeof address) != 0 ||
        modem_exchange("get\n", &g_modem_bits) != 0) {
        modem_drop("cannot reach the simulator");
        return -1;
    }
    return 0;
}

static int modem_ioctl(const char* path, unsigned long request, int* arg)
{
    if (!arg) {
        errno = EFAULT;
        return -1;
    }
    pthread_mutex_lock(&g_modem_lock);
    int result = -1;
    if (g_modem_fd < 0 && modem_connect(path) != 0)
        goto out;
    int bits = g_modem_bits;
    if (request == TIOCMGET) {
        *arg = bits;
        result = 0;
        goto out;
    }
    if (request == TIOCMSET)
        bits = *arg & SHIM_LINES;
    else if (request == TIOCMBIS)
        bits |= *arg & SHIM_LINES;
    else
        bits &= ~*arg;
    if (bits != g_modem_bits) {
        char line[32];
        snprintf(line, sizeof line, "set dtr=%d rts=%d\n", (bits & TIOCM_DTR) != 0, (bits & TIOCM_RTS) != 0);
        if (modem_exchange(line, &g_modem_bits) != 0) {
            modem_drop("no answer");
            goto out;
        }
    }
    result = 0;
out:
    pthread_mutex_unlock(&g_modem_lock);
    if (result != 0)
        errno = EIO;
    return result;
}

/* ---- rate refusal ----------------------------------------------------------- */

static unsigned long rate_of(speed_t speed)
{
    static const struct {
        speed_t constant;
        unsigned long rate;
    } rates[] = {
        {B50, 50}, {B75, 75}, {B110, 110}, {B134, 134}, {B150, 150}, {B200, 200},
        {B300, 300}, {B600, 600}, {B1200, 1200}, {B1800, 1800}, {B2400, 2400},
        {B4800, 4800}, {B9600, 9600}, {B19200, 19200}, {B38400, 38400},
        {B57600, 57600}, {B115200, 115200}, {B230400, 230400},
#ifdef B460800
        {B460800, 460800}, {B500000, 500000}, {B576000, 576000}, {B921600, 921600},
        {B1000000, 1000000}, {B1152000, 1152000}, {B1500000, 1500000}, {B2000000, 2000000},
        {B2500000, 2500000}, {B3000000, 3000000}, {B3500000, 3500000}, {B4000000, 4000000},
#endif
    };
    for (size_t i = 0; i < sizeof rates / sizeof rates[0]; ++i)
        if (rates[i].constant == speed)
            return rates[i].rate;
#ifdef __APPLE__
    return (unsigned long)speed; /* the constants there are the rates */
#else
    return 0;
#endif
}

static int rate_refused(unsigned long rate)
{
    unsigned long most = setting("KESTREL_SHIM_MAX_RATE", 0);
    return most != 0 && rate > most;
}

int tcsetattr(int fd, int action, const struct termios* attributes)
{
    if (attributes && (rate_refused(rate_of(cfgetospeed(attributes))) ||
                       rate_refused(rate_of(cfgetispeed(attributes))))) {
        errno = EINVAL;
        return -1;
    }
    return REAL(tcsetattr)(fd, action, attributes);
}

/* The serial driver's flags word, kept in DIR/serial_flags (see the top). */
static int serial_flags_ioctl(int fd, unsigned long request, struct serial_struct* info)
{
    const char* root = getenv("KESTREL_SHIM_SYSFS_ROOT");
    char path[PATH_MAX];
    if (!root || !*root || !info || !isatty(fd) ||
        snprintf(path, sizeof path, "%s/serial_flags", root) >= (int)sizeof path || access(path, F_OK) != 0)
        return -2; /* not emulated */
    FILE* file = REAL(fopen)(path, request == TIOCGSERIAL ? "r" : "a");
    if (!file)
        return -1;
    int result = 0;
    if (request == TIOCGSERIAL) {
        int flags = 0, last = 0;
        while (fscanf(file, "%d", &flags) == 1)
            last = flags;
        memset(info, 0, sizeof *info);
        info->flags = last;
    } else if (fprintf(file, "%d\n", info->flags) <= 0) {
        result = -1;
    }
    return fclose(file) == 0 ? result : -1;
}

int ioctl(int fd, unsigned long request, ...)
{
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    const char* modem = getenv("KESTREL_SHIM_MODEM");
    if (modem && *modem &&
        (request == TIOCMSET || request == TIOCMBIS || request == TIOCMBIC || request == TIOCMGET) && isatty(fd))
        return modem_ioctl(modem, request, arg);
    if (request == TIOCGSERIAL || request == TIOCSSERIAL) {
        const int emulated = serial_flags_ioctl(fd, request, arg);
        if (emulated != -2)
            return emulated;
    }
    return REAL(ioctl)(fd, request, arg);
}

/* ---- fake sysfs --------------------------------------------------------------- */

static int starts_with_component(const char* path, const char* prefix)
{
    size_t n = strlen(prefix);
    return strncmp(path, prefix, n) == 0 && (path[n] == '\0' || path[n] == '/');
}

static int redirected(const char* path)
{
    return path && (starts_with_component(path, "/sys") || strcmp(path, "/dev") == 0 ||
                    strcmp(path, "/dev/") == 0 || starts_with_component(path, "/dev/serial") ||
                    strncmp(path, "/dev/ttyUSB", 11) == 0 || strncmp(path, "/dev/ttyACM", 11) == 0);
}

/* `path` as it is to be looked up: DIR + path when redirected, else `path` itself;
 * NULL (errno set) when the result does not fit. */
static const char* lookup(const char* path, char* buffer)
{
    const char* root = getenv("KESTREL_SHIM_SYSFS_ROOT");
    if (!root || !*root || !redirected(path))
        return path;
    if ((size_t)snprintf(buffer, PATH_MAX, "%s%s", root, path) >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return NULL;
    }
    return buffer;
}

#define LOOKUP(path, fail)                  \
    char lookup_buffer[PATH_MAX];           \
    const char* where = lookup(path, lookup_buffer); \
    if (!where)                             \
        return fail

/* A write to a sysfs attribute replaces its value; to a plain file it would not. */
static int with_truncate(const char* path, const char* where, int flags)
{
    if (where != path && starts_with_component(path, "/sys") && (flags & O_ACCMODE) != O_RDONLY)
        flags |= O_TRUNC;
    return flags;
}

static mode_t mode_argument(int flags, va_list args)
{
#ifdef O_TMPFILE
    if ((flags & O_TMPFILE) == O_TMPFILE)
        return (mode_t)va_arg(args, int);
#endif
    return (flags & O_CREAT) ? (mode_t)va_arg(args, int) : 0;
}

int open(const char* path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_argument(flags, args);
    va_end(args);
    LOOKUP(path, -1);
    return REAL(open)(where, with_truncate(path, where, flags), mode);
}

int open64(const char* path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_argument(flags, args);
    va_end(args);
    LOOKUP(path, -1);
    return REAL(open64)(where, with_truncate(path, where, flags), mode);
}

int openat(int dirfd, const char* path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_argument(flags, args);
    va_end(args);
    LOOKUP(path, -1);
    return REAL(openat)(dirfd, where, with_truncate(path, where, flags), mode);
}

int openat64(int dirfd, const char* path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_argument(flags, args);
    va_end(args);
    LOOKUP(path, -1);
    return REAL(openat64)(dirfd, where, with_truncate(path, where, flags), mode);
}

FILE* fopen(const char* path, const char* how)
{
    LOOKUP(path, NULL);
    return REAL(fopen)(where, how);
}

FILE* fopen64(const char* path, const char* how)
{
    LOOKUP(path, NULL);
    return REAL(fopen64)(where, how);
}

DIR* opendir(const char* path)
{
    LOOKUP(path, NULL);
    return REAL(opendir)(where);
}

ssize_t readlink(const char* path, char* buffer, size_t size)
{
    LOOKUP(path, -1);
    return REAL(readlink)(where, buffer, size);
}

int access(const char* path, int how)
{
    LOOKUP(path, -1);
    return REAL(access)(where, how);
}

int stat(const char* path, struct stat* info)
{
    LOOKUP(path, -1);
    return REAL(stat)(where, info);
}

int lstat(const char* path, struct stat* info)
{
    LOOKUP(path, -1);
    return REAL(lstat)(where, info);
}

int stat64(const char* path, struct stat64* info)
{
    LOOKUP(path, -1);
    return REAL(stat64)(where, info);
}

int lstat64(const char* path, struct stat64* info)
{
    LOOKUP(path, -1);
    return REAL(lstat64)(where, info);
}

int fstatat(int dirfd, const char* path, struct stat* info, int flags)
{
    LOOKUP(path, -1);
    return REAL(fstatat)(dirfd, where, info, flags);
}

int fstatat64(int dirfd, const char* path, struct stat64* info, int flags)
{
    LOOKUP(path, -1);
    return REAL(fstatat64)(dirfd, where, info, flags);
}

/* `result` without the fake root in front, when it has it. */
static void strip_root(char* result, const char* real_root)
{
    size_t n = strlen(real_root);
    if (strncmp(result, real_root, n) == 0 && redirected(result + n))
        memmove(result, result + n, strlen(result + n) + 1);
}

static char* give(const char* answer, char* resolved)
{
    if (!resolved)
        return strdup(answer);
    return strcpy(resolved, answer);
}

/* The answer leaves out the fake root again, so "/sys/..." goes in and comes out.
 * Links are followed inside the tree; where one leads out of it (DIR/dev/ttyUSB0 to
 * the simulator's pty) that link is the answer, as a real device node would be, so
 * a by-id link resolves to "/dev/ttyUSB0", not to "/dev/pts/N". */
char* realpath(const char* path, char* resolved)
{
    LOOKUP(path, NULL);
    const char* root = getenv("KESTREL_SHIM_SYSFS_ROOT");
    char real_root[PATH_MAX];
    if (where == path || !REAL(realpath)(root, real_root))
        return REAL(realpath)(where, resolved);
    char current[PATH_MAX];
    snprintf(current, sizeof current, "%s", where);
    for (int hops = 0; hops < 40; ++hops) {
        char target[PATH_MAX], next[PATH_MAX];
        ssize_t n = REAL(readlink)(current, target, sizeof target - 1);
        if (n < 0)
            break; /* not a link: the ordinary lookup does the rest */
        target[n] = '\0';
        /* The link's own folder, resolved: a relative target counts from there. */
        char* slash = strrchr(current, '/');
        *slash = '\0';
        char folder[PATH_MAX];
        if (!REAL(realpath)(current[0] ? current : "/", folder))
            return NULL;
        int leaves = target[0] == '/' && !redirected(target);
        if (leaves)
            n = snprintf(next, sizeof next, "%s/%s", folder, slash + 1);
        else if (target[0] == '/')
            n = snprintf(next, sizeof next, "%s%s", root, target);
        else
            n = snprintf(next, sizeof next, "%s/%s", folder, target);
        if ((size_t)n >= sizeof next) {
            errno = ENAMETOOLONG;
            return NULL;
        }
        if (leaves) {
            strip_root(next, real_root);
            return give(next, resolved);
        }
        memcpy(current, next, (size_t)n + 1);
    }
    char* result = REAL(realpath)(current, resolved);
    if (result)
        strip_root(result, real_root);
    return result;
}
