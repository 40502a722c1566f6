// SPDX-License-Identifier: GPL-2.0-only
#include "sockets.h"

#include <algorithm>
#include <cerrno>

#include "contract/locations.h"

namespace oracle {

Sockets::Sockets()
{
	world.vsd = [this](int owner) { return at(owner).vsd; };
}

void Sockets::stop(Socket &s)
{
	if (!s.running)
		return;
	model.remove(s.regular);
	s.running = false;
}

void Sockets::start(Socket &s)
{
	model.add(s.regular);
	s.running = true;
}

int Sockets::create(int id, int type, uint16_t protocol)
{
	auto s = std::make_unique<Socket>();
	s->type = type;
	s->protocol = protocol;
	s->regular.owner = id;
	if (protocol != 0) {
		if (!model.take_data(kEth))
			return -ENOMEM;
		if (int err = model.add_data(s->regular, kEth, int_value(protocol))) {
			model.drop_data(kEth);
			return err;
		}
		// Running, although location 0 has no library to be in.
		s->running = true;
	}
	sockets_[id] = std::move(s);
	return 0;
}

void Sockets::release(int id)
{
	Socket &s = at(id);
	stop(s);
	model.empty(s.regular);
	released += s.queue.size();
	sockets_.erase(id);
}

int Sockets::bind(int id, uint32_t ifindex, uint16_t protocol)
{
	Socket &s = at(id);
	if (protocol == 0)
		protocol = s.protocol;
	stop(s);
	s.ifindex = ifindex;
	if (protocol != 0) {
		s.protocol = protocol;
		if (!model.take_data(kEth))
			return -ENOMEM;
		if (int err = model.add_data(s.regular, kEth, int_value(protocol))) {
			model.drop_data(kEth);
			return err;
		}
	}
	if (s.regular.location != 0 && !s.running)
		start(s);
	return 0;
}

int Sockets::set_treatment(int id, uint32_t treatment)
{
	if (treatment >= contract::kTreatments)
		return -EINVAL;
	Socket &s = at(id);
	stop(s);
	s.regular.treatment = treatment;
	start(s);
	return 0;
}

int Sockets::set_location(int id, uint32_t location)
{
	if (location < contract::kLocationCount && !contract::kLocations[location].accepted)
		return -EINVAL;
	Socket &s = at(id);
	stop(s);
	s.regular.location = location;
	if (location != 0)
		start(s);
	return 0;
}

int Sockets::edit(int id, bool add, uint32_t type, uint32_t count,
		  const std::vector<uint8_t> &elements)
{
	Socket &s = at(id);
	stop(s);
	int result = 0;
	if (type >= kTypes) {
		result = -EINVAL;
	} else if (type == kAll) {
		if (add && !model.add_empty_item(s.regular, kAll))
			return -ENOMEM;
		if (!add)
			model.del_item(s.regular, kAll);
	} else {
		uint32_t stride = contract::width(type);
		// Elements without a value are all equal: one stands for them.
		uint32_t wanted = stride == 0 ? std::min(count, 1u) : count;
		for (uint32_t i = 0; i < wanted; i++) {
			if (!model.take_data(type))
				return -ENOMEM;
			Value value = bytes_value({ elements.begin() + i * stride,
						    elements.begin() + (i + 1) * stride });
			if (add) {
				if (int err = model.add_data(s.regular, type, value)) {
					model.drop_data(type);
					return err; // out of the libraries until the next change
				}
			} else {
				model.del_data(s.regular, type, value);
				model.drop_data(type);
			}
		}
	}
	if (s.regular.location != 0 && !s.running)
		start(s);
	return result;
}

int Sockets::add_rule(int id, uint32_t type, uint32_t count, const std::vector<uint8_t> &elements)
{
	return edit(id, true, type, count, elements);
}

int Sockets::del_rule(int id, uint32_t type, uint32_t count, const std::vector<uint8_t> &elements)
{
	return edit(id, false, type, count, elements);
}

// False when no buffer could be allocated; every other outcome is the socket's own.
bool Sockets::hand_over(Socket &s, bool shared, uint32_t total, uint32_t l2, uint32_t ifindex)
{
	if (shared ? !skb_clone() : !skb_allocation()) {
		skb_failures++;
		return false;
	}
	in_flight++;
	Received got;
	got.frame_offset = s.type == 2 ? l2 : 0;
	got.length = total - got.frame_offset;
	got.ifindex = ifindex;
	got.truesize = truesize(total);
	if (s.has_filter) {
		// The verdict is read as a snap length: acceptance is 0 bytes, and a
		// rejection is a huge number that trims nothing.
		uint32_t snap = static_cast<uint32_t>(s.verdict);
		if (snap == 0) {
			s.counters.filter_drops++;
			in_flight--;
			return true;
		}
		if (snap < got.length) {
			if (s.trim_fails) {
				s.counters.trim_fail_drops++;
				in_flight--;
				return true;
			}
			got.length = snap;
		}
	}
	if (s.rmem + got.truesize >= s.rcvbuf) {
		s.counters.rcvbuf_full_drops++;
		in_flight--;
		return true;
	}
	s.rmem += got.truesize;
	s.counters.recv_packets++;
	s.queue.push_back(got);
	return true;
}

// As soon as a further socket is known to match, the frame is allocated once, and each socket
// from then on gets a clone; without memory for it each gets a buffer of its own.
std::vector<int> Sockets::offer(const std::vector<const Regular *> &matching, bool traps,
				uint32_t total, uint32_t l2, uint32_t ifindex)
{
	std::vector<int> offered;
	bool shared = false;
	for (size_t i = 0; i < matching.size(); i++) {
		const Regular &r = *matching[i];
		bool ends = traps && r.treatment == kTrap;
		if (!ends && !shared && i + 1 < matching.size())
			shared = skb_allocation();
		offered.push_back(r.owner);
		if (hand_over(at(r.owner), shared, total, l2, ifindex) && ends)
			break;
	}
	return offered;
}

std::vector<int> Sockets::deliver(uint32_t location, const Packet &packet, uint32_t total,
				  uint32_t l2)
{
	std::vector<const Regular *> matching;
	for (const Regular *r : model.library(location)->regulars)
		if (r->treatment != 0 && location_open(r->location, packet, world) &&
		    rule_match(packet, *r) && world.vsd(r->owner) == 0)
			matching.push_back(r);
	return offer(matching, true, total, l2, packet.ifindex);
}

std::vector<int> Sockets::deliver_wlan(const WlanPacket &packet, uint32_t total, uint32_t l2)
{
	std::vector<const Regular *> matching;
	for (const Regular *r : model.library(8)->regulars)
		if (r->treatment != 0 && wlan_rule_match(packet, *r) && world.vsd(r->owner) == 0)
			matching.push_back(r);
	return offer(matching, false, total, l2, packet.ifindex);
}

} // namespace oracle
