// SPDX-License-Identifier: GPL-2.0-only
// Random changes of rules, the same on both sides.
#include "dense_fixture.h"

#include <algorithm>

using oracle::be16;

namespace {

Bytes raw16(u16 word)
{
	return { u8(word), u8(word >> 8) };
}

// An item without data that no process can make. As a key it has faults of its own: withdrawal
// does not find a valued type's key again, and of the other types it takes an item with data and
// one without for different conditions, which both file under the same key.
bool hollow(const oracle::Item &item)
{
	return item.datas.empty() && item.type != PACKET_ALL;
}

// Whether filing never reaches what is appended to the rule.
bool keyed(const oracle::Regular &rule)
{
	for (const oracle::Item &item : rule.items)
		if (item.datas.empty() ? !hollow(item) : contract::may_be_key(item.type))
			return true;
	return false;
}

// Sizes of the tiny ranges, and how far they may be stretched.
struct Range {
	u32 tiny, most;
};
constexpr Range kRanges[contract::kTypes] = {
	{ 4, 512 },  { 2, 4096 }, { 2, 4096 }, { 6, 4096 }, { 4, 4096 }, { 3, 200 },  { 4, 4 },
	{ 2, 4096 }, { 2, 4096 }, { 2, 4096 }, { 2, 256 },  { 3, 200 },  { 1, 1 },    { 1, 1 },
	{ 4, 200 },  { 2, 200 },  { 1, 1 },    { 3, 4096 }, { 1, 1 },    { 4, 4096 },
};

} // namespace
void DenseTest::prepare(const Shape &given_shape)
{
	shape = given_shape;
	socks.resize(shape.rules);
	owners.resize(shape.rules);
	vsd.resize(shape.rules);
	new_fashion();
	const Range &range = kRanges[PACKET_SRC_INTF_EQUAL];
	for (u32 i = 0; i < std::min(range.most, range.tiny * shape.spread); i++) {
		const u8 mac[6] = { 2, 0, 0, 0, u8(i >> 8), u8(i) };
		interfaces[7 + i] = fake::word(efmp().add_interface(7 + i, "eth", mac));
	}
}

// ---- random parts of a rule

u32 DenseTest::value_index(u32 type)
{
	const Range &range = kRanges[type];
	if (shape.spread == 1 || below(8) == 0) {
		const u32 k = below(range.tiny);
		// Where rules are many, few of those that nearly every frame matches.
		const u32 rarity = shape.spread / (type == PACKET_ICMPV6_TYPE_EQUAL ? 2 : 8);
		return k == 0 && shape.spread > 1 && below(rarity) ? range.tiny - 1 : k;
	}
	return below(std::min(range.most, range.tiny * shape.spread));
}

Bytes DenseTest::element(u32 type)
{
	if (type >= contract::kTypes)
		return {};
	const u32 k = value_index(type);
	switch (type) {
	case PACKET_PACKET_CODE_EQUAL:
		return { u8(k & 1), u8(k >> 1) };
	case PACKET_DEST_MAC_EQUAL:
	case PACKET_SRC_MAC_EQUAL:
		return { 2, 0, 0, 0, u8((k + 1) >> 8), u8(k + 1) };
	case PACKET_ETH_PROT_EQUAL: {
		// The wildcard, and its bytes the other way round, which are none.
		if (home == PACKET_WLAN_LOC && shape.spread == 1 && below(3) == 0)
			return raw16(contract::kAnyEth); // goes with every other condition
		const Bytes tiny[] = { raw16(contract::kAnyEth),
				       be16(contract::kAnyEth),
				       be16(0x0800),
				       be16(0x86dd),
				       be16(0x888e),
				       be16(0x0806) };
		return k < std::size(tiny) ? tiny[k] : be16(0x9000 + k);
	}
	case PACKET_SNAP_ETH_TYPE_EQUAL: {
		const Bytes tiny[] = { raw16(contract::kAnyEth), be16(contract::kAnyEth), raw16(1),
				       raw16(257) };
		return k < std::size(tiny) ? tiny[k] : raw16(0x2000 + k);
	}
	case PACKET_IPv4_PROT_EQUAL: {
		const u8 tiny[] = { 6, 17, 2 };
		return { k < std::size(tiny) ? tiny[k] : u8(k + 20) };
	}
	case PACKET_IPv6_PROT_EQUAL: {
		const u8 tiny[] = { 6, 17, 58, 103 };
		return { tiny[k] };
	}
	case PACKET_IPv4_DEST_PORT_EQUAL:
	case PACKET_IPv4_SRC_PORT_EQUAL:
	case PACKET_IPv6_DEST_PORT_EQUAL:
		return be16(k + 1);
	case PACKET_SRC_INTF_EQUAL:
		return u32_bytes(7 + k);
	case PACKET_ICMPV6_TYPE_EQUAL: {
		const u8 tiny[] = { 0, 130, 135 };
		return { k < std::size(tiny) ? tiny[k] : u8(k) };
	}
	case PACKET_EAPOL_TYPE_EQUAL:
		return { k == 3 ? u8(0xaa) : u8(k) }; // 0xaa: with LLC bytes, too
	case PACKET_EAPOL_TYPE_WPS:
		return { u8(k) };
	case PACKET_PID_T: {
		const u32 tiny[] = { 0, 1, 0xffffffff };
		return u32_bytes(k < std::size(tiny) ? tiny[k] : k);
	}
	case PACKET_ARP_TYPE: {
		const u16 tiny[] = { 1, 2, 257, 256 };
		return raw16(k < std::size(tiny) ? tiny[k] : 0x300 + k);
	}
	default:
		return {};
	}
}

// Every so often another location is crowded, with rules of a few other types.
void DenseTest::new_fashion()
{
	const u32 homes[] = {
		2, 3, 4, PACKET_RESV_LOC, PACKET_RESV_LOC, PACKET_WLAN_LOC, PACKET_WLAN_LOC
	};
	home = homes[fashions % std::size(homes)];
	for (u32 &type : favourites)
		type = some_type(home);
	// Each type has its turn.
	favourites[0] = fashions++ % contract::kTypes;
}

// Those that the WLAN location compares at all, more often there.
u32 DenseTest::some_type(u32 where)
{
	const u32 wlan[] = { 3, 3, 14, 15, 15, 16, 16, 17, 18, 18 };
	const u32 type = where == PACKET_WLAN_LOC && below(4) ? wlan[below(std::size(wlan))]
							      : below(contract::kTypes);
	// One rule for every frame is enough to leave none unwanted.
	return type == PACKET_ALL && shape.spread > 1 && below(shape.spread / 2)
		       ? u32(PACKET_SRC_MAC_EQUAL)
		       : type;
}

u32 DenseTest::rule_type(int id)
{
	if (below(60) == 0)
		return contract::kTypes; // refused
	// A management frame satisfies hardly any other condition beside these.
	const oracle::Regular &rule = rule_of(id);
	if (rule.location == PACKET_WLAN_LOC && rule.items.size() == 1 && below(3) == 0 &&
	    (rule.items[0].type == PACKET_ALL || rule.items[0].type == PACKET_PID_T))
		return PACKET_WLAN_MGNT;
	if (below(2))
		return favourites[below(favourites.size())];
	return some_type(rule_of(id).location);
}

u32 DenseTest::location()
{
	if (below(4)) {
		const u32 reserved[] = { PACKET_RESV_LOC, PACKET_LEV2_RESV_LOC,
					 PACKET_LEV3_RESV_LOC };
		return home == PACKET_RESV_LOC ? reserved[below(std::size(reserved))] : home;
	}
	const u32 some[] = { 2, 3, 4, 7, 9, 10, 8, 1, below(2) ? 0u : 11u };
	return some[below(std::size(some))];
}

// ---- changes

void DenseTest::create(int id)
{
	socks[id] = std::make_unique<Sock>();
	const int type = below(2) ? kRaw : kDgram;
	const int got = socks[id]->create(type, 0);
	EXPECT_EQ(got, reference.create(id, type, 0));
	owners[id] = &socks[id]->po();
	// No process opens a socket inside a vsd; filters and delivery look all the same.
	vsd[id] = reference.at(id).vsd = socks[id]->po().vsd = below(8) == 0;
	if (below(8)) {
		set_treatment(id, 1 + below(shape.stray_keys ? 3 : 5));
		set_location(id, location());
		add_type(id);
		if (below(2))
			add_type(id);
	}
}

void DenseTest::release(int id)
{
	EXPECT_EQ(socks[id]->release(), 0);
	socks[id].reset();
	owners[id] = nullptr;
	reference.release(id);
}

void DenseTest::set_treatment(int id, u32 treatment)
{
	const oracle::Library *lib = reference.model.library(rule_of(id).location);
	EXPECT_EQ(socks[id]->set(PACKET_TREATMENT, treatment),
		  reference.set_treatment(id, treatment));
	tally.filed[treatment]++;
	if (treatment != PACKET_FETCH || !lib)
		return;
	// It goes behind the leading run of traps, which a fetch-local rule at the head cuts off.
	const auto &list = lib->regulars;
	const auto at = std::find(list.begin(), list.end(), &rule_of(id));
	if (at == list.end())
		return;
	auto is_trap = [](const oracle::Regular *r) { return r->treatment == PACKET_TRAP; };
	tally.fetch_behind_traps += at != list.begin() && std::all_of(list.begin(), at, is_trap);
	tally.fetch_before_traps += std::any_of(at, list.end(), is_trap);
}

void DenseTest::set_location(int id, u32 where)
{
	for (u32 location : { rule_of(id).location, where })
		if (const int library = contract::library(location); library >= 0)
			changed.set(library);
	EXPECT_EQ(socks[id]->set(PACKET_LOCATION, where), reference.set_location(id, where));
}

void DenseTest::add_type(int id)
{
	const u32 type = rule_type(id), count = below(12) ? 1 + below(2) : below(5);
	Bytes elements;
	for (u32 i = 0; i < count; i++)
		elements = elements + element(type);
	EXPECT_EQ(socks[id]->rule(true, type, count, elements, 0),
		  reference.add_rule(id, type, count, elements));
}

// All data of an item, or one of them; or a value that may not be there.
void DenseTest::del_type(int id)
{
	if (!shape.stray_keys)
		strip_dataless(id);
	const oracle::Regular &rule = rule_of(id);
	u32 type = rule_type(id), count = 1;
	Bytes elements = element(type);
	if (!rule.items.empty() && below(6)) {
		const oracle::Item &item = rule.items[below(rule.items.size())];
		type = item.type;
		const u32 stride = contract::width(type), all = item.datas.size();
		count = below(3) ? all : std::min(1u, all);
		elements.clear();
		for (u32 i = 0; i < count; i++) {
			const oracle::Value &v = item.datas[count == all ? i : below(all)];
			elements.insert(elements.end(), v.begin(), v.begin() + stride);
		}
	}
	EXPECT_EQ(socks[id]->rule(false, type, count, elements, 0),
		  reference.del_rule(id, type, count, elements));
}

void DenseTest::edit(int id)
{
	// Few conditions a rule, or no frame would ever satisfy them all.
	if (rule_of(id).items.size() > below(4))
		del_type(id);
	else
		add_type(id);
}

void DenseTest::bind(int id)
{
	const u16 protocol = below(3) ? 0 : __builtin_bswap16(below(2) ? 0x0800 : 0x86dd);
	const u32 ifindex = 7 + below(2);
	EXPECT_EQ(socks[id]->bind(ifindex, protocol), reference.bind(id, ifindex, protocol));
}

// Out and in again, many times.
void DenseTest::toggle(int id)
{
	const u32 treatment = rule_of(id).treatment;
	for (u32 left = 1 + below(shape.spread == 1 ? 20 : 4); left; left--) {
		set_treatment(id, treatment);
		tally.toggles++;
	}
}

// An item without data behind the key item, or as a key as well.
void DenseTest::add_dataless(int id)
{
	const u32 type = below(contract::kTypes);
	const oracle::Regular &rule = rule_of(id);
	// As a key, one of PACKET_PID_T could never be taken away again.
	if (type == PACKET_PID_T && shape.stray_keys)
		return;
	if (type != PACKET_ALL && !shape.stray_keys && (shape.failing || !keyed(rule)))
		return;
	for (const oracle::Item &item : rule.items)
		if (item.type == type)
			return;
	const u32 where = rule.location;
	set_location(id, PACKET_NONE_LOC);
	regular_item *item = mox_packet_alloc_init_item(type);
	const bool made = reference.model.add_empty_item(reference.at(id).regular, type);
	EXPECT_EQ(item != nullptr, made);
	if (item)
		mox_packet_add_item_to_regular(item, &socks[id]->po().regular);
	set_location(id, where);
}

void DenseTest::strip_dataless(int id)
{
	const u32 where = rule_of(id).location;
	oracle::Regular &rule = reference.at(id).regular;
	if (std::none_of(rule.items.begin(), rule.items.end(), hollow))
		return;
	set_location(id, PACKET_NONE_LOC);
	for (size_t i = rule.items.size(); i-- > 0;) {
		if (!hollow(rule.items[i]))
			continue;
		const u32 type = rule.items[i].type;
		regular_item *item = mox_packet_search_item_from_regular(type,
									 &socks[id]->po().regular);
		mox_packet_del_item(item);
		mox_packet_free_item(item);
		reference.model.del_item(rule, type);
	}
	set_location(id, where);
}

// A key that withdrawal has left holds zeros: a rule with that value finds it, and takes it
// along with all its copies when it is the last that carries the value.
void DenseTest::clean_stray_keys()
{
	for (size_t id = 0; id < socks.size(); id++)
		if (there(id))
			set_location(id, PACKET_NONE_LOC);
	const int janitor = socks.size() - 1;
	if (!there(janitor))
		create(janitor);
	set_location(janitor, PACKET_NONE_LOC);
	set_treatment(janitor, PACKET_COPY);
	for (u32 where = 1; where <= contract::kLibraries; where++) {
		if (!contract::kLocations[where].accepted)
			continue;
		const oracle::Library &lib = *reference.model.library(where);
		for (size_t left = lib.filter_list.size(); left; left--) {
			strip_dataless(janitor);
			while (!rule_of(janitor).items.empty()) {
				const oracle::Item item = rule_of(janitor).items.front();
				Bytes all;
				for (const oracle::Value &v : item.datas)
					all.insert(all.end(), v.begin(),
						   v.begin() + contract::width(item.type));
				const u32 count = item.datas.size();
				if (count == 0 && item.type != PACKET_ALL) {
					regular_item *own = mox_packet_search_item_from_regular(
						item.type, &socks[janitor]->po().regular);
					mox_packet_del_item(own);
					mox_packet_free_item(own);
					reference.model.del_item(reference.at(janitor).regular,
								 item.type);
					continue;
				}
				socks[janitor]->rule(false, item.type, count, all, 0);
				reference.del_rule(janitor, item.type, count, all);
			}
			const u32 type = lib.filter_list.front().type;
			const Bytes zeros(contract::width(type), 0);
			EXPECT_EQ(socks[janitor]->rule(true, type, 1, zeros, 0),
				  reference.add_rule(janitor, type, 1, zeros));
			set_location(janitor, where);
			set_location(janitor, PACKET_NONE_LOC);
		}
		EXPECT_EQ(lib_of(where)->filter_count, lib.filter_list.size());
		EXPECT_EQ(lib_of(where)->filter_count, 0u) << "location " << where;
	}
}

void DenseTest::step()
{
	const int id = below(socks.size());
	if (!there(id))
		return create(id);
	if (const int library = contract::library(rule_of(id).location); library >= 0)
		changed.set(library);
	const u32 what = below(100);
	if (what < 3) {
		if (!shape.stray_keys)
			release(id);
	} else if (what < 50) {
		edit(id);
	} else if (what < 66) {
		set_treatment(id, shape.stray_keys ? 1 + below(3) : below(10) ? 1 + below(5) : 0);
	} else if (what < 78) {
		set_location(id, location());
	} else if (what < 84) {
		toggle(id);
	} else if (what < 88) {
		bind(id);
	} else if (what < 94) {
		add_dataless(id);
	} else if (what < 96) {
		strip_dataless(id);
	}
}
