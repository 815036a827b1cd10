#include "quorpkg/package/package_check.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "base/file_util.h"
#include "base/key_value.h"
#include "quorpkg/package/entry_check.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/package/package_reader.h"
#include "quorpkg/package/payload_listing.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

constexpr const char* kScriptNames =
    "preinst, postinst, preuninst, postuninst, preupgrade, postupgrade, start-stop-status";

class Problems {
public:
    void error(const fs::path& path, size_t line, std::string message) {
        list_.push_back({path.string(), line, std::move(message), false});
    }
    void error(const fs::path& path, std::string message) { error(path, 0, std::move(message)); }
    void warning(const fs::path& path, size_t line, std::string message) {
        list_.push_back({path.string(), line, std::move(message), true});
    }
    void manifest(const fs::path& path, std::string_view text) {
        for (ManifestProblem& problem : checkManifest(text))
            list_.push_back(
                {path.string(), problem.line, std::move(problem.message), problem.warning});
    }
    // Where the next problem goes; sortSince(mark) puts those reported
    // since (one file's, from several checks) in line order.
    size_t mark() const { return list_.size(); }
    void sortSince(size_t mark) {
        std::stable_sort(list_.begin() + static_cast<std::ptrdiff_t>(mark), list_.end(),
                         [](const auto& a, const auto& b) { return a.line < b.line; });
    }
    std::vector<PackageProblem> take() { return std::move(list_); }

private:
    std::vector<PackageProblem> list_;
};

// The lines of a script that a shell or the kernel would misread: a missing
// #! line (unless the script is a program), and CRLF line endings, which put
// a carriage return at the end of the interpreter's name.
void checkScriptText(const fs::path& path, std::string_view text, Problems& problems) {
    if (text.substr(0, 4) ==
        "\x7f"
        "ELF")
        return;
    if (text.substr(0, 2) != "#!") {
        problems.error(path, 1, "no #! line: the script cannot be run");
        return;
    }
    size_t lineNumber = 1;
    for (size_t begin = 0; begin < text.size(); ++lineNumber) {
        size_t end = text.find('\n', begin);
        if (end == std::string_view::npos) break;
        if (end > begin && text[end - 1] == '\r') {
            problems.error(path, lineNumber,
                           lineNumber == 1 ? "the #! line ends in a carriage return (CRLF line "
                                             "endings): the interpreter will not be found"
                                           : "CRLF line endings: save the script with LF only");
            return;
        }
        begin = end + 1;
    }
}

// The entries of `dir` (and below, when `recursive`) in name order; a
// folder that cannot be read is reported, not thrown.
template <typename Iterator>
std::vector<fs::directory_entry> sortedEntries(const fs::path& dir, Problems& problems) {
    std::vector<fs::directory_entry> entries;
    std::error_code ec;
    Iterator it(dir, ec);
    for (; !ec && it != Iterator(); it.increment(ec)) entries.push_back(*it);
    if (ec) problems.error(dir, "cannot be read: " + ec.message());
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.path() < b.path(); });
    return entries;
}

// The entries of package/ (links allowed when they stay inside) or conf/
// (files and folders only), as the build would store them.
void checkTree(const fs::path& root, bool allowLinks, Problems& problems) {
    for (const fs::directory_entry& item :
         sortedEntries<fs::recursive_directory_iterator>(root, problems)) {
        const fs::path& path = item.path();
        std::string relative = path.lexically_relative(root).generic_string();
        if (!normalizeEntryName(relative)) {
            problems.error(path, "unsafe name: a control character");
            continue;
        }
        std::error_code ec;
        fs::file_status status = item.symlink_status(ec);
        if (fs::is_symlink(status)) {
            std::string target = fs::read_symlink(path, ec).string();
            if (!allowLinks)
                problems.error(path, "symbolic link: only files and folders belong here");
            else if (ec || !linkStaysInside(relative, target))
                problems.error(path, "symbolic link leaves the payload: " + target);
        } else if (fs::is_regular_file(status)) {
            if (::access(path.c_str(), R_OK) != 0) problems.error(path, "cannot be read");
        } else if (!fs::is_directory(status)) {
            problems.error(path, "not a file, folder or symbolic link");
        }
    }
}

void checkScripts(const fs::path& dir, Problems& problems) {
    for (const fs::directory_entry& item : sortedEntries<fs::directory_iterator>(dir, problems)) {
        const fs::path& path = item.path();
        std::error_code ec;
        fs::file_status status = item.symlink_status(ec);
        if (scriptBit(path.filename().string()) == 0) {
            problems.error(
                path, std::string("not a package script (known scripts: ") + kScriptNames + ")");
        } else if (!fs::is_regular_file(status)) {
            problems.error(path, "not a regular file");
        } else if ((status.permissions() & fs::perms::owner_exec) == fs::perms::none) {
            problems.error(path, "not executable (chmod +x)");
        }
        if (fs::is_regular_file(status) && scriptBit(path.filename().string()) != 0)
            checkScriptText(path, readFile(path).value_or(""), problems);
    }
}

// A folder named like a known one, in another case or number.
std::string nearestKnownFolder(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (std::string known : {"package", "scripts", "conf"})
        if (name == known || name + "s" == known || name == known + "s") return known;
    return {};
}

void checkTopLevel(const fs::path& dir, Problems& problems) {
    for (const fs::directory_entry& item : sortedEntries<fs::directory_iterator>(dir, problems)) {
        std::string name = item.path().filename().string();
        std::error_code ec;
        if (name.front() == '.' || name == "package" || name == "scripts" || name == "conf" ||
            !item.is_directory(ec))
            continue;
        std::string message = "unknown folder, left out of the package";
        std::string known = nearestKnownFolder(name);
        if (!known.empty()) message += " (did you mean " + known + "/?)";
        problems.error(item.path(), message);
    }
}

// Where the manifest text sets ui_dir: its line and value, or line 0.
std::pair<size_t, std::string> uiDirOf(std::string_view info) {
    for (KeyValueLine& line : readKeyValueLines(info))
        if (line.read && line.key == "ui_dir") return {line.number, std::move(line.value)};
    return {0, {}};
}

// ui_dir must name a folder of the payload, or the web page's link leads
// nowhere. `isFolder(name)` tells whether the payload has the folder `name`.
template <typename IsFolder>
void checkUiDir(const fs::path& info, std::string_view text, const IsFolder& isFolder,
                Problems& problems) {
    auto [line, uiDir] = uiDirOf(text);
    if (uiDir.empty()) return;
    const std::optional<std::string> inside = normalizeEntryName(uiDir);
    if (!inside || inside->empty())
        problems.error(info, line,
                       "ui_dir \"" + uiDir +
                           "\" must name a folder inside package/, without a leading / or ..: "
                           "for package/ui write ui_dir=\"ui\"");
    else if (!isFolder(*inside))
        problems.error(info, line,
                       "ui_dir \"" + uiDir + "\": package/" + *inside +
                           " is not a folder: put the web page there, or write the folder of "
                           "package/ that holds it");
}

}  // namespace

std::string formatProblem(const PackageProblem& problem) {
    std::string out = problem.path;
    if (problem.line > 0) {
        out += ':';
        out += std::to_string(problem.line);
    }
    out += ": ";
    if (problem.warning) out += "warning: ";
    return out + problem.message;
}

std::vector<PackageProblem> checkPackageSource(const fs::path& dir) {
    Problems problems;
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) {
        problems.error(dir, "not a folder");
        return problems.take();
    }
    if (std::optional<std::string> info = readFile(dir / "INFO")) {
        const size_t mark = problems.mark();
        problems.manifest(dir / "INFO", *info);
        checkUiDir(
            dir / "INFO", *info,
            [&](const std::string& name) { return fs::is_directory(dir / "package" / name, ec); },
            problems);
        problems.sortSince(mark);
    } else {
        problems.error(dir / "INFO", "missing: every package needs a manifest");
    }
    if (fs::is_directory(dir / "package", ec))
        checkTree(dir / "package", true, problems);
    else
        problems.error(dir / "package", "missing: the folder of the package's files");
    if (fs::exists(fs::symlink_status(dir / "scripts", ec))) {
        if (fs::is_directory(fs::symlink_status(dir / "scripts", ec)))
            checkScripts(dir / "scripts", problems);
        else
            problems.error(dir / "scripts", "not a folder");
    }
    if (fs::exists(fs::symlink_status(dir / "conf", ec))) {
        if (fs::is_directory(fs::symlink_status(dir / "conf", ec)))
            checkTree(dir / "conf", false, problems);
        else
            problems.error(dir / "conf", "not a folder");
    }
    checkTopLevel(dir, problems);
    return problems.take();
}

std::vector<PackageProblem> checkPackageFile(const fs::path& file) {
    Problems problems;
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        problems.error(file, "cannot be opened as a file");
        return problems.take();
    }
    // Members are small but for the payload, which the listing reads.
    std::map<std::string, std::string> texts;
    auto keepText = [&](archive* reader, archive_entry*, const std::string& name, MemberKind kind,
                        std::string&) {
        if (kind != MemberKind::kInfo && kind != MemberKind::kScript) return 0;
        std::string& text = texts[name];
        char buffer[8192];
        la_ssize_t n;
        while ((n = archive_read_data(reader, buffer, sizeof buffer)) > 0 &&
               text.size() < (1 << 20))
            text.append(buffer, static_cast<size_t>(n));
        return 0;
    };
    std::string why;
    if (walkMembers(fd.get(), keepText, why) != 0) {
        problems.error(file, why);
        return problems.take();
    }
    const fs::path inside = file;
    auto info = texts.find("INFO");
    if (info == texts.end())
        problems.error(file, "no manifest (INFO)");
    else
        problems.manifest(inside / "INFO", info->second);
    for (const auto& [name, text] : texts)
        if (name != "INFO") checkScriptText(inside / name, text, problems);

    PayloadListing payload;
    if (listPayload(file, payload, &why) != 0) {
        problems.error(file, why);
        return problems.take();
    }
    for (const PayloadEntry& entry : payload.entries)
        if (!entry.refusal.empty())
            problems.error(inside / payload.member, "refused entry: " + entry.refusal);
    if (info != texts.end()) {
        // A folder entry, a link (to one, as far as can be told) or any
        // entry below it.
        auto isFolder = [&](const std::string& name) {
            return std::any_of(
                payload.entries.begin(), payload.entries.end(), [&](const PayloadEntry& entry) {
                    std::string entryName = normalizeEntryName(entry.name).value_or("");
                    return (entryName == name && entry.type != 'f') ||
                           entryName.starts_with(name + "/");
                });
        };
        checkUiDir(inside / "INFO", info->second, isFolder, problems);
    }
    Manifest manifest;
    if (info != texts.end() && parseManifest(info->second, manifest) == 0 &&
        !manifest.checksum.empty() && manifest.checksum != payload.md5)
        problems.error(inside / "INFO", "checksum " + manifest.checksum +
                                            " differs from the payload's md5 " + payload.md5);
    return problems.take();
}

}  // namespace quor
