################################################################################
#
# mox-ef-socket
#
################################################################################
# SPDX-License-Identifier: GPL-2.0-only

MOX_EF_SOCKET_VERSION = $(MOX_RELEASE)
MOX_EF_SOCKET_SITE = $(MOX_RELEASE_SITE)
MOX_EF_SOCKET_SOURCE = mox-$(MOX_EF_SOCKET_VERSION).tar.gz
MOX_EF_SOCKET_DL_SUBDIR = mox
MOX_EF_SOCKET_LICENSE = GPL-2.0-only
MOX_EF_SOCKET_LICENSE_FILES = LICENSE
MOX_EF_SOCKET_MODULE_SUBDIRS = ef/ef_service/af_packet/packet_forward
MOX_EF_SOCKET_MODULE_MAKE_OPTS = \
	KBUILD_EXTRA_SYMBOLS="$(call qstrip,$(BR2_PACKAGE_MOX_EF_SOCKET_SYMVERS))"

# Built in, the kernel's own packet sockets own family 17.
define MOX_EF_SOCKET_LINUX_CONFIG_FIXUPS
	$(call KCONFIG_DISABLE_OPT,CONFIG_PACKET)
endef

define MOX_EF_SOCKET_INSTALL_MODPROBE
	$(INSTALL) -D -m 0644 $(@D)/packaging/boot/modprobe.d/mox-ef-socket.conf \
		$(TARGET_DIR)/etc/modprobe.d/mox-ef-socket.conf
endef
MOX_EF_SOCKET_POST_INSTALL_TARGET_HOOKS += MOX_EF_SOCKET_INSTALL_MODPROBE

$(eval $(kernel-module))
$(eval $(generic-package))
