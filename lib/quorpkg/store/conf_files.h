// A package's conf/ files, kept across upgrades as dpkg keeps conffiles.
// The package directory records the sha256 of every conf file as the
// package shipped it (conf.sha256, in sha256sum's format), so that an
// upgrade can tell whether the administrator changed a file and whether the
// package's version of it changed:
// - changed by neither, or by the package only: the new version goes in;
// - changed (or deleted) by the administrator only: theirs stays;
// - changed by both: theirs stays, and the new version lands beside it as
//   <file>.quorpkg-new;
// - shipped before but no longer: it goes unless the administrator changed
//   it; files the package never shipped stay.
// Without a record (a package installed by an older store) every existing
// file counts as changed. All of it happens in the staged package
// directory, which the commit renames into place: the installed one is
// only read.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace quor {

// The record's name in a package directory.
inline constexpr const char* kConfRecord = "conf.sha256";

// Writes the record of the conf files staged in `staged` (the new package
// directory, holding the files as shipped) and, on an upgrade, takes the
// administrator's files over from `installed`. kOk, or kNoSpace or
// kStoreUnusable with a reason. `notes` gets one line for each file where
// the package's new version did not go in place ("conf/a.conf: changed
// here and in 2.0; the new version is conf/a.conf.quorpkg-new").
int stageConfFiles(const std::filesystem::path& installed, const std::filesystem::path& staged,
                   bool upgrade, std::vector<std::string>& notes);

}  // namespace quor
