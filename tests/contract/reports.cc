// SPDX-License-Identifier: GPL-2.0-only
#include "contract/reports.h"

#include <cstdio>
#include <cstring>

#include "contract/locations.h"

namespace contract {

std::string joined(const Pieces &pieces)
{
	std::string all;
	for (const std::string &piece : pieces)
		all += piece;
	return all;
}

void append(Pieces &to, const Pieces &more)
{
	to.insert(to.end(), more.begin(), more.end());
}

namespace {

template <typename... Values> std::string format(const char *text, Values... values)
{
	char line[64];
	std::snprintf(line, sizeof line, text, values...);
	return line;
}

std::string num(uint32_t value)
{
	return std::to_string(value);
}

const char *type_name(uint32_t type)
{
	return type < kTypes ? kRuleTypes[type].name : "illegal regular type!";
}

std::string value_text(Form form, const uint8_t *v)
{
	uint16_t half;
	uint32_t word;
	std::memcpy(&half, v, sizeof half);
	std::memcpy(&word, v, sizeof word);
	const unsigned swapped = v[0] << 8 | v[1];
	switch (form) {
	case Form::kNone:
		break;
	case Form::kCode:
		return format("code: %d, subcode: %d  ", v[0], v[1]);
	case Form::kMac:
		return format("%02x:%02x:%02x:%02x:%02x:%02x  ", v[0], v[1], v[2], v[3], v[4],
			      v[5]);
	case Form::kEther:
		return format("%04x  ", swapped);
	case Form::kByte:
		return num(v[0]) + "  ";
	case Form::kPort:
		return num(swapped) + "  ";
	case Form::kU16:
		return num(half) + "  ";
	case Form::kU32:
		return num(word) + "  ";
	case Form::kS32:
		return std::to_string(static_cast<int32_t>(word)) + "  ";
	}
	return "";
}

} // namespace

RuleText rule_text(uint32_t type, const std::vector<uint8_t> &elements)
{
	RuleText text{ type, {} };
	const unsigned size = width(type);
	// The item of PACKET_ALL holds no datum, those of the other types without a value hold one.
	if (size == 0 && type != kAll)
		text.data.push_back("");
	for (size_t at = 0; size && at + size <= elements.size(); at += size) {
		uint8_t value[8] = {};
		std::memcpy(value, &elements[at], size);
		text.data.push_back(value_text(kRuleTypes[type].form, value));
	}
	return text;
}

Pieces SocketText::pieces() const
{
	Pieces out = {
		"\n------------ dump sock ------------\n",
		"process:       " + process + "\n",
		"vsd:           " + num(vsd) + "\n",
		"pid:           " + std::to_string(pid) + "\n",
		std::string("running:       ") + (running ? "running" : "stop") + "\n",
		std::string("ctrldata:      ") + (ctrl ? "require" : "unrequire") + "\n",
		"ifindex:       " + num(ifindex) + "\n",
		"regulars:\n",
	};
	for (const RuleText &rule : rules) {
		append(out, { "regular type:  ", std::string(type_name(rule.type)) + "\n",
			      "regular data:  " });
		for (size_t i = 0; i < rule.data.size(); ++i) {
			if (i)
				out.push_back("               ");
			out.push_back(rule.data[i] + "\n");
		}
		out.push_back("\n");
	}
	append(out, { std::string("PACKET LOC:         ") + location_name(location) + "\n",
		      std::string("PACKET TREATMENT:   ") + treatment_name(treatment) + "\n" });
	for (Counter counter : kCounterOrder)
		out.push_back(kCounterLabels[counter] + num(counters[counter]) + "\n");
	append(out, { "skbs to be recv:        " + num(to_receive) + "\n",
		      "skbs to be send:        " + num(to_send) + "\n",
		      "sk refcnt:              " + num(refcnt) + "\n" });
	return out;
}

Pieces queue_pieces(uint32_t location, int cpus)
{
	Pieces out = { std::string("location: ") + location_name(location) + "\n" };
	for (int cpu = 0; cpu < cpus; ++cpu)
		out.push_back("cpu " + num(cpu) + " efbuff cnt:      0\n");
	out.push_back("\n");
	return out;
}

Pieces filter_list_pieces(const std::vector<EntryText> &entries)
{
	Pieces out = { "filter regular list cnt: " + num(entries.size()) + "\n" };
	for (const EntryText &entry : entries) {
		append(out, { "regular type:  ", std::string(type_name(entry.type)) + "\n",
			      "regular data:  ", entry.datum + "\n", "  match regulars:\n" });
		for (const CopyText &copy : entry.copies) {
			append(out, { "    process:      " + copy.process + "\n",
				      std::string("    PACKET TREATMENT:   ") +
					      treatment_name(copy.treatment) + "\n" });
			for (const RuleText &rule : copy.rest) {
				append(out, { "    regular type:  ",
					      std::string(type_name(rule.type)) + "\n" });
				for (const std::string &datum : rule.data)
					append(out, { "    regular data:  ", datum + "\n" });
			}
		}
		out.push_back("\n");
	}
	return out;
}

Pieces location_pieces(uint32_t location, int cpus, const std::vector<SocketText> &sockets,
		       const std::vector<EntryText> &entries)
{
	Pieces out = queue_pieces(location, cpus);
	for (const SocketText &socket : sockets)
		append(out, socket.pieces());
	out.push_back("\n");
	append(out, filter_list_pieces(entries));
	return out;
}

Pieces memory_pieces(const MemoryCounters &counters)
{
	Pieces items(kTypes), data;
	for (uint32_t type = 0; type < kTypes; ++type)
		items[kRuleTypes[type].line] = kRuleTypes[type].label + num(counters.items[type]) +
					       "\n";
	// In the same order, without the types that have no value.
	for (uint32_t line = 0; line < kTypes; ++line)
		for (uint32_t type = 0; type < kTypes; ++type)
			if (kRuleTypes[type].line == line && kRuleTypes[type].width)
				data.push_back(kRuleTypes[type].label + num(counters.data[type]) +
					       "\n");
	const std::string failed = "ALLOC FAILED: ";
	items.push_back(failed + num(counters.items[kFailedAllocations]) + "\n");
	append(data, { "FILTER LIST:  " + num(counters.data[kLiveEntries]) + "\n",
		       "REGULAR:      " + num(counters.data[kLiveCopies]) + "\n",
		       failed + num(counters.data[kFailedAllocations]) + "\n" });

	Pieces out = { "------------------ DUMP PACKET DATA MEM ----------------- \n",
		       "regular data alloc:     " + num(counters.buffers_alloc) + "\n",
		       "regular data free:      " + num(counters.buffers_free) + "\n",
		       "\n--------------------- ITEM MEM ---------------------\n" };
	append(out, items);
	out.push_back("\n--------------------- DATA MEM ---------------------\n");
	append(out, data);
	append(out, { "---------------  SKB NUM ----------------\n",
		      "AF-PACKET alloc " + std::to_string(counters.skbs_alloc) + " skbs\n",
		      "AF-PACKET free  " + std::to_string(counters.skbs_free) + " skbs\n" });
	return out;
}

Pieces thread_pieces(uint32_t scheduled, uint32_t skb_failures)
{
	return { "\n-------------PACKET-COPY-THREAD---------------\n",
		 "scheduled:          " + num(scheduled) + "\n",
		 "Alloc skb failed:   " + num(skb_failures) + "\n" };
}

std::string dump_text(const std::string &locations, const std::string &memory)
{
	return "**************** AF-PACKET DUMP REGULAR START ****************\n" + locations +
	       "**************** AF-PACKET DUMP REGULAR END ****************\n\n"
	       "**************** AF-PACKET DUMP MEM START ****************\n" +
	       memory + "**************** AF-PACKET DUMP MEM END ****************\n\n";
}

} // namespace contract
