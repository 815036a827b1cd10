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
#include "quorpkg/store/origin.h"
#include "quorpkg/store/store.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

constexpr std::string_view kHeader = "quorpkg-installed 3\n";
constexpr std::string_view kStampKey = "stamp ";
constexpr std::string_view kNoStamp = "-";

// How long /var/packages must have been left alone before a listing stamps
// the index with its time: longer than the timestamp granularity of any
// file system it may live on (whole seconds on some), so that no later
// change can leave the folder with the same time.
constexpr long long kSettledNs = 2'000'000'000;

fs::path indexFile() {
    return hostPath("/var/cache/quorpkg/installed");
}

bool later(const timespec& a, const timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

void appendNumber(std::string& out, long long value) {
    char digits[24];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

// "<inode> <seconds>.<nanoseconds>" of the folder's modification time.
std::string stampOf(const struct stat& st) {
    std::string stamp;
    appendNumber(stamp, static_cast<long long>(st.st_ino));
    stamp += ' ';
    appendNumber(stamp, st.st_mtim.tv_sec);
    stamp += '.';
    appendNumber(stamp, st.st_mtim.tv_nsec);
    return stamp;
}

bool settled(const struct stat& st) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const long long age = (static_cast<long long>(now.tv_sec) - st.st_mtim.tv_sec) * 1'000'000'000 +
                          (now.tv_nsec - st.st_mtim.tv_nsec);
    return age > kSettledNs;
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
    // " ino:size:sec.nsec"
    out.text += ' ';
    appendNumber(out.text, static_cast<long long>(st.st_ino));
    out.text += ':';
    appendNumber(out.text, st.st_size);
    out.text += ':';
    appendNumber(out.text, st.st_mtim.tv_sec);
    out.text += '.';
    appendNumber(out.text, st.st_mtim.tv_nsec);
    if (later(st.st_mtim, out.newest)) out.newest = st.st_mtim;
}

Source sourceOf(int packagesFd, const std::string& name) {
    Source source;
    for (const char* file : {"/INFO", "/scripts", "/origin"})
        describe(packagesFd, (name + file).c_str(), source);
    source.text.erase(0, 1);
    return source;
}

// A package's record, read from its folder: its origin, and for a package
// with a usable manifest its script mask, beta flag, version and manifest.
std::string recordOf(const std::string& name) {
    std::string record;
    appendPacked(record, readOrigin(name).source);
    std::optional<std::string> text = readFile(layout::manifestFile(name));
    Manifest manifest;
    if (text && parseManifest(*text, manifest) == kOk && manifest.name == name) {
        appendPacked(record, std::to_string(installedScriptMask(name)));
        appendPacked(record, manifest.beta ? "1" : "0");
        appendPacked(record, manifest.version);
        packManifest(manifest, record);
    }
    return record;
}

// "<name> <size>\n<source, packed><record>\n"
void appendEntry(std::string& out, std::string_view name, std::string_view source,
                 std::string_view record) {
    out += name;
    out += ' ';
    std::string packedSource;
    appendPacked(packedSource, source);
    appendNumber(out, static_cast<long long>(packedSource.size() + record.size()));
    out += '\n';
    out += packedSource;
    out += record;
    out += '\n';
}

template <typename Number>
bool parseNumber(std::string_view text, Number& out) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

// An entry's text after its head: the source, then the record.
bool parseEntry(std::string_view text, IndexedPackage& out) {
    PackedReader fields(text);
    if (!fields.next(out.source)) return false;
    out.record = fields.rest();
    if (!fields.next(out.origin)) return false;
    out.readable = !fields.done();
    if (!out.readable) return true;
    std::string_view mask, beta;
    if (!fields.next(mask) || !parseNumber(mask, out.scriptMask) || !fields.next(beta) ||
        (beta != "0" && beta != "1") || !fields.next(out.version) || !isValidVersion(out.version))
        return false;
    out.beta = beta == "1";
    out.packed = fields.rest();
    return true;
}

// The index text for what /var/packages holds now, stamped `stamp`: the
// entries of `stored` whose files are unchanged and older than it (written
// at `written`), every other package (and `fresh`) read from its folder.
// `changed` tells whether any entry differs from `stored`.
std::string currentIndexText(const InstalledIndex& stored, const timespec& written, int packagesFd,
                             std::string_view stamp, const std::string& fresh, bool& changed) {
    std::string text(kHeader);
    text += kStampKey;
    text += stamp;
    text += '\n';
    const std::vector<std::string> names = installedPackages();
    changed = stored.packages.size() != names.size();
    // Both are sorted by name: one walk.
    auto known = stored.packages.begin();
    for (const std::string& name : names) {
        Source source = sourceOf(packagesFd, name);
        while (known != stored.packages.end() && known->name < name) ++known;
        if (known != stored.packages.end() && known->name == name && name != fresh &&
            known->source == source.text && later(written, source.newest)) {
            appendEntry(text, name, known->source, known->record);
        } else {
            appendEntry(text, name, source.text, recordOf(name));
            changed = true;
        }
    }
    return text;
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

void writeIndexFile(std::string_view text) {
    std::error_code ec;
    fs::create_directories(indexFile().parent_path(), ec);
    // An index left as it was would be believed while the folder kept its
    // time (a change within one clock tick of the last one): none is safer.
    if (!writeFileAtomic(indexFile(), text)) fs::remove(indexFile(), ec);
}

}  // namespace

InstalledIndex::InstalledIndex() = default;

InstalledIndex::~InstalledIndex() = default;

const IndexedPackage* InstalledIndex::find(std::string_view name) const {
    // Listings ask for one package after the other: try the next one first.
    const size_t next = next_.load(std::memory_order_relaxed);
    if (next < packages.size() && packages[next].name == name) {
        next_.store(next + 1, std::memory_order_relaxed);
        return &packages[next];
    }
    auto it =
        std::lower_bound(packages.begin(), packages.end(), name,
                         [](const IndexedPackage& p, std::string_view n) { return p.name < n; });
    if (it == packages.end() || it->name != name) return nullptr;
    next_.store(static_cast<size_t>(it - packages.begin()) + 1, std::memory_order_relaxed);
    return &*it;
}

std::vector<std::string> InstalledIndex::names() const {
    std::vector<std::string> out;
    out.reserve(packages.size());
    for (const IndexedPackage& package : packages) out.emplace_back(package.name);
    return out;
}

std::string InstalledIndex::origin(const std::string& name) const {
    const IndexedPackage* package = find(name);
    return package ? std::string(package->origin) : std::string(kLocalOrigin);
}

bool InstalledIndex::adopt(std::string text) {
    mapped_.reset();
    written_ = {};
    text_ = std::move(text);
    return parse(text_);
}

bool InstalledIndex::adoptFile(const fs::path& path) {
    text_.clear();
    mapped_ = std::make_unique<MappedFile>(path);
    written_ = mapped_->status().st_mtim;
    return mapped_->opened() && parse(mapped_->text());
}

// The header, the stamp line, then entries strictly in name order.
bool InstalledIndex::parse(std::string_view text) {
    packages.clear();
    stamp_ = {};
    if (text.substr(0, kHeader.size()) != kHeader) return false;
    text.remove_prefix(kHeader.size());
    size_t end = text.find('\n');
    if (end == std::string_view::npos || text.substr(0, kStampKey.size()) != kStampKey)
        return false;
    const std::string_view stamp = text.substr(kStampKey.size(), end - kStampKey.size());
    text.remove_prefix(end + 1);
    std::vector<IndexedPackage> entries;
    entries.reserve(text.size() / 256);
    while (!text.empty()) {
        end = text.find('\n');
        if (end == std::string_view::npos) return false;
        const std::string_view head = text.substr(0, end);
        text.remove_prefix(end + 1);
        const size_t blank = head.find(' ');
        size_t size = 0;
        IndexedPackage package;
        package.name = head.substr(0, blank);
        if (blank == std::string_view::npos || blank == 0 ||
            !parseNumber(head.substr(blank + 1), size) || size >= text.size() ||
            text[size] != '\n' || (!entries.empty() && !(entries.back().name < package.name)) ||
            !parseEntry(text.substr(0, size), package))
            return false;
        text.remove_prefix(size + 1);
        entries.push_back(package);
    }
    packages = std::move(entries);
    stamp_ = stamp;
    return true;
}

bool indexedManifest(const IndexedPackage& package, ManifestView& out) {
    PackedReader packed(package.packed);
    return package.readable && unpackManifest(packed, out) && packed.done();
}

std::shared_ptr<const InstalledIndex> loadInstalledIndex() {
    const long startMs = nowMs();
    auto index = std::make_shared<InstalledIndex>();
    // The folder first: entries read after this look cannot be older than it.
    UniqueFd packagesFd(::open(layout::packagesDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat st {};
    const bool present = packagesFd && ::fstat(packagesFd.get(), &st) == 0;
    const std::string stamp = present ? stampOf(st) : std::string();
    const bool parsed = index->adoptFile(indexFile());
    if (!parsed || !present || index->stamp() != stamp) {
        // Checked entry by entry; stamped only once no change can share the
        // folder's time.
        const std::string_view newStamp = present && settled(st) ? stamp : kNoStamp;
        bool changed = false;
        std::string text = currentIndexText(*index, index->written(), packagesFd.get(), newStamp,
                                            std::string(), changed);
        // An empty store without an index stays without one.
        if (changed || (parsed && newStamp != kNoStamp)) writeIndexFile(text);
        auto current = std::make_shared<InstalledIndex>();
        current->adopt(std::move(text));
        index = std::move(current);
    }
    std::lock_guard guard(cache().mutex);
    cache().index = index;
    cache().madeMs = startMs;
    return index;
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
    UniqueFd packagesFd(::open(layout::packagesDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat st {};
    // Under the store lock no other change can follow within the same
    // clock tick unseen: one cut short leaves a journal, whose recovery
    // rewrites the index before anything else is done.
    const std::string stamp =
        packagesFd && ::fstat(packagesFd.get(), &st) == 0 ? stampOf(st) : std::string(kNoStamp);
    InstalledIndex stored;
    stored.adoptFile(indexFile());
    bool changed = false;
    writeIndexFile(
        currentIndexText(stored, stored.written(), packagesFd.get(), stamp, name, changed));
}

}  // namespace quor
