// SPDX-License-Identifier: GPL-2.0-only
// bind(2), and the names and ioctls that follow from it.
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/fixture.h"

namespace {

using namespace vm;
using Bind = VmTest;

/// getsockname(2) into a buffer of 0xAA; the length the kernel reports.
socklen_t name_of(Socket &socket, sockaddr_ll &address)
{
	std::memset(&address, 0xaa, sizeof address);
	socklen_t length = sizeof address;
	EXPECT_EQ(::getsockname(socket.fd(), reinterpret_cast<sockaddr *>(&address), &length), 0)
		<< strerror(errno);
	return length;
}

TEST_F(Bind, an_address_of_19_bytes_is_too_short_and_one_of_20_is_enough)
{
	Socket socket;
	EXPECT_EQ(socket.bind(lab::kPortA, 0, 19), EINVAL);
	EXPECT_EQ(socket.bind(lab::kPortA, 0, 20), 0);
}

TEST_F(Bind, a_length_of_zero_is_refused)
{
	Socket socket;
	EXPECT_EQ(socket.bind(0, 0, 0), EINVAL);
}

TEST_F(Bind, a_foreign_family_is_refused)
{
	Socket socket;
	for (uint16_t family : { 0, AF_INET, AF_UNIX, 18 })
		EXPECT_EQ(socket.bind(lab::kPortA, 0, sizeof(sockaddr_ll), family), EINVAL)
			<< family;
}

TEST_F(Bind, every_refusal_has_its_line)
{
	pin(3);
	Socket socket;
	DebugOn debug;
	socket.bind(lab::kPortA, 0, 19);
	EXPECT_TRUE(HasLine(lab::printk_lines(), "MOX-PACKET-BIND", 3));
	EXPECT_TRUE(HasLine(lab::printk_lines(), "MOX-PACKET-BIND: Addr_len illegal", 3));
	lab::clear_printk();
	socket.bind(lab::kPortA, 0, sizeof(sockaddr_ll), AF_INET);
	EXPECT_TRUE(HasLine(lab::printk_lines(), "MOX-PACKET-BIND: Sock family illegal", 3));
	lab::clear_printk();
	socket.bind(lab::kNoSuchInterface);
	EXPECT_TRUE(
		HasLine(lab::printk_lines(), "MOX-PACKET-BIND: Interface 3999 had not created", 3));
	lab::clear_printk();
	socket.bind(lab::kPortA);
	EXPECT_EQ(lab::printk_lines().size(), 1u) << "a good bind prints its first line only";
	pin(-1);
}

TEST_F(Bind, an_unknown_interface_leaves_the_socket_as_it_was)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	ASSERT_EQ(socket.bind(lab::kPortA), 0);
	EXPECT_EQ(socket.bind(lab::kNoSuchInterface, htons(0x0806)), ENODEV);
	sockaddr_ll address;
	EXPECT_EQ(name_of(socket, address), 18u);
	EXPECT_EQ(address.sll_ifindex, int(lab::kPortA));
	EXPECT_TRUE(lab::registered(lab::Hook::Lev2));
	put(lab::Hook::Lev2, frames::plain());
	EXPECT_TRUE(socket.receive())
		<< "the protocol of the refused bind must not have become a rule";
}

TEST_F(Bind, the_interface_is_a_name_and_no_rule)
{
	// Bound to A, the socket still captures what comes in on B: interface rules are PACKET_SRC_INTF_EQUAL's.
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	ASSERT_EQ(socket.bind(lab::kPortA), 0);
	lab::Frame frame = frames::plain();
	frame.src_ifx = lab::kPortB;
	put(lab::Hook::Lev2, frame);
	EXPECT_TRUE(socket.receive());
}

TEST_F(Bind, a_protocol_becomes_a_rule_and_every_further_one_is_added)
{
	Socket socket;
	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	ASSERT_EQ(socket.bind(lab::kPortA, htons(0x0806)), 0);
	ASSERT_EQ(socket.bind(lab::kPortA, htons(0x88cc)), 0);
	RuleRecords now = RuleRecords::read();
	EXPECT_EQ(now.data[PACKET_ETH_PROT_EQUAL], records_.data[PACKET_ETH_PROT_EQUAL] + 2);
	EXPECT_EQ(now.items[PACKET_ETH_PROT_EQUAL], records_.items[PACKET_ETH_PROT_EQUAL] + 1);
	EXPECT_EQ(now.data[contract::kLiveEntries], records_.data[contract::kLiveEntries] + 2)
		<< "two keys";
	put(lab::Hook::Lev2, frames::arp(1));
	EXPECT_TRUE(socket.receive());
	put(lab::Hook::Lev2, frames::plain(0x88cc));
	EXPECT_TRUE(socket.receive());
	put(lab::Hook::Lev2, frames::plain(0x88cd));
	EXPECT_FALSE(socket.receive_now());
}

TEST_F(Bind, protocol_zero_takes_the_sockets_own_and_adds_it_again)
{
	Socket socket(SOCK_RAW, htons(0x0806));
	ASSERT_EQ(socket.del(ethertype(0x0806)), 0);
	RuleRecords now = RuleRecords::read();
	ASSERT_EQ(now.data[PACKET_ETH_PROT_EQUAL], records_.data[PACKET_ETH_PROT_EQUAL]);
	ASSERT_EQ(socket.bind(lab::kPortA, 0), 0);
	now = RuleRecords::read();
	EXPECT_EQ(now.data[PACKET_ETH_PROT_EQUAL], records_.data[PACKET_ETH_PROT_EQUAL] + 1)
		<< "the deleted rule is back";
	ASSERT_EQ(socket.bind(lab::kPortA, 0), 0);
	now = RuleRecords::read();
	EXPECT_EQ(now.data[PACKET_ETH_PROT_EQUAL], records_.data[PACKET_ETH_PROT_EQUAL] + 1)
		<< "an equal one is absorbed";
}

TEST_F(Bind, the_last_protocol_bound_is_the_sockets_own)
{
	Socket socket(SOCK_RAW, htons(0x0806));
	ASSERT_EQ(socket.bind(0, htons(0x88cc)), 0);
	ASSERT_EQ(socket.del(ethertype(0x88cc)), 0);
	ASSERT_EQ(socket.bind(0, 0), 0);
	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	put(lab::Hook::Lev2, frames::plain(0x88cc));
	EXPECT_TRUE(socket.receive());
}

TEST_F(Bind, index_zero_is_every_interface_and_skips_the_lookup)
{
	Socket socket;
	ASSERT_EQ(socket.bind(lab::kPortA), 0);
	ASSERT_EQ(socket.bind(0), 0);
	sockaddr_ll address;
	EXPECT_EQ(name_of(socket, address), 12u);
	EXPECT_EQ(address.sll_ifindex, 0);
}

TEST_F(Bind, without_a_location_the_socket_is_bound_and_not_running)
{
	Socket socket;
	ASSERT_EQ(socket.bind(lab::kPortA, htons(0x0806)), 0);
	EXPECT_EQ(lab::registrations(), 0u);
	EXPECT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	EXPECT_TRUE(lab::registered(lab::Hook::Lev2));
}

TEST_F(Bind, a_running_socket_is_back_in_its_library_afterwards)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	lab::clear_registration_log();
	ASSERT_EQ(socket.bind(lab::kPortB), 0);
	EXPECT_TRUE(lab::registered(lab::Hook::Lev2));
	put(lab::Hook::Lev2, frames::plain());
	EXPECT_TRUE(socket.receive());
}

TEST_F(Bind, the_interface_index_is_the_one_in_the_control_block)
{
	Socket socket;
	ASSERT_EQ(socket.bind(lab::kPortB), 0);
	sockaddr_ll address;
	name_of(socket, address);
	EXPECT_EQ(address.sll_ifindex, int(lab::kPortB));
}

TEST_F(Bind, getname_of_a_bound_socket_carries_the_mac)
{
	Socket socket;
	ASSERT_EQ(socket.bind(lab::kPortA, htons(0x0806)), 0);
	sockaddr_ll address;
	EXPECT_EQ(name_of(socket, address), 18u);
	EXPECT_EQ(address.sll_family, 17);
	EXPECT_EQ(address.sll_protocol, 0) << "never the socket's protocol";
	EXPECT_EQ(address.sll_hatype, 0);
	EXPECT_EQ(address.sll_halen, 6);
	EXPECT_EQ(std::memcmp(address.sll_addr, lab::kPortAMac, 6), 0);
	EXPECT_EQ(address.sll_addr[6], 0xaa) << "18 bytes and no more";
}

TEST_F(Bind, getname_of_an_unbound_socket_has_12_bytes_and_no_mac)
{
	Socket socket(SOCK_DGRAM);
	sockaddr_ll address;
	EXPECT_EQ(name_of(socket, address), 12u);
	EXPECT_EQ(address.sll_family, 17);
	EXPECT_EQ(address.sll_protocol, 0);
	EXPECT_EQ(address.sll_ifindex, 0);
	EXPECT_EQ(address.sll_hatype, 0);
	EXPECT_EQ(address.sll_halen, 0);
	EXPECT_EQ(address.sll_addr[0], 0xaa);
}

TEST_F(Bind, getname_when_the_interface_table_has_index_zero)
{
	const uint8_t mac[6] = { 2, 0, 0, 0, 0, 0x77 };
	lab::set_interface(0, "zero", mac, true);
	Socket socket;
	sockaddr_ll address;
	EXPECT_EQ(name_of(socket, address), 18u);
	EXPECT_EQ(std::memcmp(address.sll_addr, mac, 6), 0);
	lab::remove_interface(0);
	EXPECT_EQ(name_of(socket, address), 12u);
}

TEST_F(Bind, a_peer_has_no_name)
{
	Socket socket;
	sockaddr_ll address;
	socklen_t length = sizeof address;
	EXPECT_EQ(::getpeername(socket.fd(), reinterpret_cast<sockaddr *>(&address), &length), -1);
	EXPECT_EQ(errno, EOPNOTSUPP);
}

using Ioctl = VmTest;

TEST_F(Ioctl, inq_is_the_length_of_the_first_frame_queued)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	int length = -1;
	ASSERT_EQ(::ioctl(socket.fd(), SIOCINQ, &length), 0);
	EXPECT_EQ(length, 0);
	put(lab::Hook::Lev2, frames::plain(0x88b5, 73));
	put(lab::Hook::Lev2, frames::plain(0x88b5, 99));
	ASSERT_EQ(::ioctl(socket.fd(), SIOCINQ, &length), 0);
	EXPECT_EQ(length, 73);
	ASSERT_TRUE(socket.receive());
	ASSERT_EQ(::ioctl(socket.fd(), SIOCINQ, &length), 0);
	EXPECT_EQ(length, 99);
}

TEST_F(Ioctl, inq_of_a_dgram_socket_counts_without_the_layer_2_header)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all(), SOCK_DGRAM);
	put(lab::Hook::Lev2, frames::plain(0x88b5, 73));
	int length = -1;
	ASSERT_EQ(::ioctl(socket.fd(), SIOCINQ, &length), 0);
	EXPECT_EQ(length, 59);
}

TEST_F(Ioctl, outq_of_an_idle_socket_is_zero)
{
	// The send memory in use starts at 1, the socket's own; the call subtracts it.
	Socket socket;
	int length = -1;
	ASSERT_EQ(::ioctl(socket.fd(), SIOCOUTQ, &length), 0);
	EXPECT_EQ(length, 0);
}

TEST_F(Ioctl, a_bad_address_is_a_fault)
{
	Socket socket;
	for (unsigned long command : { SIOCINQ, SIOCOUTQ }) {
		EXPECT_EQ(::ioctl(socket.fd(), command, reinterpret_cast<void *>(8)), -1);
		EXPECT_EQ(errno, EFAULT);
	}
}

TEST_F(Ioctl, an_unknown_command_goes_on_to_the_device_ioctls)
{
	Socket socket;
	int value = 0;
	EXPECT_EQ(::ioctl(socket.fd(), 0x8b99, &value), -1);
	EXPECT_TRUE(errno == ENOTTY || errno == EINVAL || errno == EOPNOTSUPP) << strerror(errno);
	// A generic device ioctl is answered by the socket layer itself: the loopback's flags.
	struct {
		char name[16];
		short flags;
		char rest[32];
	} request{};
	std::strcpy(request.name, "lo");
	EXPECT_EQ(::ioctl(socket.fd(), SIOCGIFFLAGS, &request), 0) << strerror(errno);
	EXPECT_TRUE(request.flags & 8 /* IFF_LOOPBACK */);
}

/// Seconds and fraction as either layout of the kernel's answer: two 32-bit words, or two 64-bit words where the kernel
/// has no 32-bit time at all.
struct Stamp {
	int64_t seconds, fraction;
};

int stamp_of(Socket &socket, unsigned long command, Stamp &stamp)
{
	uint8_t raw[16];
	std::memset(raw, 0xff, sizeof raw);
	if (::ioctl(socket.fd(), command, raw))
		return errno;
	int32_t words[4];
	std::memcpy(words, raw, sizeof raw);
	bool wide = words[3] != -1;
	stamp = { words[0], wide ? words[2] : words[1] };
	return 0;
}

TEST_F(Ioctl, stamp_is_missing_before_the_first_frame_and_there_after_a_read)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	Stamp stamp{};
	// The first call switches time stamping on and finds no stamp yet.
	EXPECT_EQ(stamp_of(socket, 0x8906, stamp), ENOENT);
	put(lab::Hook::Lev2, frames::plain());
	ASSERT_TRUE(socket.receive());
	ASSERT_EQ(stamp_of(socket, 0x8906, stamp), 0);
	timespec now{};
	clock_gettime(CLOCK_REALTIME, &now);
	EXPECT_GE(stamp.seconds, now.tv_sec - 60);
	EXPECT_LE(stamp.seconds, now.tv_sec + 1);
	EXPECT_LT(stamp.fraction, 1000000);
	Stamp nano{};
	ASSERT_EQ(stamp_of(socket, 0x8907, nano), 0);
	EXPECT_EQ(nano.seconds, stamp.seconds);
	EXPECT_EQ(nano.fraction / 1000, stamp.fraction);
}

} // namespace
