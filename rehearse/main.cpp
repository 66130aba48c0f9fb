#include <CLI/CLI.hpp>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <fmt/format.h>
#include <string>
#include <utility>

#include "rehearse/base/failure.h"
#include "rehearse/base/progress.h"
#include "rehearse/base/text_file.h"
#include "rehearse/fleet/fleet.h"
#include "rehearse/site/inside.h"
#include "rehearse/site/site.h"
#include "rehearse/verdict/outcome.h"

namespace {

constexpr int notHeld = 4;
constexpr int wrongUsage = 64;

struct CommandLine {
    rehearse::Request site;
    rehearse::FleetRequest fleet;
    unsigned secondsAtMost = 600;
    int inside = -1;
    bool isQuiet = false;
};

void Describe(CLI::App& app, CommandLine& line) {
    app.description(
        "Rehearses the upgrade of a telephony appliance on a copy of its backup, in a sandbox, and\n"
        "tells what it would mean for the site. TREE is never changed.\n");
    app.footer(
        "\nTREE, a directory or a tar archive of one (.tar, .gz, .xz, .zst), holds\n"
        "  etc/orix-conf         the backup: the live configuration\n"
        "  etc/default-conf      from the new firmware: the factory configuration\n"
        "  proc/orix             from the unit: the kernel's hardware facts\n"
        "  mnt/bbram             from the unit: the voice-mail storage\n"
        "  usr/share/regional    from the new firmware: the per-country files\n"
        "  bin/rtsync            from the new firmware: the appliance's own tool\n"
        "\nExit status: 0 upgraded or up to date without a problem, 1 with problems to look at,\n"
        "2 not or partly upgraded, 3 the program crashed or hung, 4 the rehearsal could not be\n"
        "held, 64 a wrong command line. Of a fleet, the worst of its sites; with a baseline: 0 all\n"
        "unchanged or fixed, 1 something regressed, changed or unstable, 4 something could not be\n"
        "compared.\n");
    rehearse::Request& site = line.site;
    rehearse::FleetRequest& fleet = line.fleet;
    app.add_option("TREE", site.tree, "The backup");
    app.add_option("CONFIG_ROOT", site.configRoot,
                   "setupmend's argument, as the appliance sees it, such as "
                   "/etc/orix-conf/telephony; anywhere in TREE");
    app.add_option("--html", site.html, "Write a page that shows everything")->type_name("PAGE");
    app.add_option("--json", site.json, "Write everything as JSON; - for standard output")
        ->type_name("FILE");
    app.add_option("--explain", site.explain,
                   "Tell the way of each setting whose place or value contains TEXT")
        ->type_name("TEXT");
    app.add_flag("--show-secrets", site.showsSecrets,
                 "Tell passwords, PINs and keys as they are, in page, JSON and verdict");
    app.add_option("--apply", site.apply, "Leave the upgraded copy, with its report, in OUT")
        ->type_name("OUT");
    app.add_option("--report", site.report, "Write the report (mend.log)")->type_name("FILE");
    app.add_option("--diff", site.diff, "Write all changes, for git apply")->type_name("FILE");
    app.add_option("--orix-path", site.orixPath, "ORIX_PATH of the appliance")->type_name("PATH");
    app.add_option(
           "--binary", site.binary,
           "Run this setupmend, the one to be shipped, and hold it against the one built in")
        ->type_name("FILE");
    app.add_option("--firmware", site.firmware,
                   "The candidate's tree, or an archive of it: its etc/default-conf, "
                   "usr/share/regional and bin take the place of the backup's")
        ->type_name("FIRMWARE");
    app.add_option("--expect", site.expected, "Refuse a firmware of any other version")
        ->type_name("VERSION");
    app.add_option("--waivers", site.waivers,
                   "What is known and accepted (TOML): counted, and no problem")
        ->type_name("FILE");
    app.add_flag("--quiet", line.isQuiet, "No progress on standard error");

    auto* dir = app.add_option("--fleet", fleet.directory,
                               "Rehearse all backups in DIR, with GNU parallel");
    dir->type_name("DIR");
    app.add_option("--out", fleet.out,
                   "Where fleet.html, fleet.json and the sites' pages go (DIR-rehearsed); started "
                   "again, only what changed is rehearsed")
        ->type_name("OUT")
        ->needs(dir);
    for (const char* one : {"--html", "--json", "--apply", "--report", "--diff", "--explain"})
        app.get_option(one)->excludes(dir);
    app.add_option("--jobs", fleet.jobs, "Sites at once, as parallel takes it")->needs(dir);
    app.add_option("--sshlogin", fleet.sshLogins,
                   "More machines, as parallel takes it; they need this program and DIR under the "
                   "same names")
        ->allow_extra_args(false)
        ->needs(dir);
    app.add_option("--only", fleet.only, "Only backups whose names match, such as 'site-00*'")
        ->type_name("PATTERN")
        ->allow_extra_args(false)
        ->needs(dir);
    app.add_flag("--retry", fleet.triesAgain, "Try again what crashed or could not be held")
        ->needs(dir);
    auto* baseline = app.add_option("--baseline", fleet.baseline,
                                    "Compare with the OUT of another run; the exit status tells "
                                    "the comparison alone");
    baseline->type_name("OUT")->needs(dir);
    app.add_option("--against-firmware", fleet.againstFirmware,
                   "Rehearse this firmware first, and compare with it")
        ->type_name("FIRMWARE")
        ->needs(dir)
        ->excludes(baseline);
    app.add_option("--against-binary", fleet.againstBinary, "The same by this program, as --binary")
        ->type_name("FILE")
        ->needs(dir)
        ->excludes(baseline);
    app.add_option("--junit", fleet.junit, "Write the fleet as a test suite, for a CI job")
        ->type_name("FILE")
        ->needs(dir);
    app.add_option("--time-limit", line.secondsAtMost, "Seconds that a site may take")
        ->capture_default_str()
        ->check(CLI::Range(1U, 999'999U));
    // The sandbox starts us so, and a fleet.
    app.add_option("--inside", line.inside)->group("");
    app.add_option("--keep", site.keep)->group("");
    app.add_option("--common", site.common)->group("");
    app.add_option("--programs", site.programs)->group("");
    app.set_version_flag("--version", std::string("setupmend-rehearse ") + SETUPMEND_VERSION);
}

int RehearseOne(const CommandLine& line) {
    rehearse::Rehearsed rehearsed;
    {
        rehearse::Progress progress(!line.isQuiet, line.secondsAtMost);
        rehearsed = rehearse::RehearseSite(line.site, progress);
    }
    const bool isJson = line.site.json == "-";  // and nothing else
    fmt::print(isJson ? stderr : stdout, "{}", rehearse::VerdictText(rehearsed.result));
    if (!line.site.explain.empty())
        fmt::print("\n{} of \"{}\":\n", rehearsed.explained.empty() ? "Nothing" : "The ways",
                   rehearse::Printable(line.site.explain));
    for (const std::string& text : rehearsed.explained)
        fmt::print("{}\n", rehearse::PrintableLine(text));
    return rehearsed.result.verdict.exitStatus;
}

int Run(int argc, char** argv) {
    CommandLine line;
    CLI::App app;
    Describe(app, line);
    try {
        app.parse(argc, argv);
        if (line.site.tree.empty() && line.fleet.directory.empty())
            throw CLI::RequiredError("TREE");
        // In the place of TREE there is DIR.
        if (!line.fleet.directory.empty() && !line.site.configRoot.empty())
            throw CLI::ExtrasError({line.site.configRoot});
        if (!line.fleet.directory.empty())
            line.site.configRoot = std::exchange(line.site.tree, "");
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : wrongUsage;
    }
    if (line.inside >= 0)
        return rehearse::RunInside({line.site.configRoot, line.site.explain,
                                    !line.site.apply.empty(), !line.site.diff.empty(),
                                    !line.site.binary.empty(), line.site.showsSecrets,
                                    line.inside});
    std::setlocale(LC_CTYPE, "C.UTF-8");  // archives name their files so
    rehearse::CatchInterrupts();
    line.fleet.secondsAtMost = line.secondsAtMost;
    if (!line.fleet.directory.empty())
        return rehearse::RehearseFleet(line.fleet, line.site, !line.isQuiet);
    return RehearseOne(line);
}

}  // namespace

int main(int argc, char** argv) {
    // Whoever starts us may ignore it, and no child could be waited for.
    std::signal(SIGCHLD, SIG_DFL);
    try {
        return Run(argc, argv);
    } catch (const rehearse::Misuse& error) {
        fmt::print(stderr, "setupmend-rehearse: {}\n", rehearse::Printable(error.what()));
        return wrongUsage;
    } catch (const rehearse::OtherProgram& error) {
        fmt::print(stderr, "setupmend-rehearse: {}\n", rehearse::Printable(error.what()));
        return rehearse::OtherProgram::exitStatus;
    } catch (const std::exception& error) {
        fmt::print(stderr, "setupmend-rehearse: {}\n", rehearse::Printable(error.what()));
        return rehearse::Interruption() != 0 ? 128 + rehearse::Interruption() : notHeld;
    }
}
