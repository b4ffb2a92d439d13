#include "tools/gang/gang_report.h"

#include <nlohmann/json.hpp>

#include "common/run_event_names.h"

using nlohmann::json;

std::string ReportText(const std::vector<Board>& boards)
{
    using namespace run_event;
    json list = json::array();
    for (const Board& b : boards)
        list.push_back({{kFieldPort, b.port},       {kFieldOk, b.ok},           {kFieldExitCode, b.exitCode},
                        {kFieldMessage, b.message}, {kFieldSeconds, b.seconds}, {kFieldBytes, b.bytes},
                        {"folder", b.folder}});
    return json{{"boards", list}}.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}
