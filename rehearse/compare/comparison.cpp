#include "rehearse/compare/comparison.h"

namespace rehearse {

const std::vector<SiteClass>& SiteClasses() {
    static const std::vector<SiteClass> classes = {
        {"regressed", "Regressed", "bad", "✕",
         "a worse verdict than the baseline's, or a problem that it did not have"},
        {"unstable", "Unstable", "bad", "~", "rehearsed twice, it answered in two ways"},
        {"unknown", "Not compared", "warn", "?", "it could not be held in one of the two"},
        {"changed", "Changed", "warn", "≠", "the upgraded trees differ"},
        {"fixed", "Fixed", "good", "✓",
         "a better verdict than the baseline's, or fewer problems and none new"},
        {"unchanged", "Unchanged", "good", "=", "the same verdict, problems and tree"},
    };
    return classes;
}

}  // namespace rehearse
