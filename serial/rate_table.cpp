// The line rates the port accepts and the terminal speed constants that select them.
#include <termios.h>

#include "serial/CCommU.h"

// A platform without a named constant for 921600 (its speed values are the plain
// bit rates) gets the number itself.
#ifdef B921600
#define KESTREL_B921600 B921600
#else
#define KESTREL_B921600 921600
#endif

// macOS names no rate above 230400; its speed values are the plain bit rates, and
// the terminal port sets the faster ones through IOSSIOSPEED.
#if defined(__APPLE__) && !defined(B1000000)
#define B1000000 1000000
#define B1500000 1500000
#define B2000000 2000000
#define B3000000 3000000
#endif

// The thirteen classic rates end at 921600, the default working rate. The faster
// rates after it are appended only where the platform names them, so that a
// boot-loader configured for such a rate can be followed by the port instead of
// the port falling back to 115200.
const unsigned int name_arr[] = {
    110,    300,    600,    1200,   2400,   4800, 9600, 19200, 38400, 57600,
    115200, 230400, 921600,
#ifdef B1000000
    1000000,
#endif
#ifdef B1500000
    1500000,
#endif
#ifdef B2000000
    2000000,
#endif
#ifdef B3000000
    3000000,
#endif
};

const int speed_arr[] = {
    B110,    B300,    B600,    B1200,   B2400,          B4800, B9600, B19200, B38400, B57600,
    B115200, B230400, KESTREL_B921600,
#ifdef B1000000
    B1000000,
#endif
#ifdef B1500000
    B1500000,
#endif
#ifdef B2000000
    B2000000,
#endif
#ifdef B3000000
    B3000000,
#endif
};

const int kRateTableSize = static_cast<int>(sizeof name_arr / sizeof name_arr[0]);

static_assert(sizeof name_arr / sizeof name_arr[0] == sizeof speed_arr / sizeof speed_arr[0],
              "the two rate tables are searched in parallel");
