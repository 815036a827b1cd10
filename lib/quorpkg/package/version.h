// Package versions compare as runs of digits and of other characters from
// the left: digit runs numerically, other runs byte-wise, except that '~'
// sorts before anything, even the end ("1.0~beta1" < "1.0").
#pragma once

#include <string_view>

namespace quor {

// Negative, zero or positive as a is older than, equal to or newer than b.
int compareVersions(std::string_view a, std::string_view b);

// Whether `version` meets `op wanted` (op one of >=, <=, >, <, = or empty).
bool versionSatisfies(std::string_view version, std::string_view op, std::string_view wanted);

}  // namespace quor
