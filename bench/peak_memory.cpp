// peak_memory FILE: changes a file of sections and saves it, and prints the program's peak memory
// before and after in KB, and the file's size.

#include <sys/resource.h>

#include <cstdio>
#include <filesystem>

#include "store/multi_section_file.h"

namespace {

long PeakKilobytes() {
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    const long before = PeakKilobytes();
    bool saved = false;
    {
        Configuration::MultiSectionFile file(argv[1]);
        file.Restart();
        file.GotoNextSection();
        file.SetSectionEntry("some_setting_6", "changed");
        file.AddSectionEntry("another", "added");
        saved = file.Save(true, nullptr) != 0;
    }
    std::printf("%ld %ld %lu\n", before, PeakKilobytes(),
                static_cast<unsigned long>(std::filesystem::file_size(argv[1]) / 1024));
    return saved ? 0 : 1;
}
