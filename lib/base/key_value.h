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

// What a file's lines may hold beyond key="value". Files people edit by
// hand (settings) may end a line with a comment, as shell files may;
// manifests may not, so that every reader of a package reads it alike.
struct KeyValueSyntax {
    bool trailingComments = false;  // `key="value" # words`, `key=value # words`
};

// One line of key="value" text that holds something.
struct KeyValueLine {
    size_t number = 0;  // 1-based
    // For a line that could not be read, the text before '=' as written (or
    // the whole line), so that a caller can tell which key it was meant for.
    std::string key;
    std::string value;
    // Empty when the line was read; else what is wrong and what to write.
    std::string problem;
    // Whether key and value hold the line's pair: when the problem is only a
    // byte-order mark before it, the pair is read all the same.
    bool read = false;
};

// Every line that is not blank or a comment, in file order, each read on its
// own: a bad line does not stop the others. A file that starts with a UTF-8
// byte-order mark has a problem on line 1.
std::vector<KeyValueLine> readKeyValueLines(std::string_view text, KeyValueSyntax syntax = {});

// The pairs in file order, or nothing (with "line N: <problem>" in `error`)
// when a line is not of the form key="value". An unquoted value runs to the
// end of line.
std::optional<KeyValues> parseKeyValues(std::string_view text, std::string* error = nullptr);

// One key="value" line per pair, escaping '"' and '\'.
std::string formatKeyValues(const KeyValues& pairs);

// The value of the first pair with `key`, or null.
const std::string* findValue(const KeyValues& pairs, std::string_view key);

// Sets the first pair with `key`, or appends one.
void setValue(KeyValues& pairs, std::string_view key, std::string_view value);

}  // namespace quor
