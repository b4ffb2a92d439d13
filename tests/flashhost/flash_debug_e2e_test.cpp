// The flash debug mode from the command line against the simulated target: what
// each operation does to the flash file, and that failures end the tool with 255.
#include <dirent.h>
#include <memory>

#include "flashhost/CFlashHost.h"
#include "serial/CCommU.h"
#include "tests/support/serial_fixtures.h"
#include "upgrade/UpGrade.h"

namespace {

typedef std::vector<unsigned char> Bytes;

const size_t kFlashSize = 4u << 20;

Bytes PatternFlash()
{
    Bytes flash(kFlashSize);
    for (size_t a = 0; a < flash.size(); ++a)
        flash[a] = static_cast<unsigned char>(a * 7 + (a >> 12));
    return flash;
}

class FlashDebugEndToEnd : public ::testing::Test {
protected:
    // Starts the target on a prepared flash; the boot ROM serves the flash, since
    // the debug mode does not upload the boot-loader.
    void StartSim(const Bytes& flash, const std::vector<std::string>& extra = {})
    {
        WriteBytes(dir.File("flash.bin"), flash);
        std::vector<std::string> args = {"--flash", dir.File("flash.bin"), "--trace",
                                         dir.File("trace.txt"), "--rom-flash", "yes"};
        args.insert(args.end(), extra.begin(), extra.end());
        sim.reset(new SimProcess(args));
        ASSERT_TRUE(sim->Started());
    }

    ProcessResult RunTool(const std::vector<std::string>& options)
    {
        std::vector<std::string> args = options;
        args.push_back("-c");
        args.push_back(sim ? sim->DevicePath() : dir.File("no-such-tty"));
        ProcessOptions how;
        how.cwd = dir.Path();
        how.timeoutSeconds = 60;
        return RunProcess(ToolPath(), args, how);
    }

    Bytes FlashNow() { return ReadFileBytes(dir.File("flash.bin")); }

    // The names in the test folder that begin with the prefix, one per line.
    std::string FilesNamedLike(const std::string& prefix)
    {
        std::string names;
        if (DIR* folder = opendir(dir.Path().c_str())) {
            while (dirent* entry = readdir(folder)) {
                if (std::string(entry->d_name).compare(0, prefix.size(), prefix) == 0)
                    names += std::string(entry->d_name) + "\n";
            }
            closedir(folder);
        }
        return names;
    }

    TempDir dir;
    std::unique_ptr<SimProcess> sim;
};

// The second range is a whole block and a tail.
TEST_F(FlashDebugEndToEnd, ReadSavesTheRangeInANamedFile)
{
    Bytes flash = PatternFlash();
    StartSim(flash);
    ProcessResult r = RunTool({"-D", "r", "-A", "0x100000", "-L", "0x2000"});
    EXPECT_EQ(0, r.exitStatus) << r.out;
    EXPECT_TRUE(Has(r.out, "Debug op:read\nAddress:0x00100000\nLength:0x00002000\n")) << r.out;
    EXPECT_TRUE(Has(r.out, "Read addr:0x00100000 len:0x00002000 OK!\n"
                           "Data saved in file:flash_A_0x100000_L_0x2000.bin\n"))
        << r.out;
    Bytes saved = ReadFileBytes(dir.File("flash_A_0x100000_L_0x2000.bin"));
    EXPECT_TRUE(Bytes(flash.begin() + 0x100000, flash.begin() + 0x102000) == saved);
    r = RunTool({"-D", "r", "-A", "0x30200", "-L", "0x10100"});
    EXPECT_EQ(0, r.exitStatus) << r.out;
    saved = ReadFileBytes(dir.File("flash_A_0x30200_L_0x10100.bin"));
    EXPECT_TRUE(Bytes(flash.begin() + 0x30200, flash.begin() + 0x30200 + 0x10100) == saved);

    sim->Stop();
    std::string trace = ReadText(dir.File("trace.txt"));
    EXPECT_TRUE(Has(trace, "rx 115200 42 52 4F 4D 04 00 60 51 00 00 00 01 18\n"));
    EXPECT_TRUE(Has(trace, "rx 115200 42 52 4F 4D 04 00 52 42 00 00 00 05 10 03 0E 10 00\n"));
}

TEST_F(FlashDebugEndToEnd, EraseClearsExactlyTheBlocksTheRangeMeets)
{
    Bytes flash = PatternFlash();
    StartSim(flash);
    ProcessResult r = RunTool({"-D", "e", "-A", "0x10080", "-L", "0x100"});
    EXPECT_EQ(0, r.exitStatus) << r.out;
    EXPECT_TRUE(Has(r.out, "Erase addr:0x00010080 len:0x00000100 OK!\n")) << r.out;
    Bytes expected = flash;
    std::fill(expected.begin() + 0x10000, expected.begin() + 0x20000, 0xFF);
    EXPECT_TRUE(expected == FlashNow());
}

// The tail ends inside a sector whose rest holds data: the bytes sent after the
// tail are 0xFF, so programming leaves that data as it was.
TEST_F(FlashDebugEndToEnd, WriteProgramsTheFileAndNothingElse)
{
    Bytes flash(kFlashSize, 0xFF);
    for (size_t a = 0x31234; a < 0x31400; ++a)
        flash[a] = static_cast<unsigned char>(a);
    StartSim(flash);
    const size_t length = 0x11234;
    Bytes file(length);
    for (size_t i = 0; i < length; ++i)
        file[i] = static_cast<unsigned char>(i * 13 + (i >> 8));
    WriteBytes(dir.File("image.bin"), file);

    ProcessResult r = RunTool({"-D", "w", "-A", "0x20000", "-L", "0x11234", "-B", "image.bin"});
    EXPECT_EQ(0, r.exitStatus) << r.out;
    EXPECT_TRUE(Has(r.out, "Write bin file:image.bin\n")) << r.out;
    EXPECT_TRUE(Has(r.out, "Write addr:0x00020000 len:0x00011234 OK!\n")) << r.out;
    Bytes expected = flash;
    std::copy(file.begin(), file.end(), expected.begin() + 0x20000);
    EXPECT_TRUE(expected == FlashNow());
}

TEST_F(FlashDebugEndToEnd, ShortOrMissingWriteFileIsRefusedBeforeAnythingIsWritten)
{
    Bytes flash(kFlashSize, 0xFF);
    StartSim(flash);
    WriteBytes(dir.File("short.bin"), Bytes(0x1000, 0x00));
    ProcessResult r = RunTool({"-D", "w", "-A", "0x20000", "-L", "0x2000", "-B", "short.bin"});
    EXPECT_EQ(255, r.exitStatus) << r.out;
    EXPECT_TRUE(Has(r.out, "Failed to read file: short.bin")) << r.out;
    r = RunTool({"-D", "w", "-A", "0", "-L", "0x200", "-B", "absent.bin"});
    EXPECT_EQ(255, r.exitStatus) << r.out;
    EXPECT_TRUE(Has(r.out, "Failed to open file: absent.bin\n")) << r.out;
    EXPECT_TRUE(flash == FlashNow());
}

// A target that hangs up or refuses must end the tool with its text, not hang it.
TEST_F(FlashDebugEndToEnd, FaultsEndTheToolWithStatus255)
{
    struct FaultCase {
        const char* name;
        std::vector<std::string> fault, options;
        std::string line;
    };
    const FaultCase cases[] = {
        {"vanish while reading", {"--fault", "ReadSector:2:vanish"},
         {"-D", "r", "-A", "0", "-L", "0x2000"},
         "Read failed: Cmd read sectors waits for ack timeout or comm error!\n"},
        {"erase refused", {"--fault", "EraseFlash:1:error3"},
         {"-D", "e", "-A", "0", "-L", "0x100"}, "Erase failed: CMD checksum error!\n"},
        {"write data refused", {"--fault", "WriteSector:2:error2"},
         {"-D", "w", "-A", "0", "-L", "0x2000", "-B", "data.bin"}, "Write failed: CMD timeout!\n"},
        {"overlong reply", {"--fault", "ReadSector:1:toolong"},
         {"-D", "r", "-A", "0", "-L", "0x200"}, "Read failed: Payload too long!\n"},
        {"no answer to the flash id", {"--fault", "GetFlashId:every:noreply"},
         {"-D", "r", "-A", "0", "-L", "0x200"}, "Get Flash ID error!\n"},
    };
    for (const FaultCase& c : cases) {
        SCOPED_TRACE(c.name);
        StartSim(Bytes(kFlashSize, 0xFF), c.fault);
        WriteBytes(dir.File("data.bin"), Bytes(0x2000, 0x5A));
        ProcessResult r = RunTool(c.options);
        EXPECT_EQ(255, r.exitStatus) << r.out;
        EXPECT_TRUE(Has(r.out, c.line)) << r.out;
        // A read that failed part-way leaves neither the named file nor its
        // temporary behind.
        EXPECT_EQ("", FilesNamedLike("flash_A_")) << c.name;
        sim.reset();
    }
}

// Held by another program, then not there at all.
TEST_F(FlashDebugEndToEnd, DeviceThatCannotBeOpenedFailsAtOnce)
{
    StartSim(Bytes(kFlashSize, 0xFF));
    CCommU holder;
    std::string path = sim->DevicePath();
    ASSERT_EQ(0, holder.Uart_Init(&path[0], 115200));
    ProcessResult r = RunTool({"-D", "r", "-A", "0", "-L", "0x200"});
    holder.UART_Close();
    EXPECT_EQ(255, r.exitStatus) << r.out;
    EXPECT_TRUE(Has(r.out, "ERR: can't open serial port:" + path + "!\r\n")) << r.out;
    EXPECT_TRUE(Has(r.out, "Open uart error!\n")) << r.out;
    sim.reset();
    r = RunTool({"-D", "r", "-A", "0", "-L", "0x200"});
    EXPECT_EQ(255, r.exitStatus) << r.out;
    EXPECT_TRUE(Has(r.out, "Open uart error!\n")) << r.out;
}

// Called in-process: the command line cannot produce these codes.
TEST_F(FlashDebugEndToEnd, OperationCodesOutsideTheTable)
{
    EXPECT_EQ("Invalid operation code:7\n",
              CapturedStdout([] { EXPECT_EQ(-1, FlashOperate(7, 0, 0x200, nullptr)); }));

    StartSim(Bytes(kFlashSize, 0xFF));
    g_flashHost.SetComNum(sim->DevicePath());
    g_flashHost.SetBaud(921600);
    EXPECT_EQ("Debug op:reserve\nAddress:0x00001000\nLength:0x00000200\nInvalid operation code:0\n",
              CapturedStdout([] { EXPECT_EQ(0, FlashOperate(0, 0x1000, 0x200, nullptr)); }));
}

}  // namespace
