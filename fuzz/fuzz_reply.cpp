// Replies and acknowledgements from a target that says anything at all: the flash
// host brings the connection up and runs one command against an in-memory port
// whose incoming bytes are the fuzz input. Every reply must end in success or a
// failure text, never a read or write outside the reply buffer or the caller's
// memory. Once the input is used up the port reports a hang-up, so every wait ends
// at once.
#include <vector>

#include "flashhost/CFlashHost.h"
#include "tests/support/memory_port.h"

namespace {

// Which command follows the bring-up is chosen by the input's first byte.
void RunOneCommand(CFlashHost& host, uint8_t selector)
{
    std::vector<unsigned char> buffer(8 * 512, 0);
    unsigned char value[8] = {};
    const unsigned int count = 1 + (selector >> 4) % 4;
    switch (selector % 8) {
    case 0: host.Read_4_byte(0x10000, value); break;
    case 1: host.Read_8_byte(0x10000, value); break;
    case 2: host.ReadSector(0x80, buffer.data(), count); break;
    case 3: host.WriteSector(0x80, buffer.data(), count); break;
    case 4: host.EraseFlash(0x10000); break;
    case 5: host.ReadMemoryLen(0x10000, buffer.data(), 1 + selector * 7); break;
    case 6: host.ReadFlashLength(0x1234, buffer.data(), 3000); break;
    default: host.WriteFlashLength(0x1234, buffer.data(), 3000); break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    MemoryPort port;
    port.hangUpWhenDrained = true;
    port.maxRead = 1 + data[1] % 64;  // replies arrive in pieces of varying size
    port.Feed(data + 2, size - 2);
    static CFlashHost host;
    host.UsePort(&port);
    host.SetComNum("/dev/fuzz");
    host.SetBaud(921600);
    host.SetUseBrom(0);  // no boot-loader upload: the bring-up is sync, identity, speed
    if (host.OpenUart() == 0)
        RunOneCommand(host, data[0]);
    host.UsePort(nullptr);
    return 0;
}
