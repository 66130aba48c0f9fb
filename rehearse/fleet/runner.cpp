#include "rehearse/fleet/runner.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <set>

#include "files/look.h"
#include "rehearse/base/digest.h"
#include "rehearse/base/failure.h"
#include "rehearse/base/progress.h"
#include "rehearse/base/text_file.h"
#include "rehearse/keep/kept.h"
#include "rehearse/sandbox/firmware.h"
#include "rehearse/site/own_settings.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

/// A name for the shell that parallel starts.
std::string Quoted(const std::string& text) {
    if (text.find('{') != std::string::npos)
        throw Failure("GNU parallel takes braces for its own: " + text);
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

}  // namespace

FleetRunner::FleetRunner(const FleetRequest& request, const Request& site, std::string directory,
                         std::string out)
    : request_(request), site_(site), directory_(std::move(directory)), out_(std::move(out)) {
    RequireOwn();
    for (const char* room : {"", "/sites", "/again"}) {
        fs::create_directories(out_ + room);
        fs::permissions(out_ + room, fs::perms::owner_all);
    }
    lock_ = open((out_ + "/lock").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (lock_ < 0 || flock(lock_, LOCK_EX | LOCK_NB) != 0)
        throw Failure("another rehearsal works in " + out_ + ", or it cannot be written");
    TakeFirmwareOnce();
    programs_ = ProgramsDigest(site_.binary);
    Digest common;
    common.Add(SETUPMEND_VERSION).Add(programs_);
    common.Add(site_.configRoot).Add(site_.orixPath).Add(site_.expected);
    common.Add(site_.showsSecrets ? "shown" : "hidden");
    if (!firmware_.empty())
        common.AddTree(firmware_);
    common_ = common.Text();
}

FleetRunner::~FleetRunner() {
    if (lock_ >= 0)
        close(lock_);
}

/// OUT is ours as a whole: what is in it may be replaced, and is open to nobody else.
void FleetRunner::RequireOwn() const {
    static const std::set<std::string> known = {
        "sites",     "again",      "firmware",   "against",    "lock",
        "side.json", "fleet.json", "fleet.html", "sites.list", "joblog"};
    if (!fs::exists(out_))
        return;
    const bool isOfFleet = fs::exists(out_ + "/lock");
    for (const fs::directory_entry& entry : fs::directory_iterator(out_)) {
        const std::string name = entry.path().filename();
        if (!isOfFleet && (!known.contains(name) || name == "firmware"))
            throw Misuse(out_ + " has a " + name + ", and is no OUT of a fleet: name another");
    }
    if (!site_.firmware.empty() && files::IsWithin(fs::weakly_canonical(site_.firmware), out_))
        throw Misuse(site_.firmware + " lies inside OUT, where it would be replaced");
}

/// The firmware is unpacked once, into OUT, where other machines find it as well.
void FleetRunner::TakeFirmwareOnce() {
    const std::string place = out_ + "/firmware";
    fs::remove_all(place);
    if (site_.firmware.empty())
        return;
    fs::create_directories(place);
    fs::permissions(place, fs::perms::owner_all);
    Progress progress(false);
    TakeFirmware(site_.firmware, place, [&] { progress.Tick(); });
    firmware_ = place;
    target_ = TargetOf(place);
    if (!site_.expected.empty() && target_ != site_.expected)
        throw Failure(fmt::format("the firmware is {}, and {} was expected (--expect)",
                                  target_.empty() ? "of no known version" : target_,
                                  site_.expected));
}

/// Whether what is kept of a site answers what is asked for.
bool FleetRunner::Holds(const std::string& name, const std::string& kept) const {
    const auto summary = ReadKept(kept);
    if (!summary)
        return false;
    constexpr int failed = 3;  // and more
    if (request_.triesAgain && summary->verdict.exitStatus >= failed)
        return false;
    const std::string tree = directory_ + "/" + name;
    return summary->run == RunOf(tree, Digest().AddTree(tree).Text(), common_);
}

std::size_t FleetRunner::Run(const std::vector<std::string>& names, bool showsProgress) {
    std::vector<std::string> wanted;
    Progress progress(showsProgress);
    for (std::size_t i = 0; i < names.size(); ++i) {
        progress.Show("look for what is known already",
                      static_cast<double>(i) / static_cast<double>(names.size()));
        if (!Holds(names[i], KeptOf(names[i])))
            wanted.push_back(names[i]);
    }
    Rehearse(wanted, "sites", showsProgress);
    return names.size() - wanted.size();
}

void FleetRunner::RunAgain(const std::vector<std::string>& names, bool showsProgress) {
    std::vector<std::string> wanted;
    for (const std::string& name : names)
        if (!Holds(name, KeptAgainOf(name)))
            wanted.push_back(name);
    Rehearse(wanted, "again", showsProgress);
}

Job FleetRunner::JobOf(const std::string& name) const {
    const auto job = jobs_.find(name);
    return job == jobs_.end() ? Job{} : job->second;
}

void FleetRunner::Rehearse(const std::vector<std::string>& names, const std::string& room,
                           bool showsProgress) {
    if (names.empty())
        return;
    std::error_code error;
    // What is there is of something else; one that dies must not leave it as its own.
    for (const std::string& name : names)
        for (const char* end : {".kept", ".json", ".html"})
            fs::remove(out_ + "/" + room + "/" + name + end, error);  // or its name is too long
    fs::remove(out_ + "/joblog");
    const bool hasBar = showsProgress && isatty(STDERR_FILENO) == 1;
    Progress progress(showsProgress && !hasBar);
    Start(names, room, hasBar)
        ->Wait(
            [&] {
                const std::size_t done = ReadJobs(names.size()).size();
                progress.Show(fmt::format("{} of {} sites", done, names.size()),
                              static_cast<double>(done) / static_cast<double>(names.size()));
            },
            200);
    const auto jobs = ReadJobs(names.size());
    for (const auto& [number, job] : jobs)
        jobs_[names[number]] = job;
    if (jobs.size() < names.size())
        throw Failure(
            "GNU parallel ended before all sites were rehearsed; the same command goes "
            "on where it was");
}

std::string FleetRunner::SiteCommand(const std::string& room) const {
    const std::string result = Quoted(out_ + "/" + room + "/") + "{/}";
    std::string command = Quoted(fs::read_symlink("/proc/self/exe")) + " --quiet --time-limit " +
                          std::to_string(request_.secondsAtMost) + " --keep " + result + ".kept" +
                          " --common " + common_;
    if (room == "sites")
        command += " --json " + result + ".json --html " + result + ".html";
    if (!request_.sshLogins.empty())  // other machines have programs of their own
        command += " --programs " + programs_;
    if (!site_.binary.empty())
        command += " --binary " + Quoted(fs::canonical(site_.binary));
    if (!firmware_.empty())
        command += " --firmware " + Quoted(firmware_);
    if (!site_.expected.empty())
        command += " --expect " + Quoted(site_.expected);
    if (site_.showsSecrets)
        command += " --show-secrets";
    if (!site_.orixPath.empty())
        command += " --orix-path " + Quoted(site_.orixPath);
    // A result is a result, however bad: only what left none is tried on another machine.
    return command + " -- {} " + (site_.configRoot.empty() ? "" : Quoted(site_.configRoot)) +
           " >/dev/null || (s=$?; [ $s -le 4 ] && exit 0; exit $s)";
}

std::unique_ptr<Child> FleetRunner::Start(const std::vector<std::string>& names,
                                          const std::string& room, bool hasBar) const {
    ChildPlan plan;
    plan.words = {"parallel", "--will-cite", "--null", "--joblog", out_ + "/joblog",
                  // the site ends itself before that, and tells where it was
                  "--timeout", std::to_string(LongestTime(names) + 60), "--termseq",
                  "TERM,5000,KILL,25"};
    if (hasBar)
        plan.words.emplace_back("--bar");
    if (!request_.jobs.empty())
        plan.words.insert(plan.words.end(), {"--jobs", request_.jobs});
    // A machine that dies answers 255; its sites go to another.
    if (!request_.sshLogins.empty())
        plan.words.insert(plan.words.end(), {"--retries", "4"});
    for (const std::string& login : request_.sshLogins)
        plan.words.insert(plan.words.end(), {"--sshlogin", login});
    plan.words.push_back(SiteCommand(room));
    std::string list;
    for (const std::string& name : names)
        list += directory_ + "/" + name + '\0';
    plan.input = out_ + "/sites.list";
    WriteFile(plan.input, list);
    plan.package = "parallel";
    plan.end = ChildPlan::End::AskedTwice;
    return std::make_unique<Child>(plan);
}

/// Of all sites whose own settings can be read here; those in archives cannot.
unsigned FleetRunner::LongestTime(const std::vector<std::string>& names) const {
    unsigned longest = request_.secondsAtMost;
    for (const std::string& name : names) {
        const std::string tree = directory_ + "/" + name;
        for (const std::string& path : {OwnSettingsBeside(tree), tree + "/" + ownSettingsName}) {
            std::error_code error;
            if (path.empty() || !fs::is_regular_file(path, error))
                continue;
            try {
                longest = std::max(longest, ReadOwnSettings(path).secondsAtMost);
            } catch (const Failure&) {
                continue;  // the site's own rehearsal tells
            }
        }
    }
    return longest;
}

/// By the number of the site. Of one that was begun twice, the last.
std::map<std::size_t, Job> FleetRunner::ReadJobs(std::size_t sites) const {
    std::map<std::size_t, Job> jobs;
    for (const std::string& line : LinesOf(ReadAll(out_ + "/joblog")))
        if (const auto job = ParseJob(line); job && job->first < sites)
            jobs[job->first] = job->second;
    return jobs;
}

}  // namespace rehearse
