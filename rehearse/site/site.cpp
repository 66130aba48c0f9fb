#include "rehearse/site/site.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "app/version.h"
#include "recovery/recovery_copy.h"
#include "rehearse/base/digest.h"
#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"
#include "rehearse/keep/kept.h"
#include "rehearse/page/page.h"
#include "rehearse/sandbox/backup.h"
#include "rehearse/sandbox/firmware.h"
#include "rehearse/sandbox/sandbox.h"
#include "rehearse/site/crashed.h"
#include "rehearse/site/inside.h"
#include "rehearse/site/own_settings.h"
#include "rehearse/verdict/outcome.h"
#include "rehearse/waivers/waivers.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

std::string RootOf(const Request& request) {
    if (!request.configRoot.empty())
        return request.configRoot;
    return (request.orixPath.empty() ? "/etc/orix-conf/" : request.orixPath) + "telephony";
}

/// A directory of the copy with a linedb in it, as the appliance would name it.
std::string FindTelephony(const std::string& root) {
    std::error_code error;
    for (auto entry = fs::recursive_directory_iterator(
             root, fs::directory_options::skip_permission_denied, error);
         entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        if (error)
            break;
        if (entry->path().filename() == "default-conf")
            entry.disable_recursion_pending();
        else if (entry->path().filename() == "linedb")
            return entry->path().parent_path().string().substr(root.size());
    }
    return {};
}

void RequireTelephony(const Request& request, const std::string& root) {
    const std::string configRoot = RootOf(request);
    if (!configRoot.starts_with('/'))
        throw Failure("a configuration root is a path from the appliance's root: /" + configRoot);
    const std::string real = RealBelow(root, configRoot);
    if (IsHidden(real.empty() ? configRoot : real.substr(root.size())))
        throw Failure("a rehearsal has something of its own in the place of " + configRoot +
                      "; move it elsewhere in TREE, and give that as CONFIG_ROOT");
    // A copy that a run left may be all that there is of it.
    if (!real.empty() || !RealBelow(root, configRoot + files::recoverySuffix).empty())
        return;
    const std::string found = FindTelephony(root);
    throw Failure(
        request.tree + " has no " + configRoot.substr(configRoot.find_first_not_of('/')) +
        ": the live configuration is missing" +
        (found.empty() ? "" : "; there is a linedb in " + found + ", give that as CONFIG_ROOT"));
}

void RequireBinary(const std::string& binary) {
    if (binary.empty())
        return;
    if (!fs::is_regular_file(binary))
        throw Failure("no such program: " + binary);
    if (access(binary.c_str(), X_OK) != 0)
        throw Failure("not executable: " + binary);
}

/// Finds out before the run whether a file can be written; what was not there stays so.
void RequireWritable(const std::string& path) {
    const bool isThere = access(path.c_str(), F_OK) == 0;
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
    if (file < 0)
        throw Failure("cannot write " + path + ": " + std::strerror(errno));
    close(file);
    if (!isThere)
        unlink(path.c_str());
}

/// Nothing that is written may be TREE or lie within it, which is never changed, and no two outputs
/// may be one. OUT must be new or empty.
void RequireOutputs(const Request& request) {
    std::error_code error;
    const fs::path tree =
        fs::weakly_canonical(request.tree, error);  // one that is none is told later
    std::set<fs::path> known;
    for (const std::string* output :
         {&request.apply, &request.report, &request.diff, &request.json, &request.html}) {
        if (output->empty() || (output == &request.json && *output == "-"))
            continue;
        const fs::path path = fs::weakly_canonical(*output);
        if (!error && (path.string() + "/").starts_with(tree.string() + "/"))
            throw Misuse(*output + " lies inside TREE, which must not change");
        if (fs::is_other(path))
            continue;  // a terminal or /dev/null takes everything
        if (!known.insert(path).second)
            throw Misuse("two outputs have one name: " + *output);
        if (output != &request.apply)
            RequireWritable(*output);
    }
    if (request.apply.empty())
        return;
    if (fs::exists(fs::symlink_status(request.apply)) &&
        !(fs::is_directory(request.apply) && fs::is_empty(request.apply)))
        throw Misuse("OUT is not empty: " + request.apply);
    const fs::path above = fs::weakly_canonical(fs::absolute(request.apply)).parent_path();
    if (access(above.c_str(), W_OK) != 0)
        throw Failure("cannot write " + request.apply + ": " + std::strerror(errno));
}

void HandOver(const Request& request, const std::string& root, const std::string& scratch) {
    const std::string log = ReadAll(scratch + "/mend.log");
    if (!request.report.empty())
        WriteFile(request.report, log);
    if (!request.diff.empty())
        WriteFile(request.diff, ReadAll(scratch + "/diff"));
    if (request.apply.empty())
        return;
    fs::remove_all(request.apply);
    CopyBackup(scratch + "/upgraded", request.apply, [] {});
    // The place of the sandbox's own links was still there when the copy was made.
    const std::string alternatives = RealBelow(request.apply, "etc/alternatives");
    if (!alternatives.empty() && RealBelow(root, "etc/alternatives").empty())
        fs::remove(alternatives);
    fs::remove_all(request.apply + "/mend.log");  // what the tree has there may be a link
    WriteFile(request.apply + "/mend.log", log);
    fs::permissions(request.apply, fs::perms::owner_all);
}

/// A result in which nothing was held yet.
SiteResult EmptyResult(const Request& request) {
    SiteResult result;
    std::string name = fs::path(request.tree).lexically_normal().filename();
    if (name.empty())  // "customer/"
        name = fs::path(request.tree).lexically_normal().parent_path().filename();
    result.program = {SETUPMEND_VERSION, request.binary};
    result.site = {name, request.tree, RootOf(request) + "/"};
    result.kinds = ResultKinds();
    return result;
}

/// How far the run is, by the steps that it has ended. It tells the parts that it begins, and each
/// step with the numbers of files that it changed, added and removed.
class Stage {
public:
    explicit Stage(Progress& progress) : progress_(progress) {}
    void operator()(const std::string& said) {
        constexpr double copied = 0.2;
        constexpr double each = 0.6 / 50;  // of about fifty steps
        if (said.empty() || said == ".") {
            progress_.Tick();
            return;
        }
        done_ = std::min(0.95, (done_ == 0 ? copied : done_) + each);
        const std::size_t end = said.find('\t');
        if (end == std::string::npos) {
            part_ = said;
            last_.clear();
            progress_.Show(part_, done_);
        } else {
            last_ = said.substr(0, end);
            if (part_ == "upgrade")
                AddStep(said.substr(end));
            progress_.Show(part_ + ": after " + last_, done_);
        }
        since_ = Clock::now();
    }
    /// Where it was, in words.
    std::string Where() const {
        return last_.empty() ? "in: " + (part_.empty() ? "preparation" : part_)
                             : "in " + part_ + ", behind the step " + last_;
    }
    const std::vector<StepResult>& Steps() const { return steps_; }

private:
    using Clock = std::chrono::steady_clock;

    void AddStep(const std::string& numbers) {
        StepResult step;
        step.name = last_;
        step.seconds = std::chrono::duration<double>(Clock::now() - since_).count();
        std::istringstream(numbers) >> step.changed >> step.added >> step.removed;
        steps_.push_back(step);
    }

    Progress& progress_;
    double done_ = 0;
    std::string part_;
    std::string last_;
    std::vector<StepResult> steps_;
    Clock::time_point since_ = Clock::now();
};

/// The copies that a rehearsal works on, and what it leaves.
struct Places {
    std::string pristine;  // its root
    std::string root;
    std::string scratch;
};

/// What the site's own settings say goes before what is asked for of a whole fleet, and behind what
/// is asked for of the one.
void TakeOwnSettings(Request& request, const std::string& path, Progress& progress) {
    const OwnSettings own = ReadOwnSettings(path);
    const bool isOfFleet = !request.keep.empty();
    if (!own.configRoot.empty() && (isOfFleet || request.configRoot.empty()))
        request.configRoot = own.configRoot;
    if (!own.orixPath.empty() && (isOfFleet || request.orixPath.empty()))
        request.orixPath = own.orixPath;
    if (own.secondsAtMost != 0)
        progress.Limit(own.secondsAtMost);
}

/// In the backup, at its top or at the appliance's root. What is beside it goes before.
std::string FindOwnSettings(const Request& request, const std::string& copy,
                            const std::string& root) {
    const std::string beside = OwnSettingsBeside(request.tree);
    const bool isItsOwn = beside.size() > std::string(ownSettingsName).size() &&
                          beside[beside.size() - std::string(ownSettingsName).size() - 1] == '.';
    if (isItsOwn)
        return beside;
    for (const std::string& place : {copy, root})
        if (const std::string real = RealBelow(place, ownSettingsName); !real.empty())
            return real;
    return beside;
}

/// Lays the firmware under the backup.
void UseFirmware(const Request& request, const Workspace& work, const std::string& root,
                 Progress& progress, SiteResult& result) {
    const auto goOn = [&] { progress.Tick(); };
    const std::string unpacked = work.Path() + "/firmware";
    const bool isArchive = !fs::is_directory(request.firmware);
    if (isArchive) {
        fs::create_directory(unpacked);
        TakeFirmware(request.firmware, unpacked, goOn);
    }
    const std::string tree = isArchive ? unpacked : FindRoot(request.firmware, request.firmware);
    std::string asides;
    for (const std::string& aside : LayFirmware(tree, root, goOn))
        asides += (asides.empty() ? "" : ", ") + aside;
    result.notes.push_back(fmt::format(
        "the firmware is {} of {}; {}", TargetOf(root), request.firmware,
        asides.empty() ? "the backup holds none" : "set aside of the backup: " + asides));
    fs::remove_all(unpacked);
}

/// A tree that has a label of its own is upgraded from that one, whatever the unit's says: so the
/// unit's start script hands it over (packaging/start). One that is no line is left alone there.
void HandOverLabel(const Request& request, const std::string& root, SiteResult& result) {
    const std::string own = RealBelow(root, RootOf(request) + "/mend-label");
    const std::string live = RealBelow(root, "etc/orix-conf/config_label.txt");
    const std::string label = own.empty() ? "" : ReadAll(own, 51);
    if (label.size() < 2 || label.find('\n') != label.size() - 1 || live.empty() ||
        ReadAll(live) == label)
        return;
    const Label old = ReadLabel(live);
    result.notes.push_back(
        fmt::format("the tree's own label, mend-label, says {}, and etc/orix-conf/config_label.txt "
                    "{}: the tree's counts, as at the start of the unit",
                    label.substr(0, label.size() - 1), old.text.value_or("nothing")));
    std::ofstream(live, std::ios::binary | std::ios::trunc) << label;
}

Places Prepare(Request& request, const Workspace& work, Progress& progress, SiteResult& result) {
    Places places;
    const std::string pristine = work.Path() + "/pristine";
    places.scratch = work.Path() + "/scratch";
    progress.Show("copy " + request.tree, 0);
    CopyBackup(request.tree, pristine, [&] { progress.Tick(); });
    places.pristine = FindRoot(pristine, request.tree, request.firmware.empty());
    if (const std::string own = FindOwnSettings(request, pristine, places.pristine); !own.empty())
        TakeOwnSettings(request, own, progress);
    result.site.configRoot = RootOf(request) + "/";
    if (!request.firmware.empty())
        UseFirmware(request, work, places.pristine, progress, result);
    const std::string target = TargetOf(places.pristine);
    if (!request.expected.empty() && target != request.expected)
        throw Failure(fmt::format("the firmware is {}, and {} was expected (--expect)",
                                  target.empty() ? "of no known version" : target,
                                  request.expected));
    RequireTelephony(request, places.pristine);
    HandOverLabel(request, places.pristine, result);
    result.lacks = CompleteRoot(places.pristine);
    places.root = work.Path() + "/copy";
    CopyBackup(places.pristine, places.root, [&] { progress.Tick(); });
    fs::create_directory(places.scratch);
    return places;
}

/// A result, what --explain asked for, and what is kept: where the configuration lies, as the paths
/// of the result have it, and the upgraded tree.
struct Held {
    SiteResult site;
    std::vector<std::string> explained;
    std::string root;
    std::string packedTree;
};

/// Below the tree, links followed, with a "/" at its end.
std::string RealRoot(const Request& request, const std::string& tree) {
    const std::string named = RootOf(request);
    const std::string real = RealBelow(tree, named);
    std::string path = real.empty() ? named : real.substr(tree.size());
    path.erase(0, path.find_first_not_of('/'));
    return path + (path.ends_with('/') ? "" : "/");
}

Held Hold(Request request, const std::string& key, Progress& progress, SiteResult& result) {
    if (!fs::exists(request.tree))
        throw Failure("no such directory or archive: " + request.tree);
    RequireBinary(request.binary);
    constexpr std::uint64_t times = 6;  // two copies, the recovery copy, what is new, and some more
    const Workspace work(times * SizeOf(request.tree));
    Stage stage(progress);
    try {
        const Places places = Prepare(request, work, progress, result);
        if (!key.empty())
            WriteFile(places.scratch + "/key", key);
        Sandbox sandbox{
            places.root,      places.pristine,
            places.scratch,   request.binary.empty() ? "" : fs::canonical(request.binary).string(),
            request.orixPath, {}};
        Inside inside;
        inside.configRoot = request.configRoot;
        inside.explain = request.explain;
        inside.keepsTree = !request.apply.empty();
        inside.makesDifference = !request.diff.empty();
        inside.runsBinary = !request.binary.empty();
        inside.showsSecrets = request.showsSecrets;
        sandbox.arguments = ArgumentsOf(inside);
        try {
            RunInSandbox(sandbox, std::ref(stage));
        } catch (const Crash& crash) {
            TellCrash(result, {crash.what(), stage.Where(), stage.Steps(), places.pristine,
                               places.root, places.scratch, request.showsSecrets});
            if (!request.report.empty())
                WriteFile(request.report, ReportIn(places.scratch));
            return {result, {}, RealRoot(request, places.pristine), ""};
        }
        InsideResult ran = Json::from_msgpack(ReadAll(places.scratch + "/result"));
        HandOver(request, places.root, places.scratch);
        ran.site.program = result.program;
        ran.site.site = result.site;
        ran.site.kinds = result.kinds;
        ran.site.lacks = result.lacks;
        ran.site.notes.insert(ran.site.notes.begin(), result.notes.begin(), result.notes.end());
        return {std::move(ran.site), std::move(ran.explained), RealRoot(request, places.pristine),
                key.empty() ? "" : ReadAll(places.scratch + "/kept")};
    } catch (const std::exception& error) {
        if (Interruption() == 0 && work.IsFull())
            throw Failure(fmt::format(
                "the place to work in, {}, is full; TMPDIR names another, with {} MB or more",
                work.Path(), (times * SizeOf(request.tree) >> 20) + 64));
        throw;
    }
}

/// Takes out what is known and accepted, and says so.
void WaiveIn(SiteResult& result, const Waivers& waivers) {
    const std::vector<std::size_t> taken = waivers.Take(result.site.name, result.problems);
    std::map<std::size_t, std::size_t> counts;
    for (const std::size_t number : taken)
        ++counts[number];
    for (const auto& [number, count] : counts) {
        const Waiver& waiver = waivers.All()[number];
        result.notes.push_back(fmt::format("{} problem{} known and waived until {}: {} ({})", count,
                                           count == 1 ? " is" : "s are", waiver.until,
                                           waiver.reason, waiver.owner));
    }
    for (const Waiver& waiver : waivers.All())
        if (waiver.isExpired)
            result.notes.push_back(fmt::format("a waiver of {} is out of date since {}: {}",
                                               waiver.owner, waiver.until, waiver.reason));
    if (!taken.empty())
        Waive(result.verdict, CountItems(result.problems));
}

/// Tells one backup from another, and does not give away its content's digest.
std::string BackupId(const std::string& backup) {
    constexpr std::size_t digits = 16;
    return Digest().Add("backup").Add(backup).Text().substr(0, digits);
}

void Keep(const Request& request, const std::string& backup, const Held& held) {
    const SiteResult& site = held.site;
    KeptSummary kept;
    kept.run = RunOf(request.tree, backup, request.common);
    kept.common = request.common;
    kept.backup = BackupId(backup);
    kept.program = site.program;
    kept.root = held.root;
    kept.seconds = site.seconds;
    kept.verdict = site.verdict;
    kept.problems = site.problems;
    kept.harmless = site.harmless;
    for (const StepResult& step : site.steps)
        kept.steps.push_back({step.name, 0, step.changed, step.added, step.removed, ""});
    kept.extensions = site.extensions;
    WriteKept(request.keep, kept, held.packedTree);
}

}  // namespace

std::string RunOf(const std::string& tree, const std::string& backup, const std::string& common) {
    const std::string own = OwnSettingsBeside(tree);
    return Digest().Add(common).Add(backup).Add(own.empty() ? "" : ReadAll(own)).Text();
}

std::string ProgramsDigest(const std::string& binary) {
    const char* self = "/proc/self/exe";
    return Digest().AddFile(self).AddFile(binary.empty() ? self : binary).Text();
}

Rehearsed RehearseSite(const Request& request, Progress& progress) {
    RequireOutputs(request);
    if (!request.programs.empty() && ProgramsDigest(request.binary) != request.programs)
        throw OtherProgram("this machine has another setupmend-rehearse than the one that asks it" +
                           (request.binary.empty() ? "" : ", or another " + request.binary));
    const Waivers waivers = request.waivers.empty() ? Waivers() : Waivers(request.waivers, Today());
    const auto begin = std::chrono::steady_clock::now();
    // The backup's content is the key to what is kept of it, and never kept itself.
    const std::string backup = request.keep.empty() ? "" : Digest().AddTree(request.tree).Text();
    Held held{EmptyResult(request), {}, "", ""};
    SiteResult& result = held.site;
    try {
        SiteResult empty = result;
        held = Hold(request, backup, progress, empty);
    } catch (const std::exception& error) {
        if (Interruption() != 0)
            throw;
        std::string& summary = result.verdict.summary;
        summary = std::string("The rehearsal could not be held: ") + error.what();
        std::replace(summary.begin(), summary.end(), '\n', ' ');  // it is a line
    }
    WaiveIn(result, waivers);
    result.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    Json json = result;
    if (request.json == "-")
        fmt::print("{}\n", Text(json));
    else if (!request.json.empty())  // a fleet's are thousands, and read by programs
        WriteFile(request.json, Text(json, request.keep.empty() ? 1 : -1) + "\n");
    if (!request.html.empty())
        WriteFile(request.html, Page(std::move(json)));
    if (!request.keep.empty())
        Keep(request, backup, held);
    return {std::move(held.site), std::move(held.explained)};
}

}  // namespace rehearse
