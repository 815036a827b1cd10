// The subcommands of zpk, the package author's tool. Each takes the
// arguments from its own word on (argv[0] is "build", "info", ...) and
// returns the exit status: 0 success, 1 failure, 2 bad usage.
#pragma once

#include <optional>
#include <vector>

#include "quorpkg/package/package_check.h"
#include "quorpkg/package/signing_key.h"

// zpk build DIR -o FILE.zpk [--zstd] [--sign KEY]: build.cpp
int zpkBuild(int argc, char** argv);
// zpk info FILE.zpk: info.cpp
int zpkInfo(int argc, char** argv);
// zpk index DIR [--sign KEY]: index.cpp, writes the package server's catalog for a folder
// of package files. Its row in the table of main.cpp comes with that file.
int zpkIndex(int argc, char** argv);

// zpk keygen NAME: sign.cpp, writes NAME.key (private, mode 0600) and
// NAME.pub (for devices).
int zpkKeygen(int argc, char** argv);
// zpk sign FILE.zpk KEY: sign.cpp, signs a package file in place.
int zpkSign(int argc, char** argv);

// The private key in `file`, or nothing after a message on standard error.
std::optional<quor::SigningKey> zpkLoadKey(const char* file);
// zpk check DIR|FILE.zpk: check.cpp
int zpkCheck(int argc, char** argv);
// The publisher's verbs of a trusted source: channel.cpp.
// zpk source new DIR ...: the draft of a new source's first root.
int zpkSource(int argc, char** argv);
// zpk root sign FILE KEY | zpk root next DIR ...: signing and rotating roots.
int zpkRoot(int argc, char** argv);
// zpk release DIR ...: a new catalog version and timestamp.
int zpkRelease(int argc, char** argv);
// zpk timestamp DIR ...: a re-signed timestamp, for cron.
int zpkTimestamp(int argc, char** argv);
// zpk phase DIR NAME VERSION PERCENT: channel.cpp, a staged rollout.
int zpkPhase(int argc, char** argv);
// zpk verify SOURCE --root SHA256: verify.cpp, a served source as devices see it.
int zpkVerify(int argc, char** argv);
// zpk contents FILE.zpk: contents.cpp
int zpkContents(int argc, char** argv);

// Prints every problem on standard error; returns the number of errors.
int reportProblems(const std::vector<quor::PackageProblem>& problems);

// Prints "zpk: <message>" to standard error and returns `status`.
int zpkError(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));
