// Call park extensions get their own index section; linedb records that the extension length is
// defined.

#include "app/config_upgrader.h"

void ConfigUpgrader::UpdateCallPark() {
    if (!IsVersionBelow("3.1.25"))
        return;
    Trace(3, "Starting update Call Park Extensions\n");
    bool changed = false;
    for (const std::string& extension : liveExtensions) {
        Trace(3, "Ext: %s\n", extension.c_str());
        FlatFile services = OpenFlatFile(configRoot + extension + "/servicesdb", false, true);
        if (!services)
            continue;
        const auto callPark = services->GetEntry("call_park_on");
        if (callPark != "1" || !extensionDb->GotoSection("extension"))
            continue;
        // The line names the value, "1", and not the extension: this is the text that is known.
        Trace(3,
              "Ext %s is callpark extension, moved from \"extension\" section to \"callpark\" "
              "section.\n",
              callPark->c_str());
        extensionDb->DeleteSectionEntry("ext_" + extension);
        if (!extensionDb->GotoSection("callpark"))
            extensionDb->AddSection("callpark", false);
        // Added without looking: an extension that stands there already stands there twice.
        extensionDb->AddSectionEntry("ext_" + extension, extension);
        changed = true;
    }
    if (changed)
        Save(*extensionDb);
    Trace(3, "Done.\n");
}

void ConfigUpgrader::UpdateExtensionLength() {
    if (!IsVersionBelow("4.1.7"))
        return;
    Trace(3, "Set 'is_ext_length_defined=true' \n");
    if (!lineDb) {
        Trace(3, "linedb doesn't exist.\n");
        return;
    }
    if (!lineDb->GotoSection("general")) {
        Trace(3, "section 'general' doesn't exist.\n");
        Tell(Fact::Kind::Absent, "linedb", "general");
        return;
    }
    lineDb->SetSectionEntry("is_ext_length_defined", "1");
    Save(*lineDb);
    Trace(3, "Done.\n");
}
