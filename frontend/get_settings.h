// INI-style settings file lookups. Stateless: every call opens, scans and closes the file.
//
// A line is read in pieces of at most 99 characters; section names of at most 29
// characters and keys of at most 31 characters can be found. The first matching
// key of the first matching section wins.
#pragma once

// value must hold at least 100 bytes (a value never exceeds one 99-character piece).
int GetProfileStr(char* file, char* section, char* key, char* value);
int GetProfileString(char* file, char* section, char* key, char* value, char* defaultText);
int GetProfileInt(char* file, char* section, char* key, int defaultValue);
float GetProfileFloat(char* file, char* section, char* key, float defaultValue);
unsigned int GetProfileHex(char* file, char* section, char* key, float defaultValue);

char* l_trim(char* szOutput, const char* szInput);
char* r_trim(char* szOutput, const char* szInput);
char* a_trim(char* szOutput, const char* szInput);
