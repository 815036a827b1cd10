// zpk: builds and inspects package files (.zpk).
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "options.h"

namespace {

struct Command {
    const char* name;
    int (*run)(int, char**);
    const char* usage;
};

const Command kCommands[] = {
    {"build", zpkBuild,
     "build DIR -o FILE.zpk [--zstd] [--sign KEY]\n"
     "                                   build a package file from a source folder"},
    {"info", zpkInfo,
     "info FILE.zpk                    print a package file's manifest and members"},
    {"index", zpkIndex,
     "index DIR [--sign KEY]           write the package server catalog of a folder"},
    {"keygen", zpkKeygen,
     "keygen NAME                      make a signing key pair: NAME.key and NAME.pub"},
    {"sign", zpkSign, "sign FILE.zpk KEY                sign a package file with a private key"},
    {"check", zpkCheck,
     "check DIR|FILE.zpk               report every problem of a package source or file"},
    {"contents", zpkContents,
     "contents FILE.zpk                list the files of a package file's payload"},
    {"source", zpkSource,
     "source new DIR --id ID ...       start a trusted source: the draft of its first root"},
    {"root", zpkRoot,
     "root sign FILE KEY | root next DIR ...\n"
     "                                   sign a root draft; draft the next root (rotation)"},
    {"release", zpkRelease,
     "release DIR --catalog-key KEY --timestamp-key KEY\n"
     "                                   publish the packages in DIR as a new catalog version"},
    {"timestamp", zpkTimestamp,
     "timestamp DIR --timestamp-key KEY\n"
     "                                   re-sign the source's timestamp (from cron)"},
    {"phase", zpkPhase,
     "phase DIR NAME VERSION PERCENT  offer an upgrade to a share of devices (staged rollout)"},
    {"verify", zpkVerify,
     "verify SOURCE --root SHA256      check a served source as a device walks it"},
};

int usage(FILE* out) {
    std::fprintf(out, "usage: zpk <command> [...]\n");
    for (const Command& command : kCommands) std::fprintf(out, "  zpk %s\n", command.usage);
    std::fprintf(
        out, "'zpk <command> --help' describes a command; 'zpk --version' prints the version.\n");
    return out == stdout ? 0 : 2;
}

}  // namespace

int zpkError(int status, const char* format, ...) {
    std::fputs("zpk: ", stderr);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
    return status;
}

int main(int argc, char** argv) {
    if (argc < 2) return usage(stderr);
    if (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)
        return usage(stdout);
    if (std::strcmp(argv[1], "--version") == 0) return printVersion();
    for (const Command& command : kCommands)
        if (std::strcmp(argv[1], command.name) == 0) return command.run(argc - 1, argv + 1);
    zpkError(2, "unknown command: %s", argv[1]);
    return usage(stderr);
}
