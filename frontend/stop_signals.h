// Ctrl-C (SIGINT) and SIGTERM on the roads that talk to the target. The first one
// is the console's "stop": the run ends between two steps through its normal path,
// so the port is closed and the target goes back to 115200. A second one ends the
// process at once, after removing the run's temporary files.
#pragma once

// `immediateStatus` is the exit status of the second signal's end.
void InstallStopSignals(int immediateStatus);
