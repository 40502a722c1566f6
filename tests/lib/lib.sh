# shellcheck shell=bash
# What the tests of the installed library share. A script calls check for each of its cases, and ends in `finish`.
# shellcheck disable=SC2034  # of the scripts that read this one
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
failed=0

# check WHAT COMMAND...: the command succeeds; otherwise its output is shown.
check() {
	local what=$1 output
	shift
	if output=$("$@" 2>&1); then
		echo "ok: $what"
	else
		printf 'FAILED: %s\n%s\n' "$what" "$output"
		failed=1
	fi
}

# c_functions FILE: the functions that the header exports, sorted.
c_functions() {
	sed -n '/^MOX_API/,/;/p' "$1" | grep -oE 'mox_[a-z0-9_]+\(' | tr -d '(' | sort -u
}

finish() {
	exit "$failed"
}
