// Dependency orders among installed packages and among package records.
#pragma once

#include <string>
#include <vector>

#include "quorpkg/package/manifest.h"

namespace quor {

// The installed packages that depend on `name` (directly, or also through
// others when `recursive`), each before the packages it depends on, then
// `name` itself last.
std::vector<std::string> dependentsOf(const std::string& name, bool recursive);

// Every installed package, each after the packages it requires.
std::vector<std::string> installOrder();

// The names of `packages`, each before the packages it requires;
// requirements outside the set are ignored, a name given twice counts once,
// and among packages free to go next the input order decides. Linear in the
// number of records and dependencies. kOk, or kDependencyCycle.
int topologicalSort(const std::vector<Manifest>& packages, std::vector<std::string>& out);

}  // namespace quor
