// SPDX-License-Identifier: GPL-2.0-only
// The whole module, loaded into the fake kernel, with sockets to play with.
#pragma once

#include <memory>

#include "packets.h"
#include "receive/queue.hpp"
#include "rules_fixture.h"
#include "base/socket_record.hpp"
#include "socket/address.hpp"
#include "socket/dump.hpp"
#include "socket/family.hpp"
#include "receive/deliver.hpp"
#include "receive/thread.hpp"

using namespace mox;

using Bytes = std::vector<u8>;
using oracle::operator+;

inline constexpr int kDgram = 2, kRaw = 3;

// A socket of the family, as a process holds it.
class Sock {
public:
	Sock() = default;
	~Sock();
	Sock(const Sock &) = delete;
	Sock &operator=(const Sock &) = delete;

	// The call's result.
	int create(int type = kRaw, int protocol = 0, ::net *ns = &fake::init_net());
	int release();
	int setsockopt(int option, const Bytes &value, int level = MOX_SOL_PACKET, int len = -1,
		       size_t fault_at = SIZE_MAX);
	int set(int option, u32 value);
	int rule(bool add, u16 type, u16 count, const Bytes &elements, int size = -1);
	int add(u16 type, u16 count = 1, const Bytes &elements = {})
	{
		return rule(true, type, count, elements);
	}
	int del(u16 type, u16 count = 1, const Bytes &elements = {})
	{
		return rule(false, type, count, elements);
	}
	int bind(u32 ifindex, u16 protocol = 0, u16 family = 17, int len = 20);
	// A socket that captures everything at a location.
	Sock &capture(u32 location, u32 treatment, int type = kRaw);

	mox_packet_sock &po() { return *reinterpret_cast<mox_packet_sock *>(sk); }
	u32 refs() const { return sk->refs; }
	bool running() { return po().flags & PO_RUNNING; }
	size_t queued() const { return sk->queue->size(); }
	const sk_buff &buffer(size_t i = 0) const { return *sk->queue->at(i); }
	const mox_packet_ctrl_info &ctrl(size_t i = 0) const
	{
		return *reinterpret_cast<const mox_packet_ctrl_info *>(sk->queue->at(i)->cb);
	}

	::socket socket;
	::sock *sk = nullptr;
};

inline Bytes u32_bytes(u32 v)
{
	Bytes b(4);
	memcpy(b.data(), &v, 4);
	return b;
}

class ModuleTest : public fake::KernelTest {
protected:
	void SetUp() override;
	void TearDown() override;

	void debug(bool on = true) { mox_packet_debug[0] = on; }
	// Calls a location's hook with the efbuff; then, if asked, lets the thread drain.
	u32 hook(u32 (*func)(void), void *efbuff, int cpu = 0);
	void drain();
	// A frame through a location's hook and the thread.
	u32 frame(u32 location, const packets::Meta &meta, const Bytes &bytes);
	static std::string tagged(const std::string &line); // with the CPU's tag

	u32 port = 0; // interface 7
};

// The receive functions, and what the contract says of each; by contract::HookId.
struct HookTraits {
	HookTraits(contract::HookId id, u32 location, u32 (*func)(void));

	u32 location;
	u32 (*func)(void);
	u32 taken, go_on;
	int queue;
	packet_regular_lib *lib;
	const char *name; // the location's
};
extern const HookTraits kHooks[contract::kHookIds];
