// Warnings on standard error that explain what the tool does with input it takes
// without complaint: words it ignores, settings it does not know, numbers with
// trailing characters, debug ranges it moves or widens, rates the port cannot take.
// Standard output and exit statuses are never changed by them.
#pragma once
#include <cstdint>

namespace warnings {

// Words left after option parsing stopped (at the first word that is not an option).
void IgnoredWords(int argc, char* argv[], int firstUnused);

// Unknown sections and keys (with their line numbers) and numbers with trailing
// characters in a settings file; a file named with -C (`named`) that cannot be read.
void SettingsFile(const char* path, bool named);

// An option's number that does not read whole (-A 1M is taken as 1, -A xyz as 0).
void OptionNumber(int letter, const char* text);

// The debug operation's range as the flash commands will really treat it.
void DebugRange(uint32_t op, uint32_t address, uint32_t length, const char* writeFile);

// A working rate the port does not take: a warning, or with the fast link (which
// refuses such rates) an error; -1 then, and the run must not connect.
int WorkingRate(uint32_t baud, bool fast);

}  // namespace warnings
