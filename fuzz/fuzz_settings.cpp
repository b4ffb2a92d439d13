// The settings file reader and the loader on arbitrary file contents: long lines,
// missing brackets, NUL bytes and odd numbers must give values or defaults.
#include <cstring>

#include "frontend/Setting.h"
#include "frontend/get_settings.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInputFile file(data, size);
    if (!file.Ok())
        return 0;
    std::string path = file.Path();
    char section[] = "setting";
    char key[] = "iBaud";
    char fallback[] = "x";
    char value[260];
    GetProfileString(&path[0], section, key, value, fallback);
    GetProfileInt(&path[0], section, key, 7);
    GetProfileHex(&path[0], section, key, 0x200);
    GetProfileFloat(&path[0], section, key, 1.5f);
    GetDefaultSettings(&path[0]);
    return 0;
}
