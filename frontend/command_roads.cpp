#include "frontend/command_roads.h"
#include "frontend/upgrade_start.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "common/run_report.h"
#include "common/setting_record.h"
#include "common/size_value.h"
#include "common/stdio_file.h"
#include "flashhost/CFlashHost.h"
#include "frontend/command_options.h"
#include "frontend/run_sinks.h"
#include "image/FwParser.h"
#include "image/intel_hex.h"
#include "upgrade/everyday_commands.h"

using nlohmann::json;

namespace {

const int kClassicFailure = -1;  // 255, as a failed debug operation
const int kClassicDiffers = static_cast<int>(FailureKind::kVerify);

CommandOutcome Failed(FailureKind kind)
{
    CommandOutcome outcome;
    outcome.classicStatus = kind == FailureKind::kVerify ? kClassicDiffers : kClassicFailure;
    outcome.failure = kind == FailureKind::kNone ? FailureKind::kOther : kind;
    return outcome;
}

CommandOutcome Succeeded(const char* text)
{
    CommandOutcome outcome;
    outcome.successText = text;
    return outcome;
}

bool ReadWholeFile(const std::string& path, std::vector<unsigned char>& bytes)
{
    UniqueFile file = OpenFile(path.c_str(), "rb");
    if (!file)
        return false;
    unsigned char piece[65536];
    size_t got;
    while ((got = std::fread(piece, 1, sizeof piece, file.get())) > 0)
        bytes.insert(bytes.end(), piece, piece + got);
    return std::ferror(file.get()) == 0;
}

// One --write value: "ADDR:FILE", or an Intel HEX file that carries its addresses.
// kNone, or the class of the refusal after its line.
FailureKind ParseWrite(const std::string& word, std::vector<RawWrite>& writes)
{
    const size_t colon = word.find(':');
    uint64_t address = 0;
    if (colon != std::string::npos && size_value::Parse(word.substr(0, colon), address)) {
        RawWrite w;
        w.address = static_cast<uint32_t>(address);
        w.source = word.substr(colon + 1);
        if (address >= size_value::kMaxValue || !ReadWholeFile(w.source, w.bytes)) {
            std::printf("Failed to read file: %s\n", w.source.c_str());
            return FailureKind::kImage;
        }
        writes.push_back(std::move(w));
        return FailureKind::kNone;
    }
    if (!IsIntelHexPath(word)) {
        std::printf("Bad --write value: %s (ADDR:FILE, or a .hex file alone)\n", word.c_str());
        return FailureKind::kUsage;
    }
    std::vector<HexSegment> segments;
    std::string why;
    if (ReadIntelHex(word, segments, why) != 0) {
        std::printf("%s\n", why.c_str());
        return FailureKind::kImage;
    }
    for (HexSegment& s : segments) {
        RawWrite w;
        w.address = s.address;
        w.bytes = std::move(s.bytes);
        w.source = word;
        writes.push_back(std::move(w));
    }
    return FailureKind::kNone;
}

std::string HexBytes(const std::vector<unsigned char>& bytes, const char* separator)
{
    std::string text;
    char two[3];
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(two, sizeof two, "%02X", bytes[i]);
        text += (i ? separator : "") + std::string(two);
    }
    return text;
}

CommandOutcome InfoRoad(JsonSink* json)
{
    TargetInfo info;
    FailureKind failure = FailureKind::kNone;
    if (ReadTargetInfo(info, failure) != 0)
        return Failed(failure);
    const std::string maker = info.flashId.empty() ? "unknown" : "0x" + HexBytes({info.flashId[0]}, "");
    std::printf("Flash ID: %s\n", info.flashId.empty() ? "none" : HexBytes(info.flashId, " ").c_str());
    std::printf("Flash maker: %s\n", maker.c_str());
    if (info.capacity)
        std::printf("Flash capacity: %llu bytes (%llu KiB)\n", static_cast<unsigned long long>(info.capacity),
                    static_cast<unsigned long long>(info.capacity / 1024));
    else
        std::printf("Flash capacity: unknown\n");
    std::printf("Responder code: %d\n", info.responder);
    std::printf("Boot-loader running: %s\n", info.bootLoader ? "yes" : "no");
    std::printf("Rate: %u\n", info.rate);
    if (json)
        json->Object(json::object({{"event", "info"},
                                   {"flash_id", HexBytes(info.flashId, "")},
                                   {"maker", maker},
                                   {"capacity", info.capacity},
                                   {"responder", info.responder},
                                   {"boot_loader", info.bootLoader},
                                   {"rate", info.rate}})
                         .dump());
    return Succeeded("Info OK!");
}

CommandOutcome VerifyRoad(JsonSink* json)
{
    std::vector<VerifiedRegion> regions;
    FailureKind failure = FailureKind::kNone;
    const int result = VerifyImages(regions, failure);
    if (json) {
        for (const VerifiedRegion& r : regions) {
            json::object_t line{{"event", "verify"}, {"region", r.name}, {"address", r.address},
                                {"length", r.length}, {"equal", r.equal}, {"blocks", r.blocks}};
            if (!r.equal)
                line["first_difference"] = r.firstDifference;
            json->Object(nlohmann::json(line).dump());
        }
    }
    if (result != 0)
        return Failed(failure);
    std::printf("Verify OK!\n");
    return Succeeded("Verify OK!");
}

CommandOutcome EraseAllRoad()
{
    FailureKind failure = FailureKind::kNone;
    if (EraseAllFlash(failure) != 0)
        return Failed(failure);
    return Succeeded("Erase all OK!");
}

CommandOutcome WriteRoad()
{
    std::vector<RawWrite> writes;
    for (const std::string& word : PendingCommandArguments().writes) {
        const FailureKind refused = ParseWrite(word, writes);
        if (refused != FailureKind::kNone)
            return Failed(refused);
    }
    // Overlaps (and, with --flash-size, ranges past the flash) before the connection.
    if (CheckRawWrites(writes, g_Setting.iFlashSize) != 0)
        return Failed(FailureKind::kUsage);
    // Every block written is read back: a raw write has no other check.
    g_Setting.bReadAndCheck = 1;
    FailureKind failure = FailureKind::kNone;
    if (WriteRawFiles(writes, failure) != 0)
        return Failed(failure);
    std::printf("Write OK!\n");
    return Succeeded("Write OK!");
}

}  // namespace

CommandOutcome RunCommandRoad(JsonSink* json)
{
    const std::string& sizeText = PendingCommandArguments().flashSize;
    if (!sizeText.empty()) {
        uint64_t size = 0;
        if (!size_value::Parse(sizeText, size) || size == 0) {
            std::printf("Bad --flash-size value: %s (0x hexadecimal or decimal, K or M suffix)\n", sizeText.c_str());
            return Failed(FailureKind::kUsage);
        }
        g_Setting.iFlashSize = size;
    }
    HandSettingsToHost();
    run_report::Start(g_Setting.strComDev, g_Setting.iBaud, {});
    switch (g_Setting.iCommand) {
    case kCommandInfo: return InfoRoad(json);
    case kCommandVerify: return VerifyRoad(json);
    case kCommandEraseAll: return EraseAllRoad();
    case kCommandWrite: return WriteRoad();
    default: return Failed(FailureKind::kOther);
    }
}
