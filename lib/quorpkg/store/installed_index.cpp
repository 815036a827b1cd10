#include "quorpkg/store/installed_index.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <mutex>
#include <optional>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/mapped_file.h"
#include "base/result.h"
#include "base/system_root.h"
#include "quorpkg/store/store.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

constexpr std::string_view kHeader = "quorpkg-installed 2\n";

fs::path indexFile() {
    return hostPath("/var/cache/quorpkg/installed");
}

bool later(const timespec& a, const timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

// What a package's entry was read from, and the newest time in it.
struct Source {
    std::string text;
    timespec newest{};
};

void describe(int dirFd, const char* path, Source& out) {
    struct stat st {};
    if (::fstatat(dirFd, path, &st, 0) != 0) {
        out.text += " -";
        return;
    }
    // " ino:size:sec.nsec", printed without temporaries: once per package
    // on every listing.
    auto number = [&](char before, auto value) {
        char digits[24];
        out.text += before;
        out.text.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
    };
    number(' ', st.st_ino);
    number(':', st.st_size);
    number(':', st.st_mtim.tv_sec);
    number('.', st.st_mtim.tv_nsec);
    if (later(st.st_mtim, out.newest)) out.newest = st.st_mtim;
}

Source sourceOf(int packagesFd, const std::string& name) {
    Source source;
    std::string path = name + "/INFO";
    describe(packagesFd, path.c_str(), source);
    path.replace(name.size() + 1, std::string::npos, "scripts");
    describe(packagesFd, path.c_str(), source);
    source.text.erase(0, 1);
    return source;
}

IndexedPackage readPackage(const std::string& name, std::string source) {
    IndexedPackage package;
    package.name = name;
    package.source = std::move(source);
    std::optional<std::string> text = readFile(layout::manifestFile(name));
    Manifest manifest;
    if (text && parseManifest(*text, manifest) == kOk && manifest.name == name) {
        package.readable = true;
        package.scriptMask = installedScriptMask(name);
        package.version = manifest.version;
        package.beta = manifest.beta;
        package.manifestText = std::move(*text);
    }
    return package;
}

// The index on disk and when it was written; an empty one when there is
// none or it cannot be read.
InstalledIndex readIndexFile(timespec& written) {
    InstalledIndex index;
    written = {};
    const MappedFile file(indexFile());
    if (file.opened() && parseIndex(file.text(), index)) written = file.status().st_mtim;
    return index;
}

void writeIndexFile(const InstalledIndex& index) {
    std::error_code ec;
    fs::create_directories(indexFile().parent_path(), ec);
    writeFileAtomic(indexFile(), formatIndex(index));
}

// How long the packages of a listing answer lookups without looking at the
// store again: a caller that lists and then asks about every listed package
// gets them as listed, one that comes back later reads the store again.
constexpr long kListingLifeMs = 5000;

long nowMs() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// The last listing of this process and when it was made.
struct Cache {
    std::mutex mutex;
    std::shared_ptr<const InstalledIndex> index;
    long madeMs = 0;
};

Cache& cache() {
    static Cache instance;
    return instance;
}

}  // namespace

const IndexedPackage* InstalledIndex::find(std::string_view name) const {
    auto it =
        std::lower_bound(packages.begin(), packages.end(), name,
                         [](const IndexedPackage& p, std::string_view n) { return p.name < n; });
    return it != packages.end() && it->name == name ? &*it : nullptr;
}

std::vector<std::string> InstalledIndex::names() const {
    std::vector<std::string> out;
    out.reserve(packages.size());
    for (const IndexedPackage& package : packages) out.push_back(package.name);
    return out;
}

int indexedManifest(const IndexedPackage& package, Manifest& out) {
    if (!package.readable || parseManifest(package.manifestText, out) != kOk) return kBroken;
    return kOk;
}

// Per package "<name> <mask> <length> <version> <beta> <source>\n<manifest>\n",
// "-" as the mask and version of an unreadable one, beta 1 or 0; names and
// versions hold neither blanks nor newlines.
std::string formatIndex(const InstalledIndex& index) {
    std::string out(kHeader);
    for (const IndexedPackage& package : index.packages) {
        out += package.name;
        out += ' ';
        out += package.readable ? std::to_string(package.scriptMask) : "-";
        out += ' ';
        out += std::to_string(package.manifestText.size());
        out += ' ';
        out += package.readable ? package.version : "-";
        out += package.beta ? " 1 " : " 0 ";
        out += package.source;
        out += '\n';
        out += package.manifestText;
        out += '\n';
    }
    return out;
}

namespace {

// Splits off the text up to the next blank of `line`.
std::string_view nextField(std::string_view& line) {
    size_t blank = line.find(' ');
    std::string_view field = line.substr(0, blank);
    line.remove_prefix(blank == std::string_view::npos ? line.size() : blank + 1);
    return field;
}

template <typename Number>
bool parseNumber(std::string_view text, Number& out) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

bool parseIndex(std::string_view text, InstalledIndex& out) {
    if (text.substr(0, kHeader.size()) != kHeader) return false;
    text.remove_prefix(kHeader.size());
    InstalledIndex index;
    while (!text.empty()) {
        size_t end = text.find('\n');
        if (end == std::string_view::npos) return false;
        std::string_view head = text.substr(0, end);
        text.remove_prefix(end + 1);
        IndexedPackage package;
        package.name = std::string(nextField(head));
        const std::string_view mask = nextField(head);
        const std::string_view length = nextField(head);
        const std::string_view version = nextField(head);
        const std::string_view beta = nextField(head);
        package.source = std::string(head);
        size_t size = 0;
        if (package.name.empty() || !parseNumber(length, size) || (beta != "0" && beta != "1"))
            return false;
        package.readable = mask != "-";
        if (package.readable) {
            if (!parseNumber(mask, package.scriptMask) || !isValidVersion(version)) return false;
            package.version = std::string(version);
            package.beta = beta == "1";
        }
        if (size >= text.size() || text[size] != '\n') return false;
        package.manifestText = std::string(text.substr(0, size));
        text.remove_prefix(size + 1);
        if (!index.packages.empty() && !(index.packages.back().name < package.name)) return false;
        index.packages.push_back(std::move(package));
    }
    out = std::move(index);
    return true;
}

std::shared_ptr<const InstalledIndex> loadInstalledIndex() {
    const long startMs = nowMs();
    timespec written{};
    InstalledIndex stored = readIndexFile(written);
    auto current = std::make_shared<InstalledIndex>();
    bool stale = false;
    UniqueFd packagesFd(::open(layout::packagesDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::vector<std::string> names = installedPackages();
    current->packages.reserve(names.size());
    // Both are sorted by name: one walk, entries moved over.
    auto known = stored.packages.begin();
    for (const std::string& name : names) {
        Source source = sourceOf(packagesFd.get(), name);
        while (known != stored.packages.end() && known->name < name) ++known;
        if (known != stored.packages.end() && known->name == name && known->source == source.text &&
            later(written, source.newest)) {
            current->packages.push_back(std::move(*known));
        } else {
            current->packages.push_back(readPackage(name, std::move(source.text)));
            stale = true;
        }
    }
    if (stale || stored.packages.size() != names.size()) writeIndexFile(*current);
    std::lock_guard guard(cache().mutex);
    cache().index = current;
    cache().madeMs = startMs;
    return current;
}

std::shared_ptr<const InstalledIndex> currentInstalledIndex() {
    const long now = nowMs();
    std::lock_guard guard(cache().mutex);
    if (!cache().index || now - cache().madeMs > kListingLifeMs) return nullptr;
    return cache().index;
}

void updateInstalledIndex(const std::string& name) {
    {
        std::lock_guard guard(cache().mutex);
        cache().index.reset();
    }
    timespec written{};
    InstalledIndex index = readIndexFile(written);
    std::erase_if(index.packages, [&](const IndexedPackage& p) { return p.name == name; });
    if (isInstalled(name)) {
        UniqueFd packagesFd(
            ::open(layout::packagesDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        IndexedPackage package = readPackage(name, sourceOf(packagesFd.get(), name).text);
        auto at = std::lower_bound(
            index.packages.begin(), index.packages.end(), name,
            [](const IndexedPackage& p, const std::string& n) { return p.name < n; });
        index.packages.insert(at, std::move(package));
    }
    writeIndexFile(index);
}

}  // namespace quor
