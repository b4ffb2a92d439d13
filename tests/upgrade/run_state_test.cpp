// The run's small helpers: recognising a combined image, measuring a file, and
// loading a block: the bytes after it up to the buffer's end are erased, and a file
// that cannot supply the whole block fails instead of being padded.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/cleanup_files.h"
#include "upgrade/run_state.h"

namespace {

TEST(CombinedImagePath, OnlyTheExactSuffix)
{
    for (const char* path : {"x.cimg", "dir/a.b.cimg", ".cimg"})
        EXPECT_TRUE(IsCombinedImagePath(path)) << path;
    for (const char* path : {"x.CIMG", "x.cimg.bak", "cimg", "x.img", "", "xcimg"})
        EXPECT_FALSE(IsCombinedImagePath(path)) << path;
}

TEST(LoadBlockFromFile, PadsWithTheErasedValueAndRefusesShortFiles)
{
    UpgradeRun run;
    run.data.reset(new unsigned char[kUpgradeBlockSize]);
    FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    std::vector<unsigned char> bytes(70000);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>(i % 251);
    ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), file), bytes.size());
    std::rewind(file);

    // A full block, then a tail that ends inside a sector, then reads the file
    // cannot satisfy: one that runs past its end, one at its end.
    const struct { uint32_t count; size_t fileOffset; uint32_t supplied; } steps[] = {
        {65536, 0, 65536}, {1000, 65536, 1000}, {65536, 66536, 3464}, {300, 70000, 0}};
    for (const auto& s : steps) {
        std::fill(run.data.get(), run.data.get() + kUpgradeBlockSize, 0x00);
        // Measuring the file between reads must not move the reader: a combined image
        // is measured as the ETF source while the main image is read from it.
        EXPECT_EQ(FileLength(file), 70000);
        testing::internal::CaptureStdout();
        const int result = LoadBlockFromFile(run, file, s.count, "img/main.img");
        const std::string printed = testing::internal::GetCapturedStdout();
        if (s.supplied < s.count) {
            EXPECT_EQ(result, -1) << "count " << s.count;
            EXPECT_EQ(printed, "Failed to read image file: img/main.img\n");
            continue;
        }
        EXPECT_EQ(result, 0);
        EXPECT_EQ(printed, "");
        for (uint32_t i = 0; i < kUpgradeBlockSize; ++i) {
            unsigned char expected = i < s.supplied ? bytes[s.fileOffset + i] : 0xFF;
            ASSERT_EQ(run.data[i], expected) << "count " << s.count << " index " << i;
        }
    }
    std::fclose(file);
}

// The files a second Ctrl-C removes are kept in a table of four places: a fifth, or
// a name too long for a place, is refused rather than written past it, a place
// number out of range is ignored, and a freed place is taken again.
TEST(CleanupFiles, AFullTableRefusesAndAFreedPlaceIsTakenAgain)
{
    int slots[kCleanupSlots];
    for (int& slot : slots)
        EXPECT_GE(slot = RegisterCleanupFile("a"), 0);
    EXPECT_EQ(-1, RegisterCleanupFile("b"));
    ForgetCleanupFile(-1);  // what a refused registration gave: nothing to forget
    ForgetCleanupFile(kCleanupSlots);
    EXPECT_EQ(-1, RegisterCleanupFile("b"));
    ForgetCleanupFile(slots[0]);
    EXPECT_EQ(-1, RegisterCleanupFile(std::string(kCleanupNameSize, 'x').c_str()));
    EXPECT_EQ(slots[0], RegisterCleanupFile("c"));
    for (int slot : slots)
        ForgetCleanupFile(slot);
}

}  // namespace
