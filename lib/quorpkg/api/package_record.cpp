// The platform's package record (PackageInfo) filled from a manifest, and
// the dependencies read back from such a record.
#include "quorpkg/api/package_record.h"

#include <string_view>

#include "base/result.h"
#include "quorpkg/store/store.h"

namespace quor {
namespace {

void fillBasicList(const std::vector<DependencyView>& deps,
                   std::vector<QUORPackageTool::PackageBasicInfo>& out) {
    out.clear();
    out.resize(deps.size());
    for (size_t i = 0; i < deps.size(); ++i) {
        out[i].basic_text_a = deps[i].name;
        out[i].basic_text_b.assign(deps[i].op).append(deps[i].version);
    }
}

}  // namespace

void fillPackageInfo(const ManifestView& manifest, int scriptMask,
                     QUORPackageTool::PackageInfo& out) {
    out.name = manifest.name;
    out.version = manifest.version;
    out.description = manifest.description;
    out.maintainer = manifest.maintainer;
    out.manager_url = manifest.manager_url;
    out.displayname = manifest.displayname;
    out.ui_dir = manifest.ui_dir;
    out.beta = manifest.beta;
    out.admin_port = manifest.admin_port;
    out.script_mask = scriptMask;
    out.list_a.assign(manifest.services.begin(), manifest.services.end());
    fillBasicList(manifest.depends, out.basic_list_a);
    fillBasicList(manifest.conflicts, out.basic_list_b);
    out.extra.fields.assign(manifest.otherPairs.begin(), manifest.otherPairs.end());
}

void fillPackageInfo(const Manifest& manifest, int scriptMask, QUORPackageTool::PackageInfo& out) {
    fillPackageInfo(viewOf(manifest), scriptMask, out);
}

std::vector<Dependency> dependenciesOf(const QUORPackageTool::PackageInfo& info) {
    std::vector<Dependency> deps;
    for (const auto& item : info.basic_list_a) {
        if (std::optional<Dependency> dep =
                parseDependency(item.basic_text_a + item.basic_text_b)) {
            deps.push_back(std::move(*dep));
            continue;
        }
        // Keep an unreadable constraint as it is: versionSatisfies never
        // meets an operator it does not know, so the requirement fails
        // instead of silently vanishing.
        std::string_view text = item.basic_text_b;
        size_t opEnd = text.find_first_not_of("<>=!");
        Dependency dep;
        dep.name = item.basic_text_a;
        dep.op = std::string(text.substr(0, opEnd));
        if (opEnd != std::string_view::npos) dep.version = std::string(text.substr(opEnd));
        if (dep.op.empty() && !text.empty()) dep.op.push_back('?');
        deps.push_back(std::move(dep));
    }
    return deps;
}

int readInstalledRecord(const std::string& name, QUORPackageTool::PackageInfo& out) {
    Manifest manifest;
    int code = readInstalledManifest(name, manifest);
    if (code != kOk) return code;
    fillPackageInfo(manifest, installedScriptMask(name), out);
    return kOk;
}

int indexedRecord(const IndexedPackage& package, QUORPackageTool::PackageInfo& out) {
    ManifestView manifest;
    if (!package.readable) return kBroken;
    // A damaged entry: the package folder answers.
    if (!indexedManifest(package, manifest))
        return readInstalledRecord(std::string(package.name), out);
    fillPackageInfo(manifest, package.scriptMask, out);
    return kOk;
}

}  // namespace quor
