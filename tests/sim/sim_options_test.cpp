// Command-line and fault-spec parsing of the simulator library.
#include <gtest/gtest.h>

#include "sim/fault_plan.h"
#include "sim/sim_options.h"

namespace {

bool Parse(std::vector<std::string> args, ksim::SimOptions& options, std::string& error)
{
    args.insert(args.begin(), "kestrel_sim");
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    return ksim::ParseSimOptions(static_cast<int>(args.size()), argv.data(), options, error);
}

TEST(SimOptions, ValuesAreParsedWhole)
{
    ksim::SimOptions options;
    std::string error;
    ASSERT_TRUE(Parse({"--flash-size", "0x100000", "--flash-id", "ef4018", "--sync-fail", "2",
                       "--fault", "any:every:noreply", "--fault", "SetPC:1:vanish"},
                      options, error)) << error;
    EXPECT_EQ(options.flashSize, 0x100000u);
    EXPECT_EQ(options.flashId, (std::vector<uint8_t>{0xEF, 0x40, 0x18}));
    EXPECT_EQ(options.syncFail, 2u);
    EXPECT_EQ(options.faults.size(), 2u);

    for (std::vector<std::string> bad : std::vector<std::vector<std::string>>{
             {"--responder", "256"}, {"--responder", "1x"}, {"--flash-id", "C84"},
             {"--flash-id", "ZZ"}, {"--rom-flash", "maybe"}, {"--sessions", "-1"},
             {"--bogus"}, {"stray"}, {"--flash"}}) {
        ksim::SimOptions rejected;
        EXPECT_FALSE(Parse(bad, rejected, error)) << bad[0];
    }
}

TEST(SimFaultPlan, SpecsParseOrAreRejected)
{
    for (const char* spec : {"GetFlashId:0:noreply", "GetFlashId:x:noreply", "Bogus:1:noreply",
                             "GetFlashId:1:melt", "GetFlashId:1:error", "GetFlashId:1:error123",
                             "GetFlashId:1", "GetFlashId:1:noreply:x", "GetFlashId:1:noreply@",
                             "0x100:1:noreply"}) {
        ksim::FaultPlan plan;
        std::string error;
        EXPECT_FALSE(plan.Add(spec, error)) << spec;
        EXPECT_FALSE(error.empty()) << spec;
    }
    const struct {
        const char* spec;
        int opcode;
        ksim::FaultKind kind;
        uint8_t errorType;
        uint32_t baud;
    } cases[] = {
        {"WriteSector:every:error2@921600", 0x1B, ksim::FaultKind::Error, 2, 921600},
        {"0x1a:3:error7F", 0x1A, ksim::FaultKind::Error, 0x7F, 0},
        {"any:1+:toolong", -1, ksim::FaultKind::TooLong, 0, 0},
        {"Read_1_byte:2:short", 0x00, ksim::FaultKind::Short, 0, 0},
        {"Write_8_byte:2:bitflip", 0x07, ksim::FaultKind::BitFlip, 0, 0},
    };
    for (const auto& c : cases) {
        ksim::FaultPlan plan;
        std::string error;
        ASSERT_TRUE(plan.Add(c.spec, error)) << c.spec << ": " << error;
        uint32_t speed = c.baud ? c.baud : 115200;
        uint8_t opcode = static_cast<uint8_t>(c.opcode < 0 ? 0x18 : c.opcode);
        const ksim::FaultSpec* fired = nullptr;
        for (int i = 0; i < 3 && !fired; ++i)
            fired = plan.Match(opcode, speed);
        ASSERT_NE(fired, nullptr) << c.spec;
        EXPECT_EQ(fired->kind, c.kind) << c.spec;
        EXPECT_EQ(fired->errorType, c.errorType) << c.spec;
    }
}

TEST(SimFaultPlan, FirstFiringSpecWinsButAllCount)
{
    ksim::FaultPlan plan;
    std::string error;
    ASSERT_TRUE(plan.Add("any:2:noreply", error));
    ASSERT_TRUE(plan.Add("EraseFlash:2:error3", error));
    EXPECT_EQ(plan.Match(0x19, 115200), nullptr);
    const ksim::FaultSpec* second = plan.Match(0x19, 115200);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->kind, ksim::FaultKind::NoReply);
    EXPECT_EQ(plan.Match(0x19, 115200), nullptr);
}

}  // namespace
