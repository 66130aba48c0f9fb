// Whole runs on trees that somebody spoilt on purpose: nothing is executed, nothing outside goes,
// nothing blocks, nothing grows beyond its input.

#include <sys/stat.h>
#include <unistd.h>

#include "platform/string_utils.h"
#include "tests/support/steps.h"

namespace fs = std::filesystem;

namespace {

class Hostile : public Steps {};

}  // namespace

TEST_F(Hostile, NamesAndValuesAreNeverMoreThanText) {
    const std::string canary = site.Path("canary");
    site.Write(site.Path("outside/keep"), "kept");
    const std::string touch = "touch " + canary;
    std::vector<std::string> hostile = {"../../../outside", "..",  ".", "/etc", "a b", "-rf", "*",
                                        "%n%s%n%s",         "a\rb"};
    hostile.push_back(std::string("nul\0l", 5));
    for (const char* command : {"$(T)", "`T`", "x;T;", "x'; T; '", "\"$(T)\"", "|T"})
        hostile.push_back(StringUtils::ReplaceString(command, "T", touch, 0));
    // In the short form "|" would end a line, and the names hold it.
    const auto section = [](const std::string& name, const std::string& key,
                            const std::string& value) {
        return "section " + name + "\n{\n" + key + "=" + value + "\n}\n";
    };
    std::string extensiondb = site.Read(site.Live("extensiondb"));
    std::string lines = Text("[general|regional_dirs=" + canary + "/$(touch x)|modify=%n|]" +
                             "[attendant|extension=00|]");
    std::string mailboxes;
    std::string callers;
    for (const std::string& text : hostile) {
        extensiondb += section(text, "fn_number", text);
        lines += section("line_" + text, "extension", text);
        mailboxes += section(text, "voice_data_folder", text);
        callers +=
            section("", "caller_type", text + "\ncaller=" + text + "\nextensions_list=" + text);
    }
    site.Write(site.Live("extensiondb"), extensiondb);
    site.Write(site.Live("linedb"), lines);
    site.Write(site.Live("voicemaildb"),
               mailboxes + section("00", "voice_data_folder", "$(touch " + canary + ")"));
    site.Write(site.Live("21/huntdb"), callers);
    site.Write(site.appliance.liveSystemSettings, "COUNTRY=../../$(" + touch + ")\nLANG=%n\n");
    const fs::path home = fs::current_path();
    fs::current_path(site.Path("tmp"));
    log = site.Upgrade();
    fs::current_path(home);
    EXPECT_TRUE(Holds(log, " is set in linedb\n"));
    EXPECT_TRUE(Holds(log, "%n%s%n%s")) << "as it stands";
    for (const auto& entry : fs::recursive_directory_iterator(site.Path("")))
        EXPECT_NE(entry.path().filename(), "canary") << entry.path();
    EXPECT_EQ(site.Read(site.Path("outside/keep")), "kept");
    EXPECT_EQ(fs::directory_iterator(site.Path("outside"))->path().filename(), "keep");
}

TEST_F(Hostile, SizeCostsNoMoreThanItsShare) {
    const std::string value(1 << 20, 'v');
    Put("sip.cfg", "Port=" + value + "|log level=1|");
    std::string dials;
    for (int i = 0; i < 6'000; ++i)
        dials += "section\n{\nuser_name=020\n}\n";
    site.Write(site.Live("21/speedcalldb"), dials);
    log = site.Upgrade();
    EXPECT_TRUE(Holds(log, " is set in linedb\n"));
    EXPECT_TRUE(Holds(site.Read(site.Live("sip.cfg")), "udp port=" + value + "\n"));
    const std::string numbered = site.Read(site.Live("21/speedcalldb"));
    EXPECT_TRUE(Holds(numbered, "section_id=6000\n"));
    EXPECT_LT(numbered.size(), 4 * dials.size());
    EXPECT_LT(log.size(), 10 * (dials.size() + value.size()));
}

TEST_F(Hostile, NothingThatIsNoFileBlocksTheRun) {
    alarm(60);  // a run that hangs ends the test program
    using Make = void (*)(const std::string&);
    const Make makers[] = {
        [](const std::string& path) { mkfifo(path.c_str(), 0666); },
        [](const std::string& path) { fs::create_symlink("/dev/zero", path); },
        [](const std::string& path) { fs::create_symlink(fs::path(path).filename(), path); },
        [](const std::string& path) { fs::create_directories(path + "/sub"); },
    };
    for (const Make make : makers) {
        Site unit;
        for (const char* name :
             {"sip.cfg", "nat.cfg", "rtp.cfg", "stun.cfg", "dialplan.cfg", "isdn.cfg", "hwinfo",
              "voicemaildb", "localrouttabledb", "autologindb", "21/servicesdb", "21/huntdb",
              "21/addresspatterndb", "21/voicemaildb", "22", "isdn/trunk0.cfg", "dspload.cfg"}) {
            unit.Remove(unit.Live(name));
            make(unit.Live(name));
        }
        for (const std::string& path :
             {unit.appliance.hwInfo, unit.appliance.eeprom, unit.appliance.lastError,
              unit.appliance.liveSystemSettings, unit.appliance.liveConf + "stun.cfg"}) {
            unit.Remove(path);
            make(path);
        }
        EXPECT_TRUE(Holds(unit.Upgrade(), " is set in linedb\n"));
        EXPECT_TRUE(Holds(unit.Read(unit.Live("extensiondb")), "section 23\n"))
            << "what could not be split stays";
        EXPECT_TRUE(Holds(unit.Read(unit.Live("gatewaydb")), "subtype=onboard\n"))
            << "what is a file is converted";
    }
    alarm(0);
}
