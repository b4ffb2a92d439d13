// INI-style settings file lookups. Stateless: every call opens, scans and closes the file.
#pragma once

int GetProfileStr(char* file, char* section, char* key, char* value);
int GetProfileString(char* file, char* section, char* key, char* value, char* defaultText);
int GetProfileInt(char* file, char* section, char* key, int defaultValue);
float GetProfileFloat(char* file, char* section, char* key, float defaultValue);
unsigned int GetProfileHex(char* file, char* section, char* key, float defaultValue);

char* l_trim(char* szOutput, const char* szInput);
char* r_trim(char* szOutput, const char* szInput);
char* a_trim(char* szOutput, const char* szInput);
