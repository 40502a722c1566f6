// SPDX-License-Identifier: GPL-2.0-only
#include "random_send_fixture.h"

void RandomSendTest::SetUp()
{
	SendTest::SetUp();
	for (int i = 0; i < kSockets; i++) {
		models[i].datagram = i % 2;
		models[i].protocol = u16(i < 2 ? 0 : 0x0608);
		models[i].process = kernel().comm;
		ASSERT_EQ(socks[i].create(models[i].datagram ? kDgram : kRaw, models[i].protocol),
			  0);
	}
	world.local_mac = kLocalMac;
	efmp().longest = world.longest = 2000;
	for (u32 ifindex : { 7, 8, 9, 4094, 4095 })
		world.interfaces[ifindex] = { interface(ifindex),
					      ifindex > 4000
						      ? "lev" + std::to_string(ifindex - 4092)
						      : "eth" + std::to_string(ifindex),
					      ifindex != 9 };
}

void RandomSendTest::TearDown()
{
	for (Sock &sock : socks)
		if (sock.sk)
			sock.release();
	SendTest::TearDown();
}

Bytes RandomSendTest::noise(size_t len)
{
	// Long data repeat: the module reads none of them.
	constexpr size_t kChosen = 128;
	Bytes out(len);
	for (size_t i = 0; i < len; i++)
		out[i] = i < kChosen ? u8(below(256)) : u8(out[i - kChosen] + 1);
	return out;
}

Bytes RandomSendTest::name()
{
	const u32 index = ifindex();
	const u16 protocol = u16(pick({ 0, 0xcc88, 0x0608 }));
	Bytes out = noise(one_in(8) ? below(40) : 20 + below(3));
	auto put = [&](size_t at, const void *from, size_t len) {
		if (out.size() >= at + len)
			memcpy(&out[at], from, len);
	};
	put(2, &protocol, 2);
	put(4, &index, 4);
	const u8 mac_len = u8(one_in(8) ? below(12) : 6);
	put(11, &mac_len, 1);
	return out;
}

Bytes RandomSendTest::record()
{
	Bytes out = noise(one_in(10) ? below(60) : 48);
	const u32 source = one_in(2) ? 0 : ifindex(),
		  flags = one_in(2) ? u32(rng()) : u32{ 1 } << below(32);
	if (out.size() >= 4)
		memcpy(&out[0], &source, 4);
	if (out.size() >= 28)
		memcpy(&out[24], &flags, 4);
	return out;
}

void RandomSendTest::change_binding()
{
	if (world.vsd)
		return; // may not bind either
	const u32 i = below(kSockets);
	const u32 bound = pick({ 0, 7, 8, 9 });
	const u16 protocol = u16(pick({ 0, 0, 0x8e88 }));
	const u16 before = models[i].protocol;
	ASSERT_EQ(socks[i].bind(bound, protocol), 0);
	models[i].bound = bound;
	models[i].protocol = protocol ? protocol : before;
	ASSERT_EQ(socks[i].po().protocol, models[i].protocol);
}

// One thing of the world, or of a socket, becomes different.
void RandomSendTest::change()
{
	switch (below(6)) {
	case 0:
		world.vsd = one_in(8) ? 1 + below(5) : 0;
		kernel().cwd = world.vsd ? "/data/var/run/vsd/" + std::to_string(world.vsd)
					 : "/root";
		break;
	case 1:
		world.debugging = one_in(2);
		debug(world.debugging);
		break;
	case 2:
		if (one_in(3)) {
			efmp().withdraw(11, 10);
			world.local_mac.reset();
		} else {
			publish_local_mac();
			world.local_mac = kLocalMac;
		}
		world.local_mac_result = g_local_mac.result = one_in(4) ? int(rng()) : 0;
		break;
	case 3: {
		const u32 which = pick({ 7, 8, 9 });
		world.interfaces[which].up = !one_in(4);
		set_link(which, world.interfaces[which].up);
		break;
	}
	case 4:
		world.outcome = efmp().outcome = int(
			pick({ 0, 0, 2, 3, 4, 5, 6, 7, 1, 8, 255, ~0u }));
		break;
	default:
		change_binding();
	}
}

void RandomSendTest::step()
{
	if (one_in(3))
		change();
	const u32 i = below(kSockets);
	oracle::SendMessage m;
	m.data = noise(one_in(10) ? below(3000) : below(100));
	if (one_in(20))
		m.readable = below(100);
	if (!one_in(4))
		m.name = name();
	if (one_in(2))
		m.control = record();
	const oracle::SendResult wanted = oracle::send(world, models[i], m);

	kernel().log.clear();
	efmp().sent.clear();
	EXPECT_EQ(send_on(socks[i], { .data = m.data,
				      .name = m.name,
				      .control = m.control,
				      .fault_at = m.readable }),
		  wanted.result);
	totals[i][wanted.counter]++;
	seen[wanted.counter]++;
	Strings wanted_lines = wanted.lines;
	for (std::string &line : wanted_lines)
		if (size_t at = line.find("<efbuff>"); at != std::string::npos)
			line.replace(at, 8, efbuff_text);
	EXPECT_EQ(lines(), wanted_lines);
	ASSERT_EQ(efmp().sent.size(), wanted.left ? 1u : 0u);
	if (wanted.left) {
		EXPECT_EQ(last().header, wanted.header);
		EXPECT_EQ(last().frame, wanted.frame);
	}
	EXPECT_TRUE(efmp().live.empty());
	for (int j = 0; j < kSockets; j++)
		EXPECT_EQ(counters_of(socks[j]), totals[j]) << "socket " << j;
}
