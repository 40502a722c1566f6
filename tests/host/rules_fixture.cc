// SPDX-License-Identifier: GPL-2.0-only
#include "rules_fixture.h"

#include <gtest/gtest.h>

std::vector<const list_head *> links(const list_head *head)
{
	std::vector<const list_head *> out;
	const list_head *previous = head;
	for (const list_head *at = head->next; at != head; at = at->next) {
		if (at->prev != previous || out.size() > 100000) {
			ADD_FAILURE() << "list broken at link " << out.size();
			return out;
		}
		out.push_back(at);
		previous = at;
	}
	EXPECT_EQ(head->prev, previous) << "list's tail";
	return out;
}

template <typename Record> static const Record *record(const list_head *link, size_t offset)
{
	return reinterpret_cast<const Record *>(reinterpret_cast<const char *>(link) - offset);
}

RuleView view(const packet_regular &regular)
{
	RuleView v{ regular.owner, regular.treatment, regular.location, {} };
	for (const list_head *link : links(&regular.items)) {
		auto *item = record<regular_item>(link, offsetof(regular_item, node));
		std::vector<oracle::Value> datas;
		for (const list_head *d : links(&item->datas)) {
			auto *data = record<regular_data>(d, offsetof(regular_data, node));
			EXPECT_EQ(data->type, item->type) << "datum of another type in an item";
			oracle::Value value;
			memcpy(value.data(), data->value, 8);
			datas.push_back(value);
		}
		v.items.push_back({ item->type, datas });
	}
	return v;
}

std::vector<RuleView> rules_in(const list_head *head)
{
	std::vector<RuleView> out;
	for (const list_head *link : links(head))
		out.push_back(
			view(*record<packet_regular>(link, offsetof(packet_regular, lib_node))));
	return out;
}

std::vector<EntryView> entries_in(const packet_regular_lib *lib)
{
	std::vector<EntryView> out;
	for (const list_head *link : links(&lib->filter_list)) {
		auto *e = record<filter_list_data>(link, offsetof(filter_list_data, node));
		EntryView v;
		v.type = e->type;
		memcpy(v.value.data(), e->value, 8);
		v.match = rules_in(&e->match_list);
		v.local = rules_in(&e->local_match_list);
		out.push_back(v);
	}
	return out;
}

static void verify_rule(const RuleView &rule)
{
	std::set<u32> types;
	for (auto &[type, datas] : rule.items) {
		EXPECT_TRUE(types.insert(type).second) << "two items of type " << type;
		for (size_t i = 0; i < datas.size(); i++)
			for (size_t j = 0; j < i; j++)
				EXPECT_FALSE(oracle::value_equal(type, &datas[i], &datas[j]))
					<< "equal data, type " << type;
	}
}

static int match_rank(u32 treatment)
{
	switch (treatment) {
	case PACKET_TRAP:
		return 0;
	case PACKET_FETCH:
		return 1;
	case PACKET_COPY:
		return 2;
	case PACKET_FETCH_LOCAL:
		return 3;
	case PACKET_COPY_LOCAL:
		return 4;
	default:
		return 5;
	}
}

static void verify_copies(const std::vector<RuleView> &copies, bool local)
{
	int rank = 0;
	for (const RuleView &copy : copies) {
		EXPECT_EQ(match_rank(copy.treatment) > 2, local) << "copy in the wrong list";
		EXPECT_GE(match_rank(copy.treatment), rank) << "copies out of treatment order";
		rank = match_rank(copy.treatment);
		EXPECT_NE(copy.treatment, 0u);
	}
}

void verify(const packet_regular_lib *lib)
{
	verify_index(lib);
	std::vector<RuleView> regulars = rules_in(&lib->regulars);
	std::vector<EntryView> entries = entries_in(lib);
	std::set<std::tuple<const void *, u32, u32>> listed;
	for (const RuleView &r : regulars) {
		verify_rule(r);
		listed.insert({ r.owner, r.treatment, r.location });
	}
	for (size_t i = 0; i < entries.size(); i++) {
		verify_copies(entries[i].match, false);
		verify_copies(entries[i].local, true);
		if (i)
			EXPECT_LE(entries[i - 1].type, entries[i].type) << "keys out of type order";
		for (size_t j = 0; j < i; j++)
			if (entries[i].type == entries[j].type)
				EXPECT_FALSE(oracle::value_equal(entries[i].type, &entries[i].value,
								 &entries[j].value))
					<< "a key twice, type " << entries[i].type;
		// Every copy belongs to a rule that is in the library.
		for (auto *list : { &entries[i].match, &entries[i].local })
			for (const RuleView &copy : *list)
				EXPECT_TRUE(
					listed.count({ copy.owner, copy.treatment, copy.location }))
					<< "copy of a rule that has left";
	}
}

void verify_all()
{
	for (u32 location = 1; location <= 8; location++)
		verify(lib_of(location));
}

oracle::Counters counters()
{
	oracle::Counters c;
	for (u32 i = 0; i < contract::kTypes; i++) {
		c.data[i] = g_regular_data_stats[i];
		c.item[i] = g_regular_item_stats[i];
	}
	c.entries = g_regular_data_stats[contract::kLiveEntries];
	c.copies = g_regular_data_stats[contract::kLiveCopies];
	c.data_failures = g_regular_data_stats[contract::kFailedAllocations];
	c.item_failures = g_regular_item_stats[contract::kFailedAllocations];
	return c;
}

regular_data *datum(u32 type, const std::vector<u8> &value)
{
	regular_data *d = mox_packet_alloc_init_data(type);
	if (d && !value.empty())
		memcpy(d->value, value.data(), value.size());
	return d;
}

Rule::Rule(u32 location, u32 treatment, s32 pid)
{
	owner_ = static_cast<mox_packet_sock *>(calloc(1, sizeof *owner_));
	owner_->pid = pid;
	packet_regular &r = owner_->regular;
	r.owner = owner_;
	r.treatment = treatment;
	r.location = location;
	list_init(&r.items);
	list_init(&r.lib_node);
}

Rule::~Rule()
{
	remove();
	mox_packet_empty_regular(&regular());
	free(owner_);
}

Rule &Rule::data(u32 type, const std::vector<u8> &value)
{
	EXPECT_EQ(mox_packet_add_data_to_regular(datum(type, value), &regular()), 0);
	return *this;
}

Rule &Rule::del(u32 type, const std::vector<u8> &value)
{
	regular_data *d = datum(type, value);
	mox_packet_del_data_from_regular(d, &regular());
	mox_packet_free_data(d);
	return *this;
}

Rule &Rule::item(u32 type)
{
	mox_packet_add_item_to_regular(mox_packet_alloc_init_item(type), &regular());
	return *this;
}

Rule &Rule::add()
{
	EXPECT_EQ(mox_packet_add_regular(&regular()), 0);
	added_ = true;
	return *this;
}

Rule &Rule::remove()
{
	if (added_)
		EXPECT_EQ(mox_packet_remove_regular(&regular()), 0);
	added_ = false;
	return *this;
}

void RulesTest::SetUp()
{
	KernelTest::SetUp();
	memset(g_regular_data_stats, 0, sizeof g_regular_data_stats);
	memset(g_regular_item_stats, 0, sizeof g_regular_item_stats);
	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
	for (packet_module *m : { &g_lev2_packet_module, &g_ipv4_packet_module,
				  &g_ipv6_packet_module, &g_wlan_packet_module })
		m->registered = 0;
	ASSERT_EQ(mox_packet_regular_init(), 0);
}

void RulesTest::TearDown()
{
	kernel().at.clear();
	if (mox_packet_regular_inited)
		for (u32 location = 1; location <= 8; location++) {
			verify(lib_of(location));
			EXPECT_EQ(lib_of(location)->regular_count, 0u);
			EXPECT_EQ(lib_of(location)->filter_count, 0u);
		}
	oracle::Counters left = counters();
	left.data_failures = left.item_failures = 0;
	EXPECT_EQ(left, oracle::Counters{}) << "rule memory left";
	mox_packet_regular_deinit();
	KernelTest::TearDown();
}
