// Moves bytes between the pty and the simulated target: checks the host's line speed
// against the target's, models the time bytes take on the line when pacing and the
// bit errors of a line driven too fast, hands the host's modem line changes to the
// target in order with the bytes, and applies speed and mode changes once a reply
// has left.
#pragma once
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "sim/line_noise.h"
#include "sim/modem_channel.h"
#include "sim/pty_device.h"
#include "sim/sim_target.h"
#include "sim/trace_log.h"

namespace ksim {

struct LoopConfig {
    bool pace = false;
    uint32_t sessions = 0;        // exit after this many closes by the host (0: never)
    // Every reply is held this long before it reaches the host, as a USB adapter
    // holds received bytes up to its latency timer.
    int64_t replyLatencyUs = 0;
    LineNoise noise;
};

class SimLoop : private ModemChannel::Handler {
public:
    // `modem` may be null (or closed): then the lines never change.
    SimLoop(PtyDevice& pty, SimTarget& target, TraceLog& trace, const LoopConfig& config,
            ModemChannel* modem = nullptr);

    // Runs until `stopFd` becomes readable, the host has closed the device `sessions`
    // times (when not 0), or the target vanished. Returns the exit status.
    int Run(int stopFd);

private:
    struct PendingRx {
        std::vector<uint8_t> bytes;
        int64_t readyUs = 0;      // when the last of them has arrived on the line
        bool lineChange = false;  // instead of bytes: the host changed its modem lines
        ModemLines lines;
    };
    struct PendingTx {
        Reply reply;
        uint32_t speed;           // line speed the reply goes out at
        int64_t readyUs;          // not handed to the pty before this
        size_t written = 0;
    };

    // True when bytes were read (kept or dropped).
    bool ReadHost(int64_t nowUs);
    void ReleaseReceived(int64_t nowUs);
    void QueueReplies(std::vector<Reply>& replies, int64_t nowUs);
    void ForgetUnsentReplies(int64_t nowUs);
    // Writes what is due; true while the pty cannot take more.
    bool WriteDue(int64_t nowUs);
    bool CountCloses();
    int64_t PollTimeoutUs(int64_t nowUs, bool blocked) const;
    int64_t LineTimeUs(size_t bytes, uint32_t speed) const;
    ModemLines LinesRequested(const ModemLines* requested) override;

    PtyDevice& m_pty;
    SimTarget& m_target;
    TraceLog& m_trace;
    LoopConfig m_config;
    ModemChannel* m_modem;
    uint32_t m_closes = 0;
    std::deque<PendingRx> m_rx;
    std::deque<PendingTx> m_tx;
    int64_t m_rxClockUs = 0;      // when the line from the host is free again
    int64_t m_txClockUs = 0;      // when the line to the host is free again
    ModemLines m_lines;           // as last requested by the host
};

// Microseconds on a monotonic clock.
int64_t MonotonicUs();

}  // namespace ksim
