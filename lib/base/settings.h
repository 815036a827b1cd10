// Platform settings from /etc/quorpkg/settings, key="value" lines; a missing
// file or key means the default. Each line counts on its own: a line that
// cannot be read, an unknown key or a bad value is skipped (a number out of
// range is clamped) with one line in quorpkg.log naming the file, the line
// and what is accepted. The ranges are in docs/store.md.
#pragma once

#include <string>

namespace quor {

struct Settings {
    std::string default_volume;         // empty: the volume with most free space
    std::string auto_upgrade = "none";  // none, important or all
    int script_timeout = 120;           // seconds
    int lock_timeout = 60;              // seconds
    int parallel_jobs = 0;              // 0: follow the dependency graph's width
    long catalog_ttl = 86400;           // seconds
    int catalog_max_mib = 64;           // largest catalog download, MiB
    int fetch_timeout = 60;             // seconds for one request of server metadata
    int expiry_slack = 0;               // hours the clock may be behind for expiry
    bool phased_updates = true;         // false: every release at once
    long download_rate_kib = 0;         // KiB/s of background downloads; 0: no cap
    std::string firmware_version = "7.0";
    std::string arch;  // empty means `uname -m`
    // yes, no; empty: yes once a key is trusted. A value or a line that
    // cannot be read makes it yes: a typing slip never turns checks off.
    std::string require_signature;
};

Settings loadSettings();

// The machine name as `uname -m` prints it.
std::string machineArch();

// The architecture packages must be built for: the setting, else the machine's.
std::string effectiveArch(const Settings& settings);

// The number of parallel jobs for a graph `graphWidth` wide: the setting,
// else the width (at least 1, at most kMaxDefaultJobs). Package starts
// mostly wait on sleeps and I/O, so processors are not the limit.
constexpr int kMaxDefaultJobs = 32;
int effectiveParallelJobs(const Settings& settings, int graphWidth);

}  // namespace quor
