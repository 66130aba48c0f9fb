#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "app/version.h"
#include "files/look.h"
#include "platform/file_utility.h"
#include "platform/sip_address.h"
#include "platform/string_utils.h"
#include "tests/support/steps.h"
#include "util/lists.h"
#include "util/numbers.h"
#include "util/shell.h"

TEST(Util, NumbersReadAsAStreamWould) {
    const std::pair<const char*, int> numbers[] = {{"12abc", 12},
                                                   {"abc", 0},
                                                   {"-5", -5},
                                                   {"- 5", 0},
                                                   {"+7", 7},
                                                   {"2147483648", 2147483647},
                                                   {"-99999999999", -2147483647 - 1}};
    for (const auto& [text, number] : numbers)
        EXPECT_EQ(StringToNumber<int>(text), number) << text;
    EXPECT_EQ(StringToNumber<unsigned>(""), 0U);
    EXPECT_EQ(StringToNumber<unsigned>(" \t42"), 42U);
    EXPECT_EQ(StringToNumber<unsigned>("-5"), 4294967291U);
    EXPECT_EQ(StringToNumber<unsigned>("4294967296"), 4294967295U);
    EXPECT_EQ(StringToNumber<unsigned long long>("18446744073709551615"), ~0ULL);
    EXPECT_EQ(StringToNumber<unsigned long long>("18446744073709551616"), ~0ULL);
}

TEST(Util, VersionFieldsAreComparedAsNumbers) {
    const struct {
        const char *live, *version;
        bool older;
    } cases[] = {
        {"2.4.10", "2.4.9", false},  {"2.4.10", "2.4.11", true}, {"2.4.10", "2.4.10", false},
        {"3.1", "2.4.9", true},      {"", "2.2.0", true},        {"5", "1.0.0", true},
        {"3.1.0.1", "4.1.7", false}, {"3..1", "3.0.1", false},   {"3..0", "3.0.1", true},
        {"3. 1.5x", "3.1.6", true},  {"3.-1.0", "3.0.0", true},  {"10.0.0", "9.9.9", false},
        {"...", "9.9.9", false},     {"..", "0.0.0", false},
    };
    for (const auto& test : cases)
        EXPECT_EQ(IsOlderVersion(test.live, test.version), test.older)
            << test.live << " below " << test.version;
}

TEST(Util, ListsMatchPathsBySubstring) {
    EXPECT_TRUE(PathInList({"ext1"}, "/a/ext1/b"));
    EXPECT_TRUE(PathInList({"ext1"}, "/a/xext1/b"));
    EXPECT_FALSE(PathInList({"ext1"}, "/a/ext1"));
    EXPECT_FALSE(ListContains({"1", "21"}, "2"));
}

TEST(Util, StringsAreSplitTrimmedAndReplaced) {
    EXPECT_EQ(StringUtils::ParseCommaLine("", ','), Names{});
    EXPECT_EQ(StringUtils::ParseCommaLine(",a,,", ','), (Names{"", "a", "", ""}));
    EXPECT_EQ(StringUtils::Trim(" \ta b\t", " \t", true, true), "a b");
    EXPECT_EQ(StringUtils::Trim(" a ", " ", true, false), "a ");
    EXPECT_EQ(StringUtils::Trim("  ", " ", false, true), "");
    EXPECT_EQ(StringUtils::ReplaceString("00/x00", "00", "system", 0), "system/xsystem");
    EXPECT_EQ(StringUtils::ReplaceString("0000", "00", "00", 1), "0000");
    for (const char* text : {"", "-1", "1 ", "1.0", "x"})
        EXPECT_FALSE(StringUtils::IsNumeric(text, false, false)) << text;
    EXPECT_TRUE(StringUtils::IsNumeric("007", false, false));
    EXPECT_TRUE(StringUtils::IsNumeric("-1.5", true, true));
    for (const char* text : {"1.5.1", "1-5", "-", "."})
        EXPECT_FALSE(StringUtils::IsNumeric(text, true, true)) << text;
    EXPECT_GT(FileUtility::GetVmStorageSize("/"), 1'000'000U);
    EXPECT_EQ(FileUtility::GetVmStorageSize("/none"), 0U);
    std::string address;
    EXPECT_TRUE(MergeSIPAddress(address, "", "", "host", "", false));
    EXPECT_EQ(address, "host");
}

TEST(Util, ShellPathsAreQuotedOnlyWhereNeeded) {
    EXPECT_EQ(ShellPath("/etc/orix-conf/a_b.c,d:e=f@g%h+i-j"),
              "/etc/orix-conf/a_b.c,d:e=f@g%h+i-j");
    EXPECT_EQ(ShellPath("/a'$(x)`;\n"), "'/a'\\''$(x)`;\n'");
    EXPECT_EQ(ShellPath("-rf/"), "./-rf/");
}

TEST_F(Steps, ErrorTextIsTheFirst3000BytesOfWhatTheCommandSaid) {
    const auto errorsOf = [&](const std::string& command) {
        EXPECT_NE(Open("").RunWithErrorText(command + " >&2; false"), "Success");
        EXPECT_FALSE(site.Exists(site.appliance.lastError));
        return upgrader->ReadLastError();
    };
    struct stat before {};
    struct stat after {};
    fstat(STDERR_FILENO, &before);
    EXPECT_EQ(errorsOf("true"), "");
    fstat(STDERR_FILENO, &after);
    EXPECT_EQ(before.st_ino, after.st_ino) << "standard error is what it was";
    EXPECT_EQ(errorsOf("printf '%5000s' e"), std::string(3000, ' '));
    EXPECT_EQ(errorsOf("printf 'no\\000such'"), "no");
    EXPECT_EQ(upgrader->RunWithErrorText("echo said >&2"), "Success");
    // Everybody may put a link under that name; what it leads to is not written.
    const std::string victim = site.Path("victim");
    site.Write(victim, "untouched");
    for (const auto plant : {link, symlink}) {
        EXPECT_EQ(plant(victim.c_str(), site.appliance.lastError.c_str()), 0);
        EXPECT_EQ(errorsOf("echo said"), "said\n");
        EXPECT_EQ(site.Read(victim), "untouched");
    }
}

TEST(Util, EverythingIsWithinTheRoot) {
    EXPECT_TRUE(files::IsWithin("/a", "/"));
    EXPECT_TRUE(files::IsWithin("/a/b", "/a"));
    EXPECT_FALSE(files::IsWithin("/ab", "/a"));
}

TEST(Util, CommandsAreFoundInAbsoluteDirectoriesAndTheOwnerKeepsHisBits) {
    const std::string path = std::getenv("PATH");
    const std::pair<const char*, const char*> paths[] = {
        {":/bin::rel:./x:/usr/bin:", "/bin:/usr/bin"},
        {"", "/usr/sbin:/usr/bin:/sbin:/bin"},
        {".:", "/usr/sbin:/usr/bin:/sbin:/bin"}};
    for (const auto& [before, after] : paths) {
        setenv("PATH", before, 1);
        const mode_t mask = umask(0777);
        PrepareForCommands();
        EXPECT_EQ(umask(mask), mode_t{077});
        EXPECT_STREQ(std::getenv("PATH"), after);
    }
    setenv("PATH", path.c_str(), 1);
}
