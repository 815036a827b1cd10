#include "quorpkg/server/sources.h"

#include <cctype>
#include <sstream>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "quorpkg/server/http_client.h"

namespace quor {

std::string Source::cacheFileName(std::string_view kind, const std::string& lang) const {
    std::string name = id + "." + std::string(kind) + "." + lang;
    if (number > 0) {
        name += '.';
        name += std::to_string(number);
    }
    return name;
}

int readSources(std::vector<Source>& out, std::string* error) {
    out.clear();
    auto bad = [&](const std::string& why) {
        if (error) *error = why;
        out.clear();
        return kServerUnreachable;
    };
    std::optional<std::string> text = readFile(layout::sourcesFile());
    if (!text) return bad("no package server is configured");
    std::istringstream lines(*text);
    std::string line;
    int thirdParty = 0;
    bool haveVendor = false;
    for (int lineNumber = 1; std::getline(lines, line); ++lineNumber) {
        std::istringstream words(line);
        Source source;
        std::string extra;
        if (!(words >> source.id) || source.id.front() == '#') continue;
        const std::string where = "sources line " + std::to_string(lineNumber);
        if (!(words >> source.url) || (words >> extra)) return bad(where + ": expected <id> <url>");
        const std::string scheme = urlScheme(source.url);
        if (scheme != "http" && scheme != "https" && scheme != "file")
            return bad(where + ": not an http, https or file URL");
        if (source.id == "quorserver") {
            if (haveVendor) return bad(where + ": a second quorserver");
            haveVendor = true;
        } else if (source.id == "otherserver") {
            source.number = ++thirdParty;
        } else {
            return bad(where + ": unknown id " + source.id);
        }
        if (source.url.back() != '/') source.url += '/';
        out.push_back(std::move(source));
    }
    if (out.empty()) return bad("no package server is configured");
    return kOk;
}

std::string normalLanguage(const char* lang) {
    if (lang == nullptr || *lang == '\0') return "enu";
    std::string_view text(lang);
    if (text.size() > 16) return {};
    for (unsigned char c : text)
        if (!std::isalnum(c) && c != '_' && c != '-') return {};
    return std::string(text);
}

}  // namespace quor
