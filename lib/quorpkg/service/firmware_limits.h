// The firmware limit: /etc/quorpkg/firmware-limits lists package versions
// that this firmware refuses to run, one "name op version" a line (op one of
// >=, <=, >, <, =); blank lines and lines starting with '#' are skipped.
#pragma once

#include <string>
#include <vector>

namespace quor {

// The limits file as read once, for questions about many packages.
class FirmwareLimits {
public:
    static FirmwareLimits load();

    // 0 when the firmware runs `version` of the package, 1 when a line of
    // the limits file matches it.
    int status(const std::string& name, const std::string& version) const;

private:
    struct Limit {
        std::string package;
        std::string op;
        std::string version;
    };
    std::vector<Limit> limits_;
};

// FirmwareLimits::load().status(name, version).
int firmwareLimitStatus(const std::string& name, const std::string& version);

}  // namespace quor
