// growth OPERATION COUNT: does it once, counted alone when it runs under callgrind with
// --collect-atstart=no. Processor time would say when a file no longer fits into a cache.

#include <cstdlib>
#include <string>
#include <string_view>
#include <valgrind/callgrind.h>

#include "store/document.h"

using Configuration::Document;

namespace {

std::string FileText(int sections) {
    std::string text;
    for (int s = 0; s < sections; ++s) {
        text += "section line_" + std::to_string(s) + "\n{\n";
        for (int e = 0; e < 12; ++e)
            text += "some_setting_" + std::to_string(e) + "=value " + std::to_string(s) + "\n";
        text += "}\n";
    }
    return text;
}

bool ParseAndPrint(int sections) {
    const std::string text = FileText(sections);
    CALLGRIND_TOGGLE_COLLECT;
    const bool same = Document(text, Document::Layout::Sectioned, "").Text() == text;
    CALLGRIND_TOGGLE_COLLECT;
    return same;
}

bool VisitSectionsByName(int sections) {
    Document document(FileText(sections), Document::Layout::Sectioned, "");
    std::string_view value;
    bool found = true;
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < sections && found; ++i)
        found = document.GotoSection("line_" + std::to_string(i)) &&
                document.Find(Document::Scope::Section, "some_setting_9", value);
    CALLGRIND_TOGGLE_COLLECT;
    return found;
}

bool AddEntries(int entries) {
    Document document("section index\n{\n}\n", Document::Layout::Sectioned, "");
    document.GotoSection("index");
    bool added = true;
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < entries && added; ++i)
        added = document.Set(Document::Scope::Section, "ext_" + std::to_string(i), "value");
    CALLGRIND_TOGGLE_COLLECT;
    return added;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    const std::string_view operation = argv[1];
    const int count = std::atoi(argv[2]);
    if (operation == "ParseAndPrint")
        return ParseAndPrint(count) ? 0 : 1;
    if (operation == "VisitSectionsByName")
        return VisitSectionsByName(count) ? 0 : 1;
    return operation == "AddEntries" && AddEntries(count) ? 0 : 1;
}
