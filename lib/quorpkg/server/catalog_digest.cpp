#include "quorpkg/server/catalog_digest.h"

#include <fcntl.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>

#include "base/file_util.h"
#include "base/mapped_file.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/package/version.h"
#include "quorpkg/server/http_client.h"
#include "quorpkg/server/offers.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

constexpr std::string_view kHeader = "quorpkg-catalog-digest 3\n";

fs::path digestFile(const fs::path& list) {
    return fs::path(list.string() + ".digest");
}

// Which catalog file a digest belongs to: a rewritten catalog is a new file.
std::optional<std::string> identity(const fs::path& list, const std::string& hash) {
    struct stat st {};
    if (hash.empty() || ::stat(list.c_str(), &st) != 0) return std::nullopt;
    return std::to_string(st.st_ino) + " " + std::to_string(st.st_size) + " " + hash;
}

// Flags of a summary line.
constexpr unsigned kBeta = 1, kImportant = 2, kSized = 4, kSha256 = 8;

// Fields are separated by tabs and lines by newlines: both are escaped in
// text, and so is the escape.
void appendEscaped(std::string& out, std::string_view text) {
    out += '\t';
    for (char c : text) {
        if (c == '\\' || c == '\t' || c == '\n') {
            out += '\\';
            out += c == '\t' ? 't' : c == '\n' ? 'n' : '\\';
        } else {
            out += c;
        }
    }
}

bool unescape(std::string_view text, std::string& out) {
    if (text.find('\\') == std::string_view::npos) {
        out.assign(text);
        return true;
    }
    out.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
            continue;
        }
        if (++i == text.size()) return false;
        const char c = text[i];
        if (c != 't' && c != 'n' && c != '\\') return false;
        out += c == 't' ? '\t' : c == 'n' ? '\n' : '\\';
    }
    return true;
}

// "<name>\t<start>\t<limit>\t<version>\t<flags>\t<phase>\t<link>\t<arch>\t
// <firmware>\t<display name>\t<description>\n"
std::string summaryLine(const EntrySummary& entry, size_t start, size_t limit) {
    std::string line = entry.name;
    line += '\t' + std::to_string(start) + '\t' + std::to_string(limit);
    appendEscaped(line, entry.version);
    const unsigned flags = (entry.beta ? kBeta : 0u) | (entry.important ? kImportant : 0u) |
                           (entry.sized ? kSized : 0u) | (entry.sha256 ? kSha256 : 0u);
    line += '\t' + std::to_string(flags) + '\t' + std::to_string(entry.phase);
    for (const std::string* text :
         {&entry.link, &entry.arch, &entry.firmware, &entry.displayName, &entry.description})
        appendEscaped(line, *text);
    line += '\n';
    return line;
}

template <typename Number>
bool parseNumber(std::string_view text, Number& out) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

// Where a line's entry is in the catalog (its summary is kept beside).
struct Line {
    size_t start = 0;
    size_t limit = 0;
    bool wanted = false;  // newer than installed: its JSON may be needed
};

bool parseLine(std::string_view line, EntrySummary& entry, Line& out) {
    std::string_view fields[11];
    for (size_t i = 0; i + 1 < std::size(fields); ++i) {
        const size_t tab = line.find('\t');
        if (tab == std::string_view::npos) return false;
        fields[i] = line.substr(0, tab);
        line.remove_prefix(tab + 1);
    }
    fields[10] = line;
    unsigned flags = 0;
    if (line.find('\t') != std::string_view::npos || !parseNumber(fields[1], out.start) ||
        !parseNumber(fields[2], out.limit) || out.limit <= out.start ||
        !parseNumber(fields[4], flags) || !parseNumber(fields[5], entry.phase) ||
        !unescape(fields[3], entry.version) || !unescape(fields[6], entry.link) ||
        !unescape(fields[7], entry.arch) || !unescape(fields[8], entry.firmware) ||
        !unescape(fields[9], entry.displayName) || !unescape(fields[10], entry.description))
        return false;
    entry.name = fields[0];
    entry.beta = flags & kBeta;
    entry.important = flags & kImportant;
    entry.sized = flags & kSized;
    entry.sha256 = flags & kSha256;
    return true;
}

// Whether an entry at `version` can be an upgrade of `installed`.
bool newer(const IndexedPackage& installed, std::string_view version) {
    return !installed.readable || compareVersions(version, installed.version) > 0;
}

// The summaries of the entries of the packages `installed` (sorted by
// name) and where they are, catalog order kept within a name. False when
// the body is not a digest's.
bool linesOf(std::string_view body, const std::vector<IndexedPackage>& installed,
             std::vector<EntrySummary>& entries, std::vector<Line>& lines) {
    auto package = installed.begin();
    while (!body.empty() && package != installed.end()) {
        size_t end = body.find('\n');
        if (end == std::string_view::npos) return false;
        std::string_view text = body.substr(0, end);
        body.remove_prefix(end + 1);
        // Most lines are of packages nobody asked for: only the name is read.
        const std::string_view name = text.substr(0, text.find('\t'));
        while (package != installed.end() && package->name < name) ++package;
        if (package == installed.end() || package->name != name) continue;
        Line& line = lines.emplace_back();
        if (!parseLine(text, entries.emplace_back(), line)) return false;
        line.wanted = newer(*package, entries.back().version);
    }
    return true;
}

bool parseEntry(Json::CharReader& reader, std::string_view text, Json::Value& out) {
    try {
        return reader.parse(text.data(), text.data() + text.size(), &out, nullptr) &&
               out.isObject();
    } catch (const std::exception&) {
        return false;
    }
}

// The JSON of the wanted lines' entries, appended to `found`, each entry's
// summary pointing to its own. False when a range does not hold the entry
// it names: the digest is not this catalog's.
bool readWantedEntries(const fs::path& list, const std::vector<Line>& lines,
                       std::vector<EntrySummary>& entries, Json::Value& found) {
    UniqueFd fd(::open(list.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return false;
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string text;
    for (size_t i = 0; i < lines.size(); ++i) {
        const Line& line = lines[i];
        if (!line.wanted) continue;
        text.resize(line.limit - line.start);
        if (::pread(fd.get(), text.data(), text.size(), static_cast<off_t>(line.start)) !=
            static_cast<ssize_t>(text.size()))
            return false;
        Json::Value entry;
        if (!parseEntry(*reader, text, entry) || entryText(entry, "package") != entries[i].name)
            return false;
        entries[i].json = static_cast<int>(found.size());
        found.append(std::move(entry));
    }
    return true;
}

}  // namespace

void writeCatalogDigest(const fs::path& list, const std::string& hash, const Source& source,
                        const Json::Value& packages) {
    std::optional<std::string> id = identity(list, hash);
    if (!id || !packages.isArray()) return;
    std::vector<std::pair<std::string, std::string>> lines;
    for (const Json::Value& entry : packages) {
        if (!entry.isObject()) continue;
        EntrySummary summary = summarizeEntry(entry);
        // Entries no check could use need no place in the digest.
        if (!isValidPackageName(summary.name)) continue;
        std::string line = summaryLine(summary, entry.getOffsetStart(), entry.getOffsetLimit());
        lines.emplace_back(std::move(summary.name), std::move(line));
    }
    std::stable_sort(lines.begin(), lines.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::string prefix = plainLinkPrefix(source.url);
    if (prefix.find_first_of("\t\n") != std::string::npos) prefix.clear();
    std::string text(kHeader);
    text += *id + "\n" + prefix + "\n";
    for (const auto& line : lines) text += line.second;
    writeFileAtomic(digestFile(list), text);
}

bool readDigestedEntries(const fs::path& list, const std::string& hash, const CatalogLoad& how,
                         Catalog& out) {
    if (!how.installed) return false;
    std::optional<std::string> id = identity(list, hash);
    if (!id) return false;
    const MappedFile digest(digestFile(list));
    std::string_view body = digest.text();
    const std::string head = std::string(kHeader) + *id + "\n";
    if (body.substr(0, head.size()) != head) return false;
    body.remove_prefix(head.size());
    const size_t prefixEnd = body.find('\n');
    if (prefixEnd == std::string_view::npos) return false;
    const std::string_view prefix = body.substr(0, prefixEnd);
    body.remove_prefix(prefixEnd + 1);

    // The lines of one name are in catalog order, so that the server's first
    // entry of a version stays first; the order among names matters to no one.
    std::vector<EntrySummary> entries;
    std::vector<Line> lines;
    entries.reserve(how.installed->size());
    lines.reserve(how.installed->size());
    if (!linesOf(body, *how.installed, entries, lines)) return false;
    Json::Value found(Json::arrayValue);
    if (how.json && !readWantedEntries(list, lines, entries, found)) return false;
    out.entries = std::move(entries);
    out.packages.swap(found);
    out.plainLinkPrefix = prefix;
    return true;
}

}  // namespace quor
