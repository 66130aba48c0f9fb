#include "rehearse/site/trial.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fmt/format.h>
#include <fstream>

#include "app/config_root.h"
#include "app/config_upgrader.h"
#include "files/look.h"
#include "platform/thread.h"
#include "rehearse/base/child.h"
#include "rehearse/base/failure.h"
#include "rehearse/sandbox/sandbox.h"

namespace rehearse {
namespace {

using Clock = std::chrono::steady_clock;

std::string InScratch(const std::string& name) {
    return std::string(scratchInside) + "/" + name;
}

/// What a file got since it was asked the last time, at most so many bytes: a command may print
/// without end.
class Growth {
public:
    Growth(std::string path, std::size_t most) : path_(std::move(path)), most_(most) {
        struct stat info {};
        read_ = stat(path_.c_str(), &info) == 0 ? info.st_size : 0;
    }
    std::string Take() {
        std::ifstream file(path_, std::ios::binary | std::ios::ate);
        const std::streamoff grown = file ? static_cast<std::streamoff>(file.tellg()) - read_ : 0;
        if (grown <= 0)
            return {};
        file.seekg(read_);
        std::string text(std::min(most_, static_cast<std::size_t>(grown)), '\0');
        file.read(text.data(), static_cast<std::streamsize>(text.size()));
        text.resize(static_cast<std::size_t>(file.gcount()));
        read_ += file.gcount();
        if (text.size() == most_) {
            text += "\n... and more, which is left out\n";
            file.seekg(0, std::ios::end);
            read_ = file.tellg();
        }
        return text;
    }

private:
    std::string path_;
    std::size_t most_;
    std::streamoff read_ = 0;
};

/// A path of the appliance as the tree has it.
std::string BelowTree(const std::string& path) {
    return path.substr(std::min(path.size(), path.find_first_not_of('/')));
}

void SetArguments(const std::string& configRoot) {
    static char name[] = "setupmend";
    static std::string argument;  // the library keeps the pointers
    argument = configRoot;
    static char* arguments[3];
    arguments[0] = name;
    arguments[1] = argument.data();
    arguments[2] = nullptr;
    Thread::SetCommandLine(argument.empty() ? 1 : 2, arguments);
}

void Count(StepRecord& record, const std::vector<FileChange>& changes) {
    for (const FileChange& change : changes)
        ++(!change.before ? record.added : !change.after ? record.removed : record.changed);
}

/// Facts are of the step in which they are told, whose name is known at its end.
class FactKeeper {
public:
    explicit FactKeeper(std::string root) : root_(std::move(root)) {}

    void Keep(const Fact& fact) {
        std::string path(fact.path);
        const bool isPath = fact.kind != Fact::Kind::CommandFailed &&
                            fact.kind != Fact::Kind::Due && fact.kind != Fact::Kind::UpToDate;
        if (isPath && !path.empty()) {
            path = path.front() == '/' ? BelowTree(path) : root_ + path;
            while (path.ends_with('/'))
                path.pop_back();
        }
        facts_.push_back(
            {fact.kind, path, std::string(fact.reason), fact.line, fact.isMissing, ""});
    }
    void EndStep(const std::string& name) {
        for (; named_ < facts_.size(); ++named_)
            facts_[named_].step = name;
    }
    std::vector<KeptFact> Take() { return std::move(facts_); }

private:
    std::string root_;
    std::vector<KeptFact> facts_;
    std::size_t named_ = 0;
};

/// What the run knows by now, as the rows of the ledger ask for it.
RunContext ContextOf(const ConfigUpgrader& upgrader, const std::string& root, bool isChecked) {
    RunContext context;
    context.root = root;
    context.liveVersion = upgrader.liveVersion;
    context.targetVersion = upgrader.targetVersion;
    context.isDue = isChecked && !upgrader.upToDate;
    context.linesDir = upgrader.linesDir;
    context.language = upgrader.systemLanguage;
    context.attendant = upgrader.attendantExtension;
    for (const std::string& extension : upgrader.liveExtensions)
        context.extensions.insert(extension);
    for (const std::string& attendant : upgrader.liveAttendants)
        context.attendants.insert(attendant);
    if (!context.attendant.empty())
        context.attendants.insert(context.attendant);
    return context;
}

}  // namespace

Extensions ExtensionsIn(const TreeState& state, const std::string& root) {
    const auto index = state.find(root + "extensiondb");
    const SettingsFile file = ReadSettings(index == state.end() ? nullptr : index->second.get());
    Extensions extensions;
    const auto add = [&](const std::string& name) {
        const std::string directory = root + name + "/";
        const auto inside = state.lower_bound(directory);
        const bool isThere = inside != state.end() && inside->first.starts_with(directory);
        if (isThere && files::IsDirectoryName(name) &&
            std::find(std::begin(unitDirectories), std::end(unitDirectories), name) ==
                std::end(unitDirectories))
            extensions.insert(name);
    };
    for (const SettingsSection& section : file.sections) {
        add(section.name);
        for (const Setting& setting : section.settings)
            add(setting.value);
    }
    return extensions;
}

bool Trial::Has(Fact::Kind kind) const {
    return std::any_of(facts.begin(), facts.end(),
                       [&](const KeptFact& fact) { return fact.kind == kind; });
}

TrialRunner::TrialRunner(std::string configRoot, Say say)
    : configRoot_(std::move(configRoot)), say_(std::move(say)) {
    SetArguments(configRoot_);
    const std::string liveConf = Appliance().liveConf;
    const std::string named = FindConfigRoot(liveConf);
    std::string real = files::RealPath(named);  // a link to the telephony directory is followed
    if (real.empty())
        real = named;
    root_ = BelowTree(real) + (real.ends_with('/') ? "" : "/");
    const char* set = std::getenv("ORIX_PATH");
    stunFile_ = BelowTree((set != nullptr ? set : liveConf) + "stun.cfg");
}

void TrialRunner::RunLinked(const std::function<void(ConfigUpgrader&, const char*)>& afterStep,
                            const std::function<void(const Fact&)>& onFact) const {
    SetArguments(configRoot_);
    Appliance appliance;
    ConfigUpgrader* running = nullptr;
    std::exception_ptr failure;  // ours, which the run must not take for its own
    const auto guarded = [&](const auto& work) {
        try {
            if (!failure)
                work();
        } catch (...) {
            failure = std::current_exception();
        }
    };
    appliance.afterStep = [&](const char* step) {
        guarded([&] {
            if (running->log)
                running->log->Flush();
            afterStep(*running, step);
        });
    };
    const std::function<void(const Fact&)> keep = [&](const Fact& fact) {
        guarded([&] { onFact(fact); });
    };
    appliance.onFact = &keep;
    {
        ConfigUpgrader upgrader(appliance);
        running = &upgrader;
        upgrader.Run();
    }
    if (failure)
        std::rethrow_exception(failure);
}

Trial TrialRunner::RunWatched(const SharedTree& known) {
    Trial trial;
    TreeWatch watch(treeInside, known);
    trial.before = watch.State();
    trial.oldStamp = ReadStamp("/" + root_);
    Extensions directories = ExtensionsIn(*trial.before, root_);
    FactKeeper facts(root_);
    Growth report(InScratch("mend.log"), 64 << 20);
    Growth printed(InScratch("console"), 64 << 10);
    bool isChecked = false;
    auto begin = Clock::now();
    const auto endStep = [&](ConfigUpgrader& upgrader, const std::string& name) {
        const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        const SharedTree before = watch.State();
        const std::vector<FileChange> changes = watch.Look();
        facts.EndStep(name);
        isChecked = isChecked || name == "version check";
        trial.steps.push_back({name, seconds, 0, 0, 0, report.Take(), printed.Take()});
        Count(trial.steps.back(), changes);
        trial.context = ContextOf(upgrader, root_, isChecked);
        trial.context.stamp = trial.oldStamp;
        // What an interrupted upgrade left half done is put back before anything is accounted for.
        const bool isRecovery = name == "recovery";
        if (!trial.ledger)
            trial.ledger =
                std::make_unique<Ledger>(isRecovery ? watch.State() : before, root_, stunFile_);
        if (!isRecovery)
            trial.ledger->Enter(name, changes, watch.State(), trial.context);
        directories.insert(trial.context.extensions.begin(), trial.context.extensions.end());
        directories.insert(trial.context.attendants.begin(), trial.context.attendants.end());
        trial.changes.Add(name, changes, directories);
        const StepRecord& record = trial.steps.back();
        say_(fmt::format("{}\t{}\t{}\t{}", name, record.changed, record.added, record.removed));
        begin = Clock::now();  // looking is not the step's time
    };
    RunLinked(endStep, [&](const Fact& fact) { facts.Keep(fact); });
    watch.Look();
    trial.after = watch.State();
    trial.facts = facts.Take();
    trial.stamp = ReadStamp("/" + root_);
    if (!trial.ledger)
        trial.ledger = std::make_unique<Ledger>(trial.before, root_, stunFile_);
    return trial;
}

Trial TrialRunner::RunBlind(bool isProgram, const SharedTree& before, const SharedTree& known) {
    Trial trial;
    trial.before = before;
    trial.oldStamp = ReadStamp("/" + root_);
    Growth report(InScratch("mend.log"), 64 << 20);
    Growth printed(InScratch("console"), 64 << 10);
    const auto begin = Clock::now();
    if (isProgram)
        trial.crash = RunProgram();
    else
        RunLinked([&](ConfigUpgrader&, const char*) { say_("."); }, [](const Fact&) {});
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    trial.after = LookAt(treeInside, known);
    // The linked one's is that of the run that was watched.
    trial.steps.push_back({"", seconds, 0, 0, 0, isProgram ? report.Take() : "", printed.Take()});
    trial.stamp = ReadStamp("/" + root_);
    return trial;
}

void Trial::CompareTrees(const Extensions& extensions) {
    const std::vector<FileChange> difference = Compare(*before, *after);
    Count(steps.back(), difference);
    changes.Add("", difference, extensions);
}

/// Empty, or how it died.
std::string TrialRunner::RunProgram() const {
    ChildPlan plan;
    plan.words = {binaryInside};
    if (!configRoot_.empty())
        plan.words.push_back(configRoot_);
    const Ended ended = Child(plan).Wait([&] { say_("."); }, 20);
    if (ended.signal != 0)
        return fmt::format("the program was killed by signal {} ({})", ended.signal,
                           strsignal(ended.signal));
    return {};
}

}  // namespace rehearse
