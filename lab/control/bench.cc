// SPDX-License-Identifier: GPL-2.0-only
// lab-bench - what a send costs, in the virtual machine: sends a second through mox_ef_socket next to the kernel's own
// packet socket on the same device, and instructions of one send inside the module. lab/bench runs it.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench.hpp"
#include "bench_support.hpp"
#include "moxlab.hpp"

namespace {

using namespace bench;

constexpr const char *kDevice = "bench0";
constexpr size_t kLengths[] = { 64, 1514 };

class Socket {
public:
	Socket() : fd_(::socket(kFamily, SOCK_RAW, 0))
	{
		if (fd_ < 0)
			die("a socket of family 17");
	}
	~Socket() { ::close(fd_); }
	Socket(const Socket &) = delete;
	int fd() const { return fd_; }

private:
	int fd_;
};

std::vector<uint8_t> frame_of(size_t length)
{
	std::vector<uint8_t> frame(length, 0x5a);
	const uint8_t header[] = { 0x02, 0, 0, 0, 0, 1, 0x02, 0, 0, 0, 0, 2, 0x88, 0xb5 };
	std::copy(std::begin(header), std::end(header), frame.begin());
	return frame;
}

/// A device that takes every frame and drops it, up, silent, and a port of the platform without the lab's book-keeping
/// as far as that can be switched off.
uint32_t make_device(moxlab::Device &lab)
{
	if (!if_nametoindex(kDevice)) {
		shell(std::string("ip link add ") + kDevice + " type dummy");
		std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + kDevice + "/disable_ipv6")
			<< "1\n";
		shell(std::string("ip link set ") + kDevice + " up");
		lab.add_port(kDevice);
	}
	quiet_platform(lab);
	return if_nametoindex(kDevice);
}

/// Sends a second, for that many seconds of the guest's clock.
double rate(size_t length, uint32_t ifindex, double seconds)
{
	using Clock = std::chrono::steady_clock;
	Socket socket;
	auto frame = frame_of(length);
	sockaddr_ll to{};
	to.sll_family = kFamily;
	to.sll_ifindex = int(ifindex);
	to.sll_halen = 6;
	uint64_t sent = 0;
	auto begin = Clock::now(), end = begin + std::chrono::duration_cast<Clock::duration>(
							 std::chrono::duration<double>(seconds));
	auto now = begin;
	for (; now < end; now = Clock::now())
		for (int n = 0; n < 64; ++n, ++sent)
			if (::sendto(socket.fd(), frame.data(), frame.size(), 0,
				     reinterpret_cast<sockaddr *>(&to),
				     sizeof to) != ssize_t(length))
				die("a send of " + std::to_string(length) + " bytes");
	return double(sent) / std::chrono::duration<double>(now - begin).count();
}

uint64_t device_sent()
{
	uint64_t count = 0;
	std::ifstream(std::string("/sys/class/net/") + kDevice + "/statistics/tx_packets") >> count;
	return count;
}

void rates(int rounds, double seconds)
{
	moxlab::Device lab;
	uint32_t ifindex = make_device(lab);
	const char *owners[] = { "mox_ef_socket", "af_packet" };
	for (size_t length : kLengths) {
		std::vector<double> results[2], ratios;
		for (int round = 0; round < rounds; ++round) {
			for (int which : { 0, 1 }) {
				Owner owner(owners[which]);
				uint64_t before = device_sent();
				results[which].push_back(rate(length, ifindex, seconds));
				if (device_sent() - before < 64)
					throw std::runtime_error(std::string("what ") +
								 owners[which] +
								 " sent did not reach the device");
			}
			ratios.push_back(results[0].back() / results[1].back());
			std::printf("  round %d, %zu bytes: %s %.0f/s, %s %.0f/s, ratio %.3f\n",
				    round + 1, length, owners[0], results[0].back(), owners[1],
				    results[1].back(), ratios.back());
			std::fflush(stdout);
		}
		std::printf(
			"sends a second, %4zu bytes: module %.0f, kernel's packet socket %.0f, ratio %.3f (medians of %d)\n",
			length, median(results[0]), median(results[1]), median(ratios), rounds);
		const std::string bytes = std::to_string(length) + " bytes";
		record({ "rates", "sends a second, module", bytes, 0, median(results[0]),
			 "sends/s" });
		record({ "rates", "sends a second, packet socket", bytes, 0, median(results[1]),
			 "sends/s" });
		record({ "rates", "sends a second, ratio", bytes, 0, median(ratios), "" });
		std::fflush(stdout);
	}
}

double instructions(const moxlab::Device &lab, moxlab_bench request, uint32_t part)
{
	request.part = part;
	return double(lab.bench(request).shortest_ns) / request.count;
}

void module_instructions(uint32_t batches)
{
	moxlab::Device lab;
	uint32_t ifindex = make_device(lab);
	Owner owner("mox_ef_socket");
	Socket socket;
	// The platform only frees the efbuff: transmission is not the module's cost.
	lab.override_outcome(0, MOXLAB_FOREVER, false);
	for (size_t length : kLengths)
		for (bool controlled : { false, true }) {
			auto frame = frame_of(length);
			moxlab_bench request{};
			request.fd = socket.fd();
			request.count = 64;
			request.batches = batches;
			request.frame = reinterpret_cast<uintptr_t>(frame.data());
			request.frame_len = uint32_t(length);
			request.dst_ifindex = ifindex;
			request.controlled = controlled;
			double nothing = instructions(lab, request, MOXLAB_BENCH_NOTHING);
			double all = instructions(lab, request, MOXLAB_BENCH_SEND) - nothing;
			double platform = instructions(lab, request, MOXLAB_BENCH_PLATFORM) -
					  nothing;
			std::printf(
				"instructions of one send, %4zu bytes%s: module %.0f (whole sendmsg %.0f, platform's calls %.0f)\n",
				length, controlled ? " with control record" : "", all - platform,
				all, platform);
			const std::string bytes = std::to_string(length) + " bytes" +
						  (controlled ? " with control record" : "");
			record({ "instructions", "sendmsg, the module's part", bytes, 0,
				 all - platform });
			record({ "instructions", "sendmsg, all of it", bytes, 0, all });
			std::fflush(stdout);
		}
	lab.override_outcome(0, 0, false);
}

std::vector<unsigned> numbers(char **from, char **to)
{
	std::vector<unsigned> out;
	for (; from < to; ++from)
		out.push_back(unsigned(std::clamp(std::atoi(*from), 1, 65535)));
	return out;
}

int usage(FILE *to)
{
	std::fprintf(
		to,
		"usage: lab-bench rates [ROUNDS [SECONDS]]\n"
		"       lab-bench instructions [BATCHES]\n"
		"       lab-bench filter [BATCHES]\n"
		"       lab-bench receive [SHAPE...]\n"
		"       lab-bench changes [VALUES...]\n"
		"       lab-bench kernel\n"
		"       lab-bench sections [VALUES...]\n"
		"       lab-bench sockets COUNT COMMAND [ARGUMENT...]\n\n"
		"rates: sends a second (the guest's clock) through mox_ef_socket and through af_packet in turn, on one\n"
		"dummy device. instructions: of one send inside the module; right only where the guest's clock counts\n"
		"instructions (lab/vm/run --icount), and so is filter: of a debug filter in force, for one received frame.\n"
		"receive: of a received frame, hook and copy thread; SHAPE as in its output. changes: of rule changes, and of\n"
		"each of so many values of one rule. kernel: of recvmsg, and of the kernel's own packet socket. sections: the\n"
		"longest time with bottom halves off. All four are right under --icount only, as instructions is.\n"
		"sockets: how long the command takes (the guest's clock) while so many capture sockets are open.\n"
		"Needs the platform's modules loaded; rates, instructions and filter load the others themselves.\n");
	return to == stdout ? 0 : 2;
}

} // namespace

int main(int argc, char **argv)
{
	std::string what = argc > 1 ? argv[1] : "";
	try {
		if (what == "--help" || what == "-h")
			return usage(stdout);
		if (what == "rates") {
			rates(argc > 2 ? std::max(1, std::atoi(argv[2])) : 5,
			      argc > 3 ? std::atof(argv[3]) : 2.0);
		} else if (what == "instructions") {
			module_instructions(argc > 2 ? uint32_t(std::max(1, std::atoi(argv[2])))
						     : 200);
		} else if (what == "filter") {
			Owner owner("mox_ef_socket");
			bench::filter_instructions(
				argc > 2 ? unsigned(std::max(1, std::atoi(argv[2]))) : 200);
		} else if (what == "receive") {
			bench::receive_instructions({ argv + 2, argv + argc });
		} else if (what == "changes") {
			bench::change_instructions(numbers(argv + 2, argv + argc));
		} else if (what == "sections") {
			bench::longest_sections(numbers(argv + 2, argv + argc));
		} else if (what == "kernel") {
			bench::kernel_instructions();
		} else if (what == "sockets" && argc > 3 && std::atoi(argv[2]) > 0) {
			return bench::with_sockets(unsigned(std::atoi(argv[2])), argv + 3);
		} else {
			return usage(stderr);
		}
		return 0;
	} catch (const std::exception &e) {
		std::fprintf(stderr, "lab-bench: %s\n", e.what());
		return 1;
	}
}
