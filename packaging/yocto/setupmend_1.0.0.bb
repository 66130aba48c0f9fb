# Goes into a layer of yours as recipes-telephony/setupmend/setupmend_1.0.0.bb; then
# IMAGE_INSTALL:append = " setupmend". It builds from 4.0 on: neither WORKDIR nor UNPACKDIR is named,
# for a clone under the name BP lies where each series looks by itself.
SUMMARY = "Upgrades a telephony appliance's configuration to its firmware"
DESCRIPTION = "Runs once when an IP PBX or VoIP gateway starts, before the telephony services read \
their configuration. It brings the configuration, in place, up to what the installed firmware expects, \
restores missing files from the factory tree, and writes a report."
HOMEPAGE = "https://example.com/setupmend"
SECTION = "net"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=a1a7d3265b2c3b29926e74a7611c5a27"

# Where your clone is, without the protocol: set it in your distro's or local configuration. The
# revision is pinned, so that parsing needs no network; a release of yours sets it with the version.
SETUPMEND_REPOSITORY ?= "example.com/setupmend.git"
SETUPMEND_PROTOCOL ?= "https"
SRC_URI = "git://${SETUPMEND_REPOSITORY};protocol=${SETUPMEND_PROTOCOL};branch=main;destsuffix=${BP}"
SRCREV = "5cb1961c0d2b844842663349e78e9928e5348a8f"

inherit cmake systemd update-rc.d

EXTRA_OECMAKE = "-DBUILD_TESTING=OFF -DSETUPMEND_STATIC_RUNTIME=OFF -DSETUPMEND_SYSTEMD_UNIT_DIR=${systemd_system_unitdir}"

SYSTEMD_SERVICE:${PN} = "setupmend.service"
# Not a unit that is enabled, so the class does not know of it.
FILES:${PN} += "${systemd_system_unitdir}/telephony.target"
INITSCRIPT_NAME = "setupmend"
INITSCRIPT_PARAMS = "start 38 S ."
