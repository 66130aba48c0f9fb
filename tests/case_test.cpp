// The ordinary cases of the steps: tests/cases/*.txt, a file for each subject.
//
// A case is a unit that has only the files it names, the steps that are run, and what comes of it:
//
//   == Park extensions move into a section of their own
//   extensions 31 32
//   before 31/servicesdb: call_park_on=1
//   before extensiondb: section extension { ext_31=31 | ext_32=32 }
//   run UpdateCallPark from 3.1.24
//   after extensiondb
//       section extension { ext_32=32 }
//       section callpark { ext_31=31 }
//   log: Ext: 31
//
// Files are those of the live telephony directory, or of the unit when they begin with "/". One
// that is named before and neither after nor as gone must stay as it is. The lines of a log stand
// in the log one behind the other; a whole-log has all of them. Neither blank lines nor blanks
// around a line count. LIVE/, FACTORY/ and UNIT/ stand for the places of this unit.

#include <functional>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>

#include "tests/support/steps.h"

namespace fs = std::filesystem;

namespace {

using Upgrader = ConfigUpgrader;

const std::map<std::string, void (Upgrader::*)()> steps = {
    {"CheckLineDatabase", &Upgrader::CheckLineDatabase},
    {"CheckVoiceDataAndLinks", &Upgrader::CheckVoiceDataAndLinks},
    {"ConvertNatSettings", &Upgrader::ConvertNatSettings},
    {"ConvertSipSettings", &Upgrader::ConvertSipSettings},
    {"MapIsdnFiles", &Upgrader::MapIsdnFiles},
    {"MergeSupplementaryServices", &Upgrader::MergeSupplementaryServices},
    {"MigrateVoicemail", &Upgrader::MigrateVoicemail},
    {"ProcessMergeList", &Upgrader::ProcessMergeList},
    {"RestrictAttendants", &Upgrader::RestrictAttendants},
    {"SplitExtensionDatabase", &Upgrader::SplitExtensionDatabase},
    {"UpdateCallPark", &Upgrader::UpdateCallPark},
    {"UpdateDialPlan", &Upgrader::UpdateDialPlan},
    {"UpdateEchoDelay", &Upgrader::UpdateEchoDelay},
    {"UpdateExtensionLength", &Upgrader::UpdateExtensionLength},
    {"UpdateFxoPrefix", &Upgrader::UpdateFxoPrefix},
    {"UpdateGroupListDB", &Upgrader::UpdateGroupListDB},
    {"UpdateLocalRouteDB", &Upgrader::UpdateLocalRouteDB},
    {"UpdateRtpPortRanges", &Upgrader::UpdateRtpPortRanges},
    {"UpdateStunFile", &Upgrader::UpdateStunFile},
    {"UpdateSystemExtension", &Upgrader::UpdateSystemExtension},
};

/// What a step reads and learns beside the files.
const std::map<std::string, std::string Upgrader::*> fields = {
    {"rtpMaxPort", &Upgrader::rtpMaxPort},   {"rtpMinPort", &Upgrader::rtpMinPort},
    {"sipTcpPort", &Upgrader::sipTcpPort},   {"sipTimerProfile", &Upgrader::sipTimerProfile},
    {"sipTlsPort", &Upgrader::sipTlsPort},   {"sipUdpPort", &Upgrader::sipUdpPort},
    {"storageType", &Upgrader::storageType}, {"systemLanguage", &Upgrader::systemLanguage},
};

/// A line of a case, "before 31/servicesdb", with the lines that are indented below it.
struct Item {
    std::string key;
    std::string argument;
    std::string body;
};

struct Case {
    std::string title;
    std::vector<Item> items;
};

std::pair<std::string, std::string> Split(const std::string& text, const std::string& separator) {
    const std::size_t at = text.find(separator);
    if (at == text.npos)
        return {text, ""};
    return {text.substr(0, at), text.substr(at + separator.size())};
}

/// "before 31/servicesdb", or "before 31/servicesdb: " with the text itself.
Item ReadItem(const std::string& line) {
    const auto [head, text] = Split(line, ": ");
    const auto [key, argument] = Split(head, " ");
    return {key, argument, text.empty() ? "" : text + "\n"};
}

std::vector<Case> ReadCases(const std::string& text) {
    std::vector<Case> cases;
    for (const std::string& line : Lines(text)) {
        if (line.empty() || line.starts_with("#"))
            continue;
        if (line.starts_with("== "))
            cases.push_back({line.substr(3), {}});
        else if (cases.empty())
            throw std::runtime_error("a line before the first case: " + line);
        else if (!line.starts_with("    "))
            cases.back().items.push_back(ReadItem(line));
        else if (cases.back().items.empty())
            throw std::runtime_error("a line that belongs to nothing: " + line);
        else
            cases.back().items.back().body += line.substr(4) + "\n";
    }
    return cases;
}

/// Its lines without the blanks around them, and without the blank ones.
std::string Stripped(const std::string& text) {
    std::string stripped = "\n";
    for (const std::string& line : Lines(text)) {
        const std::size_t begin = line.find_first_not_of(" \t");
        if (begin != line.npos)
            stripped += line.substr(begin, line.find_last_not_of(" \t") + 1 - begin) + "\n";
    }
    return stripped;
}

class CaseRun : public Steps {
public:
    explicit CaseRun(const Case& test) : Steps(Site::Content::Nothing) {
        for (const std::string& name : {site.Live(""), site.Factory("04-lines/")})
            for (const char* database : {"linedb", "extensiondb"})
                site.Write(name + database, "");
        for (const Item& item : test.items)
            if (!GiveList(item) && !Give(item) && !RunStep(item) && !Expect(item))
                throw std::runtime_error("not understood: " + item.key + " " + item.argument);
        if (upgrader == nullptr)
            throw std::runtime_error("nothing is run");
        for (const auto& [path, text] : unchanged)
            EXPECT_EQ(site.Read(path), text) << path;
    }

private:
    void TestBody() override {}

    std::string Placed(std::string text) const {
        text = Replaced(text, "LIVE/", site.Live(""));
        text = Replaced(text, "FACTORY/", site.Factory(""));
        return Replaced(text, "UNIT/", site.Path(""));
    }
    std::string PathOf(const std::string& name) const {
        return name.starts_with("/") ? site.Path(name.substr(1)) : site.Live(name);
    }
    /// "31/servicesdb" for a file, "31/servicesdb -> ../x" for a link.
    void Put(const std::string& path, const Item& item) {
        const std::string target = Split(item.argument, " -> ").second;
        site.Write(path, Placed(Unfolded(item.body)));
        if (!target.empty()) {
            fs::remove(path);
            fs::create_symlink(Placed(target), path);
        }
        unchanged[path] = site.Read(path);
    }
    bool GiveList(const Item& item) {
        const std::pair<const char*, Names*> lists[] = {
            {"extensions", &extensions}, {"attendants", &attendants}, {"routing", &routing}};
        for (const auto& [key, list] : lists)
            if (item.key == key && item.body.empty()) {
                std::istringstream words(item.argument);
                *list = {std::istream_iterator<std::string>(words), {}};
                return true;
            }
        return false;
    }
    bool Give(const Item& item) {
        const auto& [key, argument, body] = item;
        if (key == "before")
            Put(PathOf(Split(argument, " -> ").first), item);
        else if (key == "factory")
            Put(site.Factory(Split(argument, " -> ").first), item);
        else if (key == "with" && body.empty())
            with[Split(argument, "=").first] = Split(argument, "=").second;
        else if (key == "shell" && body.empty())
            site.appliance.runShell = [this,
                                       result = std::stoi(argument)](const std::string& command) {
                commands += command + "\n";
                return result;
            };
        else
            return false;
        return true;
    }
    bool RunStep(const Item& item) {
        const auto [what, label] = Split(item.argument, " from ");
        if (item.key != "run" || !item.body.empty() || label.empty())
            return false;
        ConfigUpgrader& unit = Open(label);
        for (const auto& [field, value] : with)
            if (field == "numFxo")
                unit.numFxo = std::stoi(value);
            else if (field == "sipNatAgentIsTwo")
                unit.sipNatAgentIsTwo = value == "1";
            else
                unit.*fields.at(field) = value;
        const auto [step, file] = Split(what, " ");
        if (step == "CheckConfigFile")
            unit.CheckConfigFile({site.Live(file), site.Factory(file)});
        else if (step == "CheckCallerDatabases")
            unit.CheckCallerDatabases(fs::path(site.Live(file)).parent_path(),
                                      fs::path(file).filename());
        else if (step == "CheckLineSections")
            unit.CheckLineSections(*unit.lineDb, *unit.defaultLineDb);
        else
            (unit.*steps.at(step))();
        TakeLog();
        return true;
    }
    bool Expect(const Item& item) {
        const auto& [key, argument, body] = item;
        const auto [name, target] = Split(argument, " -> ");
        if (upgrader == nullptr)
            return false;
        if (key == "log" && !body.empty())
            EXPECT_TRUE(Holds(Stripped(log), Stripped(Placed(body)))) << body << "in" << log;
        else if (key == "whole-log")
            EXPECT_EQ(Stripped(log), Stripped(Placed(body)));
        else if (key == "commands")
            EXPECT_EQ(commands, Placed(body));
        else if (key == "after" && !target.empty())
            EXPECT_EQ(fs::read_symlink(PathOf(name)), Placed(target));
        else if (key == "after")
            EXPECT_EQ(site.Read(PathOf(name)), Placed(Unfolded(body))) << name;
        else if (key == "gone" && body.empty())
            EXPECT_FALSE(site.Exists(PathOf(name))) << name;
        else if (key == "learns" && name.starts_with("sipNatAgentIsTwo="))
            EXPECT_EQ(upgrader->sipNatAgentIsTwo, name.ends_with("1"));
        else if (key == "learns" && body.empty())
            EXPECT_EQ((*upgrader).*fields.at(Split(name, "=").first), Split(name, "=").second);
        else
            return false;
        unchanged.erase(PathOf(name));
        return true;
    }

    std::map<std::string, std::string> with;
    std::map<std::string, std::string> unchanged;
    std::string commands;
};

}  // namespace

TEST(Cases, AreAsTheySay) {
    for (const auto& entry : fs::directory_iterator(TEST_DATA "/cases")) {
        const Site site(Site::Content::Nothing);
        try {
            for (const Case& test : ReadCases(site.Read(entry.path()))) {
                SCOPED_TRACE(entry.path().filename().string() + ": " + test.title);
                try {
                    const CaseRun run(test);
                } catch (const std::exception& error) {
                    ADD_FAILURE() << error.what();
                }
            }
        } catch (const std::exception& error) {
            ADD_FAILURE() << entry.path() << ": " << error.what();
        }
    }
}
