################################################################################
#
# mox
#
################################################################################
# SPDX-License-Identifier: GPL-2.0-only

MOX_VERSION = $(MOX_RELEASE)
MOX_SITE = $(MOX_RELEASE_SITE)
MOX_SOURCE = mox-$(MOX_VERSION).tar.gz
MOX_LICENSE = GPL-2.0-only, MIT (library)
MOX_LICENSE_FILES = LICENSE
MOX_INSTALL_STAGING = YES
MOX_DEPENDENCIES = cli11 json-for-modern-cpp libnl libpcap
MOX_SUBDIR = tools
MOX_CONF_OPTS = -DMOX_SHARED_TOOLS=ON

# $(@D) is the directory of the tarball, whatever MOX_SUBDIR is.
define MOX_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/packaging/boot/sbin/mox-load $(TARGET_DIR)/usr/sbin/mox-load
	$(INSTALL) -D -m 0755 $(@D)/packaging/boot/sysv/S15mox-ef-socket $(TARGET_DIR)/etc/init.d/S15mox-ef-socket
endef

define MOX_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(@D)/packaging/boot/systemd/mox-ef-socket.service \
		$(TARGET_DIR)/usr/lib/systemd/system/mox-ef-socket.service
	$(INSTALL) -D -m 0644 $(@D)/packaging/boot/systemd/lldpagent.service \
		$(TARGET_DIR)/usr/lib/systemd/system/lldpagent.service
	$(INSTALL) -D -m 0644 $(@D)/packaging/boot/tmpfiles.d/mox-ef-socket.conf \
		$(TARGET_DIR)/usr/lib/tmpfiles.d/mox-ef-socket.conf
endef

define MOX_INSTALL_SYSCTL
	$(INSTALL) -D -m 0644 $(@D)/packaging/boot/sysctl.d/60-mox-ef-socket.conf \
		$(TARGET_DIR)/etc/sysctl.d/60-mox-ef-socket.conf
endef
MOX_POST_INSTALL_TARGET_HOOKS += MOX_INSTALL_SYSCTL

$(eval $(cmake-package))
