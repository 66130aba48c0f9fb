// Whole upgrades, compared file by file and line by line of the report with what is expected.
//
// tests/inputs holds the units that are upgraded: what stands there takes the place of the sample's
// live telephony tree, and the file set check adds the rest. It is written by hand, so that it is
// still the old layout when the program has changed. tests/expected holds what comes out: from the
// oldest layout the whole tree and the report, from the others what the upgrade changed. After a
// change that is meant to change them, UPDATE_EXPECTED=1 writes them anew; read the difference
// before committing it.

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>

#include "tests/support/steps.h"

namespace fs = std::filesystem;

namespace {

using Tree = std::map<std::string, std::string>;  // what Site::Snapshot gives

/// The changed lines of a text; a run of them is headed by the section that it begins in.
std::string ChangedLines(const Names& before, const Names& after) {
    // common[i][j]: how many lines the two have in common from i and j on.
    std::vector common(before.size() + 1, std::vector<int>(after.size() + 1));
    for (std::size_t i = before.size(); i-- > 0;)
        for (std::size_t j = after.size(); j-- > 0;)
            common[i][j] = before[i] == after[j] ? common[i + 1][j + 1] + 1
                                                 : std::max(common[i + 1][j], common[i][j + 1]);
    std::string text;
    std::string heading;
    for (std::size_t i = 0, j = 0; i < before.size() || j < after.size();) {
        std::string gone;
        std::string added;
        while (common[i][j] > 0 ? before[i] != after[j] : i < before.size() || j < after.size())
            if (i < before.size() && common[i + 1][j] == common[i][j])
                gone += before[i++] + "\n";
            else
                added += after[j++] + "\n";
        if (gone + added != "")
            text += std::exchange(heading, "");
        for (const std::string& line : Lines(Folded(gone)))
            text += "- " + line + "\n";
        for (const std::string& line : Lines(Folded(added)))
            text += "+ " + line + "\n";
        for (; i < before.size() && j < after.size() && before[i] == after[j]; ++i, ++j)
            if (before[i].starts_with("section") && !Holds(before[i], "="))
                heading = "@ " + before[i] + "\n";
    }
    return text;
}

/// Sorts the pieces between two lines, each once; a piece begins with a line that begins with
/// `start`.
void SortPieces(Names& lines, Names::iterator first, Names::iterator last,
                const std::string& start) {
    Names pieces;
    for (const std::string& line : Names(first, last))
        if (pieces.empty() || line.starts_with(start))
            pieces.push_back(line);
        else
            pieces.back() += "\n" + line;
    std::sort(pieces.begin(), pieces.end());
    const auto end = std::unique(pieces.begin(), pieces.end());
    lines.insert(lines.erase(first, last), pieces.begin(), end);
}

/// What lines begin with that come in runs; empty for others. A run is compared as one line.
std::string StartOfMany(const std::string& line) {
    for (const char* start : {"\tcreating/editing file: ", "\tAdding sections id ",
                              "\t- added entry ", "\tUpdate supservices_", "Update for extension "})
        if (line.starts_with(start))
            return start;
    return "";
}

/// The report without blank lines and without files of which it says nothing. Where the program
/// goes by the order of a directory, which is another on every disk, it is sorted: the lines of the
/// file set check, and the files it queued.
std::string ReportToCompare(const std::string& report) {
    Names lines;
    for (std::string line : Lines(report)) {
        line.erase(0, line.find_first_not_of(' '));
        if (line == "Done..." && lines.back().starts_with("=== /"))
            lines.pop_back();
        else if (const auto start = StartOfMany(line);
                 !lines.empty() && !start.empty() && lines.back().starts_with(start))
            lines.back() += " | " + line.substr(start.size());
        else if (!line.empty())
            lines.push_back(line);
    }
    const auto at = [&](const std::string& start) {
        return std::find_if(lines.begin(), lines.end(),
                            [&](const std::string& line) { return line.starts_with(start); });
    };
    SortPieces(lines, at("=== cfg files existence") + 1, at("=== linedb check"), "");
    SortPieces(lines, at("=== /"), at("Starting update e1t1"), "=== ");
    return Joined(lines);
}

class WholeRun : public Steps {
protected:
    WholeRun() {
        site.appliance.voiceStorageSize = [](const std::string&) { return 8'000'000; };
        site.appliance.runShell = Appliance().runShell;  // with the system's own cp
        const std::string& factory = site.appliance.factoryTelephony;
        for (const auto& entry : fs::recursive_directory_iterator(factory)) {
            const std::string name = entry.path().string().substr(factory.size());
            const bool isOfOtherUnits = Holds(name, "-lines/") && !name.starts_with("04-lines/");
            if (entry.is_regular_file() && !isOfOtherUnits)
                factoryFiles[name] = site.Read(entry.path());
        }
    }
    /// Puts a unit of that version in the place of the sample's: the files of the inputs, of which
    /// a later one replaces an earlier one's.
    void PutUnit(const std::string& version, const Names& inputs) const {
        Remove("");
        site.SetLiveVersion(version);
        for (const std::string& input : inputs)
            site.Unpack(input);
    }
    /// Of a file that is one of the factory's byte for byte, only that one's name. Of several it is
    /// the one whose path ends most like the file's.
    std::string Told(const std::string& path, const std::string& what) const {
        if (!what.starts_with(":"))
            return "==== " + path + what + "\n";
        const std::string text = what.substr(2);
        std::string found;
        std::ptrdiff_t alike = -1;
        for (const auto& [name, factoryText] : factoryFiles) {
            const auto end = std::mismatch(name.rbegin(), name.rend(), path.rbegin()).first;
            if (factoryText == text && end - name.rbegin() > alike) {
                found = name;
                alike = end - name.rbegin();
            }
        }
        if (!found.empty())
            return "==== " + path + " = factory " + found + "\n";
        const std::string folded = Folded(text);
        return "==== " + path + (Lines(folded).size() == 1 ? ": " : ":\n") + folded;
    }
    /// What an upgrade made, removed and changed.
    std::string Changes(const Tree& before, const Tree& after) const {
        Tree all = before;
        all.insert(after.begin(), after.end());
        std::string text;
        for (const auto& [path, what] : all)
            if (!after.contains(path))
                text += "==== " + path + " is gone\n";
            else if (!before.contains(path))
                text += Told(path, what);
            else if (what != after.at(path))
                text += "==== " + path + " is changed\n" +
                        ChangedLines(Lines(what), Lines(after.at(path)));
        return text;
    }
    /// Compares with a file of tests/expected, or writes it anew.
    void Expect(const std::string& name, const std::string& found) const {
        const std::string actual = Replaced(found, FactoryVersion(), "NEWEST");
        const std::string path = TEST_DATA "/expected/" + name;
        if (std::getenv("UPDATE_EXPECTED") != nullptr)
            std::ofstream(path, std::ios::binary) << actual;
        const std::string expected = site.Read(path);
        EXPECT_TRUE(expected == actual) << "against " << path << "\n"
                                        << ChangedLines(Lines(expected), Lines(actual));
    }
    /// Upgrades and compares, and upgrades again, which must change nothing.
    void ExpectChanges(const std::string& name) const {
        const Tree before = site.Snapshot();
        site.Upgrade();
        const Tree after = site.Snapshot();
        Expect(name, Changes(before, after));
        EXPECT_TRUE(Holds(site.Upgrade(), "\tConfigurarion already checked.\n"));
        EXPECT_EQ(Changes(after, site.Snapshot()), "");
    }

    std::map<std::string, std::string> factoryFiles;
};

}  // namespace

TEST_F(WholeRun, FromTheOldestLayout) {
    // Two factory directories lead to this one. Were it absent, it would depend on the order of the
    // directory which of them is copied whole, and so would the report.
    site.Write(site.Live("default/voicemaildb"), site.Read(site.Factory("default/voicemaildb")));
    const std::string report = site.Upgrade();
    std::string tree;
    for (const auto& [path, what] : site.Snapshot())
        tree += Told(path, what);
    Expect("from-2.2.0.txt", tree);
    Expect("from-2.2.0.log", ReportToCompare(Replaced(report, site.Path(""), "/")));
    const Names lines = Lines(report);  // what stands there many times is compared once
    const auto count = [&](const char* text) {
        return std::count_if(lines.begin(), lines.end(),
                             [&](const std::string& line) { return Holds(line, text); });
    };
    EXPECT_EQ(count("====entering..."), count("====exiting..."));
    const Tree before = site.Snapshot();
    EXPECT_TRUE(Holds(site.Upgrade(), "\tConfigurarion already checked.\n"));
    EXPECT_EQ(Changes(before, site.Snapshot()), "");
}

TEST_F(WholeRun, From301) {
    PutUnit("3.0.1", {"3.0.1.txt"});
    ExpectChanges("from-3.0.1.txt");
}

TEST_F(WholeRun, From410) {
    PutUnit("4.1.0", {"3.0.1.txt", "4.1.0.txt"});
    ExpectChanges("from-4.1.0.txt");
}

TEST_F(WholeRun, AnUpToDateUnitGetsMissingFilesAndItsHardwareAlone) {
    PutUnit(FactoryVersion(), {"3.0.1.txt", "4.1.0.txt"});
    const Tree before = site.Snapshot();
    EXPECT_TRUE(Holds(site.Upgrade(), "\tUp-to-date\n"));
    Expect("up-to-date.txt", Changes(before, site.Snapshot()));
}
