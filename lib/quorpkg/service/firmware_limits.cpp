#include "quorpkg/service/firmware_limits.h"

#include <sstream>

#include "base/file_util.h"
#include "base/layout.h"
#include "quorpkg/package/version.h"

namespace quor {
namespace {

bool knownOperator(const std::string& op) {
    return op == ">=" || op == "<=" || op == ">" || op == "<" || op == "=";
}

}  // namespace

int firmwareLimitStatus(const std::string& name, const std::string& version) {
    std::optional<std::string> text = readFile(layout::firmwareLimitsFile());
    if (!text) return 0;
    std::istringstream lines(*text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string package, op, limit;
        if (!(words >> package) || package[0] == '#') continue;
        // A malformed line blocks nothing: the limit is a list of known bad
        // versions, not of allowed ones.
        if (!(words >> op >> limit) || !knownOperator(op)) continue;
        if (package == name && versionSatisfies(version, op, limit)) return 1;
    }
    return 0;
}

}  // namespace quor
