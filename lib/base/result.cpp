#include "base/result.h"

#include <cerrno>

#include "base/operation.h"

namespace quor {

int refuse(int code, const std::string& reason) {
    if (Operation* operation = Operation::current()) operation->note(code, reason);
    return code;
}

bool fail(int code, const std::string& reason) {
    if (Operation* operation = Operation::current()) {
        operation->note(code, reason);
        operation->settle(code);
    }
    return false;
}

void setLastResult(int code) {
    if (Operation* operation = Operation::current()) operation->settle(code);
}

int lastResult() {
    return freeFunctionResults().load().code;
}

int writeFailure(int err) {
    return err == ENOSPC || err == EDQUOT || err == EFBIG ? kNoSpace : kStoreUnusable;
}

const char* resultMeaning(int code) {
    switch (code) {
        case kOk:
            return "success";
        case kStopped:
            return "the package is stopped";
        case kBadArgument:
            return "bad argument";
        case kStoreUnusable:
            return "the package store cannot be used";
        case kLocked:
            return "another package operation holds the lock";
        case kNotEnabled:
            return "the package is installed but not turned on";
        case kFileUnreadable:
            return "the package file cannot be read";
        case kBadManifest:
            return "the package file has no valid manifest";
        case kChecksumMismatch:
            return "checksum mismatch";
        case kUnsafeEntry:
            return "the package file holds an unsafe entry";
        case kWrongArch:
            return "built for another architecture";
        case kFirmwareTooOld:
            return "needs a newer firmware";
        case kSignatureRefused:
            return "refused by its signature";
        case kTrustRefused:
            return "not vouched for by the source's keys";
        case kMissingDependency:
            return "a required package is missing or too old";
        case kConflict:
            return "conflicts with an installed package";
        case kDependencyCycle:
            return "dependency cycle";
        case kHasDependents:
            return "other installed packages depend on it";
        case kFirmwareBlocked:
            return "blocked by the firmware limit";
        case kDowngradeRefused:
            return "it would lower an installed version";
        case kScriptFailed:
            return "a lifecycle script failed";
        case kScriptTimeout:
            return "a lifecycle script timed out";
        case kNoSpace:
            return "not enough free space";
        case kNoVolume:
            return "no volume available";
        case kBroken:
            return "the package is broken";
        case kServerUnreachable:
            return "the package server cannot be reached or answered an error";
        case kNotOnServer:
            return "the server does not offer that package";
        case kDownloadFailed:
            return "the download failed";
        case kMetadataExpired:
            return "the source's signed metadata expired";
        case kMetadataRollback:
            return "the source's signed metadata is older than the kept or not its own";
        case kTaskRunning:
            return "a background installation of that package is already running";
        case kNoSuchPackage:
            return "no such package";
        case kStoppedButActive:
            return "stopped, but the platform started it and never stopped it";
        default:
            return "failed with a code of its own (a script's exit status)";
    }
}

}  // namespace quor
