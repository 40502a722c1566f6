/* SPDX-License-Identifier: MIT */
#include "relay/filter.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

namespace relay {
namespace {

static_assert(sizeof(sock_filter) == sizeof(bpf_insn));

/** The block, network byte order as loads read it. */
struct Block {
	std::uint8_t protocol[2];
	std::uint8_t tci[2];
	std::uint8_t tpid[2];
	std::uint8_t hardware[2];
	std::uint8_t ifindex[4];
	std::uint8_t packet;
	std::uint8_t tagged;
	std::uint8_t zero[4];
	std::uint8_t unused[14];
};
static_assert(sizeof(Block) == kFactsRoom);

/** A load of the kernel's and its place in the block. */
struct Fact {
	std::uint32_t load; // behind SKF_AD_OFF
	std::uint16_t size;
	std::size_t place;
};
constexpr Fact kFacts[] = {
	{ SKF_AD_PROTOCOL, BPF_H, offsetof(Block, protocol) },
	{ SKF_AD_PKTTYPE, BPF_B, offsetof(Block, packet) },
	{ SKF_AD_IFINDEX, BPF_W, offsetof(Block, ifindex) },
	{ SKF_AD_HATYPE, BPF_H, offsetof(Block, hardware) },
	{ SKF_AD_VLAN_TAG, BPF_H, offsetof(Block, tci) },
	{ SKF_AD_VLAN_TAG_PRESENT, BPF_B, offsetof(Block, tagged) },
	{ SKF_AD_VLAN_TPID, BPF_H, offsetof(Block, tpid) },
	// These do not exist outside the kernel: 0, as for a frame that has none.
	{ SKF_AD_MARK, BPF_W, offsetof(Block, zero) },
	{ SKF_AD_QUEUE, BPF_W, offsetof(Block, zero) },
	{ SKF_AD_RXHASH, BPF_W, offsetof(Block, zero) },
	{ SKF_AD_CPU, BPF_W, offsetof(Block, zero) },
};

constexpr std::uint32_t kAncillary = static_cast<std::uint32_t>(SKF_AD_OFF);
constexpr std::uint32_t kNetwork = static_cast<std::uint32_t>(SKF_NET_OFF);
constexpr std::uint32_t kLink = static_cast<std::uint32_t>(SKF_LL_OFF);
constexpr std::uint32_t kFirstNegative = 0x80000000u;
constexpr std::uint32_t kReach = 0x100000; // between two of the negative bases

/** Where an offset of an absolute load lies, counted from the block; nothing for a fact and for what is unknown. */
std::optional<std::uint32_t> moved(std::uint32_t k, std::size_t before)
{
	if (k < kFirstNegative) {
		// An offset that no frame has must not wrap around to one that exists.
		return k > kFirstNegative - kReach ? k : k + static_cast<std::uint32_t>(before);
	}
	if (k >= kNetwork && k < kAncillary)
		return k - kNetwork + static_cast<std::uint32_t>(kFactsRoom + kLinkHeader);
	if (k >= kLink && k < kNetwork)
		return k - kLink + static_cast<std::uint32_t>(kFactsRoom);
	return std::nullopt;
}

/** Whether the instruction could be rewritten. */
bool rewrite(sock_filter &each, std::size_t before)
{
	const unsigned kind = BPF_CLASS(each.code), mode = BPF_MODE(each.code);
	if (kind != BPF_LD && kind != BPF_LDX)
		return true;
	if (mode == BPF_ABS || mode == BPF_MSH) {
		if (mode == BPF_ABS && each.k >= kAncillary) {
			for (const Fact &fact : kFacts) {
				if (each.k != kAncillary + fact.load)
					continue;
				each.code = static_cast<std::uint16_t>(BPF_LD | fact.size |
								       BPF_ABS);
				each.k = static_cast<std::uint32_t>(fact.place);
				return true;
			}
			return false;
		}
		const auto at = moved(each.k, before);
		each.k = at.value_or(0);
		return at.has_value();
	}
	if (mode == BPF_IND) {
		if (each.k >= kFirstNegative)
			return false;
		each.k += static_cast<std::uint32_t>(before);
	}
	return true;
}

void put16(std::uint8_t (&to)[2], std::uint16_t value)
{
	to[0] = static_cast<std::uint8_t>(value >> 8);
	to[1] = static_cast<std::uint8_t>(value);
}

} // namespace

int Filter::compile(std::span<const sock_filter> program, bool cooked, std::string &reason)
{
	const std::size_t before = cooked ? kFactsRoom + kLinkHeader : kFactsRoom;
	if (program.empty() || program.size() > BPF_MAXINSNS) {
		reason = "a socket filter has 1 to " + std::to_string(BPF_MAXINSNS) +
			 " instructions, not " + std::to_string(program.size());
		return EINVAL;
	}
	std::vector<sock_filter> rewritten(program.begin(), program.end());
	for (std::size_t i = 0; i < rewritten.size(); ++i) {
		if (!rewrite(rewritten[i], before)) {
			reason = "instruction " + std::to_string(i) +
				 " of the socket filter loads what only the kernel has";
			return EOPNOTSUPP;
		}
	}
	if (!bpf_validate(reinterpret_cast<const bpf_insn *>(rewritten.data()),
			  static_cast<int>(rewritten.size()))) {
		reason = "the socket filter is not a valid program";
		return EINVAL;
	}
	program_ = std::move(rewritten);
	before_ = before;
	return 0;
}

std::size_t Filter::run(std::span<std::uint8_t> data, const FrameFacts &facts) const
{
	Block block{};
	put16(block.protocol, facts.protocol);
	put16(block.tci, facts.tci);
	put16(block.tpid, facts.tpid);
	put16(block.hardware, facts.hardware);
	for (int i = 0; i < 4; ++i)
		block.ifindex[i] = static_cast<std::uint8_t>(facts.ifindex >> (24 - 8 * i));
	block.packet = facts.packet;
	block.tagged = facts.tagged;

	std::uint8_t *begin = data.data() - before_;
	std::memcpy(begin, &block, sizeof(block));
	// The length that filters load is the frame's, the bytes that they may load include the block.
	const u_int accepted = bpf_filter(reinterpret_cast<const bpf_insn *>(program_.data()),
					  begin, static_cast<u_int>(data.size()),
					  static_cast<u_int>(data.size() + before_));
	return std::min<std::size_t>(accepted, data.size());
}

} // namespace relay
