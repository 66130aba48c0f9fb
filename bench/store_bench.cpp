// The store beside its floor: a thousand files opened, changed in two places and saved, against the
// same files read and written back. And how fast it takes a file apart.
//
// BENCH_DIRECTORY names the directory for the files; its file system is what is measured.

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "bench/floor.h"
#include "files/read.h"
#include "store/multi_section_file.h"

using Configuration::Document;
using Configuration::MultiSectionFile;

namespace {

constexpr int fileCount = 1000;
constexpr int entriesPerSection = 12;

std::string FileText(int sections) {
    std::string text = "# made for the benchmark\nlevel=3\n";
    for (int section = 0; section < sections; ++section) {
        text += "section line_" + std::to_string(section) + "\n{\n";
        for (int entry = 0; entry < entriesPerSection; ++entry)
            text += "some_setting_" + std::to_string(entry) + "=value " + std::to_string(section) +
                    "\n";
        text += "}\n";
    }
    return text;
}

/// The thousand files, of 12 KB each.
class Files : public benchmark::Fixture {
public:
    void SetUp(benchmark::State&) override {
        const char* base = std::getenv("BENCH_DIRECTORY");
        directory = std::string(base != nullptr ? base : "/tmp") + "/mend-bench";
        std::filesystem::create_directories(directory);
        const std::string text = FileText(40);
        for (int i = 0; i < fileCount; ++i)
            std::ofstream(Path(i), std::ios::binary) << text;
        sync();
    }
    void TearDown(benchmark::State&) override { std::filesystem::remove_all(directory); }
    std::string Path(int number) const { return directory + "/file" + std::to_string(number); }

    std::string directory;
};

BENCHMARK_DEFINE_F(Files, Floor)(benchmark::State& state) {
    for (auto _ : state)
        for (int i = 0; i < fileCount; ++i)
            if (!RewriteFile(directory, Path(i)))
                state.SkipWithError("a call failed");
}

BENCHMARK_DEFINE_F(Files, ChangeAndSave)(benchmark::State& state) {
    int round = 0;
    for (auto _ : state) {
        const std::string value = std::to_string(++round);
        for (int i = 0; i < fileCount; ++i) {
            MultiSectionFile file(Path(i));
            file.GotoSection("line_20");
            file.SetSectionEntry("some_setting_6", value);
            file.AddSectionEntry("new_" + value, value);
            if (!file.Save(true, nullptr))
                state.SkipWithError("a save failed");
        }
    }
}

BENCHMARK_DEFINE_F(Files, ReadOnly)(benchmark::State& state) {
    for (auto _ : state)
        for (int i = 0; i < fileCount; ++i)
            benchmark::DoNotOptimize(files::ReadFile(Path(i)));
}

// Saves of one round age the disk for the next: few rounds, often, and in turn.
BENCHMARK_REGISTER_F(Files, Floor)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_REGISTER_F(Files, ChangeAndSave)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_REGISTER_F(Files, ReadOnly)->Unit(benchmark::kMillisecond);

void ParseAndPrint(benchmark::State& state) {
    const std::string text = FileText(static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(Document(text, Document::Layout::Sectioned, "").Text());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(ParseAndPrint)->Arg(40)->Arg(400)->Arg(4000)->Complexity();

}  // namespace

BENCHMARK_MAIN();
