// A parsed manifest as views: what records are filled from, whether the
// manifest was just parsed or is kept packed in the index of installed
// packages (store/installed_index.h), so that a listing fills each record
// without parsing a manifest again.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quorpkg/package/manifest.h"

namespace quor {

struct DependencyView {
    std::string_view name;
    std::string_view op;
    std::string_view version;
};

// The fields of a Manifest that records carry, pointing into a Manifest or
// into packed text, which must outlive the view.
struct ManifestView {
    std::string_view name;
    std::string_view version;
    std::string_view displayname;
    std::string_view description;
    std::string_view maintainer;
    std::string_view manager_url;
    std::string_view ui_dir;
    int admin_port = 0;
    bool beta = false;
    std::vector<std::string_view> services;
    std::vector<DependencyView> depends;
    std::vector<DependencyView> conflicts;
    // The pairs whose key has no field above (firmware, arch, checksum,
    // unknown keys), in file order.
    std::vector<std::pair<std::string_view, std::string_view>> otherPairs;
};

ManifestView viewOf(const Manifest& manifest);

// Packed text: fields one after another, each as "<length>:<bytes>", so that
// any byte may be in a value and reading needs no unescaping.
void appendPacked(std::string& out, std::string_view field);

// Reads packed fields in order; false at the end or at anything malformed.
class PackedReader {
public:
    explicit PackedReader(std::string_view text) : rest_(text) {}
    bool next(std::string_view& field);
    bool done() const { return rest_.empty(); }
    std::string_view rest() const { return rest_; }

private:
    std::string_view rest_;
};

// The manifest packed after whatever `out` holds; unpackManifest reads it
// back from a reader positioned at it, and gives false for anything that
// packManifest did not write.
void packManifest(const Manifest& manifest, std::string& out);
bool unpackManifest(PackedReader& packed, ManifestView& out);

}  // namespace quor
