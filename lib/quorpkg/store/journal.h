// The journal of a change in progress: /var/packages/.journal/<name> names
// the operation, the package, the volumes and the step reached, so that the
// next change can finish or undo it. One file per package: a script of a
// change may itself change another package (it inherits the lock), and the
// two journals must not overwrite each other.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace quor {

struct Change {
    std::string op;    // "install", "upgrade" or "remove"
    std::string name;  // the package
    std::string
        step;  // "stage", "commit", "rollback" (install, upgrade); "prepare", "commit" (remove)
    std::filesystem::path volume;     // host path of the volume of the new (or removed) payload
    std::filesystem::path oldVolume;  // upgrade: the volume of the old payload, empty if unknown
    std::string uiDir;                // install, upgrade: web interface of the new package
    bool webEntry = false;            // upgrade: the old package had its web entry
};

// The paths a change moves between. Staged and set-aside copies sit beside
// their final place, so every move is a rename within one file system.
struct ChangePaths {
    std::filesystem::path package;     // /var/packages/<name>
    std::filesystem::path packageNew;  // /var/packages/.<name>.new
    std::filesystem::path packageOld;  // /var/packages/.<name>.old
    std::filesystem::path app;         // <volume>/@appstore/<name>
    std::filesystem::path appNew;      // <volume>/@appstore/.<name>.new
    std::filesystem::path oldApp;      // <old volume>/@appstore/<name>
    std::filesystem::path appOld;      // <old volume>/@appstore/.<name>.old
};

ChangePaths changePaths(const Change& change);

// The packages with a journal, in byte order.
std::vector<std::string> pendingJournals();

// Whether the journal folder holds anything: a journal or a leftover.
bool anyJournalEntry();

// Removes what a kill left of interrupted journal writes (temporary names
// start with '.'). Only for the holder of the store lock.
void removeJournalLeftovers();

// True and the change when the package has a journal; false when not.
bool readJournal(const std::string& name, Change& out);
// Written atomically and flushed: once this returns the step is on disk.
bool writeJournal(const Change& change);
void clearJournal(const std::string& name);

}  // namespace quor
