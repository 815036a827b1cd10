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

FirmwareLimits FirmwareLimits::load() {
    FirmwareLimits out;
    std::optional<std::string> text = readFile(layout::firmwareLimitsFile());
    if (!text) return out;
    std::istringstream lines(*text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        Limit limit;
        if (!(words >> limit.package) || limit.package[0] == '#') continue;
        // A malformed line blocks nothing: the limit is a list of known bad
        // versions, not of allowed ones.
        if (!(words >> limit.op >> limit.version) || !knownOperator(limit.op)) continue;
        out.limits_.push_back(std::move(limit));
    }
    return out;
}

int FirmwareLimits::status(const std::string& name, const std::string& version) const {
    for (const Limit& limit : limits_)
        if (limit.package == name && versionSatisfies(version, limit.op, limit.version)) return 1;
    return 0;
}

int firmwareLimitStatus(const std::string& name, const std::string& version) {
    return FirmwareLimits::load().status(name, version);
}

}  // namespace quor
