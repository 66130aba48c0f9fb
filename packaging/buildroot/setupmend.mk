################################################################################
#
# setupmend
#
################################################################################

# Goes with Config.in into package/setupmend of an external tree of yours, whose
# Config.in sources it and whose external.mk includes it.

SETUPMEND_VERSION = 1.0.0
# Where your sources are. To build other ones, set SETUPMEND_OVERRIDE_SRCDIR.
SETUPMEND_SITE = $(TOPDIR)/../setupmend
SETUPMEND_SITE_METHOD = local
SETUPMEND_LICENSE = MIT
SETUPMEND_LICENSE_FILES = LICENSE
SETUPMEND_CONF_OPTS = -DBUILD_TESTING=OFF -DSETUPMEND_STATIC_RUNTIME=OFF -DSETUPMEND_SYSTEMD_UNIT_DIR= -DSETUPMEND_INIT_SCRIPT=OFF

# Behind the mounts, before the services.
define SETUPMEND_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/packaging/setupmend.init \
		$(TARGET_DIR)/etc/init.d/S15setupmend
endef
define SETUPMEND_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(@D)/packaging/setupmend.service \
		$(TARGET_DIR)/usr/lib/systemd/system/setupmend.service
	$(INSTALL) -D -m 0644 $(@D)/packaging/telephony.target \
		$(TARGET_DIR)/usr/lib/systemd/system/telephony.target
endef

$(eval $(cmake-package))
