#include "tests/support/text.h"

#include <cstdio>
#include <regex>
#include <sstream>

std::string Text(const std::string& shortForm) {
    const std::regex header("\\[([^|]*)\\|");
    std::string text = std::regex_replace(shortForm, header, "section $1\n{\n");
    text = Replaced(text, "section \n", "section\n");
    return Replaced(Replaced(text, "]", "}\n"), "|", "\n");
}

std::string ShortForm(std::string text) {
    const std::pair<const char*, const char*> forms[] = {
        {"section ?([^\\n]*)\\n\\{\\n", "[$1|"}, {"\\}\\n", "]"}, {"\\n", "|"}};
    for (const auto& [form, shortened] : forms)
        text = std::regex_replace(text, std::regex(form), shortened);
    return text;
}

std::string Folded(const std::string& text) {
    constexpr std::size_t width = 100;
    Names folded;
    bool isBehindEntry = false;
    for (const std::string& line : Lines(text)) {
        const bool isEntry = Holds(line, "=") && line.find_first_of("#{}|\r") == line.npos;
        if (isEntry && isBehindEntry && folded.back().size() + 3 + line.size() <= width)
            folded.back() += " | " + line;
        else
            folded.push_back(line);
        isBehindEntry = isEntry;
        const std::size_t size = folded.size();
        const std::size_t open = line != "}" || size < 3 ? 0 : folded[size - 2] == "{" ? 2 : 3;
        if (open == 0 || size <= open || folded[size - open] != "{")
            continue;
        std::string section = folded[size - open - 1] + " {";
        if (open == 3)
            section += " " + folded[size - 2];
        folded.resize(size - open);
        folded.back() = section + " }";
    }
    return Joined(folded);
}

std::string Unfolded(const std::string& text) {
    std::string unfolded;
    for (const std::string& line : Lines(text)) {
        const std::size_t open = line.find(" {");
        const bool isSection = line.starts_with("section") && line.ends_with(" }");
        std::string entries = line;
        if (isSection) {
            unfolded += line.substr(0, open) + "\n{\n";
            entries = line.size() > open + 4 ? line.substr(open + 3, line.size() - open - 5) : "";
        }
        if (!entries.empty() || !isSection)
            unfolded += Replaced(entries, " | ", "\n") + "\n";
        if (isSection)
            unfolded += "}\n";
    }
    return unfolded;
}

Names Lines(const std::string& text) {
    std::istringstream stream(text);
    Names lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string Joined(const Names& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

std::string Replaced(std::string text, const std::string& what, const std::string& by) {
    for (std::size_t at = text.find(what); at != text.npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
    return text;
}

bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string Below(const std::string& version) {
    int fields[3] = {};
    std::sscanf(version.c_str(), "%d.%d.%d", &fields[0], &fields[1], &fields[2]);
    int last = 2;
    while (fields[last] == 0)
        fields[last--] = 99;
    --fields[last];
    return std::to_string(fields[0]) + "." + std::to_string(fields[1]) + "." +
           std::to_string(fields[2]);
}
