// The flash debug mode from the command line against the simulated target: what
// each operation leaves in flash and in files, and that failures end the tool with
// 255. The boot ROM serves the flash, since the debug mode uploads no boot-loader.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <sys/stat.h>

#include "serial/CCommU.h"
#include "tests/upgrade/upgrade_fixtures.h"

namespace {

const std::vector<std::string> kRomFlash = {"--rom-flash", "yes"};

// The read is a whole block and a tail; the erase range meets one block; the
// written file ends inside a sector, and the 0xFF sent after it leaves the rest of
// that sector as it was (flash that is not erased takes the AND of old and new).
TEST(FlashDebugEndToEnd, EachOperationTouchesExactlyItsRange)
{
    const Bytes file = PatternBytes(0x11234, 5);
    const struct {
        std::vector<std::string> options;
        std::vector<std::string> out;
        std::function<void(Bytes&)> model;  // the flash afterwards, from the flash before
    } cases[] = {
        {{"-D", "r", "-A", "0x30200", "-L", "0x10100"},
         {"Debug op:read\nAddress:0x00030200\nLength:0x00010100\n",
          "Read addr:0x00030200 len:0x00010100 OK!\nData saved in file:flash_A_0x30200_L_0x10100.bin\n"},
         [](Bytes&) {}},
        {{"-D", "e", "-A", "0x10080", "-L", "0x100"}, {"Erase addr:0x00010080 len:0x00000100 OK!\n"},
         [](Bytes& f) { std::fill(f.begin() + 0x10000, f.begin() + 0x20000, 0xFF); }},
        {{"-D", "w", "-A", "0x20000", "-L", "0x11234", "-B", "image.bin"},
         {"Write bin file:image.bin\n", "Write addr:0x00020000 len:0x00011234 OK!\n"}, [&](Bytes& f) {
             for (size_t i = 0; i < file.size(); ++i)
                 f[0x20000 + i] &= file[i];
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.out.back());
        UpgradeBench bench;
        bench.WriteFile("image.bin", file);
        ProcessResult r = bench.Run(c.options, kRomFlash);
        EXPECT_EQ(0, r.exitStatus) << r.out;
        for (const std::string& line : c.out)
            EXPECT_TRUE(Has(r.out, line)) << r.out;
        Bytes expected = bench.InitialFlash();
        c.model(expected);
        EXPECT_EQ(-1, FirstDifference(bench.Flash(), expected));
        EXPECT_EQ(1u, CountFramesReceived(bench.Trace(), 0x10, "115200")) << "ChangeBaud";
        if (c.options[1] == "r") {
            EXPECT_EQ(Bytes(expected.begin() + 0x30200, expected.begin() + 0x40300),
                      ReadFileBytes(bench.Path("flash_A_0x30200_L_0x10100.bin")));
            // The permissions any new file of this user gets, not the temporary file's private 0600.
            struct stat info;
            const mode_t mask = CurrentUmask();
            ASSERT_EQ(0, stat(bench.Path("flash_A_0x30200_L_0x10100.bin").c_str(), &info));
            EXPECT_EQ(0666u & ~mask, info.st_mode & 0777u);
        }
    }
}

// A target that hangs up or refuses must end the tool with its text, not hang it;
// a write file that cannot supply the range is refused before anything is written;
// a read that failed part-way leaves neither its file nor the temporary behind.
TEST(FlashDebugEndToEnd, FailuresEndTheToolWithStatus255AndLeaveFlashAndFolderAlone)
{
    const struct { std::string fault; std::vector<std::string> options; std::string line; } cases[] = {
        {"ReadSector:2:vanish", {"-D", "r", "-A", "0", "-L", "0x2000"},
         "Read failed: Cmd read sectors waits for ack timeout or comm error!\n"},
        {"EraseFlash:1:error3", {"-D", "e", "-A", "0", "-L", "0x100"}, "Erase failed: CMD checksum error!\n"},
        {"WriteSector:2:error2", {"-D", "w", "-A", "0", "-L", "0x2000", "-B", "data.bin"},
         "Write failed: CMD timeout!\n"},
        {"GetFlashId:every:noreply", {"-D", "r", "-A", "0", "-L", "0x200"}, "Get Flash ID error!\n"},
        {"", {"-D", "w", "-A", "0x20000", "-L", "0x2001", "-B", "data.bin"}, "Failed to read file: data.bin"},
        {"", {"-D", "w", "-A", "0", "-L", "0x200", "-B", "absent.bin"}, "Failed to open file: absent.bin\n"},
        // Ranges past the end of the 4 MiB flash: refused once the identifier is read.
        {"", {"-D", "e", "-A", "0x3F0000", "-L", "0x20000"},
         "Refused: debug range 0x003F0000-0x0040FFFF ends past the flash's 4194304 bytes (0x00000000-0x003FFFFF)\n"},
        {"", {"-D", "w", "-A", "0x3FFF00", "-L", "0x200", "-B", "data.bin"}, "Refused: debug range 0x003FFF00-0x004000FF"},
        {"", {"-D", "r", "-A", "0x400000", "-L", "0x200"}, "Refused: debug range 0x00400000-0x004001FF"},
        {"", {"-D", "r", "-A", "0", "-L", "0x20000"}, "Failed to write file: flash_A_"},  // past the file-size limit
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        UpgradeBench bench;
        bench.WriteFile("data.bin", Bytes(0x2000, 0x5A));
        // Files the tool writes may not grow past 32 KiB: a full disk, as far as it can tell.
        bench.toolLauncher = {"/bin/sh", "-c", "trap '' XFSZ; ulimit -f 64; exec \"$@\"", "sh"};
        std::vector<std::string> simArgs = kRomFlash;
        if (!c.fault.empty())
            simArgs.insert(simArgs.end(), {"--fault", c.fault});
        ProcessResult r = bench.Run(c.options, simArgs);
        EXPECT_EQ(255, r.exitStatus) << r.out;
        EXPECT_TRUE(Has(r.out, c.line)) << r.out;
        if (c.fault.rfind("WriteSector", 0) != 0) {  // a write refused part-way has programmed its start
            EXPECT_EQ(-1, FirstDifference(bench.Flash(), bench.InitialFlash()));
        }
        for (const auto& entry : std::filesystem::directory_iterator(bench.Path("")))
            EXPECT_NE(0u, entry.path().filename().string().rfind("flash_A_", 0)) << entry.path();
    }
}

// Settings keys reach what they steer: iSectorsPerCommand sets how many sectors one
// read command of the fast link carries (0x2000 bytes = 16 sectors; 15 is the most
// it takes), bExitCode turns the refusal's classic 255 into its class.
TEST(FlashDebugEndToEnd, LinkAndStatusKeysOfTheSettingsFileTakeEffect)
{
    // readCommands: ReadSector frames for the 16 sectors
    // refusedStatus: a range past the flash's end
    const struct { std::string settings; size_t readCommands; int refusedStatus; } cases[] = {
        {"[setting]\nbFastLink=1\niSectorsPerCommand=2\n", 8, 255},
        {"[setting]\nbFastLink=1\n", 4, 255},  // the fast link's default: four
        {"[setting]\nbFastLink=1\niSectorsPerCommand=15\nbExitCode=1\n", 2, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.settings);
        UpgradeBench bench;
        WriteText(bench.Path("settings_mac.ini"), "[debug]\niDebugOp=n\n" + c.settings);
        ProcessResult read = bench.Run({"-D", "r", "-A", "0", "-L", "0x2000"}, kRomFlash);
        EXPECT_EQ(0, read.exitStatus) << read.out;
        EXPECT_EQ(c.readCommands, CountFramesReceived(bench.Trace(), 0x1A, "921600"));
        ProcessResult refused = bench.Run({"-D", "r", "-A", "0x400000", "-L", "0x200"}, kRomFlash);
        EXPECT_EQ(c.refusedStatus, refused.exitStatus) << refused.out;
    }
}

// Held by another program (a missing device is in the driver's warning table).
TEST(FlashDebugEndToEnd, DeviceThatCannotBeOpenedFailsAtOnce)
{
    TempDir dir;
    SimProcess sim({"--rom-flash", "yes"});
    ASSERT_TRUE(sim.Started());
    CCommU holder;
    std::string path = sim.DevicePath();
    ASSERT_EQ(0, holder.Uart_Init(&path[0], 115200));
    ProcessResult r = RunProcess(ToolPath(), {"-D", "r", "-A", "0", "-L", "0x200", "-c", path}, {dir.Path()});
    holder.UART_Close();
    EXPECT_EQ(255, r.exitStatus) << r.out;
    EXPECT_TRUE(Has(r.out, "ERR: can't open serial port:" + path + "!\r\nOpen uart error!\n")) << r.out;
}

// Refused before the first byte reaches anything: a port that is not a terminal
// (nothing sent into /dev/null, the file given as the port unchanged), a read
// file whose name is taken by a folder (nothing is read), a read file that is the
// -B file. The status is the road's failure; with --exit-code its class.
TEST(FlashDebugEndToEnd, RefusalsComeBeforeAnyByteIsWrittenOrRead)
{
    UpgradeBench bench;
    const Bytes image = PatternBytes(5000, 7);
    bench.WriteFile("main.img", image);
    bench.WriteFile("flash_A_0x0_L_0x100.bin", image);
    std::filesystem::create_directory(bench.Path("folder"));
    std::filesystem::create_directory(bench.Path("flash_A_0x0_L_0x200.bin"));
    ASSERT_EQ(0, mkfifo(bench.Path("pipe").c_str(), 0600));
    // args: a "-c" among them replaces the simulator's port
    const struct { std::vector<std::string> args; std::string line; int status; int exitCode; } cases[] = {
        {{"-D", "r", "-c", "main.img"}, "Refused: the port main.img is a regular file, not a terminal; nothing written\n", 255, 4},
        {{"-D", "r", "-c", "/dev/null"}, "Refused: the port /dev/null is a mem device, not a terminal", 255, 4},
        {{"-D", "e", "-c", "folder"}, "Refused: the port folder is a folder, not a terminal", 255, 4},
        {{"-D", "e", "-c", "pipe"}, "Refused: the port pipe is a pipe, not a terminal", 255, 4},
        {{"-i", "main.img", "-c", "main.img"}, "Refused: the port main.img is a regular file", 0, 4},
        {{"-i", "main.img", "-c", "/dev/null"}, "Refused: the port /dev/null is a mem device", 0, 4},
        {{"-D", "r", "-A", "0", "-L", "0x200"}, "Failed to create file: flash_A_0x0_L_0x200.bin\n", 255, 9},
        {{"-D", "r", "-A", "0", "-L", "0x100", "-B", "./flash_A_0x0_L_0x100.bin"},
         "Refused: the debug read file flash_A_0x0_L_0x100.bin is the -B file", 255, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        for (bool exitCode : {false, true}) {
            std::vector<std::string> args = c.args;
            if (exitCode)
                args.push_back("--exit-code");
            ProcessResult r = bench.Run(args, kRomFlash);
            EXPECT_EQ(exitCode ? c.exitCode : c.status, r.exitStatus) << r.out;
            EXPECT_TRUE(Has(r.out, c.line)) << r.out;
            EXPECT_FALSE(Has(r.out, "OK!")) << r.out;
            EXPECT_EQ(image, ReadFileBytes(bench.Path("main.img")));
            EXPECT_EQ(image, ReadFileBytes(bench.Path("flash_A_0x0_L_0x100.bin")));
            EXPECT_EQ(0u, CountFramesReceived(bench.Trace(), 0x1A));  // no sector read
            EXPECT_EQ(-1, FirstDifference(bench.Flash(), bench.InitialFlash()));
        }
    }
}

}  // namespace
