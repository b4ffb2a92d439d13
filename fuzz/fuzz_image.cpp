// The image parser and its information report on arbitrary file contents: every
// chain, checksum and length a file can claim must end in a report or a refusal.
#include "fuzz/fuzz_support.h"
#include "image/FwParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInputFile file(data, size);
    if (!file.Ok())
        return 0;
    FwParser parser;
    parser.SetFilePath(file.Path());
    parser.Parse();
    volatile size_t reportLength = parser.GetFwInfo().size();
    (void)reportLength;
    parser.FreeParser();
    return 0;
}
