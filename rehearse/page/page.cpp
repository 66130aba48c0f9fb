#include "rehearse/page/page.h"

#include <string_view>

#include "rehearse/page/page_asset.h"

namespace rehearse {

std::string Page(Json result) {
    // The report tells of 300 extensions in megabytes, of which the steps' own show what counts.
    constexpr std::size_t mostReport = 200'000;
    if (result.contains("report")) {
        auto& report = result["report"].get_ref<std::string&>();
        if (report.size() > mostReport)
            report = report.substr(0, mostReport) +
                     "\n...\nThe rest is left out here: --report writes it.\n";
    }
    // Nothing in it may end the script element, or be taken for markup.
    std::string data;
    for (const char c : Text(result, -1))
        switch (c) {
            case '<':
                data += "\\u003c";
                break;
            case '>':
                data += "\\u003e";
                break;
            case '&':
                data += "\\u0026";
                break;
            default:
                data += c;
        }
    std::string page = pageAsset;
    constexpr std::string_view place = "@DATA@</script>";
    page.replace(page.find(place), std::string_view("@DATA@").size(), data);
    return page;
}

}  // namespace rehearse
