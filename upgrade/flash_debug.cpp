// The flash debug mode: one flash range read into a file, written from a file, or
// erased, then the program ends.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/cleanup_files.h"
#include "common/flash_geometry.h"
#include "common/run_report.h"
#include "common/setting_record.h"
#include "common/stdio_file.h"
#include "flashhost/CFlashHost.h"
#include "upgrade/UpGrade.h"
#include "upgrade/block_walk.h"
#include "upgrade/flash_regions.h"
#include "upgrade/write_cycle.h"

namespace {

const char* const FlashDebugOp[kDebugOperationCount] = {"reserve", "read", "write", "erase"};

const unsigned int kBlockSize = flash_geometry::kEraseBlockSize;  // one 64 KiB transfer buffer
const unsigned char kErasedByte = flash_geometry::kErasedByte;

typedef std::unique_ptr<unsigned char[]> BlockBuffer;

BlockBuffer NewBlockBuffer()
{
    return BlockBuffer(new unsigned char[kBlockSize]);
}

int CloseAndReturn(int result)
{
    g_flashHost.Close();
    return result;
}

// A file that ends before the range does would leave the buffer's old contents to
// be written in its place, so such a file is refused before anything is written.
bool FileCoversLength(FILE* file, unsigned int length, const char* path)
{
    int64_t size = FileLength(file);
    if (size < 0 || size >= static_cast<int64_t>(length))
        return true;  // a stream that cannot seek is left to the reads themselves
    printf("Failed to read file: %s holds %lld bytes, fewer than the length 0x%08X\n", path,
           static_cast<long long>(size), length);
    return false;
}

// The debug read's output is written under a temporary name in the same folder and
// renamed only when every byte is in it, so a failed or interrupted read leaves no
// empty or partial file under the final name. The temporary file goes on failure.
class PendingFile {
public:
    explicit PendingFile(const char* finalName) : m_final(finalName)
    {
        m_temp = m_final + ".XXXXXX";
        int fd = mkstemp(&m_temp[0]);
        if (fd >= 0) {
            // mkstemp makes the file private (0600); give it the permissions any
            // newly created file of this user gets. The debug road runs on one
            // thread, so reading the mask by setting it back is safe here.
            mode_t mask = umask(0);
            umask(mask);
            fchmod(fd, 0666 & ~mask);
        }
        if (fd >= 0)
            m_file.reset(fdopen(fd, "w+"));
        if (fd >= 0 && !m_file)
            close(fd);
        if (!m_file)
            m_temp.clear();
        else
            m_slot = RegisterCleanupFile(m_temp.c_str());  // a second Ctrl-C removes it too
    }
    ~PendingFile()
    {
        m_file.reset();
        if (!m_temp.empty())
            unlink(m_temp.c_str());
        ForgetCleanupFile(m_slot);
    }
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    FILE* get() const { return m_file.get(); }

    // Closes the file and gives it its final name; false when either fails.
    bool Commit()
    {
        FILE* file = m_file.release();
        if (fclose(file) != 0 || rename(m_temp.c_str(), m_final.c_str()) != 0)
            return false;
        ForgetCleanupFile(m_slot);
        m_slot = -1;
        m_temp.clear();
        return true;
    }

private:
    std::string m_final;
    std::string m_temp;
    UniqueFile m_file;
    int m_slot = -1;
};

// Whether the final name can take the read's file (a folder of that name, or a
// file that may not be written, cannot), tried before any flash is read: otherwise
// the whole range would be read first and the rename fail at the end. A file this
// check creates is removed again; one that was there is left untouched.
bool FinalNameWritable(const char* name)
{
    struct stat info;
    const bool existed = stat(name, &info) == 0;
    const int fd = open(name, O_WRONLY | O_CREAT, 0666);
    if (fd < 0)
        return false;
    close(fd);
    if (!existed)
        unlink(name);
    return true;
}

// The operator's stop (console "stop", Ctrl-C) ends a debug operation between two
// blocks, never inside one.
bool StoppedBetweenBlocks(FailureKind& kind)
{
    if (!StopRequested())
        return false;
    printf("User stoped!\n");
    kind = FailureKind::kStopped;
    return true;
}

int FailWith(FailureKind& failure, FailureKind kind)
{
    failure = kind;
    return CloseAndReturn(-1);
}

// The read's file is a local file: one that cannot be made or written fails with
// that class, not as a flash command.
int ReadRange(unsigned int address, unsigned int length, FailureKind& failure)
{
    const std::string finalName = DebugReadFileName(address, length);
    const char* name = finalName.c_str();
    if (!FinalNameWritable(name)) {
        printf("Failed to create file: %s\n", name);
        return FailWith(failure, FailureKind::kLocalFile);
    }
    PendingFile file(name);
    if (!file.get()) {
        printf("Failed to create file: %s\n", name);
        return FailWith(failure, FailureKind::kLocalFile);
    }
    BlockBuffer buffer = NewBlockBuffer();
    FailureKind kind = FailureKind::kFlashCommand;
    int result = ForEachBlock(address, length, [&](const BlockPiece& piece) {
        if (StoppedBetweenBlocks(kind))
            return -1;
        if (g_flashHost.ReadFlashLength(piece.address, buffer.get(), piece.size) != 0) {
            printf("Read failed: %s\n", g_flashHost.m_strMsg.c_str());
            return -1;
        }
        // A file that cannot take the bytes (disk full) fails the read too:
        // reporting success with a short file would lose data silently.
        if (fwrite(buffer.get(), 1, piece.size, file.get()) != piece.size) {
            printf("Failed to write file: %s\n", name);
            kind = FailureKind::kLocalFile;
            return -1;
        }
        run_report::Progress("debug", "read", static_cast<uint64_t>(piece.address - address) + piece.size, length);
        return 0;
    });
    if (result != 0)
        return FailWith(failure, kind);
    if (!file.Commit()) {
        printf("Failed to write file: %s\n", name);
        return FailWith(failure, FailureKind::kLocalFile);
    }
    printf("Read addr:0x%08X len:0x%08X OK!\n", address, length);
    printf("Data saved in file:%s\n", name);
    return CloseAndReturn(0);
}

// Nothing is erased first: the range must have been erased beforehand.
int WriteRange(unsigned int address, unsigned int length, const char* path, FailureKind& failure)
{
    printf("Write bin file:%s\n", path);
    UniqueFile file = OpenFile(path, "rb");
    if (!file) {
        printf("Failed to open file: %s\n", path);
        return FailWith(failure, FailureKind::kImage);
    }
    if (!FileCoversLength(file.get(), length, path))
        return FailWith(failure, FailureKind::kImage);

    BlockBuffer buffer = NewBlockBuffer();
    FailureKind kind = FailureKind::kFlashCommand;
    int result = ForEachBlock(address, length, [&](const BlockPiece& piece) {
        if (StoppedBetweenBlocks(kind))
            return -1;
        // Sectors go whole: the bytes after a tail that ends inside a sector are
        // the erased value, so the flash past the tail stays as it was.
        memset(buffer.get(), kErasedByte, kBlockSize);
        if (fread(buffer.get(), 1, piece.size, file.get()) != piece.size) {
            printf("Failed to read file: %s\n", path);
            kind = FailureKind::kImage;
            return -1;
        }
        if (g_flashHost.WriteFlashLength(piece.address, buffer.get(), piece.size) != 0) {
            printf("Write failed: %s\n", g_flashHost.m_strMsg.c_str());
            return -1;
        }
        run_report::Progress("debug", "write", static_cast<uint64_t>(piece.address - address) + piece.size, length);
        return 0;
    });
    if (result != 0)
        return FailWith(failure, kind);
    file.reset();
    printf("Write addr:0x%08X len:0x%08X OK!\n", address, length);
    return CloseAndReturn(0);
}

int EraseRange(unsigned int address, unsigned int length, FailureKind& failure)
{
    if (g_flashHost.EraseFlashLength(address, length) != 0) {
        printf("Erase failed: %s\n", g_flashHost.m_strMsg.c_str());
        return FailWith(failure, FailureKind::kFlashCommand);
    }
    run_report::Progress("debug", "erase", length, length);
    printf("Erase addr:0x%08X len:0x%08X OK!\n", address, length);
    return CloseAndReturn(0);
}

}  // namespace

std::string DebugReadFileName(unsigned int address, unsigned int length)
{
    char name[64];
    snprintf(name, sizeof name, "flash_A_0x%X_L_0x%X.bin", address, length);
    return name;
}

int FlashOperate(unsigned int op, unsigned int address, unsigned int length, char* file,
                 FailureKind* failure)
{
    FailureKind unused = FailureKind::kNone;
    FailureKind& kind = failure ? *failure : unused;
    if (op >= kDebugOperationCount) {
        printf("Invalid operation code:%d\n", static_cast<int>(op));
        kind = FailureKind::kOther;
        return -1;
    }
    // Every road that talks to a target announces itself to the run's sink.
    run_report::Start(g_flashHost.GetComNum(), g_flashHost.GetBaud(),
                      op == kDebugWrite ? std::vector<std::string>{file} : std::vector<std::string>{});
    printf("Debug op:%s\n", FlashDebugOp[op]);
    printf("Address:0x%08X\n", address);
    printf("Length:0x%08X\n", length);

    if (g_flashHost.SendUpgradeCmd() != 0)
        printf("%s", g_flashHost.m_strMsg.c_str());
    if (g_flashHost.OpenUart() != 0) {
        // The flash host tells whether the log, the port or the target failed.
        kind = g_flashHost.m_failKind;
        printf("%s\n", g_flashHost.m_strMsg.c_str());
        return -1;
    }
    // A range past the end of the flash is refused before anything is read, written
    // or erased: an erase would otherwise clear what it can, then fail.
    std::string why;
    if (CheckFlashRegions({{"debug range", address, length}}, FlashCapacityInUse(), why) != 0) {
        printf("%s\n", why.c_str());
        return FailWith(kind, FailureKind::kUsage);
    }
    switch (op) {
    case kDebugRead:
        return ReadRange(address, length, kind);
    case kDebugWrite:
        return WriteRange(address, length, file, kind);
    case kDebugErase:
        return EraseRange(address, length, kind);
    default:
        printf("Invalid operation code:%d\n", static_cast<int>(kDebugNone));
        return CloseAndReturn(0);
    }
}
