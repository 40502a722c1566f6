# SPDX-License-Identifier: GPL-2.0-only
# A stand-in for OpenWrt's kernel.mk: what a package of a kernel module becomes.
KERNEL_BUILD_DIR:=$(BUILD_DIR)
KERNEL_MAKE=$(MAKE) -C '$(LINUX_DIR)' $(KERNEL_MAKE_FLAGS)
MODULES_SUBDIR:=lib/modules/0.0
PKG_SYMVERS_DIR:=$(BUILD_DIR)/symvers

define KernelPackage
  $(eval $(call KernelPackage/$(1)))
  $(if $(filter %=n %=y %=m,$(KCONFIG)),,$(error kmod-$(1) sets no option of the kernel))
  $$(info kernel option: $(strip $(KCONFIG)))
  define Package/kmod-$(1)
    SECTION:=kernel
    CATEGORY:=Kernel modules
    $(call KernelPackage/$(1))
  endef
  define Package/kmod-$(1)/install
	mkdir -p '$$(1)/$(MODULES_SUBDIR)'
	$(CP) -L $$(FILES) '$$(1)/$(MODULES_SUBDIR)/'
  endef
  $$(eval $$(call BuildPackage,kmod-$(1)))
endef
