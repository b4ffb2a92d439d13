// The everyday commands' roads (--verify, --erase-all, --write, --info): their
// option values checked before any connection, the flash host set up as for an
// upgrade, the command run, its JSON objects.
#pragma once
#include <string>

#include "common/failure_kind.h"

class JsonSink;

struct CommandOutcome {
    int classicStatus = 0;      // the status without --exit-code: 0, 7 (flash differs) or 255
    FailureKind failure = FailureKind::kNone;
    std::string successText;
};

// Runs the command g_Setting.iCommand names; `json` is null without --json.
CommandOutcome RunCommandRoad(JsonSink* json);
