// The index of installed packages: one file holding every package's
// manifest and script mask, so that listing the store reads one file instead
// of a manifest and a scripts folder per package. /var/packages stays the
// truth. Each entry carries the identity of what it was read from (the
// INFO file's inode, size and time, the scripts folder's inode and time),
// taken before reading; an entry is used only while both still match and
// are older than the index itself (a change within the clock tick in which
// the index was written could keep the time). Anything else is read again
// from /var/packages. So an index left behind by a crash, a change made by
// hand or an older tool can make a listing slower, never wrong.
//
// Every change of the store rewrites the entry of its package (atomically,
// before its journal is cleared); a listing that had to read packages again
// rewrites the whole index.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quorpkg/package/manifest.h"

namespace quor {

struct IndexedPackage {
    std::string name;
    std::string source;     // identity of INFO and scripts/ when read
    bool readable = false;  // false: a package folder without a usable manifest
    int scriptMask = 0;
    std::string version;       // of a readable one, as its manifest gives it
    bool beta = false;         // likewise
    std::string manifestText;  // INFO as installed
};

struct InstalledIndex {
    std::vector<IndexedPackage> packages;  // by name, in byte order

    const IndexedPackage* find(std::string_view name) const;
    std::vector<std::string> names() const;
};

// What readInstalledManifest gives, from an indexed package: kOk with the
// manifest, or kBroken.
int indexedManifest(const IndexedPackage& package, Manifest& out);

// The installed packages as they are now, entries taken from the index
// where they are current. The result stays available through
// currentInstalledIndex().
std::shared_ptr<const InstalledIndex> loadInstalledIndex();

// The result of the last loadInstalledIndex for five seconds after it was
// made, unless this process changed the store since; else nothing. A listing
// is a snapshot: what changes while it is being printed shows next time.
std::shared_ptr<const InstalledIndex> currentInstalledIndex();

// After the change of `name` is in place or undone, before its journal is
// cleared: rewrites its entry. Nothing is lost if this fails: the entry is
// then read again by the next listing.
void updateInstalledIndex(const std::string& name);

// The stored form: parseIndex gives false for anything else.
std::string formatIndex(const InstalledIndex& index);
bool parseIndex(std::string_view text, InstalledIndex& out);

}  // namespace quor
