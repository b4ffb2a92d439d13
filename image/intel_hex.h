// Intel HEX input for raw writes: data records (00) placed by extended linear (04)
// and extended segment (02) addresses, up to the end-of-file record (01). Start
// address records (03, 05) say where code runs, not what flash holds: skipped.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

// A run of consecutive bytes at one flash address.
struct HexSegment {
    uint32_t address = 0;
    std::vector<unsigned char> bytes;
};

// True when the path ends in ".hex" or ".ihex" (any case).
bool IsIntelHexPath(const std::string& path);

// Reads the file into segments (ascending, adjacent data merged). 0 on success;
// -1 with one line in `why` naming the file and line: unreadable, a malformed or
// unknown record, a bad checksum, bytes given twice, or no end record.
int ReadIntelHex(const std::string& path, std::vector<HexSegment>& segments, std::string& why);

// The same on text already read; `name` is used in `why`.
int ParseIntelHex(const std::string& text, const std::string& name, std::vector<HexSegment>& segments,
                  std::string& why);
