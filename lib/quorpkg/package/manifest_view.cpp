#include "quorpkg/package/manifest_view.h"

#include <charconv>

namespace quor {
namespace {

template <typename Number>
bool parseNumber(std::string_view text, Number& out) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

void appendNumber(std::string& out, long value) {
    char digits[24];
    appendPacked(
        out, std::string_view(digits,
                              std::to_chars(digits, digits + sizeof digits, value).ptr - digits));
}

void packDependencies(const std::vector<Dependency>& deps, std::string& out) {
    appendNumber(out, static_cast<long>(deps.size()));
    for (const Dependency& dep : deps) {
        appendPacked(out, dep.name);
        appendPacked(out, dep.op);
        appendPacked(out, dep.version);
    }
}

// A count of items still to read; each takes at least two bytes ("0:"), so
// a count beyond what is left is malformed rather than a huge reservation.
bool nextCount(PackedReader& packed, size_t& count) {
    std::string_view field;
    return packed.next(field) && parseNumber(field, count) && count <= packed.rest().size() / 2;
}

bool unpackDependencies(PackedReader& packed, std::vector<DependencyView>& out) {
    size_t count = 0;
    if (!nextCount(packed, count)) return false;
    out.resize(count);
    for (DependencyView& dep : out)
        if (!packed.next(dep.name) || !packed.next(dep.op) || !packed.next(dep.version))
            return false;
    return true;
}

// Keys with a field of their own in a ManifestView.
bool hasField(std::string_view key) {
    static constexpr std::string_view kFieldKeys[] = {"package",
                                                      "version",
                                                      "displayname",
                                                      "description",
                                                      "maintainer",
                                                      "manager_url",
                                                      "ui_dir",
                                                      "admin_port",
                                                      "beta",
                                                      "install_dep_packages",
                                                      "install_conflict_packages",
                                                      "install_dep_services"};
    for (std::string_view known : kFieldKeys)
        if (key == known) return true;
    return false;
}

}  // namespace

ManifestView viewOf(const Manifest& manifest) {
    ManifestView view;
    view.name = manifest.name;
    view.version = manifest.version;
    view.displayname = manifest.displayname;
    view.description = manifest.description;
    view.maintainer = manifest.maintainer;
    view.manager_url = manifest.manager_url;
    view.ui_dir = manifest.ui_dir;
    view.admin_port = manifest.admin_port;
    view.beta = manifest.beta;
    view.services.assign(manifest.services.begin(), manifest.services.end());
    for (const Dependency& dep : manifest.depends)
        view.depends.push_back({dep.name, dep.op, dep.version});
    for (const Dependency& dep : manifest.conflicts)
        view.conflicts.push_back({dep.name, dep.op, dep.version});
    for (const auto& [key, value] : manifest.pairs)
        if (!hasField(key)) view.otherPairs.emplace_back(key, value);
    return view;
}

void appendPacked(std::string& out, std::string_view field) {
    char digits[24];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, field.size()).ptr);
    out += ':';
    out += field;
}

bool PackedReader::next(std::string_view& field) {
    // Lengths are short: read digit by digit rather than search for ':'.
    size_t size = 0, at = 0;
    for (; at < rest_.size() && at < 12 && rest_[at] >= '0' && rest_[at] <= '9'; ++at)
        size = size * 10 + static_cast<size_t>(rest_[at] - '0');
    if (at == 0 || at == rest_.size() || rest_[at] != ':' || size > rest_.size() - at - 1)
        return false;
    field = rest_.substr(at + 1, size);
    rest_.remove_prefix(at + 1 + size);
    return true;
}

void packManifest(const Manifest& manifest, std::string& out) {
    for (const std::string* text :
         {&manifest.name, &manifest.version, &manifest.displayname, &manifest.description,
          &manifest.maintainer, &manifest.manager_url, &manifest.ui_dir})
        appendPacked(out, *text);
    appendNumber(out, manifest.admin_port);
    appendPacked(out, manifest.beta ? "1" : "0");
    appendNumber(out, static_cast<long>(manifest.services.size()));
    for (const std::string& service : manifest.services) appendPacked(out, service);
    packDependencies(manifest.depends, out);
    packDependencies(manifest.conflicts, out);
    std::vector<const std::pair<std::string, std::string>*> others;
    for (const auto& pair : manifest.pairs)
        if (!hasField(pair.first)) others.push_back(&pair);
    appendNumber(out, static_cast<long>(others.size()));
    for (const auto* pair : others) {
        appendPacked(out, pair->first);
        appendPacked(out, pair->second);
    }
}

bool unpackManifest(PackedReader& packed, ManifestView& out) {
    ManifestView view;
    std::string_view port, beta;
    for (std::string_view* text : {&view.name, &view.version, &view.displayname, &view.description,
                                   &view.maintainer, &view.manager_url, &view.ui_dir, &port, &beta})
        if (!packed.next(*text)) return false;
    if (!parseNumber(port, view.admin_port) || (beta != "0" && beta != "1")) return false;
    view.beta = beta == "1";
    size_t count = 0;
    if (!nextCount(packed, count)) return false;
    view.services.resize(count);
    for (std::string_view& service : view.services)
        if (!packed.next(service)) return false;
    if (!unpackDependencies(packed, view.depends) || !unpackDependencies(packed, view.conflicts) ||
        !nextCount(packed, count))
        return false;
    view.otherPairs.resize(count);
    for (auto& [key, value] : view.otherPairs)
        if (!packed.next(key) || !packed.next(value)) return false;
    out = std::move(view);
    return true;
}

}  // namespace quor
