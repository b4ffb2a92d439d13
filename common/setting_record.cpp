#include "common/setting_record.h"

#include <cstring>

Setting g_Setting;

uint32_t DebugOpFromText(const char* text)
{
    switch (text[0]) {
    case 'r':
        return kDebugRead;
    case 'w':
        return kDebugWrite;
    case 'e':
        return kDebugErase;
    default:
        return kDebugNone;
    }
}

// Longer text is cut at 259 characters so that the field stays terminated.
void CopySettingText(char (&field)[kSettingTextSize], const char* text)
{
    std::memset(field, 0, kSettingTextSize);
    size_t len = std::strlen(text);
    if (len > kSettingTextSize - 1)
        len = kSettingTextSize - 1;
    std::memcpy(field, text, len);
}
