# shellcheck shell=bash
# SPDX-License-Identifier: GPL-2.0-only
# Root file systems of Debian's packages, and commands in them.
. "$(dirname "${BASH_SOURCE[0]}")/../lib.sh"

readonly ROOTS=$WORK/roots
SUITE=$(. /etc/os-release && echo "$VERSION_CODENAME")
mkdir -p "$ROOTS"

# mirror: the line of sources.list for the suite itself, from the mirror that this machine uses. Without updates of
# security: those of two architectures may be out of step, and then no package of both can be installed.
mirror() {
	apt-get indextargets --format "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] \$(SITE) $SUITE main" \
		'Created-By: Packages' "Codename: $SUITE" 'Label: Debian' 2>/dev/null | head -n 1 | grep . ||
		die "apt on this machine has no mirror of Debian's $SUITE" "run this on Debian, after apt-get update"
}

# new_root NAME ARCHITECTURES [PACKAGES]: a minimal root with apt, once; a root that is there is taken as it is.
new_root() {
	local dir=$ROOTS/$1
	[ ! -f "$dir/.complete" ] || return 0
	rm -rf "$dir"
	nice -n 5 mmdebstrap --quiet --variant=apt --architectures="$2" ${3:+--include="$3"} "$SUITE" "$dir" "$(mirror)" >"$ROOTS/$1.log" 2>&1 || {
		tail -n 20 "$ROOTS/$1.log"
		return 1
	}
	cp /etc/resolv.conf "$dir/etc/resolv.conf"
	# No service is started in a root.
	printf '#!/bin/sh\nexit 101\n' >"$dir/usr/sbin/policy-rc.d"
	chmod +x "$dir/usr/sbin/policy-rc.d"
	touch "$dir/.complete"
}

# copy_root FROM TO: a root to change.
copy_root() {
	rm -rf "${ROOTS:?}/$2"
	cp -a "$ROOTS/$1" "$ROOTS/$2"
}

# in_root [--bind DIRECTORY]... NAME COMMAND: with /proc, and the directories of this machine at their own paths. The
# mounts are in a namespace of their own, and end with the command.
in_root() {
	local binds=()
	while [ "$1" = --bind ]; do
		binds+=("$2")
		shift 2
	done
	# shellcheck disable=SC2016  # the inner shell's words
	unshare --mount --pid --fork --kill-child bash -euc '
		root=$1 command=$2
		shift 2
		mount -t proc proc "$root/proc"
		for dir in "$@"; do
			mkdir -p "$root$dir"
			mount --bind "$dir" "$root$dir"
		done
		# Not as the first process of the namespace, which SIGPIPE does not end.
		chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
			DEBIAN_FRONTEND=noninteractive bash -euc "$command"
	' bash "$ROOTS/$1" "$2" "${binds[@]}"
}
