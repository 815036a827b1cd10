#include "quorpkg/store/failpoint.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

namespace quor {

void failpoint(const char* step) {
    const char* armed = std::getenv("QUOR_FAILPOINT");
    if (armed != nullptr && std::strcmp(armed, step) == 0) std::raise(SIGKILL);
}

}  // namespace quor
