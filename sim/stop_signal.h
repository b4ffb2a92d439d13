// SIGTERM and SIGINT end the simulator cleanly: the handler only writes to a pipe
// that the event loop polls.
#pragma once
#include <string>

namespace ksim {

bool InstallStopSignals(std::string& error);
// Readable once a stop signal has arrived; -1 before InstallStopSignals.
int StopSignalFd();

}  // namespace ksim
