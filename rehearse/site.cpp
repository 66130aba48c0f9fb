#include "rehearse/site.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fmt/format.h>
#include <optional>
#include <set>

#include "rehearse/backup.h"
#include "rehearse/failure.h"
#include "rehearse/sandbox.h"
#include "rehearse/text_file.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

/// A label as setupmend takes it: without its last byte, which is normally the line end. Nothing
/// when there is none, or too long a one.
std::optional<std::string> ReadLabel(const std::string& root, const std::string& place) {
    constexpr std::size_t tooLong = 50;
    const std::string path = RealBelow(root, place);
    std::string text = path.empty() ? "" : ReadAll(path, tooLong);
    if (path.empty() || text.size() == tooLong)
        return std::nullopt;
    if (!text.empty())
        text.pop_back();
    return text.substr(0, text.find('\0'));
}

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
    if (!real.empty() || !RealBelow(root, configRoot + ".mend-undo").empty())
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

/// Nothing that is written may be TREE or lie within it, which is never changed, and no two outputs
/// may be one. OUT must be new or empty.
void RequireOutputs(const Request& request) {
    const fs::path tree = fs::weakly_canonical(request.tree);
    std::set<fs::path> known;
    for (const std::string* output :
         {&request.apply, &request.report, &request.diff, &request.json, &request.html}) {
        if (output->empty())
            continue;
        const fs::path path = fs::weakly_canonical(*output);
        if ((path.string() + "/").starts_with(tree.string() + "/"))
            throw Failure(*output + " lies inside TREE, which must not change");
        if (fs::is_other(path))
            continue;  // a terminal or /dev/null takes everything
        if (!known.insert(path).second)
            throw Failure("two outputs have one name: " + *output);
    }
    if (!request.apply.empty() && fs::exists(fs::symlink_status(request.apply)) &&
        !(fs::is_directory(request.apply) && fs::is_empty(request.apply)))
        throw Failure("OUT is not empty: " + request.apply);
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
}

/// Why a due upgrade has not stamped its version.
std::string StampReason(const Json& result) {
    for (const char* kind : {"ended-early", "missing-file", "refused"})
        for (const Json& problem : result["problems"])
            if (problem["kind"] == kind)
                return problem["title"].get<std::string>() + ": " +
                       problem["items"][0]["text"].get<std::string>();
    return "the report does not tell why";
}

std::size_t CountProblems(const Json& result) {
    std::size_t count = 0;
    for (const Json& problem : result["problems"])
        count += problem["items"].size();
    return count;
}

std::string Summary(const Json& verdict, std::size_t problems) {
    const auto version = [&](const char* key) {
        const std::string text = verdict[key];
        return text.empty() ? "an unknown version" : text;
    };
    const std::string rest = problems == 0 ? " without a problem"
                                           : fmt::format(", with {} problem{} to look at", problems,
                                                         problems == 1 ? "" : "s");
    const std::string result = verdict["result"];
    if (result == "up-to-date")
        return "Up to date at " + version("to") + rest + ".";
    if (result == "not-upgraded")
        return fmt::format("NOT upgraded from {} to {}.", version("from"), version("to"));
    return fmt::format("Upgraded from {} to {}{}.", version("from"), version("to"), rest);
}

Json NextStart(const Json& next) {
    const bool isQuiet = next.empty();
    return {{"changesNothing", isQuiet},
            {"text", isQuiet ? std::string("The next start changes nothing.")
                             : fmt::format("The next start would change {} file{} again.",
                                           next.size(), next.size() == 1 ? "" : "s")},
            {"files", next}};
}

/// A run that ended before the conversions is stamped all the same, and has upgraded nothing.
bool EndedEarly(const Json& result) {
    return std::any_of(result["problems"].begin(), result["problems"].end(),
                       [](const Json& problem) { return problem["kind"] == "ended-early"; });
}

void AddVerdict(Json& result, Json& ran, bool wasDue, bool isStamped) {
    Json& verdict = result["verdict"];
    const std::size_t problems = CountProblems(ran);
    const bool isMissed = wasDue && (!isStamped || EndedEarly(ran));
    verdict["result"] = isMissed   ? "not-upgraded"
                        : !wasDue  ? "up-to-date"
                        : problems ? "problems"
                                   : "upgraded";
    verdict["exitStatus"] = isMissed ? 2 : (problems != 0 ? 1 : 0);
    verdict["stamped"] = isStamped;
    verdict["stampReason"] = isStamped ? "" : wasDue ? StampReason(ran) : "no upgrade was due";
    verdict["summary"] = Summary(verdict, problems);
    verdict["files"] = ran["net"];
    verdict["nextStart"] = NextStart(ran["next"]);
    for (const char* part : {"problems", "harmless", "steps", "files", "extensions", "changes"})
        result[part] = std::move(ran[part]);
}

/// A result in which nothing was held yet.
Json EmptyResult(const Request& request) {
    const Json none = Json::array();
    std::string name = fs::path(request.tree).lexically_normal().filename();
    if (name.empty())  // "customer/"
        name = fs::path(request.tree).lexically_normal().parent_path().filename();
    return {
        {"format", "setupmend-rehearsal/1"},
        {"program",
         {{"version", SETUPMEND_VERSION},
          {"binary", request.binary.empty() ? Json() : Json(request.binary)}}},
        {"site", {{"name", name}, {"tree", request.tree}, {"configRoot", RootOf(request) + "/"}}},
        {"seconds", 0.0},
        {"verdict",
         {{"exitStatus", 2},
          {"result", "not-held"},
          {"summary", ""},
          {"from", ""},
          {"to", ""},
          {"stamped", false},
          {"stampReason", ""},
          {"files", {{"changed", 0}, {"added", 0}, {"removed", 0}}},
          {"nextStart", {{"changesNothing", false}, {"text", ""}, {"files", none}}}}},
        {"lacks", none},
        {"problems", none},
        {"harmless", 0},
        {"steps", none},
        {"files", none},
        {"extensions", none},
        {"changes", none},
        {"report", ""}};
}

/// How far the run is, by the number of steps that it has ended.
class Stage {
public:
    explicit Stage(Progress& progress) : progress_(progress) {}
    void operator()(const std::string& said) {
        if (said.empty()) {
            progress_.Tick();
            return;
        }
        constexpr double copied = 0.2;
        constexpr double each = 0.6 / 30;  // of about thirty steps
        done_ = std::min(0.95, (done_ == 0 ? copied : done_) + each);
        progress_.Show(said == "upgrade" || said == "next start" || said == "explain"
                           ? said
                           : "upgrade: after " + said,
                       done_);
    }

private:
    Progress& progress_;
    double done_ = 0;
};

void Hold(const Request& request, Progress& progress, Json& result) {
    if (!fs::exists(request.tree))
        throw Failure("no such directory or archive: " + request.tree);
    RequireBinary(request.binary);
    constexpr std::uint64_t times = 4;  // the copy, the recovery copy, what is new, and some more
    const Workspace work(times * SizeOf(request.tree));
    const std::string copy = work.Path() + "/copy";
    const std::string scratch = work.Path() + "/scratch";
    progress.Show("copy " + request.tree, 0);
    CopyBackup(request.tree, copy, [&] { progress.Tick(); });
    const std::string root = FindRoot(copy, request.tree);
    RequireTelephony(request, root);
    for (const Lack& lack : CompleteRoot(root))
        result["lacks"].push_back({{"what", lack.what}, {"means", lack.means}});
    fs::create_directory(scratch);

    const auto from = ReadLabel(root, "etc/orix-conf/config_label.txt");
    const auto to = ReadLabel(root, "etc/default-conf/config_label.txt");
    result["verdict"]["from"] = from.value_or("");
    result["verdict"]["to"] = to.value_or("");
    const std::string binary = request.binary.empty() ? "" : fs::canonical(request.binary).string();
    RunInSandbox(
        {root, scratch, binary, request.configRoot, request.orixPath, !request.apply.empty()},
        Stage(progress));

    Json ran = Json::parse(ReadAll(scratch + "/result.json"));
    result["report"] = ReadAll(scratch + "/mend.log");
    const bool isLabelled = from && to;
    const bool wasDue = !isLabelled || (from != to && ran["oldStamp"] != *to);
    HandOver(request, root, scratch);
    AddVerdict(result, ran, wasDue, isLabelled && ran["stamp"] == *to);
}

}  // namespace

std::string Text(const Json& json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

Json RehearseSite(const Request& request, Progress& progress) {
    RequireOutputs(request);
    const auto begin = std::chrono::steady_clock::now();
    Json result = EmptyResult(request);
    try {
        Hold(request, progress, result);
    } catch (const std::exception& error) {
        if (Interruption() != 0)
            throw;
        result["verdict"]["summary"] =
            std::string("The rehearsal could not be held: ") + error.what();
    }
    result["seconds"] =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (!request.json.empty())
        WriteFile(request.json, Text(result) + "\n");
    if (!request.html.empty())
        WriteFile(request.html, Page(result));
    return result;
}

}  // namespace rehearse
