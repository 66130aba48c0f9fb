// The ordinary cases of the steps: tests/cases/*.txt, a file for each subject. Each case is a test
// of its own, Cases/SUBJECT.TITLE, and fails at its own lines.
//
// A case is a unit that has only the files it names, the steps that are run, and what comes of it:
//
//   == Park extensions move into a section of their own
//   extensions 31 32
//   before 31/servicesdb: call_park_on=1
//   before extensiondb: section extension { ext_31=31 | ext_32=32 }
//   run call park from 3.1.24
//   after extensiondb
//       section extension { ext_32=32 }
//       section callpark { ext_31=31 }
//   log: Ext: 31
//
// Files are those of the live telephony directory, or of the unit when they begin with "/"; a link
// is "NAME -> TARGET". One that is named before and neither after nor as gone must stay as it is.
// The lines of a log stand one behind the other in the log of the run above; a whole-log has all of
// them. Neither blank lines nor blanks around a line count. LIVE/, FACTORY/ and UNIT/ stand for the
// places of this unit.
//
// A versioned step is run by its name in the order table, an earlier one by its operation's.
//
// There are also "factory NAME", a file of the factory; "FIELD VALUE" and "learns FIELD=VALUE",
// what the steps read and leave in a field of the upgrader (below); "storage INTERNAL USB", the
// sizes of the voice-mail storage; and "shell RESULT", which has no command run but gives that
// result, with "commands" for what would have run; and "refused", where the next start has to try
// again what the disk refused.

#include <algorithm>
#include <cctype>
#include <fstream>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "app/run.h"
#include "files/refusals.h"
#include "tests/support/steps.h"

namespace fs = std::filesystem;

namespace {

using Upgrader = ConfigUpgrader;

const std::map<std::string, void (Upgrader::*)()> steps = {
    {"CheckVoiceDataAndLinks", &Upgrader::CheckVoiceDataAndLinks},
    {"ConvertNatSettings", &Upgrader::ConvertNatSettings},
    {"ConvertSipSettings", &Upgrader::ConvertSipSettings},
    {"ProbeLineCounts", &Upgrader::ProbeLineCounts},
    {"SplitExtensionDatabase", &Upgrader::SplitExtensionDatabase},
    {"UpdateLineCounts", &Upgrader::UpdateLineCounts},
};

const VersionedStep& VersionedStepNamed(const std::string& name) {
    for (const VersionedStep& step : VersionedSteps())
        if (name == step.name)
            return step;
    throw std::runtime_error("no step is named " + name);
}

Names Words(const std::string& text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

/// A field of the upgrader as a text: a word, a number, 0 or 1, or the words of a list.
struct Field {
    std::function<std::string(const Upgrader&)> get;
    std::function<void(Upgrader&, const std::string&)> set;

    Field(std::string Upgrader::*field)
        : get([=](const Upgrader& u) { return u.*field; }),
          set([=](Upgrader& u, const std::string& text) { u.*field = text; }) {}
    template <class Number>
    Field(Number Upgrader::*field)
        : get([=](const Upgrader& u) { return std::to_string(u.*field); }),
          set([=](Upgrader& u, const std::string& text) {
              u.*field = static_cast<Number>(std::stoi(text));
          }) {}
    Field(NameList Upgrader::*list)
        : get([=](const Upgrader& u) {
              return Joined({(u.*list).begin(), (u.*list).end()});
          }),
          set([=](Upgrader& u, const std::string& text) { u.*list = Words(text); }) {}
};

const std::map<std::string, Field> fields = {
    {"attendants", &Upgrader::liveAttendants},
    {"defaultAttendants", &Upgrader::defaultAttendants},
    {"defaultExtensions", &Upgrader::defaultExtensions},
    {"extensions", &Upgrader::liveExtensions},
    {"linesDir", &Upgrader::linesDir},
    {"linesMismatch", &Upgrader::linesMismatch},
    {"liveVersion", &Upgrader::liveVersion},
    {"numFxo", &Upgrader::numFxo},
    {"numFxs", &Upgrader::numFxs},
    {"numIsdn", &Upgrader::numIsdn},
    {"routing", &Upgrader::routingExtensions},
    {"rtpMaxPort", &Upgrader::rtpMaxPort},
    {"rtpMinPort", &Upgrader::rtpMinPort},
    {"sipNatAgentIsTwo", &Upgrader::sipNatAgentIsTwo},
    {"sipTcpPort", &Upgrader::sipTcpPort},
    {"sipTimerProfile", &Upgrader::sipTimerProfile},
    {"sipTlsPort", &Upgrader::sipTlsPort},
    {"sipUdpPort", &Upgrader::sipUdpPort},
    {"storageType", &Upgrader::storageType},
    {"systemLanguage", &Upgrader::systemLanguage},
    {"targetVersion", &Upgrader::targetVersion},
    {"upToDate", &Upgrader::upToDate},
};

/// A line of a case, "before 31/servicesdb", with the lines that are indented below it.
struct Item {
    std::string key;
    std::string argument;
    std::string body;
    int line;
};

struct Case {
    std::string file;
    int line;
    std::string title;
    std::vector<Item> items;
};

std::pair<std::string, std::string> Split(const std::string& text, const std::string& separator) {
    const std::size_t at = text.find(separator);
    if (at == text.npos)
        return {text, ""};
    return {text.substr(0, at), text.substr(at + separator.size())};
}

/// What belongs to nothing is an item without a key, which only its own case stumbles over.
std::list<Case> ReadCases(const std::string& file) {
    std::list<Case> cases;
    std::ifstream stream(file);
    int number = 0;
    for (std::string line; std::getline(stream, line);) {
        ++number;
        if (line.empty() || line.starts_with("#"))
            continue;
        const bool isTitle = line.starts_with("== ");
        if (isTitle || cases.empty())
            cases.push_back(
                {file, number, isTitle ? line.substr(3) : "Before the first title", {}});
        std::vector<Item>& items = cases.back().items;
        if (isTitle)
            continue;
        if (line.starts_with("    ") && !items.empty()) {
            items.back().body += line.substr(4) + "\n";
        } else if (line.starts_with(" ") || cases.back().line == number) {
            items.push_back({"", line, "", number});
        } else {
            const auto [head, body] = Split(line, ": ");
            const auto [key, argument] = Split(head, " ");
            items.push_back({key, argument, body.empty() ? "" : body + "\n", number});
        }
    }
    return cases;
}

/// Its lines without the blanks around them, and without the blank ones.
std::string Stripped(const std::string& text) {
    return std::regex_replace("\n" + text + "\n", std::regex("[ \t]*\n[ \t\n]*"), "\n");
}

class CaseRun : public Steps {
public:
    explicit CaseRun(const Case& test)
        : Steps(Site::Content::Databases), test_(test), line_(test.line) {}

private:
    void TestBody() override {
        try {
            for (const Item& item : test_.items) {
                line_ = item.line;
                if (!Give(item) && !Expect(item))
                    throw std::runtime_error("not understood: " + item.key + " " + item.argument);
            }
            line_ = test_.line;
            if (upgrader == nullptr)
                throw std::runtime_error("nothing is run");
            for (const auto& [path, text] : unchanged)
                ExpectSame(path, site.Read(path), text);
        } catch (const std::exception& error) {
            Fail(std::string(error.what()) + " (map::at: an unknown step or field)");
        }
    }
    void Fail(const std::string& what) const { ADD_FAILURE_AT(test_.file.c_str(), line_) << what; }
    void ExpectSame(const std::string& name, const std::string& found,
                    const std::string& expected) const {
        if (found != expected)
            Fail(name + " is\n" + found + "instead of\n" + expected);
    }

    std::string Placed(std::string text) const {
        text = Replaced(text, "LIVE/", site.Live(""));
        text = Replaced(text, "FACTORY/", site.Factory(""));
        return Replaced(text, "UNIT/", site.Path(""));
    }
    std::string PathOf(const std::string& name) const {
        return name.starts_with("/") ? site.Path(name.substr(1)) : site.Live(name);
    }
    void Put(const std::string& path, const std::string& target, const std::string& body) {
        site.Write(path, Placed(Unfolded(body)));
        if (!target.empty()) {
            fs::remove(path);
            fs::create_symlink(Placed(target), path);
        }
        unchanged[path] = site.Read(path);
    }
    bool Give(const Item& item) {
        const auto& [key, argument, body, line] = item;
        const auto [name, target] = Split(argument, " -> ");
        if (key == "before")
            Put(PathOf(name), target, body);
        else if (key == "factory")
            Put(site.Factory(name), target, body);
        else if (!body.empty())
            return false;
        else if (fields.contains(key))
            given.emplace_back(key, argument);
        else if (key == "storage")  // its size, where it is internal and on USB
            site.appliance.voiceStorageSize = [this,
                                               sizes = Words(argument)](const std::string& path) {
                return std::stoull(sizes.at(path == site.appliance.usbVoiceData ? 1 : 0));
            };
        else if (key == "shell")
            site.appliance.runShell = [this,
                                       result = std::stoi(argument)](const std::string& command) {
                commands += command + "\n";
                return result;
            };
        else if (key == "run")
            RunStep(Split(argument, " from ").first, Split(argument, " from ").second);
        else
            return false;
        return true;
    }
    void RunStep(const std::string& step, const std::string& label) {
        if (label.empty())
            throw std::runtime_error("run " + step + " from which label?");
        ConfigUpgrader& unit = Open(label);
        watch.StartAnew();
        for (const auto& [field, value] : given)
            fields.at(field).set(unit, value);
        const auto [name, file] = Split(step, " ");
        if (name == "CheckConfigFile")
            unit.CheckConfigFile({site.Live(file), site.Factory(file)});
        else if (name == "CheckCallerDatabases")
            unit.CheckCallerDatabases(fs::path(site.Live(file)).parent_path(),
                                      fs::path(file).filename());
        else if (name == "CheckFileSet")
            unit.CheckFileSet(site.Live(""), site.Factory(""), false);
        else if (name == "CheckVersion")
            unit.upToDate = unit.CheckVersion();
        else if (name == "ProbeHardware")
            unit.ProbeHardware(file != "first");
        else if (const auto early = steps.find(name); early != steps.end())
            (unit.*early->second)();
        else
            VersionedStepNamed(step).run(unit);
        TakeLog();
    }
    bool Expect(const Item& item) {
        const auto& [key, argument, body, line] = item;
        const auto [name, target] = Split(argument, " -> ");
        if (upgrader == nullptr)
            return false;
        if (key == "log" && name.empty() && !body.empty()) {
            if (!Holds(Stripped(log), Stripped(Placed(body))))
                Fail("no such lines in\n" + log);
        } else if (key == "whole-log" && name.empty())
            ExpectSame(key, Stripped(log), Stripped(Placed(body)));
        else if (key == "commands" && name.empty())
            ExpectSame(key, commands, Placed(body));
        else if (key == "after" && !target.empty())
            ExpectSame(name, fs::read_symlink(PathOf(name)), Placed(target));
        else if (key == "after")
            ExpectSame(name, site.Read(PathOf(name)), Placed(Unfolded(body)));
        else if (key == "gone" && body.empty()) {
            if (site.Exists(PathOf(name)))
                Fail(name + " is still there");
        } else if (key == "refused" && name.empty() && body.empty()) {
            if (!watch.HasSeenOne())
                Fail("no refusal was noted");
        } else if (key == "learns" && body.empty()) {
            const auto [field, value] = Split(name, "=");
            ExpectSame(field, Joined(Words(fields.at(field).get(*upgrader))), Joined(Words(value)));
        } else
            return false;
        unchanged.erase(PathOf(name));
        return true;
    }

    const Case& test_;
    int line_;
    std::vector<std::pair<std::string, std::string>> given;
    std::map<std::string, std::string> unchanged;
    std::string commands;
    files::RefusalWatch watch;
};

/// Registers each case under its title, with what is no letter or digit as "_".
bool RegisterCases() {
    static std::list<Case> cases;  // for the tests to refer to
    for (const auto& entry : fs::directory_iterator(TEST_DATA "/cases"))
        if (entry.path().extension() == ".txt")
            cases.splice(cases.end(), ReadCases(entry.path()));
    cases.sort([](const Case& a, const Case& b) {
        return std::tie(a.file, a.line) < std::tie(b.file, b.line);
    });
    for (const Case& test : cases) {
        const std::string suite = "Cases/" + fs::path(test.file).stem().string();
        std::string name = test.title;
        std::replace_if(
            name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
        testing::RegisterTest(suite.c_str(), name.c_str(), nullptr, nullptr, test.file.c_str(),
                              test.line, [&test]() -> Steps* { return new CaseRun(test); });
    }
    if (cases.empty())
        throw std::runtime_error("no cases");
    return true;
}

[[maybe_unused]] const bool areRegistered = RegisterCases();

}  // namespace
