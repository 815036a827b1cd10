// zpk verify SOURCE --root SHA256: walks a served source (a URL, or the
// folder it is served from) as a device does on first contact, and prints
// every step with its expiry date, so a publisher sees what devices see.
#include <cstdio>
#include <filesystem>
#include <string>

#include "base/file_util.h"
#include "base/result.h"
#include "base/utc_time.h"
#include "commands.h"
#include "options.h"
#include "quorpkg/package/channel_walk.h"
#include "quorpkg/server/http_client.h"

namespace fs = std::filesystem;

namespace {

quor::SourceFileReader readerOf(const std::string& source) {
    const std::string scheme = quor::urlScheme(source);
    if (scheme == "http" || scheme == "https" || scheme == "file") {
        const std::string base = source.back() == '/' ? source : source + "/";
        return [base](const std::string& name, uint64_t maxBytes, std::string& text,
                      std::string& why) {
            quor::FetchResult result = quor::fetchText(base + name, text, maxBytes);
            if (result.ok()) return int(quor::kOk);
            why = base + name + ": " + result.error;
            return int(result.status == quor::FetchStatus::kNotFound ? quor::kNoSuchPackage
                                                                     : quor::kServerUnreachable);
        };
    }
    const fs::path dir(source);
    return [dir](const std::string& name, uint64_t maxBytes, std::string& text, std::string& why) {
        std::error_code ec;
        if (!fs::exists(dir / name, ec)) return int(quor::kNoSuchPackage);
        std::optional<std::string> read = quor::readFile(dir / name);
        if (!read || read->size() > maxBytes) {
            why = (dir / name).string() + (read ? " is too long" : ": cannot be read");
            return int(quor::kFileUnreadable);
        }
        text = std::move(*read);
        return int(quor::kOk);
    };
}

}  // namespace

int zpkVerify(int argc, char** argv) {
    CommandLine line{"verify SOURCE --root SHA256 [--at TIME]",
                     "Check a trusted source as a device would walk it: SOURCE is its URL or "
                     "the folder it is\nserved from, SHA256 the root devices pin."};
    line.options.add_options()("root", po::value<std::string>()->required(),
                               "the sha256 of the root devices pin")(
        "at", po::value<std::string>(), "judge expiry at this UTC time (2026-12-24T00:00:00Z)");
    line.hidden.add_options()("source", po::value<std::string>()->required());
    line.operands.add("source", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    int64_t at = quor::nowSeconds();
    if (line.values.count("at")) {
        std::optional<int64_t> parsed = quor::parseUtc(line.values["at"].as<std::string>());
        if (!parsed) return zpkError(2, "--at: not a UTC time like 2026-12-24T00:00:00Z");
        at = *parsed;
    }
    std::string why;
    const int code = quor::walkSource(
        readerOf(line.values["source"].as<std::string>()), line.values["root"].as<std::string>(),
        at, [](const std::string& step) { std::printf("%s\n", step.c_str()); }, why);
    if (code != quor::kOk) return zpkError(1, "refused (%d): %s", code, why.c_str());
    std::printf("ok: devices accept this source\n");
    return 0;
}
