#include "image/intel_hex.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <sstream>

namespace {

enum : int { kData = 0, kEnd = 1, kSegment = 2, kSegmentStart = 3, kLinear = 4, kLinearStart = 5 };

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// ":LLAAAATT<data>CC" into its bytes; false when it is not whole pairs of hex digits.
bool RecordBytes(const std::string& line, std::vector<unsigned char>& bytes)
{
    if (line.size() < 11 || line[0] != ':' || (line.size() - 1) % 2 != 0)
        return false;
    for (size_t i = 1; i < line.size(); i += 2) {
        const int high = HexDigit(line[i]), low = HexDigit(line[i + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes.push_back(static_cast<unsigned char>(high * 16 + low));
    }
    return bytes.size() == 5u + bytes[0];
}

std::string Where(const std::string& name, int lineNumber, const char* what)
{
    return "Bad Intel HEX file: " + name + " line " + std::to_string(lineNumber) + ": " + what;
}

}  // namespace

bool IsIntelHexPath(const std::string& path)
{
    std::string lower(path);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    auto endsWith = [&](const std::string& tail) {
        return lower.size() > tail.size() && lower.compare(lower.size() - tail.size(), tail.size(), tail) == 0;
    };
    return endsWith(".hex") || endsWith(".ihex");
}

int ParseIntelHex(const std::string& text, const std::string& name, std::vector<HexSegment>& segments,
                  std::string& why)
{
    std::map<uint64_t, unsigned char> bytes;
    uint64_t base = 0;
    bool ended = false;
    std::istringstream in(text);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back())))
            line.pop_back();
        if (line.empty())
            continue;
        if (ended) {
            why = Where(name, number, "record after the end record");
            return -1;
        }
        std::vector<unsigned char> r;
        if (!RecordBytes(line, r)) {
            why = Where(name, number, "not a record");
            return -1;
        }
        unsigned sum = 0;
        for (unsigned char b : r)
            sum += b;
        if ((sum & 0xFF) != 0) {
            why = Where(name, number, "checksum error");
            return -1;
        }
        const unsigned count = r[0], offset = r[1] * 256u + r[2], type = r[3];
        switch (type) {
        case kData:
            for (unsigned i = 0; i < count; ++i) {
                const uint64_t address = base + offset + i;
                if (address > 0xFFFFFFFFull || !bytes.emplace(address, r[4 + i]).second) {
                    why = Where(name, number, address > 0xFFFFFFFFull ? "address past 4 GiB" : "bytes given twice");
                    return -1;
                }
            }
            break;
        case kEnd: ended = true; break;
        case kSegment:
        case kLinear:
            if (count != 2) {
                why = Where(name, number, "address record of the wrong length");
                return -1;
            }
            base = (r[4] * 256ull + r[5]) << (type == kLinear ? 16 : 4);
            break;
        case kSegmentStart:
        case kLinearStart: break;
        default: why = Where(name, number, "record type it cannot use"); return -1;
        }
    }
    if (!ended) {
        why = "Bad Intel HEX file: " + name + ": no end record";
        return -1;
    }
    segments.clear();
    for (const auto& entry : bytes) {
        if (segments.empty() || segments.back().address + segments.back().bytes.size() != entry.first)
            segments.push_back(HexSegment{static_cast<uint32_t>(entry.first), {}});
        segments.back().bytes.push_back(entry.second);
    }
    return 0;
}

int ReadIntelHex(const std::string& path, std::vector<HexSegment>& segments, std::string& why)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf())) {
        why = "Failed to read file: " + path;
        return -1;
    }
    return ParseIntelHex(text.str(), path, segments, why);
}
