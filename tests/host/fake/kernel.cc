// SPDX-License-Identifier: GPL-2.0-only
// Circumstances, faults, events, and the audit at the end of a test.
#include "kernel.h"

#include <gtest/gtest.h>

namespace fake {

Kernel &kernel()
{
	static Kernel the_kernel;
	return the_kernel;
}

struct net &init_net()
{
	static struct net the_net;
	return the_net;
}

void breach(const std::string &what)
{
	ADD_FAILURE() << "breach: " << what;
}

bool Kernel::failing(Fail call)
{
	const bool due = failures_.due(call);
	return (fault && fault(call)) || due;
}

int Kernel::error_of(Fail call, int otherwise) const
{
	auto it = error.find(call);
	return it == error.end() ? otherwise : it->second;
}

std::string Kernel::text() const
{
	std::string all;
	for (const Line &l : log)
		all += l.text;
	return all;
}

bool Kernel::said(const std::string &line) const
{
	for (const Line &l : log)
		if (l.text == line)
			return true;
	return false;
}

size_t Kernel::count_said(const std::string &part) const
{
	size_t n = 0;
	for (const Line &l : log)
		n += l.text.find(part) != std::string::npos;
	return n;
}

void Kernel::reset()
{
	auto buffers = user;
	*this = Kernel{};
	user = buffers;
	init_net() = net{};
	init_net().name = "init";
	// The protocol's module is loaded into a namespace that has its list already.
	init_net().list_ready = true;
	init_lock(&init_net().lock, LockKind::kNsMutex);
}

void Kernel::audit()
{
	at.clear();
	failures_.audit();
	EXPECT_TRUE(held.empty()) << held.size() << " locks left held";
	EXPECT_EQ(bh_disabled, 0) << "bottom halves left disabled";
	EXPECT_TRUE(blocks.empty())
		<< blocks.size() << " blocks left, one from " << blocks.begin()->second;
	for (kmem_cache *c : caches)
		ADD_FAILURE() << "cache " << c->name << " left with " << c->objects.size()
			      << " objects";
	EXPECT_TRUE(skbs.empty()) << skbs.size() << " socket buffers left";
	for (sock *sk : socks)
		ADD_FAILURE() << "socket left with " << sk->refs << " references";
	EXPECT_TRUE(tasks.empty()) << tasks.size() << " threads left";
	EXPECT_FALSE(proto_registered) << "protocol left registered";
	EXPECT_FALSE(family_registered) << "family left registered";
	EXPECT_FALSE(genl_registered) << "generic netlink family left registered";
	EXPECT_FALSE(capture_registered) << "the family for reading left registered";
	EXPECT_TRUE(open_files.empty()) << open_files.size() << " files left open";
	EXPECT_FALSE(pernet_registered) << "namespace operations left registered";
	EXPECT_EQ(inuse, 0) << "sockets counted in use";
	EXPECT_EQ(init_net().refs, 1) << "references on the initial namespace";
	EXPECT_TRUE(init_net().list.empty());
	EXPECT_TRUE(warnings.empty()) << "kernel warning: " << warnings.front();
}

} // namespace fake
