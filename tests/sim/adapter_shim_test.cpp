// The adapter shim (tests/e2e/adapter_shim.c) in a program of its own against the
// simulator's pty: modem line changes reach the wired chip in order with the bytes
// written around them, an adapter's rate limit, and a made-up USB adapter in a
// fake sysfs that the tool's own port list finds and that leads to the simulator.
#include <gtest/gtest.h>

#include "tests/support/fake_sysfs.h"
#include "tests/support/process.h"

namespace {

// The probe under the shim with the given variables; its output lines.
std::string Probe(const std::vector<std::string>& variables, const std::vector<std::string>& steps)
{
    std::vector<std::string> args = {std::string("LD_PRELOAD=") + KESTREL_ADAPTER_SHIM,
                                     // the sanitizer runtimes want to come first
                                     "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1"};
    args.insert(args.end(), variables.begin(), variables.end());
    args.push_back(KESTREL_SHIM_PROBE);
    args.insert(args.end(), steps.begin(), steps.end());
    ProcessResult result = RunProcess("/usr/bin/env", args, ProcessOptions());
    EXPECT_EQ(0, result.exitStatus) << result.err;
    return result.out;
}

// The reset presets the tool offers, as steps: the first for the common circuit
// where RTS drives reset and DTR the boot strap, the second with the roles swapped.
const std::vector<std::string> kClassic = {"D0+R1", "D1+R0", "D0"};
const std::vector<std::string> kInverted = {"D1+R0", "D0+R1", "R0"};

TEST(AdapterShim, ResetSequencesReachTheBootRomOnlyOnTheMatchingWiring)
{
    const struct { const char* wiring; std::vector<std::string> sequence; bool bootRom; } cases[] = {
        {"two-transistor-rts-reset", kClassic, true}, {"two-transistor-rts-reset", kInverted, false},
        {"two-transistor-dtr-reset", kInverted, true}, {"two-transistor-dtr-reset", kClassic, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.wiring) + (c.sequence == kClassic ? " classic" : " inverted"));
        TempDir dir;
        SimProcess sim({"--wiring", c.wiring, "--modem-channel", dir.File("modem"), "--trace", dir.File("trace")});
        ASSERT_TRUE(sim.Started());
        // No pause anywhere: the sync byte written right after the last change must
        // meet the chip as that change left it.
        std::vector<std::string> steps = {"open", sim.DevicePath(), "sync"};
        steps.insert(steps.end(), c.sequence.begin(), c.sequence.end());
        steps.insert(steps.end(), {"sync", "get"});
        EXPECT_EQ(std::string("open ok\nsync none\n") + (c.bootRom ? "sync OK\n" : "sync none\n") + "dtr=0 rts=0\n",
                  Probe({"KESTREL_SHIM_MODEM=" + dir.File("modem")}, steps));
        const std::string trace = ReadText(dir.File("trace"));
        EXPECT_TRUE(Has(trace, "event reset held\n"));
        EXPECT_TRUE(Has(trace, c.bootRom ? "event reset boot-rom\n" : "event reset firmware\n")) << trace;
    }
}

TEST(AdapterShim, BytesWrittenWhileResetIsHeldAreLostAndTheLinesOutliveTheProcess)
{
    TempDir dir;
    SimProcess sim({"--wiring", "direct-rts-reset", "--modem-channel", dir.File("modem"), "--trace", dir.File("trace")});
    ASSERT_TRUE(sim.Started());
    const std::string modem = "KESTREL_SHIM_MODEM=" + dir.File("modem");
    EXPECT_EQ("open ok\nsync none\ndtr=1 rts=1\n", Probe({modem}, {"open", sim.DevicePath(), "D1", "R1", "sync", "get"}));
    // A second process finds the lines as the first left them: reset is let go
    // with the strap still held. A byte sent just before reset is held again still
    // meets the boot ROM, and its answer is not taken back.
    EXPECT_EQ("open ok\ndtr=1 rts=1\nsync OK\nanswer OK\nsync none\n",
              Probe({modem}, {"open", sim.DevicePath(), "get", "R0", "sync", "send", "R1", "answer", "sync"}));
    const std::string trace = ReadText(dir.File("trace"));
    EXPECT_TRUE(Has(trace, "event modem dtr=1 rts=0\nevent modem dtr=1 rts=1\nevent reset held\n")) << trace;
    EXPECT_TRUE(Has(trace, "event reset held, ignored 1 bytes\n")) << trace;
}

// Without the modem channel the pty refuses the lines; with a rate limit the
// adapter refuses faster rates and keeps the old one.
TEST(AdapterShim, APlainPtyRefusesTheLinesAndAnAdapterRefusesRatesAboveItsLimit)
{
    SimProcess sim({});
    ASSERT_TRUE(sim.Started());
    EXPECT_EQ("open ok\nD1 failed: Inappropriate ioctl for device\nget failed: Inappropriate ioctl for device\n",
              Probe({}, {"open", sim.DevicePath(), "D1", "get"}));
    EXPECT_EQ("open ok\nrate 921600 ok\nspeed 921600\nrate 3000000 failed: Invalid argument\nspeed 921600\n",
              Probe({"KESTREL_SHIM_MAX_RATE=921600"}, {"open", sim.DevicePath(), "rate", "921600", "rate", "3000000"}));
    EXPECT_EQ("open ok\nrate 3000000 ok\nspeed 3000000\n", Probe({}, {"open", sim.DevicePath(), "rate", "3000000"}));
}

TEST(AdapterShim, AFakeSysfsPresentsAUsbAdapterThatLeadsToTheSimulator)
{
    FakeAdapter acm;
    acm.ttyName = "ttyACM0";
    acm.vendor = "2e8a";
    acm.product = "000a";
    acm.driver = "cdc_acm";
    acm.manufacturer = "Kestrel";
    acm.productName = "Probe";
    acm.latencyTimer = -1;
    // device: where the tty's device link leads
    const struct { FakeAdapter adapter; const char* port; const char* byId; const char* device; } cases[] = {
        {FakeAdapter(), "port /dev/ttyUSB0 0403:6001 ftdi_sio KS000001",
         "/dev/serial/by-id/usb-FTDI_FT232R_USB_UART_KS000001-if00-port0",
         "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0/ttyUSB0"},
        {acm, "port /dev/ttyACM0 2e8a:000a cdc_acm KS000001", "/dev/serial/by-id/usb-Kestrel_Probe_KS000001-if00",
         "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.adapter.ttyName);
        TempDir dir;
        SimProcess sim({});
        ASSERT_TRUE(sim.Started());
        ASSERT_TRUE(MakeFakeAdapter(dir.Path(), sim.DevicePath(), c.adapter));
        const std::string dev = "/dev/" + c.adapter.ttyName;
        const std::string sys = "/sys/class/tty/" + c.adapter.ttyName + "/device";
        std::string expected = std::string(c.port) + " " + c.byId + "\n" + dev + "\n" + c.device + "\n" + "open ok\nsync OK\n";
        std::vector<std::string> steps = {"ports", "realpath", c.byId, "realpath", sys, "open", c.byId, "sync"};
        if (c.adapter.latencyTimer >= 0) {
            steps.insert(steps.end(), {"read", sys + "/latency_timer", "write", sys + "/latency_timer", "1"});
            expected += "16\nwrite ok\n";
        }
        EXPECT_EQ(expected, Probe({"KESTREL_SHIM_SYSFS_ROOT=" + dir.Path()}, steps));
        EXPECT_EQ(c.adapter.latencyTimer >= 0 ? "1" : "", FakeLatencyTimer(dir.Path(), c.adapter));
    }
}

}  // namespace
