# SPDX-License-Identifier: GPL-2.0-only
SUMMARY = "Capture sockets of family 17 on the forwarding platform"
DESCRIPTION = "Takes over protocol family 17 and connects packet sockets to the platform (efmp)."

require recipes-mox/mox-release.inc

inherit module

# The platform's records exist on 32-bit kernels only.
COMPATIBLE_HOST = "arm.*-linux.*"

# The recipes of mox_dprintk, lsm_ko and efmp: module.bbclass takes their symbols from what they stage.
MOX_PLATFORM_RECIPES ?= ""
DEPENDS += "${MOX_PLATFORM_RECIPES}"

B = "${S}/ef/ef_service/af_packet/packet_forward"
EXTRA_OEMAKE += "KDIR=${STAGING_KERNEL_DIR}"

FILES:${PN} += "${sysconfdir}/modprobe.d"

do_install:append() {
	install -d ${D}${sysconfdir}/modprobe.d
	install -m 0644 ${S}/packaging/boot/modprobe.d/mox-ef-socket.conf ${D}${sysconfdir}/modprobe.d/
}
