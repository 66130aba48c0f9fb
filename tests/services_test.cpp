// Mailboxes, voice data, the regional link and the per-file checks, each step on its own.

#include <filesystem>
#include <gtest/gtest.h>

#include "steps/services/voicemail_migration.h"
#include "tests/support/site.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* malformed = "section open\n{\nkey=value\n";

std::string Section(const std::string& name, const std::string& entries) {
    return "section " + name + "\n{\n" + entries + "}\n";
}

bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

class Services : public testing::Test {
protected:
    void Open(const std::string& version) {
        upgrader = site.Upgrader(version);
        upgrader->liveExtensions = {"21", "22"};
        upgrader->attendantExtension = "00";
    }
    std::string Migrate(const std::string& version, const std::string& old) {
        site.Write(site.Live("voicemaildb"), old);
        Open(version);
        upgrader->MigrateVoicemail();
        EXPECT_EQ(upgrader->liveExtensions.size(), 2U) << "the attendant is no extension";
        return site.TakeLog(*upgrader);
    }
    std::string Check(const std::string& version, const std::string& name) {
        Open(version);
        upgrader->CheckConfigFile({site.Live(name), site.Factory(name)});
        return site.TakeLog(*upgrader);
    }
    std::string Live(const std::string& name) const { return site.Read(site.Live(name)); }

    Site site;
    std::unique_ptr<ConfigUpgrader> upgrader;
};

TEST_F(Services, MailboxSizesBecomeShares) {
    EXPECT_EQ(MailboxPortion(2, 3), 66) << "rounded down";
    EXPECT_EQ(MailboxPortion(255, 100), 255);
    EXPECT_EQ(MailboxPortion(256, 100), 0) << "cut to 8 bits";
    EXPECT_EQ(MailboxPortion(300, 100), 44);
    EXPECT_EQ(MailboxPortion(5, 0), 0);
    struct Case {
        const char* version;
        const char* storage;
        int internal;
        int usb;
        const char* sizes[3];  // of 21, 22 and the attendant
        const char* shares[3];
    };
    const Case cases[] = {
        {"2.4.3", "bbram", 1000, 9, {"100", "300", "50"}, {"10", "30", "5"}},
        {"2.4.3", "usb", 9, 1000, {"100", "300", "50"}, {"10", "30", "5"}},
        {"2.4.3", "usb", 9, 0, {"100", "300", "0"}, {"25", "75", "0"}},
        {"2.4.3", "bbram", 0, 9, {"100", "100", "200"}, {"25", "25", "50"}},
        {"2.4.3", "usb", 9, 0, {"0", "0", "none"}, {"0", "0", "0"}},
        {"2.4.3", "bbram", 100, 9, {"300", "256", "255"}, {"44", "0", "255"}},
        {"2.4.4", "bbram", 1000, 9, {"100", "300", "50"}, {nullptr, nullptr, nullptr}},
    };
    for (const Case& test : cases) {
        const char* names[] = {"21", "22", "00"};
        std::string old = Section("99", "mail_box_size=5000\n");  // not ours: no share of the sum
        for (int i = 0; i < 3; ++i) {
            site.Remove(site.Live(names[i]));
            old += Section(names[i], std::string("mail_box_size=") + test.sizes[i] + "\nzero=1\n");
        }
        site.Write(site.Live("voicemaildb"), old);
        Open(test.version);
        upgrader->storageType = test.storage;
        upgrader->appliance.voiceStorageSize = [&](const std::string& path) {
            return path == site.appliance.usbVoiceData ? test.usb : test.internal;
        };
        upgrader->MigrateVoicemail();
        for (int i = 0; i < 3; ++i) {
            const std::string share =
                test.shares[i] != nullptr
                    ? std::string("zero=1\nmail_box_portion=") + test.shares[i] + "\n"
                    : std::string("mail_box_size=") + test.sizes[i] + "\nzero=1\n";
            EXPECT_EQ(Live(std::string(names[i]) + "/voicemaildb"), share) << test.storage;
        }
        EXPECT_FALSE(site.Exists(site.Live("voicemaildb")));
    }
}

TEST_F(Services, MailboxesMoveAndOthersGetTheTemplate) {
    site.Remove(site.Live("22"));
    site.Write(site.Factory("22/voicemaildb"), "voice_data_folder=/own\n");
    site.Write(site.Factory("default/voicemaildb"), "a=1\nvoice_data_folder=/v/\n");
    const std::string log = Migrate("2.4.8", "");
    EXPECT_EQ(Live("21/voicemaildb"), "a=1\nvoice_data_folder=/v/21\n");
    EXPECT_EQ(Live("22/voicemaildb"), "voice_data_folder=/own\n") << "a template of its own";
    EXPECT_EQ(fs::status(site.Live("22")).permissions(), fs::perms::all);
    const std::string old = site.Live("voicemaildb");
    EXPECT_EQ(log.find("\n=== voicemaildb check ===\nOpening file " + old + " -> OK\n\n" +
                       "Opening section 21 in old voicemaildb -> Failed\nCopied cp -p " +
                       site.Factory("default/voicemaildb ") + site.Live("21\n") + site.Live("22") +
                       " directory created\nOpening section 22 in old voicemaildb -> Failed\n" +
                       "Copied cp -p " + site.Factory("22/voicemaildb ") + site.Live("22\n")),
              0U)
        << log;
    site.Write(site.Factory("default/voicemaildb"), "a=1\n");
    Migrate("2.4.8", Section("22", "b=2\n"));
    EXPECT_EQ(Live("21/voicemaildb"), "a=1\n") << "no folder to name";
    EXPECT_EQ(Live("22/voicemaildb"), "voice_data_folder=/own\nb=2\n");
    for (const int result : {-1, 127}) {
        site.appliance.runShell = [&](const std::string&) { return result; };
        EXPECT_TRUE(Holds(Migrate("2.4.8", Section("22", "")),
                          "Can't copy vocemeaildb from default for extension21\n"));
        EXPECT_EQ(Live("21/voicemaildb"), "a=1\n");
    }
}

TEST_F(Services, AttendantRecordingsMoveIntoTheirOwnFolder) {
    for (const std::string end : {"", "/"}) {
        const std::string voice = site.Path("voice");
        site.Remove(voice);
        for (const char* name : {"/a.wav", "/b.wav", "/21/c.wav"})
            site.Write(voice + name, "sound");
        const std::string old = Section("00", "voice_data_folder=" + voice + end + "\n") +
                                Section("21", "voice_data_folder=" + voice + end + "\n");
        const std::string log = Migrate("2.4.8", old);
        EXPECT_EQ(Live("00/voicemaildb"), "voice_data_folder=" + voice + "/00\n");
        EXPECT_EQ(Live("21/voicemaildb"), "voice_data_folder=" + voice + end + "\n");
        for (const char* name : {"/00/a.wav", "/00/b.wav", "/21/c.wav"})
            EXPECT_EQ(site.Read(voice + name), "sound") << name;
        EXPECT_FALSE(site.Exists(voice + "/a.wav"));
        EXPECT_TRUE(Holds(log, voice + "/00 directory created\nMade command mv " + voice + "/*.* " +
                                   voice + "/00\n"));
    }
    site.appliance.runShell = [](const std::string&) { return 127; };
    EXPECT_TRUE(Holds(Migrate("2.4.8", Section("00", "voice_data_folder=" + site.Path("voice\n"))),
                      "Can't copy files to " + site.Path("voice/00\n")));
    site.Write(site.Path("none/x.wav"), "sound");
    fs::create_symlink("nowhere", site.Path("none/00"));
    EXPECT_TRUE(Holds(Migrate("2.4.8", Section("00", "voice_data_folder=" + site.Path("none\n"))),
                      "Can't create directory " + site.Path("none/00\n")));
    EXPECT_EQ(Live("00/voicemaildb"), "voice_data_folder=" + site.Path("none/00\n"));
}

TEST_F(Services, AMailboxThatCannotMoveKeepsTheOldFile) {
    const std::string old = Section("21", "a=1\n") + Section("22", "a=2\n");
    const std::string path = site.Live("21/voicemaildb");
    site.Write(path, malformed);
    std::string log = Migrate("2.4.8", old);
    EXPECT_TRUE(Holds(log, "MINOR ERROR: Invalid file: " + path + "\n"));
    EXPECT_EQ(site.Read(path), malformed);
    EXPECT_EQ(Live("22/voicemaildb"), "a=2\n") << "the next one moves";
    EXPECT_EQ(Live("voicemaildb"), old);

    site.Remove(site.Live("21"));
    fs::create_symlink("nowhere", site.Live("21"));
    log = Migrate("2.4.8", old);
    EXPECT_TRUE(Holds(log, "Can't create dir for extension 21\nOpening section 22 in"));
    EXPECT_TRUE(Holds(log, "\n Done...\n"));
    EXPECT_EQ(Live("voicemaildb"), old);
    Migrate("2.4.8", Section("22", "a=3\n"));
    EXPECT_FALSE(site.Exists(site.Live("voicemaildb"))) << "21 had nothing in it to lose";

    log = Migrate("2.4.3", malformed);
    EXPECT_TRUE(Holds(log, "MINOR ERROR: Invalid file: " + site.Live("voicemaildb") + "\n"));
    EXPECT_FALSE(Holds(log, "Opening section") || Holds(log, "Done"));
    EXPECT_EQ(Live("voicemaildb"), malformed);

    site.Write(site.Live("voicemaildb"), Section("../x", "a=1\n"));
    Open("2.4.8");
    upgrader->liveExtensions = {"../x", ""};
    upgrader->attendantExtension = "";
    upgrader->MigrateVoicemail();
    EXPECT_FALSE(site.Exists(site.Live("../x")));
}

TEST_F(Services, RegionalLinkLeadsToTheCountry) {
    struct Case {
        const char* live;     // rc.conf; null: unreadable
        const char* factory;  // rc.conf
        const char* dirs;     // regional_dirs below the unit; null: absent
        const char* link;     // below the unit; null: none
        const char* reported;
    };
    const Case cases[] = {
        {"COUNTRY=IE\n", "COUNTRY=US\n", "r", "r/IE", "Reading counrty name -> IE\nCreated link "},
        {"COUNTRY=IE\n", "", nullptr, "usr/share/regional/IE", "-> IE\nCreated link "},
        {"LANG=de\n", "COUNTRY=IE\n", "r/", "r/IE",
         "-> OK\n Reading counrty name -> IE\nCreated link "},
        {"", "", "r/", "r/US", "No country selected.US is set as Default\nCreated link "},
        {"", "", "r", "rUS", "No country selected.US is set as Default\nCreated link "},
        {nullptr, "", "r/", "r/US", "No country selected.US is set as Default\nCreated link "},
        {"COUNTRY=XX\n", "", "r", nullptr, "-> XX\nNo directory for selected country, can't "},
    };
    for (const char* name : {"r/IE", "r/US", "rUS"})
        fs::create_directories(site.Path(name));
    for (const Case& test : cases) {
        for (const std::string& path : {site.appliance.liveSystemSettings, site.Live("regional")})
            site.Remove(path);
        if (test.live != nullptr)
            site.Write(site.appliance.liveSystemSettings, test.live);
        else
            fs::create_directories(site.appliance.liveSystemSettings);
        site.Write(site.appliance.factorySystemSettings, test.factory);
        const std::string dirs = test.dirs != nullptr ? site.Path(test.dirs) : "";
        site.Write(site.Live("linedb"),
                   Section("general", dirs.empty() ? "" : "regional_dirs=" + dirs + "\n"));
        Open("5.0.0");
        upgrader->CheckVoiceDataAndLinks();
        const std::string log = site.TakeLog(*upgrader);
        EXPECT_TRUE(Holds(log, test.reported)) << log;
        EXPECT_EQ(fs::is_symlink(site.Live("regional")), test.link != nullptr);
        if (test.link != nullptr) {
            EXPECT_EQ(fs::read_symlink(site.Live("regional")), site.Path(test.link));
            EXPECT_TRUE(Holds(log, site.Live("regional to ") + site.Path(test.link) + "\n"));
        }
        EXPECT_EQ(
            Live("linedb"),
            Section("general",
                    "regional_dirs=" + (dirs.empty() ? site.appliance.regionalDirs : dirs) + "\n"));
    }
    site.Write(site.Live("linedb"), Section("other", ""));
    Open("5.0.0");
    upgrader->CheckVoiceDataAndLinks();
    EXPECT_EQ(Live("linedb"), Section("other", "")) << "without a general section: no link";
}

TEST_F(Services, AnExistingLinkStaysAndSettingsAreLearned) {
    const std::pair<const char*, const char*> cases[] = {
        {"LANG=de\nVOICEDATA_LOCATION=usb\nCOUNTRY=IE\n", "de usb"},
        {"VOICEDATA_LOCATION=disk\n", "C bbram"},
        {"LANG=fr\n", "fr bbram"},
    };
    fs::create_symlink(site.Path("usr/share/regional/US"), site.Live("regional"));
    const std::string linedb = Live("linedb");
    for (const auto& [settings, learned] : cases) {
        site.Write(site.appliance.liveSystemSettings, settings);
        Open("5.0.0");
        upgrader->CheckVoiceDataAndLinks();
        EXPECT_EQ(upgrader->systemLanguage + " " + upgrader->storageType, learned);
        const bool told = Holds(settings, "VOICEDATA");
        EXPECT_EQ(site.TakeLog(*upgrader),
                  "\n=== Link check ===\n\n=== Voicedata storage check ===\nOpening file: " +
                      site.appliance.liveSystemSettings + " -> OK\n" +
                      (told ? "" : "\t!!! no entry in  file !!!\n ") + "\tstorage type is set " +
                      upgrader->storageType + "\n\n Done...\n");
        EXPECT_EQ(fs::read_symlink(site.Live("regional")), site.Path("usr/share/regional/US"));
        EXPECT_EQ(Live("linedb"), linedb);
    }
}

TEST_F(Services, FileRules) {
    struct Case {
        const char* name;
        const char* version;
        std::string live;  // "(missing)": there is none
        std::string factory;
        std::string after;   // empty: as before
        std::string report;  // PATH stands for the live file
    };
    const auto s = [](const std::string& entries) { return Section("s", entries); };
    const std::string none;
    const std::string added = "\t- added entry \"k\" with value \"2\"";
    const std::string fwd = "\tin file: PATH\n\tcorrecting fwd type (";
    const std::string fax = "\tin file: PATH\n\tUpdate fax parameters\n";
    const std::string faxOn =
        "special_fax_transport_on=1\ntransparent_fax_on=1\noutgoing_fax_only=0\n";
    const std::string cac = "\t- Call admission control switched on\n";
    const std::string common = "min_rtp_port=1\nmax_rtp_port=2\ncall_admission_control=";
    const std::string cng = "\t- CNG for codec - s is switched ";
    const std::string stun = "\t- changing UDP Map Time To Life value from minutes to seconds\n";
    const std::string redirect = "zero_out_redirect_address=";
    const auto dial = [](const std::string& pattern, const std::string& rest = "") {
        return "section\n{\npattern=" + pattern + "\n" + rest + "}\n";
    };
    const auto route = [](const std::string& entries) { return "section\n{\n" + entries + "}\n"; };
    const Case cases[] = {
        // What the factory has more.
        {"x.cfg", "5.0.0", s("k=\n"), s("k=2\n"), "", none},
        {"x.cfg", "5.0.0", s("a=1\n"), s("k=2\n"), s("a=1\nk=2\n"),
         added + " to section \"s\" from default-conf\n"},
        {"x.cfg", "5.0.0", s(""), Section("t", "k=2\n") + route("z=1\n"),
         s("") + Section("t", "k=2\n"),
         "\t- section \"t\" doesn't exist,- copy from default-conf will be set\n"},
        {"x.cfg", "5.0.0", "k=\n", "k=2\n", "", none},
        {"x.cfg", "5.0.0", "a=1\n", "k=2\n", "a=1\nk=2\n", added + " from default-conf\n"},
        {"x.cfg", "5.0.0", "(missing)", "k=2\n" + s("k=2\n"), "", none},
        {"x.cfg", "5.0.0", "a=1\n", "(missing)", "", none},
        // Media.
        {"rtp.cfg", "5.0.0", Section("common", common + "0\n"), "",
         Section("common", common + "1\n"), cac},
        {"rtp.cfg", "5.0.0", s("cng=1\n"), "", "", none},
        {"rtp.cfg", "2.3.0", s("cng=0\n"), s("cng=1\n"), s("cng=1\n"),
         cng + "ON (as in default conf)\n"},
        {"rtp.cfg", "2.3.0", s("cng=1\n"), s("cng=0\n"), s("cng=0\n"),
         cng + "OFF (as in default conf)\n"},
        {"rtp.cfg", "2.3.1", s("cng=0\n"), s("cng=1\n"), "", none},
        {"rtp.cfg", "3.0.20", s("") + Section("t", "packets_recover_count=4\n"), "",
         s("") + Section("t", "packets_recover_count=0\n"), none},
        {"rtp.cfg", "3.0.21", s("packets_recover_count=4\n"), "", "", none},
        {"stun.cfg", "2.3.28", "UDP Map Time To Life=5\n", "", "UDP Map Time To Life=300\n", stun},
        {"stun.cfg", "2.3.29", "UDP Map Time To Life=5\n", "", "", none},
        {"stun.cfg", "2.3.28", "a=1\n", "", "", none},
        {"fax.cfg", "5.0.0", Section("T38", "fax_rate=1\nfax_udp_ec=1\nk=1\n"),
         Section("T38", "fax_rate=2\nk=2\n"), Section("T38", "fax_rate=2\nfax_udp_ec=1\nk=1\n"),
         none},
        {"fax.cfg", "5.0.0", Section("T38", "fax_udp_ec=1\n"), Section("T38", "fax_udp_ec=2\n"),
         Section("T38", "fax_udp_ec=2\n"), none},
        // Numbering and routing: records without a name.
        {"dialplan.cfg", "5.0.0", dial("1", "section_id=4\n") + dial("2", "section_id=9\n"),
         dial("2", "x=1\n") + dial("3", "section_id=2\n") + dial("5") + Section("n", "pattern=6\n"),
         dial("1", "section_id=4\n") + dial("2", "section_id=9\n") + dial("3", "section_id=10\n") +
             dial("5", "section_id=11\n"),
         none},
        {"dialplan.cfg", "5.0.0", "# empty\n", dial("3"), "# empty\n" + dial("3", "section_id=1\n"),
         none},
        {"dialplan.cfg", "2.4.50", dial("9") + dial("9") + dial("00") + dial("0"), "", dial("0"),
         none},
        {"dialplan.cfg", "2.4.51", dial("9") + dial("00") + dial("9"), "", dial("00"), none},
        {"localrouttabledb", "3.0.0", route("dialing_template=1\nid=3\n"),
         route("dialing_template=1\nid=8\n") + route("dialing_template=2\nid=8\n"),
         route("dialing_template=1\nid=3\n") + route("dialing_template=2\nid=4\n"), none},
        {"localrouttabledb", "3.0.1", route("dialing_template=1\n"),
         route("dialing_template=2\n") + s("k=2\n"), "", none},
        {"localrouttabledb", "3.0.1", "a=1\n", "k=2\n", "a=1\nk=2\n",
         added + " from default-conf\n"},
        {"gatewaydb", "2.5.0", s("type=MGC\n") + s("type=SIP\nsubtype=z\n") + s("a=1\n"), "",
         s("type=MGC\nsubtype=onboard\n") + s("type=SIP\nsubtype=iplocale\n") + s("a=1\n"), none},
        {"gatewaydb", "2.5.1", s("type=MGC\n"), "", "", none},
        // Services of an extension.
        {"21/servicesdb", "2.4.10", "call_forwarding_type=None\ncall_forwarding_mode=Busy\n", "",
         "call_forwarding_mode=Unconditional\ncall_forwarding_enabled=0\n" + faxOn,
         fwd + "None) to -> mode: Unconditional, service is: OFF\n" + fax},
        {"21/servicesdb", "2.4.10", "call_forwarding_type=Busy\n", "",
         "call_forwarding_enabled=1\ncall_forwarding_mode=Busy\n" + faxOn,
         fwd + "Busy) to -> mode: Busy, service is: ON\n" + fax},
        {"21/servicesdb", "2.4.11", "call_forwarding_type=Busy\n", "",
         "call_forwarding_type=Busy\n" + faxOn, fax},
        {"21/servicesdb", "3.0.20", "fax_mail_service_on=0\n", "",
         "fax_mail_service_on=1\n" + faxOn, "\tin file: PATH\n\tset fax_mail_service_on=1\n" + fax},
        {"21/servicesdb", "3.0.21", "fax_mail_service_on=0\n", "",
         "fax_mail_service_on=0\n" + faxOn, fax},
        {"21/servicesdb", "3.0.99", "(missing)", "k=2\n", faxOn, fax},
        {"21/servicesdb", "3.1.0", "a=1\n", "", "", none},
        {"servicecodedb", "3.1.2", "CallPark=1\n", "", "CallPark=f5,*5\n",
         "\n\tChanged CallPark=f5,*5.\n"},
        {"servicecodedb", "3.1.3", "CallPark=1\n", "", "", none},
        {"21/voicemaildb", "3.1.6", "zero_out=1\n", "", "zero_out=0\n", "\n\tSet zero_out=0.\n"},
        {"21/voicemaildb", "3.1.6", "zero_out=1\n" + redirect + "\n", "",
         "zero_out=0\n" + redirect + "\n", "\n\tSet zero_out=0.\n"},
        {"21/voicemaildb", "3.1.6", "zero_out=1\n" + redirect + "22\n", "", "", none},
        {"21/voicemaildb", "3.1.7", "zero_out=1\n", "", "", none},
        // A file that cannot be read, on either side.
        {"servicecodedb", "3.1.2", malformed, "k=2\n", "", "INVALID"},
        {"servicecodedb", "3.1.2", "a=1\n", malformed, "", "INVALID"},
    };
    for (const Case& test : cases) {
        const std::string path = site.Live(test.name);
        for (const auto& [file, text] :
             {std::pair(path, test.live), std::pair(site.Factory(test.name), test.factory)}) {
            site.Remove(file);
            if (text != "(missing)")
                site.Write(file, text);
        }
        std::string report = test.report + "\n Done...\n";
        if (test.report == "INVALID")
            report = "";
        for (std::size_t at = 0; (at = report.find("PATH")) != std::string::npos;)
            report.replace(at, 4, path);
        const std::string log = Check(test.version, test.name);
        const std::string what = test.name + (" at " + std::string(test.version)) + "\n";
        EXPECT_EQ(site.Read(path), test.after.empty() ? test.live : test.after) << what << log;
        const bool bad = test.report == "INVALID";
        const std::string& culprit = test.live == malformed ? path : site.Factory(test.name);
        EXPECT_EQ(log, (bad ? "MINOR ERROR: Invalid file: " + culprit + "\n" : "") +
                           "\n=== " + path + " check ===\n" + report)
            << what;
    }
}

TEST_F(Services, FilesThatOthersReadFromOrConvert) {
    site.Write(site.Live("rtp.cfg"), Section("common", "min_rtp_port=6000\n"));
    Open("5.0.0");
    upgrader->rtpMaxPort = "kept";
    upgrader->CheckConfigFile({site.Live("rtp.cfg"), site.Path("none")});
    EXPECT_EQ(upgrader->rtpMinPort + " " + upgrader->rtpMaxPort, "6000 kept");
    for (const char* profile : {"", "slow"}) {
        site.Write(site.Live("timerprofile.cfg"), "timer_profile=old\n");
        Open("5.0.0");
        upgrader->sipTimerProfile = profile;
        upgrader->CheckConfigFile({site.Live("timerprofile.cfg"), site.Path("none")});
        const bool set = *profile != '\0';
        EXPECT_EQ(Live("timerprofile.cfg"), set ? "timer_profile=slow\n" : "timer_profile=old\n");
        EXPECT_EQ(Holds(upgrader->report, "timer profile changed to: slow, from sip.cfg\n"), set);
    }
    const char* const cases[][3] = {{"sip.cfg", "5.0.0", "sip"},
                                    {"nat.cfg", "2.4.15", "nat"},
                                    {"nat.cfg", "2.4.16", "nothing"}};
    for (const auto& [name, version, changed] : cases) {
        const std::string log = Check(version, name);
        for (const std::string kind : {"sip", "nat"})
            EXPECT_EQ(Holds(log, "\n=== Changing " + kind + ".cfg... ===\n"), kind == changed)
                << name << version;
    }
}
