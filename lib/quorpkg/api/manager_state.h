// What our platform keeps in a PackageManager object. The result code lives
// process-wide (base/result.h) because static and free functions report
// through it too.
#pragma once

#include "pkg_manager.h"

struct QUORPackageTool::PackageManager::State {
    bool initialized = false;
    bool skipUpgradeCheck = false;
};
