// Helpers shared by the platform, unit and end-to-end tests: temporary
// folders and system roots, package sources and package files, raw tar
// archives for hostile input, store snapshots, and child processes that
// hold the store lock or write under a file-size limit.
// Helpers throw std::runtime_error when the host fails them; GoogleTest
// reports that as a failure of the test.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quorpkg/package/package_writer.h"

namespace quor::test {

namespace fs = std::filesystem;

// A fresh directory under the system's temporary folder, removed with its
// content on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

// A temporary system root: QUOR_ROOT points at a fresh directory for the
// object's life, then gets back its previous value (or is unset) and the
// directory is removed. Its settings wait at most 2 s for the store lock.
class TempRoot {
public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const fs::path& path() const { return dir_.path(); }
    // The host path of a system path: host("/var/packages") is <root>/var/packages.
    fs::path host(std::string_view systemPath) const;
    // Creates <root>/volume<n> and returns it.
    fs::path addVolume(int number = 1) const;

private:
    TempDir dir_;
    bool hadPrevious_ = false;
    std::string previous_;
};

// Replaces the settings of the current root with `lines` (key="value"
// lines), keeping the short lock wait of TempRoot unless they set their own.
void writeSettings(std::string_view lines);

// Appends one key="value" line to the settings of the current root.
void appendSetting(std::string_view line);

// Writes `content` to `file`, creating its parent directories.
void writeText(const fs::path& file, std::string_view content, mode_t mode = 0644);

// What a test package holds. The INFO written is package, version, then
// `info` in order; `rawInfo`, when set, replaces the whole INFO text.
struct PackageSource {
    std::string name = "demo";
    std::string version = "1.0-0001";
    std::vector<std::pair<std::string, std::string>> info{};  // more manifest keys
    std::string rawInfo{};
    std::map<std::string, std::string> files = {{"bin/demo", "#!/bin/sh\necho demo\n"}};
    std::map<std::string, std::string> scripts{};  // script name -> body, made executable
    std::map<std::string, std::string> conf{};     // path under conf/ -> content
};

// A package source with the given name, version and more manifest keys.
PackageSource packageSource(std::string name, std::string version = "1.0-0001",
                            std::vector<std::pair<std::string, std::string>> info = {});

// Writes a package source folder (INFO, package/, scripts/, conf/) into `dir`.
void writePackageSource(const fs::path& dir, const PackageSource& pkg);

// Builds <outDir>/<name>-<version>.zpk from `pkg` with buildPackage and
// returns its path.
fs::path buildTestPackage(const fs::path& outDir, const PackageSource& pkg,
                          PayloadCompression compression = PayloadCompression::kGzip);

// One entry of a hand-made tar archive. `type` is a libarchive AE_IF* value.
struct TarEntry {
    std::string name;
    std::string data{};       // content of a regular file
    unsigned type = 0100000;  // AE_IFREG
    mode_t perm = 0644;
    std::string symlink{};   // target of a symbolic link (type AE_IFLNK)
    std::string hardlink{};  // target of a hard link (regular type, no data)
};

TarEntry fileEntry(std::string name, std::string data, mode_t perm = 0644);
TarEntry dirEntry(std::string name, mode_t perm = 0755);
TarEntry symlinkEntry(std::string name, std::string target);
TarEntry hardlinkEntry(std::string name, std::string target);
// A device or fifo node: `type` is AE_IFCHR, AE_IFBLK or AE_IFIFO.
TarEntry nodeEntry(std::string name, unsigned type);

enum class TarFilter { kNone, kGzip, kZstd };

// A pax tar of `entries` in the given order, as bytes.
std::string tarBytes(const std::vector<TarEntry>& entries, TarFilter filter = TarFilter::kNone);

// Writes an uncompressed pax tar of `entries` to `file`.
void writeTar(const fs::path& file, const std::vector<TarEntry>& entries);

// `size` bytes of pseudo-random noise drawn from `seed`: deflate stores
// them as they are, so packages holding them stay large.
std::string noiseBytes(size_t size, unsigned seed);

// Every file and link under `root` with its content (a link as "-> target"),
// by path relative to the root so that two roots compare, leaving out the
// paths in `skipped` and, for those that end in '/', all under them. Empty
// folders do not count.
using Snapshot = std::map<std::string, std::string>;
Snapshot snapshot(const fs::path& root, const std::vector<std::string>& skipped);

// The version of an installed package, or "" when there is none.
std::string installedVersion(const std::string& name);

// A tmpfs of `size` mounted over `dir` for the object's life, where this run
// is allowed to mount.
class Tmpfs {
public:
    Tmpfs(const fs::path& dir, const std::string& size);
    ~Tmpfs();
    Tmpfs(const Tmpfs&) = delete;
    Tmpfs& operator=(const Tmpfs&) = delete;
    bool mounted() const { return mounted_; }

private:
    fs::path dir_;
    bool mounted_ = false;
};

// The newline-terminated lines of `text`, without their newlines.
std::vector<std::string> textLines(std::string_view text);

// Runs `body` in a child process: its exit status, or minus the signal
// that ended it.
int inChild(const std::function<int()>& body);

// `body` run in a child process whose writes fail past `bytes` (EFBIG, with
// SIGXFSZ ignored), as they fail on a full disk: a full volume that needs no
// privileges to make.
int withFileSizeLimit(rlim_t bytes, const std::function<int()>& body);

// Another process that holds the store lock for the object's life.
class LockHolder {
public:
    LockHolder();
    ~LockHolder();
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;
    bool locked() const { return locked_; }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int release_ = -1;
    bool locked_ = false;
};

// Lower-case hex md5 of `data`.
std::string md5Hex(std::string_view data);

// A valid INFO text for a package with the given payload bytes.
std::string infoText(std::string_view name, std::string_view version,
                     std::string_view payloadBytes);

}  // namespace quor::test
