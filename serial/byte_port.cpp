#include "serial/byte_port.h"

#include <chrono>
#include <unistd.h>

uint64_t BytePort::NowUs()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count());
}

void BytePort::Pause(unsigned int us)
{
    usleep(us);
}
