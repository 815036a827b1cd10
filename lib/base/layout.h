// Where everything lives on the device, as host paths under the system root.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace quor::layout {

using Path = std::filesystem::path;

Path packagesDir();                          // /var/packages
Path packageDir(const std::string& name);    // /var/packages/<name>
Path manifestFile(const std::string& name);  // .../INFO
Path enabledFlag(const std::string& name);   // .../enabled
Path scriptsDir(const std::string& name);    // .../scripts
Path targetLink(const std::string& name);    // .../target -> /<volume>/@appstore/<name>
Path varDir(const std::string& name);        // .../var
Path confDir(const std::string& name);       // .../conf
Path journalDir();                           // /var/packages/.journal

Path appstoreDir(const Path& volume, const std::string& name);  // <volume>/@appstore/<name>
Path volumeTmpDir(const Path& volume);                          // <volume>/@tmp/quorpkg

Path logFile(const std::string& name);     // /var/log/packages/<name>.log
Path lockFile();                           // /run/quorpkg/lock
Path activeMark(const std::string& name);  // /run/quorpkg/active/<name>
Path taskFile(const std::string& name);    // /run/quorpkg/tasks/<name>.json
Path runningScriptsDir();                  // /run/quorpkg/scripts
Path listDir();                            // /var/cache/quorpkg/list
Path settingsFile();                       // /etc/quorpkg/settings
Path sourcesFile();                        // /etc/quorpkg/sources
Path firmwareLimitsFile();                 // /etc/quorpkg/firmware-limits
Path trustedKeysDir();                     // /etc/quorpkg/keys
Path shippedRootsDir();                    // /etc/quorpkg/roots
Path originFile(const std::string& name);  // /var/packages/<name>/origin
// What the device keeps of a source's channel, by the sha256 pinning it:
// /var/lib/quorpkg/sources/<pin>
Path channelStateDir(const std::string& pin);
Path deviceIdFile();                     // /var/lib/quorpkg/device-id
Path machineIdFile();                    // /etc/machine-id
Path webEntry(const std::string& name);  // /usr/quor/quorman/webman/3rdparty/<name>
Path notificationsFile();                // /var/spool/quorpkg/notifications
Path hwRequestsFile();                   // /run/hwcontrol/requests

// The volumes (directories at the root named "volume" and digits), by number.
std::vector<Path> volumes();

}  // namespace quor::layout
