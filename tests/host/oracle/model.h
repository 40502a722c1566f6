// SPDX-License-Identifier: GPL-2.0-only
// The rule libraries of the reference: ordering, filing, hook registration and
// the memory counters.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "match.h"
#include "rules.h"

namespace oracle {

// One call to the platform, as the registration log records it.
struct HookCall {
	std::string call;   // "reg_module", "dereg_module", "reg_recv", ...
	std::string target; // "lev2", "ipv4", "ipv6", "wlan", "local", "resv", "wlan_out"

	bool operator==(const HookCall &) const = default;
};

class Model {
public:
	// Whether an allocation from that cache succeeds. Answers true unless a test
	// replaces it; asked once per allocation, in the order of the allocations.
	std::function<bool(Cache)> allocation = [](Cache) { return true; };
	// What efmp_reg_module answers for a record.
	std::function<int(const std::string &)> reg_module = [](const std::string &) { return 0; };

	Counters counters;
	std::vector<HookCall> calls;

	// The library of a location, or null when the location has none.
	Library *library(uint32_t location);
	const std::array<Library, 8> &libraries() const { return libraries_; }
	bool module_registered(const std::string &name) const;

	// 0, or -1 when the location has no library. The caller keeps the regular
	// alive and unchanged while it is in.
	int add(const Regular &regular);
	int remove(const Regular &regular);

	// A datum of its own, as user space's record makes one: false without memory.
	bool take_data(uint32_t type);
	void drop_data(uint32_t type);

	// Edits of a regular that is out of its library. add_data owns the datum
	// (taken with take_data) unless it answers -ENOMEM.
	int add_data(Regular &regular, uint32_t type, const Value &value);
	void del_data(Regular &regular, uint32_t type, const Value &value);
	bool add_empty_item(Regular &regular, uint32_t type);
	void del_item(Regular &regular, uint32_t type);
	void empty(Regular &regular);

private:
	void insert(const Regular &regular, Library &library);
	void withdraw(const Regular &regular, Library &library);
	void set_hook(uint32_t location, bool wanted);
	bool take(Cache cache, uint32_t type = 0);
	Entry *find_entry(Library &library, uint32_t type, const Value *value);
	Entry *new_entry(Library &library, uint32_t type, const Value *value);
	void file_copy(Entry &entry, const Regular &regular);
	void drop_copies(std::vector<Regular> &list,
			 const std::function<bool(const Regular &)> &which);
	void drop_key(Library &library, const Regular &gone, uint32_t type, const Value *value,
		      bool still_wanted);

	std::array<Library, 8> libraries_;
	std::map<std::string, bool> modules_;
};

} // namespace oracle
