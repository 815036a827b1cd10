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

#include "quorpkg/server/catalog.h"

namespace quor {

// Writes the digest of the kept catalog `list`, fetched from `source`, from
// its parsed "packages" array (parsed from that file's text, so that each
// entry knows its byte range). Besides the ranges it keeps each entry's
// version and the prefix that resolves the server's plain links, so that a
// check neither parses entries it can tell are not newer nor loads libcurl.
// Failing to write it only costs whole parses later.
void writeCatalogDigest(const std::filesystem::path& list, const std::string& hash,
                        const Source& source, const Json::Value& packages);

// The entries of the kept catalog `list` that `how` asks for (its names,
// newer than its versions when given), in catalog order, as `out.packages`
// with `out.plainLinkPrefix`; false when there is no usable digest.
bool readDigestedEntries(const std::filesystem::path& list, const std::string& hash,
                         const CatalogLoad& how, Catalog& out);

}  // namespace quor
