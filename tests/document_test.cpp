// The line-level store against itself: nothing is lost, an edit touches its own line alone.

#include "store/document.h"

#include <gtest/gtest.h>
#include <random>

using Configuration::Document;
using Configuration::FileError;
using Layout = Document::Layout;
using Scope = Document::Scope;

namespace {

const std::string sample =
    "# head\n"
    "\n"
    "log level = 3\n"
    "section general\n"
    "{\n"
    "  # ports\n"
    "  a =1\n"
    "section_id=3\n"
    "a=second\n"
    "empty=\n"
    "}\n"
    "# between\n"
    "top= x \n"
    "section\n"
    "{\n"
    "pattern=9\n"
    "}\n";

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
    EXPECT_EQ(file.Text(), sample);
}

TEST(Document, AnEditTouchesItsOwnLineAlone) {
    struct Case {
        const char* what;
        std::string before;
        bool (*edit)(Document&);
        std::string after;
    };
    const std::string s = "section s\n{\na=1\n# c\n}\n";
    const Case cases[] = {
        {"keeps what stands before =", "section s\r\n{\r\n  a =1\r\n}\r\n",
         [](Document& d) { return d.GotoSection("s") && d.Set(Scope::Section, "a", "2"); },
         "section s\r\n{\r\n  a =2\r\n}\r\n"},
        {"new entry behind the last entry", s,
         [](Document& d) { return d.GotoSection("s") && d.Set(Scope::Section, "b", "2"); },
         "section s\n{\na=1\nb=2\n# c\n}\n"},
        {"new entry right behind {", "section s\n{\n# c\n}\n",
         [](Document& d) { return d.GotoSection("s") && d.Set(Scope::Section, "b", ""); },
         "section s\n{\nb=\n# c\n}\n"},
        {"added without looking", s,
         [](Document& d) { return d.GotoSection("s") && d.Add(Scope::Section, "a", "2"); },
         "section s\n{\na=1\na=2\n# c\n}\n"},
        {"top-level entry before the first section", "# head\n" + s,
         [](Document& d) { return d.Set(Scope::TopLevel, "t", "1"); }, "# head\nt=1\n" + s},
        {"top-level entry behind the last", "t=1\n" + s + "u=1\n# tail",
         [](Document& d) { return d.Set(Scope::TopLevel, "v", "1"); },
         "t=1\n" + s + "u=1\nv=1\n# tail"},
        {"last line gets its end", "t=1\r\nu=2",
         [](Document& d) { return d.Set(Scope::TopLevel, "v", "3"); }, "t=1\r\nu=2\r\nv=3\r\n"},
        {"section at the end of the file", "t=1\nsection s\n{\n}",
         [](Document& d) { return d.AddSection(" n "); },
         "t=1\nsection s\n{\n}\nsection n\n{\n}\n"},
        {"anonymous section in an empty file", "",
         [](Document& d) { return d.AddSection("") && d.Set(Scope::Section, "k", "v"); },
         "section\n{\nk=v\n}\n"},
        {"a deleted section leaves what stands behind it", s + "# keep\n" + "t=1\n",
         [](Document& d) { return d.GotoSection("s") && d.DeleteSection(); }, "# keep\nt=1\n"},
        {"delete takes the first", "section s\n{\na=1\na=2\n}\n",
         [](Document& d) { return d.GotoSection("s") && d.Delete(Scope::Section, "a"); },
         "section s\n{\na=2\n}\n"},
        {"a value that ends in CR keeps it", "a=1\nb=2",
         [](Document& d) { return d.Set(Scope::TopLevel, "a", "x\r"); }, "a=x\r\r\nb=2"},
    };
    for (const Case& test : cases) {
        Document file(test.before, Layout::Sectioned, "f");
        EXPECT_TRUE(test.edit(file)) << test.what;
        EXPECT_EQ(file.Text(), test.after) << test.what;
    }
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

TEST(Document, EverySmallFileParsesOrThrowsAndPrintsBack) {
    const char* const kinds[] = {"",    "section s\n", "section\r\n", "{\n",
                                 "}\n", "k=v\n",       " # c\n",      "bad\n"};
    int parsed = 0;
    int refused = 0;
    for (unsigned picks = 0; picks < 1U << 15; ++picks) {  // five lines of three bits
        std::string text;
        for (int line = 0; line < 5; ++line)
            text += kinds[picks >> 3 * line & 7U];
        for (const std::string& file : {text, text.substr(0, text.size() - !text.empty())}) {
            try {
                EXPECT_EQ(Document(file, Layout::Sectioned, "f").Text(), file);
                ++parsed;
            } catch (const FileError&) {
                ++refused;
            }
        }
    }
    EXPECT_GT(parsed, 100);
    EXPECT_GT(refused, parsed);
}

TEST(Document, RandomEditsReadBackAsTheyWereMade) {
    std::mt19937 random(20261121);
    const auto pick = [&](std::size_t below) { return random() % below; };
    const std::string keys[] = {"a", "b", "section_id", "long key", "\xC3\xA4"};
    const std::string values[] = {
        "", "1", " x ", "=", "#", "v\r", std::string(5000, 'z'), std::string("n\0l", 3)};
    for (int round = 0; round < 200; ++round) {
        Document file(round % 2 == 0 ? sample : "a=1\r\nsection q\r\n{\r\n}", Layout::Sectioned,
                      "f");
        for (int step = 0; step < 40; ++step) {
            const std::string& key = keys[pick(5)];
            const std::string& value = values[pick(8)];
            const Scope scope = pick(2) == 0 ? Scope::TopLevel : Scope::Section;
            const std::size_t action = pick(8);
            if (action == 0)
                file.AddSection(pick(2) == 0 ? "" : "n" + std::to_string(pick(4)));
            else if (action == 1)
                file.GotoSection("n" + std::to_string(pick(4)));
            else if (action == 2 && pick(4) == 0)
                file.DeleteSection();
            else if (action == 3)
                file.Delete(scope, key);
            else if (action == 4 && !file.GotoNextSection())
                file.Restart();
            else if (file.Set(scope, key, value)) {
                EXPECT_EQ(Value(file, scope, key), value);
            }
            // What the document says of itself is what another says of its text.
            Document again(file.Text(), Layout::Sectioned, "again");
            ASSERT_EQ(again.Text(), file.Text());
            ASSERT_EQ(again.CountEntries(Scope::TopLevel), file.CountEntries(Scope::TopLevel));
            EXPECT_EQ(Value(again, Scope::TopLevel, key), Value(file, Scope::TopLevel, key));
            const std::string name(file.SectionName());
            if (again.GotoSection(name) && file.GotoSection(name)) {
                EXPECT_EQ(Value(again, Scope::Section, key), Value(file, Scope::Section, key));
            }
        }
    }
}
