// The package servers of /etc/quorpkg/sources: one "<id> <url>" a line, id
// "quorserver" for the vendor's server and "otherserver" for each
// third-party one. Blank lines and lines starting with '#' are skipped.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quor {

struct Source {
    std::string id;   // quorserver or otherserver
    std::string url;  // the server's folder, ending in '/'
    int number = 0;   // 1, 2, ... for third-party servers; 0 for the vendor's

    // The name of a cache file in the list directory for `kind` ("list" or
    // "hash"): <id>.<kind>.<lang>, with .<number> for third-party servers.
    std::string cacheFileName(std::string_view kind, const std::string& lang) const;
};

// The configured servers in file order. kOk; kServerUnreachable when none is
// configured or a line is malformed (unknown id, a second vendor server, a
// URL that is not http, https or file).
int readSources(std::vector<Source>& out, std::string* error = nullptr);

// The language to ask for: "enu" for a null or empty one. Empty when the
// text cannot be a language (it becomes part of file names and URLs).
std::string normalLanguage(const char* lang);

}  // namespace quor
