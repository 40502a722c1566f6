// SPDX-License-Identifier: GPL-2.0-only
// What a frame with the platform's trace mark leaves in the log, at the hook and at every socket; and that no other
// frame leaves anything.
#include <cstring>
#include <string>

#include <sys/prctl.h>

#include <linux/filter.h>

#include "support/fixture.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Frame;
using lab::Hook;
using Lines = std::vector<std::string>;

const std::string kSource = "src_intf: port-a, src_ifx: 211";
const std::string kMacs = "src_mac: 02:00:5e:10:00:01, dst_mac: 02:00:5e:10:00:02, ";

class Trace : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		ASSERT_EQ(prctl(PR_SET_NAME, "tracer"), 0);
	}
	Lines lines_of(Hook hook, Frame frame)
	{
		frame.flags |= lab::kTraceMark;
		lab::clear_printk();
		put(hook, frame);
		return lab::printk_lines();
	}
	/// The lines at the hook, where no rule matches the frame.
	static Lines passed_by(const char *location, const std::string &macs_and_type,
			       const std::string &last)
	{
		return { std::string("MOX-PACKET-RCV: rcv pkt %p, loc ") + location + ", " +
				 kSource + ", in vsd: 0",
			 "MOX-PACKET-RCV: " + macs_and_type, "MOX-PACKET-RCV: code: 0, sub_code: 0",
			 "MOX-PACKET-RCV: " + last, "MOX-PACKET-RCV: rcv pkt %p, fast filter" };
	}
};

TEST_F(Trace, every_location_names_itself)
{
	for (uint32_t location : { PACKET_LOCAL_LOC, PACKET_LEV2_LOC, PACKET_IPv4_LOC,
				   PACKET_IPv6_LOC, PACKET_RESV_LOC }) {
		Socket socket = capture(location, PACKET_COPY, ethertype(0x0806));
		EXPECT_TRUE(
			LinesAre(lines_of(lab::hooks_of(location)[0], plain()),
				 passed_by(contract::location_name(location),
					   kMacs + "eth_type: 88b5, vid: 0", "packet type: 2")));
	}
}

TEST_F(Trace, one_last_line_by_the_kind_of_frame)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x0001));
	const std::string six = "2001:0db8:0000:0000:0000:0000:0000:0002";
	struct Row {
		Frame frame;
		std::string type, last;
	};
	Frame tagged = plain(0x1234);
	tagged.vlan_tci = 0xefa1;
	tagged.kind = 9;
	Frame unparsed = ipv6(17, udp(1, 2), kHost6, 999);
	const Row rows[] = {
		{ ipv4(17, udp(68, 67), 0xc0a80102), "eth_type: 0800, vid: 0",
		  "ip: 192.168.1.2, ip protocol: 17, dst port: 67, src port: 68" },
		{ ipv4(1, Bytes(8)), "eth_type: 0800, vid: 0",
		  "ip: 10.0.0.2, ip protocol: 1, dst port: 0, src port: 0" },
		{ ipv4(6, tcp(65535, 443)), "eth_type: 0800, vid: 0",
		  "ip: 10.0.0.2, ip protocol: 6, dst port: 443, src port: 65535" },
		{ ipv6(17, udp(546, 547)), "eth_type: 86dd, vid: 0",
		  "ip: " + six + ", ip protocol: 17, dst port: 547, src port: 546" },
		{ ipv6(58, icmpv6(135)), "eth_type: 86dd, vid: 0",
		  "ip: " + six + ", ip protocol: 58, icmpv6 type: 135" },
		{ ipv6(103, Bytes(8)), "eth_type: 86dd, vid: 0",
		  "ip: " + six + ", ip protocol: 103" },
		{ ipv6(58, icmpv6(0)), "eth_type: 86dd, vid: 0",
		  "ip: " + six + ", ip protocol: 58" },
		{ eapol(3), "eth_type: 888e, vid: 0", "eapol pkt, type: 3" },
		{ tagged, "eth_type: 1234, vid: 4001", "packet type: 9" },
		{ unparsed, "eth_type: 86dd, vid: 0", "packet type: 27" },
	};
	for (const Row &row : rows)
		EXPECT_TRUE(LinesAre(lines_of(Hook::Lev2, row.frame),
				     passed_by("PACKET_LEV2_LOC", kMacs + row.type, row.last)));
}

TEST_F(Trace, without_layer_2_the_addresses_are_zero)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x0001));
	EXPECT_TRUE(LinesAre(
		lines_of(Hook::Lev2, without_l2(ipv4(1, Bytes(8)))),
		passed_by(
			"PACKET_LEV2_LOC",
			"src_mac: 00:00:00:00:00:00, dst_mac: 00:00:00:00:00:00, eth_type: 0000, vid: 0",
			"ip: 10.0.0.2, ip protocol: 1, dst port: 0, src port: 0")));
}

TEST_F(Trace, the_code_line)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x0001));
	Frame frame = plain();
	frame.code = 200;
	frame.sub_code = 17;
	EXPECT_TRUE(
		HasLine(lines_of(Hook::Lev2, frame), "MOX-PACKET-RCV: code: 200, sub_code: 17"));
}

TEST_F(Trace, a_delivered_frame_is_printed_per_socket)
{
	struct Row {
		uint32_t treatment;
		const char *name;
	};
	for (Row row : { Row{ PACKET_COPY, "packet-copy" },
			 { PACKET_FETCH, "packet-fetch" },
			 { PACKET_TRAP, "packet-trap" } }) {
		Socket socket = capture(PACKET_LEV2_LOC, row.treatment, all());
		Lines lines = lines_of(Hook::Lev2, ipv4(17, udp(68, 67)));
		const std::string
			packet = kMacs + "eth_type: 0800, vid: 0",
			last = "ip: 10.0.0.2, ip protocol: 17, dst port: 67, src port: 68";
		EXPECT_TRUE(LinesAre(
			lines,
			{ "MOX-PACKET-RCV: rcv pkt %p, loc PACKET_LEV2_LOC, " + kSource +
				  ", in vsd: 0",
			  "MOX-PACKET-RCV: " + packet, "MOX-PACKET-RCV: code: 0, sub_code: 0",
			  "MOX-PACKET-RCV: " + last,
			  std::string("MOX-PACKET-FW: rcv pkt: %p, loc PACKET_LEV2_LOC, ") +
				  row.name + " by process tracer in vsd 0 sk_refcnt %u.",
			  "MOX-PACKET-FW: " + kSource, "MOX-PACKET-FW: " + packet,
			  "MOX-PACKET-RCV: code: 0, sub_code: 0", "MOX-PACKET-FW: " + last }));
		EXPECT_EQ(socket.drain(), 1u);
	}
}

TEST_F(Trace, delivery_prints_the_sockets_own_location)
{
	Socket one = capture(PACKET_LEV2_RESV_LOC, PACKET_COPY, all()),
	       two = capture(PACKET_RESV_LOC, PACKET_COPY, all());
	Frame frame = plain();
	frame.dst_ifx = lab::kLev2Resv;
	Lines lines = lines_of(Hook::Resv, frame);
	for (const char *name : { "PACKET_LEV2_RESV_LOC", "PACKET_RESV_LOC" })
		EXPECT_TRUE(HasLineLike(
			lines, std::string("MOX-PACKET-FW: rcv pkt: %p, loc ") + name +
				       ", packet-copy by process tracer in vsd 0 sk_refcnt %u."));
}

TEST_F(Trace, delivery_of_the_other_kinds)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	const std::string six = "2001:0db8:0000:0000:0000:0000:0000:0002";
	EXPECT_TRUE(HasLine(lines_of(Hook::Lev2, eapol(1)), "MOX-PACKET-FW: eapol pkt, type: 1"));
	EXPECT_TRUE(HasLine(lines_of(Hook::Lev2, plain()), "MOX-PACKET-FW: packet type: 2"));
	EXPECT_TRUE(HasLine(lines_of(Hook::Lev2, ipv6(17, udp(546, 547))),
			    "MOX-PACKET-FW: ip: " + six +
				    ", ip protocol: 17, dst port: 547, src port: 546"));
	EXPECT_TRUE(HasLine(lines_of(Hook::Lev2, ipv6(58, icmpv6(135))),
			    "MOX-PACKET-FW: ip: " + six + ", ip protocol: 58, icmpv6 type: 135"));
	EXPECT_TRUE(HasLine(lines_of(Hook::Lev2, ipv6(103, Bytes(8))),
			    "MOX-PACKET-FW: ip: " + six + ", ip protocol: 103"));
}

TEST_F(Trace, wlan_frames)
{
	Socket socket = capture(PACKET_WLAN_LOC, PACKET_COPY, flag(PACKET_WLAN_MGNT));
	struct Row {
		Frame frame;
		const char *name;
		bool wanted;
	};
	for (const Row &row : { Row{ wlan80211(true), "wlan mgnt", true },
				{ wlan80211(false), "wlan data", false },
				{ plain(), "wlan data", false } })
		for (Hook hook : { Hook::WlanIn, Hook::WlanOut }) {
			Frame frame = row.frame;
			frame.radio_id = 1;
			frame.wlan_id = 22;
			frame.ap_wlan_id = 333;
			frame.vlan_tci = 44;
			const std::string packet = "packet type: 2, " + kSource + ", vid: 44",
					  ids = "radio id: 1, wlan id: 22, ap wlan id: 333";
			Lines wanted = { std::string("MOX-PACKET-RCV: rcv ") + row.name +
						 " pkt %p, loc PACKET_WLAN_LOC, in vsd: 0",
					 "MOX-PACKET-RCV: " + packet, "MOX-PACKET-RCV: " + ids };
			if (row.wanted) {
				wanted.push_back(
					std::string("MOX-PACKET-FW: rcv ") + row.name +
					" pkt: %p, loc PACKET_WLAN_LOC, packet-copy by process tracer in vsd 0.");
				wanted.push_back("MOX-PACKET-FW: " + packet);
				wanted.push_back("MOX-PACKET-FW: " + ids);
			} else {
				wanted.push_back("MOX-PACKET-RCV: rcv pkt %p, fast filter");
			}
			EXPECT_TRUE(LinesAre(lines_of(hook, frame), wanted));
		}
	socket.drain();
}

TEST_F(Trace, wlan_delivery_of_a_frame_that_is_not_80211)
{
	Socket socket = capture(PACKET_WLAN_LOC, PACKET_FETCH, all());
	Lines lines = lines_of(Hook::WlanIn, eapol(2));
	EXPECT_TRUE(HasLineLike(
		lines,
		"MOX-PACKET-FW: rcv pkt: %p, eth type 34958, eapol type 2, loc PACKET_WLAN_LOC, "
		"packet-fetch by process tracer in vsd 0."));
}

TEST_F(Trace, drop_services_speak_at_the_locations_and_not_at_wlan)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_FETCH, all()),
	       wlan = capture(PACKET_WLAN_LOC, PACKET_FETCH, all());
	lab::set_rnfp(false, 1);
	EXPECT_TRUE(
		HasLineLike(lines_of(Hook::Lev2, plain()), "MOX-PACKET-RCV: drop pkt %p for rnfp"));
	EXPECT_EQ(lines_of(Hook::WlanIn, plain()).size(), 3u);
	lab::set_rnfp(false, -1);
	lab::set_rnfp(true, 1);
	EXPECT_TRUE(HasLineLike(lines_of(Hook::Lev2, plain()),
				"MOX-PACKET-RCV: drop pkt %p for wlan rnfp"));
	EXPECT_EQ(lines_of(Hook::WlanOut, plain()).size(), 3u);
	lab::set_rnfp(true, -1);
}

TEST_F(Trace, a_failed_clone)
{
	Socket lev2 = capture(PACKET_LEV2_LOC, PACKET_COPY, all()),
	       wlan = capture(PACKET_WLAN_LOC, PACKET_COPY, all()),
	       resv = capture(PACKET_RESV_LOC, PACKET_COPY, all());
	for (Hook hook : { Hook::Lev2, Hook::WlanIn, Hook::WlanOut, Hook::Resv }) {
		lab::fail(lab::Fail::Clone, 1);
		EXPECT_TRUE(HasLine(lines_of(hook, plain()), "MOX-PACKET-RCV: alloc buff error!"))
			<< lab::symbol(hook);
	}
}

TEST_F(Trace, drops_at_the_socket)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	int little = 1;
	ASSERT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
	EXPECT_TRUE(HasLine(lines_of(Hook::Lev2, plain(0x88b5, 9014)),
			    "MOX-PACKET-FW: drop packet for socket recvbuff is full."));
	sock_filter accept = BPF_STMT(BPF_RET | BPF_K, 0xffff);
	sock_fprog program{ 1, &accept };
	ASSERT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program),
		  0);
	EXPECT_TRUE(HasLine(lines_of(Hook::Lev2, plain()),
			    "MOX-PACKET-FW: drop packet by socket filter rules."));
}

TEST_F(Trace, no_other_frame_prints_anything_whatever_the_switches_say)
{
	Socket lev2 = capture(PACKET_LEV2_LOC, PACKET_FETCH, all()),
	       wlan = capture(PACKET_WLAN_LOC, PACKET_COPY, all());
	lab::clear_printk();
	for (uint32_t byte = 9; byte < 19; ++byte)
		lab::poke8("mox_packet_debug", byte, 1);
	Frame frame = plain();
	frame.flags = ~lab::kTraceMark;
	put(Hook::Lev2, frame);
	put(Hook::WlanIn, frame);
	EXPECT_TRUE(lab::printk_lines().empty());
	for (uint32_t byte = 9; byte < 19; ++byte)
		lab::poke8("mox_packet_debug", byte, 0);
	EXPECT_EQ(lev2.drain() + wlan.drain(), 2u);
}

} // namespace
