#include "tests/support/text.h"

#include <regex>

std::string Text(const std::string& shortForm) {
    std::string text;
    for (std::size_t at = 0; at < shortForm.size(); ++at) {
        const char c = shortForm[at];
        if (c == '[') {
            const std::size_t end = shortForm.find('|', at);
            const std::string name = shortForm.substr(at + 1, end - at - 1);
            text += "section" + (name.empty() ? "" : " " + name) + "\n{\n";
            at = end;
        } else if (c == ']') {
            text += "}\n";
        } else {
            text += c == '|' ? '\n' : c;
        }
    }
    return text;
}

std::string ShortForm(std::string text) {
    const std::pair<const char*, const char*> forms[] = {
        {"section ?([^\\n]*)\\n\\{\\n", "[$1|"}, {"\\}\\n", "]"}, {"\\n", "|"}};
    for (const auto& [form, shortened] : forms)
        text = std::regex_replace(text, std::regex(form), shortened);
    return text;
}

int Count(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}
