// The digest of a kept catalog: per entry, by package name, where in the
// catalog file it is and its summary (entry_summary.h), so that a check for
// the installed packages reads no other entry, and a check that only
// reports reads no JSON at all. It lives beside the catalog (<list
// file>.digest) and names the catalog it describes (inode, size and
// remembered hash); one that does not match, is of another format, or
// whose ranges do not hold the named entries, is not used.
#pragma once

#include <json/value.h>

#include <filesystem>
#include <string>
#include <vector>

#include "quorpkg/server/catalog.h"

namespace quor {

// Writes the digest of the kept catalog `list`, fetched from `source`, from
// its parsed "packages" array (parsed from that file's text, so that each
// entry knows its byte range). Besides the ranges and summaries it keeps the
// prefix that resolves the server's plain links, so that a check loads no
// libcurl for them. Failing to write it only costs whole parses later.
void writeCatalogDigest(const std::filesystem::path& list, const std::string& hash,
                        const Source& source, const Json::Value& packages);

// The entries of the kept catalog `list` for the names `how` asks for, in
// catalog order: their summaries as `out.entries`, and with `how.json` the
// JSON of those newer than the installed versions as `out.packages`; with
// `out.plainLinkPrefix`. False when there is no usable digest.
bool readDigestedEntries(const std::filesystem::path& list, const std::string& hash,
                         const CatalogLoad& how, Catalog& out);

}  // namespace quor
