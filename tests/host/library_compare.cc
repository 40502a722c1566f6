// SPDX-License-Identifier: GPL-2.0-only
#include "library_compare.h"

#include <algorithm>
#include <sstream>

namespace {

// Walks a list beside a vector: same(link, element) for each pair, and both ends at once.
template <typename Vector, typename Same>
bool beside(const list_head &head, const Vector &want, Same same)
{
	const list_head *previous = &head, *at = head.next;
	for (const auto &element : want) {
		if (at == &head || at->prev != previous || !same(at, element))
			return false;
		previous = at;
		at = at->next;
	}
	return at == &head && head.prev == previous;
}

template <typename Record> const Record &record(const list_head *link, size_t offset)
{
	return *reinterpret_cast<const Record *>(reinterpret_cast<const char *>(link) - offset);
}

bool same_copies(const list_head &got, const std::vector<oracle::Regular> &want,
		 const Owners &owners)
{
	return beside(got, want, [&](const list_head *link, const oracle::Regular &copy) {
		return same_rule(record<packet_regular>(link, offsetof(packet_regular, lib_node)),
				 copy, owners);
	});
}

std::ostream &operator<<(std::ostream &out, const oracle::Value &value)
{
	char text[24], *at = text;
	for (uint8_t byte : value)
		at += sprintf(at, "%02x", byte);
	return out << text;
}

using Items = std::vector<std::pair<u32, std::vector<oracle::Value>>>;

void print_rule(std::ostream &out, int owner, u32 treatment, u32 location, const Items &items)
{
	out << "socket " << owner << " treatment " << treatment << " location " << location;
	for (auto &[type, datas] : items) {
		out << "; type " << type << ":";
		for (const oracle::Value &value : datas)
			out << " " << value;
	}
	out << "\n";
}

void print_rule(std::ostream &out, const oracle::Regular &rule)
{
	Items items;
	for (const oracle::Item &item : rule.items)
		items.push_back({ item.type, item.datas });
	print_rule(out, rule.owner, rule.treatment, rule.location, items);
}

void print_rule(std::ostream &out, const RuleView &rule, const Owners &owners)
{
	const auto at = std::find(owners.begin(), owners.end(), rule.owner);
	print_rule(out, at == owners.end() ? -1 : int(at - owners.begin()), rule.treatment,
		   rule.location, rule.items);
}

} // namespace

bool same_rule(const packet_regular &got, const oracle::Regular &want, const Owners &owners)
{
	if (got.owner != owners[want.owner] || got.treatment != want.treatment ||
	    got.location != want.location)
		return false;
	return beside(got.items, want.items, [&](const list_head *link, const oracle::Item &w) {
		const auto &item = record<regular_item>(link, offsetof(regular_item, node));
		return item.type == w.type &&
		       beside(item.datas, w.datas,
			      [&](const list_head *at, const oracle::Value &value) {
				      const auto &datum = record<regular_data>(
					      at, offsetof(regular_data, node));
				      return datum.type == w.type &&
					     memcmp(datum.value, value.data(), 8) == 0;
			      });
	});
}

bool same_library(const packet_regular_lib &got, const oracle::Library &want, const Owners &owners)
{
	if (got.regular_count != want.regulars.size() ||
	    got.filter_count != want.filter_list.size())
		return false;
	const bool same_rules = beside(
		got.regulars, want.regulars, [&](const list_head *link, const oracle::Regular *r) {
			return same_rule(record<packet_regular>(link,
								offsetof(packet_regular, lib_node)),
					 *r, owners);
		});
	return same_rules &&
	       beside(got.filter_list, want.filter_list,
		      [&](const list_head *link, const oracle::Entry &w) {
			      const auto &entry = record<filter_list_data>(
				      link, offsetof(filter_list_data, node));
			      const oracle::Value value = w.value.value_or(oracle::Value{});
			      return entry.type == w.type &&
				     memcmp(entry.value, value.data(), 8) == 0 &&
				     same_copies(entry.match_list, w.match_list, owners) &&
				     same_copies(entry.local_match_list, w.local_match_list,
						 owners);
		      });
}

std::string text_of(const packet_regular_lib &lib, const Owners &owners)
{
	std::ostringstream out;
	out << lib.regular_count << " rules\n";
	for (const RuleView &rule : rules_in(&lib.regulars))
		print_rule(out, rule, owners);
	out << lib.filter_count << " keys\n";
	for (const EntryView &entry : entries_in(&lib)) {
		out << "key type " << entry.type << " " << entry.value << "\n";
		for (const RuleView &copy : entry.match)
			print_rule(out << "  ", copy, owners);
		for (const RuleView &copy : entry.local)
			print_rule(out << "  local ", copy, owners);
	}
	return out.str();
}

std::string text_of(const oracle::Library &lib)
{
	std::ostringstream out;
	out << lib.regulars.size() << " rules\n";
	for (const oracle::Regular *rule : lib.regulars)
		print_rule(out, *rule);
	out << lib.filter_list.size() << " keys\n";
	for (const oracle::Entry &entry : lib.filter_list) {
		out << "key type " << entry.type << " " << entry.value.value_or(oracle::Value{})
		    << "\n";
		for (const oracle::Regular &copy : entry.match_list)
			print_rule(out << "  ", copy);
		for (const oracle::Regular &copy : entry.local_match_list)
			print_rule(out << "  local ", copy);
	}
	return out.str();
}
