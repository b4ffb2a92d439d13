// The simulated chip: running firmware, boot ROM and uploaded boot-loader, as they
// answer the bytes the host sends. It knows nothing of the pty or of time beyond the
// clock readings it is handed; SimLoop moves the bytes.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "sim/board_wiring.h"
#include "sim/fault_plan.h"
#include "sim/frame_receiver.h"
#include "sim/memory_model.h"
#include "sim/nor_flash.h"
#include "sim/opcodes.h"
#include "sim/trace_log.h"

namespace ksim {

constexpr uint32_t kResetBaud = 115200;

// Reset: the reset input is held, the chip does nothing until it is released.
enum class TargetMode { Firmware, BootRom, BootLoader, Reset };

// What happens once a reply has left the target completely.
enum class AfterReply { Nothing, ChangeSpeed, StartBootLoader, Reboot };

struct Reply {
    std::vector<uint8_t> bytes;
    int64_t busyUs = 0;           // the target works this long before the first byte leaves
    AfterReply after = AfterReply::Nothing;
    uint32_t newSpeed = 0;        // for ChangeSpeed
};

// The GetFlashId payload a target answers with unless told otherwise: C8 40 16.
std::vector<uint8_t> DefaultFlashId();

struct TargetConfig {
    uint8_t responder = 1;
    std::vector<uint8_t> flashId = DefaultFlashId();
    bool romServesFlash = false;
    // Power up as firmware that hands over to the boot ROM on "upgrade\n\0".
    bool startAsFirmware = false;
    // With lines wired the chip powers up as firmware whatever startAsFirmware says
    // (which then only decides whether the firmware heeds the upgrade text), and the
    // boot ROM runs after a reset released while the boot strap is held.
    BoardWiring board;
    uint32_t syncFailCount = 0;   // leading sync bytes left unanswered
    int64_t eraseUs = 0;          // time one block erase takes (0 when not pacing)
    int64_t programUs = 0;        // time programming one sector takes (0 when not pacing)
};

class SimTarget {
public:
    SimTarget(const TargetConfig& config, NorFlash& flash, FaultPlan& faults, TraceLog& trace);

    // Bytes that reached the target at `nowUs` (already checked for the right speed).
    // Replies to send are appended to `out`, in order.
    void Receive(const uint8_t* data, size_t n, int64_t nowUs, std::vector<Reply>& out);
    // Drops a half-received frame or data phase after the quiet time.
    void CheckQuiet(int64_t nowUs);
    int64_t QuietDeadlineUs() const { return m_receiver.QuietDeadlineUs(); }
    // Called once the last byte of `reply` has been handed to the line.
    void ReplySent(const Reply& reply);
    // The host changed its modem lines. True when this put the chip into reset.
    bool SetModemLines(const ModemLines& lines);
    // A degrade fault fired since the last call: the line's new clean rate limit.
    bool TakeCleanRateChange(uint32_t& rate) { return m_faults.TakeDegrade(rate); }

    uint32_t LineSpeed() const { return m_speed; }
    TargetMode Mode() const { return m_mode; }
    bool Vanished() const { return m_vanished; }

private:
    struct DataPhase {
        uint8_t opcode = 0;
        uint32_t address = 0;       // SRAM address or flash byte address
        uint32_t count = 0;         // data bytes expected
        uint16_t checksum = 0;
        const FaultSpec* fault = nullptr;
    };
    struct Upload {
        bool valid = false;
        uint32_t address = 0;
        uint32_t count = 0;
    };

    void ReceiveAsFirmware(const uint8_t*& data, size_t& n);
    // The chip starts afresh: boot ROM or firmware, at reset speed, nothing half received.
    void Restart(TargetMode mode);
    // What runs once reset is released (or at power-up, or after SysReboot).
    TargetMode ModeAfterReset() const;
    void HandleItem(const RxItem& item, int64_t nowUs, std::vector<Reply>& out);
    void HandleSync(std::vector<Reply>& out);
    void HandleFrame(const std::vector<uint8_t>& frame, int64_t nowUs, std::vector<Reply>& out);
    uint8_t CheckFrame(const std::vector<uint8_t>& frame, const OpcodeInfo*& op) const;
    void HandleData(const std::vector<uint8_t>& data, std::vector<Reply>& out);
    void Finish(const FaultSpec* fault, Reply reply, std::vector<Reply>& out);
    void SendReplacement(const FaultSpec& fault, std::vector<Reply>& out);
    void DamageOnTheLine(FaultKind kind, std::vector<uint8_t>& bytes) const;

    // Command executors (sim_commands.cpp). `body` is the command body as received:
    // opcode, then big-endian parameters. `flipBit` asks for the bit-flip fault.
    Reply Execute(const uint8_t* body, bool flipBit, int64_t nowUs);
    Reply ReadValue(const uint8_t* body, size_t size, bool flipBit);
    Reply WriteValue(const uint8_t* body, size_t size, bool flipBit);
    Reply ReadMemoryLen(const uint8_t* body, bool flipBit);
    Reply StartWriteMemoryLen(const uint8_t* body, int64_t nowUs);
    Reply ChangeBaud(const uint8_t* body);
    Reply SetJtag(const uint8_t* body);
    Reply SysReboot();
    Reply SetPC(const uint8_t* body);
    Reply GetFlashId(bool flipBit);
    Reply EraseFlash(const uint8_t* body);
    Reply ReadSector(const uint8_t* body, bool flipBit);
    Reply StartWriteSector(const uint8_t* body, int64_t nowUs);
    Reply FinishWriteMemoryLen(std::vector<uint8_t>& data);
    Reply FinishWriteSector(std::vector<uint8_t>& data);
    bool LooksLikeBootLoader(uint32_t pc) const;

    Reply Ack(const uint8_t* payload = nullptr, size_t n = 0) const;
    Reply Error(uint8_t type) const;
    void Event(const std::string& text) { m_trace.Event(text); }

    TargetConfig m_config;
    NorFlash& m_flash;
    FaultPlan& m_faults;
    TraceLog& m_trace;
    MemoryModel m_memory;
    FrameReceiver m_receiver;

    TargetMode m_mode = TargetMode::BootRom;
    uint32_t m_speed = kResetBaud;
    size_t m_upgradeMatched = 0;   // bytes of "upgrade\n\0" seen so far by the firmware
    uint32_t m_syncSeen = 0;
    bool m_inDataPhase = false;
    DataPhase m_data;
    Upload m_upload;
    bool m_vanished = false;
    ModemLines m_lines;
};

// Flips one bit so that the change survives an AND into erased cells: the lowest set
// bit of the first non-zero byte is cleared; all-zero data gets bit 0 of byte 0 set.
void FlipOneBit(uint8_t* data, size_t n);

}  // namespace ksim
