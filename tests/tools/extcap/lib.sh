# shellcheck shell=bash
# SPDX-License-Identifier: GPL-2.0-only
# shellcheck disable=SC2034  # the tests end with the value of failed
# What the tests of the extcap program share. Sets failed to 1 when something is not as expected.
export LC_ALL=C.UTF-8 TZ=UTC

fail() {
	printf 'FAILED: %s\n' "$1"
	shift
	local file
	for file in "$@"; do
		sed "s|^|   ${file##*/} \| |" "$file"
	done
	failed=1
}

# need PROGRAM...: ends the test when one is missing.
need() {
	local program
	for program in "$@"; do
		command -v "$program" >/dev/null || {
			echo "FAILED: $program is missing: lab/setup installs it"
			exit 1
		}
	done
}

# same WHAT EXPECTED GOT: two texts.
same() {
	[ "$2" = "$3" ] && return
	printf 'FAILED: %s\n' "$1"
	diff <(printf '%s\n' "$2") <(printf '%s\n' "$3") | sed 's/^/   | /' || true
	failed=1
}

# within SECONDS COMMAND...: waits until the command succeeds.
within() {
	local end=$((SECONDS + $1))
	shift
	until "$@"; do
		[ "$SECONDS" -lt "$end" ] || return 1
		sleep 0.05
	done
}
