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
#include "base/result.h"
#include "base/system_root.h"
#include "quorpkg/store/store.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

constexpr std::string_view kHeader = "quorpkg-installed 1\n";

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
    out.text += " " + std::to_string(st.st_ino) + ":" + std::to_string(st.st_size) + ":" +
                std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
    if (later(st.st_mtim, out.newest)) out.newest = st.st_mtim;
}

Source sourceOf(int packagesFd, const std::string& name) {
    Source source;
    describe(packagesFd, (name + "/INFO").c_str(), source);
    describe(packagesFd, (name + "/scripts").c_str(), source);
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
        package.manifestText = std::move(*text);
    }
    return package;
}

// The index on disk and when it was written; an empty one when there is
// none or it cannot be read.
InstalledIndex readIndexFile(timespec& written) {
    InstalledIndex index;
    written = {};
    UniqueFd fd(::open(indexFile().c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) return index;
    std::string text(static_cast<size_t>(st.st_size), '\0');
    size_t have = 0;
    while (have < text.size()) {
        ssize_t n = ::read(fd.get(), text.data() + have, text.size() - have);
        if (n <= 0) return index;
        have += static_cast<size_t>(n);
    }
    if (parseIndex(text, index)) written = st.st_mtim;
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

// Per package "<name> <mask> <length> <source>\n<manifest>\n", "-" as the
// mask of an unreadable one; names hold neither blanks nor newlines.
std::string formatIndex(const InstalledIndex& index) {
    std::string out(kHeader);
    for (const IndexedPackage& package : index.packages) {
        out += package.name;
        out += package.readable ? " " + std::to_string(package.scriptMask) : std::string(" -");
        out += " " + std::to_string(package.manifestText.size()) + " " + package.source + "\n";
        out += package.manifestText;
        out += '\n';
    }
    return out;
}

bool parseIndex(std::string_view text, InstalledIndex& out) {
    if (text.substr(0, kHeader.size()) != kHeader) return false;
    text.remove_prefix(kHeader.size());
    InstalledIndex index;
    while (!text.empty()) {
        size_t end = text.find('\n');
        if (end == std::string_view::npos) return false;
        std::string_view head = text.substr(0, end);
        text.remove_prefix(end + 1);
        size_t blank1 = head.find(' ');
        size_t blank2 = head.find(' ', blank1 + 1);
        size_t blank3 = head.find(' ', blank2 + 1);
        if (blank3 == std::string_view::npos || blank1 == 0) return false;
        IndexedPackage package;
        package.name = std::string(head.substr(0, blank1));
        std::string_view mask = head.substr(blank1 + 1, blank2 - blank1 - 1);
        std::string_view length = head.substr(blank2 + 1, blank3 - blank2 - 1);
        package.source = std::string(head.substr(blank3 + 1));
        size_t size = 0;
        auto [lengthEnd, lengthError] =
            std::from_chars(length.data(), length.data() + length.size(), size);
        if (lengthError != std::errc() || lengthEnd != length.data() + length.size()) return false;
        package.readable = mask != "-";
        if (package.readable) {
            auto [maskEnd, maskError] =
                std::from_chars(mask.data(), mask.data() + mask.size(), package.scriptMask);
            if (maskError != std::errc() || maskEnd != mask.data() + mask.size()) return false;
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
    for (const std::string& name : names) {
        Source source = sourceOf(packagesFd.get(), name);
        const IndexedPackage* known = stored.find(name);
        if (known && known->source == source.text && later(written, source.newest)) {
            current->packages.push_back(*known);
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
