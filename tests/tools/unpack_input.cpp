// unpack_input INPUT ROOT: puts the files of a text of tests/inputs into the appliance below ROOT.

#include <cstdio>
#include <exception>

#include "tests/support/input.h"

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    try {
        UnpackInput(argv[1], argv[2]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
