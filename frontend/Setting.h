// The loader of the settings record (the record itself is in common/).
#pragma once
#include <string>
#include <vector>

#include "common/setting_record.h"

// Loads g_Setting from the file (every missing key takes its default).
// bCombineImage and strCombineImagePath are left alone.
void GetDefaultSettings(char* path);

// How the loader reads a key's value.
enum class SettingsKeyKind { kText, kDecimal, kHex, kWord };

struct SettingsKey {
    std::string section;
    std::string key;
    SettingsKeyKind kind;
};

// Every key GetDefaultSettings reads, noted by the loader itself as it reads them,
// so that a check of a settings file (unknown keys, numbers with trailing
// characters) cannot disagree with what the loader understands. Empty until the
// first load.
const std::vector<SettingsKey>& SettingsKeys();
