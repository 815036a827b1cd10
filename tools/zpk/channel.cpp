// The publisher's verbs of a trusted source (docs/server.md, "Publishing a
// source"): zpk source new, zpk root sign, zpk root next, zpk release and
// zpk timestamp. Root keys stay offline: a root is drafted, then each root
// key holder signs it in turn, and it is published once enough have.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/file_util.h"
#include "base/utc_time.h"
#include "commands.h"
#include "options.h"
#include "quorpkg/package/channel_publisher.h"
#include "quorpkg/package/md5.h"

namespace fs = std::filesystem;

namespace {

constexpr int64_t kDay = 86400;

std::optional<quor::SigningKey> loadPublicKey(const std::string& file) {
    std::string error;
    std::optional<quor::SigningKey> key = quor::SigningKey::loadPublic(file, &error);
    if (!key) zpkError(1, "%s", error.c_str());
    return key;
}

// The role options every root command shares.
void addRoleOptions(CommandLine& line) {
    line.options.add_options()("root-key", po::value<std::vector<std::string>>(),
                               "a root key (.pub); repeat for each holder")(
        "threshold", po::value<int>(), "how many root keys must sign a root")(
        "timestamp-key", po::value<std::string>(), "the timestamp key (.pub), kept online")(
        "catalog-key", po::value<std::string>(), "the catalog key (.pub), on the release machine")(
        "publisher", po::value<std::vector<std::string>>(),
        "KEY.pub=NAME[,NAME...]: a key that may sign those packages ('*' matches any run)")(
        "expires", po::value<int>()->default_value(365), "days until the root expires");
}

bool addKey(quor::SourceRoot& root, const quor::SigningKey& key) {
    root.keys.emplace(key.id(), key.rawPublic());
    return true;
}

// Applies the options to `root`: a role given replaces that role's keys.
bool applyRoles(const po::variables_map& values, quor::SourceRoot& root) {
    if (values.count("root-key")) {
        root.root.keyIds.clear();
        for (const std::string& file : values["root-key"].as<std::vector<std::string>>()) {
            std::optional<quor::SigningKey> key = loadPublicKey(file);
            if (!key) return false;
            addKey(root, *key);
            root.root.keyIds.push_back(key->id());
        }
        root.root.threshold = std::min<int>(root.root.threshold, root.root.keyIds.size());
    }
    if (values.count("threshold")) root.root.threshold = values["threshold"].as<int>();
    for (auto [option, role] :
         {std::pair{"timestamp-key", &root.timestamp}, std::pair{"catalog-key", &root.catalog}}) {
        if (!values.count(option)) continue;
        std::optional<quor::SigningKey> key = loadPublicKey(values[option].as<std::string>());
        if (!key) return false;
        addKey(root, *key);
        *role = quor::RoleKeys{1, {key->id()}};
    }
    if (values.count("publisher")) {
        for (const std::string& rule : values["publisher"].as<std::vector<std::string>>()) {
            const size_t equals = rule.find('=');
            if (equals == std::string::npos) {
                zpkError(2, "--publisher %s: expected KEY.pub=NAME[,NAME...]", rule.c_str());
                return false;
            }
            std::optional<quor::SigningKey> key = loadPublicKey(rule.substr(0, equals));
            if (!key) return false;
            quor::PublisherRule publisher{key->id(), {}};
            for (size_t begin = equals + 1; begin <= rule.size();) {
                size_t end = std::min(rule.find(',', begin), rule.size());
                const std::string pattern = rule.substr(begin, end - begin);
                if (!quor::isValidNamePattern(pattern)) {
                    zpkError(2, "--publisher: not a package name or pattern: \"%s\"",
                             pattern.c_str());
                    return false;
                }
                publisher.patterns.push_back(pattern);
                begin = end + 1;
            }
            std::erase_if(root.publishers, [&](const quor::PublisherRule& other) {
                return other.keyId == key->id();
            });
            addKey(root, *key);
            root.publishers.push_back(std::move(publisher));
        }
    }
    root.expires = quor::nowSeconds() + values["expires"].as<int>() * kDay;
    return true;
}

// Keeps only the keys some role or publisher names.
void dropUnusedKeys(quor::SourceRoot& root) {
    std::erase_if(root.keys, [&](const auto& item) {
        const std::string& id = item.first;
        auto in = [&](const quor::RoleKeys& role) {
            return std::find(role.keyIds.begin(), role.keyIds.end(), id) != role.keyIds.end();
        };
        bool publishes = false;
        for (const quor::PublisherRule& rule : root.publishers) publishes |= rule.keyId == id;
        return !in(root.root) && !in(root.timestamp) && !in(root.catalog) && !publishes;
    });
}

// Writes the draft of `root` and says who must sign it.
int writeDraft(const fs::path& dir, quor::SourceRoot root) {
    dropUnusedKeys(root);
    const fs::path draft = dir / (quor::rootFileName(root.version) + ".draft");
    const std::string text = quor::formatRoot(root);
    std::string why;
    if (!quor::readRoot(text, why)) return zpkError(1, "not a valid root: %s", why.c_str());
    if (!quor::writeFileAtomic(draft, text)) return zpkError(1, "cannot write %s", draft.c_str());
    std::printf(
        "%s: root %llu of %s, needs %d of its %zu root keys%s; each holder runs\n"
        "  zpk root sign %s KEY.key\n",
        draft.c_str(), static_cast<unsigned long long>(root.version), root.source.c_str(),
        root.root.threshold, root.root.keyIds.size(),
        root.version > 1 ? " and the threshold of the root before" : "", draft.c_str());
    return 0;
}

std::vector<quor::SigningKey> privateKeys(const po::variables_map& values, const char* option) {
    std::vector<quor::SigningKey> keys;
    if (!values.count(option)) return keys;
    for (const std::string& file : values[option].as<std::vector<std::string>>()) {
        std::optional<quor::SigningKey> key = zpkLoadKey(file.c_str());
        if (!key) return {};
        keys.push_back(std::move(*key));
    }
    return keys;
}

int sourceNew(int argc, char** argv) {
    CommandLine line{
        "source new DIR --id ID --root-key KEY.pub... [--threshold K] "
        "--timestamp-key KEY.pub --catalog-key KEY.pub [--publisher KEY.pub=NAMES]...",
        "Start a trusted package source in DIR: the draft of its first root, to be "
        "signed by its root keys\n(zpk root sign). Devices pin the published root by "
        "its sha256."};
    line.options.add_options()("id", po::value<std::string>()->required(),
                               "the source's own id, e.g. acme-stable");
    addRoleOptions(line);
    line.hidden.add_options()("dir", po::value<std::string>()->required());
    line.operands.add("dir", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const fs::path dir(line.values["dir"].as<std::string>());
    for (const char* needed : {"root-key", "timestamp-key", "catalog-key"})
        if (!line.values.count(needed)) return zpkError(2, "source new: --%s is required", needed);
    std::error_code ec;
    if (fs::exists(dir / quor::kNewestRootFile, ec) || fs::exists(dir / "1.root", ec))
        return zpkError(1, "%s already holds a root", dir.c_str());
    quor::SourceRoot root;
    root.source = line.values["id"].as<std::string>();
    if (!quor::isValidSourceId(root.source))
        return zpkError(2, "not a source id: \"%s\" (letters, digits and ._-)",
                        root.source.c_str());
    root.version = 1;
    root.root.threshold = 1;
    if (!applyRoles(line.values, root)) return 1;
    fs::create_directories(dir, ec);
    return writeDraft(dir, std::move(root));
}

int rootSign(int argc, char** argv) {
    CommandLine line{"root sign FILE KEY.key",
                     "Sign a root draft with one root key; once it has the signatures it needs it "
                     "is published\nas <N>.root and root in its folder."};
    line.hidden.add_options()("file", po::value<std::string>()->required())(
        "key", po::value<std::string>()->required());
    line.operands.add("file", 1).add("key", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const fs::path file(line.values["file"].as<std::string>());
    std::optional<quor::SigningKey> key = zpkLoadKey(line.values["key"].as<std::string>().c_str());
    if (!key) return 1;
    quor::RootProgress progress;
    std::string why;
    if (quor::signRoot(file, *key, progress, why) != 0)
        return zpkError(1, "%s: %s", file.c_str(), why.c_str());
    std::printf("%s: signed by key %s\n", file.c_str(), key->id().c_str());
    if (!progress.complete) return 0;
    const fs::path dir = file.parent_path().empty() ? fs::path(".") : file.parent_path();
    quor::SourceRoot root;
    if (quor::readPublishedRoot(dir, root, why) != 0) return zpkError(1, "%s", why.c_str());
    const fs::path published = dir / quor::rootFileName(root.version);
    std::printf("%s: root %llu of %s published\n", published.c_str(),
                static_cast<unsigned long long>(root.version), root.source.c_str());
    if (root.version == 1)
        std::printf("devices pin it in /etc/quorpkg/sources: quorserver <url> root=%s\n",
                    quor::dataSha256Hex(quor::readFile(published).value_or("")).c_str());
    else
        std::printf("devices take it from root %llu; run zpk timestamp to announce it\n",
                    static_cast<unsigned long long>(root.version - 1));
    return 0;
}

int rootNext(int argc, char** argv) {
    CommandLine line{
        "root next DIR [--root-key KEY.pub...] [--threshold K] "
        "[--timestamp-key KEY.pub] [--catalog-key KEY.pub] "
        "[--publisher KEY.pub=NAMES]... [--drop-publisher KEY.pub]...",
        "Draft the next root of the source in DIR: the newest root with the keys "
        "given in place of\nthose of their role. Rotating or revoking a key is "
        "publishing a root without it."};
    addRoleOptions(line);
    line.options.add_options()("drop-publisher", po::value<std::vector<std::string>>(),
                               "a publisher key (.pub) no longer allowed to sign anything");
    line.hidden.add_options()("dir", po::value<std::string>()->required());
    line.operands.add("dir", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const fs::path dir(line.values["dir"].as<std::string>());
    quor::SourceRoot root;
    std::string why;
    if (quor::readPublishedRoot(dir, root, why) != 0) return zpkError(1, "%s", why.c_str());
    root.version += 1;
    if (line.values.count("drop-publisher"))
        for (const std::string& file :
             line.values["drop-publisher"].as<std::vector<std::string>>()) {
            std::optional<quor::SigningKey> key = loadPublicKey(file);
            if (!key) return 1;
            std::erase_if(root.publishers,
                          [&](const quor::PublisherRule& rule) { return rule.keyId == key->id(); });
        }
    if (!applyRoles(line.values, root)) return 1;
    return writeDraft(dir, std::move(root));
}

void addReleaseKeys(CommandLine& line, bool catalog) {
    if (catalog)
        line.options.add_options()("catalog-key", po::value<std::vector<std::string>>()->required(),
                                   "the catalog key (.key); repeat for a threshold");
    line.options.add_options()("timestamp-key", po::value<std::vector<std::string>>()->required(),
                               "the timestamp key (.key); repeat for a threshold");
}

}  // namespace

int zpkSource(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "new") == 0) return sourceNew(argc - 1, argv + 1);
    return zpkError(2, "usage: zpk source new DIR --id ID ... (zpk source new --help)");
}

int zpkRoot(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "sign") == 0) return rootSign(argc - 1, argv + 1);
    if (argc >= 2 && std::strcmp(argv[1], "next") == 0) return rootNext(argc - 1, argv + 1);
    return zpkError(2, "usage: zpk root sign FILE KEY.key | zpk root next DIR ...");
}

int zpkRelease(int argc, char** argv) {
    CommandLine line{"release DIR --catalog-key KEY.key --timestamp-key KEY.key [--lang LANG]",
                     "Release the packages in DIR: a new catalog version with its seal (unless "
                     "nothing changed),\nthe plain catalog for unverified devices, then the "
                     "timestamp naming it, written last."};
    addReleaseKeys(line, true);
    line.options.add_options()("lang", po::value<std::string>()->default_value("enu"),
                               "the catalog's language")(
        "patches", po::value<int>()->default_value(3),
        "patches from this many earlier versions, for devices that keep one")(
        "catalog-days", po::value<int>()->default_value(90), "days until the catalog expires")(
        "timestamp-days", po::value<int>()->default_value(7), "days until the timestamp expires");
    line.hidden.add_options()("dir", po::value<std::string>()->required());
    line.operands.add("dir", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const fs::path dir(line.values["dir"].as<std::string>());
    quor::ReleaseOptions options;
    options.lang = line.values["lang"].as<std::string>();
    options.patches = std::max(0, line.values["patches"].as<int>());
    options.catalogKeys = privateKeys(line.values, "catalog-key");
    options.timestampKeys = privateKeys(line.values, "timestamp-key");
    if (options.catalogKeys.empty() || options.timestampKeys.empty()) return 1;
    options.now = quor::nowSeconds();
    options.catalogLifetime = line.values["catalog-days"].as<int>() * kDay;
    options.timestampLifetime = line.values["timestamp-days"].as<int>() * kDay;
    quor::ReleaseOutcome outcome;
    std::string why;
    if (quor::releaseCatalog(dir, options, outcome, why) != 0)
        return zpkError(1, "%s: %s", dir.c_str(), why.c_str());
    const fs::path catalog = dir / quor::catalogFileName(options.lang, outcome.catalogVersion);
    std::printf("%s: catalog %s version %llu%s\n", catalog.c_str(), options.lang.c_str(),
                static_cast<unsigned long long>(outcome.catalogVersion),
                outcome.newCatalog ? "" : " (unchanged)");
    std::printf("%s: version %llu, expires %s\n", (dir / quor::kTimestampFile).c_str(),
                static_cast<unsigned long long>(outcome.timestampVersion),
                quor::formatUtc(options.now + options.timestampLifetime).c_str());
    for (const std::string& warning : outcome.warnings)
        std::fprintf(stderr, "zpk: warning: %s\n", warning.c_str());
    return 0;
}

int zpkTimestamp(int argc, char** argv) {
    CommandLine line{"timestamp DIR --timestamp-key KEY.key [--days DAYS]",
                     "Sign a new timestamp for the source in DIR naming the same catalogs and "
                     "the newest root:\nrun it from cron well before the last one expires."};
    addReleaseKeys(line, false);
    line.options.add_options()("days", po::value<int>()->default_value(7),
                               "days until the timestamp expires");
    line.hidden.add_options()("dir", po::value<std::string>()->required());
    line.operands.add("dir", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const fs::path dir(line.values["dir"].as<std::string>());
    quor::ReleaseOptions options;
    options.timestampKeys = privateKeys(line.values, "timestamp-key");
    if (options.timestampKeys.empty()) return 1;
    options.now = quor::nowSeconds();
    options.timestampLifetime = line.values["days"].as<int>() * kDay;
    uint64_t version = 0;
    std::string why;
    if (quor::renewTimestamp(dir, options, version, why) != 0)
        return zpkError(1, "%s: %s", dir.c_str(), why.c_str());
    std::printf("%s: version %llu, expires %s\n", (dir / quor::kTimestampFile).c_str(),
                static_cast<unsigned long long>(version),
                quor::formatUtc(options.now + options.timestampLifetime).c_str());
    return 0;
}

int zpkPhase(int argc, char** argv) {
    CommandLine line{"phase DIR NAME VERSION PERCENT",
                     "Offer an upgrade to NAME VERSION to PERCENT of devices from the next "
                     "release on (0 halts\na rollout, 100 offers it to all); run zpk release "
                     "afterwards."};
    line.hidden.add_options()("dir", po::value<std::string>()->required())(
        "name", po::value<std::string>()->required())(
        "package-version", po::value<std::string>()->required())("percent",
                                                                 po::value<int>()->required());
    line.operands.add("dir", 1).add("name", 1).add("package-version", 1).add("percent", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const fs::path dir(line.values["dir"].as<std::string>());
    const std::string name = line.values["name"].as<std::string>();
    const std::string version = line.values["package-version"].as<std::string>();
    const int percent = line.values["percent"].as<int>();
    std::string why;
    if (quor::setPhase(dir, name, version, percent, why) != 0)
        return zpkError(1, "%s", why.c_str());
    std::printf("%s %s: offered to %d%% of devices from the next release\n", name.c_str(),
                version.c_str(), percent);
    return 0;
}
