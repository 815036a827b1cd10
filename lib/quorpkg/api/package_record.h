// The interface's package record (PackageInfo) and the platform's own
// types: only the api layer converts between them.
#pragma once

#include <string>
#include <vector>

#include "pkg_manager.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/package/manifest_view.h"
#include "quorpkg/store/installed_index.h"

namespace quor {

// Fills the record fields from the manifest: name, version, description,
// maintainer, manager_url, displayname, ui_dir, beta, admin_port,
// script_mask, list_a (services), basic_list_a (dependencies: name in
// basic_text_a, "op version" joined as in ">=1.2" in basic_text_b),
// basic_list_b (conflicts) and extra.fields (firmware, arch, checksum and
// unknown keys).
void fillPackageInfo(const ManifestView& manifest, int scriptMask,
                     QUORPackageTool::PackageInfo& out);
void fillPackageInfo(const Manifest& manifest, int scriptMask, QUORPackageTool::PackageInfo& out);

// The dependencies of a record filled by fillPackageInfo. A constraint that
// cannot be read keeps its text, so that it is never met.
std::vector<Dependency> dependenciesOf(const QUORPackageTool::PackageInfo& info);

// The record of an installed package: kOk, kNoSuchPackage or kBroken
// (unreadable manifest).
int readInstalledRecord(const std::string& name, QUORPackageTool::PackageInfo& out);

// The same, from the index of installed packages: kOk or kBroken.
int indexedRecord(const IndexedPackage& package, QUORPackageTool::PackageInfo& out);

}  // namespace quor
