#include "rehearse/fleet/fleet.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <memory>
#include <tuple>

#include "rehearse/base/child.h"
#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"
#include "rehearse/fleet/job_log.h"
#include "rehearse/fleet/result.h"
#include "rehearse/page/page.h"
#include "rehearse/verdict/problems.h"
#include "rehearse/watch/pattern.h"

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

/// What tells whether a file, or anything below a directory, has changed.
std::string Identity(const std::string& path) {
    auto newest = fs::last_write_time(path);
    std::uintmax_t size = fs::is_regular_file(path) ? fs::file_size(path) : 0;
    if (fs::is_directory(path))
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(
                 path, fs::directory_options::skip_permission_denied)) {
            if (entry.is_symlink())
                continue;
            newest = std::max(newest, entry.last_write_time());
            size += entry.is_regular_file() ? entry.file_size() : 1;
        }
    return fmt::format("{} {} {}\n", path, size, newest.time_since_epoch().count());
}

/// The backups of a directory, and what their rehearsals left in OUT.
class Fleet {
public:
    Fleet(const FleetRequest& request, const Request& site)
        : request_(request), site_(site), directory_(fs::canonical(request.directory)) {
        out_ = fs::weakly_canonical(request.out.empty() ? directory_ + "-rehearsed" : request.out);
        for (const fs::directory_entry& entry : fs::directory_iterator(directory_))
            if (!entry.path().filename().string().starts_with('.'))
                names_.push_back(entry.path().filename());
        std::sort(names_.begin(), names_.end());
        if (names_.empty())
            throw Failure(directory_ + " holds no backups");
        if ((out_ + "/").starts_with(directory_ + "/"))
            throw Failure("OUT lies among the backups: " + out_);
    }

    void Run(bool showsProgress) {
        fs::create_directories(out_ + "/sites");
        for (const std::string& directory : {out_, out_ + "/sites"})
            fs::permissions(directory, fs::perms::owner_all);
        Claim();
        ForgetTimeouts();
        const bool hasBar = showsProgress && isatty(STDERR_FILENO) == 1;
        Progress progress(showsProgress && !hasBar);
        Wait(Start(hasBar), progress);
    }

    /// Puts the sites' results together.
    FleetResult Gather() {
        const auto jobs = ReadJobs();
        std::vector<SiteRow> sites;
        for (std::size_t i = 0; i < names_.size(); ++i)
            sites.push_back(GatherSite(i, jobs));
        std::stable_sort(order_.begin(), order_.end());
        FleetResult fleet;
        fleet.program = {SETUPMEND_VERSION, site_.binary};
        fleet.kinds = ResultKinds();
        std::vector<std::size_t> places(names_.size());
        for (const auto& [rank, number] : order_) {
            places[number] = fleet.sites.size();
            fleet.sites.push_back(std::move(sites[number]));
        }
        fleet.problems = CollectedProblems(places);
        fleet.steps = steps_;
        fleet.counts = counts_;
        return fleet;
    }

    const std::string& Out() const { return out_; }
    /// The worst exit status of a site; known when all are gathered.
    int Worst() const { return worst_; }

private:
    /// A fleet that is gone on with has to be the same: parallel's log knows its sites by number.
    void Claim() const {
        std::string claim =
            fmt::format("{}\n{}\n{}\n", directory_, site_.configRoot, site_.orixPath);
        claim += Identity(site_.binary.empty() ? "/proc/self/exe" : site_.binary);
        for (const std::string& name : names_)
            claim += Identity(directory_ + "/" + name);
        const std::string path = out_ + "/fleet.claim";
        if (!fs::exists(path))
            WriteFile(path, claim);
        else if (ReadAll(path) != claim)
            throw Failure(
                out_ +
                " holds the rehearsal of other backups, or by another program or options; remove it, or give another --out");
    }

    /// A fleet that is gone on with tries again what took too long, perhaps with more time.
    void ForgetTimeouts() const {
        const std::string path = out_ + "/joblog";
        if (!fs::exists(path))
            return;
        std::string kept;
        for (const std::string& line : LinesOf(ReadAll(path)))
            if (const auto job = ParseJob(line); !job || !WasTooLong(job->second))
                kept += line + "\n";
        WriteFile(path, kept);
    }

    std::string SiteCommand() const {
        std::string command = Quoted(fs::read_symlink("/proc/self/exe")) +
                              " --quiet --time-limit " + std::to_string(request_.secondsAtMost) +
                              " --json " + Quoted(out_ + "/sites/") + "{/}.json --html " +
                              Quoted(out_ + "/sites/") + "{/}.html";
        if (!site_.binary.empty())
            command += " --binary " + Quoted(fs::canonical(site_.binary));
        if (site_.showsSecrets)
            command += " --show-secrets";
        if (!site_.orixPath.empty())
            command += " --orix-path " + Quoted(site_.orixPath);
        return command + " -- {} " + (site_.configRoot.empty() ? "" : Quoted(site_.configRoot)) +
               " >/dev/null";
    }

    std::unique_ptr<Child> Start(bool hasBar) const {
        ChildPlan plan;
        plan.words = {"parallel", "--will-cite", "--null", "--joblog", out_ + "/joblog", "--resume",
                      // the site ends itself before that, and tells where it was
                      "--timeout", std::to_string(request_.secondsAtMost + 60), "--termseq",
                      "TERM,5000,KILL,25"};
        if (hasBar)
            plan.words.emplace_back("--bar");
        if (!request_.jobs.empty())
            plan.words.insert(plan.words.end(), {"--jobs", request_.jobs});
        for (const std::string& login : request_.sshLogins)
            plan.words.insert(plan.words.end(), {"--sshlogin", login});
        plan.words.push_back(SiteCommand());
        std::string list;
        for (const std::string& name : names_)
            list += directory_ + "/" + name + '\0';
        plan.input = out_ + "/sites.list";
        WriteFile(plan.input, list);
        plan.package = "parallel";
        plan.end = ChildPlan::End::AskedTwice;
        return std::make_unique<Child>(plan);
    }

    void Wait(const std::unique_ptr<Child>& parallel, Progress& progress) const {
        parallel->Wait(
            [&] {
                const std::size_t done = ReadJobs().size();
                progress.Show(fmt::format("{} of {} sites", done, names_.size()),
                              static_cast<double>(done) / static_cast<double>(names_.size()));
            },
            200);
        if (ReadJobs().size() < names_.size())
            throw Failure(
                "GNU parallel ended before all sites were rehearsed; the same command "
                "goes on where it was");
    }

    /// By the number of the site. Of one that was begun twice, the last.
    std::map<std::size_t, Job> ReadJobs() const {
        std::map<std::size_t, Job> jobs;
        for (const std::string& line : LinesOf(ReadAll(out_ + "/joblog")))
            if (const auto job = ParseJob(line); job && job->first < names_.size())
                jobs[job->first] = job->second;
        return jobs;
    }

    SiteRow GatherSite(std::size_t number, const std::map<std::size_t, Job>& jobs) {
        SiteRow row;
        row.name = names_[number];
        const std::string base = "sites/" + row.name;
        const auto found = jobs.find(number);
        const Job job = found == jobs.end() ? Job{} : found->second;
        row.seconds = job.seconds;
        const std::string text = ReadAll(out_ + "/" + base + ".json");
        const bool isEnded = job.exitStatus >= 0 && job.exitStatus <= 4 && job.signal == 0;
        const Json json = isEnded ? Json::parse(text, nullptr, false) : Json();
        if (json.is_object() && json.contains("format")) {
            const SiteResult site = json;
            row.result = site.verdict.result;
            row.exitStatus = site.verdict.exitStatus;
            row.from = site.verdict.from;
            row.to = site.verdict.to;
            row.files = site.verdict.files;
            row.summary = site.verdict.summary;
            row.harmless = site.harmless;
            row.page = base + ".html";
            row.problems = CollectProblems(number, site);
            CollectSteps(site);
        } else {
            const bool isTooLong = WasTooLong(job);
            row.result = "crashed";
            row.exitStatus = KindOf("crashed").exitStatus;
            row.summary =
                isTooLong ? fmt::format("Crashed: ended after {} seconds.", request_.secondsAtMost)
                          : fmt::format("The rehearsal died (exit status {}, signal {}).",
                                        job.exitStatus, job.signal);
        }
        ++counts_[row.result];
        worst_ = std::max(worst_, row.exitStatus);
        const auto rank = static_cast<std::size_t>(&KindOf(row.result) - ResultKinds().data());
        order_.push_back({{rank, -static_cast<long>(row.problems), row.name}, number});
        return row;
    }

    std::size_t CollectProblems(std::size_t number, const SiteResult& site) {
        const Extensions extensions(site.extensions.begin(), site.extensions.end());
        std::size_t count = 0;
        for (const Problem& group : site.problems) {
            count += group.items.size();
            for (const ProblemItem& item : group.items) {
                const std::string place =
                    item.file.empty() ? "" : Pattern(item.file, extensions) + ": ";
                const std::string text =
                    place + FoldLine(item.reason.empty() ? item.text : item.reason, extensions);
                FleetProblem& problem = problems_[group.title + "\n" + text];
                if (problem.sites.empty())
                    problem = {group.rule, group.title, text, group.means, group.action, {}};
                if (problem.sites.empty() || problem.sites.back() != number)
                    problem.sites.push_back(number);
            }
        }
        return count;
    }

    /// In the order of the run, which every site has alike, though not every one runs every step.
    void CollectSteps(const SiteResult& site) {
        auto place = steps_.begin();
        for (const StepResult& step : site.steps) {
            auto known = std::find_if(steps_.begin(), steps_.end(),
                                      [&](const FleetStep& one) { return one.name == step.name; });
            if (known == steps_.end())
                known = steps_.insert(place, {step.name, 0, 0});
            place = known + 1;
            const std::size_t files = step.changed + step.added + step.removed;
            if (files == 0)
                continue;
            ++known->sites;
            known->files += files;
        }
    }

    std::vector<FleetProblem> CollectedProblems(const std::vector<std::size_t>& places) {
        std::vector<FleetProblem> problems;
        for (auto& [key, problem] : problems_) {
            for (std::size_t& site : problem.sites)
                site = places[site];
            std::sort(problem.sites.begin(), problem.sites.end());
            problems.push_back(std::move(problem));
        }
        std::stable_sort(
            problems.begin(), problems.end(), [](const FleetProblem& a, const FleetProblem& b) {
                const std::size_t rankA = RankOf(a.rule);
                const std::size_t rankB = RankOf(b.rule);
                return rankA != rankB ? rankA < rankB : a.sites.size() > b.sites.size();
            });
        return problems;
    }

    struct Rank {
        std::size_t result;
        long problems;
        std::string name;
        bool operator<(const Rank& other) const {
            return std::tie(result, problems, name) <
                   std::tie(other.result, other.problems, other.name);
        }
    };

    const FleetRequest& request_;
    const Request& site_;
    std::string directory_;
    std::string out_;
    std::vector<std::string> names_;
    std::vector<std::pair<Rank, std::size_t>> order_;
    std::map<std::string, FleetProblem> problems_;
    std::vector<FleetStep> steps_;
    std::map<std::string, std::size_t> counts_;
    int worst_ = 0;
};

void Tell(const FleetResult& fleet, const std::string& out) {
    constexpr std::size_t most = 10;
    fmt::print("{} sites in {:.0f} seconds:", fleet.sites.size(), fleet.seconds);
    const char* between = " ";
    for (const ResultKind& kind : fleet.kinds) {
        const auto count = fleet.counts.find(kind.id);
        if (count == fleet.counts.end())
            continue;
        fmt::print("{}{} {}", between, count->second, kind.id);
        between = ", ";
    }
    fmt::print("\n");
    std::size_t told = 0;
    for (const SiteRow& site : fleet.sites) {
        if (site.exitStatus == 0 || told++ == most)
            break;
        fmt::print("  {}: {}\n", Printable(site.name), Printable(site.summary));
    }
    if (!fleet.problems.empty())
        fmt::print("The gravest problems:\n");
    told = 0;
    for (const FleetProblem& problem : fleet.problems) {
        if (told++ == most)
            break;
        fmt::print("  {:4} sites: {}: {}\n", problem.sites.size(), problem.title,
                   Printable(problem.text));
    }
    fmt::print("{}/fleet.html\n", out);
}

}  // namespace

int RehearseFleet(const FleetRequest& request, const Request& site, bool showsProgress) {
    const auto begin = std::chrono::steady_clock::now();
    if (!fs::is_directory(request.directory))
        throw Failure("no such directory: " + request.directory);
    Fleet fleet(request, site);
    fleet.Run(showsProgress);
    FleetResult result = fleet.Gather();
    result.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    Json json = result;
    WriteFile(fleet.Out() + "/fleet.json", Text(json) + "\n");
    WriteFile(fleet.Out() + "/fleet.html", Page(std::move(json)));
    Tell(result, fleet.Out());
    return fleet.Worst();
}

}  // namespace rehearse
