#include "quorpkg/store/journal.h"

#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/layout.h"
#include "quorpkg/package/manifest.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

fs::path journalFile(const std::string& name) {
    return layout::journalDir() / name;
}

std::string valueOf(const KeyValues& pairs, const char* key) {
    const std::string* value = findValue(pairs, key);
    return value ? *value : std::string();
}

}  // namespace

ChangePaths changePaths(const Change& change) {
    const fs::path packages = layout::packagesDir();
    const std::string hidden = "." + change.name;
    ChangePaths paths;
    paths.package = layout::packageDir(change.name);
    paths.packageNew = packages / (hidden + ".new");
    paths.packageOld = packages / (hidden + ".old");
    if (!change.volume.empty()) {
        paths.app = layout::appstoreDir(change.volume, change.name);
        paths.appNew = change.volume / "@appstore" / (hidden + ".new");
    }
    // A removal sets its payload aside on its own volume.
    const fs::path& old = change.op == "remove" ? change.volume : change.oldVolume;
    if (!old.empty()) {
        paths.oldApp = layout::appstoreDir(old, change.name);
        paths.appOld = old / "@appstore" / (hidden + ".old");
    }
    return paths;
}

std::vector<std::string> pendingJournals() {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(layout::journalDir(), ec)) {
        std::string name = entry.path().filename().string();
        // Temporary files of an interrupted write start with '.'.
        if (isValidPackageName(name)) names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool anyJournalEntry() {
    std::error_code ec;
    return fs::directory_iterator(layout::journalDir(), ec) != fs::directory_iterator();
}

void removeJournalLeftovers() {
    std::error_code ec;
    bool removed = false;
    for (fs::directory_iterator it(layout::journalDir(), ec), end; !ec && it != end;
         it.increment(ec)) {
        if (it->path().filename().string().front() != '.') continue;
        std::error_code ignored;
        removed |= fs::remove_all(it->path(), ignored) > 0;
    }
    if (removed) syncDirectory(layout::journalDir());
}

bool readJournal(const std::string& name, Change& out) {
    // A link is not a journal we wrote.
    std::optional<std::string> text = readRegularFile(journalFile(name));
    if (!text) return false;
    std::optional<KeyValues> pairs = parseKeyValues(*text);
    if (!pairs) return false;
    Change change;
    change.op = valueOf(*pairs, "op");
    change.name = name;
    change.step = valueOf(*pairs, "step");
    change.volume = valueOf(*pairs, "volume");
    change.oldVolume = valueOf(*pairs, "old_volume");
    change.uiDir = valueOf(*pairs, "ui_dir");
    change.webEntry = valueOf(*pairs, "web_entry") == "yes";
    out = std::move(change);
    return true;
}

bool writeJournal(const Change& change) {
    KeyValues pairs = {{"op", change.op},
                       {"name", change.name},
                       {"step", change.step},
                       {"volume", change.volume.string()},
                       {"old_volume", change.oldVolume.string()},
                       {"ui_dir", change.uiDir},
                       {"web_entry", change.webEntry ? "yes" : "no"}};
    std::error_code ec;
    fs::create_directories(layout::journalDir(), ec);
    return writeFileAtomic(journalFile(change.name), formatKeyValues(pairs));
}

void clearJournal(const std::string& name) {
    ::unlink(journalFile(name).c_str());
    syncDirectory(layout::journalDir());
}

}  // namespace quor
