// Staged rollouts: a catalog entry may carry "phase" (0 to 100, default
// 100), the percentage of devices its version is offered to as an upgrade.
// Which devices is fixed per device, package and version, so a device in
// the first 5 % of one release is not always in the first 5 % of every
// release, and raising the phase only adds devices. Phase 0 halts a
// rollout on every device's next check. New installs are not phased.
#pragma once

#include <json/value.h>

#include <string>

#include "base/settings.h"

namespace quor {

// This device's id: the root's /etc/machine-id, else a random id made once
// and kept in /var/lib/quorpkg/device-id. Empty when neither can be had.
std::string deviceId();

// Where the device falls for a package version: 0 to 9999, from the
// sha256 of the device id, the name and the version.
int rolloutBucket(const std::string& device, const std::string& name, const std::string& version);

// The entry's phase: 100 when it has none, 0 when it is not a whole
// number from 0 to 100 (a publisher's slip halts rather than releases).
int entryPhase(const Json::Value& entry);

// Whether an upgrade to `version` of `name`, at `phase` (entryPhase), is
// offered to this device now: always with phased_updates="no" or a phase
// of 100.
bool offeredToThisDevice(int phase, const std::string& name, const std::string& version,
                         const Settings& settings);

}  // namespace quor
