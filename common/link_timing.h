// The line rates and the timing of the serial link in one table: poll intervals
// and counts, pauses, deadlines and retry waits of both the classic and the fast
// link. Every wait of a connection (serial port, flash host, upgrade engine) names
// one of these; the console reader's echo pause is not a wait of the link and
// stays with it.
#pragma once
#include <cstdint>

namespace link_timing {

// ---- Line rates ---------------------------------------------------------------
// The boot ROM and the boot-loader start at this rate; every connection opens at it,
// a rate not in the table falls back to it, and Close returns the target to it.
constexpr uint32_t kBootRate = 115200;
// The default working rate, the top of the classic table. The boot-loader goes over at
// no more than this, four sectors go per command exactly here on the classic link
// (and from here up on the fast link), and the last attempt of a write cycle falls
// back from it to kBootRate.
constexpr uint32_t kDefaultWorkingRate = 921600;

// ---- Reply waits (serial port) ------------------------------------------------
// A reply is awaited for at most this many reads, with one poll interval after each.
constexpr int kReplyPolls = 101;
// The poll interval: 5 ms at 921600 bit/s, 20 ms at every other rate. So a reply is
// given up after about 0.5 s at 921600 and about 2 s elsewhere.
constexpr uint32_t kPollRate = kDefaultWorkingRate;
constexpr uint32_t kPollUsAtPollRate = 5000;
constexpr uint32_t kPollUsOtherRates = 20000;
// The fast link keeps that total deadline but wakes the moment bytes arrive.
constexpr uint32_t PollIntervalUs(uint32_t baud)
{
    return baud == kPollRate ? kPollUsAtPollRate : kPollUsOtherRates;
}
constexpr uint32_t ReplyDeadlineUs(uint32_t baud)
{
    return kReplyPolls * PollIntervalUs(baud);
}

// ---- Writes (serial port) -----------------------------------------------------
// A write that the adapter takes in pieces is finished within twice the bytes'
// wire time at the current rate plus this margin; past it, it fails like a write
// that took nothing.
constexpr uint32_t kWriteMarginUs = 1000000;
constexpr uint32_t kBitsPerByteOnWire = 10;  // 8N1: start + 8 data + stop
constexpr uint64_t WireTimeUs(uint64_t bytes, uint32_t baud)
{
    return baud == 0 ? 0 : bytes * kBitsPerByteOnWire * 1000000ull / baud;
}
constexpr uint64_t WriteDeadlineUs(uint64_t bytes, uint32_t baud)
{
    return 2 * WireTimeUs(bytes, baud) + kWriteMarginUs;
}
// A driver that says it has room and then refuses the write again is given this
// pause, so the wait does not turn into a busy loop.
constexpr uint32_t kWriteRefusedAgainPauseUs = 1000;

// ---- Protocol pauses (flash host) ---------------------------------------------
// The specified mode waits this long after a ReadSector command and after a
// WriteSector's data before reading the reply: the target's own time per command.
// The fast link has no fixed pause: it waits for the reply itself.
constexpr uint32_t kSectorCommandPauseUs = 50000;
// Synchronisation: five tries of 0x55, each bounded by the reply wait alone.
constexpr int kSyncAttempts = 5;
// After "upgrade\n" to running firmware, before the port is closed.
constexpr uint32_t kUpgradeTextPauseUs = 50000;

// ---- Retries (upgrade engine) -------------------------------------------------
// A block's write cycle is tried five times, with this pause between attempts.
constexpr int kWriteCycleAttempts = 5;
constexpr uint32_t kWriteCycleRetryPauseUs = 1000000;
// The OTA area's erase retry pause.
constexpr uint32_t kOtaEraseRetryPauseUs = 1000000;

}  // namespace link_timing
