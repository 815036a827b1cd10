// Which packages must come from the server before a package can go in.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "quorpkg/package/manifest.h"
#include "quorpkg/server/offers.h"

namespace quor {

// The requirement items of a catalog entry's "deps" ("a>=1.2:b"); nothing
// when one of them is malformed.
std::optional<std::vector<Dependency>> entryRequirements(const Json::Value& entry);

// The offers to install before package `root`, whose requirements are
// `needs`: each required package that is not installed at a suitable
// version, at the newest offered version that suits, after what it requires
// in turn. kOk; kMissingDependency when no offered version suits (or a
// required package's requirements cannot be read); kDependencyCycle;
// kDowngradeRefused when only a version lower than the installed one
// would suit: a requirement never lowers an installed package.
int planRequirements(const std::string& root, const std::vector<Dependency>& needs,
                     const Offers& offers, bool allowBeta, std::vector<const Offer*>& out,
                     std::string* error = nullptr);

}  // namespace quor
