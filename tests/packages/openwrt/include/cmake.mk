# SPDX-License-Identifier: GPL-2.0-only
# A stand-in for OpenWrt's cmake.mk, with the native compiler.
define Build/Configure
	cmake -S '$(PKG_BUILD_DIR)/$(CMAKE_SOURCE_SUBDIR)' -B '$(CMAKE_BUILD)' -DCMAKE_BUILD_TYPE=None \
		-DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib $(CMAKE_OPTIONS)
endef
define Build/Compile
	cmake --build '$(CMAKE_BUILD)' -j '$(JOBS)'
	DESTDIR='$(PKG_INSTALL_DIR)' cmake --install '$(CMAKE_BUILD)'
endef
define Build/InstallDev/cmake
	mkdir -p '$(1)'
	$(CP) '$(PKG_INSTALL_DIR)'/* '$(1)/'
endef
Build/InstallDev=$(if $(CMAKE_INSTALL),$(Build/InstallDev/cmake))
