/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * A DHCP server that needs no network stack below it: it traps the requests before they are forwarded, and sends each
 * answer out of the interface that the request came in on.
 *
 * One SOCK_DGRAM socket does both. What comes in has lost its layer-2 header; what goes out gets one from the address
 * given to sendmsg: destination MAC address, EtherType, and the interface to leave by.
 */
#include "dhcp_message.h"
#include "mox/capture_socket.h"
#include "mox/error.h"
#include "mox_packet.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string_view>

namespace {

constexpr dhcp::Address mask = 0xffffff00;
constexpr std::uint32_t lease_seconds = 600;
constexpr std::uint16_t ether_type_ipv4 = 0x0800;
constexpr dhcp::Mac all_stations = { 0xff, 0xff, 0xff, 0xff, 0xff, 0xff };

std::string text_of(dhcp::Address address)
{
	in_addr network{ htonl(address) };
	char text[INET_ADDRSTRLEN];
	return inet_ntop(AF_INET, &network, text, sizeof(text));
}

/** Addresses by MAC address: a client that asks again gets the same. */
class Pool {
public:
	Pool(dhcp::Address first, dhcp::Address last) : next_(first), last_(last) {}

	/** 0 when there are no more. */
	dhcp::Address of(const dhcp::Mac &mac)
	{
		auto known = given_.find(mac);
		if (known != given_.end())
			return known->second;
		if (next_ > last_)
			return 0;
		return given_[mac] = next_++;
	}

private:
	dhcp::Address next_, last_;
	std::map<dhcp::Mac, dhcp::Address> given_;
};

std::optional<dhcp::Reply> answer_to(const dhcp::Request &request, dhcp::Address server, Pool &pool)
{
	dhcp::Address address = pool.of(request.client);
	dhcp::Reply reply{ dhcp::nak, server, 0, mask, lease_seconds };
	if (request.type == dhcp::discover && address != 0) {
		reply.type = dhcp::offer;
	} else if (request.type == dhcp::request) {
		if (request.server.value_or(server) != server)
			return std::nullopt; // the client took another server's offer
		if (address != 0 && request.wanted.value_or(request.client_address) == address)
			reply.type = dhcp::ack;
	} else {
		return std::nullopt;
	}
	if (reply.type != dhcp::nak)
		reply.offered = address;
	return reply;
}

/** Sends an answer out of an interface. 0, or the errno of the send. */
int send(mox::CaptureSocket &socket, const dhcp::Request &request, const dhcp::Reply &reply,
	 std::uint32_t ifindex)
{
	// A client without an address receives a unicast only if it says so by not asking for a broadcast.
	bool to_all = request.wants_broadcast || reply.type == dhcp::nak;
	std::vector<std::uint8_t> packet = dhcp::build(request, reply,
						       to_all ? dhcp::broadcast : reply.offered);
	return socket.try_send(
		{ .bytes = packet,
		  .to = mox::SendAddress{ .ifindex = ifindex,
					  .ether_type = ether_type_ipv4,
					  .mac = to_all ? all_stations : request.client } });
}

const char *name_of(dhcp::Type type)
{
	switch (type) {
	case dhcp::discover:
		return "discover";
	case dhcp::offer:
		return "offer";
	case dhcp::request:
		return "request";
	case dhcp::ack:
		return "ack";
	case dhcp::nak:
		return "nak";
	case dhcp::release:
		return "release";
	}
	return "other";
}

[[noreturn]] void serve(mox::CaptureSocket &socket, dhcp::Address server, Pool &pool)
{
	static std::uint8_t buffer[2048];
	for (;;) {
		auto frame = socket.receive(buffer, true);
		if (!frame || frame->truncated())
			continue;
		auto request = dhcp::parse(frame->bytes);
		if (!request) {
			std::puts("not a valid DHCP request");
			continue;
		}
		std::uint32_t ifindex = frame->control->pkt_ifx;
		auto reply = answer_to(*request, server, pool);
		std::printf("if %u: %s -> %s", ifindex, name_of(request->type),
			    reply ? name_of(reply->type) : "no answer");
		if (reply && reply->offered)
			std::printf(" %s", text_of(reply->offered).c_str());
		if (int error = reply ? send(socket, *request, *reply, ifindex) : 0; error != 0)
			std::printf(": cannot send: %s", std::strerror(error));
		std::puts("");
	}
}

bool read_address(const char *text, dhcp::Address &address)
{
	in_addr network;
	if (inet_pton(AF_INET, text, &network) != 1)
		return false;
	address = ntohl(network.s_addr);
	return true;
}

} // namespace

int main(int argc, char **argv)
{
	bool help = argc == 2 && std::string_view(argv[1]) == "--help";
	dhcp::Address server, first, last;
	if (argc != 4 || !read_address(argv[1], server) || !read_address(argv[2], first) ||
	    !read_address(argv[3], last)) {
		std::fputs(
			"usage: dhcp_responder SERVER FIRST LAST\n\n"
			"Traps DHCP requests on every interface of the platform and answers as SERVER, with addresses from "
			"FIRST to LAST\n(netmask 255.255.255.0), until it is ended.\n",
			help ? stdout : stderr);
		return help ? 0 : 2;
	}
	std::setvbuf(stdout, nullptr, _IOLBF, 0);
	Pool pool(first, last);
	try {
		mox::CaptureSocket socket(mox::SocketKind::kDatagram);
		socket.set_control_info(true);
		socket.add_rule(mox::Rule::parse("dport=67", mox::system_interface_index));
		socket.set_treatment(PACKET_TRAP);
		socket.set_location(PACKET_IPv4_LOC);
		std::puts("answering");
		serve(socket, server, pool);
	} catch (const std::exception &error) {
		std::fprintf(stderr, "dhcp_responder: %s\n", error.what());
		return 1;
	}
}
