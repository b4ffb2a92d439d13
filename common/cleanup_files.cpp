#include "common/cleanup_files.h"

#include <array>
#include <atomic>
#include <cstring>
#include <unistd.h>

namespace {

// A slot's name is written before the slot is marked used, and unmarked before it
// may be reused, so a handler never reads a name half written. Standard arrays, so
// that a slot number out of range stops the program rather than clears a byte of
// the names beside the table.
std::array<std::array<char, kCleanupNameSize>, kCleanupSlots> s_names;
std::array<std::atomic<int>, kCleanupSlots> s_used;

}  // namespace

int RegisterCleanupFile(const char* name)
{
    const size_t length = std::strlen(name);
    if (length >= kCleanupNameSize)
        return -1;
    for (int slot = 0; slot < kCleanupSlots; ++slot) {
        if (s_used[slot].load() != 0)
            continue;
        std::memcpy(s_names[slot].data(), name, length + 1);
        s_used[slot].store(1);
        return slot;
    }
    return -1;
}

void ForgetCleanupFile(int slot)
{
    if (slot >= 0 && slot < kCleanupSlots)
        s_used[slot].store(0);
}

void RemoveCleanupFiles()
{
    for (int slot = 0; slot < kCleanupSlots; ++slot) {
        if (s_used[slot].load() != 0)
            unlink(s_names[slot].data());
    }
}
