// A small scripted target on a pseudo-terminal, answering the flash host from a
// thread of its own. It checks every frame's checksums itself (with its own
// knowledge of each opcode's parameters), records what it received, serves a flash
// image kept in memory, and can be told to answer one command with bytes of the
// test's choosing, or to hang up.
#pragma once
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/serial_fixtures.h"

typedef std::vector<unsigned char> Bytes;

struct ReceivedCommand {
    Bytes frame;     // the frame as it came over the line
    Bytes data;      // its data phase (WriteMemoryLen, WriteSector), if any
    bool answered;   // false when a scripted reply replaced the normal one

    unsigned char Opcode() const { return frame.size() > 12 ? frame[12] : 0xFF; }
    // A big-endian 32-bit parameter at `offset` bytes after the opcode.
    uint32_t Param32(size_t offset) const;
};

// A reply header with its payload; the checksum is made as the target makes it.
Bytes MakeReply(unsigned char flags, const Bytes& payload, unsigned char responder = 0);
Bytes MakeAck(const Bytes& payload = Bytes());
Bytes MakeErrorReply(unsigned char type);

class FakeTarget {
public:
    static const uint32_t kFlashSize = 2 * 1024 * 1024;

    FakeTarget();
    ~FakeTarget();
    FakeTarget(const FakeTarget&) = delete;
    FakeTarget& operator=(const FakeTarget&) = delete;

    bool Ok() const { return m_pty.Ok(); }
    const std::string& DevicePath() const { return m_pty.SlavePath(); }

    // Scripting; call before the host sends the command concerned.
    void SetResponderCode(unsigned char code) { Locked([&] { m_responder = code; }); }
    void SetFlashIdPayload(const Bytes& payload) { Locked([&] { m_flashId = payload; }); }
    // The `nth` next command with this opcode (1 = the very next) is answered with
    // `reply` (empty: no answer at all). Phase 1 is the data phase of a two-phase
    // command.
    void ScriptReply(unsigned char opcode, const Bytes& reply, int nth = 1, int phase = 0)
    {
        Locked([&] { m_scripts.push_back({opcode, phase, nth - 1, reply}); });
    }
    // Hangs up the line when the `nth` such command (or, with opcode 0x55, sync
    // byte) from now on arrives.
    void HangUpOn(unsigned char opcode, int nth = 1)
    {
        Locked([&] { m_hangUpOpcode = opcode, m_hangUpSkip = nth - 1; });
    }

    std::vector<ReceivedCommand> Commands() { return Locked([&] { return m_commands; }); }
    std::vector<ReceivedCommand> CommandsWith(unsigned char opcode);
    Bytes RawBytes() { return Locked([&] { return m_raw; }); }  // everything received, in order
    void ClearRecord() { Locked([&] { m_commands.clear(), m_raw.clear(); }); }
    Bytes Flash(uint32_t address, uint32_t length)
    {
        return Locked([&] { return Bytes(&m_flash[address], &m_flash[address] + length); });
    }
    // Waits until at least `count` raw bytes have been received.
    bool WaitForRawBytes(size_t count, int timeoutMs = 2000);

private:
    struct Script {
        unsigned char opcode;
        int phase;
        int skip;
        Bytes reply;
    };

    template <class F>
    auto Locked(F f) -> decltype(f())
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return f();
    }
    void Run();
    bool Step();  // handles one complete item from m_pending; false when more is needed
    void HandleSync();
    void HandleFrame(const Bytes& frame);
    void HandleData(const Bytes& data);
    bool TakeScript(unsigned char opcode, int phase, Bytes* reply);
    Bytes NormalReply(const ReceivedCommand& command);
    void HangUp();
    bool HangUpDue(unsigned char opcode);

    PtyPair m_pty;
    std::mutex m_mutex;  // guards everything below that the test thread also touches
    std::vector<ReceivedCommand> m_commands;
    std::vector<Script> m_scripts;
    Bytes m_raw;
    int m_hangUpOpcode = -1;
    int m_hangUpSkip = 0;
    unsigned char m_responder = 1;
    Bytes m_flashId = {0xC8, 0x40, 0x16};
    Bytes m_flash;

    Bytes m_pending;            // received, not yet handled (responder thread only)
    size_t m_dataExpected = 0;  // bytes of a data phase still to come
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_hungUp{false};
    std::thread m_thread;
};
