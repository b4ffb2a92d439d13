// Pieces of the host log line format, shared with its tests.
#pragma once
#include <string>
#include <sys/time.h>

// "[hh:mm:ss.mmm]" in local time: always 14 characters, milliseconds truncated.
std::string FormatLogTimeStamp(const timeval& now);

// The folder part of a log path: everything before its last "/" (empty without one).
std::string LogFolderOf(const std::string& path);
