# SPDX-License-Identifier: GPL-2.0-only
include $(BR2_EXTERNAL_MOX_PATH)/release.mk
include $(sort $(wildcard $(BR2_EXTERNAL_MOX_PATH)/package/*/*.mk))
