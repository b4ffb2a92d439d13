// The gang's own command line.
#pragma once
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

struct GangOptions {
    std::string report;                 // the JSON report; empty: none
    std::string tool;                   // empty: found beside the gang or on PATH
    std::string logDir;                 // where the boards' folders go; empty: see BoardsRoot
    size_t jobs = 0;                    // boards at once; 0: all
    std::vector<std::string> ports;
    std::vector<std::string> toolArgs;  // the words after "--"
};

enum class GangRequest { kRun, kHelp, kBad };

GangRequest ParseGangArgs(int argc, char** argv, GangOptions& options);

void PrintUsage(std::FILE* to);

// The absolute folder the boards' folders go in: --log-dir, else the report's
// folder, else the current folder (`cwd`).
std::string BoardsRoot(const GangOptions& options, const std::string& cwd);
