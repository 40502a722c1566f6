# shellcheck shell=bash
# SPDX-License-Identifier: GPL-2.0-only
# What the tests of packages share: counting, a repository to release from, the native build.
. "$(dirname "${BASH_SOURCE[0]}")/../../lab/lib/common.sh"

# shellcheck disable=SC2034  # for the scripts that source this file
readonly HERE_PACKAGES=$ROOT/tests/packages
readonly WORK=$BUILD/packages
mkdir -p "$WORK"

PASSED=0
FAILED=0
# check NAME COMMAND...: one test; shows what the command printed when it fails.
check() {
	local name=$1 output
	shift
	if output=$("$@" 2>&1); then
		PASSED=$((PASSED + 1))
		printf '[       OK ] %s\n' "$name"
	else
		FAILED=$((FAILED + 1))
		printf '%s\n[  FAILED  ] %s\n' "$output" "$name"
	fi
}
# refused STATUS TEXT COMMAND...: it ends with this status and prints this text.
refused() {
	local want=$1 text=$2 status=0 output
	shift 2
	output=$("$@" 2>&1) || status=$?
	[ "$status" -eq "$want" ] && grep -qF -- "$text" <<<"$output" && return
	printf 'status %s, not %s; or no "%s" in:\n%s\n' "$status" "$want" "$text" "$output"
	return 1
}
# same WHAT EXPECTED ACTUAL
same() {
	[ "$2" = "$3" ] && return
	diff <(printf '%s\n' "$2") <(printf '%s\n' "$3") | sed "s/^/$1: /"
	return 1
}
# finish: the count, and the status.
finish() {
	echo "$PASSED passed, $FAILED failed"
	[ "$FAILED" -eq 0 ] && [ "$PASSED" -gt 0 ]
}

# released: makes a release of this checkout, uncommitted files included, in a repository of its own, and its source
# beside it. RELEASE is the repository, TARBALL the release, SOURCE what it unpacks to. Files that did not change keep
# their times, so that a build of SOURCE is not made anew.
released() {
	RELEASE=$WORK/release TARBALL=
	rm -rf "$RELEASE"
	mkdir -p "$RELEASE"
	(cd "$ROOT" && git ls-files -z --cached --others --exclude-standard --deduplicate |
		while IFS= read -r -d '' file; do [ ! -e "$file" ] || printf '%s\0' "$file"; done |
		tar --null -T - -cf -) | tar -C "$RELEASE" -xf -
	git -C "$RELEASE" init -q
	git -C "$RELEASE" add -A
	git -C "$RELEASE" -c user.name=test -c user.email=test@mox.invalid commit -qm release
	"$RELEASE/packaging/release" --output "$WORK/dl" >"$WORK/release.log" 2>&1 || {
		cat "$WORK/release.log"
		return 1
	}
	VERSION=$("$RELEASE/packaging/version")
	TARBALL=$WORK/dl/mox-$VERSION.tar.gz
	SOURCE=$WORK/source/mox-$VERSION
	rm -rf "$WORK/unpacked"
	mkdir -p "$WORK/unpacked" "$SOURCE"
	tar -C "$WORK/unpacked" -xzf "$TARBALL"
	rsync -rlp --checksum --delete "$WORK/unpacked/mox-$VERSION/" "$SOURCE/"
}

# fake_kdir: KDIR is a directory that takes the place of a kernel's build tree, and notes in "calls" what it was run for.
fake_kdir() {
	rm -rf "$WORK/kdir"
	mkdir -p "$WORK/kdir"
	printf 'CONFIG_MODULES=y\n' >"$WORK/kdir/.config"
	cat >"$WORK/kdir/Makefile" <<'M'
modules:
	@test -f '$(M)/Kbuild' || { echo "no Kbuild in '$(M)'"; exit 2; }
	@test -f '$(M)/../../../../include/mox_packet.h'
	echo 'modules symbols=$(KBUILD_EXTRA_SYMBOLS)' >>$(CURDIR)/calls
	echo module >'$(M)/mox_ef_socket.ko'
modules_install:
	mkdir -p '$(INSTALL_MOD_PATH)/lib/modules/0.0/extra'
	cp '$(M)/mox_ef_socket.ko' '$(INSTALL_MOD_PATH)/lib/modules/0.0/extra/'
	echo modules_install >>$(CURDIR)/calls
M
	# shellcheck disable=SC2034  # for the scripts that source this file
	KDIR=$WORK/kdir
}
