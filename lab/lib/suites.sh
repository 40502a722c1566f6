# shellcheck shell=bash
# The counts of lab/test: every suite ends in a line "N passed, N failed"; one that does not is a failure.

PASSED=0
FAILED=0
SUMMARY=()
COUNTED=$SECONDS # when the last line of SUMMARY was added
# summarise NAME TEXT: a line of SUMMARY, with the time since the one before.
summarise() {
	SUMMARY+=("$(printf '%-28s %6s  %s' "$1" "$(mmss $((SECONDS - COUNTED)))" "$2")")
	COUNTED=$SECONDS
}

# account NAME STATUS LOG NONE: adds what LOG's last line counts. A suite that ends badly without a failed test, or
# without a count, is one failure; one that passed no test too, unless a filter may match nothing: NONE is then the
# status with which the suite may end instead of 0, and otherwise empty.
account() {
	local name=$1 status=$2 log=$3 none=$4 last p=0 f=0
	last=$(tail -n 1 "$log" 2>/dev/null || true)
	if [[ $last =~ ^([0-9]+)\ passed,\ ([0-9]+)\ failed ]]; then
		p=${BASH_REMATCH[1]} f=${BASH_REMATCH[2]}
		if [ "$p" -eq 0 ] && [ "$f" -eq 0 ] && [ -n "$none" ] && { [ "$status" -eq 0 ] || [ "$status" -eq "$none" ]; }; then
			: # nothing that the filter matches
		elif [ "$f" -eq 0 ] && { [ "$status" -ne 0 ] || [ "$p" -eq 0 ]; }; then
			f=1
			last+=" (status $status): 1 failed"
		fi
	else
		f=1
		last="no result (status $status)"
	fi
	PASSED=$((PASSED + p)) FAILED=$((FAILED + f))
	summarise "$name" "$last"
}
