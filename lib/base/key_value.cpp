#include "base/key_value.h"

#include <algorithm>

namespace quor {
namespace {

std::string_view trim(std::string_view s) {
    const char* blanks = " \t\r";
    size_t begin = s.find_first_not_of(blanks);
    if (begin == std::string_view::npos) return {};
    return s.substr(begin, s.find_last_not_of(blanks) - begin + 1);
}

bool validKey(std::string_view key) {
    if (key.empty()) return false;
    for (char c : key) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '_' || c == '-' || c == '.';
        if (!ok) return false;
    }
    return true;
}

// Parses the quoted value that starts at value[0] == '"'. Runs between
// escapes are appended whole: manifests are read on every listing.
std::optional<std::string> unquote(std::string_view value) {
    std::string out;
    size_t i = 1;
    for (;;) {
        size_t stop = std::min(value.find('"', i), value.find('\\', i));
        if (stop == std::string_view::npos) return std::nullopt;
        out.append(value.data() + i, stop - i);
        i = stop;
        if (value[i] == '"') break;
        if (i + 1 < value.size() && (value[i + 1] == '"' || value[i + 1] == '\\')) ++i;
        out += value[i++];
    }
    if (!trim(value.substr(i + 1)).empty()) return std::nullopt;
    return out;
}

}  // namespace

std::optional<KeyValues> parseKeyValues(std::string_view text, std::string* error) {
    KeyValues pairs;
    size_t lineNumber = 0;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = trim(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        ++lineNumber;
        if (line.empty() || line.front() == '#') continue;
        size_t eq = line.find('=');
        std::string_view key = eq == std::string_view::npos ? line : trim(line.substr(0, eq));
        if (eq == std::string_view::npos || !validKey(key)) {
            if (error) *error = "line " + std::to_string(lineNumber) + ": expected key=\"value\"";
            return std::nullopt;
        }
        std::string_view raw = trim(line.substr(eq + 1));
        std::optional<std::string> value =
            !raw.empty() && raw.front() == '"' ? unquote(raw) : std::optional<std::string>(raw);
        if (!value) {
            if (error) *error = "line " + std::to_string(lineNumber) + ": unterminated quote";
            return std::nullopt;
        }
        pairs.emplace_back(std::string(key), std::move(*value));
    }
    return pairs;
}

std::string formatKeyValues(const KeyValues& pairs) {
    std::string out;
    for (const auto& [key, value] : pairs) {
        out += key;
        out += "=\"";
        for (char c : value) {
            if (c == '"' || c == '\\') out += '\\';
            out += c;
        }
        out += "\"\n";
    }
    return out;
}

const std::string* findValue(const KeyValues& pairs, std::string_view key) {
    for (const auto& pair : pairs)
        if (pair.first == key) return &pair.second;
    return nullptr;
}

void setValue(KeyValues& pairs, std::string_view key, std::string_view value) {
    for (auto& pair : pairs) {
        if (pair.first == key) {
            pair.second = value;
            return;
        }
    }
    pairs.emplace_back(std::string(key), std::string(value));
}

}  // namespace quor
