// SPDX-License-Identifier: GPL-2.0-only
// The operators' side: what the debug filter costs a frame, and how long a command takes with many sockets open.
#include "bench.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench_support.hpp"
#include "mox_packet.h"
#include "moxlab.hpp"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

/// A capture socket; it copies frames of the EtherType at layer 2.
int capture(uint16_t ethertype)
{
	int fd = ::socket(MOX_PACKET_FAMILY, SOCK_RAW, 0);
	const uint16_t rule[4] = { PACKET_ETH_PROT_EQUAL, 2, 1, htons(ethertype) };
	const uint32_t treatment = PACKET_COPY, location = PACKET_LEV2_LOC;
	if (fd < 0 || ::setsockopt(fd, MOX_SOL_PACKET, MOX_PACKET_ADD_RULE, rule, sizeof rule) ||
	    ::setsockopt(fd, MOX_SOL_PACKET, PACKET_TREATMENT, &treatment, sizeof treatment) ||
	    ::setsockopt(fd, MOX_SOL_PACKET, PACKET_LOCATION, &location, sizeof location))
		throw std::runtime_error(std::string("a capture socket: ") + std::strerror(errno));
	return fd;
}

uint64_t address_of(const std::string &symbol)
{
	std::ifstream symbols("/proc/kallsyms");
	std::string address, type, name, line;
	while (symbols >> address >> type >> name && std::getline(symbols, line))
		if (name == symbol)
			return std::stoull(address, nullptr, 16);
	throw std::runtime_error("no symbol " + symbol + " in /proc/kallsyms");
}

/// An IPv4 or IPv6 UDP frame with everything that a filter can ask for.
moxlab::Injection frame(bool six)
{
	moxlab::Bytes bytes = {
		2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1, uint8_t(six ? 0x86 : 8), uint8_t(six ? 0xdd : 0)
	};
	if (six) {
		const uint8_t header[] = { 0x60, 0, 0, 0, 0, 12, 17, 64 };
		bytes.insert(bytes.end(), std::begin(header), std::end(header));
		for (uint8_t host : { 1, 2 })
			for (int i = 0; i < 16; ++i)
				bytes.push_back(i < 15 ? uint8_t(0x20 + i) : host);
	} else {
		const uint8_t header[] = { 0x45, 0, 0,  32, 0, 0, 0,  0, 64, 17,
					   0,    0, 10, 0,  0, 1, 10, 0, 0,  2 };
		bytes.insert(bytes.end(), std::begin(header), std::end(header));
	}
	const uint8_t udp[] = { 0, 68, 0, 67, 0, 12, 0, 0, 1, 2, 3, 4 };
	bytes.insert(bytes.end(), std::begin(udp), std::end(udp));
	moxlab::Injection in(MOXLAB_POINT_LEV2, bytes);
	in.kind(six ? 27 : 1).vlan(100).source(211).destination(212).cpu(0);
	return in;
}

mox_packet_filter filter(uint32_t flags)
{
	mox_packet_filter out{};
	out.enable = 1;
	out.flags = flags;
	out.vid = htonl(100); // as the module keeps it
	const uint8_t source[] = { 2, 0, 0, 0, 0, 1 }, destination[] = { 2, 0, 0, 0, 0, 2 },
		      v4[] = { 10, 0, 0, 1 };
	std::memcpy(out.src_mac, source, 6);
	std::memcpy(out.dst_mac, destination, 6);
	out.src_intf = 211;
	out.dst_intf = 212;
	std::memcpy(out.src_ipv4, v4, 4);
	std::memcpy(out.dst_ipv4, v4, 4);
	out.dst_ipv4[3] = 2;
	for (int i = 0; i < 15; ++i)
		out.src_ipv6[i] = out.dst_ipv6[i] = uint8_t(0x20 + i);
	out.src_ipv6[15] = 1;
	out.dst_ipv6[15] = 2;
	return out;
}

/// For one frame: the shortest batch counts, the others had a timer interrupt or worse in them.
double instructions(const moxlab::Device &lab, moxlab::Injection &in, unsigned batches)
{
	constexpr uint32_t kBatch = 64;
	in.repeat(kBatch);
	auto shortest = Clock::duration::max();
	for (unsigned batch = 0; batch < batches; ++batch) {
		auto begin = Clock::now();
		moxlab_inject out = lab.inject(in);
		shortest = std::min(shortest, Clock::now() - begin);
		if (out.hooks_run != 1)
			throw std::runtime_error("the frames reached no hook");
	}
	return double(std::chrono::nanoseconds(shortest).count()) / kBatch;
}

} // namespace

void filter_instructions(unsigned batches)
{
	moxlab::Device lab;
	moxlab_settings settings = lab.settings();
	settings.redzone = 0;
	settings.hold_memory = 0;
	settings.quarantine = 1;
	settings.tag_mode = MOXLAB_TAG_NEVER;
	lab.set(settings);
	for (uint32_t ifindex : { 211, 212 }) {
		moxlab_intf intf{};
		intf.ifindex = ifindex;
		intf.set = MOXLAB_INTF_SET_LINK;
		intf.link = 1;
		lab.set_interface(intf);
	}
	int socket = capture(0x88b6); // a hook without a copy: no frame here is of that type
	const uint64_t at = address_of("g_pktd_kdbg_filter");
	auto set = [&](const mox_packet_filter &filter) {
		auto *bytes = reinterpret_cast<const uint8_t *>(&filter);
		lab.write_memory(at, { bytes, 36 });
		lab.write_memory(at + 36, { bytes + 36, 36 });
	};
	struct Row {
		const char *what;
		uint32_t flags;
		bool six;
	};
	const Row rows[] = {
		{ "every packet", 0, false },
		{ "VLAN", MOX_FILTER_VID, false },
		{ "source MAC", MOX_FILTER_SRC_MAC, false },
		{ "destination MAC", MOX_FILTER_DST_MAC, false },
		{ "source interface", MOX_FILTER_SRC_INTF, false },
		{ "destination interface", MOX_FILTER_DST_INTF, false },
		{ "IPv4 source", MOX_FILTER_SRC_IPV4, false },
		{ "IPv4 destination", MOX_FILTER_DST_IPV4, false },
		{ "IPv6 source", MOX_FILTER_SRC_IPV6, true },
		{ "IPv6 destination", MOX_FILTER_DST_IPV6, true },
		{ "everything of IPv4", 0x0fe, false },
		{ "everything of IPv6", 0x33e, true },
	};
	double off[2];
	set({});
	for (bool six : { false, true }) {
		moxlab::Injection in = frame(six);
		off[six] = instructions(lab, in, batches);
	}
	for (const Row &row : rows) {
		moxlab::Injection in = frame(row.six);
		set(filter(row.flags));
		const double cost = instructions(lab, in, batches) - off[row.six];
		std::printf(
			"instructions of a debug filter for one frame that it matches, %-22s %3.0f\n",
			row.what, cost);
		record({ "filter", "debug filter, matched", row.what, 0, cost });
	}
	// The first field that differs ends the match.
	mox_packet_filter miss = filter(0x0fe);
	miss.vid = htonl(101);
	moxlab::Injection in = frame(false);
	set(miss);
	std::printf(
		"instructions of a debug filter for one frame that it does not match, %-15s %3.0f\n",
		"by VLAN", instructions(lab, in, batches) - off[0]);
	set({});
	::close(socket);
}

int with_sockets(unsigned count, char **command)
{
	rlimit many{ count + 64, count + 64 };
	if (::setrlimit(RLIMIT_NOFILE, &many))
		throw std::runtime_error(std::string("as many open files: ") +
					 std::strerror(errno));
	std::vector<int> sockets;
	for (unsigned i = 0; i < count; ++i)
		sockets.push_back(capture(0x0806));
	auto begin = Clock::now();
	pid_t child = ::fork();
	if (child == 0) {
		::execvp(command[0], command);
		std::fprintf(stderr, "lab-bench: %s: %s\n", command[0], std::strerror(errno));
		::_exit(127);
	}
	int status = 0;
	if (child < 0 || ::waitpid(child, &status, 0) != child)
		throw std::runtime_error(std::string(command[0]) + ": " + std::strerror(errno));
	std::fprintf(stderr, "%u sockets: %s took %.3f s\n", count, command[0],
		     std::chrono::duration<double>(Clock::now() - begin).count());
	for (int fd : sockets)
		::close(fd);
	return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace bench
