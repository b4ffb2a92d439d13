#include "tests/upgrade/upgrade_fixtures.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iterator>

#include "tests/support/sim_link.h"
#include "tools/image_builder.h"
#include "upgrade/UpGrade.h"

Bytes MakeImage(uint32_t version, const std::vector<size_t>& dataSizes, uint32_t seed,
                uint32_t otaSizeBits, uint32_t otaAddress)
{
    ImageSpec spec;
    spec.version = version;
    for (size_t i = 0; i < dataSizes.size(); ++i) {
        SectionSpec s;
        s.data = PatternBytes(dataSizes[i], seed + static_cast<uint32_t>(i));
        s.id = static_cast<uint32_t>(i + 1);
        spec.sections.push_back(s);
    }
    if (otaAddress != 0xFFFFFFFF)
        SetOtaParameters(spec.sections[0], otaSizeBits, otaAddress);
    return BuildImage(spec);
}

UpgradeBench::UpgradeBench() : m_initialFlash(PatternBytes(kFlashSize, 99))
{
    WriteFile("flash.bin", m_initialFlash);
    // Without a settings file the tool would take the flash debug read.
    WriteText(Path("settings_mac.ini"), "[debug]\niDebugOp=n\n");
}

ProcessResult UpgradeBench::Run(const std::vector<std::string>& toolArgs, const std::vector<std::string>& simArgs,
                                const std::string& stdinText, bool keepConsoleOpen)
{
    std::vector<std::string> simCommand = {"--flash", Path("flash.bin"), "--trace", Path("trace.txt")};
    simCommand.insert(simCommand.end(), simArgs.begin(), simArgs.end());
    SimProcess sim(simCommand);
    if (!sim.Started())
        return ProcessResult{};
    std::vector<std::string> args = {"-c", sim.DevicePath()};
    args.insert(args.end(), toolArgs.begin(), toolArgs.end());
    ProcessOptions options;
    options.cwd = m_dir.Path();
    options.stdinText = stdinText;
    options.keepStdinOpen = keepConsoleOpen;
    options.timeoutSeconds = 60;
    std::string program = ToolPath();
    if (!toolLauncher.empty()) {
        args.insert(args.begin(), program);
        args.insert(args.begin(), toolLauncher.begin() + 1, toolLauncher.end());
        program = toolLauncher.front();
    }
    ProcessResult result = RunProcess(program, args, options);
    sim.Stop();
    return result;
}

void ModelBlockWrite(Bytes& flash, uint32_t address, const Bytes& bytes)
{
    if (bytes.empty())
        return;
    const size_t first = address / kBlock * kBlock;
    const size_t end = (address + bytes.size() + kBlock - 1) / kBlock * kBlock;
    std::fill(flash.begin() + first, flash.begin() + end, 0xFF);
    std::copy(bytes.begin(), bytes.end(), flash.begin() + address);
}

void ModelOtaArea(Bytes& flash, uint32_t address, uint32_t size)
{
    std::fill(flash.begin() + address, flash.begin() + address + size, 0xFF);
    GenerateOtaBuf(size);
    std::copy(OtaBuf, OtaBuf + kOtaHeaderSize, flash.begin() + address);
}

void ModelEtfWrite(Bytes& flash, uint32_t etfStart, const Bytes& etfData)
{
    const size_t firstChunk = std::min<size_t>(kBlock - etfStart % kBlock, etfData.size());
    std::copy(etfData.begin(), etfData.begin() + firstChunk, flash.begin() + etfStart);
    ModelBlockWrite(flash, etfStart + firstChunk, Bytes(etfData.begin() + firstChunk, etfData.end()));
}

std::vector<int> ProgressPercents(const std::string& out)
{
    std::vector<int> percents;
    for (const std::string& line : TextLines(out)) {
        int percent = 0, used = 0;
        if (std::sscanf(line.c_str(), "%d%%: %n", &percent, &used) == 1 && used > 0)
            percents.push_back(percent);
    }
    return percents;
}

size_t CountOccurrences(const std::string& text, const std::string& what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
        ++count;
    return count;
}

size_t CountFramesReceived(const std::string& trace, uint8_t opcode, const std::string& baud)
{
    size_t count = 0;
    for (const SimCommand& c : TraceCommands(trace))
        if (c.Opcode() == opcode && (baud.empty() || c.baud == baud))
            ++count;
    return count;
}

long FirstDifference(const Bytes& a, const Bytes& b)
{
    auto at = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    return at.first == a.end() && at.second == b.end() ? -1 : static_cast<long>(at.first - a.begin());
}

std::string WithoutDevicePaths(const std::string& text)
{
    static const std::string prefix = "/dev/pts/";
    std::string out;
    size_t at = 0;
    for (size_t found; (found = text.find(prefix, at)) != std::string::npos;) {
        size_t end = found + prefix.size();
        while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])))
            ++end;
        out += text.substr(at, found - at) + prefix + "N";
        at = end;
    }
    return out + text.substr(at);
}

size_t UpgradeBench::PausesOf(unsigned int us) const
{
    return CountOccurrences(ReadText(PauseLog()), "usleep " + std::to_string(us) + "\n");
}

void UpgradeBench::UseShim(const std::string& shimPath)
{
    // The sanitizer runtimes want to come first; the shim only wraps libc calls.
    toolLauncher = {"/usr/bin/env", "LD_PRELOAD=" + shimPath, "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1",
                    "KESTREL_SHIM_PAUSES=" + PauseLog()};
}
