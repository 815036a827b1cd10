// What our platform keeps in a PackageManager object: its settings and the
// outcome of its own operations (base/operation.h says how static and free
// functions report).
#pragma once

#include "base/operation.h"
#include "pkg_manager.h"

struct QUORPackageTool::PackageManager::State {
    bool initialized = false;
    bool skipUpgradeCheck = false;
    quor::ResultSlot results;
};
