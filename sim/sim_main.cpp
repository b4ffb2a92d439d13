// kestrel_sim: a simulated target on a pseudo-terminal, for tests, demos and users
// without hardware. See sim/README.md.
#include <cstdio>
#include <string>

#include "sim/fault_plan.h"
#include "sim/modem_channel.h"
#include "sim/nor_flash.h"
#include "sim/pty_device.h"
#include "sim/sim_loop.h"
#include "sim/sim_options.h"
#include "sim/sim_target.h"
#include "sim/stop_signal.h"
#include "sim/trace_log.h"

namespace {

int Fail(const std::string& message)
{
    std::fprintf(stderr, "kestrel_sim: %s\n", message.c_str());
    return 2;
}

ksim::TargetConfig MakeTargetConfig(const ksim::SimOptions& options)
{
    ksim::TargetConfig config;
    config.responder = options.responder;
    config.flashId = options.flashId;
    config.romServesFlash = options.RomServesFlash();
    config.startAsFirmware = options.firmware;
    config.syncFailCount = options.syncFail;
    config.board.wiring = options.wiring;
    config.board.activeHigh = options.lineActiveHigh == 1;
    if (options.pace) {
        config.eraseUs = static_cast<int64_t>(options.eraseMs) * 1000;
        config.programUs = static_cast<int64_t>(options.programMs) * 1000;
    }
    return config;
}

// The erase count of every block erased at least once, one line each, so that a test
// can tell how often the host wore each block.
void PrintEraseCounts(const ksim::NorFlash& flash)
{
    for (uint32_t block = 0; block < flash.BlockCount(); ++block)
        if (flash.EraseCount(block) > 0)
            std::printf("erase-count 0x%08X %u\n", block * ksim::NorFlash::kBlockSize,
                        flash.EraseCount(block));
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    // --version: one line, like the tool's.
    if (argc == 2 && std::string(argv[1]) == "--version") {
        std::printf("kestrel_sim %s\n", KESTREL_VERSION);
        return 0;
    }
    ksim::SimOptions options;
    std::string error;
    if (!ksim::ParseSimOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "kestrel_sim: %s\n%s", error.c_str(), ksim::SimUsage());
        return 2;
    }
    if (options.help) {
        std::fputs(ksim::SimUsage(), stdout);
        return 0;
    }
    ksim::FaultPlan faults;
    for (const std::string& spec : options.faults)
        if (!faults.Add(spec, error))
            return Fail(error);
    ksim::TraceLog trace;
    if (!options.tracePath.empty() && !trace.Open(options.tracePath, error))
        return Fail(error);
    ksim::NorFlash flash;
    if (!flash.Open(options.flashPath, options.flashSize, error))
        return Fail(error);
    if (!ksim::InstallStopSignals(error))
        return Fail(error);
    ksim::PtyDevice pty;
    if (!pty.Open(error))
        return Fail(error);
    if (options.sessions > 0 && !pty.CanCountCloses())
        return Fail("--sessions needs close notifications, which this system does not offer");
    if (!options.linkPath.empty() && !pty.Link(options.linkPath, error))
        return Fail(error);

    ksim::ModemChannel modem;
    if (!options.modemChannelPath.empty() && !modem.Open(options.modemChannelPath, error))
        return Fail(error);

    std::printf("%s\n", pty.SlavePath().c_str());
    std::fflush(stdout);

    ksim::SimTarget target(MakeTargetConfig(options), flash, faults, trace);
    ksim::LoopConfig loopConfig;
    loopConfig.pace = options.pace;
    loopConfig.sessions = options.sessions;
    loopConfig.replyLatencyUs = static_cast<int64_t>(options.usbLatencyMs) * 1000;
    loopConfig.noise = ksim::LineNoise(options.cleanRateMax, options.bitErrorRate, options.seed);
    ksim::SimLoop loop(pty, target, trace, loopConfig, &modem);
    int status = loop.Run(ksim::StopSignalFd());
    modem.Close();
    pty.Close();
    trace.Event("exit");
    PrintEraseCounts(flash);
    return status;
}
