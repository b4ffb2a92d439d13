// Rate negotiation on the fast link: the working rate is found, not guessed. Once
// the boot-loader (or the boot ROM serving the flash) answers at the boot rate, the
// first flash sector is read there as the reference; then each rate the port takes,
// from the configured one down to the default working rate, is tried: the target
// and the port move to it, synchronise, and read 4 KiB from the same address. The
// first rate at which every reply passes its checksum and the sector comes back
// equal is kept. A rate that fails is left by
// moving back to the boot rate, which the line is known to carry.
#include <cstdio>
#include <cstring>

#include "common/link_timing.h"
#include "common/run_report.h"
#include "flashhost/CFlashHost.h"

namespace {

// The proof at a candidate rate reads this much: a line dropping one bit in a
// thousand fails it for certain (32,768 bits), through the replies' checksums or
// the comparison.
const unsigned int kProofBytes = 4096;
// The reference read at the boot rate is its first sector only: the whole proof
// read there would cost a third of a second on every run.
const unsigned int kReferenceBytes = 512;
const unsigned int kChangeBaudMode = 0x03000000;  // top byte of the ChangeBaud word
// A move that fails is tried again from where each side may now be.
const int kMoveAttempts = 3;

const char kTextLinkVerified[] = "link: %u bit/s, verified\n";
const char kTextLinkUnverified[] =
    "link: the flash cannot be read at %u bit/s to prove a faster rate; using %u bit/s unverified\n";
const char kTextLinkNoRate[] = "link: no rate from %u bit/s down to %u bit/s carried the data; staying at %u bit/s\n";
const char kTextLinkSteppedDown[] = "link: errors at %u bit/s, stepped down to %u bit/s\n";
const char kTextLinkLost[] = "Synchron error!";

}  // namespace

int CFlashHost::GoToWorkingRate()
{
    if (!m_link.autoBaud)
        return ChangeUartBaudOrClose();
    return NegotiateRate();
}

// The table's rates at or below the ceiling, at or above the default working rate,
// within the adapter's known limit, and taken by the port; highest first.
void CFlashHost::BuildRateLadder(unsigned int ceiling)
{
    m_ladderCount = 0;
    m_ladderPos = 0;
    for (int i = kRateTableSize - 1; i >= 0 && m_ladderCount < kMaxLadder; --i) {
        const unsigned int rate = name_arr[i];
        if (rate > ceiling || rate < link_timing::kDefaultWorkingRate)
            continue;
        if (m_link.rateCeiling != 0 && rate > m_link.rateCeiling)
            continue;
        if (m_comm.ProbeRate(rate) == 0)
            m_rateLadder[m_ladderCount++] = rate;
    }
}

// Target first (its acknowledgement comes at the old rate), then the port, then a
// handshake at the new rate. Setting the port's rate discards what it had received,
// so the handshake follows at once, as on the direct change; a stray byte makes it
// fail. When the handshake fails the target may have moved or not: the port goes
// back and waits for the line to fall quiet, and the next try sends the change
// again and syncs at the new rate, which covers both.
int CFlashHost::MoveRate(unsigned int from, unsigned int to)
{
    for (int attempt = 0; attempt < kMoveAttempts; ++attempt) {
        m_iBaud = to;
        ChangeBaud(kChangeBaudMode | (to & 0x00FFFFFFu));
        if (SetPortRate(to, "speed change") == 0 && Synchron() == 0)
            return 0;
        SetPortRate(from, "speed change");
        m_comm.DrainInput();
    }
    m_iBaud = from;
    return -1;
}

int CFlashHost::ProveRate(const unsigned char* reference, unsigned char* scratch)
{
    if (ReadFlashLength(0, scratch, kProofBytes) != 0)
        return -1;
    return memcmp(reference, scratch, kReferenceBytes) == 0 ? 0 : -1;
}

int CFlashHost::NegotiateRate()
{
    const unsigned int ceiling = m_iBaud;
    const unsigned int trusted = m_comm.iBaudRate;
    BuildRateLadder(ceiling);
    if (m_ladderCount == 0)
        return ChangeUartBaudOrClose();  // nothing to choose from: the rate as given

    unsigned char reference[kReferenceBytes];
    unsigned char scratch[kProofBytes];
    m_iBaud = trusted;
    if (ReadFlashLength(0, reference, kReferenceBytes) != 0) {
        std::fprintf(stderr, kTextLinkUnverified, trusted, ceiling);
        m_ladderCount = 0;
        m_iBaud = ceiling;
        return ChangeUartBaudOrClose();
    }
    for (unsigned int i = 0; i < m_ladderCount; ++i) {
        const unsigned int rate = m_rateLadder[i];
        if (MoveRate(trusted, rate) == 0 && ProveRate(reference, scratch) == 0) {
            m_ladderPos = i;
            std::fprintf(stderr, kTextLinkVerified, rate);
            WriteLogBuf("Link rate verified: " + std::to_string(rate), nullptr, 0);
            run_report::Link(rate);
            return 0;
        }
        WriteLogBuf("Link rate failed: " + std::to_string(rate), nullptr, 0);
        if (MoveRate(m_comm.iBaudRate, trusted) != 0) {
            m_ladderCount = 0;
            return CloseWith(kTextLinkLost);
        }
    }
    std::fprintf(stderr, kTextLinkNoRate, m_rateLadder[0], m_rateLadder[m_ladderCount - 1], trusted);
    m_ladderCount = 0;
    m_iBaud = trusted;
    run_report::Link(trusted);
    return 0;
}

int CFlashHost::StepRateDown()
{
    if (m_ladderCount == 0 || m_ladderPos + 1 >= m_ladderCount)
        return -1;
    const unsigned int from = m_rateLadder[m_ladderPos];
    const unsigned int to = m_rateLadder[m_ladderPos + 1];
    m_comm.DrainInput();
    if (MoveRate(from, to) != 0)
        return -1;
    ++m_ladderPos;
    std::fprintf(stderr, kTextLinkSteppedDown, from, to);
    WriteLogBuf("Link rate stepped down: " + std::to_string(to), nullptr, 0);
    run_report::Link(to);
    return 0;
}
