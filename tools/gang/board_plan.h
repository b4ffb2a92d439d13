// From the ports asked for to the boards to run: "auto" expanded, the same port
// under two names refused, and a working folder made for each board.
#pragma once
#include <string>
#include <vector>

#include "tools/gang/board.h"
#include "tools/gang/tool_command.h"

// The ports in order, "auto" replaced by every port `TOOL --json --list-ports` finds.
std::vector<std::string> ExpandPorts(const std::vector<std::string>& asked, const std::string& tool);

// False, with the reason, when two names lead to one device (a symbolic link and
// its target, a by-id name and the tty it points to): the two boards would fight
// over the port.
bool NoPortTwice(const std::vector<std::string>& ports, std::string& why);

// A file-name form of the port: "/dev/ttyUSB0" becomes "dev_ttyUSB0".
std::string FolderName(const std::string& port);

// One board per port, each with the folder `root`/FolderName(port) (made unique
// with a suffix when two ports give one name) made and its command line set.
// False, with the reason, when a folder cannot be made.
bool PlanBoards(const std::vector<std::string>& ports, const std::string& root, const ToolCommand& command,
                std::vector<Board>& boards, std::string& why);

// Makes the folder and its parents; true when it exists afterwards.
bool MakeFolders(const std::string& path);
