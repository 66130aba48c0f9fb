// Mailboxes, as far as they are no ordinary cases (tests/cases).

#include "steps/services/voicemail_migration.h"
#include "tests/support/steps.h"

namespace {

class Services : public Steps {};

}  // namespace

TEST_F(Services, MailboxSizesBecomeShares) {
    EXPECT_EQ(MailboxPortion(2, 3), 66) << "rounded down";
    EXPECT_EQ(MailboxPortion(256, 100), 0) << "cut to 8 bits";
    const struct {
        const char* storage;
        int internal;
        int usb;
        Names sizes;   // of 21, 22 and the attendant
        Names shares;  // likewise
    } cases[] = {{"bbram", 1000, 9, {"100", "300", "50"}, {"10", "30", "5"}},
                 {"usb", 9, 1000, {"100", "300", "50"}, {"10", "30", "5"}},
                 {"usb", 9, 0, {"100", "300", "0"}, {"25", "75", "0"}},
                 {"usb", 9, 0, {"0", "0", "none"}, {"0", "0", "0"}},
                 {"bbram", 100, 9, {"300", "256", "255"}, {"44", "0", "255"}}};
    const Names mailboxes = {"21", "22", "00"};
    extensions = {"21", "22"};
    for (const auto& test : cases) {
        std::string old = "[99|mail_box_size=5000|]";  // not ours: no share of the sum
        for (std::size_t i = 0; i < mailboxes.size(); ++i) {
            Remove(mailboxes[i]);
            old += "[" + mailboxes[i] + "|mail_box_size=" + test.sizes[i] + "|zero=1|]";
        }
        Put("voicemaildb", old);
        Open("2.4.3").storageType = test.storage;
        upgrader->appliance.voiceStorageSize = [&](const std::string& path) {
            return path == site.appliance.usbVoiceData ? test.usb : test.internal;
        };
        upgrader->MigrateVoicemail();
        for (std::size_t i = 0; i < mailboxes.size(); ++i)
            EXPECT_EQ(Get(mailboxes[i] + "/voicemaildb"),
                      "zero=1|mail_box_portion=" + test.shares[i] + "|");
        EXPECT_FALSE(Has("voicemaildb"));
        EXPECT_EQ(upgrader->liveExtensions.size(), 2U) << "the attendant is no extension";
    }
}

TEST_F(Services, AMailboxOfAHostileNameDoesNotMove) {
    Put("voicemaildb", "[../x|a=1|]");
    extensions = {"../x", ""};
    Run("2.4.8", &ConfigUpgrader::MigrateVoicemail);
    EXPECT_FALSE(Has("../x"));
    EXPECT_TRUE(Has("voicemaildb"));
}
