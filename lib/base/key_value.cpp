#include "base/key_value.h"

#include <algorithm>
#include <utility>

#include "base/text.h"

namespace quor {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::string_view trim(std::string_view s) {
    return trimBlanks(s, " \t\r");
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

// `inner` with every quote that is not escaped yet escaped: what the author
// of a value with bare quotes in it meant.
std::string escapeBareQuotes(std::string_view inner) {
    std::string out;
    for (size_t i = 0; i < inner.size(); ++i) {
        if (inner[i] == '\\' && i + 1 < inner.size()) {
            out += inner[i++];
        } else if (inner[i] == '"') {
            out += '\\';
        }
        out += inner[i];
    }
    return out;
}

// Reads the quoted value that starts at value[0] == '"' into `out`, or says
// in `problem` what to write instead. Runs between escapes are appended
// whole: manifests are read on every listing.
bool unquote(std::string_view key, std::string_view value, KeyValueSyntax syntax, std::string& out,
             std::string& problem) {
    size_t i = 1;
    for (;;) {
        size_t stop = std::min(value.find('"', i), value.find('\\', i));
        if (stop == std::string_view::npos) {
            problem = "the value has no closing quote: write " + std::string(key) +
                      "=\"value\", with \\\" for a quote inside it";
            return false;
        }
        out.append(value.data() + i, stop - i);
        i = stop;
        if (value[i] == '"') break;
        if (i + 1 < value.size() && (value[i + 1] == '"' || value[i + 1] == '\\')) ++i;
        out += value[i++];
    }
    std::string_view rest = trim(value.substr(i + 1));
    if (rest.empty() || (syntax.trailingComments && rest.front() == '#')) return true;
    if (rest.find('"') != std::string_view::npos) {
        std::string_view inner = value.substr(1, value.rfind('"') - 1);
        problem = "a quote inside the value must be written \\\": write " + std::string(key) +
                  "=\"" + escapeBareQuotes(inner) + "\"";
    } else {
        problem = "text after the value's closing quote: " + std::string(rest) +
                  (syntax.trailingComments ? " (a comment after a value starts with #)"
                                           : " (put a comment on a line of its own, starting "
                                             "with #)");
    }
    return false;
}

// An unquoted value runs to the end of the line, or to a comment (a '#'
// after a blank) where those are allowed.
std::string_view unquoted(std::string_view raw, KeyValueSyntax syntax) {
    if (!syntax.trailingComments) return raw;
    for (size_t i = 1; i < raw.size(); ++i)
        if (raw[i] == '#' && (raw[i - 1] == ' ' || raw[i - 1] == '\t'))
            return trim(raw.substr(0, i));
    return raw;
}

// Reads one trimmed line that is neither blank nor a comment.
bool readLine(std::string_view line, KeyValueSyntax syntax, std::string& key, std::string& value,
              std::string& problem) {
    size_t eq = line.find('=');
    std::string_view name = eq == std::string_view::npos ? line : trim(line.substr(0, eq));
    key.assign(name);
    if (eq == std::string_view::npos || !validKey(name)) {
        problem = "expected key=\"value\"";
        return false;
    }
    std::string_view raw = trim(line.substr(eq + 1));
    if (!raw.empty() && raw.front() == '"') return unquote(name, raw, syntax, value, problem);
    value.assign(unquoted(raw, syntax));
    return true;
}

// Calls visit(number, line) for each trimmed line that is not blank or a
// comment; line 1 keeps a byte-order mark so that the reader can name it.
template <typename Visit>
bool forEachLine(std::string_view text, const Visit& visit) {
    size_t number = 0;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = trim(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        ++number;
        if (number == 1 && line.starts_with(kByteOrderMark)) {
            if (!visit(number, line)) return false;
            continue;
        }
        if (line.empty() || line.front() == '#') continue;
        if (!visit(number, line)) return false;
    }
    return true;
}

// Whether the (first) line begins with a byte-order mark, with the problem.
bool byteOrderMark(std::string_view line, std::string& problem) {
    if (!line.starts_with(kByteOrderMark)) return false;
    problem =
        "the file starts with a byte-order mark (bytes EF BB BF): save it as UTF-8 without one";
    return true;
}

}  // namespace

std::vector<KeyValueLine> readKeyValueLines(std::string_view text, KeyValueSyntax syntax) {
    std::vector<KeyValueLine> lines;
    forEachLine(text, [&](size_t number, std::string_view line) {
        KeyValueLine& read = lines.emplace_back();
        read.number = number;
        if (byteOrderMark(line, read.problem)) {
            // The pair after the mark is read all the same, so that the mark
            // is the only problem reported.
            std::string ignored;
            line = trim(line.substr(kByteOrderMark.size()));
            read.read = !line.empty() && line.front() != '#' &&
                        readLine(line, syntax, read.key, read.value, ignored);
        } else {
            read.read = readLine(line, syntax, read.key, read.value, read.problem);
        }
        return true;
    });
    return lines;
}

std::optional<KeyValues> parseKeyValues(std::string_view text, std::string* error) {
    KeyValues pairs;
    std::string key, value, problem;
    const bool ok = forEachLine(text, [&](size_t number, std::string_view line) {
        value.clear();
        if (!byteOrderMark(line, problem) && readLine(line, {}, key, value, problem)) {
            pairs.emplace_back(std::move(key), std::move(value));
            return true;
        }
        if (error) *error = "line " + std::to_string(number) + ": " + problem;
        return false;
    });
    if (!ok) return std::nullopt;
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
