#include "rehearse/site/crashed.h"

#include <filesystem>
#include <fmt/format.h>

#include "app/version.h"
#include "rehearse/base/text_file.h"
#include "rehearse/ledger/secrets.h"
#include "rehearse/sandbox/backup.h"
#include "rehearse/site/trial.h"
#include "rehearse/watch/change_table.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

std::string VersionIn(const std::string& root, const std::string& place) {
    const std::string path = RealBelow(root, place);
    const Label label = path.empty() ? Label{} : ReadLabel(path);
    return label.IsUsable() ? *label.text : "";
}

/// Where the configuration root is below the copy, with a "/" at its end.
std::string BelowCopy(const std::string& root, const std::string& configRoot) {
    const std::string real = RealBelow(root, configRoot);
    return real.size() <= root.size() ? "" : real.substr(root.size() + 1) + "/";
}

}  // namespace

std::string ReportIn(const std::string& scratch) {
    const std::string aside = scratch + "/report";
    return ReadAll(fs::exists(aside) ? aside : scratch + "/mend.log");
}

void TellCrash(SiteResult& result, const Crashed& crashed) {
    Verdict& verdict = result.verdict;
    verdict.result = "crashed";
    verdict.exitStatus = KindOf("crashed").exitStatus;
    verdict.summary = fmt::format("Crashed: {} ({}).", crashed.why, crashed.where);
    verdict.stampReason = "the run did not come to its end";
    verdict.from = VersionIn(crashed.pristine, "etc/orix-conf/config_label.txt");
    verdict.to = VersionIn(crashed.pristine, "etc/default-conf/config_label.txt");

    const SharedTree before = LookAt(crashed.pristine, std::make_shared<const TreeState>());
    const SharedTree after = LookAt(crashed.root, before);
    Secrets secrets(crashed.showsSecrets);
    secrets.Learn(*before);
    secrets.Learn(*after);
    const std::string configRoot = BelowCopy(crashed.root, result.site.configRoot);
    Extensions extensions = ExtensionsIn(*before, configRoot);
    extensions.merge(ExtensionsIn(*after, configRoot));

    const std::vector<FileChange> changes = Compare(*before, *after);
    for (const FileChange& change : changes)
        ++(!change.before  ? verdict.files.added
           : !change.after ? verdict.files.removed
                           : verdict.files.changed);
    ChangeTable table;
    table.Add("", changes, extensions);
    result.steps = crashed.steps;
    result.extensions = {extensions.begin(), extensions.end()};
    result.files = table.Files();
    result.changes = table.Groups();
    for (EqualChanges& change : result.changes)
        for (std::string& line : change.lines)
            line = secrets.Line(line);
    result.report = secrets.Text(ReportIn(crashed.scratch));
    result.notes.emplace_back(
        "the report, the steps and the changes are those up to there; which step made which change "
        "is not known, nor what became of each setting");
}

}  // namespace rehearse
