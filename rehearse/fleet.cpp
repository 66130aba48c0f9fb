#include "rehearse/fleet.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <sstream>
#include <thread>

#include "rehearse/failure.h"
#include "rehearse/problems.h"
#include "rehearse/text_file.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

/// What GNU parallel's job log tells of a site.
struct Job {
    double seconds = 0;
    int exitStatus = -1;
    int signal = 0;
};

/// parallel leaves a site that it ended for its time without an exit status.
bool WasTooLong(const Job& job) {
    return job.exitStatus < 0;
}

// The worst first.
constexpr const char* results[] = {"timed-out", "crashed",    "not-held", "not-upgraded",
                                   "problems",  "up-to-date", "upgraded"};

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
        Claim();
        ForgetTimeouts();
        const bool hasBar = showsProgress && isatty(STDERR_FILENO) == 1;
        const pid_t parallel = Start(hasBar);
        try {
            Progress progress(showsProgress && !hasBar);
            Wait(parallel, progress);
        } catch (...) {
            // Once to begin nothing more, once more to end what runs; it ends its children.
            kill(parallel, SIGTERM);
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            kill(parallel, SIGTERM);
            waitpid(parallel, nullptr, 0);
            throw;
        }
    }

    /// Puts the sites' results together.
    Json Gather() {
        const auto jobs = ReadJobs();
        Json sites = Json::array();
        for (std::size_t i = 0; i < names_.size(); ++i)
            sites.push_back(GatherSite(i, jobs));
        std::stable_sort(order_.begin(), order_.end());
        Json fleet{{"format", "setupmend-fleet/1"},
                   {"program",
                    {{"version", SETUPMEND_VERSION},
                     {"binary", site_.binary.empty() ? Json() : Json(site_.binary)}}},
                   {"seconds", 0.0}};
        std::vector<std::size_t> places(names_.size());
        fleet["sites"] = Json::array();
        for (const auto& [rank, number] : order_) {
            places[number] = fleet["sites"].size();
            fleet["sites"].push_back(std::move(sites[number]));
        }
        AddProblems(fleet, places);
        AddSteps(fleet);
        for (const char* result : results)
            fleet["counts"][result] = counts_[result];
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
        std::string command = Quoted(fs::read_symlink("/proc/self/exe")) + " --quiet --json " +
                              Quoted(out_ + "/sites/") + "{/}.json --html " +
                              Quoted(out_ + "/sites/") + "{/}.html";
        if (!site_.binary.empty())
            command += " --binary " + Quoted(fs::canonical(site_.binary));
        if (!site_.orixPath.empty())
            command += " --orix-path " + Quoted(site_.orixPath);
        return command + " -- {} " + (site_.configRoot.empty() ? "" : Quoted(site_.configRoot)) +
               " >/dev/null";
    }

    pid_t Start(bool hasBar) const {
        std::vector<std::string> words = {"parallel",       "--will-cite",
                                          "--null",         "--joblog",
                                          out_ + "/joblog", "--resume",
                                          "--timeout",      std::to_string(request_.secondsAtMost),
                                          "--termseq",      "TERM,5000,KILL,25"};
        if (hasBar)
            words.emplace_back("--bar");
        if (!request_.jobs.empty())
            words.insert(words.end(), {"--jobs", request_.jobs});
        for (const std::string& login : request_.sshLogins)
            words.insert(words.end(), {"--sshlogin", login});
        words.push_back(SiteCommand());
        std::string list;
        for (const std::string& name : names_)
            list += directory_ + "/" + name + '\0';
        const std::string listPath = out_ + "/sites.list";
        WriteFile(listPath, list);

        std::vector<char*> arguments;
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, listPath.c_str(), O_RDONLY, 0);
        pid_t child = 0;
        const int error =
            posix_spawnp(&child, "parallel", &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0)
            throw Failure(
                "GNU parallel is missing; install it as root with: apt-get install "
                "parallel");
        return child;
    }

    void Wait(pid_t parallel, Progress& progress) const {
        int status = 0;
        while (waitpid(parallel, &status, WNOHANG) == 0) {
            const std::size_t done = ReadJobs().size();
            progress.Show(fmt::format("{} of {} sites", done, names_.size()),
                          static_cast<double>(done) / static_cast<double>(names_.size()));
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        if (ReadJobs().size() < names_.size())
            throw Failure(
                "GNU parallel ended before all sites were rehearsed; the same command "
                "goes on where it was");
    }

    /// A line of the job log: the site's number from 0, and what became of it.
    static std::optional<std::pair<std::size_t, Job>> ParseJob(const std::string& line) {
        std::istringstream words(line);
        std::size_t number = 0;
        std::string host;
        std::string unused;
        Job job;
        if (words >> number >> host >> unused >> job.seconds >> unused >> unused >>
                job.exitStatus >> job.signal &&
            number >= 1)
            return std::pair(number - 1, job);
        return std::nullopt;  // the heads of the columns
    }

    /// By the number of the site. Of one that was begun twice, the last.
    std::map<std::size_t, Job> ReadJobs() const {
        std::map<std::size_t, Job> jobs;
        for (const std::string& line : LinesOf(ReadAll(out_ + "/joblog")))
            if (const auto job = ParseJob(line); job && job->first < names_.size())
                jobs[job->first] = job->second;
        return jobs;
    }

    Json GatherSite(std::size_t number, const std::map<std::size_t, Job>& jobs) {
        const std::string& name = names_[number];
        const std::string base = "sites/" + name;
        const auto found = jobs.find(number);
        const Job job = found == jobs.end() ? Job{} : found->second;
        Json row{{"name", name},
                 {"result", ""},
                 {"exitStatus", 2},
                 {"from", ""},
                 {"to", ""},
                 {"problems", 0},
                 {"harmless", 0},
                 {"files", {{"changed", 0}, {"added", 0}, {"removed", 0}}},
                 {"seconds", job.seconds},
                 {"summary", ""},
                 {"page", ""}};
        const Json site = Json::parse(ReadAll(out_ + "/" + base + ".json"), nullptr, false);
        std::size_t problems = 0;
        // parallel ends a site that takes too long by a signal, or leaves it without a status.
        const bool isEnded = job.exitStatus >= 0 && job.exitStatus <= 2 && job.signal == 0;
        if (isEnded && !site.is_discarded()) {
            const Json& verdict = site["verdict"];
            for (const char* key : {"result", "exitStatus", "from", "to", "files", "summary"})
                row[key] = verdict[key];
            row["harmless"] = site["harmless"];
            row["page"] = base + ".html";
            problems = CollectProblems(number, site);
            CollectSteps(site);
        } else {
            const bool isTooLong = WasTooLong(job);
            row["result"] = isTooLong ? "timed-out" : "crashed";
            row["summary"] = isTooLong
                                 ? fmt::format("Ended after {} seconds.", request_.secondsAtMost)
                                 : fmt::format("The rehearsal died (exit status {}, signal {}).",
                                               job.exitStatus, job.signal);
        }
        row["problems"] = problems;
        const std::string result = row["result"];
        ++counts_[result];
        worst_ = std::max(worst_, row["exitStatus"].get<int>());
        const auto rank = static_cast<std::size_t>(
            std::find(std::begin(results), std::end(results), result) - std::begin(results));
        order_.push_back({{rank, -static_cast<long>(problems), name}, number});
        return row;
    }

    std::size_t CollectProblems(std::size_t number, const Json& site) {
        const auto extensions = site["extensions"].get<std::set<std::string>>();
        std::size_t count = 0;
        for (const Json& group : site["problems"]) {
            count += group["items"].size();
            for (const Json& item : group["items"]) {
                const std::string reason = item["reason"];
                const std::string text = reason.empty()
                                             ? FoldLine(item["text"], extensions)
                                             : Pattern(item["file"], extensions) + ": " + reason;
                Json& problem = problems_[group["title"].get<std::string>() + "\n" + text];
                if (problem.is_null())
                    problem = {{"kind", group["kind"]},
                               {"title", group["title"]},
                               {"text", text},
                               {"means", group["means"]},
                               {"action", group["action"]},
                               {"sites", Json::array()}};
                if (problem["sites"].empty() || problem["sites"].back() != number)
                    problem["sites"].push_back(number);
            }
        }
        return count;
    }

    /// In the order of the run, which every site has alike, though not every one runs every step.
    void CollectSteps(const Json& site) {
        auto place = steps_.begin();
        for (const Json& step : site["steps"]) {
            const std::string name = step["name"];
            auto known = std::find_if(steps_.begin(), steps_.end(),
                                      [&](const Json& one) { return one["name"] == name; });
            if (known == steps_.end())
                known = steps_.insert(place, Json{{"name", name}, {"sites", 0}, {"files", 0}});
            place = known + 1;
            const std::size_t files = step["changed"].get<std::size_t>() +
                                      step["added"].get<std::size_t>() +
                                      step["removed"].get<std::size_t>();
            if (files == 0)
                continue;
            (*known)["sites"] = (*known)["sites"].get<std::size_t>() + 1;
            (*known)["files"] = (*known)["files"].get<std::size_t>() + files;
        }
    }

    void AddProblems(Json& fleet, const std::vector<std::size_t>& places) {
        std::vector<Json> problems;
        for (auto& [key, problem] : problems_) {
            std::vector<std::size_t> sites;
            for (const Json& number : problem["sites"])
                sites.push_back(places[number.get<std::size_t>()]);
            std::sort(sites.begin(), sites.end());
            problem["sites"] = sites;
            problems.push_back(std::move(problem));
        }
        std::stable_sort(problems.begin(), problems.end(), [](const Json& a, const Json& b) {
            return a["sites"].size() > b["sites"].size();
        });
        fleet["problems"] = problems;
    }

    void AddSteps(Json& fleet) {
        fleet["steps"] = Json::array();
        for (Json& step : steps_)
            fleet["steps"].push_back(std::move(step));
    }

    struct Rank {
        std::size_t result;
        long problems;
        std::string name;
        auto operator<=>(const Rank&) const = default;
    };

    const FleetRequest& request_;
    const Request& site_;
    std::string directory_;
    std::string out_;
    std::vector<std::string> names_;
    std::vector<std::pair<Rank, std::size_t>> order_;
    std::map<std::string, Json> problems_;
    std::vector<Json> steps_;
    std::map<std::string, std::size_t> counts_;
    int worst_ = 0;
};

void Tell(const Json& fleet, const std::string& out) {
    constexpr std::size_t most = 10;
    fmt::print("{} sites in {:.0f} seconds:", fleet["sites"].size(),
               fleet["seconds"].get<double>());
    const char* between = " ";
    for (const auto& [result, count] : fleet["counts"].items()) {
        if (count == 0)
            continue;
        fmt::print("{}{} {}", between, count.get<std::size_t>(), result);
        between = ", ";
    }
    fmt::print("\n");
    std::size_t told = 0;
    for (const Json& site : fleet["sites"]) {
        if (site["exitStatus"] == 0 || told++ == most)
            break;
        fmt::print("  {}: {}\n", site["name"].get<std::string>(),
                   site["summary"].get<std::string>());
    }
    if (!fleet["problems"].empty())
        fmt::print("The problems of most sites:\n");
    told = 0;
    for (const Json& problem : fleet["problems"]) {
        if (told++ == most)
            break;
        fmt::print("  {:4} sites: {}: {}\n", problem["sites"].size(),
                   problem["title"].get<std::string>(), problem["text"].get<std::string>());
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
    Json result = fleet.Gather();
    result["seconds"] =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    WriteFile(fleet.Out() + "/fleet.json", Text(result) + "\n");
    WriteFile(fleet.Out() + "/fleet.html", Page(result));
    Tell(result, fleet.Out());
    return fleet.Worst();
}

}  // namespace rehearse
