# shellcheck shell=bash
# Runs long commands: shows their progress, and the end of their log when they fail.

PROGRESS_PID=
progress_stop() {
	[ -z "$PROGRESS_PID" ] || kill -TERM -- "-$PROGRESS_PID" 2>/dev/null || true
}

# run_logged TITLE LOG COUNT_PATTERN REMEDY COMMAND...
# Runs COMMAND with its output in LOG, showing the elapsed time and how many of LOG's lines match COUNT_PATTERN
# (one line that is rewritten on a terminal, a line every ten seconds elsewhere). When COMMAND fails: the end of
# LOG, REMEDY, and status 1.
run_logged() {
	local title=$1 log=$2 pattern=$3 remedy=$4
	shift 4
	local start=$SECONDS shown=0 status=0 count line
	mkdir -p "$(dirname "$log")"
	: >"$log"
	# A process group of its own, so that an interrupt here ends all of it.
	set -m
	"$@" >"$log" 2>&1 </dev/null &
	PROGRESS_PID=$!
	set +m
	trap 'progress_stop; exit 130' INT
	trap 'progress_stop; exit 143' TERM
	while kill -0 "$PROGRESS_PID" 2>/dev/null; do
		sleep 0.5
		count=$(grep -cE "$pattern" "$log" || true)
		line="$title: $(mmss $((SECONDS - start))), $count done"
		if [ -t 1 ]; then
			printf '\r\033[K   %s' "$line"
		elif [ $((SECONDS - shown)) -ge 10 ] && [ $((SECONDS - start)) -ge 5 ]; then
			shown=$SECONDS
			say "   $line"
		fi
	done
	wait "$PROGRESS_PID" || status=$?
	PROGRESS_PID=
	trap - INT TERM
	[ ! -t 1 ] || printf '\r\033[K'
	if [ "$status" -ne 0 ]; then
		{
			say "lab: error: $title failed (status $status). The end of its log:"
			tail -n 40 "$log" | sed 's/^/   | /'
			say "     whole log: $log"
			say "     remedy: $remedy"
		} >&2
		return 1
	fi
	say "   $title: done in $(mmss $((SECONDS - start)))"
}
