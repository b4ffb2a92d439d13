// Files a run must not leave behind if it is ended by a signal (a debug read's
// temporary file). The names live in a fixed table so that a signal handler can
// remove them with unlink alone: no allocation, no lock.
#pragma once

enum { kCleanupSlots = 4, kCleanupNameSize = 320 };

// Records a name; the slot number, or -1 when the table is full or the name too long.
int RegisterCleanupFile(const char* name);
// Forgets a slot (the file was removed or kept under its final name).
void ForgetCleanupFile(int slot);
// Removes every recorded file. Async-signal-safe.
void RemoveCleanupFiles();
