// The program driver: options, settings report and the choice of road.
#pragma once

// The whole program; main() only forwards to it. Returns the exit status.
int DriverMain(int argc, char* argv[]);

void HelpMsg();

// Writes strImagePath followed by strEtfImagePath into strCombineImagePath.
int CombineImage();
