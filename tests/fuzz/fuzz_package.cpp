// Package-file reading and unpacking on any bytes: nothing crashes, and a
// file that is refused is refused before anything is written.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "quorpkg/package/package_file.h"

namespace fs = std::filesystem;

namespace {

fs::path workDir() {
    static const fs::path dir =
        fs::temp_directory_path() / ("quorpkg-fuzz-package-" + std::to_string(::getpid()));
    return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fs::path dir = workDir();
    fs::remove_all(dir);
    fs::create_directories(dir);
    const fs::path file = dir / "input.zpk";
    std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(data), size);

    quor::PackageFileHead head;
    if (quor::readPackageHead(file, head) == 0) {
        const fs::path out = dir / "out";
        quor::UnpackTargets targets{out / "payload", out / "scripts", out / "conf"};
        // Small, so that bombs end quickly.
        targets.spaceAllowance = 64 << 20;
        // Every check runs before the first write: a refusal (the disk
        // being large enough here) must come from the checking pass.
        if (quor::unpackPackage(file, head, targets) != 0 && fs::exists(out)) std::abort();
    }
    fs::remove_all(dir);
    return 0;
}
