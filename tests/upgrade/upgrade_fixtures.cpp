#include "tests/upgrade/upgrade_fixtures.h"

#include <cstdio>
#include <sstream>

#include "tools/image_builder.h"
#include "upgrade/UpGrade.h"

Bytes PatternBytes(size_t count, uint32_t seed)
{
    Bytes bytes(count);
    uint32_t x = seed * 2654435761u + 12345u;
    for (size_t i = 0; i < count; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        bytes[i] = static_cast<uint8_t>(x >> 8);
    }
    return bytes;
}

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

uint32_t SecondSectionOffset(const std::vector<size_t>& dataSizes)
{
    return static_cast<uint32_t>(64 + dataSizes[0]);
}

Bytes OtaHeaderFor(uint32_t areaSize)
{
    GenerateOtaBuf(areaSize);
    return Bytes(OtaBuf, OtaBuf + kOtaHeaderSize);
}

UpgradeBench::UpgradeBench() : m_initialFlash(PatternBytes(kFlashSize, 99))
{
    WriteFile("flash.bin", m_initialFlash);
    // Without a settings file the tool would take the flash debug read.
    const std::string settings = "[debug]\niDebugOp=n\n";
    WriteFile("settings_mac.ini", Bytes(settings.begin(), settings.end()));
}

void UpgradeBench::WriteFile(const std::string& name, const Bytes& bytes) const
{
    WriteFileBytes(Path(name), bytes);
}

ProcessResult UpgradeBench::Run(const std::vector<std::string>& toolArgs,
                                const std::vector<std::string>& simArgs,
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
    ProcessResult result = RunProcess(ToolPath(), args, options);
    sim.Stop();
    return result;
}

Bytes UpgradeBench::Flash() const
{
    return ReadFileBytes(Path("flash.bin"));
}

std::string UpgradeBench::Trace() const
{
    Bytes bytes = ReadFileBytes(Path("trace.txt"));
    return std::string(bytes.begin(), bytes.end());
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
    Bytes header = OtaHeaderFor(size);
    std::copy(header.begin(), header.end(), flash.begin() + address);
}

void ModelEtfWrite(Bytes& flash, uint32_t etfStart, const Bytes& etfData)
{
    const uint32_t firstChunk = kBlock - etfStart % kBlock;
    if (etfData.size() <= firstChunk) {
        std::copy(etfData.begin(), etfData.end(), flash.begin() + etfStart);
        return;
    }
    std::copy(etfData.begin(), etfData.begin() + firstChunk, flash.begin() + etfStart);
    ModelBlockWrite(flash, etfStart + firstChunk, Bytes(etfData.begin() + firstChunk, etfData.end()));
}

std::vector<std::string> OutputLines(const std::string& out)
{
    std::vector<std::string> lines;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

std::vector<int> ProgressPercents(const std::string& out)
{
    std::vector<int> percents;
    for (const std::string& line : OutputLines(out)) {
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
    char opcodeHex[3];
    std::snprintf(opcodeHex, sizeof opcodeHex, "%02X", opcode);
    size_t count = 0;
    for (const std::string& line : OutputLines(trace)) {
        std::istringstream in(line);
        std::string kind, lineBaud;
        in >> kind >> lineBaud;
        if (kind != "rx" || (!baud.empty() && lineBaud != baud))
            continue;
        std::vector<std::string> bytes;
        for (std::string b; in >> b;)
            bytes.push_back(b);
        if (bytes.size() > 12 && bytes[0] == "42" && bytes[1] == "52" && bytes[2] == "4F" &&
            bytes[3] == "4D" && bytes[12] == opcodeHex)
            ++count;
    }
    return count;
}

long FirstDifference(const Bytes& a, const Bytes& b)
{
    if (a.size() != b.size())
        return static_cast<long>(std::min(a.size(), b.size()));
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i])
            return static_cast<long>(i);
    return -1;
}
