# shellcheck shell=sh disable=SC2154
# What the clients of lab/try's access point send, round by round. Sourced after lib.sh.
#
#   laptop 10.0.0.11, fd00::11     asks for addresses by DHCP, pings the printer (ARP and neighbour discovery before that)
#   printer 10.0.0.12, fd00::12    answers, and asks the laptop back
#   switch behind port3            LLDP, a BPDU, EAPOL-Start

rounds=0
leases=0
pings_answered=0
pings6_answered=0

start_traffic() {
	address_laptop
	at printer ip addr add 10.0.0.12/24 brd + dev eth0
	at laptop ip addr add fd00::11/64 dev eth0 nodad
	at printer ip addr add fd00::12/64 dev eth0 nodad
	start_dhcp_server
}

# One round, in about a second when all is answered. What is not answered may be the program's doing: it is counted.
traffic_round() {
	rounds=$((rounds + 1))
	rawframe port3 lldp bpdu eapol-start || fail "the switch cannot send"
	for station in $stations; do at "$station" ip neigh flush dev eth0 2>"$work/ip.log"; done
	ask_for_lease && leases=$((leases + 1))
	at laptop ping -c 1 -W 1 10.0.0.12 >"$work/ping.log" 2>&1 && pings_answered=$((pings_answered + 1))
	at laptop ping -6 -c 1 -W 1 fd00::12 >"$work/ping6.log" 2>&1 && pings6_answered=$((pings6_answered + 1))
	return 0
}

address_laptop() { at laptop ip addr add 10.0.0.11/24 brd + dev eth0; }

# A client that asks has no address, and what it is offered is only counted: the laptop's own comes back.
ask_for_lease() {
	at laptop ip -4 addr flush dev eth0
	at laptop env LD_PRELOAD="$here/station_socket.so" \
		udhcpc -i eth0 -B -n -q -f -t 1 -T 2 -s /bin/true >"$work/udhcpc.log" 2>&1
	given=$?
	address_laptop
	return $given
}

show_traffic() {
	printf '   %-52s %d\n' \
		"rounds (each: LLDP, BPDU, EAPOL-Start, DHCP, pings)" "$rounds" \
		"DHCP leases that the laptop was given" "$leases" \
		"pings from laptop to printer that were answered" "$pings_answered" \
		"the same with IPv6" "$pings6_answered"
}
