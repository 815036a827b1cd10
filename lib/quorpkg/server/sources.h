// The package sources of /etc/quorpkg/sources, one a line:
//
//   <id> <url> [<url>...] root=<sha256>     a source with a trusted channel
//   <id> <url> [<url>...] unverified        a plain folder, nothing pinned
//
// id is "quorserver" for the vendor's source and "otherserver" for each
// third-party one; several URLs are mirrors of one source. A line that
// names neither a pinned root nor `unverified` is not used: nothing is
// trusted by default. Blank lines and lines starting with '#' are skipped;
// a malformed line is skipped with a line in quorpkg.log, the rest holds.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quor {

struct Source {
    std::string id;                 // quorserver or otherserver
    std::vector<std::string> urls;  // the source's folder on each mirror, ending in '/'
    std::string url;                // the first of them
    int number = 0;                 // 1, 2, ... for third-party sources; 0 for the vendor's
    std::string pin;                // sha256 of its first trusted root; empty: unverified

    bool verified() const { return !pin.empty(); }

    // How messages and the log name it: "quorserver", "otherserver 2".
    std::string label() const;

    // The name of a cache file in the list directory for `kind` ("list" or
    // "hash"): <id>.<kind>.<lang>, with .<number> for third-party sources.
    std::string cacheFileName(std::string_view kind, const std::string& lang) const;
};

// The usable sources in file order. kOk; kServerUnreachable, with the
// reason, when there is none.
int readSources(std::vector<Source>& out, std::string* error = nullptr);

// The language to ask for: "enu" for a null or empty one. Empty when the
// text cannot be a language (it becomes part of file names and URLs).
std::string normalLanguage(const char* lang);

}  // namespace quor
