// The index of installed packages: one file holding, per package, its
// parsed manifest (packed, ready to fill a record), script mask and origin,
// so that listing the store maps one file instead of reading a manifest, a
// scripts folder and an origin file per package.
//
// The index is trusted as a whole, as dpkg trusts its status file: its
// stamp is the identity of /var/packages (inode and modification time) as
// it was before the entries were read, and a load that finds the folder
// with that identity uses the index as it is, with one stat. Every change
// of the store adds, renames or removes entries of /var/packages, so it
// changes that time, and it rewrites the index (stamped anew) before its
// journal is cleared; a change cut short leaves its journal, whose recovery
// rewrites the index too. An index that is missing, damaged or not stamped
// with the folder as it is now is checked entry by entry: each entry keeps
// the identity of what it was read from (the INFO file, scripts/ and the
// origin file), and only entries whose files are unchanged and older than
// the index are kept; the rest is read again from /var/packages. A listing
// that did so writes the index back, stamped when the folder's time is far
// enough in the past that no later change can share it.
//
// So a hand edit inside an installed package folder shows after the next
// change of the store or once the index is removed; packages added or
// removed by hand show at once.
#pragma once

#include <atomic>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quorpkg/package/manifest_view.h"

namespace quor {

// One package as the index holds it; the views point into its index.
struct IndexedPackage {
    std::string_view name;
    bool readable = false;     // false: a package folder without a usable manifest
    int scriptMask = 0;        // of a readable one
    std::string_view version;  // likewise, as its manifest gives it
    bool beta = false;         // likewise
    std::string_view origin;   // where it came from (store/origin.h)
    std::string_view source;   // identity of its INFO, scripts/ and origin when read
    std::string_view packed;   // the manifest, packed (manifest_view.h)
    std::string_view record;   // all of the above but name and source, as stored
};

class MappedFile;

class InstalledIndex {
public:
    InstalledIndex();
    ~InstalledIndex();
    InstalledIndex(const InstalledIndex&) = delete;
    InstalledIndex& operator=(const InstalledIndex&) = delete;

    std::vector<IndexedPackage> packages;  // by name, in byte order

    const IndexedPackage* find(std::string_view name) const;
    std::vector<std::string> names() const;
    // The origin of an installed package; "local" for one that is not.
    std::string origin(const std::string& name) const;

    // The index held by `text` (or by the file, mapped), which this object
    // keeps: false for anything that is not an index.
    bool adopt(std::string text);
    bool adoptFile(const std::filesystem::path& path);
    // What /var/packages was when the entries were read ("-": not known).
    std::string_view stamp() const { return stamp_; }
    // When the file adopted was written.
    const timespec& written() const { return written_; }

private:
    bool parse(std::string_view text);

    std::string text_;
    std::unique_ptr<MappedFile> mapped_;
    std::string_view stamp_;
    timespec written_{};
    mutable std::atomic<size_t> next_{0};  // where the next lookup likely is
};

// The readable package's manifest, from its packed form: false when that
// is damaged.
bool indexedManifest(const IndexedPackage& package, ManifestView& out);

// The installed packages as they are now. The result stays available
// through currentInstalledIndex().
std::shared_ptr<const InstalledIndex> loadInstalledIndex();

// The result of the last loadInstalledIndex for five seconds after it was
// made, unless this process changed the store since; else nothing. A listing
// is a snapshot: what changes while it is being printed shows next time.
std::shared_ptr<const InstalledIndex> currentInstalledIndex();

// After the change of `name` is in place or undone, under the store lock and
// before its journal is cleared: rewrites the index, `name` read anew and
// every other entry checked. Nothing is lost if this fails: a stale index is
// not stamped with the folder as it is, so the next listing checks it.
void updateInstalledIndex(const std::string& name);

}  // namespace quor
