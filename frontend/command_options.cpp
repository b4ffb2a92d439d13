#include "frontend/command_options.h"

CommandArguments& PendingCommandArguments()
{
    static CommandArguments arguments;
    return arguments;
}
