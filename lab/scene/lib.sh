# shellcheck shell=sh disable=SC2154
# The access point that lab/demo and lab/try run in, and the functions of the demo's script. Sourced; uses $here, $work,
# $out and $stations.

captures=
waiting=
helpers=

say() { printf '%s\n' "$*"; }
step() { printf '\n== %s\n' "$*"; }

fail() {
	printf '\n   FAILED: %s\n' "$*"
	for name in $captures; do
		count=$(count_of "$name")
		printf '   %-14s captured %s; %s\n' "$name" "${count:-(not shown)}" "$(tail -n 1 "$work/$name.err")"
	done
	moxlab stats
	exit 1
}

# claim TEXT COMMAND...: runs the command, says the text when it succeeds, ends the scene when it fails.
claim() {
	text=$1
	shift
	"$@" || fail "$text"
	say "   ok: $text"
}

# within SECONDS COMMAND...: repeats the command until it succeeds; fails when the time is over.
within() {
	tries=$(($1 * 20))
	shift
	while ! "$@"; do
		tries=$((tries - 1))
		[ $tries -gt 0 ] || return 1
		sleep 0.05
	done
}

at() { # at STATION COMMAND...
	ns=$1
	shift
	nsenter --net="/run/netns/$ns" "$@"
}

add_port() {
	# Of its own, a port sends nothing: what is seen on it is its station's.
	ip link set "$1" addrgenmode none
	ip link set "$1" up
	moxlab port add "$1" >/dev/null || fail "$1 does not become a port"
}

# The modules, a namespace with eth0 for each of the stations (port1, port2), the TAP device port3, and ap0 with 10.0.0.1.
make_access_point() {
	mkdir -p /run/netns /var/lib/misc
	load-modules || fail "the modules do not load"   # nothing to do where the lab has done it
	number=0
	for station in $stations; do
		number=$((number + 1))
		ip netns add "$station" 2>"$work/ip.log" || fail "no namespace for $station: $(cat "$work/ip.log")"
		ip link add name "port$number" type veth peer name eth0 netns "$station" || fail "no port$number"
		at "$station" ip link set eth0 address "02:00:00:00:0$number:01"
		add_port "port$number"
	done
	ip tuntap add dev port3 mode tap || fail "no port3"
	add_port port3
	ip link set ap0 up
	ip addr add 10.0.0.1/24 brd + dev ap0
	for station in $stations; do
		at "$station" ip link set lo up
		at "$station" ip link set eth0 up
	done
}

# --- captures -------------------------------------------------------------------------------------------------

# capture NAME OPTION...: starts moxcap; its lines are shown as they come and kept in $work/NAME.out.
capture() {
	name=$1
	shift
	: >"$work/$name.out"
	rm -f "$work/$name.pipe"
	mkfifo "$work/$name.pipe"
	tee -a "$work/$name.out" <"$work/$name.pipe" &
	start_moxcap "$name" "$work/$name.pipe" "$@"
}

# The same without its lines, for one that sees everything.
capture_silently() {
	name=$1
	shift
	start_moxcap "$name" /dev/null "$@"
}

start_moxcap() { # start_moxcap NAME OUTPUT OPTION...
	name=$1
	lines=$2
	shift 2
	moxcap --label "$name" "$@" >"$lines" 2>"$work/$name.err" &
	echo $! >"$work/$name.pid"
	captures="$captures $name"
	waiting="$waiting $name"
}

is_capturing() { grep -q 'capturing at' "$work/$1.err"; }

# Shows what each capture that was started since the last call says that it captures.
wait_for_captures() {
	for name in $waiting; do
		within 10 is_capturing "$name" || fail "$name does not capture: $(cat "$work/$name.err")"
		sed -n 's/^\(.*\) capturing at /   \1 /p' "$work/$name.err"
	done
	waiting=
}

end_capture() {
	pid=$(cat "$work/$1.pid")
	kill -INT "$pid"
	wait "$pid" || fail "$1 ended with status $?: $(cat "$work/$1.err")"
}

end_all_captures() {
	for name in $captures; do
		[ ! -d "/proc/$(cat "$work/$name.pid")" ] || end_capture "$name"
	done
}

count_of() { [ ! -f "$work/$1.out" ] || wc -l <"$work/$1.out"; }
has_at_least() { [ "$(count_of "$1")" -ge "$2" ]; }
captured() { within 5 has_at_least "$1" "$2"; }

# Frames are on their way to a process while the thread that delivers has not run: what is said to be exact is looked
# at again after everything else had time to come.
captured_exactly() {
	[ "$2" -eq 0 ] || captured "$1" "$2" || return 1
	sleep 0.2
	[ "$(count_of "$1")" -eq "$2" ]
}

captured_together() { # captured_together COUNT NAME...
	expected=$1
	shift
	within 5 sum_is "$expected" "$@" || return 1
	sleep 0.2
	sum_is "$expected" "$@"
}

sum_is() {
	wanted=$1
	sum=0
	shift
	for each in "$@"; do sum=$((sum + $(count_of "$each"))); done
	[ $sum -eq "$wanted" ]
}

# --- stations -------------------------------------------------------------------------------------------------

start_dhcp_server() {
	: >/var/lib/misc/udhcpd.leases
	cat >"$work/udhcpd.conf" <<-CONF
		interface ap0
		start 10.0.0.100
		end 10.0.0.109
		max_leases 10
		option subnet 255.255.255.0
	CONF
	env LD_PRELOAD="$here/station_socket.so" udhcpd -f -a 0 "$work/udhcpd.conf" >"$work/udhcpd.log" 2>&1 &
	echo $! >"$work/udhcpd.pid"
	helpers="$helpers $!"
	within 5 grep -q started "$work/udhcpd.log" || fail "udhcpd does not start: $(cat "$work/udhcpd.log")"
}

get_lease() {
	at "$1" env LD_PRELOAD="$here/station_socket.so" \
		udhcpc -i eth0 -B -n -q -f -t 5 -T 3 -s "$here/lease" >"$work/udhcpc-$1.log" 2>&1
}

address_of() { at "$1" ip -4 -o addr show dev eth0 | sed -n 's|.*inet \([0-9.]*\)/.*|\1|p'; }

pings() { # pings STATION COUNT ADDRESS: all of them answered
	at "$1" ping -c "$2" -i 0.2 -W 3 "$3" >"$work/ping.log" 2>&1 && grep -q ' 0% packet loss' "$work/ping.log"
}

no_ping_answers() {
	! at "$1" ping -c "$2" -i 0.2 -W 1 "$3" >"$work/ping.log" 2>&1 && grep -q '100% packet loss' "$work/ping.log"
}

# A server that keeps every line that it is sent.
serve() { # serve STATION PORT
	: >"$work/got-$2"
	at "$1" nc -ll -p "$2" -e "$here/keep" "$work/got-$2" >/dev/null 2>&1 &
	helpers="$helpers $!"
	within 5 listens "$1" "$2" || fail "no server listens on port $2"
}

listens() { at "$1" netstat -ltn | grep -q ":$2 "; }

try_send() { # try_send STATION ADDRESS PORT LINE [SECONDS]
	printf '%s\n' "$4" | at "$1" nc -w "${5:-3}" "$2" "$3" >/dev/null 2>&1
}

sends() { # sends STATION ADDRESS PORT LINE: and it arrives
	try_send "$@" || return 1
	within 3 grep -qxF "$4" "$work/got-$3"
}

does_not_send() { ! try_send "$@" 1 && ! grep -qxF "$4" "$work/got-$3"; }

# left_by_ports COUNT ADDRESS: by how many ports frames to the address (12 digits) left since recording began.
left_by_ports() { [ "$(moxlab left | tr -d ' :' | grep -c "length[0-9]*$2")" -eq "$1" ]; }

# --- the end --------------------------------------------------------------------------------------------------

# The numbers of the summary line that a capture ends with: captured, matched, dropped.
numbers_of() {
	sed -n 's/.*\] \([0-9]*\) frames\{0,1\} captured.*, \([0-9]*\) matched the rules, \([0-9]*\) of them dropped/\1 \2 \3/p' \
		"$work/$1.err"
}

summary() {
	step "What each process captured"
	printf '   %-14s %9s %9s %9s\n' process matched captured dropped
	dropped_by_sockets=0
	for name in $captures; do
		# shellcheck disable=SC2046  # three words
		set -- $(numbers_of "$name")
		[ $# -eq 3 ] || fail "$name says no numbers: $(cat "$work/$name.err")"
		printf '   %-14s %9d %9d %9d\n' "$name" "$2" "$1" "$3"
		[ "$1" -eq $(($2 - $3)) ] || fail "$name has lost frames: $2 matched, $3 dropped, $1 captured"
		dropped_by_sockets=$((dropped_by_sockets + $3))
	done

	step "What became of the frames"
	# A buffer that is on its way just now is no leak; one that stays is.
	within 5 nothing_lives || fail "$(live_count) efbuffs are still alive"
	printf '   %-40s %d\n' \
		"seen by the platform" "$(platform_count seen)" \
		"copied for processes" "$(copied_count)" \
		"taken by fetch and trap" "$(platform_count taken)" \
		"delivered to the port of their station" "$(platform_count forwarded)" \
		"delivered to every other port" "$(platform_count flooded)" \
		"dropped by the platform (no memory)" "$(platform_count no-memory)" \
		"dropped at full sockets" "$dropped_by_sockets" \
		"efbuffs live" "$(live_count)"
}

platform_count() { moxlab stats | sed -n "s/^$1 //p"; }
copied_count() { moxlab balance 0x93 | sed -n 's/^owner .* cloned \([0-9]*\) .*/\1/p'; }
live_count() { moxlab balance | sed -n 's/^live //p'; }
nothing_lives() { [ "$(live_count)" -eq 0 ]; }

tear_down() {
	for pid in $helpers; do kill "$pid" 2>/dev/null; done
	for name in $captures; do kill "$(cat "$work/$name.pid")" 2>/dev/null; done
	for station in $stations switch; do ip netns del "$station" 2>/dev/null; done
	wait
}
