#include "rehearse/inside.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fmt/format.h>
#include <fstream>

#include "app/config_upgrader.h"
#include "app/version.h"
#include "files/look.h"
#include "platform/thread.h"
#include "rehearse/backup.h"
#include "rehearse/change_table.h"
#include "rehearse/differences.h"
#include "rehearse/failure.h"
#include "rehearse/problems.h"
#include "rehearse/tree_watch.h"
#include "store/file_error.h"

namespace rehearse {
namespace {

using Clock = std::chrono::steady_clock;

const std::string workInside = std::string(scratchInside) + "/";

/// What a file got since it was asked the last time, at most so many bytes: a command may print
/// without end.
class Growth {
public:
    Growth(std::string path, std::size_t most) : path_(std::move(path)), most_(most) {}
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

/// The root that the run takes, below the tree and with a "/" at its end.
std::string RootBelowTree(const std::string& configRoot) {
    const char* set = std::getenv("ORIX_PATH");
    const std::string root = !configRoot.empty() ? configRoot
                             : set != nullptr    ? std::string(set) + "telephony"
                                                 : std::string("/etc/orix-conf/telephony");
    std::string real = files::RealPath(root);  // a link to the telephony directory is followed
    if (real.empty())
        real = root;
    return real.substr(std::min(real.size(), real.find_first_not_of('/'))) +
           (real.ends_with('/') ? "" : "/");
}

/// The directories of extensions and attendants, by the extension index in its old form or the new.
void AddExtensions(const std::string& root, std::set<std::string>& extensions) {
    static const std::set<std::string> others = {"default", "defatt", "system", "isdn", "e1t1"};
    try {
        Configuration::MultiSectionFile index("/" + root + "extensiondb");
        const auto add = [&](const std::string& name) {
            if (files::IsDirectoryName(name) && !others.contains(name) &&
                access(("/" + root + name).c_str(), F_OK) == 0)
                extensions.insert(name);
        };
        for (index.Restart(); index.GotoNextSection();) {
            add(index.SectionName());
            for (const Configuration::Entry& entry : index.SectionEntries())
                add(entry.value);
        }
    } catch (const Configuration::FileError&) {  // is among the problems
    }
}

/// The version that a tree is stamped with; empty when it is not.
std::string ReadStamp(const std::string& root) {
    try {
        Configuration::MultiSectionFile lineDb(root + "linedb");
        if (lineDb.GotoSection("general"))
            return lineDb.GetSectionEntry("current_version").value_or("");
    } catch (const Configuration::FileError&) {  // is among the problems
    }
    return {};
}

/// One rehearsal, from the first look to the result.
class Rehearsal {
public:
    explicit Rehearsal(const Inside& inside)
        : inside_(inside), root_(RootBelowTree(inside.configRoot)), watch_(treeInside) {}

    Json Hold() {
        const TreeState before = watch_.State();
        const std::string oldStamp = ReadStamp("/" + root_);
        AddExtensions(root_, extensions_);
        Say("upgrade");
        Upgrade();
        EndOfStep(inside_.runsBinary ? "" : "end");
        const TreeState after = watch_.State();
        AddExtensions(root_, extensions_);
        const std::string stamp = ReadStamp("/" + root_);
        if (inside_.keepsTree)
            CopyBackup(treeInside, upgradedInside, [] {});
        std::rename((workInside + "mend.log").c_str(), (workInside + "report").c_str());

        Say("next start");
        looksOn_ = false;
        Upgrade();
        watch_.Look();
        std::rename((workInside + "report").c_str(), (workInside + "mend.log").c_str());

        Say("explain");
        Json result = Explain(before, after);
        result["oldStamp"] = oldStamp;
        result["stamp"] = stamp;
        return result;
    }

private:
    struct Step {
        std::string name;
        double seconds;
        std::vector<FileChange> changes;
        std::string report;
        std::string printed;
    };

    void Say(const std::string& what) const {
        const std::string line = what + "\n";
        if (write(inside_.progress, line.data(), line.size()) < 0)
            return;  // nobody looks any more
    }

    void Upgrade() {
        begin_ = Clock::now();
        if (inside_.runsBinary) {
            RunBinary();
            return;
        }
        char name[] = "setupmend";
        std::string argument = inside_.configRoot;
        char* arguments[] = {name, argument.data(), nullptr};
        Thread::SetCommandLine(argument.empty() ? 1 : 2, arguments);
        Appliance appliance;
        ConfigUpgrader* running = nullptr;
        std::exception_ptr failure;  // ours, which the run must not take for its own
        if (looksOn_)
            appliance.afterStep = [&](const char* step) {
                try {
                    if (running->log)
                        running->log->Flush();
                    EndOfStep(step);
                } catch (...) {
                    failure = std::current_exception();
                }
            };
        {
            ConfigUpgrader upgrader(appliance);
            running = &upgrader;
            upgrader.Run();
        }
        if (failure)
            std::rethrow_exception(failure);
    }

    void RunBinary() const {
        const pid_t child = fork();
        if (child == 0) {
            char* const none = nullptr;
            execl(binaryInside, "setupmend",
                  inside_.configRoot.empty() ? none : inside_.configRoot.c_str(), none);
            _exit(126);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || WIFSIGNALED(status) ||
            (WIFEXITED(status) && WEXITSTATUS(status) == 126))
            throw Failure(WIFSIGNALED(status)
                              ? fmt::format("the program was killed by signal {}", WTERMSIG(status))
                              : "the program could not be run");
    }

    void EndOfStep(const std::string& name) {
        const auto seconds = std::chrono::duration<double>(Clock::now() - begin_).count();
        const TreeState before = watch_.State();
        watch_.Look();
        steps_.push_back(
            {name, seconds, Compare(before, watch_.State()), report_.Take(), printed_.Take()});
        Say(name);
        begin_ = Clock::now();  // looking is not the step's time
    }

    Json Explain(const TreeState& before, const TreeState& after) {
        Json result;
        Problems problems(before, after);
        ChangeTable changes;
        result["steps"] = Json::array();
        for (Step& step : steps_) {
            problems.Read(step.name, step.report, step.printed);
            if (!inside_.runsBinary && !(step.changes.empty() && step.report.empty()))
                result["steps"].push_back(Tell(step));
            changes.Add(step.name, std::move(step.changes));
        }
        changes.Write(result, extensions_);
        result["extensions"] = extensions_;
        result["net"] = WriteDifference(before, after);
        std::map<std::string, unsigned> next;
        result["next"] = Json::array();
        for (const FileChange& change : Compare(after, watch_.State())) {
            result["next"].push_back(change.path);
            ++next[Pattern(change.path, extensions_)];
        }
        for (const auto& [pattern, count] : next)
            problems.Add("next-start",
                         count == 1 ? pattern : fmt::format("{} ({} files)", pattern, count));
        AddLabels(problems, before);
        problems.Write(result);
        return result;
    }

    static void AddLabels(Problems& problems, const TreeState& before) {
        std::vector<std::string> versions;
        for (const char* place :
             {"etc/orix-conf/config_label.txt", "etc/default-conf/config_label.txt"}) {
            const auto label = before.find(place);
            if (label == before.end() || !label->second->content)
                return;
            const std::string& text = *label->second->content;
            if (!text.empty() && text.back() != '\n')
                problems.Add("label-end", fmt::format("/{} says \"{}\"", place, text), place);
            versions.push_back(text.substr(0, text.find('\n')));
        }
        if (IsOlderVersion(versions[1], versions[0]))
            problems.Add("downgrade", fmt::format("the configuration is of {}, the firmware of {}",
                                                  versions[0], versions[1]));
    }

    Json Tell(const Step& step) const {
        std::size_t added = 0;
        std::size_t removed = 0;
        for (const FileChange& change : step.changes) {
            added += change.before ? 0 : 1;
            removed += change.after ? 0 : 1;
        }
        std::string log = FoldReport(step.report, extensions_);
        if (!step.printed.empty())
            log += "\nprinted by commands:\n" + FoldReport(step.printed, extensions_);
        return {{"name", step.name},
                {"seconds", step.seconds},
                {"changed", step.changes.size() - added - removed},
                {"added", added},
                {"removed", removed},
                {"log", log}};
    }

    static Json WriteDifference(const TreeState& before, const TreeState& after) {
        std::ofstream file(workInside + "diff", std::ios::binary);
        std::size_t added = 0;
        std::size_t removed = 0;
        const std::vector<FileChange> changes = Compare(before, after);
        for (const FileChange& change : changes) {
            added += change.before ? 0 : 1;
            removed += change.after ? 0 : 1;
            file << UnifiedDifference(change);
        }
        return {
            {"changed", changes.size() - added - removed}, {"added", added}, {"removed", removed}};
    }

    const Inside& inside_;
    std::string root_;
    TreeWatch watch_;
    Clock::time_point begin_ = Clock::now();
    bool looksOn_ = true;
    std::set<std::string> extensions_;
    Growth report_{workInside + "mend.log", 64 << 20};
    Growth printed_{workInside + "console", 64 << 10};
    std::vector<Step> steps_;
};

}  // namespace

int RunInside(const Inside& inside) {
    std::signal(SIGPIPE, SIG_IGN);
    const Json result = Rehearsal(inside).Hold();
    std::ofstream file(workInside + "result.json", std::ios::binary);
    file << result.dump(-1, ' ', false, Json::error_handler_t::replace);
    file.close();
    if (!file)
        throw Failure("the result can't be written: " + std::string(std::strerror(errno)));
    return 0;
}

}  // namespace rehearse
