// First contact against the simulated board: the tool's DTR/RTS changes reach the
// simulator's board wiring through the adapter shim's modem channel, so a chip that
// runs its firmware is brought into the boot ROM by --reset and restarted by --after.
#include <gtest/gtest.h>

#include <memory>
#include <sys/stat.h>

#include "tests/support/fake_sysfs.h"
#include "tests/upgrade/upgrade_fixtures.h"

namespace {

constexpr uint8_t kSysReboot = 0x12;

// A bench whose tool runs under the adapter shim; with modem lines the shim carries
// them to the simulator's channel, without them the pty refuses the ioctls as a
// port without modem lines does.
struct LineBench {
    UpgradeBench bench;
    Bytes image = MakeImage(1, {3000}, 41);

    explicit LineBench(bool modemLines, const std::string& shimSetting = "", size_t imageBytes = 3000)
    {
        image = MakeImage(1, {imageBytes}, 41);
        bench.WriteFile("main.img", image);
        bench.UseShim(KESTREL_ADAPTER_SHIM);
        if (modemLines)
            bench.toolLauncher.push_back("KESTREL_SHIM_MODEM=" + Channel());
        if (!shimSetting.empty())
            bench.toolLauncher.push_back(shimSetting);
    }
    std::string Channel() const { return bench.Path("modem.sock"); }
    // A fake sysfs root the shim shows the tool, with one made-up adapter whose
    // device node leads to this bench's simulator (started with "--link board0").
    std::string FakeSysfs(const FakeAdapter& adapter = {})
    {
        const std::string root = bench.Path("fake");
        if (mkdir(root.c_str(), 0700) != 0 || !MakeFakeAdapter(root, bench.Path("board0"), adapter))
            ADD_FAILURE() << "fake sysfs at " << root;
        bench.toolLauncher.push_back("KESTREL_SHIM_SYSFS_ROOT=" + root);
        return root;
    }

    ProcessResult Run(std::vector<std::string> toolArgs, std::vector<std::string> simArgs)
    {
        toolArgs.insert(toolArgs.end(), {"-i", "main.img", "-u", "0"});
        simArgs.insert(simArgs.end(), {"--modem-channel", Channel()});
        return bench.Run(toolArgs, simArgs);
    }
    bool Programmed() const
    {
        Bytes expected = bench.InitialFlash();
        ModelBlockWrite(expected, 0, image);
        return FirstDifference(expected, bench.Flash()) == -1;
    }
};

// A board in firmware mode ignores the sync until reset is released with the boot
// strap held: only the sequence for its wiring gets the upgrade through.
TEST(ResetSequence, ReachesTheBootRomOnlyWithTheSequenceForTheWiring)
{
    const struct { std::vector<std::string> toolArgs; const char* wiring; bool reachesBootRom; } cases[] = {
        {{"--reset", "classic"}, "two-transistor-rts-reset", true},
        {{}, "two-transistor-rts-reset", false},  // no sequence: stays in its firmware
        {{"--reset", "inverted"}, "two-transistor-rts-reset", false},
        {{"--reset", "inverted"}, "two-transistor-dtr-reset", true},
        {{"--reset", "R1,D1,W20,R0,W20,D0"}, "direct-rts-reset", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.wiring) + (c.toolArgs.empty() ? "" : " " + c.toolArgs[1]));
        LineBench line(true);
        std::vector<std::string> args = {"-d", "1", "-l", line.bench.Path("host.log")};
        args.insert(args.end(), c.toolArgs.begin(), c.toolArgs.end());
        ProcessResult r = line.Run(args, {"--wiring", c.wiring});
        EXPECT_EQ(!c.toolArgs.empty(), Has(ReadText(line.bench.Path("host.log")), "]Modem lines: reset sequence done\n"));
        EXPECT_EQ(c.reachesBootRom, Has(line.bench.Trace(), "event reset boot-rom"));
        EXPECT_TRUE(Has(r.out, c.reachesBootRom ? "Upgrade OK!" : "Synchron1 error!")) << r.out << r.err;
        EXPECT_EQ(c.reachesBootRom, line.Programmed());
        EXPECT_FALSE(Has(r.err, "modem lines")) << r.err;
    }
}

// The sequence is set from the settings file just as from the option.
// The settings keys steer what the options do: the reset sequence brings a board
// in firmware mode into its boot ROM and the after action reboots it (one SysReboot
// on the wire); auto-baud on the fast link lands on the rate the line carries.
TEST(FirstContactSettings, TheKeysOfTheSettingsFileTakeEffect)
{
    const struct {
        std::string settings;
        std::vector<std::string> toolArgs, simArgs;
        size_t reboots;
        const char* expectedErr;
    } cases[] = {
        {"[comm]\nstrResetSequence=classic\nstrAfter=reboot\n", {}, {"--wiring", "two-transistor-rts-reset"}, 1, ""},
        {"[setting]\nbFastLink=1\nbAutoBaud=1\n", {"-b", "3000000"}, {"--clean-rate-max", "2000000"}, 0,
         "link: 2000000 bit/s, verified"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.settings);
        LineBench line(true);
        WriteText(line.bench.Path("settings_mac.ini"), c.settings + "[debug]\niDebugOp=n\n");
        ProcessResult r = line.Run(c.toolArgs, c.simArgs);
        EXPECT_NE(std::string::npos, r.out.find("Upgrade OK!")) << r.out << r.err;
        EXPECT_TRUE(line.Programmed());
        EXPECT_EQ(c.reboots, CountFramesReceived(line.bench.Trace(), kSysReboot));
        EXPECT_NE(std::string::npos, r.err.find(c.expectedErr)) << r.err;
    }
}

// A port without modem lines: one warning on stderr, and the run is the run without
// the sequence, byte for byte on standard output.
TEST(ResetSequenceWithoutModemLines, WarnsOnceAndRunsAsWithout)
{
    LineBench plain(false), withReset(false);
    ProcessResult a = plain.Run({}, {});
    ProcessResult b = withReset.Run({"--reset", "classic", "--after", "R1,R0"}, {});
    EXPECT_EQ(a.exitStatus, b.exitStatus);
    EXPECT_EQ(WithoutDevicePaths(a.out), WithoutDevicePaths(b.out));
    EXPECT_EQ(1u, CountOccurrences(b.err, "has no modem lines")) << b.err;
    EXPECT_TRUE(Has(b.err, "the reset sequence was not run")) << b.err;  // said at the first refusal
    EXPECT_TRUE(withReset.Programmed());
}

TEST(AfterAction, RunsOnceAfterSuccessAndNeverAfterFailure)
{
    const std::vector<std::string> rtsReset = {"--wiring", "two-transistor-rts-reset"};
    const struct {
        std::vector<std::string> toolArgs, simArgs;
        bool succeeds;
        size_t reboots;          // SysReboot frames the target received
        const char* traceEvent;  // in the trace after the run, or ""
        const char* err;         // the start of standard error ("": empty)
    } cases[] = {
        {{"--after", "stay"}, {}, true, 0, "", ""},  // the classic end
        {{"--after", "reboot"}, {}, true, 1, "event reboot, boot rom started", ""},
        {{"--after", "reboot"}, {"--fault", "EraseFlash:every:error2"}, false, 0, "", ""},
        // A reboot the target refuses leaves the run a success, with a warning.
        {{"--after", "reboot"}, {"--fault", "SysReboot:1:error2"}, true, 1, "", "warning: the target did not ack"},
        {{"--reset", "classic", "--after", "reboot"}, rtsReset, true, 1, "event reboot, firmware running", ""},
        {{"--reset", "classic", "--after", "R1,W50,R0"}, rtsReset, true, 0, "event reset firmware", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.toolArgs.back() + (c.simArgs.empty() ? "" : " " + c.simArgs[1]));
        LineBench line(true);
        ProcessResult r = line.Run(c.toolArgs, c.simArgs);
        const std::string trace = line.bench.Trace();
        EXPECT_EQ(c.succeeds, Has(r.out, "Upgrade OK!")) << r.out << r.err;
        EXPECT_EQ(c.reboots, CountFramesReceived(trace, kSysReboot)) << trace;
        EXPECT_TRUE(Has(trace, c.traceEvent)) << trace;
        EXPECT_EQ(0u, r.err.find(c.err)) << r.err;
        EXPECT_EQ(*c.err == '\0', r.err.empty()) << r.err;
    }
}

// A sequence that cannot be read, or auto-baud without the fast link, is refused
// before anything reaches the port.
TEST(FirstContactRefusal, IsMadeBeforeTheFirstByte)
{
    const struct { std::vector<std::string> args; const char* line; } rows[] = {
        {{"--reset", "D2"}, "--reset D2: step \"D2\""}, {{"--after", "W"}, "--after W: step \"W\""},
        {{"--auto-baud"}, "--auto-baud needs the fast link"},
    };
    for (const auto& row : rows) {
        LineBench line(true);
        ProcessResult r = line.Run(row.args, {});
        EXPECT_EQ(2, r.exitStatus);
        EXPECT_NE(std::string::npos, r.err.find(row.line)) << r.err;
        EXPECT_EQ(0u, CountOccurrences(line.bench.Trace(), "rx "));
    }
}

constexpr uint8_t kWriteSector = 0x1B;

// The rate is found, and the flash is programmed correctly at it. The image spans
// two blocks, so a fault after the tenth write still has writes after it.
TEST(AutoBaud, LandsOnTheFastestRateTheLineCarriesAndProgramsCorrectly)
{
    const struct {
        std::vector<std::string> toolArgs, simArgs;
        const char* shimSetting;
        const char* expectedErr;  // on standard error
        const char* lastRate;     // every write after the negotiation goes at this rate
    } cases[] = {
        {{"-b", "3000000"}, {"--clean-rate-max", "2000000"}, "", "link: 2000000 bit/s, verified", "2000000"},
        {{"-b", "3000000"}, {}, "", "link: 3000000 bit/s, verified", "3000000"},  // the ceiling
        {{"-b", "3000000"}, {}, "KESTREL_SHIM_MAX_RATE=1500000", "link: 1500000 bit/s, verified", "1500000"},
        {{"-b", "2000000"}, {"--fault", "WriteSector:10:degrade=1500000"}, "",
         "link: errors at 2000000 bit/s, stepped down to 1500000 bit/s", "1500000"},
        // The ladder's last rung is 921600: reached on the last attempt, the run stays at it.
        {{"-b", "3000000"}, {"--fault", "WriteSector:10:degrade=921600"}, "", "stepped down to 921600 bit/s", "921600"},
        {{"-b", "3000000", "--json"}, {"--clean-rate-max", "2000000"}, "", "link: 2000000 bit/s, verified", "2000000"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expectedErr);
        LineBench line(false, c.shimSetting, 100000);
        std::vector<std::string> args = {"--fast", "--auto-baud", "-d", "1", "-l", line.bench.Path("host.log")};
        args.insert(args.end(), c.toolArgs.begin(), c.toolArgs.end());
        ProcessResult r = line.Run(args, c.simArgs);
        const bool stepped = Has(r.err, "stepped down");  // then the rate verified first was the -b ceiling
        const std::string log = ReadText(line.bench.Path("host.log")), verified = stepped ? c.toolArgs[1] : c.lastRate;
        EXPECT_TRUE(Has(log, "]Link rate verified: " + verified + "\n")) << log;
        EXPECT_EQ(0, r.exitStatus);
        EXPECT_TRUE(Has(r.out + r.err, "Upgrade OK!")) << r.out << r.err;
        EXPECT_TRUE(Has(r.err, c.expectedErr)) << r.err;
        EXPECT_TRUE(line.Programmed());
        const std::string trace = line.bench.Trace();
        const size_t writes = CountFramesReceived(trace, kWriteSector);
        const size_t writesAtLast = CountFramesReceived(trace, kWriteSector, c.lastRate);
        EXPECT_GT(writes, 10u);
        if (stepped) {
            EXPECT_GT(writesAtLast, 0u);
            EXPECT_LT(writesAtLast, writes);
        } else {
            EXPECT_EQ(writes, writesAtLast);
        }
        const std::string linkEvent = std::string("{\"event\":\"link\",\"rate\":") + c.lastRate + "}";
        EXPECT_EQ(c.toolArgs.back() == "--json", Has(r.out, linkEvent)) << r.out;
    }
}

// -c auto against made-up adapters in a fake sysfs whose device nodes lead to
// simulators: one port is taken as it is; of several, the one whose target answers
// the synchronisation; none answering is an error naming the candidates.
TEST(PortDiscovery, FindsTheOnePortWhoseBoardAnswers)
{
    // ports: 1 or 2; ttyUSB0 is the bench's board, ttyUSB1 another
    // otherBoard: the second simulator's wiring ("": it answers too)
    const struct { int ports; const char* otherBoard; bool found; const char* expectedErr; } cases[] = {
        {1, "", true, "-c auto: using /dev/ttyUSB0 (/dev/serial/by-id/usb-FTDI_FT232R_USB_UART_KS000001-if00-port0)"},
        {2, "two-transistor-rts-reset", true, "-c auto: using /dev/ttyUSB0"},
        {2, "", false,
         "-c auto: more than one port answered; candidates:\n  /dev/ttyUSB0 (/dev/serial/by-id/"
         "usb-FTDI_FT232R_USB_UART_KS000001-if00-port0)\n  /dev/ttyUSB1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expectedErr);
        LineBench line(false);
        const std::string root = line.FakeSysfs();
        std::unique_ptr<SimProcess> other;
        if (c.ports == 2) {
            other.reset(new SimProcess(*c.otherBoard ? std::vector<std::string>{"--wiring", c.otherBoard}
                                                     : std::vector<std::string>{}));
            ASSERT_TRUE(other->Started());
            const FakeAdapter second{"ttyUSB1", "0403", "6001", "ftdi_sio", "KS000002"};
            ASSERT_TRUE(MakeFakeAdapter(root, other->DevicePath(), second));
        }
        ProcessResult r = line.Run({"-c", "auto"}, {"--link", line.bench.Path("board0")});
        EXPECT_TRUE(Has(r.err, c.expectedErr)) << r.err;
        EXPECT_EQ(c.ports == 2, Has(r.err, "-c auto: trying /dev/ttyUSB1")) << r.err;  // one port is not probed
        EXPECT_EQ(c.found, Has(r.out, "COM:/dev/ttyUSB0\n")) << r.out;
        EXPECT_EQ(c.found, Has(r.out, "Upgrade OK!")) << r.out << r.err;
        EXPECT_EQ(c.found, line.Programmed());
        EXPECT_EQ(c.found, Has(r.out, "COM:")) << r.out;
        EXPECT_TRUE(c.found || r.exitStatus == 1) << r.exitStatus;
        if (c.ports == 2) {  // both made-up adapters are listed, in the table and as JSON lines
            const std::string table = line.bench.Run({"--list-ports"}, {}).out;
            EXPECT_TRUE(Has(table, "/dev/ttyUSB1     0403:6001 KS000002             ftdi_sio     "
                                   "/dev/serial/by-id/usb-FTDI_FT232R_USB_UART_KS000002-if00-port0 FTDI FT232R\n"))
                << table;
            EXPECT_TRUE(Has(line.bench.Run({"--list-ports", "--json"}, {}).out, "\"serial\":\"KS000002\""));
        }
    }
}

// Adapter awareness on a made-up adapter: the family caps the auto-baud ladder and
// names the adapter in the start event; on the fast link an FTDI latency timer is
// lowered to 1 ms and the driver's low-latency flag set, both put back when the port
// closes.
TEST(AdapterAwareness, FamilyCapsTheLadderAndTheLatencyTimerIsRestored)
{
    const struct {
        FakeAdapter adapter;
        std::vector<std::string> args;
        const char *err, *json, *latencyAfter, *serialFlags;  // the flags word as set, open by open
    } rows[] = {
        {FakeAdapter{"ttyUSB0", "1a86", "7523", "ch341", "S1", "WCH", "USB_Serial", -1},
         {"--auto-baud", "-b", "3000000", "--json"}, "link: 921600 bit/s, verified", "\"adapter\":\"CH340\"", "", ""},
        {FakeAdapter{}, {}, "adapter latency timer: 16 ms -> 1 ms while the port is open\n", "", "16", "0\n8192\n0\n8192\n0\n"},
    };
    for (const auto& row : rows) {
        LineBench line(false);
        const std::string root = line.FakeSysfs(row.adapter);
        if (*row.serialFlags)
            WriteText(root + "/serial_flags", "0\n");
        std::vector<std::string> args = {"-c", "/dev/ttyUSB0", "--fast"};
        args.insert(args.end(), row.args.begin(), row.args.end());
        ProcessResult r = line.Run(args, {"--link", line.bench.Path("board0")});
        EXPECT_NE(std::string::npos, (r.out + r.err).find("Upgrade OK!")) << r.out << r.err;
        EXPECT_EQ(1u, CountOccurrences(r.err, row.err)) << r.err;
        EXPECT_NE(std::string::npos, r.out.find(row.json)) << r.out;
        EXPECT_EQ(row.latencyAfter, FakeLatencyTimer(root, row.adapter));
        EXPECT_EQ(row.serialFlags, ReadText(root + "/serial_flags"));
    }
}

}  // namespace
