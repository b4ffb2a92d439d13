// Test-side view of the wire: builds command frames on its own (checked against the
// worked example frames in the tests) and talks to kestrel_sim's pty with raw bytes.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

// A numeric command parameter: `size` bytes (1, 2 or 4), big-endian on the wire.
struct Param { uint32_t value; int size; };

// A command frame: header, opcode, parameters big-endian, then `raw` bytes unchanged.
// The header checksum is the complement of the word sum over the host-order frame.
Bytes CommandFrame(uint8_t opcode, const std::vector<Param>& params, const Bytes& raw = {});
Bytes FromHex(const std::string& text);        // "42 52 4F"
std::string ToHex(const Bytes& bytes);          // "42 52 4F"
uint16_t DataChecksum(const Bytes& data);       // complement of the word sum

struct SimReply {
    bool complete = false;  // a header (and its payload or error byte) arrived
    Bytes header;           // the 12 header bytes
    uint8_t flags = 0;
    uint8_t responder = 0;
    uint32_t length = 0;
    Bytes payload;          // acknowledgement payload
    int errorType = -1;     // the type byte of an error reply
    bool checksumOk = false;
    bool IsAck() const { return complete && flags == 0x06 && checksumOk; }
};

class SimPort {
public:
    explicit SimPort(const std::string& device, uint32_t baud = 115200);
    ~SimPort();
    SimPort(const SimPort&) = delete;
    SimPort& operator=(const SimPort&) = delete;

    void SetSpeed(uint32_t baud);
    void Send(const Bytes& bytes);
    // Up to `count` bytes, waiting at most `timeoutMs` for them all.
    Bytes Read(size_t count, int timeoutMs = 2000);
    // One reply: the header, then the payload or the error byte.
    SimReply ReadReply(int timeoutMs = 2000);
    SimReply Exchange(const Bytes& frame, int timeoutMs = 2000) { Send(frame); return ReadReply(timeoutMs); }
    bool Sync(int timeoutMs = 1000);
    // True when nothing at all arrives within `ms`.
    bool Silent(int ms = 300) { return Read(1, ms).empty(); }

private:
    int m_fd = -1;
};

// Words for building the common commands.
inline Bytes GetFlashIdFrame() { return CommandFrame(0x18, {}); }
inline Bytes ChangeBaudFrame(uint32_t speed) { return CommandFrame(0x10, {{0x03000000u | speed, 4}}); }
inline Bytes EraseFrame(uint32_t address) { return CommandFrame(0x19, {{3, 1}, {address, 4}}); }
inline Bytes ReadSectorFrame(uint32_t sector, uint32_t count) { return CommandFrame(0x1A, {{sector, 4}, {count, 4}}); }
inline Bytes SetPcFrame(uint32_t address) { return CommandFrame(0x13, {{address, 4}}); }
inline Bytes WriteSectorFrame(uint32_t sector, uint32_t count, uint16_t sum)
{
    return CommandFrame(0x1B, {{sector, 4}, {count, 4}, {sum, 2}});
}
inline Bytes WriteMemoryFrame(uint32_t address, uint32_t count, uint16_t sum)
{
    return CommandFrame(0x09, {{address, 4}, {count, 4}, {sum, 2}});
}

// A minimal program image: a plausible vector table (stack 0x0007E000, reset
// 0x00010101) followed by filler, `size` bytes in all.
Bytes BootLoaderImage(size_t size = 5868);

// Sends a two-phase command (WriteSector, WriteMemory) and then `data`; the reply
// to the data phase, or an incomplete reply when the command itself was refused.
SimReply WriteWithData(SimPort& port, const Bytes& command, const Bytes& data, int timeoutMs = 2000);
// One WriteSector command and its data phase; true when both were acknowledged.
bool WriteSectors(SimPort& port, uint32_t sector, const Bytes& data);
Bytes ReadSectors(SimPort& port, uint32_t sector, uint32_t count);
// Uploads `image` to 0x00010000 and sets the PC to `pc`; true when all was acknowledged.
bool UploadAndRun(SimPort& port, const Bytes& image, uint32_t pc);
// Uploads BootLoaderImage and starts it; the port ends at 115200, synchronised.
bool StartBootLoader(SimPort& port);

// Reads a whole text file (the trace), empty when missing.
std::string ReadTextFile(const std::string& path);
// Waits up to 2.5 s for `path` to disappear.
bool WaitUntilGone(const std::string& path);
