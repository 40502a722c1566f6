// SPDX-License-Identifier: GPL-2.0-only
#include "bench_support.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <stdexcept>

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "mox_packet.h"

namespace bench {

void record(const Figure &figure)
{
	// No text here has a character that JSON would have escaped.
	std::printf(
		"@@ {\"round\":\"%s\",\"what\":\"%s\",\"shape\":\"%s\",\"rules\":%u,\"value\":%.2f,\"unit\":\"%s\"}\n",
		figure.round.c_str(), figure.what.c_str(), figure.shape.c_str(), figure.rules,
		figure.value, figure.unit.c_str());
	std::fflush(stdout);
}

void report(const Figure &figure)
{
	char rules[32] = "";
	if (figure.rules)
		std::snprintf(rules, sizeof rules, "%u", figure.rules);
	std::printf("  %-44s %-28s %5s %14.1f %s\n", figure.what.c_str(), figure.shape.c_str(),
		    rules, figure.value, figure.unit.c_str());
	record(figure);
}

void die(const std::string &what)
{
	throw std::runtime_error(what + ": " + std::strerror(errno));
}

void shell(const std::string &command)
{
	if (std::system(command.c_str()))
		throw std::runtime_error("\"" + command + "\" failed");
}

Owner::Owner(const std::string &module) : module_(module)
{
	for (const char *other : { "mox_ef_socket", "af_packet" })
		if (moxlab::module_loaded(other))
			shell(std::string("rmmod ") + other);
	shell("insmod /modules/" + module_ + ".ko");
}

Owner::~Owner()
{
	if (moxlab::module_loaded(module_))
		std::system(("rmmod " + module_).c_str());
}

Fd::~Fd()
{
	close();
}

void Fd::close()
{
	if (fd_ >= 0)
		::close(fd_);
	fd_ = -1;
}

Fd open_socket()
{
	Fd fd(::socket(kFamily, SOCK_RAW, 0));
	if (fd.get() < 0)
		die("a socket of family 17");
	const int room = 512 * 1024; // which the kernel doubles
	if (::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) &&
	    errno != EPERM)
		die("room for received frames");
	return fd;
}

moxlab::Bytes rule_record(const Item &item)
{
	// A type without values has one element, and PACKET_ALL none.
	const size_t count = item.width ? item.values.size() / item.width : item.type != PACKET_ALL;
	moxlab::Bytes record(MOX_PACKET_RULE_LENGTH(item.width, count));
	mox_packet_build_rule(record.data(), record.size(), item.type, item.values.data(),
			      item.width, uint16_t(count));
	return record;
}

int add_item(int fd, const Item &item, bool add)
{
	const moxlab::Bytes record = rule_record(item);
	return ::setsockopt(fd, MOX_SOL_PACKET, add ? MOX_PACKET_ADD_RULE : MOX_PACKET_DEL_RULE,
			    record.data(), socklen_t(record.size()))
		       ? errno
		       : 0;
}

void set_option(int fd, int option, uint32_t value)
{
	if (::setsockopt(fd, MOX_SOL_PACKET, option, &value, sizeof value))
		die("option " + std::to_string(option));
}

std::optional<Fd> listener_within_budget(const std::vector<Item> &items)
{
	Fd fd = open_socket();
	for (const Item &item : items)
		if (int error = add_item(fd.get(), item)) {
			if (error == ENOMEM)
				return std::nullopt;
			errno = error;
			die("a rule's values");
		}
	set_option(fd.get(), PACKET_TREATMENT, PACKET_COPY);
	set_option(fd.get(), PACKET_LOCATION, PACKET_LEV2_LOC);
	return fd;
}

Fd listener(const std::vector<Item> &items)
{
	std::optional<Fd> fd = listener_within_budget(items);
	if (!fd) {
		errno = ENOMEM;
		die("a rule's values");
	}
	return std::move(*fd);
}

unsigned drain(int fd)
{
	uint8_t frame[2048];
	unsigned count = 0;
	while (::recv(fd, frame, sizeof frame, MSG_DONTWAIT) >= 0)
		++count;
	return count;
}

void allow_many_files(unsigned count)
{
	const rlimit many{ count + 64, count + 64 };
	if (::setrlimit(RLIMIT_NOFILE, &many))
		die("as many open files");
}

void quiet_platform(moxlab::Device &lab)
{
	moxlab_settings settings = lab.settings();
	settings.redzone = 0;
	settings.hold_memory = 0;
	settings.quarantine = 1;
	settings.tag_mode = MOXLAB_TAG_NEVER;
	lab.set(settings);
}

void make_interface(moxlab::Device &lab, uint32_t ifindex)
{
	moxlab_intf intf{};
	intf.ifindex = ifindex;
	intf.set = MOXLAB_INTF_SET_LINK;
	intf.link = 1;
	lab.set_interface(intf);
}

uint64_t now_ns()
{
	timespec now;
	::clock_gettime(CLOCK_MONOTONIC, &now);
	return uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
}

uint64_t clock_cost()
{
	uint64_t least = ~uint64_t(0);
	for (int i = 0; i < 1000; ++i) {
		const uint64_t begin = now_ns();
		least = std::min(least, now_ns() - begin);
	}
	return least;
}

double slab_bytes()
{
	// The counters of the CPUs are folded into the sum first.
	std::ofstream("/proc/sys/vm/stat_refresh") << "1\n";
	std::ifstream file("/proc/vmstat");
	std::string name;
	double pages = 0;
	while (file >> name >> pages)
		if (name == "nr_slab_unreclaimable")
			return pages * double(::sysconf(_SC_PAGESIZE));
	throw std::runtime_error("no nr_slab_unreclaimable in /proc/vmstat");
}

double median(std::vector<double> values)
{
	std::sort(values.begin(), values.end());
	return values[values.size() / 2];
}

moxlab::Bytes plain_frame(uint16_t ethertype, size_t length)
{
	moxlab::Bytes frame(length, 0x5a);
	const uint8_t header[] = { 0x02,
				   0,
				   0,
				   0,
				   0,
				   1,
				   0x02,
				   0,
				   0,
				   0,
				   0,
				   2,
				   uint8_t(ethertype >> 8),
				   uint8_t(ethertype) };
	std::copy(std::begin(header), std::end(header), frame.begin());
	return frame;
}

} // namespace bench
