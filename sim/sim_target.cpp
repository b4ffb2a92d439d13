#include "sim/sim_target.h"

#include <algorithm>
#include <cstring>

#include "sim/frame_codec.h"
#include "sim/wire_bytes.h"

namespace ksim {

// Out of line: built inline from an initializer list, the default trips a false
// "may be used uninitialized" warning in optimised builds.
std::vector<uint8_t> DefaultFlashId()
{
    return {0xC8, 0x40, 0x16};
}

namespace {

// What running firmware waits for before it hands over to the boot ROM.
const uint8_t kUpgradeText[] = {'u', 'p', 'g', 'r', 'a', 'd', 'e', '\n', 0x00};
const uint8_t kSyncAnswer[] = {0x4F, 0x4B};

}  // namespace

SimTarget::SimTarget(const TargetConfig& config, NorFlash& flash, FaultPlan& faults, TraceLog& trace)
    : m_config(config), m_flash(flash), m_faults(faults), m_trace(trace)
{
    if (m_config.board.Wired())
        m_mode = m_config.board.Pins(m_lines).resetHeld ? TargetMode::Reset : ModeAfterReset();
    else
        m_mode = config.startAsFirmware ? TargetMode::Firmware : TargetMode::BootRom;
    Event(m_mode == TargetMode::Reset      ? "reset held"
          : m_mode == TargetMode::Firmware ? "firmware running"
                                           : "boot rom started");
}

TargetMode SimTarget::ModeAfterReset() const
{
    // Without wired lines the strap cannot be seen: a reboot comes back in the boot
    // ROM, as it always has.
    if (!m_config.board.Wired())
        return TargetMode::BootRom;
    return m_config.board.Pins(m_lines).bootStrapHeld ? TargetMode::BootRom : TargetMode::Firmware;
}

void SimTarget::Restart(TargetMode mode)
{
    m_mode = mode;
    m_speed = kResetBaud;
    m_receiver.Reset();
    m_inDataPhase = false;
    m_upgradeMatched = 0;
}

bool SimTarget::SetModemLines(const ModemLines& lines)
{
    m_lines = lines;
    Event(std::string("modem dtr=") + (lines.dtr ? "1" : "0") + " rts=" + (lines.rts ? "1" : "0"));
    bool held = m_config.board.Pins(lines).resetHeld;
    if (held && m_mode != TargetMode::Reset) {
        Restart(TargetMode::Reset);
        Event("reset held");
        return true;
    }
    if (!held && m_mode == TargetMode::Reset) {
        // The boot strap counts only at the moment reset lets go.
        Restart(ModeAfterReset());
        Event(m_mode == TargetMode::BootRom ? "reset boot-rom" : "reset firmware");
    }
    return false;
}

void SimTarget::Receive(const uint8_t* data, size_t n, int64_t nowUs, std::vector<Reply>& out)
{
    if (m_vanished)
        return;
    if (m_mode == TargetMode::Reset) {
        Event("reset held, ignored " + std::to_string(n) + " bytes");
        return;
    }
    if (m_mode == TargetMode::Firmware)
        ReceiveAsFirmware(data, n);
    if (n == 0)
        return;
    m_receiver.Append(data, n, nowUs);
    RxItem item;
    while (!m_vanished && m_receiver.Next(item))
        HandleItem(item, nowUs, out);
}

void SimTarget::ReceiveAsFirmware(const uint8_t*& data, size_t& n)
{
    // Firmware on a wired board leaves only through the reset pin.
    if (!m_config.startAsFirmware) {
        Event("firmware ignored " + std::to_string(n) + " bytes");
        n = 0;
        return;
    }
    size_t used = 0;
    while (used < n && m_upgradeMatched < sizeof kUpgradeText) {
        uint8_t byte = data[used++];
        if (byte == kUpgradeText[m_upgradeMatched])
            ++m_upgradeMatched;
        else
            m_upgradeMatched = byte == kUpgradeText[0] ? 1 : 0;
    }
    data += used;
    n -= used;
    if (m_upgradeMatched < sizeof kUpgradeText) {
        Event("firmware ignored " + std::to_string(used) + " bytes");
        return;
    }
    m_trace.Bytes("rx", m_speed, kUpgradeText, sizeof kUpgradeText);
    m_mode = TargetMode::BootRom;
    m_upgradeMatched = 0;
    Event("boot rom started");
}

void SimTarget::HandleItem(const RxItem& item, int64_t nowUs, std::vector<Reply>& out)
{
    switch (item.kind) {
    case RxKind::Sync:
        m_trace.Bytes("rx", m_speed, item.bytes.data(), item.bytes.size());
        HandleSync(out);
        break;
    case RxKind::Frame:
        m_trace.Bytes("rx", m_speed, item.bytes.data(), item.bytes.size());
        HandleFrame(item.bytes, nowUs, out);
        break;
    case RxKind::BadLength:
        // The header's length fits no command: refuse it at once instead of waiting for
        // a body that may never come; what follows is scanned for a new frame.
        m_trace.Bytes("rx", m_speed, item.bytes.data(), item.bytes.size());
        Event("frame length fits no command");
        out.push_back(Error(kErrInvalid));
        break;
    case RxKind::Data:
        m_trace.Bytes("rxdata", m_speed, item.bytes.data(), item.bytes.size());
        m_inDataPhase = false;
        HandleData(item.bytes, out);
        break;
    case RxKind::Garbage:
        Event("dropped " + std::to_string(item.bytes.size()) + " bytes: " +
              HexBytes(item.bytes.data(), item.bytes.size()));
        break;
    }
}

void SimTarget::HandleSync(std::vector<Reply>& out)
{
    ++m_syncSeen;
    if (m_syncSeen <= m_config.syncFailCount) {
        Event("sync " + std::to_string(m_syncSeen) + " left unanswered");
        return;
    }
    Reply reply;
    reply.bytes.assign(kSyncAnswer, kSyncAnswer + sizeof kSyncAnswer);
    out.push_back(reply);
}

// Checks a received frame the way a strict target does. Returns 0 when the frame is
// a well-formed command, else the error type to answer with.
uint8_t SimTarget::CheckFrame(const std::vector<uint8_t>& frame, const OpcodeInfo*& op) const
{
    op = FindOpcode(frame[kHeaderSize]);
    // Without the opcode the parameter layout is unknown, so the checksum cannot be
    // checked either: an unknown opcode is reported as such.
    if (!op)
        return kErrUnknownCommand;
    if (frame.size() != kHeaderSize + op->bodyLength)
        return kErrInvalid;
    if (!CommandChecksumOk(frame.data(), *op))
        return kErrChecksum;
    if (frame[4] != kCommandFlags)
        return kErrInvalid;
    return 0;
}

void SimTarget::HandleFrame(const std::vector<uint8_t>& frame, int64_t nowUs, std::vector<Reply>& out)
{
    const OpcodeInfo* op = nullptr;
    uint8_t refusal = CheckFrame(frame, op);
    if (refusal != 0) {
        Event("frame refused with error " + std::to_string(refusal));
        out.push_back(Error(refusal));
        return;
    }
    const FaultSpec* fault = m_faults.Match(op->code, m_speed);
    if (const FaultSpec* degrade = m_faults.FiredDegrade())
        Event("fault " + degrade->text + " on " + op->name);
    if (fault)
        Event("fault " + fault->text + " on " + op->name);
    // A fault that replaces the reply leaves the command undone; for a two-phase
    // command it waits for the reply to the data phase.
    if (fault && FaultReplacesReply(fault->kind) && !op->twoPhase) {
        SendReplacement(*fault, out);
        return;
    }
    bool flip = fault && fault->kind == FaultKind::BitFlip && !op->twoPhase;
    Reply reply = Execute(&frame[kHeaderSize], flip, nowUs);
    if (m_inDataPhase) {
        m_data.fault = fault;
        out.push_back(reply);
        return;
    }
    Finish(fault, reply, out);
}

void SimTarget::HandleData(const std::vector<uint8_t>& received, std::vector<Reply>& out)
{
    const FaultSpec* fault = m_data.fault;
    if (fault && FaultReplacesReply(fault->kind)) {
        SendReplacement(*fault, out);
        return;
    }
    if (DataChecksum(received.data(), received.size()) != m_data.checksum) {
        Event("data checksum error");
        Finish(fault, Error(kErrChecksum), out);
        return;
    }
    std::vector<uint8_t> data = received;
    if (fault && fault->kind == FaultKind::BitFlip)
        FlipOneBit(data.data(), data.size());
    Reply reply = m_data.opcode == kOpWriteSector ? FinishWriteSector(data) : FinishWriteMemoryLen(data);
    Finish(fault, reply, out);
}

// Sends the reply, damaged on the line as the fault asks.
void SimTarget::Finish(const FaultSpec* fault, Reply reply, std::vector<Reply>& out)
{
    if (fault && FaultReplacesReply(fault->kind)) {
        SendReplacement(*fault, out);
        return;
    }
    if (fault)
        DamageOnTheLine(fault->kind, reply.bytes);
    out.push_back(reply);
}

void SimTarget::DamageOnTheLine(FaultKind kind, std::vector<uint8_t>& bytes) const
{
    if (bytes.size() < kHeaderSize)
        return;
    switch (kind) {
    case FaultKind::BadSum:
        StoreBe16(&bytes[6], static_cast<uint16_t>(LoadBe16(&bytes[6]) ^ 0x5AA5));
        break;
    case FaultKind::BadMagic:
        std::memcpy(bytes.data(), "MORB", 4);
        break;
    case FaultKind::Short:
        // The header promises 16 bytes more than follow it.
        StoreBe32(&bytes[8], LoadBe32(&bytes[8]) + 16);
        break;
    case FaultKind::TooLong: {
        // A complete, correctly summed acknowledgement of 8,191 payload bytes: the real
        // payload padded with zeros, all of it sent.
        std::vector<uint8_t> payload(8191, 0);
        size_t keep = std::min(payload.size(), bytes.size() - kHeaderSize);
        std::memcpy(payload.data(), &bytes[kHeaderSize], keep);
        bytes = BuildAck(m_config.responder, payload.data(), payload.size());
        break;
    }
    default:
        break;
    }
}

void SimTarget::SendReplacement(const FaultSpec& fault, std::vector<Reply>& out)
{
    switch (fault.kind) {
    case FaultKind::Error:
        out.push_back(Error(fault.errorType));
        break;
    case FaultKind::Raw: {
        Reply raw;
        raw.bytes = fault.raw;
        out.push_back(raw);
        break;
    }
    case FaultKind::Vanish:
        Event("vanish");
        m_vanished = true;
        break;
    default:
        Event("no reply");
        break;
    }
}

void SimTarget::CheckQuiet(int64_t nowUs)
{
    size_t dropped = 0;
    if (!m_receiver.DropIfQuiet(nowUs, dropped))
        return;
    Event(std::string(m_inDataPhase ? "data phase" : "frame") + " abandoned after " +
          std::to_string(dropped) + " bytes");
    m_inDataPhase = false;
}

void SimTarget::ReplySent(const Reply& reply)
{
    switch (reply.after) {
    case AfterReply::Nothing:
        return;
    case AfterReply::ChangeSpeed:
        m_speed = reply.newSpeed;
        break;
    case AfterReply::StartBootLoader:
        m_mode = TargetMode::BootLoader;
        m_speed = kResetBaud;
        m_receiver.Reset();
        Event("bootloader started");
        break;
    case AfterReply::Reboot:
        Restart(ModeAfterReset());
        Event(m_mode == TargetMode::BootRom ? "reboot, boot rom started" : "reboot, firmware running");
        break;
    }
    Event("baud " + std::to_string(m_speed));
}

Reply SimTarget::Ack(const uint8_t* payload, size_t n) const
{
    Reply reply;
    reply.bytes = BuildAck(m_config.responder, payload, n);
    return reply;
}

Reply SimTarget::Error(uint8_t type) const
{
    Reply reply;
    reply.bytes = BuildError(m_config.responder, type);
    return reply;
}

void FlipOneBit(uint8_t* data, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        if (data[i] != 0) {
            data[i] = static_cast<uint8_t>(data[i] & (data[i] - 1));
            return;
        }
    }
    if (n > 0)
        data[0] = 0x01;
}

}  // namespace ksim
