// The digest of a kept catalog: where in the catalog file each package's
// entries are, by package name, so that a check for a few installed
// packages reads and parses only their entries instead of the whole
// catalog. It lives beside the catalog (<list file>.digest) and names the
// catalog it describes (inode, size and remembered hash); one that does not
// match, or whose ranges do not hold the named entries, is not used.
#pragma once

#include <json/value.h>

#include <filesystem>
#include <string>
#include <vector>

namespace quor {

// Writes the digest of the kept catalog `list` from its parsed "packages"
// array (parsed from that file's text, so that each entry knows its byte
// range). Failing to write it only costs whole parses later.
void writeCatalogDigest(const std::filesystem::path& list, const std::string& hash,
                        const Json::Value& packages);

// The entries of the kept catalog `list` whose package is one of `names`,
// in catalog order, as a "packages" array; false when there is no usable
// digest.
bool readDigestedEntries(const std::filesystem::path& list, const std::string& hash,
                         const std::vector<std::string>& names, Json::Value& packages);

}  // namespace quor
