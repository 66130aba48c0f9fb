#pragma once

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>

#include "app/fact.h"
#include "platform/file_utility.h"
#include "util/shell.h"

/// Where the appliance keeps what the upgrade reads and writes outside the configuration root, and
/// the two services of the system whose answers depend on the machine. The values are the real
/// ones; tests put the paths under a directory of theirs, and the rehearsal looks on.
struct Appliance {
    std::string factoryTelephony = "/etc/default-conf/telephony/";
    std::string factoryLabel = "/etc/default-conf/config_label.txt";
    std::string factorySystemSettings = "/etc/default-conf/sysconfig/rc.conf";
    std::string liveConf = "/etc/orix-conf/";
    std::string liveLabel = "/etc/orix-conf/config_label.txt";
    std::string liveSystemSettings = "/etc/orix-conf/sysconfig/rc.conf";
    std::string fxsNumber = "/proc/orix/fxs-number";
    std::string fxoNumber = "/proc/orix/fxo-number";
    std::string hwInfo = "/proc/orix/hw-info";
    std::string eeprom = "/proc/orix/eeprom";
    std::string regionalDirs = "/usr/share/regional/";
    std::string internalVoiceData = "/mnt/bbram/bvoicedata";
    std::string usbVoiceData = "/mnt/bbram/uvoicedata";
    std::string routeTool = "/bin/rtsync";
    std::string lastError = "/tmp/lasterror.log";
    std::string log = "mend.log";

    /// Runs a shell command and returns what `system` returns.
    ShellRunner runShell = [](const std::string& command) { return std::system(command.c_str()); };
    /// Size in bytes of the voice-mail storage behind a path, 0 when it cannot be told.
    std::function<std::uint64_t(const std::string&)> voiceStorageSize =
        [](const std::string& path) { return FileUtility::GetVmStorageSize(path); };
    /// Told the name of each step that has ended. The rehearsal looks then at what the step left;
    /// nobody does on the appliance.
    std::function<void(const char* step)> afterStep = [](const char*) {};
    /// Told what the run meets, beside its report. Null on the appliance.
    const std::function<void(const Fact&)>* onFact = nullptr;
};
