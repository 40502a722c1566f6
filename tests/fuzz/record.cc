// SPDX-License-Identifier: GPL-2.0-only
// Calls of a process on its sockets with any option, value, length and reach of user memory, rule
// records above all.
#include "fixture_case.h"
#include "services/services.hpp"
#include "socket_fixture.h"
#include "surroundings.h"

namespace {

// A handler of the control hook: answers with the first byte of its argument.
int control_handler(unsigned int, void *argument)
{
	return *static_cast<u8 *>(argument);
}

int other_handler(unsigned int, void *)
{
	return 0;
}

class Records : public SocketTest {
public:
	void play(fuzz::Input &input)
	{
		fuzz::World world(input);
		for (Sock &s : socks_)
			create(input, s);
		// Each call takes memory of the process; a few show what one leaves to the next.
		for (int calls = 0; calls < 16 && !input.empty(); calls++)
			call(input);
		verify_all();
		for (Sock &s : socks_)
			if (s.sk)
				s.release();
		(void)packet_unreg_cpp_ioctl(control_handler);
	}

private:
	void create(fuzz::Input &input, Sock &s)
	{
		const u8 how = input.byte();
		const int type = how & 2 ? kDgram : how & 4 ? input.byte() : kRaw;
		s.create(type, how & 8 ? input.number<u16>() : 0,
			 how & 16 ? &other_ns : &fake::init_net());
		if (s.sk && !(how & 32))
			capture_all(s);
	}

	void capture_all(Sock &s)
	{
		s.add(PACKET_ALL);
		s.set(PACKET_TREATMENT, PACKET_COPY);
		s.set(PACKET_LOCATION, PACKET_LEV2_LOC);
	}

	void call(fuzz::Input &input)
	{
		const u8 what = input.byte();
		Sock &s = socks_[what / 64 % std::size(socks_)];

		if (!s.sk) {
			closed(what);
			return create(input, s);
		}
		switch (what % 16) {
		case 0:
			return get(input, s);
		case 1:
			return bind(input, s);
		case 2:
			return receive(input, s);
		case 3:
			return look(input, s);
		case 4:
			frame(PACKET_LEV2_LOC, {}, input.bytes(input.byte()));
			return;
		case 8:
			if ((what & 112) == 112)
				return too_long(input, s);
			frame(PACKET_LEV2_LOC, {}, Bytes(what / 2));
			return receive(input, s);
		case 5:
			return hook(input.byte());
		case 6:
			return crowd(input, s);
		case 7:
			if (what & 16)
				s.release();
			return;
		default:
			return set(input, s);
		}
	}

	// What processes cannot do with a socket that is gone, and the kernel still asks of it.
	static void closed(u8 what)
	{
		::socket socket{};
		msghdr message;

		if (what & 1) {
			EXPECT_EQ(mox_packet_release(&socket), 0);
		} else {
			mox_packet_poll(&socket);
			EXPECT_LT(mox_packet_recvmsg(&socket, &message, 1, 0), 0);
		}
	}

	// Memory that ends with the value, or before.
	static void reach(fake::UserBuf &user, u8 how, fuzz::Input &input)
	{
		if (how % 8 == 7)
			user.fault_at = std::min(size_t{ input.byte() }, user.bytes.size());
		user.span = SIZE_MAX / 4;
	}

	static void set(fuzz::Input &input, Sock &s)
	{
		const int options[] = { MOX_PACKET_ADD_RULE,    MOX_PACKET_ADD_RULE,
					MOX_PACKET_DEL_RULE,    PACKET_LOCATION,
					PACKET_TREATMENT,       PACKET_CTRL_INFO,
					MOX_PACKET_DUMP_SOCKET, MOX_PACKET_CONTROL_HOOK };
		const u8 what = input.byte();
		const int option = what < 224 ? options[what % std::size(options)]
					      : input.number<u16>();
		// Lengths beside the value's own: below it, above it, and negative ones.
		const u8 how = input.byte();
		const Bytes value = input.bytes(input.byte());
		int length = static_cast<int>(value.size());
		if (how < 64)
			length = static_cast<int16_t>(input.number<u16>());
		const int level = how == 255 ? input.byte() : MOX_SOL_PACKET;
		fake::UserBuf user(value);
		reach(user, how, input);
		seam_uptr at{ &user };
		mox_packet_setsockopt(&s.socket, level, option, &at, static_cast<u32>(length));
	}

	// More than any record has: what lies behind has to be there, and is not looked at.
	static void too_long(fuzz::Input &input, Sock &s)
	{
		constexpr size_t kLongest = 6 + 65535 * 6;
		const u16 type = u16(input.below(contract::kTypes)), count = input.byte();
		Bytes record(kLongest + 1000 * size_t{ input.byte() });
		memcpy(&record[0], &type, 2);
		memcpy(&record[4], &count, 2);
		const u8 short_by = input.byte();
		s.setsockopt(MOX_PACKET_ADD_RULE, record, MOX_SOL_PACKET, -1,
			     short_by & 1 ? record.size() - short_by : SIZE_MAX);
	}

	// A rule of many values, of which some are there already.
	static void crowd(fuzz::Input &input, Sock &s)
	{
		const u32 types[] = { PACKET_SRC_MAC_EQUAL, PACKET_DEST_MAC_EQUAL,
				      PACKET_SRC_INTF_EQUAL, PACKET_ETH_PROT_EQUAL };
		const u32 type = types[input.below(std::size(types))];
		const u32 width = contract::width(type);
		const u8 how = input.byte(), first = input.byte(), step = input.byte();
		// Few cases have as many as take long.
		const u16 count = static_cast<u16>(input.byte() * (how >= 248 ? 4 : 1));
		Bytes elements(size_t{ count } * width);
		u16 value = first;

		for (size_t at = 0; at < elements.size(); at += width, value += step)
			memcpy(&elements[at], &value, sizeof value);
		s.rule(!(how & 1), static_cast<u16>(type), count, elements);
	}

	static void get(fuzz::Input &input, Sock &s)
	{
		const int options[] = { MOX_PACKET_STATISTICS, MOX_PACKET_AUXDATA,
					MOX_PACKET_ORIGDEV };
		const u8 what = input.byte(), how = input.byte();
		const int option = what < 192 ? options[what % std::size(options)] : what;
		fake::UserBuf value(64), length(sizeof(int));
		length.put(0, how < 64 ? input.number<int>() : int{ how });
		reach(how & 1 ? value : length, how / 2, input);
		mox_packet_getsockopt(&s.socket, how == 254 ? 0 : MOX_SOL_PACKET, option,
				      reinterpret_cast<char *>(value.data()),
				      reinterpret_cast<int *>(length.data()));
	}

	// The kernel has copied the address, and hands over as long a buffer as any has.
	static void bind(fuzz::Input &input, Sock &s)
	{
		const u8 how = input.byte();
		Bytes address = input.bytes(20);
		const u16 family = 17;

		address.resize(128);
		if (!(how & 1))
			memcpy(&address[0], &family, 2);
		if (!(how & 2))
			address[5] = address[6] = address[7] = 0;
		if (!(how & 4))
			address[4] = how & 8 ? 0 : 7;
		mox_packet_bind(&s.socket, reinterpret_cast<sockaddr *>(address.data()),
				how & 16 ? int(int8_t(input.byte())) : 20);
	}

	static void receive(fuzz::Input &input, Sock &s)
	{
		const u8 how = input.byte();
		int flags = how & 1 ? input.number<u16>() : how & 2;
		u8 name[128];
		fake::UserBuf record(sizeof(mox_packet_ctrl_info));
		msghdr message;

		// Nothing else would ever end the wait.
		if (s.queued() == 0)
			flags |= 0x40;
		if (how & 4)
			message.name = name;
		if (how & 8) {
			message.control = record.data();
			message.controllen = record.bytes.size();
		}
		if (how & 16)
			message.data_fault_at = input.byte();
		if (how & 32)
			record.fault_at = input.byte();
		mox_packet_recvmsg(&s.socket, &message, how & 64 ? input.byte() : 65536,
				   flags | (how & 128 ? 0x20 : 0));
	}

	static void look(fuzz::Input &input, Sock &s)
	{
		const unsigned commands[] = { SEAM_SIOCOUTQ, SEAM_SIOCINQ, SEAM_SIOCGSTAMP,
					      SEAM_SIOCGSTAMPNS, 1 };
		const u8 how = input.byte();
		fake::UserBuf memory(64);
		u8 name[128];

		reach(memory, how, input);
		s.sk->stamped = how & 16;
		s.sk->rcvbuf = how & 32 ? 600 : 212992;
		if (how & 128)
			mox_packet_getname(&s.socket, reinterpret_cast<sockaddr *>(name), how & 1);
		else
			mox_packet_ioctl(&s.socket, commands[how % std::size(commands)],
					 reinterpret_cast<unsigned long>(memory.data()));
		mox_packet_poll(&s.socket);
	}

	static void hook(u8 how)
	{
		const packet_cpp_ioctl_func handlers[] = { nullptr, control_handler,
							   other_handler };
		const packet_cpp_ioctl_func handler = handlers[how / 2 % std::size(handlers)];

		(void)(how & 1 ? packet_reg_cpp_ioctl(handler) : packet_unreg_cpp_ioctl(handler));
		if (mox_packet_cpp_ioctl_func == other_handler)
			(void)packet_unreg_cpp_ioctl(other_handler);
	}

	Sock socks_[2];
};

} // namespace

void fuzz_case(fuzz::Input input)
{
	fuzz::Case<Records>::run([&](Records &records) { records.play(input); });
}
