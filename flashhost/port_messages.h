// What the user is told about the serial port: the port itself prints nothing, the
// flash host prints these from what the port reports, on the same streams and in
// the same order as always.
#pragma once

// Standard output: the rate table after a rate that is not in it.
void PrintRateList();
// Standard output, the classic line; then on the error stream what the system said
// and, for the two causes users meet most, what to do about it.
void PrintOpenFailure(const char* path, int error);
// Standard output: a rate the device refused on the fast link; `what` is "open" or
// "speed change".
void PrintRefusedRate(const char* what, const char* path, unsigned int baud);
