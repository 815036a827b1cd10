#include "quorpkg/server/catalog_digest.h"

#include <fcntl.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
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

constexpr std::string_view kHeader = "quorpkg-catalog-digest 2\n";

fs::path digestFile(const fs::path& list) {
    return fs::path(list.string() + ".digest");
}

// Which catalog file a digest belongs to: a rewritten catalog is a new file.
std::optional<std::string> identity(const fs::path& list, const std::string& hash) {
    struct stat st {};
    if (hash.empty() || ::stat(list.c_str(), &st) != 0) return std::nullopt;
    return std::to_string(st.st_ino) + " " + std::to_string(st.st_size) + " " + hash;
}

struct Range {
    std::string_view name;
    size_t start = 0;
    size_t limit = 0;
};

// Whether an entry at `version` can matter to a load for `installed`.
bool wanted(const IndexedPackage& installed, std::string_view version) {
    return !installed.readable || compareVersions(version, installed.version) > 0;
}

bool parseNumber(std::string_view text, size_t& out) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && end == text.data() + text.size();
}

// The ranges of the entries wanted for `installed` (sorted by name),
// catalog order kept within a name. False when the body is not a digest's.
bool rangesOf(std::string_view body, const std::vector<IndexedPackage>& installed,
              std::vector<Range>& out) {
    auto package = installed.begin();
    while (!body.empty()) {
        size_t end = body.find('\n');
        if (end == std::string_view::npos) return false;
        std::string_view line = body.substr(0, end);
        body.remove_prefix(end + 1);
        size_t tab1 = line.find('\t');
        if (tab1 == std::string_view::npos) return false;
        Range range;
        range.name = line.substr(0, tab1);
        while (package != installed.end() && package->name < range.name) ++package;
        // Most lines are of packages nobody asked for: only the name is read.
        if (package == installed.end() || package->name != range.name) continue;
        size_t tab2 = line.find('\t', tab1 + 1);
        size_t tab3 = line.find('\t', tab2 + 1);
        if (tab3 == std::string_view::npos ||
            !parseNumber(line.substr(tab1 + 1, tab2 - tab1 - 1), range.start) ||
            !parseNumber(line.substr(tab2 + 1, tab3 - tab2 - 1), range.limit) ||
            range.limit <= range.start)
            return false;
        if (wanted(*package, line.substr(tab3 + 1))) out.push_back(range);
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

}  // namespace

void writeCatalogDigest(const fs::path& list, const std::string& hash, const Source& source,
                        const Json::Value& packages) {
    std::optional<std::string> id = identity(list, hash);
    if (!id || !packages.isArray()) return;
    std::vector<std::pair<std::string, std::string>> lines;
    for (const Json::Value& entry : packages) {
        const std::string name = entryText(entry, "package");
        const std::string version = entryText(entry, "version");
        // Entries no check could use need no place in the digest.
        if (!entry.isObject() || !isValidPackageName(name) || !isValidVersion(version)) continue;
        lines.emplace_back(name, name + "\t" + std::to_string(entry.getOffsetStart()) + "\t" +
                                     std::to_string(entry.getOffsetLimit()) + "\t" + version +
                                     "\n");
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

    std::vector<Range> ranges;
    if (!rangesOf(body, *how.installed, ranges)) return false;
    // Catalog order, so that the server's first entry of a version stays first.
    std::sort(ranges.begin(), ranges.end(),
              [](const Range& a, const Range& b) { return a.start < b.start; });

    UniqueFd fd(::open(list.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return false;
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value found(Json::arrayValue);
    std::string text;
    for (const Range& range : ranges) {
        text.resize(range.limit - range.start);
        if (::pread(fd.get(), text.data(), text.size(), static_cast<off_t>(range.start)) !=
            static_cast<ssize_t>(text.size()))
            return false;
        Json::Value entry;
        // A range that does not hold the entry it names: not this catalog's.
        if (!parseEntry(*reader, text, entry) || entryText(entry, "package") != range.name)
            return false;
        found.append(std::move(entry));
    }
    out.packages.swap(found);
    out.plainLinkPrefix = prefix;
    return true;
}

}  // namespace quor
