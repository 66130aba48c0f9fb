#include "tests/support/input.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "tests/support/text.h"

namespace fs = std::filesystem;

namespace {

std::string ReadAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error(path + " cannot be read");
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

void UnpackInput(const std::string& input, const std::string& root) {
    const std::string factory = root + "/etc/default-conf/telephony/";
    std::ofstream file;
    for (std::string line : Lines(ReadAll(input))) {
        if (line.starts_with("==== ")) {
            const std::size_t end = line.find_first_of(" :", 5);
            const std::size_t text = line.find(": ");
            const std::size_t name = line.find(" = factory ");
            const std::string path = root + line.substr(5, end - 5);
            fs::create_directories(fs::path(path).parent_path());
            file = std::ofstream(path, std::ios::binary | std::ios::trunc);
            if (name != line.npos)
                file << ReadAll(factory + line.substr(name + 11));
            if (text == line.npos)
                continue;
            line.erase(0, text + 2);
        }
        file << Unfolded(line + "\n");
        if (!file.flush())
            throw std::runtime_error(input + ": cannot be unpacked");
    }
}
