// SPDX-License-Identifier: GPL-2.0-only
// recvmsg, and the kernel's own packet socket beside the module's, on the same kernel.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench.hpp"
#include "bench_shapes.hpp"
#include "bench_support.hpp"
#include "mox_packet.h"

namespace bench {

namespace {

constexpr unsigned kListeners[] = { 1, 8, 64, 256, 1024 };
constexpr unsigned kBatch = 256;
constexpr unsigned kReceipts = 64;
constexpr const char *kDevice = "bench1";

/// A device of the stack's own, no port of the platform.
uint32_t stack_device()
{
	if (!if_nametoindex(kDevice)) {
		shell(std::string("ip link add ") + kDevice + " type dummy");
		std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + kDevice + "/disable_ipv6")
			<< "1\n";
		shell(std::string("ip link set ") + kDevice + " up");
	}
	return if_nametoindex(kDevice);
}

/// Whether filters are compiled: 1 where the kernel can.
bool jit()
{
	const char *path = "/proc/sys/net/core/bpf_jit_enable";
	std::ofstream(path) << "1\n";
	int on = 0;
	std::ifstream(path) >> on;
	return on == 1;
}

/// Accepts frames of one EtherType, of all that pass any device.
Fd filtering(uint16_t ethertype)
{
	Fd fd = open_socket();
	sock_filter code[] = {
		BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12),
		BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ethertype, 0, 1),
		BPF_STMT(BPF_RET | BPF_K, 0xffff),
		BPF_STMT(BPF_RET | BPF_K, 0),
	};
	const sock_fprog program{ 4, code };
	if (::setsockopt(fd.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program))
		die("a filter");
	return fd;
}

Fd bound(Fd fd, uint16_t ethertype)
{
	sockaddr_ll to{};
	to.sll_family = kFamily;
	to.sll_protocol = htons(ethertype);
	if (::bind(fd.get(), reinterpret_cast<sockaddr *>(&to), sizeof to))
		die("bind");
	return fd;
}

Fd by_filter(uint16_t ethertype)
{
	return bound(filtering(ethertype), ETH_P_ALL);
}

Fd by_type(uint16_t ethertype)
{
	return bound(open_socket(), ethertype);
}

/// Instructions that netif_receive_skb() spends on the frame.
double stack(moxlab::Device &lab, uint32_t device, uint16_t ethertype, unsigned count,
	     const std::vector<Fd> *readers = nullptr)
{
	const moxlab::Bytes frame = plain_frame(ethertype);
	moxlab_measure request{};
	request.what = MOXLAB_MEASURE_STACK;
	request.count = count;
	request.frame = reinterpret_cast<uintptr_t>(frame.data());
	request.frame_len = uint32_t(frame.size());
	request.src_ifindex = device;
	uint64_t least = ~uint64_t(0);
	for (unsigned n = 0; n < 5; ++n) {
		least = std::min(least, uint64_t(lab.measure(request).rest_ns));
		for (size_t i = 0; readers && i < readers->size(); ++i)
			if (drain((*readers)[i].get()) != count)
				throw std::runtime_error("a packet socket did not get every frame");
	}
	return double(least) / (count - 1);
}

uint16_t type_of(size_t i)
{
	return uint16_t(0x9000 + i);
}

void listeners(moxlab::Device &lab, uint32_t device, const char *how, Fd (*open)(uint16_t))
{
	auto show = [&](const char *what, unsigned count, double value) {
		report({ "kernel", what, how, count, value });
	};
	std::vector<Fd> sockets;
	for (unsigned count : kListeners) {
		while (sockets.size() < count)
			sockets.push_back(open(type_of(sockets.size())));
		show("packet socket, unwanted", count, stack(lab, device, 0x88b6, kBatch));
		std::vector<Fd> reader;
		reader.push_back(std::move(sockets[count / 2]));
		show("packet socket, wanted by one", count,
		     stack(lab, device, type_of(count / 2), kBatch, &reader));
		sockets[count / 2] = std::move(reader[0]);
	}
	sockets.clear();
	double one = 0;
	for (unsigned count : { 1, 8, 64, 256 }) {
		while (sockets.size() < count)
			sockets.push_back(open(0x88b6));
		const double all = stack(lab, device, 0x88b6, std::max(17u, kBatch / count),
					 &sockets);
		if (count == 1)
			one = all;
		else
			show("packet socket, each further socket", count,
			     (all - one) / (count - 1));
	}
}

/// recvmsg in batches of frames that are queued already: from user space, and the socket's own function alone.
template <typename Send>
void recvmsg_cost(const moxlab::Device &lab, const Fd &fd, const char *whose, size_t length,
		  Send send)
{
	moxlab::Bytes room(length);
	moxlab_bench request{};
	request.fd = fd.get();
	request.count = kReceipts;
	request.batches = 1;
	request.frame = reinterpret_cast<uintptr_t>(room.data());
	request.frame_len = uint32_t(length);
	iovec vector{ room.data(), length };
	msghdr message{};
	message.msg_iov = &vector;
	message.msg_iovlen = 1;
	uint64_t own = ~uint64_t(0), all = ~uint64_t(0);
	for (unsigned n = 0; n < 20; ++n) {
		send(kReceipts);
		request.part = MOXLAB_BENCH_RECEIVE;
		own = std::min(own, uint64_t(lab.bench(request).shortest_ns));
		send(kReceipts);
		const uint64_t begin = now_ns();
		for (unsigned i = 0; i < kReceipts; ++i)
			if (::recvmsg(fd.get(), &message, MSG_DONTWAIT) != ssize_t(length))
				die("recvmsg");
		all = std::min(all, now_ns() - begin - clock_cost());
	}
	request.part = MOXLAB_BENCH_NOTHING;
	request.batches = 20;
	const double loop = double(lab.bench(request).shortest_ns);
	const std::string what = std::string(whose) + ", recvmsg, " + std::to_string(length) +
				 " bytes";
	report({ "kernel", what, "with the system call", 0, double(all) / kReceipts });
	report({ "kernel", what, "the socket's function", 0, (double(own) - loop) / kReceipts });
}

constexpr size_t kLengths[] = { 64, 1500 };

void module_recvmsg(moxlab::Device &lab)
{
	Owner owner("mox_ef_socket");
	make_interface(lab, kSource);
	Fd fd = listener({ value16(PACKET_ETH_PROT_EQUAL, 0x88b6) });
	for (size_t length : kLengths) {
		moxlab::Injection in(MOXLAB_POINT_LEV2, plain_frame(0x88b6, length));
		in.source(kSource);
		recvmsg_cost(lab, fd, "module", length, [&](unsigned count) {
			lab.inject(in.repeat(count));
			for (unsigned tries = 0; lab.balance(MOXLAB_OWNER_MODULE).live; ++tries) {
				if (tries == 1000)
					throw std::runtime_error("the frames were not delivered");
				::usleep(1000);
			}
		});
	}
}

void kernel_recvmsg(moxlab::Device &lab, uint32_t device)
{
	Fd fd = by_type(0x88b6);
	for (size_t length : kLengths) {
		const moxlab::Bytes frame = plain_frame(0x88b6, length);
		moxlab_measure request{};
		request.what = MOXLAB_MEASURE_STACK;
		request.frame = reinterpret_cast<uintptr_t>(frame.data());
		request.frame_len = uint32_t(frame.size());
		request.src_ifindex = device;
		recvmsg_cost(lab, fd, "packet socket", length, [&](unsigned count) {
			request.count = count;
			lab.measure(request);
		});
	}
}

} // namespace

void kernel_instructions()
{
	moxlab::Device lab;
	quiet_platform(lab);
	allow_many_files(1024);
	module_recvmsg(lab);
	Owner owner("af_packet");
	const uint32_t device = stack_device();
	const char *filtered = jit() ? "BPF filter, compiled" : "BPF filter, interpreted";
	report({ "kernel", "the stack without a socket", "", 0,
		 stack(lab, device, 0x88b6, kBatch) });
	listeners(lab, device, filtered, by_filter);
	listeners(lab, device, "bound to an EtherType", by_type);
	kernel_recvmsg(lab, device);
}

} // namespace bench
