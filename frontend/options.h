// The command-line options, applied over g_Setting in the order given.
#pragma once

enum class OptionOutcome {
    kRunRoads,   // all options applied: report the settings and choose a road
    kShowUsage,  // -h, -v or a bad option: print the usage text and end with status 0
    kShowInfo,   // -s: the firmware information report; later options were not applied
    kBadOption,  // an option getopt refused: the usage text, status 0 (2 with --exit-code)
    kShowLongHelp,  // --help: the usage text and the long options
    kShowVersion,   // --version: one version line
    kListPorts,     // --list-ports: the serial ports found
};

// The long options, one line each, printed by --help after the usage text.
extern const char* const kLongOptionLines[];
extern const int kLongOptionLineCount;

// True when argv holds --json before any word that ends option parsing; the driver
// needs it before the options are applied, so that every line of human text can go
// to the error stream.
bool WantsJson(int argc, char* argv[]);

// The option letters; a colon marks a letter that takes an argument.
extern const char kOptionString[];

// Applies the options of argv to g_Setting. Safe to call more than once in one
// process: getopt's scan is restarted each time.
OptionOutcome ApplyOptions(int argc, char* argv[]);
