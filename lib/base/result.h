// Result codes of the platform, and how a failure site reports one together
// with its reason. The code and the reason go to the operation in progress
// on the calling thread (base/operation.h), which hands them to whoever ran
// it: the PackageManager object of a member operation, or the process-wide
// record of static and free functions. Outside any operation only the code
// is returned.
#pragma once

#include <string>

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
    kSignatureRefused = 116,
    kTrustRefused = 117,
    kMissingDependency = 120,
    kConflict = 121,
    kDependencyCycle = 122,
    kHasDependents = 123,
    kFirmwareBlocked = 124,
    kDowngradeRefused = 125,
    kScriptFailed = 130,
    kScriptTimeout = 131,
    kNoSpace = 140,
    kNoVolume = 141,
    kBroken = 150,
    kServerUnreachable = 160,
    kNotOnServer = 161,
    kDownloadFailed = 162,
    kMetadataExpired = 163,
    kMetadataRollback = 164,
    kTaskRunning = 170,
    kNoSuchPackage = 255,
    kStoppedButActive = 310,
};

// A failure site deep inside the platform: notes `reason` (words that name
// the culprit) for `code` and returns `code`, so that `return refuse(kX,
// "...");` replaces `return kX;`.
int refuse(int code, const std::string& reason);

// The operation's answer: records `code` as the result of the operation in
// progress and returns false, so that an interface function can
// `return fail(kSomething, "...");`. Without a reason, the one noted deeper
// down for the same code stands.
bool fail(int code, const std::string& reason = {});

// Records `code` as the operation's result even when it is kOk (a status
// answer that is always set).
void setLastResult(int code);

// The code last recorded by a static or free function of the platform in
// this process (kOk when none has failed).
int lastResult();

// The code of a failed write: kNoSpace when the disk (or a quota or file
// size limit) is full, kStoreUnusable for any other errno.
int writeFailure(int err);

// A short meaning of a result code, for a reason that nobody noted.
const char* resultMeaning(int code);

}  // namespace quor
