# SPDX-License-Identifier: GPL-2.0-only
# A stand-in for OpenWrt's rules.mk, with the variables that packages use. Given by the test: TOPDIR, BUILD_DIR, DL_DIR,
# ROOTS (a root for each package), CMAKE_BUILD (where the programs are built), LINUX_DIR.
INCLUDE_DIR:=$(TOPDIR)/include
INSTALL_DIR:=install -d -m 0755
INSTALL_BIN:=install -m 0755
INSTALL_DATA:=install -m 0644
INSTALL_CONF:=install -m 0600
CP:=cp -fpR
STAGING_DIR:=$(ROOTS)/staging
