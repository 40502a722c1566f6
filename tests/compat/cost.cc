// SPDX-License-Identifier: GPL-2.0-only
// Instructions from the platform's hook until a program has a frame, on a clock that counts instructions: of a program
// that uses the module's options itself, and, preloaded with libmox-compat.so, of one that does not.
//
//     cost plain | preload
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>

#include "mox_packet.h"
#include "moxlab.hpp"

namespace {

constexpr uint32_t kSource = 60000;
constexpr uint16_t kType = 0x88b6;
constexpr unsigned kRounds = 20, kFrames = 64;
constexpr size_t kLengths[] = { 60, 1514 };

uint64_t now()
{
	timespec at;
	::clock_gettime(CLOCK_MONOTONIC, &at);
	return uint64_t(at.tv_sec) * 1000000000u + uint64_t(at.tv_nsec);
}

[[noreturn]] void die(const char *what)
{
	throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

int open_socket(bool plain)
{
	const int fd = ::socket(AF_PACKET, SOCK_RAW, htons(kType));
	if (fd < 0)
		die("socket");
	if (plain) {
		const uint32_t treatment = PACKET_COPY, location = PACKET_LEV2_LOC;
		if (::setsockopt(fd, MOX_SOL_PACKET, PACKET_TREATMENT, &treatment,
				 sizeof(treatment)) ||
		    ::setsockopt(fd, MOX_SOL_PACKET, PACKET_LOCATION, &location, sizeof(location)))
			die("setsockopt");
	}
	return fd;
}

/// The shortest of the rounds, for one frame: a tick of the clock falls into the others.
double cost(moxlab::Device &lab, int fd, size_t length, unsigned batch)
{
	moxlab::Bytes frame(length, 0x5a);
	const uint8_t header[] = { 2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2, kType >> 8, kType & 0xff };
	std::copy(std::begin(header), std::end(header), frame.begin());
	moxlab::Injection in(MOXLAB_POINT_LEV2, frame);
	in.source(kSource).repeat(batch);
	uint8_t buffer[2000];
	uint64_t least = ~uint64_t(0);
	for (unsigned round = 0; round < kRounds; ++round) {
		const uint64_t begin = now();
		for (unsigned done = 0; done < kFrames; done += batch) {
			lab.inject(in);
			for (unsigned i = 0; fd >= 0 && i < batch; ++i) {
				pollfd wait{ fd, POLLIN, 0 };
				if (::poll(&wait, 1, 10000) != 1)
					throw std::runtime_error("a frame did not come");
				if (::recv(fd, buffer, sizeof(buffer), 0) != ssize_t(length))
					die("recv");
			}
		}
		least = std::min(least, now() - begin);
	}
	return double(least) / kFrames;
}

} // namespace

int main(int argc, char **argv)
{
	const std::string how = argc == 2 ? argv[1] : "";
	if (how != "plain" && how != "preload") {
		std::fputs("usage: cost plain|preload\n", stderr);
		return 2;
	}
	try {
		moxlab::Device lab;
		moxlab_intf intf{};
		intf.ifindex = kSource;
		intf.set = MOXLAB_INTF_SET_LINK;
		intf.link = 1;
		lab.set_interface(intf);
		for (const size_t length : kLengths) {
			for (const unsigned batch : { 1u, kFrames }) {
				// What the injection alone takes is no part of the path.
				const double injection = cost(lab, -1, length, batch);
				const int fd = open_socket(how == "plain");
				const double all = cost(lab, fd, length, batch);
				::close(fd);
				std::printf(
					"%-8s %5zu bytes, %2u at a time: %8.0f instructions a frame\n",
					how.c_str(), length, batch, all - injection);
			}
		}
	} catch (const std::exception &error) {
		std::fprintf(stderr, "cost: %s\n", error.what());
		return 1;
	}
	return 0;
}
