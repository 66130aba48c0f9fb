// Whole runs on trees that somebody spoilt on purpose: nothing is executed, nothing outside goes,
// nothing blocks, nothing grows beyond its input.

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/site.h"

namespace fs = std::filesystem;

TEST(Hostile, NamesAndValuesAreNeverMoreThanText) {
    Site site;
    const std::string canary = site.Path("canary");
    site.Write(site.Path("outside/keep"), "kept");
    const std::string hostile[] = {"../../../outside",
                                   "..",
                                   ".",
                                   "/etc",
                                   "a b",
                                   "$(touch " + canary + ")",
                                   "`touch " + canary + "`",
                                   "x;touch " + canary + ";",
                                   "x'; touch " + canary + "; '",
                                   "\"$(touch " + canary + ")\"",
                                   "-rf",
                                   "*",
                                   "%n%s%n%s",
                                   "|touch " + canary,
                                   "a\rb",
                                   std::string("nul\0l", 5)};
    std::string extensions = site.Read(site.Live("extensiondb"));
    std::string lines = "section general\n{\nregional_dirs=" + canary +
                        "/$(touch x)\nmodify=%n\n}\nsection attendant\n{\nextension=00\n}\n";
    std::string mailboxes;
    std::string callers;
    for (const std::string& text : hostile) {
        extensions += "section " + text + "\n{\nfn_number=" + text + "\npassword=" + text + "\n}\n";
        lines += "section line_" + text + "\n{\nextension=" + text + "\n}\n";
        mailboxes += "section " + text + "\n{\nvoice_data_folder=" + text + "\n}\n";
        callers += "section\n{\ncaller_type=" + text + "\ncaller=" + text +
                   "\nextensions_list=" + text + "\n}\n";
    }
    mailboxes += "section 00\n{\nvoice_data_folder=$(touch " + canary + ")\n}\n";
    site.Write(site.Live("extensiondb"), extensions);
    site.Write(site.Live("linedb"), lines);
    site.Write(site.Live("voicemaildb"), mailboxes);
    site.Write(site.Live("21/huntdb"), callers);
    site.Write(site.appliance.liveSystemSettings,
               "COUNTRY=../../$(touch " + canary + ")\nLANG=%n\n");
    const fs::path home = fs::current_path();
    fs::current_path(site.Path("tmp"));
    const std::string log = site.Upgrade();
    fs::current_path(home);
    EXPECT_NE(log.find(" is set in linedb\n"), std::string::npos);
    EXPECT_NE(log.find("%n%s%n%s"), std::string::npos) << "as it stands";
    for (const auto& entry : fs::recursive_directory_iterator(site.Path("")))
        EXPECT_NE(entry.path().filename(), "canary") << entry.path();
    EXPECT_EQ(site.Read(site.Path("outside/keep")), "kept");
    EXPECT_EQ(fs::directory_iterator(site.Path("outside"))->path().filename(), "keep");

    // Attendants are removed by their names in the index.
    site.Write(site.appliance.eeprom, "restriction=br\n");
    site.SetLiveVersion("4.9.9");
    Configuration::MultiSectionFile index(site.Live("extensiondb"));
    index.GotoSection("attendant");
    int number = 10;
    for (const std::string& text : hostile)
        index.AddSectionEntry("att_" + std::to_string(number++), text);
    index.GotoSection("extension");
    index.Save(true, nullptr);
    Configuration::MultiSectionFile linedb(site.Live("linedb"));
    linedb.GotoSection("general");
    linedb.DeleteSectionEntry("current_version");
    linedb.Save(true, nullptr);
    EXPECT_NE(site.Upgrade().find("\tRemove Attendant: ../../../outside\n"), std::string::npos);
    EXPECT_EQ(site.Read(site.Path("outside/keep")), "kept");
    EXPECT_TRUE(site.Exists(site.Live("linedb")));
}

TEST(Hostile, SizeCostsNoMoreThanItsShare) {
    Site site;
    const std::string value(1 << 20, 'v');
    site.Write(site.Live("sip.cfg"), "Port=" + value + "\nlog level=1\n");
    std::string dials;
    for (int i = 0; i < 100'000; ++i)
        dials += "section\n{\nuser_name=020\n}\n";
    site.Write(site.Live("21/speedcalldb"), dials);
    const std::string log = site.Upgrade();
    EXPECT_NE(log.find(" is set in linedb\n"), std::string::npos);
    EXPECT_NE(site.Read(site.Live("sip.cfg")).find("udp port=" + value + "\n"), std::string::npos);
    EXPECT_NE(site.Read(site.Live("21/speedcalldb")).find("section_id=100000\n"),
              std::string::npos);
    EXPECT_LT(site.Read(site.Live("21/speedcalldb")).size(), 4 * dials.size());
    EXPECT_LT(log.size(), 10 * (dials.size() + value.size()));
}

TEST(Hostile, NothingThatIsNoFileBlocksTheRun) {
    alarm(60);  // a run that hangs ends the test program
    using Make = void (*)(const std::string&);
    const Make makers[] = {
        [](const std::string& path) { mkfifo(path.c_str(), 0666); },
        [](const std::string& path) { fs::create_symlink("/dev/zero", path); },
        [](const std::string& path) { fs::create_symlink(fs::path(path).filename(), path); },
        [](const std::string& path) { fs::create_directories(path + "/sub"); },
    };
    for (const Make make : makers) {
        Site site;
        for (const char* name :
             {"sip.cfg", "nat.cfg", "rtp.cfg", "stun.cfg", "dialplan.cfg", "isdn.cfg", "hwinfo",
              "voicemaildb", "localrouttabledb", "autologindb", "21/servicesdb", "21/huntdb",
              "21/addresspatterndb", "21/voicemaildb", "22", "isdn/trunk0.cfg", "dspload.cfg"}) {
            site.Remove(site.Live(name));
            make(site.Live(name));
        }
        for (const std::string& path :
             {site.appliance.hwInfo, site.appliance.eeprom, site.appliance.lastError,
              site.appliance.liveSystemSettings, site.appliance.liveConf + "stun.cfg"}) {
            site.Remove(path);
            make(path);
        }
        EXPECT_NE(site.Upgrade().find(" is set in linedb\n"), std::string::npos);
        EXPECT_NE(site.Read(site.Live("extensiondb")).find("section 23\n"), std::string::npos)
            << "what could not be split stays";
        EXPECT_NE(site.Read(site.Live("gatewaydb")).find("subtype=onboard\n"), std::string::npos)
            << "what is a file is converted";
    }
    alarm(0);
}
