// End-to-end upgrade runs: the real tool against the simulated target, in a fresh
// folder with a flash file whose old content is known, and a model of what the
// flash must hold afterwards.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tools/image_builder.h"

constexpr uint32_t kFlashSize = 4u << 20;  // the simulator's default flash
constexpr uint32_t kBlock = 65536;

// An image of sections with these data sizes (pattern data). With otaAddress not
// 0xFFFFFFFF the first section carries the OTA parameters (otaSizeBits is the upper
// 24 bits of the first private word).
Bytes MakeImage(uint32_t version, const std::vector<size_t>& dataSizes, uint32_t seed,
                uint32_t otaSizeBits = 0xFFFFFF, uint32_t otaAddress = 0xFFFFFFFF);

// One folder with a settings file that selects the upgrade, a flash file with old
// content, and the files the tool is pointed at.
class UpgradeBench {
public:
    UpgradeBench();
    std::string Path(const std::string& name) const { return m_dir.File(name); }
    void WriteFile(const std::string& name, const Bytes& bytes) const { WriteFileBytes(Path(name), bytes); }

    // Starts a simulator on the flash file (with a trace file and the extra
    // arguments), runs the tool with "-c <device>" and `toolArgs` in the folder,
    // stops the simulator. The trace and the flash are read afterwards. The console
    // gets `stdinText`; with keepConsoleOpen its end never comes, as at a terminal.
    ProcessResult Run(const std::vector<std::string>& toolArgs, const std::vector<std::string>& simArgs = {},
                      const std::string& stdinText = "", bool keepConsoleOpen = false);

    // When set, the tool is started through this command (for example
    // {"/usr/bin/env", "LD_PRELOAD=..."}), with the tool's path and arguments after it.
    std::vector<std::string> toolLauncher;
    // Starts the tool with the adapter shim at `shimPath` preloaded (writes shaped,
    // pauses logged to PauseLog()); more KESTREL_SHIM_ settings can follow.
    void UseShim(const std::string& shimPath);

    const Bytes& InitialFlash() const { return m_initialFlash; }
    Bytes Flash() const { return ReadFileBytes(Path("flash.bin")); }
    std::string Trace() const { return ReadText(Path("trace.txt")); }
    // With the adapter shim's KESTREL_SHIM_PAUSES=PauseLog(): how many of the tool's
    // pauses were exactly `us` long.
    std::string PauseLog() const { return Path("pauses.txt"); }
    size_t PausesOf(unsigned int us) const;

private:
    TempDir m_dir;
    Bytes m_initialFlash;
};

// Models of what the write cycles leave in flash.
// A region written from its start in whole erased blocks: every block it touches
// is erased, then the bytes are programmed.
void ModelBlockWrite(Bytes& flash, uint32_t address, const Bytes& bytes);
// The OTA area initialised: the header at its start, 0xFF over the rest.
void ModelOtaArea(Bytes& flash, uint32_t address, uint32_t size);
// The ETF data from `etfStart` on: the block holding it keeps its bytes before
// etfStart and after the data's end; later blocks are erased, then programmed.
void ModelEtfWrite(Bytes& flash, uint32_t etfStart, const Bytes& etfData);

// Output helpers.
// The percentages of the progress lines ("%d%: ..."), in order.
std::vector<int> ProgressPercents(const std::string& out);
size_t CountOccurrences(const std::string& text, const std::string& what);
// Frames the target received with this opcode (trace lines "rx <baud> 42 52 4F 4D ...").
size_t CountFramesReceived(const std::string& trace, uint8_t opcode, const std::string& baud = "");

// Device paths ("/dev/pts/<n>") differ between runs; they read "/dev/pts/N" here.
std::string WithoutDevicePaths(const std::string& text);

// Index of the first differing byte, or -1 when equal (keeps failures readable).
long FirstDifference(const Bytes& a, const Bytes& b);
