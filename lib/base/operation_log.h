// The platform log: one line per operation in $QUOR_ROOT/var/log/quorpkg.log,
// the same words in the system log, so that a refusal always leaves its
// reason where a person can read it. Between them, one line per package a
// change acted on makes the file the store's history.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "base/operation.h"

namespace quor {

// Where the file is kept, and how large it may grow before it is moved to
// quorpkg.log.1.
std::filesystem::path operationLogFile();
inline constexpr uintmax_t kOperationLogCap = 1 << 20;

// "<name> <package>: <code> <reason>": control characters become blanks,
// an empty package is "-".
std::string operationLine(const std::string& name, const std::string& package,
                          const Outcome& outcome);

// Appends "<UTC time> [<pid>] <line>" to the file and sends the line to
// syslog. Never fails: a log that cannot be written is skipped.
void logOperation(const std::string& name, const std::string& package, const Outcome& outcome);

// A problem of a file an administrator writes (settings, sources): appends
// "<UTC time> [<pid>] <file>:<line>: <message>" ("<file>: <message>" for
// line 0) and sends the same words to syslog, once per process for the same
// words, since such files are read many times per process. Like a failed
// operation's line, it makes the log folder when there is none. Never fails.
void logFileProblem(const std::filesystem::path& file, size_t line, const std::string& message);

// Appends "<UTC time> [<pid>] package <name>: <what>" (e.g. "package demo:
// upgraded from 1.0 to 2.0") as the change happens
// (before the line of the operation that made it) and sends it to syslog.
// Never fails.
void logPackageChange(const std::string& name, const std::string& what);

}  // namespace quor
