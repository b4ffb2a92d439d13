// Injected faults: --fault WHAT:WHEN:KIND[@BAUD], matched against each well-formed
// command the target receives.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace ksim {

enum class FaultKind {
    Error,      // error reply of a given type instead of the command's reply
    NoReply,    // the command is lost: not carried out, nothing sent
    BadSum,     // reply header checksum corrupted
    BadMagic,   // reply starts "MORB"
    Short,      // reply header claims more payload bytes than are sent
    TooLong,    // acknowledgement claiming a payload of 8,191 bytes
    BitFlip,    // one bit of the data written (or read) is flipped, reply normal
    Vanish,     // the target disappears: pty closed, simulator exits
    Raw,        // the bytes given (raw=HEX) instead of the reply, command undone
    Degrade,    // the command goes through; afterwards the line is clean only up to a rate
};

enum class FaultWhen { Nth, NthAndLater, Every };

struct FaultSpec {
    std::string text;          // as given on the command line
    int opcode = -1;           // -1: any command
    FaultWhen when = FaultWhen::Every;
    uint32_t nth = 0;
    FaultKind kind = FaultKind::NoReply;
    uint8_t errorType = 0;
    std::vector<uint8_t> raw;  // for Raw
    uint32_t cleanRateMax = 0; // for Degrade
    uint32_t baud = 0;         // 0: at every line speed
    uint32_t seen = 0;         // matching commands counted so far
};

// True for the kinds that replace the reply and leave the command undone.
bool FaultReplacesReply(FaultKind kind);

class FaultPlan {
public:
    // Parses one SPEC; false with a message in `error` when it is malformed.
    bool Add(const std::string& spec, std::string& error);
    // Counts the command against every spec naming it and returns the first spec (in
    // command-line order) that fires for it, or nullptr. Degrade specs work beside
    // the others and are never returned: see FiredDegrade and TakeDegrade.
    const FaultSpec* Match(uint8_t opcode, uint32_t baud);
    bool Empty() const { return m_specs.empty(); }
    // The degrade spec that fired for the command last matched, or nullptr.
    const FaultSpec* FiredDegrade() const { return m_firedDegrade; }
    // The clean rate limit of the latest degrade that fired since the last call.
    bool TakeDegrade(uint32_t& cleanRateMax);

private:
    std::vector<FaultSpec> m_specs;
    const FaultSpec* m_firedDegrade = nullptr;
    bool m_degradePending = false;
    uint32_t m_degradeTo = 0;
};

}  // namespace ksim
