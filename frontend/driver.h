// The program driver: options, settings report and the choice of road.
#pragma once

// The whole program; main() only forwards to it. Returns the exit status.
int DriverMain(int argc, char* argv[]);

void HelpMsg();

#include "common/failure_kind.h"

// Writes strImagePath followed by strEtfImagePath into strCombineImagePath; after
// a failure its class goes to *failure when one is handed in.
int CombineImage(FailureKind* failure = nullptr);
