// The gang's report: one entry per board, in the order the ports were given.
#pragma once
#include <string>
#include <vector>

#include "tools/gang/board.h"

// {"boards":[{"port":...,"ok":...,"exit_code":...,"message":...,"seconds":...,
// "bytes":...,"folder":...}]}; texts that are not UTF-8 are replaced, never
// allowed to make the report invalid.
std::string ReportText(const std::vector<Board>& boards);
