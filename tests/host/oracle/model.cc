// SPDX-License-Identifier: GPL-2.0-only
#include "model.h"

#include <algorithm>
#include <cerrno>

#include "contract/locations.h"

namespace oracle {
namespace {

bool indexed(uint32_t treatment)
{
	return treatment != kNone && treatment < contract::kTreatments;
}
bool is_local(uint32_t treatment)
{
	return treatment == kCopyLocal || treatment == kFetchLocal;
}

const Item *first_item(const Regular &regular, uint32_t type)
{
	for (const Item &item : regular.items)
		if (item.type == type)
			return &item;
	return nullptr;
}

bool item_in_library(const Library &library, uint32_t type)
{
	for (const Regular *r : library.regulars)
		if (indexed(r->treatment) && first_item(*r, type))
			return true;
	return false;
}

bool data_in_library(const Library &library, uint32_t type, const Value &value)
{
	for (const Regular *r : library.regulars) {
		if (!indexed(r->treatment))
			continue;
		const Item *item = first_item(*r, type);
		if (!item)
			continue;
		for (const Value &v : item->datas)
			if (value_equal(type, &v, &value))
				return true;
	}
	return false;
}

template <typename List, typename IsTrap> auto after_leading_traps(List &list, IsTrap is_trap)
{
	return std::find_if_not(list.begin(), list.end(), is_trap);
}

} // namespace

Library *Model::library(uint32_t location)
{
	const int library = contract::library(location);
	return library < 0 ? nullptr : &libraries_[library];
}

bool Model::module_registered(const std::string &name) const
{
	auto it = modules_.find(name);
	return it != modules_.end() && it->second;
}

bool Model::take(Cache cache, uint32_t type)
{
	if (!allocation(cache)) {
		(cache == Cache::kItem ? counters.item_failures : counters.data_failures)++;
		return false;
	}
	switch (cache) {
	case Cache::kData:
		counters.data[type]++;
		break;
	case Cache::kItem:
		counters.item[type]++;
		break;
	case Cache::kEntry:
		counters.entries++;
		break;
	case Cache::kCopy:
		counters.copies++;
		break;
	}
	return true;
}

int Model::add(const Regular &regular)
{
	Library *lib = library(regular.location);
	if (!lib)
		return -1;
	insert(regular, *lib);
	set_hook(regular.location, !lib->regulars.empty());
	return 0;
}

int Model::remove(const Regular &regular)
{
	Library *lib = library(regular.location);
	if (!lib)
		return -1;
	withdraw(regular, *lib);
	set_hook(regular.location, !lib->regulars.empty());
	return 0;
}

void Model::insert(const Regular &regular, Library &lib)
{
	auto &regs = lib.regulars;
	if (std::find(regs.begin(), regs.end(), &regular) != regs.end())
		return;
	switch (regular.treatment) {
	case kFetchLocal:
	case kTrap:
		regs.insert(regs.begin(), &regular);
		break;
	case kCopy:
	case kCopyLocal:
	case kNone:
		regs.push_back(&regular);
		break;
	default:
		regs.insert(after_leading_traps(
				    regs, [](const Regular *r) { return r->treatment == kTrap; }),
			    &regular);
	}
	if (!indexed(regular.treatment))
		return;

	for (const Item &item : regular.items) {
		if (item.datas.empty()) {
			Entry *entry = find_entry(lib, item.type, nullptr);
			if (!entry)
				entry = new_entry(lib, item.type, nullptr);
			if (!entry)
				continue;
			file_copy(*entry, regular);
			return;
		}
		if (!contract::may_be_key(item.type))
			continue;
		for (const Value &value : item.datas) {
			Entry *entry = find_entry(lib, item.type, &value);
			if (!entry)
				entry = new_entry(lib, item.type, &value);
			if (entry)
				file_copy(*entry, regular);
		}
		return;
	}
}

Entry *Model::find_entry(Library &lib, uint32_t type, const Value *value)
{
	// A key without a value holds zeros, which a value of zeros equals.
	for (Entry &e : lib.filter_list) {
		if (e.type != type)
			continue;
		const Value stored = e.value.value_or(Value{});
		if (value_equal(type, &stored, value))
			return &e;
	}
	return nullptr;
}

Entry *Model::new_entry(Library &lib, uint32_t type, const Value *value)
{
	if (!take(Cache::kEntry))
		return nullptr;
	Entry entry;
	entry.type = type;
	if (value)
		entry.value = *value;
	auto at = std::find_if(lib.filter_list.begin(), lib.filter_list.end(),
			       [&](const Entry &e) { return e.type > type; });
	return &*lib.filter_list.insert(at, entry);
}

void Model::file_copy(Entry &entry, const Regular &regular)
{
	if (!take(Cache::kCopy))
		return;
	Regular copy;
	copy.owner = regular.owner;
	copy.treatment = regular.treatment;
	copy.location = regular.location;
	bool key_left_out = false;
	for (const Item &item : regular.items) {
		if (contract::may_be_key(item.type) && !key_left_out) {
			key_left_out = true;
			continue;
		}
		if (!take(Cache::kItem, item.type))
			continue;
		Item clone;
		clone.type = item.type;
		for (const Value &v : item.datas)
			if (take(Cache::kData, item.type))
				clone.datas.push_back(v);
		copy.items.push_back(clone);
	}
	auto &match = entry.match_list;
	auto &local = entry.local_match_list;
	switch (regular.treatment) {
	case kCopy:
		match.push_back(copy);
		break;
	case kTrap:
		match.insert(match.begin(), copy);
		break;
	case kFetch:
		match.insert(after_leading_traps(
				     match, [](const Regular &r) { return r.treatment == kTrap; }),
			     copy);
		break;
	case kCopyLocal:
		local.push_back(copy);
		break;
	case kFetchLocal:
		local.insert(local.begin(), copy);
		break;
	}
}

void Model::drop_copies(std::vector<Regular> &list,
			const std::function<bool(const Regular &)> &which)
{
	for (size_t i = 0; i < list.size();) {
		if (!which(list[i])) {
			i++;
			continue;
		}
		counters.copies--;
		empty(list[i]);
		list.erase(list.begin() + i);
	}
}

void Model::withdraw(const Regular &regular, Library &lib)
{
	auto &regs = lib.regulars;
	regs.erase(std::find(regs.begin(), regs.end(), &regular));
	for (const Item &item : regular.items) {
		if (item.datas.empty()) {
			drop_key(lib, regular, item.type, nullptr, item_in_library(lib, item.type));
			continue;
		}
		if (!contract::may_be_key(item.type))
			continue;
		for (const Value &v : item.datas)
			drop_key(lib, regular, item.type, &v, data_in_library(lib, item.type, v));
	}
}

void Model::drop_key(Library &lib, const Regular &gone, uint32_t type, const Value *value,
		     bool still_wanted)
{
	Entry *entry = find_entry(lib, type, value);
	if (!entry)
		return;
	auto &list = is_local(gone.treatment) ? entry->local_match_list : entry->match_list;
	if (still_wanted) {
		drop_copies(list, [&](const Regular &copy) { return copy.owner == gone.owner; });
		return;
	}
	drop_copies(list, [](const Regular &) { return true; });
	lib.filter_list.erase(lib.filter_list.begin() + (entry - lib.filter_list.data()));
	counters.entries--;
}

bool Model::take_data(uint32_t type)
{
	return take(Cache::kData, type);
}
void Model::drop_data(uint32_t type)
{
	counters.data[type]--;
}

int Model::add_data(Regular &regular, uint32_t type, const Value &value)
{
	for (Item &item : regular.items) {
		if (item.type != type)
			continue;
		for (const Value &v : item.datas)
			if (value_equal(type, &v, &value)) {
				drop_data(type);
				return 0;
			}
		item.datas.push_back(value);
		return 0;
	}
	if (!take(Cache::kItem, type))
		return -ENOMEM;
	regular.items.push_back(Item{ type, { value } });
	return 0;
}

void Model::del_data(Regular &regular, uint32_t type, const Value &value)
{
	for (size_t i = 0; i < regular.items.size(); i++) {
		Item &item = regular.items[i];
		if (item.type != type)
			continue;
		// An item that never had a datum stays: only its last datum takes it along.
		for (size_t j = 0; j < item.datas.size(); j++) {
			if (!value_equal(type, &item.datas[j], &value))
				continue;
			item.datas.erase(item.datas.begin() + j);
			drop_data(type);
			if (item.datas.empty())
				del_item(regular, type);
			return;
		}
		return;
	}
}

bool Model::add_empty_item(Regular &regular, uint32_t type)
{
	if (first_item(regular, type))
		return true;
	if (!take(Cache::kItem, type))
		return false;
	regular.items.push_back(Item{ type, {} });
	return true;
}

void Model::del_item(Regular &regular, uint32_t type)
{
	for (size_t i = 0; i < regular.items.size(); i++)
		if (regular.items[i].type == type) {
			counters.data[type] -= regular.items[i].datas.size();
			counters.item[type]--;
			regular.items.erase(regular.items.begin() + i);
			return;
		}
}

void Model::empty(Regular &regular)
{
	while (!regular.items.empty())
		del_item(regular, regular.items.front().type);
}

// A module record is registered once; a function each time.
void Model::set_hook(uint32_t location, bool wanted)
{
	for (const contract::Hook &hook : contract::hooks(location)) {
		if (!hook.call)
			continue;
		if (hook.record && modules_[hook.name] == wanted)
			continue;
		calls.push_back({ std::string(wanted ? "reg_" : "dereg_") + hook.call, hook.name });
		if (hook.record)
			modules_[hook.name] = wanted && reg_module(hook.name) == 0;
	}
}

} // namespace oracle
