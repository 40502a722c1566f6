# shellcheck shell=sh disable=SC2154
# What moxctl reports about the running access point. Sourced behind lib.sh.

# A report of moxctl, as it is, to /out: report FILE OPTION...
report() {
	file=$out/$1
	shift
	moxctl "$@" >"$file" 2>"$work/moxctl.log" || fail "moxctl $* ended with status $?: $(cat "$work/moxctl.log")"
}

# Only the sockets of a rule report, one a line: process number, what the scene calls it, rule, packets.
sockets_of() {
	awk '/ dump sock /      { inside = 1; rules = "" }
		!inside             { next }
		/^pid:/             { pid = $2 }
		/^regular type:/    { rules = rules " " $3 }
		/^regular data:/    { sub(/^regular data: */, ""); sub(/ *$/, ""); if ($0) rules = rules " " $0 }
		/^               /  { sub(/^ */, ""); sub(/ *$/, ""); rules = rules " | " $0 }
		/^PACKET LOC:/      { place = $3 }
		/^PACKET TREATMENT:/ { treatment = $3 }
		/^sk recv packets:/ { packets = $4 }
		/^sk refcnt:/       { inside = 0; print pid, place, treatment, packets rules }' "$1" |
		while read -r pid place treatment packets rules; do
			printf '   %5d %-14s %-21s %-13s %5d  %s\n' "$pid" "$(name_of "$pid")" "$place" "$treatment" "$packets" "$rules"
		done
}

name_of() { # name_of PID
	for name in $captures; do
		[ "$(cat "$work/$name.pid")" != "$1" ] || echo "$name"
	done
}

# The report has every running capture, by its process number, and no other.
reported_all() {
	running=0
	for name in $captures; do
		pid=$(cat "$work/$name.pid")
		[ -d "/proc/$pid" ] || continue
		running=$((running + 1))
		grep -qx "pid: *$pid" "$1" || return 1
	done
	[ "$(grep -c '^pid:' "$1")" -eq "$running" ]
}

# as_json FILE KEY COUNT: the key occurs so often in moxctl's JSON.
as_json() { [ "$(grep -c "\"$2\":" "$1")" -eq "$3" ]; }

# What the memory report counts; lines of nothing left out.
memory_of() { sed -n -e '/: *0$/d' -e '/^$/d' -e 's/^/   | /p' "$1"; }

# --- where a frame went: moxctl show losses, show rules and trace ------------------------------------------------

shown() { sed 's/^/   | /' "$out/$1"; }
reports() { grep -q "$2" "$out/$1"; }   # reports FILE PATTERN

# rule_in FILE NAME: the line number and the hits of the first value of the process's rule.
rule_in() { awk -v pid="$(cat "$work/$2.pid")" '$2 == pid { print NR, $6; exit }' "$out/$1"; }

# comes_before FILE NAME NAME: the rules are compared with a frame in this order.
comes_before() {
	first=$(rule_in "$1" "$2")
	second=$(rule_in "$1" "$3")
	[ -n "$first" ] && [ -n "$second" ] && [ "${first% *}" -lt "${second% *}" ]
}

rule_hits() { # rule_hits FILE NAME COUNT
	found=$(rule_in "$1" "$2")
	[ "${found#* }" = "$3" ]
}

traced() { grep -c " ipv4 $1.*(pid $(cat "$work/$2.pid"))" "$work/trace.log"; }   # traced HOP-AND-PATTERN NAME

# traces_pings COUNT NAME: the laptop sends pings until there are so many records, and this process took them. A trace
# does not say when it begins, so a single ping might come too early.
traces_pings() {
	tries=20
	while [ "$(wc -l <"$work/trace.log")" -lt "$1" ]; do
		tries=$((tries - 1))
		[ $tries -gt 0 ] && no_ping_answers laptop 1 "$printer" || return 1
	done
	[ "$(traced "hook .*: taken from the platform" "$2")" -eq "$(grep -c ' hook ' "$work/trace.log")" ] &&
		grep -q ' hook ' "$work/trace.log"
}

# Every delivery is to this process, and there is one.
traced_deliveries_to() {
	deliveries=$(grep -c ' delivery ' "$work/trace.log")
	[ "$deliveries" -gt 0 ] && [ "$(traced "delivery .*: put on the socket" "$1")" -eq "$deliveries" ]
}

ends_by_itself() { # ends_by_itself NAME STATUS
	wait "$(cat "$work/$1.pid")"
	[ $? -eq "$2" ]
}
