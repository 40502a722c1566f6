// SPDX-License-Identifier: GPL-2.0-only
// Requests to both netlink families and socket diagnosis: any message, any attributes, any room
// for a dump's messages, about sockets with few and many values that may go in the middle.
#include "capture_fixture.h"
#include "control/diag.hpp"
#include "fixture_case.h"
#include "frame_bytes.h"
#include "rules/print.hpp"
#include "surroundings.h"

namespace {

class Requests : public CaptureTest {
public:
	void play(fuzz::Input &input)
	{
		const u8 how = input.byte();
		for (u32 i = 0; i < std::size(socks_); i++)
			socks_[i].capture(PACKET_LEV2_LOC + i % 2, PACKET_COPY + i % 3);
		if (how % 4 == 1)
			crowd(input);
		if (how & 2)
			leave_in_queues();
		// More than a report, a dump or a listing looks at in one go.
		std::vector<std::unique_ptr<Sock>> many(how >= 252 ? 257 : how >= 240 ? 65 : 0);
		for (auto &sock : many) {
			sock = std::make_unique<Sock>();
			if (how & 1)
				sock->capture(PACKET_LEV2_LOC, PACKET_COPY);
			else
				sock->create(kRaw, 0, how & 2 ? &other_ns : &fake::init_net());
		}
		fuzz::World world(input);
		if (how & 4)
			arm_other_cpu(input);
		for (int requests = 0; requests < 8 && !input.empty(); requests++)
			request(input);
		kernel().at.erase(Point::kUnlock);
		capture_answers_are_sound();
		reader_.reset();
		for (Sock &sock : socks_)
			if (sock.sk)
				sock.release();
		many.clear();
		kernel().run_thread();
	}

private:
	// Rules of so many values that a report of them takes several pages.
	void crowd(fuzz::Input &input)
	{
		const u16 types[] = { PACKET_SRC_MAC_EQUAL,
				      PACKET_ETH_PROT_EQUAL,
				      PACKET_IPv4_DEST_PORT_EQUAL,
				      PACKET_SRC_INTF_EQUAL,
				      PACKET_PACKET_CODE_EQUAL,
				      PACKET_PID_T,
				      PACKET_ARP_TYPE };
		const u16 type = types[input.below(std::size(types))];
		const u32 width = contract::width(type);
		const u16 count = input.byte();
		const u8 how = input.byte();
		Bytes elements(size_t{ count } * width);

		for (u16 i = 0; i < count; i++)
			memcpy(&elements[size_t{ i } * width], &i, sizeof i);
		for (u32 i = 0; i < std::size(socks_); i++) {
			if (!(how & 1u << i))
				continue;
			if (how & 8)
				socks_[i].del(PACKET_ALL);
			socks_[i].add(type, count, elements);
			if (how & 16)
				socks_[i].add(PACKET_IPv4_MCAST_TRAFFIC);
		}
	}

	void leave_in_queues()
	{
		for (const HookTraits &hook : kHooks) {
			if (hook.location > PACKET_IPv4_LOC)
				continue;
			packets::Meta meta;
			meta.source = port;
			void *efbuff = packets::make(meta, Bytes(80, 1));
			if (efmp().call(hook.func, efbuff, hook.taken, 0) != hook.taken)
				efmp().drop(efbuff);
		}
	}

	// After so many locks a socket closes, leaves its library or goes to another one.
	void arm_other_cpu(fuzz::Input &input)
	{
		left_ = 1u + input.byte();
		const u8 what = input.byte();
		kernel().at.watch(Point::kUnlock, [this, what](const void *) {
			if (!kernel().held.empty() || kernel().in_hook || left_ == 0 ||
			    --left_ != 0)
				return;
			Sock &sock = socks_[what % std::size(socks_)];
			if (!sock.sk)
				return;
			on_other_cpu([&] {
				if (what & 64)
					sock.release();
				else
					sock.set(PACKET_LOCATION, what / 4 % 8);
			});
			left_ = what & 128 ? 16 : 0;
		});
	}

	void request(fuzz::Input &input)
	{
		const u8 what = input.byte();

		switch (what % 8) {
		case 0:
		case 1:
			return operator_asks(input, what / 8);
		case 2:
		case 3:
			return dump(input, what / 8);
		case 4:
			return diagnose(input);
		case 5:
			if (what & 16)
				return direct(input);
			mox_capture_client_gone(what & 8 ? kClient : 1);
			return;
		case 6:
			return file(input.byte());
		default:
			if (what == 255) {
				ask_one(MOX_CAPTURE_CMD_RESTRICT,
					attribute(MOX_CAPTURE_REQUEST_RESTRICT, input.byte()));
				return;
			}
			ask_one(what & 128 ? what : MOX_CAPTURE_CMD_INFO + what / 8 % 14,
				attributes(input));
		}
	}

	static Bytes body(fuzz::Input &input, u16 type)
	{
		if (type == MOX_MSG_DEBUG)
			return debug_body(input.byte() % (MOX_DEBUG_HOOK_ALL + 2), input.byte());
		if (type == MOX_MSG_FILTER) {
			Bytes filter = Bytes{ u8(input.below(2)), 0, 0, 0 } +
				       u32_bytes(input.number<u16>());
			filter.resize(sizeof(mox_packet_filter));
			return filter;
		}
		if (type == MOX_MSG_SHOW_PID && input.below(2))
			return u32_bytes(kernel().pid);
		if (type == MOX_MSG_SHOW_NAME && input.below(2)) {
			const std::string &name = kernel().comm;
			return Bytes(name.begin(), name.end()) + Bytes{ 0 };
		}
		return input.bytes(input.byte());
	}

	static void operator_asks(fuzz::Input &input, u8 how)
	{
		const u16 type = how & 1 ? input.number<u16>() : u16(input.below(20));
		const Bytes content = body(input, type);

		if (how & 2) {
			mox_packet_request direct{};
			direct.msg_type = type;
			memcpy(&direct.body, content.data(),
			       std::min(content.size(), sizeof direct.body));
			(void)mox_packet_msg_deal(&direct, kClient);
			return;
		}
		receive(message(record(type, content), how % 16 == 12 ? input.number<u16>() : -1,
				how % 16 == 8 ? input.number<u16>() : -1));
	}

	// What the units offer each other, with numbers that their callers check.
	static void direct(fuzz::Input &input)
	{
		const u8 what = input.byte(), number = input.byte();
		const u32 body[2] = { number, what };
		const u8 value[REGULAR_VALUE_SIZE] = { number, what };

		switch (what % 8) {
		case 0:
			(void)mox_packet_dereg_msg_deal(body);
			return;
		case 1:
			return mox_packet_show_regular(number);
		case 2:
			return mox_packet_show_cpu_queue(number);
		case 3:
			return mox_packet_show_regular_spec(
				what & 8 ? MOX_MSG_SHOW_NAME : MOX_MSG_SHOW_PID, number % 16,
				what & 16 ? kernel().comm.c_str() : nullptr,
				what & 32 ? kernel().pid : 0);
		case 4:
			return mox_packet_dump_regular_type(number);
		default:
			return mox_packet_dump_regular_data(number, value);
		}
	}

	// Attributes of the right length mostly, with values that sockets here have.
	static Bytes attributes(fuzz::Input &input)
	{
		const u8 how = input.byte();
		Bytes out;

		if (how >= 240)
			return input.bytes(input.byte());
		for (u8 left = how % 4; left != 0; left--) {
			const u8 lengths[] = { 0, 4, 4, 8, 1, 4, 2, 6, 2, 4, 1, 1, 2 };
			const u16 type = u16(input.below(std::size(lengths)));
			Bytes value(lengths[type]);
			if (type == MOX_CAPTURE_REQUEST_ADDRESS && how & 16)
				value.resize(16);
			if (!value.empty())
				value[0] = input.byte();
			if (type == MOX_CAPTURE_REQUEST_PID && how & 4)
				value = u32_bytes(kernel().pid);
			if (type == MOX_CAPTURE_REQUEST_COOKIE)
				value[4] = 1;
			if (how & 8 && how & 32)
				value.resize(input.byte() % 32);
			out = out + fuzz::attribute_of(type, value);
		}
		if (how & 64)
			out.resize(out.size() + input.byte() % 8);
		return out;
	}

	// The next batches of the dump that is open, or of a new one.
	void dump(fuzz::Input &input, u8 how)
	{
		const u8 command = u8(
			MOX_CAPTURE_CMD_LOCATIONS +
			how % (MOX_CAPTURE_CMD_MEMORY - MOX_CAPTURE_CMD_LOCATIONS + 2));
		if (!reader_ || how & 16) {
			reader_.reset();
			reader_ = std::make_unique<Reader>(command, attributes(input));
		}
		const size_t room = input.number<u16>() % 4096;
		int filled = reader_->started;
		for (u8 fills = input.byte(); filled >= 0 && fills != 0; fills--) {
			filled = reader_->fill(room);
			if (filled == 0)
				filled = -1;
		}
		if (filled < 0)
			reader_.reset();
	}

	void diagnose(fuzz::Input &input)
	{
		seam_diag_place at{};
		const u8 how = input.byte();

		kernel().diag_room = how % 8;
		for (u8 calls = how / 8 % 4; calls != 0; calls--) {
			mox_packet_diag_dump(nullptr, nullptr,
					     how & 32 ? seam_init_net() : &other_ns, &at);
			kernel().diag_room = how % 8;
		}
		kernel().diag_listed.clear();
	}

	// What lies where the dump file goes.
	static void file(u8 how)
	{
		char path[128];

		snprintf(path, sizeof path, MOX_PACKET_DUMP_FILE, how / 16 % 4);
		kernel().places[path] = { (how & 1) == 0, 1u + (how & 2) };
		kernel().disk[path] = how & 4 ? "old" : "";
		receive(message(record(MOX_MSG_TECH)));
	}

	// Whatever was sent decodes with the interface's tables; what they lack fails.
	static void capture_answers_are_sound()
	{
		for (const auto &answer : kernel().capture_answers)
			capture::decode(answer.message);
	}

	Sock socks_[3];
	std::unique_ptr<Reader> reader_;
	u32 left_ = 0; // locks before another CPU acts
};

} // namespace

void fuzz_case(fuzz::Input input)
{
	fuzz::Case<Requests>::run([&](Requests &requests) { requests.play(input); });
}
