// The firmware limit: /etc/quorpkg/firmware-limits lists package versions
// that this firmware refuses to run, one "name op version" a line (op one of
// >=, <=, >, <, =); blank lines and lines starting with '#' are skipped.
#pragma once

#include <string>

namespace quor {

// 0 when the firmware runs `version` of the package, 1 when a line of the
// limits file matches it.
int firmwareLimitStatus(const std::string& name, const std::string& version);

}  // namespace quor
