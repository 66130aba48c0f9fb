#include "rehearse/watch/pattern.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <map>
#include <vector>

#include "rehearse/base/text_file.h"

namespace rehearse {

std::string Pattern(const std::string& path, const Extensions& extensions) {
    std::string pattern;
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string component = path.substr(begin, end - begin);
        pattern += extensions.contains(component) ? "*" : component;
        if (end < path.size())
            pattern += '/';
        begin = end + 1;
    }
    return pattern;
}

std::string AtUsualPlace(const std::string& path, const std::string& root) {
    constexpr const char* usual = "etc/orix-conf/telephony/";
    return root.empty() || !path.starts_with(root) ? path : usual + path.substr(root.size());
}

std::string FoldLine(const std::string& line, const Extensions& extensions) {
    std::string folded;
    for (std::size_t begin = 0; begin < line.size();) {
        std::size_t end = begin;
        while (end < line.size() && std::isalnum(static_cast<unsigned char>(line[end])) != 0)
            ++end;
        const std::string word = line.substr(begin, end - begin);
        folded += extensions.contains(word) ? "*" : word;
        if (end < line.size())
            folded += line[end];
        begin = end + 1;
    }
    return folded;
}

std::string FoldReport(const std::string& report, const Extensions& extensions) {
    struct Fold {
        std::size_t place = 0;  // of the first
        unsigned count = 0;
    };
    std::map<std::string, Fold> folds;
    std::vector<std::string> lines;
    for (std::string& line : LinesOf(report)) {
        const std::string folded = FoldLine(line, extensions);
        if (folded == line) {  // names no extension: stays where it is
            lines.push_back(std::move(line));
            continue;
        }
        Fold& fold = folds[folded];
        if (++fold.count == 1) {
            fold.place = lines.size();
            lines.push_back(std::move(line));
        } else {
            lines[fold.place] = folded;
        }
    }
    for (const auto& [folded, fold] : folds)
        if (fold.count > 1)
            lines[fold.place] += fmt::format("  ({} times)", fold.count);
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

}  // namespace rehearse
