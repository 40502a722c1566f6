# SPDX-License-Identifier: GPL-2.0-only
# A stand-in for OpenWrt's package.mk: checks the tarball, unpacks it, builds, and installs each package into its root.
PKG_BUILD_DIR?=$(BUILD_DIR)/$(PKG_NAME)-$(PKG_VERSION)
PKG_INSTALL_DIR?=$(ROOTS)/install
PACKAGES:=

all: packages

need=$(if $(strip $($(1))),,$(error $(PKG_NAME) has no $(1)))
$(call need,PKG_NAME)
$(call need,PKG_VERSION)
$(call need,PKG_RELEASE)
$(call need,PKG_SOURCE)
$(call need,PKG_SOURCE_URL)
$(call need,PKG_HASH)
$(call need,PKG_LICENSE)

prepare:
	echo '$(PKG_HASH)  $(DL_DIR)/$(PKG_SOURCE)' | sha256sum -c --quiet -
	test -d '$(PKG_BUILD_DIR)'
	cd '$(PKG_BUILD_DIR)' && test -f $(PKG_LICENSE_FILES)

configure: prepare
	$(call Build/Configure)
compile: configure
	$(call Build/Compile)
staging: compile
	$(call Build/InstallDev,$(STAGING_DIR))

# Blanks before a field's name are make's to ignore.
define BuildPackage
  $(eval $(call Package/$(1)))
  $(foreach field,TITLE SECTION CATEGORY,$(if $(strip $($(field))),,$(error package $(1) has no $(field))))
  PACKAGES+=$(1)
  $$(info package $(1): $(strip $(DEPENDS)))
  packages: package-$(1)
  package-$(1): staging
	mkdir -p '$(ROOTS)/$(1)'
	$$(call Package/$(1)/install,$(ROOTS)/$(1))
endef
