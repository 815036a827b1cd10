#include "quorpkg/package/version.h"

namespace quor {
namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Weight of a character inside a non-digit run: '~' before the end of the
// run, the end before any other character, the rest by byte value.
int weight(std::string_view run, size_t i) {
    if (i >= run.size()) return 0;
    if (run[i] == '~') return -1;
    return static_cast<unsigned char>(run[i]) + 1;
}

std::string_view takeRun(std::string_view& s, bool digits) {
    size_t n = 0;
    while (n < s.size() && isDigit(s[n]) == digits) ++n;
    std::string_view run = s.substr(0, n);
    s.remove_prefix(n);
    return run;
}

int compareText(std::string_view a, std::string_view b) {
    for (size_t i = 0; i < a.size() || i < b.size(); ++i) {
        int wa = weight(a, i), wb = weight(b, i);
        if (wa != wb) return wa < wb ? -1 : 1;
    }
    return 0;
}

// Digit runs compare as numbers of any length: without leading zeros, the
// longer one is larger, and equal lengths compare digit by digit.
int compareNumber(std::string_view a, std::string_view b) {
    while (!a.empty() && a.front() == '0') a.remove_prefix(1);
    while (!b.empty() && b.front() == '0') b.remove_prefix(1);
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    int c = a.compare(b);
    return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

}  // namespace

int compareVersions(std::string_view a, std::string_view b) {
    while (!a.empty() || !b.empty()) {
        if (int c = compareText(takeRun(a, false), takeRun(b, false))) return c;
        if (int c = compareNumber(takeRun(a, true), takeRun(b, true))) return c;
    }
    return 0;
}

bool versionSatisfies(std::string_view version, std::string_view op, std::string_view wanted) {
    if (op.empty()) return true;
    int c = compareVersions(version, wanted);
    if (op == ">=") return c >= 0;
    if (op == "<=") return c <= 0;
    if (op == ">") return c > 0;
    if (op == "<") return c < 0;
    if (op == "=") return c == 0;
    return false;  // an operator we do not know is never met
}

}  // namespace quor
