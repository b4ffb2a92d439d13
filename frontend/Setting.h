// The loader of the settings record (the record itself is in common/).
#pragma once
#include "common/setting_record.h"

// Loads g_Setting from the file (every missing key takes its default).
// bCombineImage and strCombineImagePath are left alone.
void GetDefaultSettings(char* path);
