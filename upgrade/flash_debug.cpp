// The flash debug mode: one flash range read into a file, written from a file, or
// erased, then the program ends.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "common/stdio_file.h"
#include "flashhost/CFlashHost.h"
#include "upgrade/UpGrade.h"

namespace {

enum { kOpNone = 0, kOpRead = 1, kOpWrite = 2, kOpErase = 3, kOpCount = 4 };

const char* const FlashDebugOp[kOpCount] = {"reserve", "read", "write", "erase"};

const unsigned int kBlockSize = kEraseBlockSize;  // one 64 KiB transfer buffer
const unsigned char kErasedByte = 0xFF;

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

// Walks a range as its full 64 KiB blocks and then its tail, calling
// step(flash address, byte count) for each piece that holds bytes. Returns 0, or
// the first non-zero result of a step, which ends the walk.
template <typename Step>
int ForEachBlock(unsigned int address, unsigned int length, Step step)
{
    const unsigned int blocks = length / kBlockSize;
    const unsigned int tail = length % kBlockSize;
    for (unsigned int i = 0; i <= blocks; ++i) {
        const unsigned int size = i < blocks ? kBlockSize : tail;
        if (size == 0)
            break;
        if (int result = step(address + i * kBlockSize, size))
            return result;
    }
    return 0;
}

int ReadRange(unsigned int address, unsigned int length)
{
    char name[64];
    snprintf(name, sizeof name, "flash_A_0x%X_L_0x%X.bin", address, length);
    UniqueFile file = OpenFile(name, "w+");
    if (!file) {
        printf("Failed to create file: %s\n", name);
        return CloseAndReturn(-1);
    }
    BlockBuffer buffer = NewBlockBuffer();
    int result = ForEachBlock(address, length, [&](unsigned int at, unsigned int size) {
        if (g_flashHost.ReadFlashLength(at, buffer.get(), size) != 0) {
            file.reset();  // the partial file stays
            printf("Read failed: %s\n", g_flashHost.m_strMsg.c_str());
            return -1;
        }
        // A file that cannot take the bytes (disk full) fails the read too:
        // reporting success with a short file would lose data silently.
        if (fwrite(buffer.get(), 1, size, file.get()) != size) {
            file.reset();
            printf("Failed to write file: %s\n", name);
            return -1;
        }
        return 0;
    });
    if (result != 0)
        return CloseAndReturn(-1);
    if (fclose(file.release()) != 0) {
        printf("Failed to write file: %s\n", name);
        return CloseAndReturn(-1);
    }
    printf("Read addr:0x%08X len:0x%08X OK!\n", address, length);
    printf("Data saved in file:%s\n", name);
    return CloseAndReturn(0);
}

// Nothing is erased first: the range must have been erased beforehand.
int WriteRange(unsigned int address, unsigned int length, const char* path)
{
    printf("Write bin file:%s\n", path);
    UniqueFile file = OpenFile(path, "rb");
    if (!file) {
        printf("Failed to open file: %s\n", path);
        return CloseAndReturn(-1);
    }
    if (!FileCoversLength(file.get(), length, path))
        return CloseAndReturn(-1);

    BlockBuffer buffer = NewBlockBuffer();
    int result = ForEachBlock(address, length, [&](unsigned int at, unsigned int size) {
        // Sectors go whole: the bytes after a tail that ends inside a sector are
        // the erased value, so the flash past the tail stays as it was.
        memset(buffer.get(), kErasedByte, kBlockSize);
        if (fread(buffer.get(), 1, size, file.get()) != size) {
            printf("Failed to read file: %s\n", path);
            return -1;
        }
        if (g_flashHost.WriteFlashLength(at, buffer.get(), size) != 0) {
            file.reset();
            printf("Write failed: %s\n", g_flashHost.m_strMsg.c_str());
            return -1;
        }
        return 0;
    });
    if (result != 0)
        return CloseAndReturn(-1);
    file.reset();
    printf("Write addr:0x%08X len:0x%08X OK!\n", address, length);
    return CloseAndReturn(0);
}

int EraseRange(unsigned int address, unsigned int length)
{
    if (g_flashHost.EraseFlashLength(address, length) != 0) {
        printf("Erase failed: %s\n", g_flashHost.m_strMsg.c_str());
        return CloseAndReturn(-1);
    }
    printf("Erase addr:0x%08X len:0x%08X OK!\n", address, length);
    return CloseAndReturn(0);
}

}  // namespace

int FlashOperate(unsigned int op, unsigned int address, unsigned int length, char* file)
{
    if (op >= kOpCount) {
        printf("Invalid operation code:%d\n", static_cast<int>(op));
        return -1;
    }
    printf("Debug op:%s\n", FlashDebugOp[op]);
    printf("Address:0x%08X\n", address);
    printf("Length:0x%08X\n", length);

    if (g_flashHost.SendUpgradeCmd() != 0)
        printf("%s", g_flashHost.m_strMsg.c_str());
    if (g_flashHost.OpenUart() != 0) {
        printf("%s\n", g_flashHost.m_strMsg.c_str());
        return -1;
    }
    switch (op) {
    case kOpRead:
        return ReadRange(address, length);
    case kOpWrite:
        return WriteRange(address, length, file);
    case kOpErase:
        return EraseRange(address, length);
    default:
        printf("Invalid operation code:%d\n", kOpNone);
        return CloseAndReturn(0);
    }
}
