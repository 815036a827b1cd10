// The package-list hash reset shared by the upgrade commands.
#include <syslog.h>

#include <boost/filesystem.hpp>
#include <regex>
#include <string>

#include "commands.h"
#include "quor_core.h"

namespace quorpkg {

void resetPkgListHash() {
    std::string directory;
    if (!QUORPackageTool::PMSGetListTmpDir(directory)) {
        syslog(LOG_ERR, "%s:%d failed to create directory for package list hash [%s]",
               sourceBaseName(__FILE__), 13, directory.c_str());
        return;
    }
    // One file per package server and language, e.g. quorserver.hash.enu.
    static const std::regex hashFileName("^(quorserver|otherserver)\\.hash\\..*$");
    // Directory errors are not ours to handle: they end the run with its report.
    for (boost::filesystem::directory_iterator entry(directory), end; entry != end; ++entry) {
        if (!boost::filesystem::is_regular_file(entry->status())) continue;
        if (!std::regex_match(entry->path().filename().string(), hashFileName)) continue;
        const std::string path = entry->path().string();
        // A placeholder no server sends, so the next listing is taken afresh.
        if (QLIBCFileSetKeyValue(path.c_str(), "hash", "temphash", 0) <= 0) {
            syslog(LOG_ERR, "%s:%d failed to reset pkglist hash [%s]", sourceBaseName(__FILE__), 25,
                   path.c_str());
        }
    }
}

}  // namespace quorpkg
