// SPDX-License-Identifier: GPL-2.0-only
#include "rest_check.h"

#include <algorithm>

namespace fuzz {
namespace {

using Socks = std::vector<std::unique_ptr<Sock>>;

int place_of(const mox_packet_sock *owner, const Socks &socks)
{
	for (size_t i = 0; i < socks.size(); i++)
		if (socks[i] && &socks[i]->po() == owner)
			return int(i);
	ADD_FAILURE() << "a rule of no socket";
	return -1;
}

oracle::Regular regular_of(const RuleView &rule, const Socks &socks)
{
	oracle::Regular out;
	out.owner = place_of(rule.owner, socks);
	out.treatment = rule.treatment;
	out.location = rule.location;
	for (const auto &[type, datas] : rule.items)
		out.items.push_back({ type, datas });
	return out;
}

// A copy under its key, comparable whatever the order of lists.
using Filed = std::tuple<u32, oracle::Value, int, u32, u32, std::string>;

void add_filed(std::vector<Filed> &to, u32 type, const oracle::Value &value,
	       const oracle::Regular &copy)
{
	std::string items;
	for (const oracle::Item &item : copy.items) {
		items += "/" + std::to_string(item.type);
		for (const oracle::Value &data : item.datas)
			items.append(reinterpret_cast<const char *>(data.data()), data.size());
	}
	to.push_back({ type, value, copy.owner, copy.treatment, copy.location, items });
}

std::vector<Filed> filed_in(const oracle::Library &library)
{
	std::vector<Filed> out;
	for (const oracle::Entry &entry : library.filter_list)
		for (const auto *list : { &entry.match_list, &entry.local_match_list })
			for (const oracle::Regular &copy : *list)
				add_filed(out, entry.type, entry.value.value_or(oracle::Value{}),
					  copy);
	std::sort(out.begin(), out.end());
	return out;
}

// Without memory for a key a rule is filed under its other values, or under its next condition.
bool may_be_filed(const Filed &filed, const oracle::Library &library)
{
	for (const oracle::Regular *rule : library.regulars)
		for (const oracle::Item &item : rule->items)
			if (rule->owner == std::get<2>(filed) && item.type == std::get<0>(filed) &&
			    (item.datas.empty() ||
			     std::ranges::count(item.datas, std::get<1>(filed))))
				return true;
	return false;
}

void check_hooks(u32 location, bool wanted)
{
	for (const contract::Hook &hook : contract::hooks(location))
		if (hook.call)
			EXPECT_EQ(efmp().registered[hook.name] != 0, wanted) << hook.name;
}

void check_sockets(const Socks &socks, u32 dumps)
{
	u32 held = 0;
	std::map<const mox_packet_sock *, int> listed;
	for (u32 location = 1; location <= contract::kLibraries; location++)
		for (const RuleView &rule : rules_in(&lib_of(location)->regulars)) {
			EXPECT_EQ(contract::library(rule.location), contract::library(location));
			listed[rule.owner]++;
		}
	for (const auto &sock : socks) {
		if (!sock)
			continue;
		const bool in = sock->running() &&
				contract::library(sock->po().regular.location) >= 0;
		EXPECT_EQ(listed[&sock->po()], in) << "a rule's place";
		const u32 own = sock->running() ? 3u : 2u;
		EXPECT_GE(sock->refs(), own);
		held += sock->refs() - own;
		fake::audit_socket(&sock->po(), sock->queued());
	}
	EXPECT_LE(held, dumps) << "references of none";
}

} // namespace

oracle::Library library_of(u32 location, const Socks &socks,
			   std::vector<std::unique_ptr<oracle::Regular>> &storage)
{
	oracle::Library out;
	for (const RuleView &rule : rules_in(&lib_of(location)->regulars)) {
		storage.push_back(std::make_unique<oracle::Regular>(regular_of(rule, socks)));
		out.regulars.push_back(storage.back().get());
	}
	for (const EntryView &entry : entries_in(lib_of(location))) {
		oracle::Entry &to = out.filter_list.emplace_back();
		to.type = entry.type;
		to.value = entry.value;
		for (const RuleView &copy : entry.match)
			to.match_list.push_back(regular_of(copy, socks));
		for (const RuleView &copy : entry.local)
			to.local_match_list.push_back(regular_of(copy, socks));
	}
	return out;
}

void RestCheck::run(const Socks &socks) const
{
	verify_all();
	check_sockets(socks, dumps);
	for (u32 location = 1; location <= contract::kLibraries; location++) {
		std::vector<std::unique_ptr<oracle::Regular>> storage;
		const oracle::Library library = library_of(location, socks, storage);
		oracle::Model model;
		for (const oracle::Regular *rule : library.regulars)
			model.add(*rule);
		const std::vector<Filed> got = filed_in(library);
		const std::vector<Filed> want = filed_in(*model.library(location));
		if (!failed) {
			EXPECT_TRUE(got == want) << "keys and copies at location " << location;
			check_hooks(location, !library.regulars.empty());
			continue;
		}
		for (const Filed &filed : got)
			EXPECT_TRUE(may_be_filed(filed, library))
				<< "a copy at location " << location;
	}
	fake::audit_frames();
}

} // namespace fuzz
