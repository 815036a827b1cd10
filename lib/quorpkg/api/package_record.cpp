// The platform's package record (PackageInfo) filled from a manifest, and
// the dependencies read back from such a record.
#include "quorpkg/api/package_record.h"

#include <array>
#include <string_view>

#include "base/result.h"
#include "quorpkg/store/store.h"

namespace quor {
namespace {

// Manifest keys that have a record field of their own; all others go to
// extra.fields.
constexpr std::array<std::string_view, 12> kFieldKeys = {"package",
                                                         "version",
                                                         "displayname",
                                                         "description",
                                                         "maintainer",
                                                         "manager_url",
                                                         "admin_port",
                                                         "ui_dir",
                                                         "beta",
                                                         "install_dep_packages",
                                                         "install_conflict_packages",
                                                         "install_dep_services"};

bool hasField(std::string_view key) {
    for (std::string_view known : kFieldKeys)
        if (key == known) return true;
    return false;
}

std::vector<QUORPackageTool::PackageBasicInfo> basicList(const std::vector<Dependency>& deps) {
    std::vector<QUORPackageTool::PackageBasicInfo> list;
    for (const Dependency& dep : deps) {
        QUORPackageTool::PackageBasicInfo item;
        item.basic_text_a = dep.name;
        item.basic_text_b = dep.op + dep.version;
        list.push_back(std::move(item));
    }
    return list;
}

}  // namespace

void fillPackageInfo(const Manifest& manifest, int scriptMask, QUORPackageTool::PackageInfo& out) {
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
    out.list_a = manifest.services;
    out.basic_list_a = basicList(manifest.depends);
    out.basic_list_b = basicList(manifest.conflicts);
    out.extra.fields.clear();
    for (const auto& pair : manifest.pairs)
        if (!hasField(pair.first)) out.extra.fields.push_back(pair);
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
    QUORPackageTool::PackageInfo info;
    fillPackageInfo(manifest, installedScriptMask(name), info);
    out = std::move(info);
    return kOk;
}

int indexedRecord(const IndexedPackage& package, QUORPackageTool::PackageInfo& out) {
    Manifest manifest;
    if (int code = indexedManifest(package, manifest)) return code;
    QUORPackageTool::PackageInfo info;
    fillPackageInfo(manifest, package.scriptMask, info);
    out = std::move(info);
    return kOk;
}

}  // namespace quor
