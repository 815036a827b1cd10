// The moves that make a change take effect or undo it. Each function can be
// run again after a crash at any point inside it and ends in the same place,
// which is what lets recovery finish or undo a change from its journal.
#pragma once

#include "quorpkg/store/journal.h"

namespace quor {

// Flushes every file system holding the staged trees, so that the commit
// step never lands on disk before what it commits.
void flushStaging(const ChangePaths& paths);

// Install, upgrade: sets the old payload and package directory aside, moves
// the staged ones into place and hands var/ over. False on an I/O error.
bool commitStaged(const Change& change);

// Install, upgrade: deletes the set-aside copies, makes the web entry and
// clears the journal.
void finishInstall(const Change& change);

// Install, upgrade: puts the old package back (or none, for an install),
// deletes the new one and clears the journal. Works from any point of
// commitStaged.
void rollBackInstall(const Change& change);

// Removal: sets the package directory and payload aside. False on an I/O error.
bool commitRemoval(const Change& change);

// Removal: deletes the set-aside copies, the web entry and the active mark,
// and clears the journal.
void finishRemoval(const Change& change);

}  // namespace quor
