// kestrel_mkimage: writes firmware image files from raw data, one section per data
// file, and makes files of pseudo-random data, so that images can be built without
// any other tool.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/stdio_file.h"
#include "tools/image_builder.h"

namespace {

// Data larger than any flash this tool programs is surely a mistake.
constexpr uint32_t kMaxDataSize = 256u << 20;
// The OTA area size is stored in 24 bits.
constexpr uint32_t kMaxOtaSize = 0xFFFFFF;

const char kUsage[] =
    "usage: kestrel_mkimage -o OUT [-v VERSION] [--ota-size BYTES --ota-addr ADDR] SECTION...\n"
    "       kestrel_mkimage --make-data OUT COUNT SEED\n"
    "\n"
    "SECTION is [--id ID] [--sram ADDR] [--attr N] [--gap N] followed by either\n"
    "DATAFILE (the section's data) or --random-data COUNT SEED (COUNT pseudo-random bytes).\n"
    "The section options apply to the next section only. Numbers may be decimal, 0x hex\n"
    "or 0 octal. --ota-size and --ota-addr go together; they fill the first section's\n"
    "private bytes (the upgrade uses them for images of version 2 or more).\n"
    "--gap N puts N zero bytes in front of the section's header.\n"
    "--make-data writes COUNT pseudo-random bytes; the same SEED always gives the same bytes.\n";

int UsageError(const char* what, const char* arg = nullptr)
{
    if (arg)
        std::fprintf(stderr, "kestrel_mkimage: %s: %s\n", what, arg);
    else
        std::fprintf(stderr, "kestrel_mkimage: %s\n", what);
    std::fputs(kUsage, stderr);
    return 1;
}

// A whole unsigned 32-bit number: decimal, 0x hexadecimal or 0 octal, nothing else.
bool ParseNumber(const char* text, uint32_t& value)
{
    if (!text || !*text || *text == '-' || *text == '+' || *text == ' ')
        return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = std::strtoull(text, &end, 0);
    if (errno != 0 || *end != '\0' || v > 0xFFFFFFFFull)
        return false;
    value = static_cast<uint32_t>(v);
    return true;
}

// Deterministic bytes for a seed, the same on every platform.
std::vector<uint8_t> RandomBytes(uint32_t count, uint32_t seed)
{
    std::vector<uint8_t> bytes(count);
    uint64_t state = 0x9E3779B97F4A7C15ull * (static_cast<uint64_t>(seed) + 1);
    for (uint32_t i = 0; i < count; ++i) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        bytes[i] = static_cast<uint8_t>(state >> 32);
    }
    return bytes;
}

bool ReadDataFile(const char* path, std::vector<uint8_t>& data)
{
    UniqueFile f = OpenFile(path, "rb");
    if (!f) {
        std::fprintf(stderr, "kestrel_mkimage: cannot open %s: %s\n", path, std::strerror(errno));
        return false;
    }
    data.clear();
    unsigned char chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, f.get())) > 0) {
        if (data.size() + got > kMaxDataSize) {
            std::fprintf(stderr, "kestrel_mkimage: %s is larger than %u bytes\n", path,
                         kMaxDataSize);
            return false;
        }
        data.insert(data.end(), chunk, chunk + got);
    }
    if (std::ferror(f.get())) {
        std::fprintf(stderr, "kestrel_mkimage: cannot read %s\n", path);
        return false;
    }
    return true;
}

bool WriteOutput(const std::string& path, const std::vector<uint8_t>& bytes)
{
    if (WriteFileBytes(path, bytes))
        return true;
    std::fprintf(stderr, "kestrel_mkimage: cannot write %s\n", path.c_str());
    return false;
}

// Reads COUNT SEED at argv[i + 1], argv[i + 2].
bool ParseRandomArgs(int argc, char* argv[], int i, uint32_t& count, uint32_t& seed)
{
    return i + 2 < argc && ParseNumber(argv[i + 1], count) && ParseNumber(argv[i + 2], seed) &&
           count <= kMaxDataSize;
}

int MakeData(int argc, char* argv[])
{
    uint32_t count = 0, seed = 0;
    if (argc != 5 || !ParseRandomArgs(argc, argv, 2, count, seed))
        return UsageError("--make-data needs OUT COUNT SEED (COUNT at most 268435456)");
    if (!WriteOutput(argv[2], RandomBytes(count, seed)))
        return 1;
    std::printf("Wrote %s: %u pseudo-random bytes (seed %u)\n", argv[2], count, seed);
    return 0;
}

struct ImageRequest {
    std::string outPath;
    ImageSpec spec;
    bool hasOtaSize = false;
    bool hasOtaAddr = false;
    uint32_t otaSize = 0;
    uint32_t otaAddr = 0;
};

// Options that take one number; returns the target or nullptr for any other word.
uint32_t* NumberOption(const std::string& word, ImageRequest& req, SectionSpec& next)
{
    if (word == "-v")
        return &req.spec.version;
    if (word == "--ota-size") {
        req.hasOtaSize = true;
        return &req.otaSize;
    }
    if (word == "--ota-addr") {
        req.hasOtaAddr = true;
        return &req.otaAddr;
    }
    if (word == "--id")
        return &next.id;
    if (word == "--sram")
        return &next.sramOffs;
    if (word == "--attr")
        return &next.attribute;
    if (word == "--gap")
        return &next.gapBefore;
    return nullptr;
}

bool IsSectionOption(const std::string& word)
{
    return word == "--id" || word == "--sram" || word == "--attr" || word == "--gap";
}

// Fills req from the command line; 0 or the exit status of a usage error.
int ParseImageArgs(int argc, char* argv[], ImageRequest& req)
{
    SectionSpec next;
    bool pendingSectionOptions = false;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word == "-o") {
            if (i + 1 >= argc)
                return UsageError("-o needs a file name");
            req.outPath = argv[++i];
        } else if (uint32_t* target = NumberOption(word, req, next)) {
            if (i + 1 >= argc || !ParseNumber(argv[i + 1], *target))
                return UsageError("bad or missing number after", argv[i]);
            pendingSectionOptions |= IsSectionOption(word);
            ++i;
        } else if (word == "--random-data") {
            uint32_t count = 0, seed = 0;
            if (!ParseRandomArgs(argc, argv, i, count, seed))
                return UsageError("--random-data needs COUNT SEED (COUNT at most 268435456)");
            next.data = RandomBytes(count, seed);
            req.spec.sections.push_back(next);
            next = SectionSpec();
            pendingSectionOptions = false;
            i += 2;
        } else if (word.size() > 1 && word[0] == '-') {
            return UsageError("unknown option", argv[i]);
        } else {
            if (!ReadDataFile(argv[i], next.data))
                return 1;
            req.spec.sections.push_back(next);
            next = SectionSpec();
            pendingSectionOptions = false;
        }
    }
    if (req.outPath.empty())
        return UsageError("no output file (-o OUT)");
    if (req.spec.sections.empty())
        return UsageError("no sections: give at least one DATAFILE or --random-data");
    if (pendingSectionOptions)
        return UsageError("section options after the last section");
    // The chain is walked from offset 0, so nothing may stand in front of the first header.
    if (req.spec.sections.front().gapBefore != 0)
        return UsageError("--gap cannot be used for the first section");
    if (req.hasOtaSize != req.hasOtaAddr)
        return UsageError("--ota-size and --ota-addr must be given together");
    if (req.otaSize > kMaxOtaSize)
        return UsageError("--ota-size is stored in 24 bits (at most 0xFFFFFF)");
    return 0;
}

int MakeImage(int argc, char* argv[])
{
    ImageRequest req;
    if (int status = ParseImageArgs(argc, argv, req))
        return status;
    if (req.hasOtaSize) {
        SetOtaParameters(req.spec.sections.front(), req.otaSize, req.otaAddr);
        if (req.spec.version < 2)
            std::fprintf(stderr, "kestrel_mkimage: note: the upgrade ignores the OTA "
                                 "parameters of images below version 2\n");
    }
    std::vector<uint8_t> image = BuildImage(req.spec);
    // An upgrade initialises the OTA area after programming the image: data that
    // reach into it would be overwritten by the OTA header and erased space.
    if (req.hasOtaSize && req.spec.version >= 2 && req.otaAddr != 0xFFFFFFFFu &&
        req.otaAddr < image.size()) {
        std::fprintf(stderr, "kestrel_mkimage: refused: the image's %zu bytes reach into its own "
                             "OTA area at 0x%08X; nothing written\n", image.size(), req.otaAddr);
        return 1;
    }
    if (!WriteOutput(req.outPath, image))
        return 1;
    std::printf("Wrote %s: %zu sections, %zu bytes, version %u\n", req.outPath.c_str(),
                req.spec.sections.size(), image.size(), req.spec.version);
    return 0;
}

}  // namespace

int main(int argc, char* argv[])
{
    if (argc < 2)
        return UsageError("nothing to do");
    if (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (std::strcmp(argv[1], "--version") == 0) {
        std::printf("kestrel_mkimage %s\n", KESTREL_VERSION);
        return 0;
    }
    if (std::strcmp(argv[1], "--make-data") == 0)
        return MakeData(argc, argv);
    return MakeImage(argc, argv);
}
