// The version order on any two strings (split at the first newline): it is
// antisymmetric, reflexive and agrees with every comparison operator.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "quorpkg/package/version.h"

namespace {

int sign(int value) {
    return (value > 0) - (value < 0);
}

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    const size_t newline = text.find('\n');
    const std::string_view a = text.substr(0, newline);
    const std::string_view b = newline == std::string_view::npos ? "" : text.substr(newline + 1);
    const int ab = sign(quor::compareVersions(a, b));
    check(ab == -sign(quor::compareVersions(b, a)));
    check(quor::compareVersions(a, a) == 0);
    check(quor::versionSatisfies(a, ">=", b) == (ab >= 0));
    check(quor::versionSatisfies(a, "<=", b) == (ab <= 0));
    check(quor::versionSatisfies(a, ">", b) == (ab > 0));
    check(quor::versionSatisfies(a, "<", b) == (ab < 0));
    check(quor::versionSatisfies(a, "=", b) == (ab == 0));
    return 0;
}
