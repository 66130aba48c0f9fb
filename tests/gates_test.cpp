// Every version gate, driven from a label just below it and from the gate itself.

#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "app/version.h"
#include "tests/support/steps.h"

namespace fs = std::filesystem;

namespace {

/// A line of tests/gates.txt.
struct Gate {
    std::string source;
    std::string version;
    std::string file;  // or "log"
    std::string text;
};

std::vector<Gate> ReadGates() {
    std::vector<Gate> gates;
    std::ifstream file(TEST_DATA "/gates.txt");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        Gate gate;
        if (words >> gate.source && gate.source != "#") {
            std::getline(words >> gate.version >> gate.file >> std::ws, gate.text);
            gates.push_back(gate);
        }
    }
    return gates;
}

const std::vector<Gate> gates = ReadGates();

/// A unit on which every gate has something to do.
class Gates : public Steps {
protected:
    Gates() {
        site.Upgrade();
        site.Write(site.appliance.factoryLabel, "99.0.0\n");  // above every gate
        // The dial plan as it is before a later step takes the factory's.
        site.appliance.runShell = [this](const std::string& command) {
            if (command.find("dialplan.cfg") != std::string::npos)
                Put("dialplan.seen", Get("dialplan.cfg"));
            return Site::RunShell(command);
        };
        site.appliance.voiceStorageSize = [](const std::string&) { return 400; };
        site.Unpack("gates.txt");
        fs::copy(site.Live(""), site.Path("prepared"),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    }
    /// Upgrades the prepared unit from a label; the versions whose gates it went through.
    void RunFrom(const std::string& label) {
        Remove("");
        fs::copy(site.Path("prepared"), site.Live(""),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        site.SetLiveVersion(label);
        log = site.Upgrade();
        ASSERT_TRUE(Holds(log, " is set in linedb\n")) << label;
    }
    bool HasOpened(const Gate& gate) const {
        const std::string text = Replaced(gate.text, "LIVE/", site.Live(""));
        return Holds(gate.file == "log" ? log : Get(gate.file), text);
    }
};

/// Whether the cases named as a source run a step from both sides of a gate: then it needs no row.
bool HasCases(const std::string& source, const std::string& version) {
    std::ifstream file(TEST_DATA "/cases/" + source + ".txt");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return Holds(text, " from " + version + "\n") && Holds(text, " from " + Below(version) + "\n");
}

}  // namespace

TEST_F(Gates, OpenBelowTheirVersionOnly) {
    std::set<std::string, decltype(&IsOlderVersion)> versions(IsOlderVersion);
    for (const Gate& gate : gates)
        versions.insert(gate.version);
    // A run from each version, and one from below all, drives every gate from both sides: between
    // two neighbours none opens.
    Names labels = {Below(*versions.begin())};
    labels.insert(labels.end(), versions.begin(), versions.end());
    for (auto label = labels.begin(); label != labels.end(); ++label) {
        RunFrom(*label);
        for (const Gate& gate : gates) {
            const bool isNext = label + 1 != labels.end() && gate.version == label[1];
            if (isNext || gate.version == *label) {
                EXPECT_EQ(HasOpened(gate), isNext) << gate.source << " " << gate.version << " from "
                                                   << *label << ": " << gate.text;
            }
        }
    }
}

TEST(GateTable, HasEveryVersionInTheSources) {
    std::set<std::pair<std::string, std::string>> listed;
    for (const Gate& gate : gates)
        listed.emplace(gate.source, gate.version);
    std::set<std::pair<std::string, std::string>> found;
    const Site site(Site::Content::Databases);
    const std::string root = SOURCES;
    for (const char* part : {"/app", "/steps"})
        for (const auto& entry : fs::recursive_directory_iterator(root + part)) {
            if (entry.path().extension() != ".cpp")
                continue;
            const std::string text = site.Read(entry.path());
            const std::regex version("\"([0-9]+\\.[0-9]+\\.[0-9]+)\"");
            for (std::sregex_iterator match(text.begin(), text.end(), version), end; match != end;
                 ++match)
                if (const std::string source = entry.path().stem();
                    listed.contains({source, (*match)[1]}) || !HasCases(source, (*match)[1]))
                    found.emplace(source, (*match)[1]);
        }
    EXPECT_EQ(found, listed);
}
