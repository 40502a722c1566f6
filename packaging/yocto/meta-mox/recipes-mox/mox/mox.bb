# SPDX-License-Identifier: GPL-2.0-only
SUMMARY = "Library and programs for capture sockets of mox_ef_socket"
DESCRIPTION = "libmox for daemons; moxcap captures, moxsend sends, moxctl is for operators, lldpagent is an LLDP agent."

require recipes-mox/mox-release.inc

DEPENDS = "cli11 nlohmann-json libnl libpcap"

inherit cmake pkgconfig systemd update-rc.d

OECMAKE_SOURCEPATH = "${S}/tools"
EXTRA_OECMAKE = "-DMOX_SHARED_TOOLS=ON"

PACKAGES =+ "libmox mox-compat mox-tools"
FILES:libmox = "${libdir}/libmox.so.*"
# Loaded by name (LD_PRELOAD), so it is no file of -dev.
FILES:mox-compat = "${libdir}/libmox-compat.so ${libexecdir}/mox-relay"
INSANE_SKIP:mox-compat = "dev-so"
FILES:mox-tools = "${bindir}/moxcap ${bindir}/moxsend ${bindir}/moxctl ${bindir}/lldpagent ${sbindir}/mox-load \
    ${sysconfdir}/init.d ${sysconfdir}/sysctl.d ${nonarch_libdir}/tmpfiles.d ${systemd_system_unitdir}"
ALLOW_EMPTY:${PN} = "1"
RDEPENDS:${PN} = "mox-tools mox-compat"

SYSTEMD_PACKAGES = "mox-tools"
SYSTEMD_SERVICE:mox-tools = "mox-ef-socket.service lldpagent.service"
SYSTEMD_AUTO_ENABLE:mox-tools = "enable"

INITSCRIPT_PACKAGES = "mox-tools"
INITSCRIPT_NAME:mox-tools = "mox-ef-socket"
INITSCRIPT_PARAMS:mox-tools = "start 15 S ."

do_install:append() {
	install -d ${D}${sysconfdir}/sysctl.d
	install -m 0644 ${S}/packaging/boot/sysctl.d/60-mox-ef-socket.conf ${D}${sysconfdir}/sysctl.d/
	if ${@bb.utils.contains('DISTRO_FEATURES', 'systemd', 'true', 'false', d)}; then
		install -d ${D}${systemd_system_unitdir} ${D}${nonarch_libdir}/tmpfiles.d
		install -m 0644 ${S}/packaging/boot/systemd/*.service ${D}${systemd_system_unitdir}/
		install -m 0644 ${S}/packaging/boot/tmpfiles.d/mox-ef-socket.conf ${D}${nonarch_libdir}/tmpfiles.d/
	fi
	if ${@bb.utils.contains('DISTRO_FEATURES', 'sysvinit', 'true', 'false', d)}; then
		install -d ${D}${sysconfdir}/init.d ${D}${sbindir}
		install -m 0755 ${S}/packaging/boot/sbin/mox-load ${D}${sbindir}/
		install -m 0755 ${S}/packaging/boot/sysv/S15mox-ef-socket ${D}${sysconfdir}/init.d/mox-ef-socket
	fi
}
