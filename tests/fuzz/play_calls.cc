// SPDX-License-Identifier: GPL-2.0-only
// What a process, the platform or the copy thread does, as the bytes choose it. Results are not
// predicted: what ran at the same time decides some of them.
#include "play.h"
#include "services/services.hpp"

namespace fuzz {
namespace {

// While a call of a socket runs, its file stays open.
class Busy {
public:
	explicit Busy(int &calls) : calls_(calls) { calls_++; }
	~Busy() { calls_--; }

private:
	int &calls_;
};

} // namespace

const Play::Action Play::kActions[] = {
	{ "create", &Play::create, 8 },
	{ "release", &Play::release, 4 },
	{ "set treatment", &Play::set_treatment, 4 },
	{ "set location", &Play::set_location, 4 },
	{ "add to rule", &Play::add_rule, 8 },
	{ "take from rule", &Play::del_rule, 4 },
	{ "many values", &Play::crowd, 2 },
	{ "bind", &Play::bind, 2 },
	{ "receive", &Play::receive, 4 },
	{ "send", &Play::send, 3 },
	{ "query", &Play::query, 2 },
	{ "option", &Play::option, 2 },
	{ "look", &Play::look, 3 },
	{ "request", &Play::request, 4 },
	{ "dump", &Play::dump, 4 },
	{ "frame", &Play::frame, 7 },
	{ "deliver", &Play::deliver, 4 },
	{ "trace", &Play::trace, 2 },
	{ "diagnosis", &Play::diagnose, 1 },
	{ "service", &Play::service, 1 },
	{ "surroundings", &Play::surroundings, 1 },
	{ "reload", &Play::reload, 1 },
};
const Play::Action &Play::chosen()
{
	u32 chances = 0;
	for (const Action &action : kActions)
		chances += action.chances;
	u32 left = below(chances);
	const Action *action = kActions;
	for (; left >= action->chances; action++)
		left -= action->chances;
	return *action;
}

void Play::create(int id)
{
	if (there(id))
		return add_rule(id);
	// In its place only when it is complete: nothing else finds it before.
	auto sock = std::make_unique<Sock>();
	calls_[id]++;
	const int result = sock->create(below(2) ? kRaw : kDgram, below(4) ? 0 : 0x0608,
					below(8) ? &fake::init_net() : &other_ns);
	calls_[id]--;
	if (result != 0 || there(id))
		return;
	socks_[id] = std::move(sock);
	if (below(8) == 0)
		return;
	// Most capture something that others capture as well.
	const u32 locations[] = { PACKET_LEV2_LOC, PACKET_LEV2_LOC, PACKET_IPv4_LOC,
				  PACKET_WLAN_LOC };
	Busy busy(calls_[id]);
	add_rule(id);
	socks_[id]->set(PACKET_TREATMENT, 1 + below(contract::kTreatments - 1));
	socks_[id]->set(PACKET_LOCATION, locations[below(std::size(locations))]);
}

void Play::release(int id)
{
	if (!there(id) || calls_[id])
		return;
	const std::unique_ptr<Sock> gone = std::move(socks_[id]);
	EXPECT_EQ(gone->release(), 0);
}

void Play::set_treatment(int id)
{
	if (!there(id))
		return create(id);
	Busy busy(calls_[id]);
	socks_[id]->set(PACKET_TREATMENT, below(contract::kTreatments + 1));
}

void Play::set_location(int id)
{
	if (!there(id))
		return create(id);
	Busy busy(calls_[id]);
	socks_[id]->set(PACKET_LOCATION, below(contract::kLocationCount + 1));
}

// Few values, so that rules share keys.
Bytes Play::element(u32 type)
{
	Bytes out(contract::width(type));
	if (!out.empty())
		out.back() = u8(1 + below(2));
	return out;
}

void Play::add_rule(int id)
{
	if (!there(id))
		return create(id);
	Busy busy(calls_[id]);
	const u32 type = below(2) ? below(contract::kTypes + 1) : u32(PACKET_SRC_MAC_EQUAL);
	const u32 count = below(3);
	Bytes elements;
	for (u32 i = 0; i < count && type < contract::kTypes; i++)
		elements = elements + element(type);
	socks_[id]->rule(true, u16(type), u16(count), elements);
}

void Play::del_rule(int id)
{
	if (!there(id))
		return create(id);
	Busy busy(calls_[id]);
	const std::vector<oracle::Item> &items = known_[id];
	if (items.empty())
		return;
	const oracle::Item &item = items[below(u32(items.size()))];
	Bytes element(contract::width(item.type));
	if (!item.datas.empty())
		memcpy(element.data(), item.datas.front().data(), element.size());
	socks_[id]->rule(false, u16(item.type), 1, element);
}

// More values than are looked at in one go, in or out; some rules have half of them.
void Play::crowd(int id)
{
	static constexpr u16 kTypesOfMany[] = { PACKET_SRC_MAC_EQUAL, PACKET_ETH_PROT_EQUAL,
						PACKET_IPv4_DEST_PORT_EQUAL };
	if (!there(id))
		return create(id);
	Busy busy(calls_[id]);
	const u16 type = kTypesOfMany[below(std::size(kTypesOfMany))];
	const u32 count = below(3) ? 3 + below(16) : 130, first = below(2) * 65;
	const u32 width = contract::width(type);
	Bytes elements(count * width);
	for (u32 i = 0; i < count; i++)
		elements[(i + 1) * width - 1] = u8(first + i);
	socks_[id]->rule(below(4) != 0, type, u16(count), elements);
}

void Play::bind(int id)
{
	if (!there(id))
		return create(id);
	Busy busy(calls_[id]);
	socks_[id]->bind(below(2) ? 7 : 0, below(2) ? 0x0008 : 0);
}

void Play::receive(int id)
{
	if (!there(id))
		return create(id);
	Busy busy(calls_[id]);
	msghdr message;
	u8 name[128];
	message.name = name;
	const int flags = 0x40 | (below(4) ? 0 : 2); // does not wait; leaves the datagram
	mox_packet_recvmsg(&socks_[id]->socket, &message, below(256), flags);
}

void Play::send(int id)
{
	if (!there(id))
		return create(id);
	Busy busy(calls_[id]);
	const u32 ifindex = below(2) ? 7 : below(2) * 8, flags = below(4) ? 0 : 1u << below(32);
	Bytes name(20), record(48);
	name[11] = 6;
	memcpy(&name[4], &ifindex, 4);
	memcpy(&record[24], &flags, 4);
	msghdr message;
	message.name = name.data();
	message.namelen = int(name.size());
	if (below(2)) {
		message.control = record.data();
		message.controllen = record.size();
	}
	message.out = Bytes(below(100), 0xda);
	mox_packet_sendmsg(&socks_[id]->socket, &message, message.out.size());
}

void Play::query(int id)
{
	if (!there(id))
		return create(id);
	Busy busy(calls_[id]);
	fake::UserBuf value(64), length(sizeof(int));
	length.put(0, int(below(65)));
	const int options[] = { MOX_PACKET_STATISTICS, MOX_PACKET_AUXDATA, PACKET_TREATMENT,
				PACKET_LOCATION };
	mox_packet_getsockopt(&socks_[id]->socket, MOX_SOL_PACKET,
			      options[below(std::size(options))],
			      reinterpret_cast<char *>(value.data()),
			      reinterpret_cast<int *>(length.data()));
}

// Options that change no rule, and unknown ones.
void Play::option(int id)
{
	if (!there(id))
		return create(id);
	Busy busy(calls_[id]);
	const int options[] = { MOX_PACKET_DUMP_SOCKET, PACKET_CTRL_INFO, MOX_PACKET_CONTROL_HOOK,
				int(below(32)) };
	Bytes value(below(4) ? 4 : below(48));
	for (u8 &byte : value)
		byte = u8(below(2));
	socks_[id]->setsockopt(options[below(std::size(options))], value);
}

// What the kernel asks a socket, and what a process set at the kernel itself.
void Play::look(int id)
{
	if (!there(id))
		return create(id);
	Busy busy(calls_[id]);
	Sock &s = *socks_[id];
	fake::UserBuf memory(64);
	const unsigned commands[] = { SEAM_SIOCOUTQ, SEAM_SIOCINQ, SEAM_SIOCGSTAMP, 1 };
	switch (below(6)) {
	case 0:
		return mox_packet_poll(&s.socket);
	case 1:
		mox_packet_getname(&s.socket, reinterpret_cast<sockaddr *>(memory.data()),
				   int(below(2)));
		return;
	case 2:
		mox_packet_ioctl(&s.socket, commands[below(std::size(commands))],
				 reinterpret_cast<unsigned long>(memory.data()));
		return;
	case 3:
		s.sk->stamped = below(2);
		return;
	case 4:
		s.sk->has_filter = below(2);
		s.sk->verdict = int(below(2));
		return;
	default:
		s.sk->rcvbuf = below(2) ? 2000 : 212992;
	}
}

// Of the socket's location mostly, where its rule is.
const HookTraits &Play::hook_for(int id)
{
	const u32 other = below(16);
	if (other < contract::kHookIds)
		return kHooks[other];
	const u32 where = there(id) ? socks_[id]->po().regular.location : 0;
	if (where == 0 || where > PACKET_LEV3_RESV_LOC)
		return kHooks[contract::kLev2Hook];
	return kHooks[where > PACKET_WLAN_LOC ? u32(contract::kResvHook) : where - 1];
}

// A frame that satisfies a rule, or misses it by one condition.
void Play::frame(int id)
{
	oracle::AimedFrame aimed = oracle::any_frame(rng_);
	for (const oracle::Item &item : known_[id])
		satisfy(aimed, item, rng_);
	if (!known_[id].empty() && below(4) == 0)
		spoil(aimed, known_[id][below(u32(known_[id].size()))], rng_);
	aimed.meta.source = port;
	aimed.meta.dest = below(2) ? port : 0;
	Bytes bytes = aimed.bytes();
	if (aimed.meta.l2_len == 0)
		bytes.erase(bytes.begin(), bytes.begin() + oracle::AimedFrame::kL2Len);
	const HookTraits &h = hook_for(id);
	const Bytes content = oracle::efbuff(aimed.meta, bytes);
	if (depth_ > 1 || until_other_ || until_failure_ || pkt_rnfp || pkt_rnfp_wlan) {
		void *efbuff = efmp().efbuff(content);
		if (efmp().call(h.func, efbuff, h.taken, kernel().cpu) != h.taken)
			efmp().drop(efbuff);
		return;
	}
	compare_answer(h, content);
}

// Nothing else runs: the hook's answer is the reference's, on the lists as they are.
void Play::compare_answer(const HookTraits &h, const Bytes &content)
{
	std::vector<std::unique_ptr<oracle::Regular>> storage;
	const oracle::Library library = library_of(h.location, socks_, storage);
	oracle::World world;
	world.vsd = [this](int owner) { return socks_[owner]->po().vsd; };
	world.lev2_block = fake::word(efmp().interfaces[4094]);
	world.lev3_block = fake::word(efmp().interfaces[4095]);
	const bool wlan = h.location == PACKET_WLAN_LOC;
	const u32 treatment = wlan ? oracle::wlan_fast_filter(oracle::parse_wlan(content.data(), 7),
							      library, world)
				   : oracle::fast_filter(oracle::parse(content.data(), 7), library,
							 world);
	const bool taken = treatment == PACKET_FETCH || (treatment == PACKET_TRAP && !wlan);
	void *efbuff = efmp().efbuff(content);
	const u64 clones = efmp().clones;
	EXPECT_EQ(efmp().call(h.func, efbuff, h.taken, 0), taken ? h.taken : h.go_on);
	EXPECT_EQ(efmp().clones - clones, treatment != 0 && !taken ? 1u : 0u);
	if (!taken)
		efmp().drop(efbuff);
}

// The copy thread, until it would sleep; a few frames first.
void Play::deliver(int id)
{
	if (delivering_)
		return;
	for (u32 frames = below(4); frames != 0; frames--)
		frame(id);
	delivering_ = true;
	kernel().run_thread();
	delivering_ = false;
}

// The module out, with hooks that still run, and in again, which may fail.
void Play::reload(int)
{
	if (depth_ > 1)
		return;
	const u32 failing = std::exchange(until_failure_, 0);
	const u32 other = std::exchange(until_other_, 0);
	// With a socket or a dump open, it cannot be unloaded.
	reader_.reset();
	for (auto &sock : socks_)
		sock.reset();
	until_other_ = other;
	unloading_ = true;
	mox_packet_exit();
	unloading_ = false;
	until_failure_ = failing;
	until_other_ = 0;
	// Of the machine's memory rules may have a part.
	kernel().total_memory = below(2) ? fake::Kernel::kTotalMemory : u64{ 1 } << 22;
	if (mox_packet_init() != 0) {
		EXPECT_TRUE(kernel().blocks.empty())
			<< "memory of a load that failed, of " << kernel().blocks.begin()->second;
		EXPECT_TRUE(kernel().caches.empty());
		EXPECT_TRUE(kernel().tasks.empty());
		EXPECT_FALSE(kernel().family_registered || kernel().genl_registered ||
			     kernel().capture_registered || kernel().proto_registered ||
			     kernel().pernet_registered);
		until_failure_ = 0;
		ASSERT_EQ(mox_packet_init(), 0);
	}
	check_.failed = false;
}

void Play::learn(int id)
{
	known_[id].clear();
	if (!there(id))
		return;
	for (const auto &[type, datas] : view(socks_[id]->po().regular).items)
		known_[id].push_back({ type, datas });
}

} // namespace fuzz
