// The usage text of quorpkg.
#pragma once

namespace quorpkg {

// Writes the usage text, naming the program `baseName`. Returns 1.
int printUsage(const char* baseName);

}  // namespace quorpkg
