// key="value" text, one pair a line: the format of package manifests,
// settings and the package-list hash files. Blank lines and lines starting
// with '#' are skipped; inside the quotes \" and \\ are escapes.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quor {

using KeyValues = std::vector<std::pair<std::string, std::string>>;

// The pairs in file order, or nothing (with a reason in `error`) when a line
// is not of the form key="value". An unquoted value runs to the end of line.
std::optional<KeyValues> parseKeyValues(std::string_view text, std::string* error = nullptr);

// One key="value" line per pair, escaping '"' and '\'.
std::string formatKeyValues(const KeyValues& pairs);

// The value of the first pair with `key`, or null.
const std::string* findValue(const KeyValues& pairs, std::string_view key);

// Sets the first pair with `key`, or appends one.
void setValue(KeyValues& pairs, std::string_view key, std::string_view value);

}  // namespace quor
