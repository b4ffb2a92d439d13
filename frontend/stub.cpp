// TEMPORARY stub, replaced by the real implementation.
#pragma GCC diagnostic ignored "-Wunused-parameter"
#include "frontend/driver.h"
#include "frontend/get_settings.h"
#include "frontend/Setting.h"
Setting g_Setting;
void GetDefaultSettings(char*) {}
void CopySettingText(char (&)[kSettingTextSize], const char*) {}
int DriverMain(int, char*[]) { return 0; }
void HelpMsg() {}
int CombineImage() { return -1; }
