// The process entry of quorpkg, kept apart from main() so that tests can run
// the whole tool in process.
#pragma once

namespace quorpkg {

// Runs one command: argv[0] is the invoked path, argv[1] the command word.
// Returns the process exit status.
int quorpkgMain(int argc, char** argv);

}  // namespace quorpkg
