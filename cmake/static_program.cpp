// Takes from a C library what setupmend takes, to see whether it can be linked statically with
// definitions of ours in the place of its own.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

int main(int argc, char** argv) {
    try {
        if (argc > 1)
            throw std::runtime_error(std::string(argv[1]) + std::strerror(argc));
    } catch (const std::exception& error) {
        std::printf("%s\n", error.what());
    }
    return std::freopen("/dev/null", "r", stdin) == nullptr ? std::system("true") : 0;
}
