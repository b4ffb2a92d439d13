// The values the everyday commands take: sizes and addresses, and Intel HEX files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "common/size_value.h"
#include "frontend/progress_line.h"
#include "frontend/run_sinks.h"
#include "image/intel_hex.h"
#include "tests/support/process.h"

namespace {

TEST(SizeValue, TakesHexDecimalAndSuffixesAndRefusesTheRest)
{
    const struct { const char* text; bool ok; uint64_t value; } cases[] = {
        {"0", true, 0},          {"4096", true, 4096},       {"0x1F8000", true, 0x1F8000},
        {"0X10", true, 16},      {"64K", true, 65536},       {"64k", true, 65536},
        {"4M", true, 4u << 20},  {"0x10K", true, 16 * 1024}, {"4294967296", true, 1ull << 32},
        {"4096M", true, 1ull << 32}, {"", false, 0}, {"0x", false, 0}, {"K", false, 0},
        {"12Q", false, 0}, {"1F", false, 0}, {"1M2", false, 0}, {"-1", false, 0},
        {" 1", false, 0},        {"1 ", false, 0},           {"4294967297", false, 0},
        {"4097M", false, 0}, {"0x1G", false, 0}, {"1KK", false, 0}, {"99999999999999999999999", false, 0},
    };
    for (const auto& c : cases) {
        uint64_t value = 7;
        EXPECT_EQ(c.ok, size_value::Parse(c.text, value)) << c.text;
        EXPECT_EQ(c.ok ? c.value : 7u, value) << c.text;
    }
}

TEST(IntelHex, PlacesDataByExtendedAddressesAndRefusesWhatItCannotUse)
{
    std::vector<HexSegment> segments;
    std::string why;
    // Linear base 0x30000, two adjacent records merged, then a segment base
    // (0x1000 << 4) and a start address record, which is skipped.
    const std::string good = ":020000040003F7\n:0200000011AA43\n:0200020099CC97\r\n\n"
                             ":020000021000EC\n:01000000EE11\n:0400000500000000F7\n:00000001FF\n";
    ASSERT_EQ(0, ParseIntelHex(good, "g.hex", segments, why)) << why;
    ASSERT_EQ(2u, segments.size());
    EXPECT_EQ(0x10000u, segments[0].address);
    EXPECT_EQ(std::vector<unsigned char>{0xEE}, segments[0].bytes);
    EXPECT_EQ(0x30000u, segments[1].address);
    EXPECT_EQ((std::vector<unsigned char>{0x11, 0xAA, 0x99, 0xCC}), segments[1].bytes);

    const struct { std::string text; std::string why; } bad[] = {
        {":0200000011AA44\n:00000001FF\n", "b.hex line 1: checksum error"},
        {":0200000611AA3D\n:00000001FF\n", "b.hex line 1: record type it cannot use"},
        {":03000004000300F6\n:00000001FF\n", "b.hex line 1: address record of the wrong length"},
        {";0200000011AA43\n", "b.hex line 1: not a record"}, {":0300000011AA43\n", "b.hex line 1: not a record"},
        {":0200000011AA43\n", "b.hex: no end record"},
        {":0200000011AA43\n:0100010022DC\n:00000001FF\n", "b.hex line 2: bytes given twice"},
        {":00000001FF\n:0200000011AA43\n", "b.hex line 2: record after the end record"},
    };
    for (const auto& c : bad) {
        EXPECT_EQ(-1, ParseIntelHex(c.text, "b.hex", segments, why)) << c.text;
        EXPECT_NE(std::string::npos, why.find(c.why)) << why;
    }
    EXPECT_TRUE(IsIntelHexPath("fw.HEX"));
    EXPECT_TRUE(IsIntelHexPath("a/fw.ihex"));
    EXPECT_FALSE(IsIntelHexPath(".hex"));
    EXPECT_FALSE(IsIntelHexPath("fw.bin"));
}

TEST(ProgressLine, ShowsBytesPercentRateAndTimeLeft)
{
    const struct { uint64_t done, total; double seconds; const char* text; } cases[] = {
        {65536, 4194304, 1.0, "flash erase: 65536/4194304 bytes   1% 65.5 KB/s 1m03s left"},
        {2097152, 4194304, 20.0, "flash erase: 2097152/4194304 bytes  50% 104.9 KB/s 0m20s left"},
        {4194304, 4194304, 40.0, "flash erase: 4194304/4194304 bytes 100% 104.9 KB/s 0m00s left"},
        {0, 4194304, 0.0, "flash erase: 0/4194304 bytes   0% 0.0 KB/s -- left"},
        {0, 0, 0.0, "flash erase: 0/0 bytes   0% 0.0 KB/s -- left"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.text, ProgressLineText("flash", "erase", c.done, c.total, c.seconds));
}

// What a sink has written to its stream so far.
std::string Written(std::FILE* stream)
{
    std::fflush(stream);
    std::rewind(stream);
    std::string text;
    for (int c; (c = std::fgetc(stream)) != EOF;)
        text += static_cast<char>(c);
    return text;
}

// The terminal line is cleared only when something was drawn, and redrawn at once
// for a new region or the last bytes. The JSON progress never goes back within a
// region (a retried block starts over) and starts afresh in the next one.
TEST(RunSinks, TheLineClearsOnlyWhatItDrewAndJsonProgressGoesBackOnlyInANewRegion)
{
    std::FILE* line = std::tmpfile();
    {
        ProgressLineSink sink(line);
        sink.Clear();
        EXPECT_EQ("", Written(line)) << "nothing drawn, nothing cleared";
        sink.Progress("main", "write", 10, 100);
        sink.Progress("ota", "write", 1, 100);
        sink.Progress("ota", "write", 100, 100);
    }
    const std::string drawn = Written(line);
    EXPECT_EQ(4, std::count(drawn.begin(), drawn.end(), '\r')) << "three lines and the clearing";
    EXPECT_NE(std::string::npos, drawn.find("ota write: 100/100 bytes 100%")) << drawn;
    EXPECT_EQ("\r\033[K", drawn.substr(drawn.size() - 4)) << "cleared when done";
    std::fclose(line);

    std::FILE* json = std::tmpfile();
    JsonSink sink(json);
    sink.Progress("main", "write", 60, 100);
    sink.Progress("main", "write", 20, 100);
    sink.Progress("ota", "write", 5, 100);
    sink.Progress("ota", "write", 200, 100);
    std::vector<uint64_t> done;
    for (const std::string& event : TextLines(Written(json)))
        done.push_back(nlohmann::json::parse(event)["done"].get<uint64_t>());
    EXPECT_EQ((std::vector<uint64_t>{60, 60, 5, 100}), done);
    std::fclose(json);
}

}  // namespace
