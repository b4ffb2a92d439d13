// The simulated target inside the test process: a memory byte port whose far end is
// the simulator's chip model (boot ROM, boot-loader, NOR flash and its fault list).
// Flash host tests run on it without a pty, a thread or a second process. What the
// host sent is read back from the simulator's own trace, so the host's frames are
// judged by the target's parser, never by a third one written for the tests.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/memory_port.h"
#include "sim/sim_target.h"
#include "tests/support/process.h"

struct SimCommand {
    std::string baud;  // the line speed it came at, as the trace writes it
    Bytes frame;  // as it came over the line
    Bytes data;   // its data phase (WriteMemoryLen, WriteSector), if any

    unsigned char Opcode() const { return frame.size() > 12 ? frame[12] : 0xFF; }
    // The big-endian 32-bit parameter `offset` bytes after the opcode.
    uint32_t Param32(size_t offset) const;
};

// The frames (not sync bytes) in a simulator trace, oldest first: a line per frame
// ("rx BAUD HEX") and per data phase ("rxdata BAUD HEX").
std::vector<SimCommand> TraceCommands(const std::string& trace);

class SimLink : public MemoryPort {
public:
    static const uint32_t kFlashSize = 4u << 20;

    explicit SimLink(const ksim::TargetConfig& config = ksim::TargetConfig());

    // Replaces the fault list with simulator fault specs (WHAT:WHEN:KIND[@BAUD]);
    // WHEN counts from now.
    void SetFaults(const std::vector<std::string>& specs);
    // Frames (not sync bytes) received since the last ClearRecord, oldest first.
    std::vector<SimCommand> Commands() const;
    std::vector<SimCommand> CommandsWith(unsigned char opcode) const;
    // Forgets the commands and the bytes written so far.
    void ClearRecord();
    Bytes Flash(uint32_t address, uint32_t length) const;
    // Programs erased flash, as a board that already holds data.
    void Preload(uint32_t address, const Bytes& bytes);
    uint32_t TargetSpeed() const { return m_target.LineSpeed(); }
    // The line hangs up (as an adapter pulled out) when the host sends its `n`th
    // sync byte from now on; 0 never.
    void HangUpAtSync(unsigned int n) { m_hangUpAtSync = n; }

    int Configure(int speed, unsigned int baud) override;
    long Write(const unsigned char* buf, size_t len) override;

private:
    TempDir m_dir;
    ksim::NorFlash m_flash;
    ksim::FaultPlan m_faults;
    ksim::TraceLog m_trace;
    ksim::SimTarget m_target;
    size_t m_traceStart = 0;
    unsigned int m_hangUpAtSync = 0;
};

// A reply of any flags with `payload`, its checksum made as the target makes it.
Bytes MakeReply(unsigned char flags, const Bytes& payload);
Bytes MakeAck(const Bytes& payload = Bytes());
Bytes MakeErrorReply(unsigned char type);
// A fault that answers the `nth` next such command with exactly `reply`.
std::string RawReplyFault(const char* command, const Bytes& reply, int nth = 1);

// "42 52 4F 4D" <-> bytes.
Bytes HexBytes(const std::string& text);
std::string ToHex(const Bytes& bytes);
