// The settings record of one run. The front end fills it (settings file, then
// options) and after that every layer only reads it: the flash host its log keys,
// the upgrade engine its check keys. It lives here, below every layer, so that
// reading it never means including the front end.
#pragma once
#include <cstdint>

// Every text field holds a NUL-terminated path or name of at most 259 characters.
enum { kSettingTextSize = 260 };

// Flash debug operations; the value is the settings key iDebugOp's, and an index
// into the debug mode's operation names.
enum DebugOperation : uint32_t {
    kDebugNone = 0,
    kDebugRead = 1,
    kDebugWrite = 2,
    kDebugErase = 3,
    kDebugOperationCount = 4,
};

struct Setting {
    uint8_t bReadAndCheck;      // read back and compare each written block
    uint8_t bUpdateChangeOnly;  // skip blocks whose flash already holds the data
    uint8_t bEtfFw;             // also program the ETF image
    uint8_t bLogLevel;          // host log level, 0 = no log
    uint8_t bFlashCompat;       // upload and start the boot-loader while connecting
    uint8_t bCombineImage;      // write a combined image instead of upgrading
    uint32_t iBaud;
    char strComDev[kSettingTextSize];
    char strLogFile[kSettingTextSize];
    char strImagePath[kSettingTextSize];
    char strEtfImagePath[kSettingTextSize];
    char strCombineImagePath[kSettingTextSize];
    uint32_t iDebugOp;          // a DebugOperation
    uint32_t iAddress;
    uint32_t iLength;
    char strWriteBinFile[kSettingTextSize];

    // Beyond the classic keys: all default off, so a run without them is unchanged.
    uint8_t bFastLink;           // [setting] bFastLink / --fast: the fast transport
    uint8_t bExitCode;           // [setting] bExitCode / --exit-code: outcome exit codes
    uint8_t bJson;               // --json: JSON lines on stdout, human text on stderr
    uint32_t iSectorsPerCommand; // [setting] iSectorsPerCommand (1-15), fast link only; 0 = 4

    // Everyday commands (--verify, --erase-all, --write, --info, --flash-size).
    uint32_t iCommand;           // a FlashCommand; kCommandNone runs the classic roads
    uint64_t iFlashSize;         // --flash-size: the capacity in bytes; 0 = from the identifier
    // First contact: modem-line sequences, empty by default (no line touched).
    char strResetSequence[kSettingTextSize];  // [comm] strResetSequence / --reset
    char strAfter[kSettingTextSize];          // [comm] strAfter / --after; empty = stay
    uint8_t bAutoBaud;                        // [setting] bAutoBaud / --auto-baud: -b is the ceiling
};

// The command roads beside the upgrade and the debug mode.
enum FlashCommand : uint32_t {
    kCommandNone = 0,
    kCommandVerify = 1,
    kCommandEraseAll = 2,
    kCommandWrite = 3,
    kCommandInfo = 4,
};

extern Setting g_Setting;

// Copies text into a settings text field, truncating to 259 characters.
void CopySettingText(char (&field)[kSettingTextSize], const char* text);

// "r..." read, "w..." write, "e..." erase (case-sensitive); anything else, the
// empty word included, is no operation.
uint32_t DebugOpFromText(const char* text);
