// SPDX-License-Identifier: GPL-2.0-only
// Frames aimed at the rules of the reference, and the count of what they showed.
#include <algorithm>

#include "dense_fixture.h"

namespace {

u32 key_type(const oracle::Regular &rule)
{
	for (const oracle::Item &item : rule.items)
		if (item.datas.empty() || contract::may_be_key(item.type))
			return item.type;
	return contract::kTypes;
}

} // namespace

void DenseTest::count_answer(const oracle::Answer &answer, const oracle::Packet &packet, bool wlan)
{
	tally.frames++;
	tally.unwanted += answer.treatment == 0;
	if (!answer.treatment)
		return;
	tally.hits++;
	tally.answered[answer.treatment]++;
	tally.key_answered[answer.entry->type]++;
	for (const oracle::Item &item : answer.copy->items)
		tally.item_answered[item.type]++;
	const oracle::Value value = answer.entry->value.value_or(oracle::Value{});
	const u16 word = oracle::load<u16>(value.data());
	switch (answer.entry->type) {
	case PACKET_ETH_PROT_EQUAL:
		tally.wildcard_eth += word == contract::kAnyEth;
		break;
	case PACKET_SNAP_ETH_TYPE_EQUAL:
		tally.wildcard_snap += word == contract::kAnyEth;
		break;
	case PACKET_ICMPV6_TYPE_EQUAL:
		tally.icmp_zero += value[0] == 0 && packet.icmp6 == 0;
		break;
	case PACKET_ARP_TYPE:
		tally.arp_narrow += !wlan && word > 255;
		break;
	default:
		break;
	}
}

void DenseTest::count_offers(u32 where, const std::vector<int> &offered)
{
	for (int id : offered) {
		const oracle::Regular &rule = rule_of(id);
		const u32 key = key_type(rule);
		tally.offers++;
		tally.offered[rule.treatment]++;
		tally.offered_at[rule.location]++;
		for (const oracle::Item &item : rule.items)
			(item.type == key ? tally.key_offered : tally.item_offered)[item.type]++;
	}
	if (where != PACKET_WLAN_LOC && !offered.empty())
		tally.trap_ends += rule_of(offered.back()).treatment == PACKET_TRAP;
}

// What the hook answers, what it takes and what it clones; the thread delivers.
void DenseTest::through_hook(const HookTraits &h, void *efbuff, u32 treatment)
{
	const bool taken_over = treatment == PACKET_FETCH ||
				(treatment == PACKET_TRAP && h.location != PACKET_WLAN_LOC);
	const bool copied = treatment != PACKET_TREATMENT_NONE && !taken_over;
	const uint64_t clones = efmp().clones;
	EXPECT_EQ(hook(h.func, efbuff, below(2)), taken_over ? h.taken : h.go_on);
	EXPECT_EQ(efmp().clones - clones, copied ? 1u : 0u);
	if (!taken_over)
		efmp().drop(efbuff);
	if (treatment != PACKET_TREATMENT_NONE)
		drain();
}

// The filter's answer alone; then delivery of the frame, wanted by the filter or not.
u32 DenseTest::filter_and_deliver(const HookTraits &h, void *efbuff)
{
	u32 treatment, budget = kDrainBudget;
	efbuff_queue *queue = &g_cpu_pkt_que[0][h.queue];
	const bool few = h.lib->regular_count <= 64;
	kernel().bh_disabled++; // as a hook
	seam_read_lock(&h.lib->lock);
	if (h.location == PACKET_WLAN_LOC) {
		pkt_wlan_info info;
		pkt_wlan_info_build(efbuff, &info);
		treatment = pkt_wlan_fast_filter(&info);
		if (few)
			verify_digests(info, h.lib);
	} else {
		pkt_info info;
		pkt_info_build(efbuff, &info);
		treatment = pkt_fast_filter(&info, h.lib);
		if (few)
			verify_digests(info, h.lib);
	}
	seam_read_unlock(&h.lib->lock);
	kernel().bh_disabled--;
	packets::enqueue(queue, efbuff);
	if (h.location == PACKET_WLAN_LOC)
		mox_packet_deal_regular_lib_wlan_pkt(h.lib, queue, &budget);
	else
		mox_packet_deal_regular_lib_pkt(h.location, h.lib, queue, &budget);
	return treatment;
}

void DenseTest::frame()
{
	const int target = below(socks.size());
	if (!there(target) || !reference.model.library(rule_of(target).location))
		return;
	const oracle::Regular &rule = rule_of(target);
	u32 where = rule.location;
	oracle::AimedFrame aimed = oracle::any_frame(rng);
	for (const oracle::Item &item : rule.items)
		satisfy(aimed, item, rng);
	const bool broken = !rule.items.empty() && below(2);
	if (broken)
		spoil(aimed, rule.items[below(rule.items.size())], rng);
	const u32 blocks[] = { 0, interfaces[7], reference.world.lev2_block,
			       reference.world.lev3_block };
	aimed.meta.dest = blocks[below(std::size(blocks))];
	if (where > PACKET_WLAN_LOC && below(4))
		aimed.meta.dest = where == PACKET_LEV2_RESV_LOC ? reference.world.lev2_block
								: reference.world.lev3_block;
	if (where > PACKET_WLAN_LOC)
		where = PACKET_RESV_LOC;
	const auto source = interfaces.find(aimed.ifindex);
	aimed.meta.source = source != interfaces.end() ? source->second : interfaces[7];
	Bytes bytes = aimed.bytes();
	if (aimed.meta.l2_len == 0)
		bytes.erase(bytes.begin(), bytes.begin() + oracle::AimedFrame::kL2Len);
	const u32 total = bytes.size();
	const Bytes content = oracle::efbuff(aimed.meta, bytes);
	const u32 ifindex = source != interfaces.end() ? aimed.ifindex : 7;

	// The reference first: what it reads, answers and delivers.
	const bool wlan = where == PACKET_WLAN_LOC;
	const oracle::Library &lib = *reference.model.library(where);
	oracle::Packet packet;
	oracle::WlanPacket wlan_packet;
	if (wlan)
		wlan_packet = oracle::parse_wlan(content.data(), ifindex);
	else
		packet = oracle::parse(content.data(), ifindex);
	const oracle::Answer answer = wlan ? wlan_fast_answer(wlan_packet, lib, reference.world)
					   : fast_answer(packet, lib, reference.world);
	count_answer(answer, packet, wlan);
	const bool matched = rule.treatment != 0 &&
			     (wlan ? wlan_rule_match(wlan_packet, rule) : rule_match(packet, rule));
	(broken ? (matched ? tally.aimed_passed : tally.aimed_missed)
		: tally.aimed_whole) += broken || matched;
	tally.other_vsd += matched && vsd[target];
	tally.closed_location += matched && !wlan &&
				 !location_open(rule.location, packet, reference.world);
	for (size_t i = 1; i < rule.items.size(); i++)
		tally.dataless_item += rule.items[i].datas.empty() &&
				       contract::width(rule.items[i].type) != 0;

	const bool by_hook = below(2);
	const HookTraits &h = kHooks[where - 1 + (wlan && below(2))];
	std::vector<int> offered;
	ready.clear();
	if (by_hook) {
		if (answer.treatment)
			offered = wlan ? reference.deliver_wlan(wlan_packet, total,
								aimed.meta.l2_len)
				       : reference.deliver(where, packet, total, aimed.meta.l2_len);
		through_hook(h, efmp().efbuff(content), answer.treatment);
	} else {
		offered = wlan ? reference.deliver_wlan(wlan_packet, total, aimed.meta.l2_len)
			       : reference.deliver(where, packet, total, aimed.meta.l2_len);
		EXPECT_EQ(filter_and_deliver(h, efmp().efbuff(content, fake::Owner::kModule)),
			  answer.treatment);
	}
	count_offers(where, offered);
	EXPECT_TRUE(efmp().live.empty());

	// Who was offered the frame, in order; each reads what it got.
	size_t kept = 0;
	bool same = true;
	for (int id : offered) {
		oracle::Socket &s = reference.at(id);
		if (s.queue.empty())
			continue; // no memory for the buffer
		same = same && kept < ready.size() && ready[kept] == socks[id]->sk;
		kept++;
		const oracle::Received want = s.queue.front();
		s.queue.pop_front();
		s.rmem -= want.truesize;
		if (!same || socks[id]->queued() != 1)
			continue;
		msghdr msg;
		u8 name[128];
		msg.name = name;
		same = mox_packet_recvmsg(&socks[id]->socket, &msg, 65536, 0) == int(want.length);
	}
	EXPECT_TRUE(same && kept == ready.size())
		<< "sockets that got the frame, their order, or its length; " << ready.size()
		<< " sockets, not " << kept;
}

// What has not happened, or not often enough for its absence to mean nothing.
std::string DenseTest::missing() const
{
	std::string out;
	auto want = [&](u32 happened, const std::string &what, u32 at_least = 1) {
		if (happened < at_least)
			out += what + "; ";
	};
	const u32 some = 1 + tally.frames / 50;
	want(tally.frames, "frames", shape.steps);
	want(tally.hits, "wanted frames", some);
	want(tally.unwanted, "unwanted frames", some);
	want(tally.offers, "offers", some);
	want(tally.aimed_whole, "frames that satisfy their rule", some);
	want(tally.aimed_missed, "frames that miss their rule by one condition", some);
	want(tally.aimed_passed, "frames that pass with one condition broken");
	want(tally.toggles, "toggled rules");
	want(tally.trap_ends, "trap ends a delivery");
	want(tally.other_vsd, "rule of another vsd that matches");
	want(tally.wildcard_eth, "EtherType wildcard answers");
	for (u32 treatment = PACKET_COPY; treatment <= PACKET_TRAP; treatment++)
		want(tally.answered[treatment], "answer " + std::to_string(treatment));
	if (shape.stray_keys) {
		want(tally.stray_key, "key that withdrawal leaves");
		return out;
	}
	want(tally.crowded_entry, "key with three copies");
	// Among many rules another one often answers first.
	const bool few = shape.spread == 1;
	want(few ? tally.wildcard_snap : 1, "SNAP wildcard answers");
	want(few ? tally.icmp_zero : 1, "ICMPv6 type 0 as a key answers");
	want(few ? tally.arp_narrow : 1, "ARP value above 255 as a key answers");
	want(tally.closed_location, "rule of a location that does not see the frame");
	want(tally.two_lists, "key with copies in both lists");
	want(tally.kept_empty, "key without copies");
	want(tally.fetch_behind_traps, "fetch rule behind traps");
	want(tally.fetch_before_traps, "fetch rule before a trap");
	if (!shape.failing)
		want(tally.dataless_item, "frame for a rule with an item without data");
	for (u32 treatment = 0; treatment < contract::kTreatments; treatment++) {
		const std::string n = std::to_string(treatment);
		want(tally.filed[treatment], "filed with treatment " + n);
		want(treatment ? tally.offered[treatment] : 1, "offered by treatment " + n);
	}
	for (u32 type = 0; type < contract::kTypes; type++) {
		const std::string n = std::to_string(type);
		if (contract::may_be_key(type)) {
			want(tally.key_answered[type], "answer by key of type " + n);
			want(tally.key_offered[type], "offer by key of type " + n);
		}
		want(few ? tally.item_answered[type] : 1, "answer with further item of type " + n);
		want(tally.item_offered[type], "offer with further item of type " + n);
	}
	if (shape.failing) {
		want(reference.model.counters.data_failures, "failed data, key or copy");
		want(reference.model.counters.item_failures, "failed item");
		want(reference.skb_failures, "failed buffer");
	}
	return out;
}
