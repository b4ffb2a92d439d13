// The simulated chip as a host sees it, driven in this process with a clock of the
// test's own: the worked example frames, synchronisation, how a strict target
// refuses frames that are not quite right, the NOR flash model, the chip's states
// (speeds, the boot-loader start, reboot, running firmware) and injected faults.
// Frames come from the test's own small encoder, pinned to the worked examples.
#include <gtest/gtest.h>

#include <algorithm>

#include "sim/sim_target.h"
#include "tests/support/process.h"
#include "tests/support/sim_link.h"

namespace {

struct Param { uint32_t value; int size; };

uint16_t WordSum(const Bytes& bytes)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2)
        sum += bytes[i] | (i + 1 < bytes.size() ? bytes[i + 1] << 8 : 0);
    return static_cast<uint16_t>(sum);
}

uint16_t DataSum(const Bytes& data) { return static_cast<uint16_t>(~WordSum(data)); }

// "BROM", flags 04, responder 0, checksum, length, opcode, the parameters, then
// `raw`. On the wire numbers are big-endian; the checksum is the complement of the
// word sum over the frame as the host holds it: checksum zero, numbers little-endian.
Bytes Frame(uint8_t opcode, const std::vector<Param>& params = {}, const Bytes& raw = {})
{
    Bytes wire = {'B', 'R', 'O', 'M', 4, 0, 0, 0, 0, 0, 0, 0, opcode};
    Bytes host = wire;
    auto put = [](Bytes& big, Bytes& little, uint32_t value, int size) {
        for (int i = 0; i < size; ++i) {
            big.push_back(static_cast<uint8_t>(value >> (8 * (size - 1 - i))));
            little.push_back(static_cast<uint8_t>(value >> (8 * i)));
        }
    };
    for (const Param& p : params)
        put(wire, host, p.value, p.size);
    wire.insert(wire.end(), raw.begin(), raw.end());
    host.insert(host.end(), raw.begin(), raw.end());
    Bytes bigLength, littleLength;
    put(bigLength, littleLength, static_cast<uint32_t>(wire.size() - 12), 4);
    std::copy(bigLength.begin(), bigLength.end(), wire.begin() + 8);
    std::copy(littleLength.begin(), littleLength.end(), host.begin() + 8);
    const uint16_t sum = DataSum(host);
    wire[6] = static_cast<uint8_t>(sum >> 8);
    wire[7] = static_cast<uint8_t>(sum);
    return wire;
}

Bytes GetFlashId() { return Frame(0x18); }
Bytes ChangeBaud(uint32_t speed) { return Frame(0x10, {{0x03000000u | speed, 4}}); }
Bytes Erase(uint32_t address) { return Frame(0x19, {{3, 1}, {address, 4}}); }
Bytes ReadSector(uint32_t sector, uint32_t count) { return Frame(0x1A, {{sector, 4}, {count, 4}}); }
Bytes WriteSector(uint32_t sector, uint32_t count, uint16_t sum)
{
    return Frame(0x1B, {{sector, 4}, {count, 4}, {sum, 2}});
}
Bytes WriteMemory(uint32_t address, uint32_t count, uint16_t sum)
{
    return Frame(0x09, {{address, 4}, {count, 4}, {sum, 2}});
}

// What came back; reply checksums are pinned by the worked examples and judged by
// the flash host's own tests.
struct Answer {
    Bytes bytes;
    bool Ack() const { return bytes.size() >= 12 && bytes[4] == 0x06; }
    int ErrorType() const { return bytes.size() == 13 && (bytes[4] & 1) ? bytes[12] : -1; }
    Bytes Payload() const { return bytes.size() > 12 ? Bytes(bytes.begin() + 12, bytes.end()) : Bytes(); }
};

// The chip with its flash, faults and trace; time moves only when the test says.
class Chip {
public:
    explicit Chip(ksim::TargetConfig config = ksim::TargetConfig(),
                  const std::vector<std::string>& faults = {}, uint32_t flashSize = 4u << 20)
        : m_target(config, m_flash, m_faults, m_trace)
    {
        std::string error;
        EXPECT_TRUE(m_flash.Open("", flashSize, error)) << error;
        for (const std::string& f : faults)
            EXPECT_TRUE(m_faults.Add(f, error)) << error;
    }

    Answer Send(const Bytes& bytes)
    {
        std::vector<ksim::Reply> replies;
        m_target.Receive(bytes.data(), bytes.size(), m_nowUs, replies);
        Answer answer;
        for (const ksim::Reply& r : replies) {
            answer.bytes.insert(answer.bytes.end(), r.bytes.begin(), r.bytes.end());
            m_target.ReplySent(r);
        }
        return answer;
    }
    bool Sync() { return Send({0x55}).bytes == Bytes{'O', 'K'}; }
    // The command, then its data phase when the command was acknowledged.
    Answer Write(const Bytes& command, const Bytes& data)
    {
        Answer first = Send(command);
        return first.Ack() ? Send(data) : first;
    }
    bool WriteSectors(uint32_t sector, const Bytes& data)
    {
        return Write(WriteSector(sector, static_cast<uint32_t>(data.size() / 512), DataSum(data)), data).Ack();
    }
    Bytes ReadSectors(uint32_t sector, uint32_t count) { return Send(ReadSector(sector, count)).Payload(); }
    void Pass(int64_t ms)
    {
        m_nowUs += ms * 1000;
        m_target.CheckQuiet(m_nowUs);
    }
    ksim::SimTarget& Target() { return m_target; }

private:
    ksim::NorFlash m_flash;
    ksim::FaultPlan m_faults;
    ksim::TraceLog m_trace;
    ksim::SimTarget m_target;
    int64_t m_nowUs = 1000000;
};

ksim::TargetConfig RomFlash(uint8_t responder = 1)
{
    ksim::TargetConfig config;
    config.responder = responder;
    config.romServesFlash = true;
    return config;
}

// A plausible program: stack 0x0007E000, reset 0x00010101, then filler.
Bytes BootLoaderImage(uint32_t stack = 0x0007E000, uint32_t reset = 0x00010101)
{
    Bytes image = PatternBytes(1024, 3);
    for (int i = 0; i < 4; ++i) {
        image[i] = static_cast<uint8_t>(stack >> (8 * i));
        image[4 + i] = static_cast<uint8_t>(reset >> (8 * i));
    }
    return image;
}

// The flash host's tests send these frames to the target; here they pin the
// test's own encoder. A reply carries the target's responder number.
TEST(SimFrames, EncoderGivesTheWorkedExamplesAndRepliesCarryTheResponder)
{
    const std::pair<const char*, Bytes> examples[] = {
        {"42 52 4F 4D 04 00 60 51 00 00 00 01 18", GetFlashId()},
        {"42 52 4F 4D 04 00 52 42 00 00 00 05 10 03 0E 10 00", ChangeBaud(921600)},
        {"42 52 4F 4D 04 00 5E 51 00 00 00 05 13 00 01 01 01", Frame(0x13, {{0x00010101, 4}})},
        {"42 52 4F 4D 04 00 5D 4A 00 00 00 06 19 03 00 01 00 00", Erase(0x10000)},
        {"42 52 4F 4D 04 00 DC 47 00 00 00 09 1A 00 00 00 80 00 00 00 04", ReadSector(0x80, 4)},
        {"42 52 4F 4D 04 00 E0 44 00 00 00 0B 1B 00 00 00 80 00 00 00 01 00 FF",
         WriteSector(0x80, 1, DataSum(Bytes(512, 0xFF)))},
    };
    for (const auto& example : examples)
        EXPECT_EQ(example.first, ToHex(example.second));
    EXPECT_EQ("42 52 4F 4D 06 01 1E 87 00 00 00 03 C8 40 16", ToHex(Chip().Send(GetFlashId()).bytes));
    ksim::TargetConfig config = RomFlash(2);
    config.flashId = PatternBytes(24, 1);
    Chip chip(config);
    EXPECT_EQ(PatternBytes(24, 1), chip.Send(GetFlashId()).Payload());
    Answer sectors = chip.Send(ReadSector(0x80, 4));
    EXPECT_EQ(2, sectors.bytes[5]);
    EXPECT_EQ(2048u, sectors.Payload().size());
}

TEST(SimFrames, MalformedFramesAndDataPhasesGetTheMatchingErrorTypeAndStoreNothing)
{
    Bytes badChecksum = GetFlashId();
    badChecksum[7] ^= 0x01;
    // Flags 0x06 with the checksum adjusted to match: flags are the low byte of the
    // word at offset 4, so the sum grows by 2 and the checksum shrinks by 2.
    Bytes badFlags = GetFlashId();
    badFlags[4] = 0x06;
    badFlags[7] = static_cast<uint8_t>(badFlags[7] - 2);
    // Checksum over the frame as it travels, not in host order.
    Bytes wireSummed = Frame(0x13, {{0x01010100, 4}});
    std::reverse(wireSummed.begin() + 13, wireSummed.end());
    const struct { const char* name; Bytes frame; int type; } cases[] = {
        {"checksum", badChecksum, 3}, {"checksum over wire order", wireSummed, 3},
        {"body too long for opcode", Frame(0x18, {{0, 1}}), 4},
        {"body too short for opcode", Frame(0x04, {{0x10000, 2}}), 4}, {"unknown opcode", Frame(0x30), 1},
        {"flags not 0x04", badFlags, 4}, {"length 0", HexBytes("42 52 4F 4D 04 00 00 00 00 00 00 00"), 4},
        {"length beyond any command", HexBytes("42 52 4F 4D 04 00 00 00 00 00 10 00"), 4},
        {"erase mode other than 3", Frame(0x19, {{2, 1}, {0x10000, 4}}), 4},
        {"erase outside flash", Erase(0x00400000), 4}, {"read more than a reply holds", ReadSector(0, 16), 4},
        {"read past the flash end", ReadSector(8191, 2), 4},
        {"memory read outside SRAM", Frame(0x08, {{0x20000000, 4}, {16, 4}}), 4},
        {"memory read beyond the reply buffer", Frame(0x08, {{0x00010000, 4}, {8191, 4}}), 4},
        {"memory write past the SRAM end", WriteMemory(0x0007FF00, 0x200, 0), 4},
        {"write sectors beyond the buffer", WriteSector(0, 17, 0), 5}, {"speed 0", Frame(0x10, {{0x03000000, 4}}), 4},
    };
    Chip chip(RomFlash());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Answer answer = chip.Send(c.frame);
        EXPECT_EQ(c.type, answer.ErrorType()) << ToHex(answer.bytes);
    }
    Bytes data = {9, 9, 9, 9};
    EXPECT_EQ(3, chip.Write(WriteMemory(0x00030000, 4, DataSum(data) ^ 1), data).ErrorType());
    EXPECT_EQ(Bytes(4, 0), chip.Send(Frame(0x08, {{0x00030000, 4}, {4, 4}})).Payload());
    Bytes sector(512, 0);
    EXPECT_EQ(3, chip.Write(WriteSector(10, 1, DataSum(sector) ^ 0x8000), sector).ErrorType());
    EXPECT_EQ(Bytes(512, 0xFF), chip.ReadSectors(10, 1));
    EXPECT_TRUE(chip.Send(GetFlashId()).Ack());
}

TEST(SimFrames, GarbageIsSkippedAndHalfAFrameOrDataPhaseIsForgottenAfterAQuietTime)
{
    Chip chip;
    const Bytes frame = GetFlashId();
    Bytes stream = HexBytes("00 FF 42 52 4F 00 13 42 42 52");  // broken magics
    stream.insert(stream.end(), frame.begin(), frame.end());
    EXPECT_EQ(HexBytes("C8 40 16"), chip.Send(stream).Payload());

    EXPECT_TRUE(chip.Send(Bytes(frame.begin(), frame.begin() + 7)).bytes.empty());
    chip.Pass(700);
    EXPECT_TRUE(chip.Send(frame).Ack());
    ASSERT_TRUE(chip.Send(WriteMemory(0x00020000, 64, 0)).Ack());
    EXPECT_TRUE(chip.Send(Bytes(20, 0x11)).bytes.empty());
    chip.Pass(700);
    EXPECT_TRUE(chip.Send(frame).Ack()) << "the abandoned data phase swallowed a frame";
}

// (The flash file's contents before and after a run are what every end-to-end
// test compares.)
TEST(SimFlash, SectorsProgramByAndEraseSetsFFAndRangesEndAtTheConfiguredSize)
{
    Chip chip(RomFlash(), {}, 0x20000);
    Bytes first = PatternBytes(1024, 0x5A), second = PatternBytes(1024, 0xC3), both(1024);
    for (size_t i = 0; i < both.size(); ++i)
        both[i] = first[i] & second[i];
    ASSERT_TRUE(chip.WriteSectors(0x81, first));
    EXPECT_EQ(first, chip.ReadSectors(0x81, 2));
    ASSERT_TRUE(chip.WriteSectors(0x81, second));
    EXPECT_EQ(both, chip.ReadSectors(0x81, 2));

    // Erasing any address inside a block clears the whole block, and only it.
    ASSERT_TRUE(chip.WriteSectors(0x7F, PatternBytes(512, 1)));
    ASSERT_TRUE(chip.Send(Erase(0x1ABCD)).Ack());
    EXPECT_EQ(Bytes(2048, 0xFF), chip.ReadSectors(0x80, 4));
    EXPECT_EQ(PatternBytes(512, 1), chip.ReadSectors(0x7F, 1));
    EXPECT_TRUE(chip.Send(Erase(0x1FFFF)).Ack());
    EXPECT_EQ(4, chip.Send(Erase(0x20000)).ErrorType());
    EXPECT_EQ(512u, chip.ReadSectors(255, 1).size());
    for (const Bytes& frame : {ReadSector(255, 2), ReadSector(0xFFFFFFFF, 1), WriteSector(256, 1, 0)})
        EXPECT_EQ(4, chip.Send(frame).ErrorType());
}

// An uploaded program starts at reset speed and serves flash; SysReboot returns
// to the boot ROM. Only a plausible upload starts.
TEST(SimLine, SetPcStartsOnlyAPlausibleUploadAndRebootEndsIt)
{
    const struct { const char* name; Bytes image; uint32_t pc; bool starts; } cases[] = {
        {"plausible", BootLoaderImage(), 0x00010101, true},
        {"stack outside SRAM", BootLoaderImage(0x20001000), 0x00010101, false},
        {"reset vector without Thumb bit", BootLoaderImage(0x0007E000, 0x00010100), 0x00010100, false},
        {"reset vector outside the image", BootLoaderImage(0x0007E000, 0x00030001), 0x00030001, false},
        {"pc is not the reset vector", BootLoaderImage(), 0x00010201, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Chip chip;
        EXPECT_EQ(1, chip.Send(Erase(0)).ErrorType()) << "this ROM has no flash driver";
        ASSERT_TRUE(chip.Send(ChangeBaud(921600)).Ack());
        uint32_t size = static_cast<uint32_t>(c.image.size());
        ASSERT_TRUE(chip.Write(WriteMemory(0x00010000, size, DataSum(c.image)), c.image).Ack());
        ASSERT_TRUE(chip.Send(Frame(0x13, {{c.pc, 4}})).Ack());
        EXPECT_EQ(c.starts ? 115200u : 921600u, chip.Target().LineSpeed());
        EXPECT_EQ(c.starts ? -1 : 1, chip.Send(Erase(0)).ErrorType());
        if (c.starts) {
            ASSERT_TRUE(chip.Send(Frame(0x12)).Ack());
            EXPECT_EQ(1, chip.Send(Erase(0)).ErrorType()) << "still the boot-loader after reboot";
        }
    }
}

ksim::TargetConfig Wired(ksim::Wiring wiring, bool activeHigh = false, bool upgradeText = false)
{
    ksim::TargetConfig config;
    config.board.wiring = wiring;
    config.board.activeHigh = activeHigh;
    config.startAsFirmware = upgradeText;
    return config;
}

const ksim::ModemLines D0R0{false, false}, D1R0{true, false}, D0R1{false, true}, D1R1{true, true};

// The boot strap counts only when reset lets go; lines that agree move neither pin
// of the two-transistor circuit.
TEST(SimWiring, LineSequencesLeaveTheChipInTheBootRomInFirmwareOrInReset)
{
    using W = ksim::Wiring;
    using M = ksim::TargetMode;
    const struct {
        const char* name;
        W wiring;
        bool activeHigh;
        std::vector<ksim::ModemLines> steps;
        M mode;
    } cases[] = {
        {"rts reset, classic sequence", W::TwoTransistorRtsReset, false, {D0R1, D1R0, D0R0}, M::BootRom},
        {"rts reset, inverted sequence", W::TwoTransistorRtsReset, false, {D1R0, D0R1, D0R0}, M::Firmware},
        {"rts reset, strap let go first", W::TwoTransistorRtsReset, false, {D0R1, D0R0, D1R0}, M::Firmware},
        {"rts reset, lines together", W::TwoTransistorRtsReset, false, {D1R1, D0R0, D1R1}, M::Firmware},
        {"rts reset, held", W::TwoTransistorRtsReset, false, {D0R1}, M::Reset},
        {"dtr reset, inverted sequence", W::TwoTransistorDtrReset, false, {D1R0, D0R1, D0R0}, M::BootRom},
        {"dtr reset, classic sequence", W::TwoTransistorDtrReset, false, {D0R1, D1R0, D0R0}, M::Firmware},
        {"direct rts reset", W::DirectRtsReset, false, {D1R1, D1R0}, M::BootRom},
        {"direct rts reset, no strap", W::DirectRtsReset, false, {D0R1, D0R0}, M::Firmware},
        {"direct dtr reset", W::DirectDtrReset, false, {D1R1, D0R1}, M::BootRom},
        {"direct active high, power-up", W::DirectRtsReset, true, {}, M::Reset},
        {"direct active high, reset line asserted", W::DirectRtsReset, true, {D0R1}, M::BootRom},
        {"direct dtr reset active high, both asserted", W::DirectDtrReset, true, {D1R1}, M::Firmware},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Chip chip(Wired(c.wiring, c.activeHigh));
        for (const ksim::ModemLines& lines : c.steps)
            chip.Target().SetModemLines(lines);
        EXPECT_EQ(c.mode, chip.Target().Mode());
        EXPECT_EQ(c.mode == M::BootRom, chip.Sync());
    }
}

TEST(SimWiring, ResetStartsTheChipOverAndRebootSamplesTheStrap)
{
    Chip chip(Wired(ksim::Wiring::TwoTransistorRtsReset));
    EXPECT_TRUE(chip.Target().SetModemLines(D0R1));
    EXPECT_FALSE(chip.Target().SetModemLines(D1R0));
    ASSERT_TRUE(chip.Send(ChangeBaud(921600)).Ack());
    Bytes image = BootLoaderImage();
    ASSERT_TRUE(chip.Write(WriteMemory(0x00010000, 1024, DataSum(image)), image).Ack());
    ASSERT_TRUE(chip.Send(Frame(0x13, {{0x00010101, 4}})).Ack());
    ASSERT_EQ(ksim::TargetMode::BootLoader, chip.Target().Mode());
    // Half a frame is forgotten with the rest (the GetFlashId below is answered).
    const Bytes frame = GetFlashId();
    EXPECT_TRUE(chip.Send(Bytes(frame.begin(), frame.begin() + 6)).bytes.empty());
    EXPECT_TRUE(chip.Target().SetModemLines(D0R1));
    EXPECT_FALSE(chip.Target().SetModemLines(D0R0));
    EXPECT_EQ(ksim::TargetMode::Firmware, chip.Target().Mode());
    EXPECT_EQ(115200u, chip.Target().LineSpeed());
    EXPECT_FALSE(chip.Sync());

    chip.Target().SetModemLines(D0R1);
    chip.Target().SetModemLines(D1R0);
    ASSERT_TRUE(chip.Send(GetFlashId()).Ack());
    ASSERT_TRUE(chip.Send(Frame(0x12)).Ack());
    EXPECT_EQ(ksim::TargetMode::BootRom, chip.Target().Mode()) << "strap held at the reboot";
    chip.Target().SetModemLines(D0R0);
    ASSERT_TRUE(chip.Send(Frame(0x12)).Ack());
    EXPECT_EQ(ksim::TargetMode::Firmware, chip.Target().Mode());
}

// Firmware ignores everything but the whole upgrade text with its terminating
// zero byte; on a wired board it heeds even that only when asked to.
TEST(SimLine, FirmwareAnswersOnlyAfterTheWholeUpgradeTextAndOnAWiredBoardOnlyWhenAskedTo)
{
    const Bytes upgrade = {'u', 'p', 'g', 'r', 'a', 'd', 'e', '\n', 0x00};
    const struct { ksim::TargetConfig config; bool heeds; } cases[] = {{Wired(ksim::Wiring::None, false, true), true},
                 {Wired(ksim::Wiring::TwoTransistorRtsReset, false, true), true},
                 {Wired(ksim::Wiring::TwoTransistorRtsReset), false}};
    for (const auto& c : cases) {
        Chip chip(c.config);
        EXPECT_TRUE(chip.Send({0x55}).bytes.empty());
        EXPECT_TRUE(chip.Send(GetFlashId()).bytes.empty());
        EXPECT_TRUE(chip.Send(Bytes{'u', 'p', 'g', 'r', 'a', 'd', 'e', '\n', 0x55}).bytes.empty());
        EXPECT_TRUE(chip.Send(Bytes{'u', 'u', 'p', 'g', 'r', 'a', 'd', 'e', '\n', 0x00}).bytes.empty());
        chip.Send(upgrade);
        EXPECT_EQ(c.heeds, chip.Sync()) << c.heeds;
        EXPECT_EQ(c.heeds, chip.Send(GetFlashId()).Ack());
    }
}

// The degrade fault works beside the others, and the line model takes its rate once.
TEST(SimFaults, DegradeFiresBesideOtherFaultsAndHandsOverItsRateOnce)
{
    Chip chip(RomFlash(), {"ReadSector:2:degrade=460800", "ReadSector:2:error3"});
    uint32_t rate = 0;
    EXPECT_EQ(512u, chip.ReadSectors(0, 1).size());
    EXPECT_FALSE(chip.Target().TakeCleanRateChange(rate));
    EXPECT_EQ(3, chip.Send(ReadSector(0, 1)).ErrorType());
    EXPECT_TRUE(chip.Target().TakeCleanRateChange(rate));
    EXPECT_EQ(460800u, rate);
    EXPECT_FALSE(chip.Target().TakeCleanRateChange(rate));
}

TEST(SimFaults, EachReplyFaultShowsOnTheWire)
{
    // reply: its first 16 bytes at most
    const struct { const char* kind; const char* reply; size_t size; } cases[] = {
        {"error2", "42 52 4F 4D 05 01 5F 66 00 00 00 01 02", 13},
        {"error7F", "42 52 4F 4D 05 01 5E E9 00 00 00 01 7F", 13}, {"noreply", "", 0},
        {"badsum", "42 52 4F 4D 06 01 44 22 00 00 00 03 C8 40 16", 15},
        {"badmagic", "4D 4F 52 42 06 01 1E 87 00 00 00 03 C8 40 16", 15},
        {"short", "42 52 4F 4D 06 01 1E 87 00 00 00 13 C8 40 16", 15}, {"toolong", "42 52 4F 4D 06 01", 12 + 8191},
        {"bitflip", "42 52 4F 4D 06 01 1E 8F 00 00 00 03 C0 40 16", 15}, {"raw=4F4B", "4F 4B", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind);
        Chip chip(ksim::TargetConfig(), {std::string("GetFlashId:1:") + c.kind});
        Answer answer = chip.Send(GetFlashId());
        EXPECT_EQ(c.size, answer.bytes.size());
        Bytes start = HexBytes(c.reply);
        EXPECT_EQ(ToHex(start), ToHex(Bytes(answer.bytes.begin(),
                                             answer.bytes.begin() + std::min(start.size(), answer.bytes.size()))));
        EXPECT_TRUE(chip.Send(GetFlashId()).Ack()) << "only the first GetFlashId was meant";
    }
}

// Every spec counts the commands it names; when two fire on one command the first
// wins and the other is spent all the same.
TEST(SimFaults, WhenAndWhatSelectWhichCommandsAreHitAndTheFirstFiringSpecWins)
{
    const int kClean = -1, kSilent = -2;
    // got: for the 1st .. 5th Read_4_byte: its error type
    const struct { std::vector<std::string> specs; std::vector<int> got; } cases[] = {
        {{"Read_4_byte:2:error4"}, {kClean, 4, kClean, kClean, kClean}},
        {{"0x04:3+:error4"}, {kClean, kClean, 4, 4, 4}}, {{"any:every:error4"}, {4, 4, 4, 4, 4}},
        {{"any:2:noreply", "Read_4_byte:2:error4"}, {kClean, kSilent, kClean, kClean, kClean}},
    };
    for (const auto& c : cases) {
        Chip chip(ksim::TargetConfig(), c.specs);
        const bool countsAll = c.specs[0].compare(0, 4, "any:") == 0;
        for (size_t i = 0; i < c.got.size(); ++i) {
            Answer answer = chip.Send(Frame(0x04, {{0x20000000, 4}}));
            EXPECT_EQ(c.got[i], answer.bytes.empty() ? kSilent : answer.ErrorType()) << c.specs[0] << " command " << i + 1;
            if (!countsAll) {
                EXPECT_TRUE(chip.Send(GetFlashId()).Ack()) << "other commands are not counted";
            }
        }
    }
}

TEST(SimFaults, RefusingFaultsLeaveTheCommandUndone)
{
    Chip chip(RomFlash(), {"EraseFlash:2:noreply", "ChangeBaud:1:error2", "SetPC:1:raw=00"});
    ASSERT_TRUE(chip.WriteSectors(0, Bytes(512, 0)));
    ASSERT_TRUE(chip.Send(Erase(0)).Ack());
    ASSERT_TRUE(chip.WriteSectors(0, Bytes(512, 0)));
    EXPECT_TRUE(chip.Send(Erase(0)).bytes.empty());
    EXPECT_EQ(Bytes(512, 0), chip.ReadSectors(0, 1));
    EXPECT_EQ(2, chip.Send(ChangeBaud(921600)).ErrorType());
    EXPECT_EQ(115200u, chip.Target().LineSpeed());
    Bytes image = BootLoaderImage();
    ASSERT_TRUE(chip.Write(WriteMemory(0x00010000, 1024, DataSum(image)), image).Ack());
    EXPECT_EQ(Bytes{0}, chip.Send(Frame(0x13, {{0x00010101, 4}})).bytes);
    EXPECT_EQ(ksim::TargetMode::BootRom, chip.Target().Mode());
}

TEST(SimFaults, TwoPhaseCommandsTakeTheFaultOnTheDataReply)
{
    Bytes data(1024, 0x00);
    data[700] = 0xA5;
    Bytes flipped = data;
    flipped[700] = 0xA4;  // one wrong bit programmed behind a normal reply
    // acked: the reply carries the ack flag (badsum's, with a wrong checksum)
    const struct { const char* kind; bool acked; Bytes stored; } cases[] = {
        {"error2", false, Bytes(1024, 0xFF)}, {"noreply", false, Bytes(1024, 0xFF)},
        {"badsum", true, data}, {"bitflip", true, flipped}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind);
        Chip chip(RomFlash(), {std::string("WriteSector:1:") + c.kind});
        EXPECT_EQ(c.acked, chip.Write(WriteSector(4, 2, DataSum(data)), data).Ack());
        EXPECT_EQ(c.stored, chip.ReadSectors(4, 2));
    }
}

}  // namespace
