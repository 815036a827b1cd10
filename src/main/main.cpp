#include "entry.h"

int main(int argc, char** argv) {
    return quorpkg::quorpkgMain(argc, argv);
}
