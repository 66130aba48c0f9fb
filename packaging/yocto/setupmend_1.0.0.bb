SUMMARY = "Upgrades a telephony appliance's configuration to its firmware"
SECTION = "net"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=a1a7d3265b2c3b29926e74a7611c5a27"

# Where your sources are; for a release, the tag and its revision.
SRC_URI = "git://${SETUPMEND_REPOSITORY};protocol=https;branch=main"
SRCREV = "${AUTOREV}"
S = "${WORKDIR}/git"

inherit cmake systemd update-rc.d

EXTRA_OECMAKE = "-DBUILD_TESTING=OFF -DSETUPMEND_STATIC_RUNTIME=OFF -DSETUPMEND_SYSTEMD_UNIT_DIR=${systemd_system_unitdir}"

SYSTEMD_SERVICE:${PN} = "setupmend.service"
INITSCRIPT_NAME = "setupmend"
INITSCRIPT_PARAMS = "start 38 S ."
