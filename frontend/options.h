// The command-line options, applied over g_Setting in the order given.
#pragma once

enum class OptionOutcome {
    kRunRoads,   // all options applied: report the settings and choose a road
    kShowUsage,  // -h, -v or a bad option: print the usage text and end with status 0
    kShowInfo,   // -s: the firmware information report; later options were not applied
};

// The option letters; a colon marks a letter that takes an argument.
extern const char kOptionString[];

// Applies the options of argv to g_Setting. Safe to call more than once in one
// process: getopt's scan is restarted each time.
OptionOutcome ApplyOptions(int argc, char* argv[]);
