#include "rehearse/site/inside.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"
#include "rehearse/keep/keep_tree.h"
#include "rehearse/sandbox/backup.h"
#include "rehearse/sandbox/sandbox.h"
#include "rehearse/site/account.h"
#include "rehearse/site/restore.h"
#include "rehearse/site/trial.h"
#include "rehearse/watch/git_difference.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

std::string AtScratch(const std::string& name) {
    return std::string(scratchInside) + "/" + name;
}

/// One rehearsal, from the first look to the result.
class Rehearsal {
public:
    explicit Rehearsal(const Inside& inside)
        : inside_(inside),
          runner_(inside.configRoot, [this](const std::string& what) { Say(what); }) {}

    InsideResult Hold() {
        runs_.isOrdered = OrderTree(Order::Ascending);
        Say("upgrade");
        if (inside_.runsBinary) {
            runs_.watched = runner_.RunWatched(nullptr);
            SetReportAside("");
            RestoreTree(Order::Ascending);
            Say("the program");
            const Trial& watched = runs_.watched;
            runs_.shipped = runner_.RunBlind(true, watched.before, watched.after);
            runs_.shipped.CompareTrees(watched.context.extensions);
        } else {
            runs_.watched = runner_.RunWatched(nullptr);
        }
        const Trial& trial = runs_.Main();
        if (inside_.keepsTree)
            CopyBackup(treeInside, upgradedInside, [] {});
        if (inside_.makesDifference) {
            std::ofstream file(AtScratch("diff"), std::ios::binary);
            WriteGitDifference(Compare(*trial.before, *trial.after), file);
        }
        SetReportAside("report");

        Say("next start");
        runs_.next = inside_.runsBinary ? runner_.RunBlind(true, trial.after, trial.after)
                                        : runner_.RunWatched(trial.after);
        SetReportAside("");
        if (runs_.isOrdered) {
            Say("other order");
            runs_.isOrdered = RestoreTree(Order::Descending);
            runs_.other = runner_.RunBlind(inside_.runsBinary, trial.before, trial.after);
        }
        fs::rename(AtScratch("report"), AtScratch("mend.log"));

        Say("explain");
        const std::string key = ReadAll(AtScratch("key"));
        if (!key.empty())
            WriteFile(AtScratch("kept"), PackedTree(KeepTree(*trial.before, *trial.after,
                                                             *runs_.watched.ledger, key)));
        return Account(runs_, runner_, {inside_.explain, inside_.showsSecrets});
    }

private:
    void Say(const std::string& what) const {
        const std::string line = what + "\n";
        if (write(inside_.progress, line.data(), line.size()) < 0)
            return;  // nobody looks any more
    }

    /// Each run begins its report anew.
    static void SetReportAside(const std::string& name) {
        const std::string report = AtScratch("mend.log");
        if (!fs::exists(report))
            WriteFile(report, "");
        if (name.empty())
            fs::remove(report);
        else
            fs::rename(report, AtScratch(name));
    }

    const Inside& inside_;
    TrialRunner runner_;
    Runs runs_;
};

}  // namespace

std::vector<std::string> ArgumentsOf(const Inside& inside) {
    std::vector<std::string> arguments = {"--inside", std::to_string(progressInside)};
    if (inside.runsBinary)
        arguments.insert(arguments.end(), {"--binary", binaryInside});
    if (inside.keepsTree)
        arguments.insert(arguments.end(), {"--apply", upgradedInside});
    if (inside.makesDifference)
        arguments.insert(arguments.end(), {"--diff", AtScratch("diff")});
    if (inside.showsSecrets)
        arguments.emplace_back("--show-secrets");
    if (!inside.explain.empty())
        arguments.push_back("--explain=" + inside.explain);
    arguments.insert(arguments.end(), {"--", treeInside});
    if (!inside.configRoot.empty())
        arguments.push_back(inside.configRoot);
    return arguments;
}

int RunInside(const Inside& inside) {
    std::signal(SIGPIPE, SIG_IGN);
    InsideResult result = Rehearsal(inside).Hold();  // which lets go of the trees
    const std::vector<std::uint8_t> bytes = Json::to_msgpack(std::exchange(result, {}));
    WriteFile(AtScratch("result"), {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    return 0;
}

}  // namespace rehearse
