#include "quorpkg/server/sources.h"

#include <cctype>
#include <sstream>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/operation_log.h"
#include "base/result.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/server/http_client.h"

namespace quor {
namespace {

constexpr const char* kAccepted =
    "expected: quorserver|otherserver <url> [<url>...] root=<sha256>|unverified, "
    "urls http, https or file";

// A bad line is told once per process, however often the file is read.
void reportLine(size_t lineNumber, const std::string& problem) {
    logFileProblem(layout::sourcesFile(), lineNumber,
                   "line skipped: " + problem + " (" + kAccepted + ")");
}

// One line's source; the problem when it cannot be used.
std::string parseLine(const std::string& line, Source& source) {
    std::istringstream words(line);
    words >> source.id;
    bool unverified = false;
    for (std::string word; words >> word;) {
        if (word.compare(0, 5, "root=") == 0) {
            if (!source.pin.empty()) return "two pinned roots";
            source.pin = word.substr(5);
            if (!isLowerHex(source.pin, 64)) return "root= needs the root file's sha256";
        } else if (word == "unverified") {
            unverified = true;
        } else if (const std::string scheme = urlScheme(word);
                   scheme == "http" || scheme == "https" || scheme == "file") {
            if (word.back() != '/') word += '/';
            source.urls.push_back(word);
        } else {
            return "unknown word \"" + word + "\"";
        }
    }
    if (source.id != "quorserver" && source.id != "otherserver")
        return "unknown id \"" + source.id + "\"";
    if (source.urls.empty()) return "no URL";
    if (unverified == !source.pin.empty())
        return unverified ? "a pinned root and unverified at once"
                          : "no pinned root (root=<sha256>) and not marked unverified";
    source.url = source.urls.front();
    return {};
}

}  // namespace

std::string Source::label() const {
    return number > 0 ? id + " " + std::to_string(number) : id;
}

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
    std::optional<std::string> text = readFile(layout::sourcesFile());
    std::istringstream lines(text.value_or(""));
    std::string line;
    int thirdParty = 0;
    bool haveVendor = false;
    for (size_t lineNumber = 1; std::getline(lines, line); ++lineNumber) {
        const size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') continue;
        Source source;
        std::string problem = parseLine(line, source);
        if (problem.empty() && source.id == "quorserver" && haveVendor)
            problem = "a second quorserver";
        if (!problem.empty()) {
            reportLine(lineNumber, problem);
            continue;
        }
        if (source.id == "quorserver")
            haveVendor = true;
        else
            source.number = ++thirdParty;
        out.push_back(std::move(source));
    }
    if (out.empty()) {
        if (error) *error = "no usable package source in " + layout::sourcesFile().string();
        return kServerUnreachable;
    }
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
