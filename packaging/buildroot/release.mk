# SPDX-License-Identifier: GPL-2.0-only
# The release that the tree builds. packaging/release writes it, and its checksum to the .hash files.
MOX_RELEASE = 1.0
MOX_RELEASE_SITE = https://releases.mox.invalid
