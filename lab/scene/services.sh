# shellcheck shell=sh disable=SC2154
# The services that the access point itself offers through its sockets, and the switch behind port3 that hears them.
# Sourced behind lib.sh.

index_of() { cat "/sys/class/net/$1/ifindex"; }   # the lab's platform numbers its interfaces as the kernel does
mac_of() { tr -d : <"/sys/class/net/$1/address"; }

# start NAME COMMAND...: a process of the scene; its text goes to $work/NAME.log, its number to $work/NAME.pid.
start() {
	name=$1
	shift
	# Read from now on, even if the process is not yet running.
	: >"$work/$name.log"
	"$@" >"$work/$name.log" 2>&1 &
	echo $! >"$work/$name.pid"
	helpers="$helpers $!"
}

says() { grep -q "$2" "$work/$1.log"; }   # says NAME PATTERN

# ends NAME STATUS: asks the process to end, and it does with this status.
ends() {
	kill "$(cat "$work/$1.pid")"
	wait "$(cat "$work/$1.pid")"
	[ $? -eq "$2" ]
}

stop() {
	kill "$(cat "$work/$1.pid")"
	wait "$(cat "$work/$1.pid")" 2>/dev/null
}

# --- the wire of port3 ----------------------------------------------------------------------------------------

link_is_up() { moxlab intfs | grep -q "^$(index_of "$1") .* up"; }

# From now on what leaves by port3 goes to the pcap file.
record_port3() {
	start recorder rawframe --record "$1" port3
	within 10 link_is_up port3 || fail "port3 has no link: $(cat "$work/recorder.log")"
}

# What tcpdump makes of the frames of a file: recorded FILE FILTER OPTION...
recorded() {
	file=$1
	filter=$2
	shift 2
	tcpdump -Z root -n "$@" -r "$file" "$filter" 2>"$work/tcpdump.log"
}

# The bytes of each, as a line of hexadecimal.
recorded_bytes() {
	recorded "$1" "$2" -xx -t |
		awk '/^\t0x/ { sub(/^[^:]*: */, ""); gsub(/ /, ""); bytes = bytes $0; next }
			bytes { print bytes; bytes = "" }
			END { if (bytes) print bytes }'
}

# recorded_exactly COUNT FILE FILTER BYTES: so many frames pass the filter, and each has these bytes.
recorded_exactly() {
	recorded_bytes "$2" "$3" >"$work/bytes"
	[ "$(wc -l <"$work/bytes")" -eq "$1" ] && ! grep -qvxF "$4" "$work/bytes"
}

recorded_text() { recorded "$1" "$2" -v | grep -q "$3"; }

# --- ARP from an unmodified program ---------------------------------------------------------------------------

# A who-has of the access point on a port, byte by byte: who asks as whom for whom. Addresses in hexadecimal.
arp_request() { # arp_request PORT SENDER TARGET
	printf '%s' ffffffffffff "$(mac_of ap0)" 0806 0001 0800 06 04 0001 \
		"$(mac_of "$1")" "$2" ffffffffffff "$3"
}

# asks PORT COUNT ADDRESS: busybox arping ends with status 1, as nothing that it hears reaches it.
asks() {
	arping -I "$1" -c "$2" -s 10.0.0.1 "$3" >"$work/arping.log" 2>&1
	[ $? -eq 1 ]
}

arping_says() { grep -q "$1" "$work/arping.log"; }

# --- LLDP -----------------------------------------------------------------------------------------------------

# The switch behind port3 is the distribution's lldpd. Its interface is a namespace's, its wire that of port3.
start_switch() {
	ip netns add switch 2>"$work/ip.log" || fail "no namespace for the switch: $(cat "$work/ip.log")"
	at switch ip link add name eth0 type veth peer name eth0-end
	at switch ip link set eth0 address 02:00:00:00:03:01
	for each in lo eth0-end eth0; do at switch ip link set $each up; done
	# What lldpd asks of the system that it runs on.
	echo '_lldpd:x:101:101::/run/lldpd:/bin/false' >>/etc/passwd
	echo '_lldpd:x:101:' >>/etc/group
	mkdir -p /run/lldpd
	start switch at_switch
	within 10 lldpd_answers || fail "lldpd does not start: $(cat "$work/switch.log")"
}

at_switch() {
	# It announces the name of its host, which here is the access point, too.
	exec nsenter --net=/run/netns/switch unshare -u sh -c 'hostname switch; exec "$@"' sh \
		env SWITCH_TAP=port3 LD_PRELOAD="$here/switch_socket.so" lldpd -d -I eth0 -S "the switch behind port3"
}

lldpd_answers() { lldpcli show chassis >/dev/null 2>&1; }
lldpd_sees() { lldpcli -f keyvalue show neighbors 2>/dev/null | grep -qxF "$1"; }
lldpd_sees_nobody() { [ -z "$(lldpcli -f keyvalue show neighbors)" ]; }

start_lldp_agent() {
	set -- --name access-point --description "the lab's access point" --management 10.0.0.1
	for port in port1 port2 port3; do set -- "$@" --port "$(index_of $port)=$port"; done
	start lldpagent lldpagent --interval 2 --hold 2 "$@"
	within 10 says lldpagent announcing || fail "lldpagent does not start: $(cat "$work/lldpagent.log")"
}

# shutdowns_left COUNT: a shutdown LLDPDU has the shortest frame length, unlike an announcement.
shutdowns_left() { [ "$(moxlab left | tr -d ' :' | grep -c 'length600180c200000e')" -eq "$1" ]; }

lists() { lldpagent show | grep -q "$1"; }
does_not_list() { ! lists "$1"; }
