// Checks made before a road writes its first byte anywhere (serial port, output
// file): the port must be a terminal, no output may be one of the inputs, and no
// path may have been cut to fit its 260-byte field. Each refusal is one line on
// standard output beginning "Refused: " and naming the file.
#pragma once

#include <string>

#include "common/failure_kind.h"

enum class PreflightRoad { kDebug, kCombine, kUpgrade };

// Called by the option parser for every option with its text: remembers the first
// path option (-B -c -G -i -I -l) whose text does not fit its field.
void NotePathOption(int letter, const char* text);
// Forgets what NotePathOption remembered (the start of option parsing).
void ResetPathNotes();

// Runs the checks that apply to the road. kNone when the road may go on; else the
// failure's class after the refusal line has been printed:
//   path cut to fit          kUsage
//   port not a terminal      kPortOpen   (debug and upgrade roads)
//   output is an input       kUsage      (-G against -i/-I; a debug read file against -B)
FailureKind RefuseUnsafeRun(PreflightRoad road);

// The port check alone: 0 when `path` may be a terminal (or does not exist, which
// the open reports as before); -1 with the refusal line in `why` when it is surely
// not one: a regular file, a folder, a pipe, a socket, or a character device of a
// class other than tty (/dev/null, /dev/zero).
int CheckPortIsTerminal(const char* path, std::string& why);
