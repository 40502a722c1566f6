// SPDX-License-Identifier: GPL-2.0-only
/*
 * mox_capture: the rules. A rule stands still while its socket is locked. It is written
 * as far as a buffer has room. Its types come in their own order, of which the first is
 * the key, and the values of a type by number: the next part goes on with the types that
 * are not written, behind the last value, whatever has changed meanwhile.
 */
#include "base/socket_record.hpp"
#include "control/capture.hpp"
#include "rules/hits.hpp"
#include "rules/ranges.hpp"
#include "rules/types.hpp"

namespace mox {
namespace {

/* Sockets that a dump for one process passes over while it holds the registry once. */
constexpr u32 kSocketsOfHold = 256;
/* Bytes of a value: four headers, type, data, hits. And of the mark that the rule goes on. */
constexpr size_t kValueSize = 4 * 4 + 4 + REGULAR_VALUE_SIZE + 8;
constexpr size_t kMoreSize = 4;

/** The item that is being written, if it is still there, or the first that is not; null at the end. */
regular_item *item_to_write(const Dump &dump, packet_regular *rule)
{
	regular_item *first = nullptr;

	for (regular_item *item : items_of(rule)) {
		if (dump.written_types & 1u << item->type)
			continue;
		if (dump.in_values && item->type == dump.type)
			return item;
		if (!first)
			first = item;
	}
	return first;
}

/** The lowest value of an item that is above key, or the lowest of all; null at the end. */
regular_data *value_behind(const regular_item *item, const ValueKey *key)
{
	regular_data *best = nullptr;

	for (regular_data *at = item->root; at;) {
		if (!key || ValueTraits<&regular_data::item>::compare(*key, at) < 0) {
			best = at;
			at = at->item.left;
		} else {
			at = at->item.right;
		}
	}
	return best;
}

/** False when there is no room for it and the mark behind it. */
bool put_value(Message &message, const regular_item *item, const regular_data *datum)
{
	if (!message.fits() || message.room() < kValueSize + kMoreSize)
		return false;
	message.nest(MOX_CAPTURE_RULE_VALUE, [&] {
		message.number(MOX_CAPTURE_VALUE_TYPE, item->type);
		const RuleType *row = rule_type(item->type);
		if (datum && row && row->width != 0)
			message.put(MOX_CAPTURE_VALUE_DATA, datum->value, row->width);
		message.number(MOX_CAPTURE_VALUE_HITS, hits_of(item, datum));
	});
	return message.fits();
}

/** Write the values behind the dump's place, as far as there is room. Whether all are written. */
bool put_values(Dump *dump, Message &message, packet_regular *rule)
{
	while (regular_item *item = item_to_write(*dump, rule)) {
		if (item->type != dump->type)
			dump->in_values = false;
		dump->type = item->type;
		ValueKey last(item->type, dump->value);
		regular_data *datum = value_behind(item, dump->in_values ? &last : nullptr);
		if (!datum && !dump->in_values) {
			if (!put_value(message, item, nullptr))
				return false;
			dump->written++;
		}
		for (; datum; datum = value_behind(item, &last)) {
			if (!put_value(message, item, datum))
				return false;
			__builtin_memcpy(dump->value, datum->value, sizeof(dump->value));
			dump->in_values = true;
			dump->written++;
			last = ValueKey(item->type, dump->value);
		}
		dump->written_types |= 1u << item->type;
		dump->in_values = false;
	}
	return true;
}

void put_place(Message &message, const rule_place &place)
{
	const u64 words[] = { __builtin_bswap64(place.high), __builtin_bswap64(place.low) };

	message.put(MOX_CAPTURE_RULE_PLACE, words, sizeof(words));
}

/** Write a rule, or its next part. False when there is more of it. */
bool put_rule(Dump *dump, sk_buff *skb, const seam_request *request, mox_packet_sock *po)
{
	SockGuard guard(sk_of(po));
	Message message(skb, request, MOX_CAPTURE_CMD_RULES);
	const bool running = rule_entered(po);
	seam_sock_identity identity;

	seam_sock_identify(sk_of(po), &identity);
	message.number(MOX_CAPTURE_RULE_COOKIE, identity.cookie);
	message.number(MOX_CAPTURE_RULE_PID, po->pid);
	message.text(MOX_CAPTURE_RULE_PROCESS, po->process, sizeof(po->process));
	message.number(MOX_CAPTURE_RULE_LOCATION, po->regular.location);
	message.number(MOX_CAPTURE_RULE_TREATMENT, po->regular.treatment);
	message.flag(MOX_CAPTURE_RULE_RUNNING, running);
	if (running)
		put_place(message, po->regular.place);
	if (!message.fits())
		return false;
	dump->written = 0;
	const bool complete = put_values(dump, message, &po->regular);
	/* A part without a value would be of no use: the next buffer has room for some. */
	if (!complete && dump->written == 0)
		return false;
	message.flag(MOX_CAPTURE_RULE_MORE, !complete);
	return message.end() && complete;
}

/** False when the dump has a socket already, so that its place stays behind that one. */
bool find_socket(void *context, mox_packet_sock *po)
{
	auto *dump = static_cast<Dump *>(context);
	seam_sock_identity identity;

	if (dump->held)
		return false;
	if (selects(dump->query, po, &identity))
		hold_socket(dump, po);
	return true;
}

/** Hold the next socket that is asked for, if there is one. */
void next_socket(Dump *dump)
{
	while (!registry_visit(&dump->place, kSocketsOfHold, find_socket, dump)) {
		if (dump->held || seam_fatal_signal_pending())
			break;
		seam_cond_resched();
	}
}

} // namespace

bool dump_rules(Dump *dump, sk_buff *skb, const seam_request *request)
{
	for (;;) {
		if (!dump->held) {
			next_socket(dump);
			dump->written_types = 0;
			dump->in_values = false;
		}
		if (!dump->held)
			return !seam_fatal_signal_pending();
		if (!put_rule(dump, skb, request, dump->held))
			return false;
		drop_socket(dump);
		seam_cond_resched();
	}
}

} // namespace mox
