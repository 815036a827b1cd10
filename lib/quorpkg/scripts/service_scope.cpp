#include "quorpkg/scripts/service_scope.h"

#include <sys/random.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>

#include "base/system_root.h"

namespace quor {
namespace {

constexpr const char* kSystemdRun = "/usr/bin/systemd-run";
constexpr const char* kEnv = "/usr/bin/env";
// The boot unit that stops the packages through their scripts at shutdown.
constexpr const char* kBootUnit = "quorpkg.service";

// systemd's own test for "booted with systemd" (sd_booted).
bool systemdIsInit() {
    return ::access("/run/systemd/system", F_OK) == 0;
}

// getrandom rather than std::random_device, which may throw; without it the
// pid and the clock still differ between two starts.
std::string randomSuffix() {
    uint32_t value = 0;
    if (::getrandom(&value, sizeof value, GRND_NONBLOCK) != sizeof value)
        value = static_cast<uint32_t>(::getpid()) * 2654435761u ^
                static_cast<uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    char hex[9];
    std::snprintf(hex, sizeof hex, "%08x", value);
    return hex;
}

// A unit name systemd accepts: alphanumerics, '.', '_' and '-' of the
// package name as they are, anything else (a '+') as \xNN.
std::string scopeUnitName(const std::string& packageName, const std::string& suffix) {
    std::string unit = "quorpkg-pkg-";
    for (unsigned char c : packageName) {
        if (std::isalnum(c) || c == '.' || c == '_' || c == '-') {
            unit += static_cast<char>(c);
        } else {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            unit += escaped;
        }
    }
    return unit + "-" + suffix + ".scope";
}

}  // namespace

std::optional<ScopedCommand> inServiceScope(const std::string& packageName,
                                            const std::vector<std::string>& command,
                                            const std::vector<std::string>& env) {
    if (rootDir() != "/" || !systemdIsInit() || ::access(kSystemdRun, X_OK) != 0 ||
        ::access(kEnv, X_OK) != 0)
        return std::nullopt;
    ScopedCommand scoped;
    scoped.unit = scopeUnitName(packageName, randomSuffix());
    scoped.argv = {kSystemdRun, "--scope", "--quiet",
                   // A scope whose last process failed is dropped all the same.
                   "--collect", "--unit=" + scoped.unit,
                   "--description=quorpkg package " + packageName,
                   // Stopped at shutdown only after the boot unit ran the
                   // packages' stop scripts.
                   "--property=Before=" + std::string(kBootUnit), "--",
                   // systemd-run adds INVOCATION_ID; the script gets exactly
                   // its own environment.
                   kEnv, "-i"};
    scoped.argv.insert(scoped.argv.end(), env.begin(), env.end());
    scoped.argv.insert(scoped.argv.end(), command.begin(), command.end());
    return scoped;
}

}  // namespace quor
