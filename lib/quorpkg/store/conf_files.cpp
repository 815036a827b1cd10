#include "quorpkg/store/conf_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <optional>
#include <system_error>

#include "base/file_util.h"
#include "base/result.h"
#include "quorpkg/package/md5.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

// Path under conf/ -> sha256 of the file as the package shipped it.
using Digests = std::map<std::string, std::string>;

constexpr const char* kNewSuffix = ".quorpkg-new";
constexpr const char* kOldSuffix = ".quorpkg-old";

// sha256sum's lines, "<hex>  conf/<path>"; a name holding a backslash is
// escaped as sha256sum escapes it (conf names hold no newlines).
std::string formatRecord(const Digests& digests) {
    std::string text;
    for (const auto& [path, sha256] : digests) {
        std::string name = "conf/" + path;
        const bool escaped = name.find('\\') != std::string::npos;
        if (escaped) {
            std::string plain = std::move(name);
            for (char c : plain) name += c == '\\' ? std::string("\\\\") : std::string(1, c);
        }
        text += (escaped ? "\\" : "") + sha256 + "  " + name + "\n";
    }
    return text;
}

// The record in `packageDir`, or nothing when it has none. Lines that are
// not the record's own are skipped: their files count as unknown.
std::optional<Digests> readRecord(const fs::path& packageDir) {
    std::optional<std::string> text = readRegularFile(packageDir / kConfRecord);
    if (!text) return std::nullopt;
    Digests digests;
    size_t at = 0;
    while (at < text->size()) {
        size_t end = text->find('\n', at);
        if (end == std::string::npos) end = text->size();
        std::string line = text->substr(at, end - at);
        at = end + 1;
        const bool escaped = !line.empty() && line[0] == '\\';
        if (escaped) line.erase(0, 1);
        if (line.size() < 71 || !isLowerHex(line.substr(0, 64), 64) ||
            line.compare(64, 7, "  conf/") != 0)
            continue;
        std::string path;
        for (size_t i = 71; i < line.size(); ++i) {
            if (escaped && line[i] == '\\' && i + 1 < line.size()) ++i;
            path += line[i];
        }
        digests[path] = line.substr(0, 64);
    }
    return digests;
}

// Every entry under `dir` but folders, by path relative to it; links are
// listed, not followed.
std::vector<std::string> entriesUnder(const fs::path& dir, std::error_code& ec) {
    std::vector<std::string> paths;
    for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
        if (!it->is_directory(ec) || it->is_symlink(ec))
            paths.push_back(it->path().lexically_relative(dir).generic_string());
    if (ec == std::errc::no_such_file_or_directory) ec.clear();
    return paths;
}

bool present(const fs::path& path) {
    std::error_code ec;
    return fs::exists(fs::symlink_status(path, ec));
}

// Copies a file or link of the installed conf/ into the staged one with its
// mode and, where this process may, its owner. Other kinds of entry (pipes,
// sockets) are no one's configuration and stay behind.
void copyEntry(const fs::path& from, const fs::path& to, std::error_code& ec) {
    struct stat info {};
    if (::lstat(from.c_str(), &info) != 0) {
        ec.assign(errno, std::generic_category());
        return;
    }
    if (!S_ISREG(info.st_mode) && !S_ISLNK(info.st_mode)) return;
    fs::create_directories(to.parent_path(), ec);
    if (ec) return;
    if (S_ISLNK(info.st_mode)) {
        fs::copy_symlink(from, to, ec);
    } else {
        fs::copy_file(from, to, ec);
        if (!ec) fs::permissions(to, static_cast<fs::perms>(info.st_mode & 07777), ec);
    }
    if (ec) return;
    const bool owned = ::lchown(to.c_str(), info.st_uid, info.st_gid) == 0;
    (void)owned;  // only root may give a file away; the content is what counts
}

class ConfMerge {
public:
    ConfMerge(const fs::path& installed, const fs::path& staged, std::vector<std::string>& notes)
        : installed_(installed / "conf"), staged_(staged / "conf"), notes_(notes) {
        if (std::optional<Digests> record = readRecord(installed)) record_ = std::move(*record);
    }

    // The decision for a file the new version ships, by its three states.
    void shipped(const std::string& path, const std::string& newSha256) {
        const fs::path current = installed_ / path, staged = staged_ / path;
        const std::string name = "conf/" + path;
        const std::string* oldSha256 = recorded(path);
        if (!present(current)) {
            // Deleted here (a file shipped before), or new: a new one goes in.
            if (!oldSha256) return;
            if (*oldSha256 == newSha256) {
                fs::remove(staged, ec_);
            } else {
                setAside(staged);
                notes_.push_back(name + " stays deleted; the package's new version is " + name +
                                 kNewSuffix);
            }
            return;
        }
        const std::optional<std::string> currentSha256 = regularFileSha256(current);
        if (currentSha256 == newSha256) return;
        if (oldSha256 && currentSha256 == *oldSha256) return;  // unchanged here
        if (oldSha256 && *oldSha256 == newSha256) {
            // Changed here only: theirs stays.
            fs::remove(staged, ec_);
            if (!ec_) copyEntry(current, staged, ec_);
            return;
        }
        // Changed on both sides, or no record to tell: theirs stays, the
        // package's lands beside it. A folder here comes over with the rest.
        setAside(staged);
        std::error_code ignored;
        if (!ec_ && !fs::is_directory(fs::symlink_status(current, ignored)))
            copyEntry(current, staged, ec_);
        notes_.push_back(name + " kept as it was; the package's new version is " + name +
                         kNewSuffix);
    }

    // An installed entry the new version does not ship.
    void leftOver(const std::string& path) {
        const fs::path current = installed_ / path, staged = staged_ / path;
        const std::string name = "conf/" + path;
        const std::string* oldSha256 = recorded(path);
        // The package's own file, unchanged and no longer shipped, goes.
        if (oldSha256 && regularFileSha256(current) == *oldSha256) return;
        // An older .quorpkg-new gives way to the one just made.
        if (present(staged) && path.ends_with(kNewSuffix)) return;
        if (!present(staged)) {
            copyEntry(current, staged, ec_);
            if (ec_ != std::errc::not_a_directory && ec_ != std::errc::file_exists) {
                if (!ec_ && oldSha256)
                    notes_.push_back(name + " kept as it was; the package no longer ships it");
                return;
            }
            ec_.clear();
        }
        // The new version has a folder where theirs is a file, or the reverse.
        copyEntry(current, staged_ / (path + kOldSuffix), ec_);
        notes_.push_back(name + " kept as " + name + kOldSuffix +
                         "; the package's new version needs its place");
    }

    const fs::path& installedConf() const { return installed_; }
    std::error_code& error() { return ec_; }

private:
    const std::string* recorded(const std::string& path) const {
        if (!record_) return nullptr;
        auto it = record_->find(path);
        return it == record_->end() ? nullptr : &it->second;
    }

    void setAside(const fs::path& staged) {
        fs::path beside = staged;
        beside += kNewSuffix;
        fs::rename(staged, beside, ec_);
    }

    const fs::path installed_, staged_;
    std::vector<std::string>& notes_;
    std::optional<Digests> record_;
    std::error_code ec_;
};

}  // namespace

int stageConfFiles(const fs::path& installed, const fs::path& staged, bool upgrade,
                   std::vector<std::string>& notes) {
    std::error_code ec;
    Digests shipped;
    for (const std::string& path : entriesUnder(staged / "conf", ec)) {
        std::optional<std::string> sha256 = regularFileSha256(staged / "conf" / path);
        if (!sha256) return refuse(kStoreUnusable, "cannot read the staged conf/" + path);
        shipped[path] = *sha256;
    }
    if (ec)
        return refuse(writeFailure(ec.value()), "cannot read the staged conf/: " + ec.message());
    if (!shipped.empty() && !writeFileAtomic(staged / kConfRecord, formatRecord(shipped)))
        return refuse(kStoreUnusable, "cannot write " + (staged / kConfRecord).string());
    if (!upgrade) return kOk;

    ConfMerge merge(installed, staged, notes);
    std::error_code& failed = merge.error();
    for (auto it = shipped.begin(); !failed && it != shipped.end(); ++it)
        merge.shipped(it->first, it->second);
    const std::vector<std::string> left = entriesUnder(merge.installedConf(), ec);
    for (auto it = left.begin(); !ec && !failed && it != left.end(); ++it)
        if (!shipped.count(*it)) merge.leftOver(*it);
    if (!ec) ec = failed;
    if (ec)
        return refuse(writeFailure(ec.value()),
                      "cannot carry " + merge.installedConf().string() + " over: " + ec.message());
    return kOk;
}

}  // namespace quor
