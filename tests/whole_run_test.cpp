// Whole upgrades from three labels, compared with expected trees file by file.
//
// The expected trees stand in tests/expected, one text a tree. After a change that is meant to
// change them, UPDATE_EXPECTED=1 writes them anew; read the difference before committing it.

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tests/support/steps.h"

namespace {

constexpr std::uint64_t storageSize = 8'000'000;

std::string Joined(const std::vector<std::string>& files) {
    std::string text;
    for (const std::string& file : files)
        text += "==== " + file + (file.back() == '\n' ? "" : "\n");
    return text;
}

/// The first lines in which two texts differ, instead of two whole trees.
std::string FirstDifference(const std::string& expected, const std::string& actual) {
    std::istringstream left(expected);
    std::istringstream right(actual);
    std::string a;
    std::string b;
    std::string file;
    while (std::getline(left, a)) {
        if (!std::getline(right, b))
            b = "(end)";
        if (a.rfind("==== ", 0) == 0)
            file = a;
        if (a != b)
            return file + "\n- " + a + "\n+ " + b;
    }
    return std::getline(right, b) ? "+ " + b : "";
}

void ExpectTree(const Site& site, const std::string& name) {
    const std::string path = std::string(EXPECTED_TREES) + "/" + name + ".txt";
    const std::string actual = Joined(site.Snapshot());
    if (std::getenv("UPDATE_EXPECTED") != nullptr) {
        std::ofstream(path, std::ios::binary) << actual;
        return;
    }
    const std::string expected = site.Read(path);
    EXPECT_EQ(FirstDifference(expected, actual), "") << "against " << path;
    EXPECT_EQ(expected.size(), actual.size());
}

/// Upgrades, compares, and upgrades again, which must change nothing.
void UpgradeAndCompare(Site& site, const std::string& name) {
    const std::string log = site.Upgrade();
    EXPECT_TRUE(Holds(log, "\tnumber of fxs is set 4\n")) << "text from before the log exists";
    EXPECT_TRUE(Holds(log, "\n=====Current configuration version: 5.1.0 is set in linedb\n"));
    ExpectTree(site, name);
    const std::string before = Joined(site.Snapshot());
    const std::string again = site.Upgrade();
    EXPECT_TRUE(Holds(again, "\tConfigurarion already checked.\n"));
    EXPECT_FALSE(Holds(again, "Current configuration version"));
    EXPECT_EQ(FirstDifference(before, Joined(site.Snapshot())), "");
}

/// The sample as it was after an earlier upgrade, with an older label and without its stamp: the
/// layout of a unit sold with that firmware.
void AgeTo(Site& site, const std::string& version) {
    site.Upgrade();
    site.SetLiveVersion(version);
    Configuration::MultiSectionFile linedb(site.Live("linedb"));
    linedb.GotoSection("general");
    linedb.DeleteSectionEntry("current_version");
    linedb.DeleteSectionEntry("is_ext_length_defined");
    linedb.Save(true, nullptr);
    site.Write(site.Live("isdn/trunk0.cfg"),
               "section trunk\n{\nechoDelay=160\nnetworkside=1\nline_code=ami\n}\n"
               "section isdn_user\n{\nroute_call=DestNumber\nroute_msn_call= 12 , DestNumber\n"
               "ddi_service= Yes\n}\n");
    site.Write(site.Live("21/speedcalldb"), "section\n{\ncall_type=PSTN\nuser_name=0209\n}\n");
    site.Write(site.Live("21/grouplistdb"), "section\n{\naddress_list=22/a/b,23\n}\n");
    site.Write(site.Live("21/voicemaildb"), "zero_out=1\nmail_box_portion=9\n");
    site.Write(site.Live("timerprofile.cfg"), "timer_profile=default\n");
    Configuration::MultiSectionFile sip(site.Live("sip.cfg"));
    sip.GotoSection("sip-common");
    sip.SetSectionEntry("timer_profile", "slow");
    sip.Save(true, nullptr);
}

}  // namespace

class WholeRun : public Steps {
protected:
    WholeRun() {
        site.appliance.voiceStorageSize = [](const std::string&) { return storageSize; };
    }
};

TEST_F(WholeRun, FromTheOldestLayout) {
    UpgradeAndCompare(site, "from-2.2.0");
}

TEST_F(WholeRun, From301) {
    AgeTo(site, "3.0.1");
    UpgradeAndCompare(site, "from-3.0.1");
}

TEST_F(WholeRun, From410) {
    AgeTo(site, "4.1.0");
    UpgradeAndCompare(site, "from-4.1.0");
}

TEST_F(WholeRun, AFileThatIsCutShortStaysAndTheOthersAreConverted) {
    // Every file of the live tree cut short in turn: the run ends in order and the other
    // extensions' settings are converted all the same.
    for (const std::string name : {"sip.cfg", "nat.cfg", "rtp.cfg", "21/huntdb", "voicemaildb",
                                   "dialplan.cfg", "isdn.cfg"}) {
        Site broken;
        broken.Write(broken.Live(name), Text(malformed));
        EXPECT_TRUE(Holds(broken.Upgrade(), " is set in linedb\n")) << name;
        // The line end that old sip.cfg files lack is appended before the file is parsed.
        EXPECT_EQ(ShortForm(broken.Read(broken.Live(name))),
                  malformed + std::string(name == "sip.cfg" ? "|" : ""))
            << name;
        EXPECT_TRUE(Holds(broken.Read(broken.Live("22/servicesdb")), "call_forwarding_mode="))
            << name;
    }
}
