# SPDX-License-Identifier: GPL-2.0-only
# The release that the feed builds. packaging/release writes both; zeros: no release was made yet.
PKG_VERSION:=1.0
PKG_HASH:=0000000000000000000000000000000000000000000000000000000000000000
