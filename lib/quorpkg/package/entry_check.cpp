#include "quorpkg/package/entry_check.h"

#include <vector>

namespace quor {
namespace {

bool hasControlChar(std::string_view s) {
    for (char c : s) {
        auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) return true;
    }
    return false;
}

std::vector<std::string_view> components(std::string_view path) {
    std::vector<std::string_view> parts;
    while (!path.empty()) {
        size_t slash = path.find('/');
        std::string_view part = path.substr(0, slash);
        if (!part.empty() && part != ".") parts.push_back(part);
        if (slash == std::string_view::npos) break;
        path.remove_prefix(slash + 1);
    }
    return parts;
}

}  // namespace

std::optional<std::string> normalizeEntryName(std::string_view name) {
    if (name.empty() || name.front() == '/' || hasControlChar(name)) return std::nullopt;
    std::string out;
    for (std::string_view part : components(name)) {
        if (part == "..") return std::nullopt;
        if (!out.empty()) out += '/';
        out += part;
    }
    return out;
}

bool linkStaysInside(std::string_view linkPath, std::string_view target) {
    if (target.empty() || target.front() == '/' || hasControlChar(target)) return false;
    std::vector<std::string_view> dir = components(linkPath);
    if (!dir.empty()) dir.pop_back();  // the link's own name
    bool leading = true;
    for (std::string_view part : components(target)) {
        if (part != "..") {
            leading = false;
            continue;
        }
        if (!leading || dir.empty()) return false;
        dir.pop_back();
    }
    return true;
}

std::string_view entryName(archive_entry* entry) {
    const char* name = archive_entry_pathname(entry);
    if (!name) name = archive_entry_pathname_utf8(entry);
    return name ? name : "";
}

std::optional<std::string> TreeChecker::check(archive_entry* entry, std::string& why) {
    std::string_view raw = entryName(entry);
    std::optional<std::string> name = normalizeEntryName(raw);
    if (!name) {
        why = "unsafe entry name: " + std::string(raw);
        return std::nullopt;
    }
    mode_t type = archive_entry_filetype(entry);
    if (name->empty() && type != AE_IFDIR) {
        why = "unsafe entry name: " + std::string(raw);
        return std::nullopt;
    }
    if (archive_entry_hardlink(entry) || archive_entry_hardlink_utf8(entry)) {
        why = "hard link: " + *name;
        return std::nullopt;
    }
    if (type != AE_IFREG && type != AE_IFDIR && type != AE_IFLNK) {
        why = "device, FIFO or socket node: " + *name;
        return std::nullopt;
    }
    // A name at or below an earlier link would be written through it.
    for (size_t end = 0; end != std::string::npos;) {
        end = name->find('/', end + 1);
        if (links_.count(name->substr(0, end))) {
            why = "entry below or over a symbolic link: " + *name;
            return std::nullopt;
        }
    }
    if (type == AE_IFLNK) {
        const char* target = archive_entry_symlink(entry);
        if (!target) target = archive_entry_symlink_utf8(entry);
        if (!target || !linkStaysInside(*name, target)) {
            why = "symbolic link leaves its tree: " + *name;
            return std::nullopt;
        }
        links_.insert(*name);
    }
    return name;
}

}  // namespace quor
