#include "sim/line_speed.h"

namespace ksim {

uint32_t SpeedToBaud(speed_t speed)
{
    static const struct {
        speed_t constant;
        uint32_t baud;
    } kRates[] = {
        {B50, 50}, {B75, 75}, {B110, 110}, {B134, 134}, {B150, 150}, {B200, 200},
        {B300, 300}, {B600, 600}, {B1200, 1200}, {B1800, 1800}, {B2400, 2400},
        {B4800, 4800}, {B9600, 9600}, {B19200, 19200}, {B38400, 38400},
        {B57600, 57600}, {B115200, 115200}, {B230400, 230400},
#ifdef B460800
        {B460800, 460800},
#endif
#ifdef B500000
        {B500000, 500000},
#endif
#ifdef B576000
        {B576000, 576000},
#endif
#ifdef B921600
        {B921600, 921600},
#endif
#ifdef B1000000
        {B1000000, 1000000},
#endif
#ifdef B1152000
        {B1152000, 1152000},
#endif
#ifdef B1500000
        {B1500000, 1500000},
#endif
#ifdef B2000000
        {B2000000, 2000000},
#endif
#ifdef B2500000
        {B2500000, 2500000},
#endif
#ifdef B3000000
        {B3000000, 3000000},
#endif
#ifdef B3500000
        {B3500000, 3500000},
#endif
#ifdef B4000000
        {B4000000, 4000000},
#endif
    };
    for (const auto& rate : kRates)
        if (rate.constant == speed)
            return rate.baud;
#ifdef __APPLE__
    // The speed constants there are the rates themselves.
    return static_cast<uint32_t>(speed);
#else
    return 0;
#endif
}

}  // namespace ksim
