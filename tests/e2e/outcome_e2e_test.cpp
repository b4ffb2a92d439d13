// What scripts see of an upgrade against the simulated target: with --exit-code
// each class of failure has its own status, and --json gives parseable events from
// start to a single result. Both are the same on either link; the fast link keeps
// the runs short.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/upgrade/upgrade_fixtures.h"

namespace {

TEST(OutcomeCodes, EachFailureClassHasItsStatus)
{
    const Bytes main = MakeImage(1, {20000}, 51);
    const struct {
        const char* name;
        std::vector<std::string> simArgs;
        std::vector<std::string> extraArgs;
        std::string console;
        int status;
    } cases[] = {
        {"success", {}, {}, "", 0}, {"the target never answers", {"--fault", "GetFlashId:every:noreply"}, {}, "", 5},
        {"every erase refused", {"--fault", "EraseFlash:every:error2"}, {}, "", 6},
        {"read-back always differs", {"--fault", "ReadSector:1+:bitflip"}, {"-r", "1"}, "", 7},
        {"the adapter is pulled", {"--fault", "WriteSector:3:vanish"}, {}, "", 5},
        {"the operator types stop", {"--sync-fail", "2"}, {}, "stop\n", 8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        UpgradeBench bench;
        bench.WriteFile("main.img", main);
        std::vector<std::string> args = {"--fast", "--exit-code", "-i", "main.img", "-u", "0"};
        args.insert(args.end(), c.extraArgs.begin(), c.extraArgs.end());
        ProcessResult r = bench.Run(args, c.simArgs, c.console, true);  // the console stays open, as at a terminal
        EXPECT_EQ(c.status, r.exitStatus) << r.out;
    }
}

// Every line parses; progress never passes its total nor goes back in a region.
std::vector<nlohmann::json> ParseEvents(const std::string& out)
{
    std::vector<nlohmann::json> events;
    std::string region;
    uint64_t last = 0;
    for (const std::string& line : TextLines(out)) {
        nlohmann::json event = nlohmann::json::parse(line, nullptr, false);
        EXPECT_FALSE(event.is_discarded()) << line;
        if (event.is_discarded())
            continue;
        if (event["event"] == "progress") {
            const uint64_t done = event["done"].get<uint64_t>();
            EXPECT_LE(done, event["total"].get<uint64_t>()) << line;
            if (event["region"] == region) {
                EXPECT_GE(done, last) << line;
            }
            region = event["region"];
            last = done;
        }
        events.push_back(event);
    }
    return events;
}

// A debug read also starts with "start" and ends with the bytes it moved.
TEST(OutcomeJson, ADebugReadIsStartProgressAndAResultWithItsBytes)
{
    UpgradeBench bench;
    ProcessResult r = bench.Run({"--json", "-D", "r", "-A", "0", "-L", "0x18000"}, {"--rom-flash", "yes"});
    EXPECT_EQ(0, r.exitStatus) << r.err;
    std::vector<nlohmann::json> events = ParseEvents(r.out);
    ASSERT_GE(events.size(), 3u) << r.out;
    EXPECT_EQ("start", events.front()["event"]);
    EXPECT_EQ(nlohmann::json::array(), events.front()["images"]);  // only a debug write names a file
    EXPECT_EQ("result", events.back()["event"]);
    EXPECT_EQ(0x18000u, events.back()["bytes"].get<unsigned>());
}

TEST(OutcomeJson, AnUpgradeIsStartProgressRegionsAndOneResult)
{
    UpgradeBench bench;
    bench.WriteFile("main.img", MakeImage(2, {70000}, 52, 0x8000, 0x1F8000));
    ProcessResult r = bench.Run({"--fast", "--json", "-i", "main.img", "-r", "1"});
    EXPECT_EQ(0, r.exitStatus) << r.err;
    std::vector<nlohmann::json> events = ParseEvents(r.out);
    ASSERT_GE(events.size(), 4u);
    EXPECT_EQ("start", events.front()["event"]);
    EXPECT_EQ("main.img", events.front()["images"][0]);
    std::vector<std::string> regions;
    size_t progress = 0;
    for (const nlohmann::json& e : events) {
        progress += e["event"] == "progress";
        if (e["event"] == "region")
            regions.push_back(e["region"]);
    }
    EXPECT_GT(progress, 4u);
    EXPECT_EQ((std::vector<std::string>{"main", "ota"}), regions);
    const nlohmann::json& result = events.back();
    EXPECT_EQ("result", result["event"]);
    EXPECT_EQ(true, result["ok"]);
    EXPECT_EQ("Upgrade OK!", result["message"]);
    EXPECT_EQ(70064u + 0x8000u, result["bytes"].get<unsigned>());
    // The human text went to the error stream.
    EXPECT_NE(std::string::npos, r.err.find("100%: Upgrade OK!"));
}

}  // namespace
