// The subcommands of zpk, the package author's tool. Each takes the
// arguments from its own word on (argv[0] is "build", "info", ...) and
// returns the exit status: 0 success, 1 failure, 2 bad usage.
#pragma once

#include <vector>

#include "quorpkg/package/package_check.h"

// zpk build DIR -o FILE.zpk [--zstd]: build.cpp
int zpkBuild(int argc, char** argv);
// zpk info FILE.zpk: info.cpp
int zpkInfo(int argc, char** argv);
// zpk index DIR: index.cpp, writes the package server's catalog for a folder
// of package files. Its row in the table of main.cpp comes with that file.
int zpkIndex(int argc, char** argv);

// zpk check DIR|FILE.zpk: check.cpp
int zpkCheck(int argc, char** argv);
// zpk contents FILE.zpk: contents.cpp
int zpkContents(int argc, char** argv);

// Prints every problem on standard error; returns the number of errors.
int reportProblems(const std::vector<quor::PackageProblem>& problems);

// Prints "zpk: <message>" to standard error and returns `status`.
int zpkError(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));
