// The command words of quorpkg and their handlers.
#pragma once

#include "commands/commands.h"

namespace quorpkg {

struct CommandRow {
    const char* name;  // null ends the table
    CommandHandler handler;
};

// Search order is table order; the last row has a null name.
extern const CommandRow kCommandTable[];

// The handler whose name equals `word` exactly, or null.
CommandHandler findCommand(const char* word);

}  // namespace quorpkg
