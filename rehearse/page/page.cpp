#include "rehearse/page/page.h"

#include <string_view>

#include "rehearse/page/page_asset.h"
#include "rehearse/page/shorten.h"

namespace rehearse {

std::string Page(Json result) {
    if (result.contains("report"))
        Shorten(result);
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
