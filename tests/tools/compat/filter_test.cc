/* SPDX-License-Identifier: GPL-2.0-only */
#include "relay/filter.h"

#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

namespace {

constexpr std::uint32_t kAd = static_cast<std::uint32_t>(SKF_AD_OFF);
constexpr std::uint32_t kNet = static_cast<std::uint32_t>(SKF_NET_OFF);
constexpr std::uint32_t kLl = static_cast<std::uint32_t>(SKF_LL_OFF);

sock_filter op(unsigned code, std::uint32_t k, std::uint8_t jt = 0, std::uint8_t jf = 0)
{
	return { static_cast<std::uint16_t>(code), jt, jf, k };
}

/** A frame of bytes 0, 1, 2 and so on: a load's result shows where it read. */
struct Counted {
	explicit Counted(std::size_t size, std::size_t link = 0)
		: bytes(relay::kFactsRoom + link + size)
	{
		for (std::size_t i = 0; i < size + link; ++i)
			bytes[relay::kFactsRoom + i] = static_cast<std::uint8_t>(i);
		data = std::span(bytes).subspan(relay::kFactsRoom + link);
	}
	std::vector<std::uint8_t> bytes;
	std::span<std::uint8_t> data;
};

const relay::FrameFacts kFacts{ 0x0806, 2, 0x01020304, 1, true, 0x6005, 0x8100 };

/** What a load puts into the accumulator: returned as the accepted length of a long frame, so at most 5000. */
struct Load {
	const char *what;
	bool cooked;
	std::vector<sock_filter> before;
	sock_filter load;
	std::uint32_t expected;
};

TEST(CompatFilter, loads__of_frame_and_facts)
{
	const Load rows[] = {
		{ "byte", false, {}, op(BPF_LD | BPF_B | BPF_ABS, 77), 77 },
		{ "half", false, {}, op(BPF_LD | BPF_H | BPF_ABS, 1), 0x0102 },
		{ "indirect",
		  false,
		  { op(BPF_LDX | BPF_W | BPF_IMM, 30) },
		  op(BPF_LD | BPF_B | BPF_IND, 12),
		  42 },
		{ "length", false, {}, op(BPF_LD | BPF_W | BPF_LEN, 0), 5000 },
		{ "network header", false, {}, op(BPF_LD | BPF_B | BPF_ABS, kNet + 9), 23 },
		{ "link header", false, {}, op(BPF_LD | BPF_B | BPF_ABS, kLl + 9), 9 },
		{ "cooked: byte", true, {}, op(BPF_LD | BPF_B | BPF_ABS, 9), 23 },
		{ "cooked: network header", true, {}, op(BPF_LD | BPF_B | BPF_ABS, kNet + 9), 23 },
		{ "cooked: link header", true, {}, op(BPF_LD | BPF_B | BPF_ABS, kLl + 9), 9 },
		{ "cooked: indirect",
		  true,
		  { op(BPF_LDX | BPF_W | BPF_IMM, 1) },
		  op(BPF_LD | BPF_B | BPF_IND, 8),
		  23 },
		{ "cooked: length", true, {}, op(BPF_LD | BPF_W | BPF_LEN, 0), 5000 },
		{ "protocol",
		  false,
		  {},
		  op(BPF_LD | BPF_H | BPF_ABS, kAd + SKF_AD_PROTOCOL),
		  0x0806 },
		{ "protocol by word",
		  true,
		  {},
		  op(BPF_LD | BPF_W | BPF_ABS, kAd + SKF_AD_PROTOCOL),
		  0x0806 },
		{ "packet type", false, {}, op(BPF_LD | BPF_W | BPF_ABS, kAd + SKF_AD_PKTTYPE), 2 },
		{ "hardware", false, {}, op(BPF_LD | BPF_W | BPF_ABS, kAd + SKF_AD_HATYPE), 1 },
		{ "tagged",
		  false,
		  {},
		  op(BPF_LD | BPF_B | BPF_ABS, kAd + SKF_AD_VLAN_TAG_PRESENT),
		  1 },
	};
	for (const Load &row : rows) {
		std::vector<sock_filter> program = row.before;
		program.push_back(row.load);
		program.push_back(op(BPF_RET | BPF_A, 0));
		relay::Filter filter;
		std::string reason;
		ASSERT_EQ(filter.compile(program, row.cooked, reason), 0) << row.what << reason;
		Counted frame(5000, row.cooked ? relay::kLinkHeader : 0);
		EXPECT_EQ(filter.run(frame.data, kFacts), row.expected) << row.what;
	}
}

/** Facts that are too big for an accepted length are compared in the filter. */
TEST(CompatFilter, loads__compared)
{
	const struct {
		std::uint32_t fact, value;
	} rows[] = { { SKF_AD_IFINDEX, 0x01020304 },
		     { SKF_AD_VLAN_TAG, 0x6005 },
		     { SKF_AD_VLAN_TPID, 0x8100 },
		     { SKF_AD_MARK, 0 },
		     { SKF_AD_CPU, 0 } };
	for (const auto &row : rows) {
		const sock_filter program[] = { op(BPF_LD | BPF_W | BPF_ABS, kAd + row.fact),
						op(BPF_JMP | BPF_JEQ | BPF_K, row.value, 0, 1),
						op(BPF_RET | BPF_K, 10), op(BPF_RET | BPF_K, 0) };
		relay::Filter filter;
		std::string reason;
		ASSERT_EQ(filter.compile(program, false, reason), 0);
		Counted frame(60);
		EXPECT_EQ(filter.run(frame.data, kFacts), 10u) << row.fact;
		EXPECT_EQ(filter.run(frame.data, relay::FrameFacts{}), row.value ? 0u : 10u)
			<< row.fact;
	}
}

TEST(CompatFilter, out_of_the_frame__is_refused_whatever_the_offset)
{
	const std::uint32_t offsets[] = { 60, 59, 0x7fffffff, 0x7ff00001, kNet + 46, kLl + 60 };
	for (const bool indirect : { false, true }) {
		for (const std::uint32_t k : offsets) {
			if (indirect && k >= 0x80000000u)
				continue;
			const sock_filter program[] = {
				op(BPF_LDX | BPF_W | BPF_IMM, 0),
				op(BPF_LD | BPF_H | (indirect ? BPF_IND : BPF_ABS), k),
				op(BPF_RET | BPF_K, 0xffff)
			};
			relay::Filter filter;
			std::string reason;
			ASSERT_EQ(filter.compile(program, false, reason), 0) << reason;
			Counted frame(60);
			EXPECT_EQ(filter.run(frame.data, kFacts), 0u) << std::hex << k;
		}
	}
	// An index that wraps around must not reach the block in front of the frame.
	const sock_filter wrap[] = { op(BPF_LDX | BPF_W | BPF_IMM, 0xfffffff0),
				     op(BPF_LD | BPF_B | BPF_IND, 0), op(BPF_RET | BPF_K, 0xffff) };
	relay::Filter filter;
	std::string reason;
	ASSERT_EQ(filter.compile(wrap, false, reason), 0);
	Counted frame(60);
	EXPECT_EQ(filter.run(frame.data, kFacts), 0u);
}

TEST(CompatFilter, libpcap__its_programs_mean_the_same)
{
	// ARP request; IPv4 UDP to port 67; IPv4 with options, TCP to port 80.
	const struct {
		const char *text;
		bool arp, udp, tcp;
	} rows[] = { { "arp", true, false, false },
		     { "udp port 67", false, true, false },
		     { "tcp dst port 80", false, false, true },
		     { "ip", false, true, true },
		     { "ether dst ff:ff:ff:ff:ff:ff", true, false, false },
		     { "greater 61", false, false, true },
		     { "not arp and not tcp", false, true, false } };
	std::vector<std::uint8_t> arp(60), udp(60), tcp(80);
	std::fill_n(arp.begin(), 6, 0xff);
	arp[12] = 8, arp[13] = 6;
	udp[12] = 8, udp[14] = 0x45, udp[23] = 17, udp[37] = 67;
	tcp[12] = 8, tcp[14] = 0x46, tcp[23] = 6, tcp[14 + 24 + 3] = 80;

	pcap_t *dead = pcap_open_dead(DLT_EN10MB, 65535);
	for (const auto &row : rows) {
		bpf_program compiled{};
		ASSERT_EQ(pcap_compile(dead, &compiled, row.text, 1, PCAP_NETMASK_UNKNOWN), 0);
		relay::Filter filter;
		std::string reason;
		ASSERT_EQ(filter.compile({ reinterpret_cast<sock_filter *>(compiled.bf_insns),
					   compiled.bf_len },
					 false, reason),
			  0)
			<< reason;
		const auto accepts = [&](const std::vector<std::uint8_t> &frame) {
			std::vector<std::uint8_t> bytes(relay::kFactsRoom);
			bytes.insert(bytes.end(), frame.begin(), frame.end());
			return filter.run(std::span(bytes).subspan(relay::kFactsRoom), {}) != 0;
		};
		EXPECT_EQ(accepts(arp), row.arp) << row.text;
		EXPECT_EQ(accepts(udp), row.udp) << row.text;
		EXPECT_EQ(accepts(tcp), row.tcp) << row.text;
		pcap_freecode(&compiled);
	}
	pcap_close(dead);
}

TEST(CompatFilter, refused__with_errno_and_reason)
{
	const struct {
		const char *what;
		std::vector<sock_filter> program;
		int error;
		const char *reason;
	} rows[] = {
		{ "empty", {}, EINVAL, "1 to 4096 instructions" },
		{ "too long", std::vector<sock_filter>(4097, op(BPF_RET | BPF_K, 0)), EINVAL,
		  "4097" },
		{ "no return", { op(BPF_LD | BPF_IMM, 0) }, EINVAL, "not a valid program" },
		{ "jump out",
		  { op(BPF_JMP | BPF_JA, 7), op(BPF_RET | BPF_K, 0) },
		  EINVAL,
		  "not a valid" },
		{ "netlink attribute",
		  { op(BPF_LD | BPF_W | BPF_ABS, kAd + SKF_AD_NLATTR), op(BPF_RET | BPF_A, 0) },
		  EOPNOTSUPP,
		  "instruction 0" },
		{ "random number",
		  { op(BPF_LD | BPF_IMM, 0), op(BPF_LD | BPF_W | BPF_ABS, kAd + SKF_AD_RANDOM),
		    op(BPF_RET | BPF_A, 0) },
		  EOPNOTSUPP,
		  "instruction 1" },
		{ "indirect negative",
		  { op(BPF_LD | BPF_W | BPF_IND, kNet), op(BPF_RET | BPF_A, 0) },
		  EOPNOTSUPP,
		  "instruction 0" },
	};
	for (const auto &row : rows) {
		relay::Filter filter;
		std::string reason;
		EXPECT_EQ(filter.compile(row.program, false, reason), row.error) << row.what;
		EXPECT_NE(reason.find(row.reason), std::string::npos) << row.what << ": " << reason;
	}
}

TEST(CompatFilter, accepted_length__is_at_most_the_frames)
{
	const sock_filter program[] = { op(BPF_RET | BPF_K, 20) };
	relay::Filter filter;
	std::string reason;
	ASSERT_EQ(filter.compile(program, false, reason), 0);
	Counted longer(60), shorter(15);
	EXPECT_EQ(filter.run(longer.data, kFacts), 20u);
	EXPECT_EQ(filter.run(shorter.data, kFacts), 15u);
}

} // namespace
