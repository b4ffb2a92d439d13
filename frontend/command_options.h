// The values of the everyday commands' options that do not fit the settings
// record (repeated --write words, the --flash-size text), kept as given and
// checked by the command road before it connects.
#pragma once
#include <string>
#include <vector>

struct CommandArguments {
    std::vector<std::string> writes;  // each --write value, in order
    std::string flashSize;            // the last --flash-size value; empty: none
};

// The arguments of the current option scan (cleared when a scan starts).
CommandArguments& PendingCommandArguments();
