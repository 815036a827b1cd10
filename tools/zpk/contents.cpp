// zpk contents FILE.zpk: the payload's entries, one a line as `tar tv` shows
// them: type and mode, size, time (UTC), name, and a link's target.
#include <cstdio>
#include <ctime>
#include <string>

#include "commands.h"
#include "options.h"
#include "quorpkg/package/payload_listing.h"

namespace {

std::string modeText(const quor::PayloadEntry& entry) {
    std::string text(1, entry.type == 'f' ? '-' : entry.type == 'h' ? 'h' : entry.type);
    const char* letters = "rwxrwxrwx";
    for (int bit = 0; bit < 9; ++bit) text += (entry.perm & (0400 >> bit)) ? letters[bit] : '-';
    return text;
}

std::string timeText(long long seconds) {
    std::time_t time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    char text[32] = "?";
    if (gmtime_r(&time, &parts)) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts);
    return text;
}

}  // namespace

int zpkContents(int argc, char** argv) {
    CommandLine line{"contents FILE.zpk", "List the files of a package file's payload."};
    line.hidden.add_options()("file", po::value<std::string>()->required());
    line.operands.add("file", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const std::string file = line.values["file"].as<std::string>();
    quor::PayloadListing listing;
    std::string error;
    if (int code = quor::listPayload(file, listing, &error))
        return zpkError(1, "%s: cannot read the payload (%d): %s", file.c_str(), code,
                        error.c_str());
    for (const quor::PayloadEntry& entry : listing.entries) {
        std::string link;
        if (entry.type == 'l') link = " -> " + entry.linkTarget;
        if (entry.type == 'h') link = " link to " + entry.linkTarget;
        std::printf("%s %10lld %s %s%s\n", modeText(entry).c_str(), entry.size,
                    timeText(entry.mtime).c_str(), entry.name.c_str(), link.c_str());
    }
    return 0;
}
