// --verify: what an upgrade would write (the main image, the OTA area's header, the
// ETF image) compared with flash, read only. The placement is the upgrade's own:
// the OTA layout and the ETF plan come from the same functions.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>

#include "common/byte_order.h"
#include "common/flash_geometry.h"
#include "common/run_report.h"
#include "common/setting_record.h"
#include "common/stdio_file.h"
#include "flashhost/CFlashHost.h"
#include "image/FwParser.h"
#include "image/image_format.h"
#include "upgrade/UpGrade.h"
#include "upgrade/block_walk.h"
#include "upgrade/etf_image.h"
#include "upgrade/everyday_commands.h"
#include "upgrade/ota_area.h"
#include "upgrade/run_state.h"

namespace {

const uint32_t kBlock = flash_geometry::kEraseBlockSize;

// Copies `count` expected bytes, from `offset` into the region, to `dest`; 0 or -1.
typedef std::function<int(uint32_t offset, unsigned char* dest, uint32_t count)> ExpectedBytes;

struct PlannedRegion {
    VerifiedRegion result;
    ExpectedBytes expected;
};

ExpectedBytes FromFile(FILE* file, int64_t base, const std::string& path)
{
    return [file, base, path](uint32_t offset, unsigned char* dest, uint32_t count) {
        if (!SeekTo(file, base + offset) || std::fread(dest, 1, count, file) != count) {
            PrintImageReadFailure(path);
            return -1;
        }
        return 0;
    };
}

struct VerifyPlan {
    UniqueFile mainFile;
    UniqueFile etfFile;
    std::vector<PlannedRegion> regions;
};

PlannedRegion Region(const char* name, uint32_t address, uint32_t length, ExpectedBytes expected)
{
    PlannedRegion r;
    r.result.name = name;
    r.result.address = address;
    r.result.length = length;
    r.expected = std::move(expected);
    return r;
}

int ImageFailure(FailureKind& failure, const char* line)
{
    std::printf("%s\n", line);
    KeepFirstFailure(failure, FailureKind::kImage);
    return -1;
}

// The regions, worked out before the connection as the upgrade does.
int PlanVerify(VerifyPlan& plan, FailureKind& failure)
{
    g_fwParser.FreeParser();
    const std::string mainPath = g_fwParser.GetFilePath();
    if (g_fwParser.Parse() != 0) {
        std::printf("Failed to open image file: %s (%s)\n", mainPath.c_str(), g_fwParser.strErrMsg.c_str());
        return ImageFailure(failure, "Invalid image!");
    }
    plan.mainFile = OpenFile(mainPath.c_str(), "rb");
    const int64_t fileLength = plan.mainFile ? FileLength(plan.mainFile.get()) : -1;
    if (fileLength < 0 || fileLength > 0xFFFFFFFFll) {
        std::printf("Failed to open image file: %s\n", mainPath.c_str());
        return ImageFailure(failure, "Invalid image!");
    }
    const bool combined = IsCombinedImagePath(mainPath);
    const uint32_t mainLength = combined ? ImageSectionsLength(g_fwParser) : static_cast<uint32_t>(fileLength);
    plan.regions.push_back(Region("main", 0, mainLength, FromFile(plan.mainFile.get(), 0, mainPath)));

    const unsigned char* header = g_fwParser.pSection[0].get();
    const uint32_t version = LoadLe32(header + kOffVersion);
    const uint32_t otaSizeWord = LoadLe32(header + kOffOtaSizeWord);
    const uint32_t otaAddress = LoadLe32(header + kOffOtaAddress);
    std::string why;
    if (OtaPhaseWanted(version, otaAddress)) {
        const OtaLayout layout = ComputeOtaLayout(otaAddress, OtaAreaSize(otaSizeWord));
        if (CheckOtaLayout(layout, why) != 0)
            return ImageFailure(failure, why.c_str());
        GenerateOtaBuf(layout.size);
        plan.regions.push_back(Region("ota", layout.address, kOtaHeaderSize,
                                      [](uint32_t offset, unsigned char* dest, uint32_t count) {
                                          std::memcpy(dest, OtaBuf + offset, count);
                                          return 0;
                                      }));
    }
    if (!combined && !g_Setting.bEtfFw)
        return 0;
    EtfSource source;
    std::string etfPath = mainPath;
    FILE* etf = plan.mainFile.get();
    if (combined) {
        source.base = mainLength;
        source.firstNext = LoadLe32(header + kOffNextSection);
    } else {
        g_etfFwParser.FreeParser();
        etfPath = g_etfFwParser.GetFilePath();
        plan.etfFile = OpenFile(etfPath.c_str(), "rb");
        if (g_etfFwParser.Parse() != 0 || !plan.etfFile) {
            std::printf("Failed to open etf image file: %s\n", etfPath.c_str());
            return ImageFailure(failure, "Invalid etf image!");
        }
        etf = plan.etfFile.get();
        source.firstNext = LoadLe32(g_etfFwParser.pSection[0].get() + kOffNextSection);
    }
    source.end = FileLength(etf);
    EtfPlan etfPlan;
    if (PlanEtfImage(otaSizeWord, otaAddress, source, etfPlan, why) != 0)
        return ImageFailure(failure, why.c_str());
    const int64_t etfBytes = std::max<int64_t>(0, etfPlan.sourceEnd - etfPlan.sourceOffset);
    plan.regions.push_back(Region("etf", etfPlan.start, static_cast<uint32_t>(etfBytes),
                                  FromFile(etf, etfPlan.sourceOffset, etfPath)));
    return 0;
}

// Reads the region piece by piece and notes every block that differs.
int CompareRegion(PlannedRegion& region, unsigned char* expected, unsigned char* found, FailureKind& failure)
{
    VerifiedRegion& r = region.result;
    return ForEachBlock(r.address, r.length, [&](const BlockPiece& piece) {
        const uint32_t offset = piece.address - r.address;
        if (region.expected(offset, expected, piece.size) != 0) {
            KeepFirstFailure(failure, FailureKind::kImage);
            return -1;
        }
        // The flash commands move whole sectors from the one holding the address:
        // a region that starts inside a sector is read from that sector's start.
        const uint32_t lead = piece.address % flash_geometry::kSectorSize;
        if (g_flashHost.ReadFlashLength(piece.address - lead, found, lead + piece.size) != 0) {
            std::printf("Read failed at 0x%08X: %s\n", piece.address, g_flashHost.m_strMsg.c_str());
            KeepFirstFailure(failure, g_flashHost.LinkLost() ? FailureKind::kNoAnswer : FailureKind::kFlashCommand);
            return -1;
        }
        for (uint32_t i = 0; i < piece.size; ++i) {
            if (expected[i] == found[lead + i])
                continue;
            const uint32_t address = piece.address + i;
            if (r.equal)
                r.firstDifference = address;
            r.equal = false;
            const uint32_t block = address / kBlock * kBlock;
            if (r.blocks.empty() || r.blocks.back() != block)
                r.blocks.push_back(block);
        }
        run_report::Progress(r.name.c_str(), "verify", uint64_t(offset) + piece.size, r.length);
        return 0;
    });
}

void PrintRegion(const VerifiedRegion& r)
{
    if (r.equal)
        std::printf("Verify %s 0x%08X len:0x%08X: equal\n", r.name.c_str(), r.address, r.length);
    else
        std::printf("Verify %s 0x%08X len:0x%08X: differs at 0x%08X (%u block(s))\n", r.name.c_str(), r.address,
                    r.length, r.firstDifference, static_cast<unsigned>(r.blocks.size()));
    std::fflush(stdout);
}

}  // namespace

int VerifyImages(std::vector<VerifiedRegion>& results, FailureKind& failure)
{
    VerifyPlan plan;
    if (PlanVerify(plan, failure) != 0)
        return -1;
    if (ConnectForCommand(failure) != 0)
        return -1;
    std::unique_ptr<unsigned char[]> expected(new unsigned char[kBlock]);
    std::unique_ptr<unsigned char[]> found(new unsigned char[kBlock + flash_geometry::kSectorSize]);
    bool equal = true;
    for (PlannedRegion& region : plan.regions) {
        const auto start = std::chrono::steady_clock::now();
        if (CompareRegion(region, expected.get(), found.get(), failure) != 0) {
            g_flashHost.Close();
            return -1;
        }
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        run_report::Region(region.result.name.c_str(), region.result.length, took.count());
        PrintRegion(region.result);
        equal = equal && region.result.equal;
        results.push_back(region.result);
    }
    g_flashHost.Close();
    if (equal)
        return 0;
    std::printf("Verify failed: flash differs from the images\n");
    KeepFirstFailure(failure, FailureKind::kVerify);
    return -1;
}
