// Progress numbering, the OTA header and the placement arithmetic of the OTA area
// and the ETF image. (What the phases then leave in flash is checked byte for byte
// by the end-to-end runs.)
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "upgrade/UpGrade.h"
#include "upgrade/etf_image.h"
#include "upgrade/ota_area.h"
#include "upgrade/write_cycle.h"

namespace {

using Bytes = std::vector<unsigned char>;

TEST(BlockPercent, FollowsTheProgressNumbering)
{
    // expected: check/erase, write, read, verify
    const struct { uint32_t total, index; uint32_t expected[4]; } cases[] = {
        {1, 0, {10, 30, 50, 70}}, {4, 0, {10, 15, 20, 25}}, {4, 3, {70, 75, 80, 85}},
        {3, 0, {10, 16, 23, 30}}, {3, 1, {36, 43, 50, 56}}, {3, 2, {63, 70, 76, 83}},
        {65535, 65534, {89, 89, 89, 89}},  // the largest 32-bit image stays below the tail's 90
    };
    for (const auto& c : cases) {
        for (uint32_t step = 0; step < 4; ++step) {
            EXPECT_EQ(BlockPercent(c.index, step, c.total), c.expected[step])
                << "N=" << c.total << " i=" << c.index << " k=" << step;
        }
    }
}

TEST(GenerateOtaBuf, SlotCountGrowsWithTheAreaUpTo1024)
{
    const struct { unsigned int size, slots; } cases[] = {
        {2048, 62},    {32768, 993},     {33767, 1023},    {33768, 1024}, {2162663, 1024},
        {2162664, 0},  {2162697, 1},     {9, 1},           {0xFFFFFFFF, 1024},
    };
    for (const auto& c : cases)
        EXPECT_EQ(GenerateOtaBuf(c.size), c.slots) << "size " << c.size;
}

TEST(GenerateOtaBuf, HeaderHoldsMagicSlotCountFreeSlotsAndTrailer)
{
    ASSERT_EQ(GenerateOtaBuf(32768), 993u);
    Bytes expected(kOtaHeaderSize, 0xFF);
    const Bytes head = {0xA5, 0x5A, 0x5A, 0xA5, 0xE1, 0x03, 0x04, 0x00, 0xFE}, trailer = {0x55, 0x55, 0x69, 0x96};
    std::copy(head.begin(), head.end(), expected.begin());
    std::copy(trailer.begin(), trailer.end(), expected.begin() + 1001);
    EXPECT_EQ(Bytes(OtaBuf, OtaBuf + kOtaHeaderSize), expected);

    // With no slots the trailer takes the first slot's place, and nothing of the
    // longer header built before is left.
    ASSERT_EQ(GenerateOtaBuf(2162664), 0u);
    expected.assign(kOtaHeaderSize, 0xFF);
    std::copy(trailer.begin(), trailer.end(), expected.begin() + 8);
    EXPECT_EQ(Bytes(OtaBuf + 8, OtaBuf + kOtaHeaderSize), Bytes(expected.begin() + 8, expected.end()));
}

TEST(OtaArea, LayoutFollowsFromAddressAndSizeWord)
{
    const struct {
        uint32_t address, sizeWord;
        uint32_t size, firstBlock, end, lastBlock, crossed, room, firstShare;
    } cases[] = {
        {0x001F8000, 0x00800000, 32768, 0x001F0000, 0x00200000, 0x00200000, 1, 0x8000, 0x8000},
        {0x000FFC00, 0x008000AB, 32768, 0x000F0000, 0x00107C00, 0x00100000, 1, 1024, 1024},
        {0x000FF800, 0xFFFFFF00, 32768, 0x000F0000, 0x00107800, 0x00100000, 1, 2048, 2048},
        {0x00050100, 0x00200000, 8192, 0x00050000, 0x00052100, 0x00050000, 0, 0xFF00, 8192},
        {0x00100000, 0x03000000, 0x30000, 0x00100000, 0x00130000, 0x00130000, 3, 0x10000, 0x10000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.address);
        OtaLayout l = ComputeOtaLayout(c.address, OtaAreaSize(c.sizeWord));
        EXPECT_EQ((std::vector<uint32_t>{l.size, l.firstBlock, l.end, l.lastBlock, l.blocksCrossed, l.room, l.firstShare}),
                  (std::vector<uint32_t>{c.size, c.firstBlock, c.end, c.lastBlock, c.crossed, c.room, c.firstShare}));
    }
}

TEST(OtaArea, RefusesAreasTheHeaderDoesNotFitOrBeyond4GiB)
{
    const struct { uint32_t address, size; bool accepted; } cases[] = {
        {0x00050100, 2048, true},       {0x00050100, 2047, false}, {0x000FFC00, 100, false},
        {0xFFFF0000, 0xFFFF, true},     {0xFFFF0000, 0x10000, false}, {0xFFFFF000, 0x8000, false},
    };
    for (const auto& c : cases) {
        std::string why;
        int result = CheckOtaLayout(ComputeOtaLayout(c.address, c.size), why);
        EXPECT_EQ(result == 0, c.accepted) << std::hex << c.address << " " << c.size;
        EXPECT_EQ(why.empty(), c.accepted) << why;
    }
}

TEST(EtfPlacement, BehindTheOtaArea)
{
    const struct {
        uint32_t sizeWord, otaAddress;
        EtfSource source;
        uint32_t start, firstBlock, firstChunk;
        int64_t offset;
        uint32_t blocks, tail;
    } cases[] = {
        // A whole first block, then one full block and a tail.
        {0x00800000, 0x001F8000, EtfSource{0, 164, 164 + 2 * 65536 + 100}, 0x00200000, 0x00200000, 65536, 164, 1, 100},
        // The first block is shared with the end of the OTA area.
        {0x00800000, 0x000FFC00, EtfSource{0, 164, 164 + 33792 + 70000}, 0x00107C00, 0x00100000, 33792, 164, 1, 4464},
        // ETF data no longer than the first chunk: data1 only.
        {0x00800000, 0x000FFC00, EtfSource{0, 164, 164 + 33792}, 0x00107C00, 0x00100000, 33792, 164, 0, 0},
        // A remainder of whole blocks: no tail.
        {0x00800000, 0x001F8000, EtfSource{0, 64, 64 + 3 * 65536}, 0x00200000, 0x00200000, 65536, 64, 2, 0},
        // Size bits all ones: the area is 32,768 bytes, as the OTA phase sees it.
        {0xFFFFFF00, 0x001F8000, EtfSource{0, 64, 1000}, 0x00200000, 0x00200000, 65536, 64, 0, 0},
        // Inside a combined image the ETF part starts at the main image's length.
        {0x00800000, 0x001F8000, EtfSource{5000, 164, 5164 + 65536 + 10}, 0x00200000, 0x00200000, 65536, 5164, 0, 10},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.otaAddress << " end " << std::dec << c.source.end);
        EtfPlan plan;
        std::string why;
        ASSERT_EQ(PlanEtfImage(c.sizeWord, c.otaAddress, c.source, plan, why), 0) << why;
        EXPECT_EQ((std::vector<int64_t>{plan.start, plan.firstBlock, plan.firstChunk, plan.sourceOffset, plan.fullBlocks, plan.tail}),
                  (std::vector<int64_t>{c.start, c.firstBlock, c.firstChunk, c.offset, c.blocks, c.tail}));
    }
}

TEST(EtfPlacement, RefusesImagesWithoutAPlaceOrWithoutData)
{
    const struct { const char* what; uint32_t otaAddress; EtfSource source; } cases[] = {
        {"no OTA area", 0xFFFFFFFF, EtfSource{0, 164, 100000}},
        {"start at 4 GiB, the first address past the 32-bit space", 0xFFFF8000, EtfSource{0, 164, 100000}},
        {"data run past 4 GiB", 0xFFFE0000, EtfSource{0, 164, 164 + 65536 + 65537}},
        {"single-section ETF image", 0x001F8000, EtfSource{0, 0xFFFFFFFF, 100000}},
        {"offset at the end of the file", 0x001F8000, EtfSource{0, 164, 164}},
        {"combined file without ETF part", 0x001F8000, EtfSource{5000, 164, 5000}},
    };
    for (const auto& c : cases) {
        EtfPlan plan;
        std::string why;
        EXPECT_EQ(PlanEtfImage(0x00800000, c.otaAddress, c.source, plan, why), -1) << c.what;
        EXPECT_FALSE(why.empty()) << c.what;
    }
}

}  // namespace
