// The simulated target's frame receiver on arbitrary byte streams, delivered in
// pieces of varying size with data phases announced at arbitrary points: it must
// always make progress and never hold more than it was given.
#include <algorithm>
#include <cstdlib>

#include "sim/frame_receiver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ksim::FrameReceiver receiver;
    int64_t now = 0;
    size_t at = 0;
    size_t given = 0;
    size_t taken = 0;
    while (at < size) {
        // Each round: one control byte, then a piece of the stream.
        const uint8_t control = data[at++];
        const size_t piece = std::min<size_t>(size - at, 1 + (control & 0x3F));
        receiver.Append(data + at, piece, now);
        given += piece;
        at += piece;
        if (control & 0x40)
            receiver.ExpectData(control & 0x80 ? 512 : 5, now);
        ksim::RxItem item;
        while (receiver.Next(item))
            taken += item.bytes.size();
        now += (control & 0x80) ? ksim::FrameReceiver::kQuietUs + 1 : 1000;
        size_t dropped = 0;
        receiver.DropIfQuiet(now, dropped);
        taken += dropped;
    }
    if (taken > given)
        std::abort();  // more bytes came out than went in
    return 0;
}
