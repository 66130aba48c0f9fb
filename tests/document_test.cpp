// The line-level store against itself: nothing is lost, an edit touches its own line alone.

#include "store/document.h"

#include <gtest/gtest.h>
#include <map>
#include <random>

using Configuration::Document;
using Configuration::FileError;
using Layout = Document::Layout;
using Scope = Document::Scope;

namespace {

const std::string sample =
    "# head\n\nlog level = 3\nsection general\n{\n  # ports\n  a =1\nsection_id=3\na=second\nempty=\n"
    "}\n# between\ntop= x \nsection\n{\npattern=9\n}\n";

std::string Value(Document& document, Scope scope, const std::string& key) {
    std::string_view value;
    return document.Find(scope, key, value) ? std::string(value) : "(absent)";
}

}  // namespace

TEST(Document, ReadsEntriesWhereTheyStand) {
    Document file(sample, Layout::Sectioned, "f");
    EXPECT_EQ(Value(file, Scope::TopLevel, "log level"), " 3");
    EXPECT_EQ(Value(file, Scope::TopLevel, "top"), " x ");
    EXPECT_EQ(Value(file, Scope::TopLevel, "a"), "(absent)");
    EXPECT_FALSE(file.GotoSection(""));
    EXPECT_FALSE(file.GotoSection("missing"));
    ASSERT_TRUE(file.GotoSection("general"));
    EXPECT_EQ(Value(file, Scope::Section, "a"), "1");
    EXPECT_EQ(Value(file, Scope::Section, "section_id"), "3");
    EXPECT_EQ(Value(file, Scope::Section, "empty"), "");
    EXPECT_EQ(file.CountEntries(Scope::Section), 4U);
    ASSERT_TRUE(file.GotoNextSection());
    EXPECT_EQ(file.SectionName(), "");
    ASSERT_TRUE(file.GotoNextEntry(Scope::Section));
    EXPECT_FALSE(file.GotoNextSection());
    EXPECT_FALSE(file.Set(Scope::Section, "x", "1")) << "no section is current";
    EXPECT_FALSE(file.SetCurrentEntry(Scope::Section, "1"));
    EXPECT_FALSE(file.DeleteCurrentEntry(Scope::Section));
    ASSERT_TRUE(file.GotoSection("general"));
    EXPECT_FALSE(file.GotoEntry(Scope::Section, "none"));
    EXPECT_TRUE(file.GotoEntry(Scope::Section, "empty"));
    std::string_view key;
    std::string_view value;
    EXPECT_TRUE(file.CurrentEntry(Scope::Section, key, value));
    EXPECT_EQ(key, "empty");
    file.Restart();
    EXPECT_FALSE(file.Set(Scope::Section, "a", "2"));
    EXPECT_EQ(file.Text(), sample);
}

TEST(Document, ANewValueTouchesItsOwnLineAlone) {
    const std::string s = "section s\n{\na=1\n# c\n}\n";
    const struct {
        const char* what;
        std::string before;
        Scope scope;
        const char *key, *value;
        std::string after;
    } cases[] = {
        {"keeps what stands before =", "section s\r\n{\r\n  a =1\r\n}\r\n", Scope::Section, "a",
         "2", "section s\r\n{\r\n  a =2\r\n}\r\n"},
        {"behind the last entry", s, Scope::Section, "b", "2", "section s\n{\na=1\nb=2\n# c\n}\n"},
        {"right behind {", "section s\n{\n# c\n}\n", Scope::Section, "b", "",
         "section s\n{\nb=\n# c\n}\n"},
        {"before the first section", "# head\n" + s, Scope::TopLevel, "t", "1",
         "# head\nt=1\n" + s},
        {"behind the last at the top level", "t=1\n" + s + "u=1\n# tail", Scope::TopLevel, "v", "1",
         "t=1\n" + s + "u=1\nv=1\n# tail"},
        {"the last line gets its end", "t=1\r\nu=2", Scope::TopLevel, "v", "3",
         "t=1\r\nu=2\r\nv=3\r\n"},
        {"the last line's CR is not its end", "t=1\r", Scope::TopLevel, "v", "3", "t=1\r\r\nv=3\n"},
        {"a value that ends in CR keeps it", "a=1\nb=2", Scope::TopLevel, "a", "x\r",
         "a=x\r\r\nb=2"},
    };
    for (const auto& test : cases) {
        Document file(test.before, Layout::Sectioned, "f");
        file.GotoSection("s");
        EXPECT_TRUE(file.Set(test.scope, test.key, test.value)) << test.what;
        EXPECT_EQ(file.Text(), test.after) << test.what;
    }
}

TEST(Document, SectionsAndEntriesComeAndGoAlone) {
    Document file("t=1\nsection s\n{\na=1\na=2\n}", Layout::Sectioned, "f");
    EXPECT_TRUE(file.AddSection(" n ")) << "at the end of the file, without the blanks";
    EXPECT_TRUE(file.GotoSection("s"));
    EXPECT_TRUE(file.Delete(Scope::Section, "a")) << "the first";
    EXPECT_TRUE(file.Add(Scope::Section, "a", "3")) << "without looking";
    EXPECT_EQ(file.Text(), "t=1\nsection s\n{\na=2\na=3\n}\nsection n\n{\n}\n");
    EXPECT_TRUE(file.GotoSection("s") && file.DeleteSection());
    EXPECT_EQ(file.Text(), "t=1\nsection n\n{\n}\n");
    Document empty("", Layout::Sectioned, "f");
    EXPECT_TRUE(empty.AddSection("") && empty.Set(Scope::Section, "k", "v"));
    EXPECT_EQ(empty.Text(), "section\n{\nk=v\n}\n");
    Document behind("section s\n{\n}\n# keep\nt=1\n", Layout::Sectioned, "f");
    EXPECT_TRUE(behind.GotoSection("s") && behind.DeleteSection());
    EXPECT_EQ(behind.Text(), "# keep\nt=1\n");
}

TEST(Document, RefusesWhatCouldNotBeReadBack) {
    Document file(sample, Layout::Sectioned, "f");
    ASSERT_TRUE(file.GotoSection("general"));
    for (const char* key : {"", " ", "#k", "a=b", "a\nb"})
        EXPECT_FALSE(file.Set(Scope::Section, key, "v")) << key;
    EXPECT_FALSE(file.Set(Scope::Section, "a", "two\nlines"));
    EXPECT_FALSE(file.Set(Scope::TopLevel, "section x", "v")) << "would read as a header";
    EXPECT_FALSE(file.AddSection("two\nlines"));
    EXPECT_EQ(file.Text(), sample);
}

TEST(Document, DeletingUnderTheCursorGoesOnWithWhatFollowed) {
    Document file("section a\n{\nx=1\ny=2\nz=3\n}\nsection b\n{\n}\nsection c\n{\n}\n",
                  Layout::Sectioned, "f");
    ASSERT_TRUE(file.GotoNextSection());
    ASSERT_TRUE(file.GotoNextEntry(Scope::Section));
    ASSERT_TRUE(file.Delete(Scope::Section, "x"));
    std::string_view key;
    std::string_view value;
    EXPECT_FALSE(file.CurrentEntry(Scope::Section, key, value));
    ASSERT_TRUE(file.GotoNextEntry(Scope::Section));
    ASSERT_TRUE(file.CurrentEntry(Scope::Section, key, value));
    EXPECT_EQ(key, "y");
    ASSERT_TRUE(file.DeleteSection());
    ASSERT_TRUE(file.GotoNextSection());
    EXPECT_EQ(file.SectionName(), "b");
    EXPECT_FALSE(file.GotoNextEntry(Scope::Section)) << "a section without entries";
    ASSERT_TRUE(file.DeleteSection());
    EXPECT_TRUE(file.GotoSection("c"));
    EXPECT_FALSE(file.GotoSection("b"));
}

TEST(Document, SaysWhatIsWrongAndWhere) {
    const std::pair<const char*, const char*> cases[] = {
        {"t=1\nnonsense\n", "f, line 2: line is no section header, brace or key=value entry"},
        {"=v\n", "f, line 1: entry without a key"},
        {"section s\na=1\n", "f, line 2: section header without \"{\""},
        {"section s\n{\nsection t\n{\n}\n}\n", "f, line 3: section inside a section"},
        {"section s\n{\n}\n}\n", "f, line 4: \"}\" without a section"},
        {"{\n}\n", "f, line 1: \"{\" without a section header"},
        {"section s\n{\na=1\n", "f, line 3: end of file inside a section"},
        {"section s", "f, line 1: end of file inside a section"},
    };
    for (const auto& [text, message] : cases) {
        try {
            Document(text, Layout::Sectioned, "f");
            ADD_FAILURE() << "accepted: " << text;
        } catch (const FileError& error) {
            EXPECT_STREQ(error.what(), message);
        }
        EXPECT_EQ(Document(text, Layout::Flat, "f").Text(), text) << "a flat file keeps it";
    }
}

/// Many look-ups make indexes; whatever was edited since, they find what a plain list has.
TEST(Document, FindsWhatAPlainListHas) {
    std::map<std::string, std::map<std::string, std::string>> parts;  // "" is the top level
    std::string text;
    for (int i = 0; i < 90; ++i) {
        text += "section " + std::to_string(i) + "\n{\n}\n" + std::to_string(i) + "=t\n";
        parts[std::to_string(i)];
        parts[""][std::to_string(i)] = "t";
    }
    Document file(text, Layout::Sectioned, "f");
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(Value(file, Scope::TopLevel, "89"), "t");
    EXPECT_TRUE(file.GotoSection("40") && file.DeleteSection()) << "what is behind it moves";
    EXPECT_EQ(Value(file, Scope::TopLevel, "40"), "t");
    parts.erase("40");
    std::mt19937 random(1);
    for (int i = 0; i < 9000; ++i) {
        const std::string name = std::to_string(random() % 90);
        const std::size_t what = random() % 40;
        const bool isThere = parts.contains(name);
        ASSERT_EQ(file.GotoSection(name), isThere) << i;
        if (!isThere && what < 20) {
            EXPECT_TRUE(file.AddSection(name));
            parts[name];
        } else if (isThere && what == 0) {
            EXPECT_TRUE(file.DeleteSection());
            parts.erase(name);
        }
        for (const Scope scope : {Scope::TopLevel, Scope::Section}) {
            const std::string key = std::to_string(random() % 90);
            auto& entries = parts[scope == Scope::TopLevel ? "" : name];
            if (scope == Scope::Section && !file.GotoSection(name)) {
                parts.erase(name);
                continue;
            }
            ASSERT_EQ(Value(file, scope, key), entries.contains(key) ? entries[key] : "(absent)")
                << i;
            if (what < 10) {
                EXPECT_TRUE(file.Set(scope, key, name));
                entries[key] = name;
            } else if (what < 14) {
                EXPECT_EQ(file.Delete(scope, key), entries.erase(key) > 0);
            }
        }
    }
    for (const bool isAgain : {false, true}) {
        file.RestartEntries(Scope::TopLevel);
        std::size_t count = 0;
        while (file.GotoNextEntry(Scope::TopLevel))
            ++count;
        EXPECT_EQ(count, parts[""].size()) << isAgain;
    }
}
