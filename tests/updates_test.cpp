// The version updates, as far as they are no ordinary cases (tests/cases).

#include <filesystem>

#include "tests/support/steps.h"

namespace fs = std::filesystem;

namespace {

class Updates : public Steps {};

}  // namespace

TEST_F(Updates, ARouteToolThatFailsHasItsErrorTextReported) {
    site.appliance.runShell = [this](const std::string&) {
        EXPECT_FALSE(site.Exists(site.appliance.lastError)) << "whatever stood there";
        site.Write(site.appliance.lastError, "table locked");
        return 256;
    };
    site.Write(site.appliance.lastError, "old");
    Put("localrouttabledb", "[|id=3|emergancy=1|][|id=1|]");
    Run("2.9.9", &ConfigUpgrader::UpdateLocalRouteDB);
    EXPECT_TRUE(Holds(log, "Update done - Failed: table locked.\nDone.\n")) << log;
    EXPECT_EQ(Get("localrouttabledb"), "[|id=1|]");
    EXPECT_FALSE(site.Exists(site.appliance.lastError));
}

TEST_F(Updates, TheRoutingGreetingIsRemoved) {
    // A relative folder: the test's own directory may have a 00 in its name, too.
    const fs::path home = fs::current_path();
    fs::current_path(site.Path(""));
    const std::string greeting = "mnt/bbram/voice/00/attwelcomerouting.wav";
    site.Write(greeting, "");
    Put("00/voicemaildb", "voice_data_folder=mnt/bbram/voice/00/|");
    fs::create_directories(site.Live("system"));
    Run("3.0.99", &ConfigUpgrader::UpdateSystemExtension);
    EXPECT_FALSE(fs::exists(greeting));
    EXPECT_TRUE(Holds(log, "Removed " + greeting + " file - Success.\n")) << log;
    fs::current_path(home);
}

TEST_F(Updates, OnlyOneCodeRestrictsAttendants) {
    Put("extensiondb", "[attendant|att_0=01|]");
    for (const char* code : {"BR", "br ", "brx", ""}) {
        site.Write(site.appliance.eeprom, std::string("restriction=") + code + "\n");
        EXPECT_EQ(Run("9.9.9", &ConfigUpgrader::RestrictAttendants), "") << code;
        EXPECT_EQ(Get("extensiondb"), "[attendant|att_0=01|]") << code;
    }
}
