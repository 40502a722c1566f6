// SPDX-License-Identifier: GPL-2.0-only
#include "library.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "base/list.hpp"
#include "rules/edit.hpp"
#include "rules/library.hpp"

namespace bench {
namespace {

constexpr u8 kUdp = 17;
constexpr u8 kMacs[12] = { 2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 0 };

void must(bool done, const char *what)
{
	if (done)
		return;
	fprintf(stderr, "rules_bench: %s failed\n", what);
	exit(1);
}

// A socket that is nothing but a record with a rule, which is in the library while it exists.
class Socket {
public:
	explicit Socket(const std::vector<Condition> &conditions)
		: record_(static_cast<mox_packet_sock *>(calloc(1, sizeof(mox_packet_sock))))
	{
		must(record_ != nullptr, "allocating a socket");
		packet_regular &rule = record_->regular;
		rule.owner = record_;
		rule.treatment = PACKET_COPY;
		rule.location = PACKET_LEV2_LOC;
		list_init(&rule.items);
		list_init(&rule.lib_node);
		for (const Condition &condition : conditions)
			must(add_data(make_data(condition.type, condition.value,
						sizeof condition.value),
				      &rule) == 0,
			     "adding a value");
		insert(1);
	}
	~Socket()
	{
		insert(0);
		mox_packet_empty_regular(&record_->regular);
		free(record_);
	}
	Socket(const Socket &) = delete;
	Socket &operator=(const Socket &) = delete;

private:
	void insert(u32 add)
	{
		MutexGuard guard(&library().change_lock);
		mox_packet_insert_regular(&record_->regular, &library(), add);
	}

	mox_packet_sock *record_;
};

Condition condition(u32 type, u16 value)
{
	Condition made{ type, {} };
	memcpy(made.value, &value, sizeof value);
	return made;
}

} // namespace

Frame::Frame()
{
	memcpy(macs, kMacs, sizeof kMacs);
	info.dst_mac = macs;
	info.src_mac = macs + 6;
	info.eth_type = net16(kIpv4Type);
	info.flags = pkt_flag::kIpv4;
	info.ip_proto = kUdp;
	info.src_port = net16(1);
	info.dst_port = net16(1);
	info.ifindex = 1;
}

std::vector<Condition> OwnEtherType::rule(u32 n)
{
	return { condition(PACKET_ETH_PROT_EQUAL, net16(value(n))) };
}

std::vector<Condition> OwnSourceMac::rule(u32 n)
{
	Frame frame;
	Condition mac{ PACKET_SRC_MAC_EQUAL, {} };
	choose(frame, n);
	memcpy(mac.value, frame.info.src_mac, 6);
	return { mac };
}

std::vector<Condition> TypeAndOwnPort::rule(u32 n)
{
	return { condition(PACKET_ETH_PROT_EQUAL, net16(kIpv4Type)),
		 condition(PACKET_IPv4_DEST_PORT_EQUAL, net16(value(n))) };
}

void fill(std::vector<Condition> (*rule)(u32 n), u32 rules)
{
	static std::vector<std::unique_ptr<Socket>> sockets;

	if (!mox_packet_regular_inited)
		must(mox_packet_regular_init() == 0, "mox_packet_regular_init");
	sockets.clear();
	for (u32 n = 0; n < rules; n++)
		sockets.push_back(std::make_unique<Socket>(rule(n)));
	must(library().regular_count == rules, "entering the rules");
}

} // namespace bench
