// The manifest parser on any bytes: it never crashes, the authors' check
// finds an error in whatever it refuses, and what it accepts formats into
// text that parses back to the same manifest.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "quorpkg/package/manifest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    quor::Manifest manifest;
    const bool accepted = quor::parseManifest(text, manifest) == 0;
    bool error = false;
    for (const quor::ManifestProblem& problem : quor::checkManifest(text))
        error = error || !problem.warning;
    if (!accepted && !error) std::abort();
    if (!accepted) return 0;
    const std::string formatted = quor::formatManifest(manifest);
    quor::Manifest again;
    if (quor::parseManifest(formatted, again) != 0) std::abort();
    if (quor::formatManifest(again) != formatted) std::abort();
    return 0;
}
