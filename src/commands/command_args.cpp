#include <cstdio>

#include "commands.h"

namespace quorpkg {

bool badParameter(int argc, char** argv) {
    if (argc >= 2 && argv[1][0] != '\0') return false;
    std::printf("Bad parameter!\n");
    return true;
}

}  // namespace quorpkg
