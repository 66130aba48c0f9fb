// Mailboxes, voice data, the regional link and the per-file checks, each step on its own.

#include <cstring>
#include <filesystem>
#include <sstream>

#include "steps/services/voicemail_migration.h"
#include "tests/support/steps.h"

namespace fs = std::filesystem;

namespace {

class Services : public Steps {
protected:
    Services() { extensions = {"21", "22"}; }

    const std::string& Migrate(const std::string& old) {
        Put("voicemaildb", old);
        return Run("2.4.8", &ConfigUpgrader::MigrateVoicemail);
    }
};

}  // namespace

TEST_F(Services, MailboxSizesBecomeShares) {
    EXPECT_EQ(MailboxPortion(2, 3), 66) << "rounded down";
    EXPECT_EQ(MailboxPortion(256, 100), 0) << "cut to 8 bits";
    struct Case {
        const char* storage;
        int internal;
        int usb;
        const char* sizes;   // of 21, 22 and the attendant
        const char* shares;  // likewise
    };
    const Case cases[] = {{"bbram", 1000, 9, "100|300|50|", "10|30|5|"},
                          {"usb", 9, 1000, "100|300|50|", "10|30|5|"},
                          {"usb", 9, 0, "100|300|0|", "25|75|0|"},
                          {"usb", 9, 0, "0|0|none|", "0|0|0|"},
                          {"bbram", 100, 9, "300|256|255|", "44|0|255|"}};
    for (const Case& test : cases) {
        std::string old = "[99|mail_box_size=5000|]";  // not ours: no share of the sum
        std::istringstream sizes(test.sizes);
        std::string shares;
        for (const std::string name : {"21", "22", "00"}) {
            std::string size;
            std::getline(sizes, size, '|');
            Remove(name);
            old += "[" + name + "|mail_box_size=" + size + "|zero=1|]";
        }
        Put("voicemaildb", old);
        Open("2.4.3").storageType = test.storage;
        upgrader->appliance.voiceStorageSize = [&](const std::string& path) {
            return path == site.appliance.usbVoiceData ? test.usb : test.internal;
        };
        upgrader->MigrateVoicemail();
        for (const std::string name : {"21", "22", "00"})
            shares += Get(name + "/voicemaildb").erase(0, std::strlen("zero=1|mail_box_portion="));
        EXPECT_EQ(shares, test.shares);
        EXPECT_FALSE(Has("voicemaildb"));
        EXPECT_EQ(upgrader->liveExtensions.size(), 2U) << "the attendant is no extension";
    }
}

TEST_F(Services, MailboxesMoveAndOthersGetTheTemplate) {
    Remove("22");
    PutFactory("22/voicemaildb", "voice_data_folder=/own|");
    PutFactory("default/voicemaildb", "a=1|voice_data_folder=/v/|");
    Migrate("");
    EXPECT_EQ(Get("21/voicemaildb"), "a=1|voice_data_folder=/v/21|");
    EXPECT_EQ(Get("22/voicemaildb"), "voice_data_folder=/own|") << "a template of its own";
    EXPECT_EQ(fs::status(site.Live("22")).permissions(), fs::perms::all);
    EXPECT_EQ(log.find("\n=== voicemaildb check ===\nOpening file " + site.Live("voicemaildb") +
                       " -> OK\n\nOpening section 21 in old voicemaildb -> Failed\nCopied cp -p " +
                       site.Factory("default/voicemaildb ") + site.Live("21\n") + site.Live("22") +
                       " directory created\nOpening section 22 in old voicemaildb -> Failed\n" +
                       "Copied cp -p " + site.Factory("22/voicemaildb ") + site.Live("22\n")),
              0U)
        << log;
    PutFactory("default/voicemaildb", "a=1|");
    Migrate("[22|b=2|]");
    EXPECT_EQ(Get("21/voicemaildb"), "a=1|") << "no folder to name";
    EXPECT_EQ(Get("22/voicemaildb"), "voice_data_folder=/own|b=2|");
    for (const int result : {-1, 127}) {
        site.appliance.runShell = [&](const std::string&) { return result; };
        EXPECT_TRUE(
            Holds(Migrate("[22|]"), "Can't copy vocemeaildb from default for extension21\n"));
    }
}

TEST_F(Services, AttendantRecordingsMoveIntoTheirOwnFolder) {
    const std::string voice = site.Path("voice");
    for (const std::string end : {"", "/"}) {
        site.Remove(voice);
        for (const char* name : {"/a.wav", "/b.wav", "/21/c.wav"})
            site.Write(voice + name, "sound");
        const std::string folder = "|voice_data_folder=" + voice + end + "|]";
        Migrate("[00" + folder + "[21" + folder);
        EXPECT_EQ(Get("00/voicemaildb"), "voice_data_folder=" + voice + "/00|");
        EXPECT_EQ(Get("21/voicemaildb"), "voice_data_folder=" + voice + end + "|");
        for (const char* name : {"/00/a.wav", "/00/b.wav", "/21/c.wav"})
            EXPECT_EQ(site.Read(voice + name), "sound") << name;
        EXPECT_FALSE(site.Exists(voice + "/a.wav"));
        EXPECT_TRUE(Holds(log, voice + "/00 directory created\nMade command mv " + voice + "/*.* " +
                                   voice + "/00\n"));
    }
    site.appliance.runShell = [](const std::string&) { return 127; };
    EXPECT_TRUE(Holds(Migrate("[00|voice_data_folder=" + voice + "|]"),
                      "Can't copy files to " + voice + "/00\n"));
    site.Write(site.Path("none/x.wav"), "sound");
    fs::create_symlink("nowhere", site.Path("none/00"));
    EXPECT_TRUE(Holds(Migrate("[00|voice_data_folder=" + site.Path("none") + "|]"),
                      "Can't create directory " + site.Path("none/00\n")));
    EXPECT_EQ(Get("00/voicemaildb"), "voice_data_folder=" + site.Path("none/00|"));
}

TEST_F(Services, AMailboxThatCannotMoveKeepsTheOldFile) {
    const std::string old = "[21|a=1|][22|a=2|]";
    Put("21/voicemaildb", malformed);
    EXPECT_TRUE(Holds(Migrate(old), "MINOR ERROR: Invalid file: " + site.Live("21/voicemaildb\n")));
    EXPECT_EQ(Get("21/voicemaildb"), malformed);
    EXPECT_EQ(Get("22/voicemaildb"), "a=2|") << "the next one moves";
    EXPECT_EQ(Get("voicemaildb"), old);

    Unmakeable("21");
    EXPECT_TRUE(Holds(Migrate(old), "Can't create dir for extension 21\nOpening section 22 in"));
    EXPECT_EQ(Get("voicemaildb"), old);
    Migrate("[22|a=3|]");
    EXPECT_FALSE(Has("voicemaildb")) << "21 had nothing in it to lose";

    Remove("21");
    Put("21/voicemaildb", "");
    Unmakeable("22/voicemaildb");
    Migrate(old);
    EXPECT_EQ(Get("voicemaildb"), old) << "a save that failed";

    Migrate(malformed);
    EXPECT_TRUE(Holds(log, "MINOR ERROR: Invalid file: " + site.Live("voicemaildb") + "\n"));
    EXPECT_FALSE(Holds(log, "Opening section") || Holds(log, "Done"));
    EXPECT_EQ(Get("voicemaildb"), malformed);

    extensions = {"../x", ""};
    Migrate("[../x|a=1|]");
    EXPECT_FALSE(Has("../x"));
    EXPECT_TRUE(Has("voicemaildb"));
}

TEST_F(Services, RegionalLinkLeadsToTheCountry) {
    // rc.conf (null: unreadable) and the factory's, regional_dirs below the unit (null: absent),
    // the link below the unit (null: none) and what is reported.
    const char* const cases[][5] = {
        {"COUNTRY=IE|", "COUNTRY=US|", "r", "r/IE", "Reading counrty name -> IE\nCreated link "},
        {"COUNTRY=IE|", "", nullptr, "usr/share/regional/IE", "-> IE\nCreated link "},
        {"LANG=de|", "COUNTRY=IE|", "r/", "r/IE",
         "-> OK\n Reading counrty name -> IE\nCreated link "},
        {"", "", "r", "rUS", "No country selected.US is set as Default\nCreated link "},
        {nullptr, "", "r/", "r/US", "No country selected.US is set as Default\nCreated link "},
        {"COUNTRY=XX|", "", "r", nullptr, "-> XX\nNo directory for selected country, can't "},
    };
    const std::string& settings = site.appliance.liveSystemSettings;
    for (const char* name : {"r/IE", "r/US", "rUS"})
        fs::create_directories(site.Path(name));
    for (const auto& [live, factory, below, link, reported] : cases) {
        site.Remove(settings);
        Remove("regional");
        if (live != nullptr)
            site.Write(settings, Text(live));
        else
            fs::create_directories(settings);
        site.Write(site.appliance.factorySystemSettings, Text(factory));
        const std::string dirs = below != nullptr ? site.Path(below) : "";
        Put("linedb", "[general|" + (dirs.empty() ? "" : "regional_dirs=" + dirs + "|") + "]");
        EXPECT_TRUE(Holds(Run("5.0.0", &ConfigUpgrader::CheckVoiceDataAndLinks), reported)) << log;
        EXPECT_EQ(fs::is_symlink(site.Live("regional")), link != nullptr);
        if (link != nullptr) {
            EXPECT_EQ(fs::read_symlink(site.Live("regional")), site.Path(link));
            EXPECT_TRUE(Holds(log, site.Live("regional to ") + site.Path(link) + "\n"));
        }
        EXPECT_EQ(Get("linedb"), "[general|regional_dirs=" +
                                     (dirs.empty() ? site.appliance.regionalDirs : dirs) + "|]");
    }
    Put("linedb", "[other|]");
    Run("5.0.0", &ConfigUpgrader::CheckVoiceDataAndLinks);
    EXPECT_EQ(Get("linedb"), "[other|]") << "without a general section: no link";
}

TEST_F(Services, AnExistingLinkStaysAndSettingsAreLearned) {
    const std::pair<const char*, const char*> cases[] = {
        {"LANG=de|VOICEDATA_LOCATION=usb|COUNTRY=IE|", "de usb"},
        {"VOICEDATA_LOCATION=disk|", "C bbram"},
        {"LANG=fr|", "fr bbram"},
    };
    const std::string& settings = site.appliance.liveSystemSettings;
    fs::create_symlink(site.Path("usr/share/regional/US"), site.Live("regional"));
    for (const auto& [text, learned] : cases) {
        site.Write(settings, Text(text));
        Run("5.0.0", &ConfigUpgrader::CheckVoiceDataAndLinks);
        EXPECT_EQ(upgrader->systemLanguage + " " + upgrader->storageType, learned);
        EXPECT_EQ(log, "\n=== Link check ===\n\n=== Voicedata storage check ===\nOpening file: " +
                           settings + " -> OK\n" +
                           (Holds(text, "VOICEDATA") ? "" : "\t!!! no entry in  file !!!\n ") +
                           "\tstorage type is set " + upgrader->storageType + "\n\n Done...\n");
        EXPECT_EQ(fs::read_symlink(site.Live("regional")), site.Path("usr/share/regional/US"));
    }
}

TEST_F(Services, FileRules) {
    const std::string added = "\t- added entry \"k\" with value \"2\"";
    const std::string section =
        "\t- section \"t\" doesn't exist,- copy from default-conf will be set\n";
    const std::string fwd = "\tin file: PATH\n\tcorrecting fwd type (";
    const std::string fax = "\tin file: PATH\n\tUpdate fax parameters\n";
    const std::string faxOn =
        "special_fax_transport_on=1|transparent_fax_on=1|outgoing_fax_only=0|";
    const std::string common = "[common|min_rtp_port=1|max_rtp_port=2|call_admission_control=";
    const std::string cng = "\t- CNG for codec - s is switched ";
    const std::string redirect = "zero_out_redirect_address=";
    // The file and its version, its text ("(missing)": there is none), the factory's, the text
    // afterwards (empty: as before) and the report, in which PATH stands for the file; INVALID: one
    // of the two cannot be read.
    const std::string cases[][6] = {
        // What the factory has more.
        {"x.cfg", "5.0.0", "[s|k=|]", "[s|k=2|]", "", ""},
        {"x.cfg", "5.0.0", "[s|a=1|]", "[s|k=2|]", "[s|a=1|k=2|]",
         added + " to section \"s\" from default-conf\n"},
        {"x.cfg", "5.0.0", "[s|]", "[t|k=2|][|z=1|]", "[s|][t|k=2|]", section},
        {"x.cfg", "5.0.0", "a=1|", "k=2|", "a=1|k=2|", added + " from default-conf\n"},
        {"x.cfg", "5.0.0", "(missing)", "k=2|[s|k=2|]", "", ""},
        {"x.cfg", "5.0.0", "a=1|", "(missing)", "", ""},
        // Media.
        {"rtp.cfg", "5.0.0", common + "0|]", "", common + "1|]",
         "\t- Call admission control switched on\n"},
        {"rtp.cfg", "2.3.0", "[s|cng=0|]", "[s|cng=1|]", "[s|cng=1|]",
         cng + "ON (as in default conf)\n"},
        {"rtp.cfg", "3.0.20", "[s|][t|packets_recover_count=4|]", "",
         "[s|][t|packets_recover_count=0|]", ""},
        {"stun.cfg", "2.3.28", "UDP Map Time To Life=5|", "", "UDP Map Time To Life=300|",
         "\t- changing UDP Map Time To Life value from minutes to seconds\n"},
        {"stun.cfg", "2.3.28", "a=1|", "", "", ""},
        {"fax.cfg", "5.0.0", "[T38|fax_rate=1|fax_udp_ec=1|k=1|]", "[T38|fax_udp_ec=2|k=2|]",
         "[T38|fax_rate=1|fax_udp_ec=2|k=1|]", ""},
        // Numbering and routing: records without a name.
        {"dialplan.cfg", "5.0.0", "[|pattern=1|section_id=4|][|pattern=2|section_id=9|]",
         "[|pattern=2|x=1|][|pattern=3|section_id=2|][|pattern=5|][n|pattern=6|]",
         "[|pattern=1|section_id=4|][|pattern=2|section_id=9|][|pattern=3|section_id=10|]"
         "[|pattern=5|section_id=11|]",
         ""},
        {"dialplan.cfg", "2.4.50", "[|pattern=9|][|pattern=9|][|pattern=00|][|pattern=0|]", "",
         "[|pattern=0|]", ""},
        {"dialplan.cfg", "2.4.51", "[|pattern=9|][|pattern=00|][|pattern=9|]", "", "[|pattern=00|]",
         ""},
        {"localrouttabledb", "3.0.0", "[|dialing_template=1|id=3|]",
         "[|dialing_template=1|id=8|][|dialing_template=2|id=8|]",
         "[|dialing_template=1|id=3|][|dialing_template=2|id=4|]", ""},
        {"localrouttabledb", "3.0.1", "a=1|", "k=2|[s|k=2|]", "a=1|k=2|",
         added + " from default-conf\n"},
        // Services of an extension.
        {"21/servicesdb", "2.4.10", "call_forwarding_type=None|call_forwarding_mode=Busy|", "",
         "call_forwarding_mode=Unconditional|call_forwarding_enabled=0|" + faxOn,
         fwd + "None) to -> mode: Unconditional, service is: OFF\n" + fax},
        {"21/servicesdb", "2.4.10", "call_forwarding_type=Busy|", "",
         "call_forwarding_enabled=1|call_forwarding_mode=Busy|" + faxOn,
         fwd + "Busy) to -> mode: Busy, service is: ON\n" + fax},
        {"21/servicesdb", "3.0.20", "fax_mail_service_on=0|", "", "fax_mail_service_on=1|" + faxOn,
         "\tin file: PATH\n\tset fax_mail_service_on=1\n" + fax},
        {"21/servicesdb", "3.0.99", "(missing)", "k=2|", faxOn, fax},
        {"servicecodedb", "3.1.2", "CallPark=1|", "", "CallPark=f5,*5|",
         "\n\tChanged CallPark=f5,*5.\n"},
        {"21/voicemaildb", "3.1.6", "zero_out=1|" + redirect + "|", "",
         "zero_out=0|" + redirect + "|", "\n\tSet zero_out=0.\n"},
        {"21/voicemaildb", "3.1.6", "zero_out=1|" + redirect + "22|", "", "", ""},
        // A file that cannot be read, on either side.
        {"servicecodedb", "3.1.2", malformed, "k=2|", "", "INVALID"},
        {"servicecodedb", "3.1.2", "a=1|", malformed, "", "INVALID"},
    };
    for (const auto& [name, version, before, factory, after, report] : cases) {
        const std::string path = site.Live(name);
        Put(name, before);
        PutFactory(name, factory);
        if (before == "(missing)")
            Remove(name);
        if (factory == "(missing)")
            site.Remove(site.Factory(name));
        Open(version).CheckConfigFile({path, site.Factory(name)});
        TakeLog();
        const std::string what = name + " at " + version + "\n";
        EXPECT_EQ(Get(name), after.empty() ? before : after) << what << log;
        std::string expected = "\n=== " + path + " check ===\n" + report + "\n Done...\n";
        if (report == "INVALID") {
            const std::string& bad = before == malformed ? path : site.Factory(name);
            expected = "MINOR ERROR: Invalid file: " + bad + "\n\n=== " + path + " check ===\n";
        }
        for (std::size_t at = 0; (at = expected.find("PATH")) != std::string::npos;)
            expected.replace(at, 4, path);
        EXPECT_EQ(log, expected) << what;
    }
}

TEST_F(Services, FilesThatOthersReadFromOrConvert) {
    Put("rtp.cfg", "[common|min_rtp_port=6000|]");
    Open("5.0.0").rtpMaxPort = "kept";
    upgrader->CheckConfigFile({site.Live("rtp.cfg"), site.Path("none")});
    EXPECT_EQ(upgrader->rtpMinPort + " " + upgrader->rtpMaxPort, "6000 kept");
    for (const std::string profile : {"", "slow"}) {
        Put("timerprofile.cfg", "timer_profile=old|");
        Open("5.0.0").sipTimerProfile = profile;
        upgrader->CheckConfigFile({site.Live("timerprofile.cfg"), site.Path("none")});
        EXPECT_EQ(Get("timerprofile.cfg"),
                  profile.empty() ? "timer_profile=old|" : "timer_profile=slow|");
        EXPECT_EQ(Holds(upgrader->report, "timer profile changed to: slow, from sip.cfg\n"),
                  !profile.empty());
    }
}
