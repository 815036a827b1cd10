// Result codes of the platform, and the process-wide code of the last
// failure that PackageManager::getResult() reports (static and free
// functions have no manager object, so the code lives here).
#pragma once

namespace quor {

enum ResultCode : int {
    kOk = 0,
    kStopped = 3,
    kBadArgument = 100,
    kStoreUnusable = 101,
    kLocked = 102,
    kNotEnabled = 103,
    kFileUnreadable = 110,
    kBadManifest = 111,
    kChecksumMismatch = 112,
    kUnsafeEntry = 113,
    kWrongArch = 114,
    kFirmwareTooOld = 115,
    kMissingDependency = 120,
    kConflict = 121,
    kDependencyCycle = 122,
    kHasDependents = 123,
    kFirmwareBlocked = 124,
    kScriptFailed = 130,
    kScriptTimeout = 131,
    kNoSpace = 140,
    kNoVolume = 141,
    kBroken = 150,
    kServerUnreachable = 160,
    kNotOnServer = 161,
    kDownloadFailed = 162,
    kTaskRunning = 170,
    kNoSuchPackage = 255,
    kStoppedButActive = 310,
};

void setLastResult(int code);
int lastResult();

// Records `code` as the last result; returns false so that a failing
// operation can `return fail(kSomething);`.
bool fail(int code);

}  // namespace quor
