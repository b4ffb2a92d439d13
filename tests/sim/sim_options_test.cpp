// Command-line and fault-spec parsing of the simulator library.
#include <gtest/gtest.h>

#include "sim/fault_plan.h"
#include "sim/sim_options.h"
#include "tests/support/process.h"

namespace {

bool Parse(std::vector<std::string> words, ksim::SimOptions& options, std::string& error)
{
    ArgList args(std::move(words));
    return ksim::ParseSimOptions(args.argc(), args.argv(), options, error);
}

TEST(SimOptions, ValuesAreParsedWhole)
{
    ksim::SimOptions options;
    std::string error;
    ASSERT_TRUE(Parse({"--flash-size", "0x100000", "--flash-id", "ef4018", "--wiring", "direct-dtr-reset",
                       "--line-active", "high", "--bit-error-rate", "1e-4", "--seed", "0x10"},
                      options, error)) << error;
    EXPECT_EQ(options.flashSize, 0x100000u);
    EXPECT_EQ(options.flashId, (std::vector<uint8_t>{0xEF, 0x40, 0x18}));
    EXPECT_EQ(options.wiring, ksim::Wiring::DirectDtrReset);
    EXPECT_EQ(options.lineActiveHigh, 1);
    EXPECT_EQ(options.bitErrorRate, 1e-4);
    EXPECT_EQ(options.seed, 16u);

    for (std::vector<std::string> bad : std::vector<std::vector<std::string>>{
             {"--responder", "256"}, {"--responder", "1x"}, {"--flash-id", "C84"},
             {"--flash-id", "ZZ"}, {"--rom-flash", "maybe"}, {"--sessions", "-1"},
             {"--bogus"}, {"stray"}, {"--flash"}, {"--wiring", "direct"}, {"--bit-error-rate", "1.5"},
             {"--bit-error-rate", "1e-3x"}, {"--seed", "-1"},
             {"--wiring", "two-transistor-rts-reset", "--line-active", "high"}}) {
        ksim::SimOptions rejected;
        EXPECT_FALSE(Parse(bad, rejected, error)) << bad[0];
    }
}

TEST(SimFaultPlan, MalformedSpecsAreRejectedWithAReason)
{
    for (const char* spec : {"GetFlashId:0:noreply", "GetFlashId:x:noreply", "Bogus:1:noreply",
                             "GetFlashId:1:melt", "GetFlashId:1:error", "GetFlashId:1:error123",
                             "GetFlashId:1", "GetFlashId:1:noreply:x", "GetFlashId:1:noreply@",
                             "0x100:1:noreply", "GetFlashId:1:degrade=", "GetFlashId:1:degrade=fast"}) {
        ksim::FaultPlan plan;
        std::string error;
        EXPECT_FALSE(plan.Add(spec, error)) << spec;
        EXPECT_FALSE(error.empty()) << spec;
    }
}

}  // namespace
