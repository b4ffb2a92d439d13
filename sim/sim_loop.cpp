#include "sim/sim_loop.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <string>
#include <poll.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

namespace ksim {

namespace {
// One byte on the line: start bit, 8 data bits, stop bit.
constexpr int64_t kBitsPerByte = 10;
// Waits up to waitUs microseconds (-1: without limit). Linux offers microsecond
// timers (ppoll); elsewhere the wait is rounded up to whole milliseconds.
int WaitForEvents(pollfd* fds, nfds_t count, int64_t waitUs)
{
#ifdef __linux__
    timespec timeout = {static_cast<time_t>(waitUs / 1000000), static_cast<long>(waitUs % 1000000) * 1000};
    return ppoll(fds, count, waitUs < 0 ? nullptr : &timeout, nullptr);
#else
    return poll(fds, count, waitUs < 0 ? -1 : static_cast<int>((waitUs + 999) / 1000));
#endif
}

}  // namespace

int64_t MonotonicUs()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

SimLoop::SimLoop(PtyDevice& pty, SimTarget& target, TraceLog& trace, const LoopConfig& config,
                 ModemChannel* modem)
    : m_pty(pty), m_target(target), m_trace(trace), m_config(config), m_modem(modem)
{
}

int SimLoop::Run(int stopFd)
{
#ifdef __linux__
    // The kernel may end a timed wait up to 50 us late by default, to batch wake-ups.
    // A paced command waits two or three times, so on a fast line that slack alone
    // would add a tenth of a second per thousand commands that the modelled chip
    // and adapter do not have.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
#endif
    bool blocked = false;
    std::vector<pollfd> fds;
    for (;;) {
        int64_t now = MonotonicUs();
        fds.assign({
            {m_pty.MasterFd(), static_cast<short>(POLLIN | (blocked ? POLLOUT : 0)), 0},
            {stopFd, POLLIN, 0},
            {m_pty.CloseWatchFd(), POLLIN, 0},
        });
        const size_t kModemFds = fds.size();
        if (m_modem)
            m_modem->AddPollFds(fds);
        // Microsecond timers: the line model's byte, latency and flash times are far
        // shorter than a millisecond per step, and rounding every wait up to a whole
        // millisecond would slow the paced line by that much per command.
        int ready = WaitForEvents(fds.data(), fds.size(), PollTimeoutUs(now, blocked));
        if (ready < 0 && errno != EINTR)
            return 1;
        if (fds[1].revents & POLLIN)
            return 0;
        now = MonotonicUs();
        if ((fds[2].revents & POLLIN) && CountCloses())
            return 0;
        if (fds[0].revents & POLLIN)
            ReadHost(now);
        if (m_modem)
            m_modem->Service(fds.data() + kModemFds, fds.size() - kModemFds, *this);
        ReleaseReceived(now);
        // Bytes still travelling on a paced line keep it from being quiet.
        if (m_rx.empty())
            m_target.CheckQuiet(now);
        if (m_target.Vanished())
            return 0;
        blocked = WriteDue(now);
    }
}

bool SimLoop::ReadHost(int64_t nowUs)
{
    uint8_t buffer[4096];
    ssize_t n = read(m_pty.MasterFd(), buffer, sizeof buffer);
    if (n <= 0)
        return false;
    uint32_t hostSpeed = m_pty.HostSpeed();
    uint32_t targetSpeed = m_target.LineSpeed();
    if (hostSpeed != targetSpeed) {
        // A UART at another speed sees only framing errors: the bytes are lost.
        m_trace.Ignored(hostSpeed, targetSpeed, static_cast<size_t>(n));
        return true;
    }
    size_t count = static_cast<size_t>(n);
    size_t flipped = m_config.noise.Garble(LineNoise::Direction::FromHost, targetSpeed, buffer, count);
    if (flipped > 0)
        m_trace.Event("noise rx " + std::to_string(flipped) + " bits flipped");
    int64_t ready = nowUs;
    if (m_config.pace) {
        ready = std::max(nowUs, m_rxClockUs) + LineTimeUs(count, targetSpeed);
        m_rxClockUs = ready;
    }
    PendingRx received;
    received.bytes.assign(buffer, buffer + count);
    received.readyUs = ready;
    m_rx.push_back(std::move(received));
    return true;
}

ModemLines SimLoop::LinesRequested(const ModemLines* requested)
{
    if (!requested)
        return m_lines;
    // The host is waiting in its ioctl, so everything in the pty now was written
    // before the change: take it first, and queue the change behind it. (Reading the
    // pty master until it is empty also waits out the kernel's deferred delivery.)
    int64_t now = MonotonicUs();
    while (ReadHost(now)) {
    }
    PendingRx change;
    change.readyUs = m_config.pace ? std::max(now, m_rxClockUs) : now;
    change.lineChange = true;
    change.lines = *requested;
    m_rx.push_back(change);
    m_lines = *requested;
    return m_lines;
}

void SimLoop::ReleaseReceived(int64_t nowUs)
{
    while (!m_rx.empty() && m_rx.front().readyUs <= nowUs && !m_target.Vanished()) {
        PendingRx front = std::move(m_rx.front());
        m_rx.pop_front();
        if (front.lineChange) {
            if (m_target.SetModemLines(front.lines))
                ForgetUnsentReplies(nowUs);
            continue;
        }
        // The chip has the bytes when their last stop bit is through, not when this
        // loop happens to wake: timing the reply from the wake-up would add the
        // simulator's own scheduling delay to every command.
        const int64_t arrivedUs = front.readyUs;
        std::vector<Reply> replies;
        m_target.Receive(front.bytes.data(), front.bytes.size(), arrivedUs, replies);
        QueueReplies(replies, arrivedUs);
        uint32_t cleanRateMax = 0;
        if (m_target.TakeCleanRateChange(cleanRateMax)) {
            m_config.noise.SetCleanRateMax(cleanRateMax);
            m_trace.Event("clean rate max " + std::to_string(cleanRateMax));
        }
    }
}

// The chip went into reset. Replies it had not finished sending are lost; those
// already through the line reach the host, but what they would have set off (a new
// speed, the boot-loader) no longer happens: the chip has started over.
void SimLoop::ForgetUnsentReplies(int64_t nowUs)
{
    size_t lost = 0;
    for (auto it = m_tx.begin(); it != m_tx.end();) {
        it->reply.after = AfterReply::Nothing;
        if (m_config.pace && it->readyUs - m_config.replyLatencyUs > nowUs) {
            it = m_tx.erase(it);
            ++lost;
        } else {
            ++it;
        }
    }
    if (lost > 0)
        m_trace.Event("reset lost " + std::to_string(lost) + " replies");
}

void SimLoop::QueueReplies(std::vector<Reply>& replies, int64_t nowUs)
{
    for (Reply& reply : replies) {
        uint32_t speed = m_target.LineSpeed();
        size_t flipped = m_config.noise.Garble(LineNoise::Direction::ToHost, speed, reply.bytes.data(),
                                               reply.bytes.size());
        if (flipped > 0)
            m_trace.Event("noise tx " + std::to_string(flipped) + " bits flipped");
        int64_t ready = nowUs;
        if (m_config.pace) {
            int64_t start = std::max(nowUs + reply.busyUs, m_txClockUs);
            ready = start + LineTimeUs(reply.bytes.size(), speed);
            m_txClockUs = ready;
        }
        // The adapter passes the reply on only when its latency timer runs out; the
        // line itself is free again as soon as the bytes are through.
        m_tx.push_back(PendingTx{std::move(reply), speed, ready + m_config.replyLatencyUs});
    }
}

bool SimLoop::WriteDue(int64_t nowUs)
{
    while (!m_tx.empty() && m_tx.front().readyUs <= nowUs) {
        PendingTx& front = m_tx.front();
        const std::vector<uint8_t>& bytes = front.reply.bytes;
        if (front.written < bytes.size()) {
            ssize_t n = write(m_pty.MasterFd(), bytes.data() + front.written, bytes.size() - front.written);
            if (n < 0 && (errno == EAGAIN || errno == EINTR))
                return true;
            if (n < 0)
                front.written = bytes.size();   // the line is gone; the bytes with it
            else
                front.written += static_cast<size_t>(n);
            if (front.written < bytes.size())
                return true;
        }
        m_trace.Bytes("tx", front.speed, bytes.data(), bytes.size());
        m_target.ReplySent(front.reply);
        m_tx.pop_front();
    }
    return false;
}

bool SimLoop::CountCloses()
{
    int closes = m_pty.TakeHostCloses();
    if (closes == 0)
        return false;
    m_closes += static_cast<uint32_t>(closes);
    m_trace.Event("host closed the device (" + std::to_string(m_closes) + ")");
    return m_config.sessions != 0 && m_closes >= m_config.sessions;
}

int64_t SimLoop::PollTimeoutUs(int64_t nowUs, bool blocked) const
{
    int64_t next = -1;
    auto consider = [&next](int64_t at) {
        if (at >= 0 && (next < 0 || at < next))
            next = at;
    };
    if (!m_rx.empty())
        consider(m_rx.front().readyUs);
    if (!m_tx.empty() && !blocked)
        consider(m_tx.front().readyUs);
    if (m_rx.empty())
        consider(m_target.QuietDeadlineUs());
    if (next < 0)
        return -1;
    return std::min<int64_t>(std::max<int64_t>(next - nowUs, 0), 60 * 1000000);
}

int64_t SimLoop::LineTimeUs(size_t bytes, uint32_t speed) const
{
    if (speed == 0)
        return 0;
    return static_cast<int64_t>(bytes) * kBitsPerByte * 1000000 / speed;
}

}  // namespace ksim
