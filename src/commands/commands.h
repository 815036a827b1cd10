// The command handlers of quorpkg and what they share.
//
// A handler gets the arguments from the command word on (argv[0] is the
// command word, argv[1] its first operand) and the run's package manager,
// and returns the process exit status.
#pragma once

#include <string>

#include "pkg_manager.h"

namespace quorpkg {

using QUORPackageTool::PackageManager;

// The system's desktop-notification tool. Every unit keeps its own copy;
// the notifications themselves are sent through the package manager.
const std::string kNotifyToolPath = "/usr/quor/bin/quorzemnotify";

// Lookups and enumerations select every package with all bits set.
constexpr unsigned long long kAllPackages = ~0ULL;

using CommandHandler = int (*)(int argc, char** argv, PackageManager* manager);

// Prints "Bad parameter!" and returns true when the first operand is missing
// or empty; later operands are never checked.
bool badParameter(int argc, char** argv);

// The file name of a source path, for the "file:line " prefix of log lines.
constexpr const char* sourceBaseName(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') base = p + 1;
    }
    return base;
}

// Service control.
int start(int argc, char** argv, PackageManager* manager);
int stop(int argc, char** argv, PackageManager* manager);
int restart(int argc, char** argv, PackageManager* manager);
int status(int argc, char** argv, PackageManager* manager);
int is_onoff(int argc, char** argv, PackageManager* manager);
int pause(int argc, char** argv, PackageManager* manager);
int resume(int argc, char** argv, PackageManager* manager);
int start_depend(int argc, char** argv, PackageManager* manager);
int stop_depend(int argc, char** argv, PackageManager* manager);
int onoffall(int argc, char** argv, PackageManager* manager);
int notify_stopped_by_firmware(int argc, char** argv, PackageManager* manager);

// Installation.
int install(int argc, char** argv, PackageManager* manager);
int query(int argc, char** argv, PackageManager* manager);
int install_from_server(int argc, char** argv, PackageManager* manager);
int uninstall(int argc, char** argv, PackageManager* manager);
int sort_zpk_by_dep_order(int argc, char** argv, PackageManager* manager);

// Upgrades and versions.
int chkupgradepkg(int argc, char** argv, PackageManager* manager);
int upgradeall(int argc, char** argv, PackageManager* manager);
int checkupdateall(int argc, char** argv, PackageManager* manager);
int checkupdate(int argc, char** argv, PackageManager* manager);
int version(int argc, char** argv, PackageManager* manager);

// Forgets the remembered package-list hashes so that the next listing from
// any package server is fetched afresh. Failures go to the system log only.
void resetPkgListHash();

// Listing and logs.
int list(int argc, char** argv, PackageManager* manager);
int log(int argc, char** argv, PackageManager* manager);

}  // namespace quorpkg
