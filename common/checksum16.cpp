#include "common/checksum16.h"

uint16_t Sum16Words(const unsigned char* buf, long len)
{
    uint32_t sum = 0;
    long i = 0;
    for (; i + 1 < len; i += 2)
        sum += static_cast<uint32_t>(buf[i]) | (static_cast<uint32_t>(buf[i + 1]) << 8);
    if (i < len)
        sum += buf[i];  // odd last byte, as a word whose high byte is 0
    return static_cast<uint16_t>(sum);
}
