// SPDX-License-Identifier: GPL-2.0-only
#include "commands.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "names.hpp"

namespace moxlab {

std::optional<std::string> Arguments::word_if_any()
{
	for (auto at = words_.begin(); at != words_.end(); ++at)
		if (!at->starts_with("--")) {
			std::string found = *at;
			words_.erase(at);
			return found;
		}
	return {};
}

std::string Arguments::word(std::string_view what)
{
	auto found = word_if_any();
	if (!found)
		throw Usage(std::string(what) + " is missing");
	return *found;
}

std::optional<std::string> Arguments::option(std::string_view name)
{
	auto at = std::find(words_.begin(), words_.end(), name);
	if (at == words_.end())
		return {};
	if (at + 1 == words_.end())
		throw Usage(std::string(name) + " needs a value");
	std::string value = at[1];
	words_.erase(at, at + 2);
	return value;
}

bool Arguments::flag(std::string_view name)
{
	auto at = std::find(words_.begin(), words_.end(), name);
	if (at == words_.end())
		return false;
	words_.erase(at);
	return true;
}

void Arguments::end() const
{
	if (!words_.empty())
		throw Usage("\"" + words_.front() + "\" is unknown here, or one too many");
}

namespace {

template <size_t N> void set_name(char (&to)[N], const std::string &from)
{
	if (from.size() >= N)
		throw Usage("\"" + from + "\" is too long: at most " + std::to_string(N - 1) +
			    " characters");
	std::strcpy(to, from.c_str());
}

void warn_lost(uint64_t lost)
{
	if (lost)
		std::fprintf(stderr, "moxlab: %llu older records were overwritten\n",
			     (unsigned long long)lost);
}

/// "VERB" or "VERB clear" for what has records.
bool take_clear(Arguments &args)
{
	auto word = args.word_if_any();
	if (word && *word != "clear")
		throw Usage("\"" + *word + "\" is unknown here; \"clear\" is what there is");
	args.end();
	return word.has_value();
}

void port(const Device &lab, Arguments args)
{
	std::string what = args.word("add or del");
	if (what == "add") {
		moxlab_port p{};
		if (auto wlan = args.option("--wlan")) {
			unsigned radio, id, ap;
			if (std::sscanf(wlan->c_str(), "%u:%u:%u", &radio, &id, &ap) != 3 ||
			    radio > 255 || id > 65535 || ap > 65535)
				throw Usage(
					"--wlan needs RADIO:WLAN:AP, three numbers such as 1:5:7");
			p.flags = MOXLAB_PORT_WLAN;
			p.radio_id = uint8_t(radio);
			p.wlan_id = uint16_t(id);
			p.ap_wlan_id = uint16_t(ap);
		}
		set_name(p.name, args.word("the network device's name"));
		args.end();
		std::printf("%u\n", lab.add_port(p));
	} else if (what == "del") {
		std::string name = args.word("the network device's name");
		args.end();
		lab.remove_port(name);
	} else {
		throw Usage("\"" + what + "\" is unknown; there are: add, del");
	}
}

void ports(const Device &lab, Arguments args)
{
	if (take_clear(args))
		return lab.clear(MOXLAB_PORTS);
	for (const auto &p : lab.ports().all)
		std::printf("%u %s%s%s rx %llu tx %llu tx-drop %llu\n", p.port.ifindex, p.port.name,
			    p.port.flags & MOXLAB_PORT_HOST ? " host" : "",
			    p.port.flags & MOXLAB_PORT_WLAN ? " wlan" : "",
			    (unsigned long long)p.rx, (unsigned long long)p.tx,
			    (unsigned long long)p.tx_drop);
}

void intf(const Device &lab, Arguments args)
{
	std::string what = args.word("set or del");
	moxlab_intf i{};
	if (what == "del") {
		uint32_t ifindex = parse_interface(args.word("the interface index"));
		args.end();
		return lab.remove_interface(ifindex);
	}
	if (what != "set")
		throw Usage("\"" + what + "\" is unknown; there are: set, del");
	if (auto mac = args.option("--mac")) {
		parse_mac(*mac, i.mac);
		i.set |= MOXLAB_INTF_SET_MAC;
	}
	if (auto link = args.option("--link")) {
		static constexpr std::string_view states[] = { "down", "up" };
		i.link = number_of(states, *link, "link state");
		i.set |= MOXLAB_INTF_SET_LINK;
	}
	if (auto name = args.option("--name")) {
		set_name(i.name, *name);
		i.set |= MOXLAB_INTF_SET_NAME;
	}
	if (args.flag("--wlan")) {
		i.wlan = 1;
		i.set |= MOXLAB_INTF_SET_WLAN;
	}
	i.ifindex = parse_interface(args.word("the interface index"));
	args.end();
	lab.set_interface(i);
}

void intfs(const Device &lab, Arguments args)
{
	args.end();
	for (const auto &i : lab.interfaces().all)
		std::printf("%u %s %s %s%s%s\n", i.intf.ifindex, i.intf.name,
			    format_mac(i.intf.mac).c_str(), i.intf.link ? "up" : "down",
			    i.intf.wlan ? " wlan" : "", i.known ? "" : " removed");
}

void balance(const Device &lab, Arguments args)
{
	auto owner = args.word_if_any();
	args.end();
	std::vector<uint32_t> owners = { MOXLAB_OWNER_PLATFORM, MOXLAB_OWNER_MODULE };
	if (owner)
		owners = { uint32_t(parse_number(*owner, "owner", 255)) };
	for (uint32_t o : owners) {
		moxlab_balance b = lab.balance(o);
		std::printf(
			"owner 0x%02x live %u allocated %llu cloned %llu adopted %llu given %llu freed %llu failed %llu\n",
			o, b.live, (unsigned long long)b.allocated, (unsigned long long)b.cloned,
			(unsigned long long)b.adopted, (unsigned long long)b.given,
			(unsigned long long)b.freed, (unsigned long long)b.failed);
	}
	std::printf("live %u\n", lab.balance(owners[0]).live_all);
}

void live(const Device &lab, Arguments args)
{
	args.end();
	for (const auto &b : lab.live().all)
		std::printf("%llu owner 0x%02x room %u%s%s by %s\n", (unsigned long long)b.rec.seq,
			    b.owner, b.length, b.cloned ? " cloned" : "",
			    b.offered ? " offered" : "", b.creator);
}

void stats(const Device &lab, Arguments args)
{
	if (take_clear(args))
		return lab.clear_stats();
	moxlab_stats s = lab.stats();
	const struct {
		const char *name;
		uint64_t value;
	} lines[] = {
#define COUNTER(id, field, name) { name, s.field },
		MOXLAB_COUNTERS(COUNTER)
#undef COUNTER
			{ "fdb-entries", s.fdb_entries },
		{ "cpus", s.cpus },
	};
	for (const auto &line : lines)
		std::printf("%s %llu\n", line.name, (unsigned long long)line.value);
	for (uint32_t p = MOXLAB_POINT_RESV; p <= MOXLAB_POINT_OUTPUT; ++p)
		std::printf("point %s frames %llu taken %llu\n", name_of(kPoints, p).c_str(),
			    (unsigned long long)s.point_frames[p],
			    (unsigned long long)s.point_taken[p]);
}

void regs(const Device &lab, Arguments args)
{
	args.end();
	for (const auto &r : lab.registrations().all)
		std::printf("%s point 0x%02x %s runs %u\n", name_of(kRegCalls, r.call).c_str(),
			    r.point, r.symbol, r.runs);
}

void log(const Device &lab, Arguments args)
{
	if (take_clear(args))
		return lab.clear(MOXLAB_REGLOG);
	auto records = lab.registration_log();
	warn_lost(records.lost);
	for (const auto &r : records.all)
		std::printf("%llu cpu %u %s point 0x%02x %s result %d%s\n",
			    (unsigned long long)r.rec.seq, r.rec.cpu,
			    name_of(kRegCalls, r.call).c_str(), r.point, r.symbol, r.result,
			    r.changed ? "" : " unchanged");
}

void printk(const Device &lab, Arguments args)
{
	if (take_clear(args))
		return lab.clear(MOXLAB_PRINTK);
	auto records = lab.printk();
	warn_lost(records.lost);
	for (const auto &line : records.all) {
		std::fwrite(line.text.data(), 1, line.text.size(), stdout);
		if (!line.text.ends_with('\n'))
			std::putchar('\n');
	}
}

void left(const Device &lab, Arguments args)
{
	if (auto word = args.word_if_any()) {
		static constexpr std::string_view switches[] = { "off", "on" };
		args.end();
		return lab.record_left(number_of(switches, *word, "switch"));
	}
	bool header = args.flag("--header");
	args.end();
	auto records = lab.left();
	warn_lost(records.lost);
	for (const auto &f : records.all) {
		std::printf("%llu %s port %u%s length %u %s\n", (unsigned long long)f.rec.seq,
			    name_of(kOutcomes, f.outcome).c_str(), f.ifindex, f.sent ? " sent" : "",
			    f.length, format_hex(f.bytes).c_str());
		if (header)
			std::printf("  header %s\n", format_hex(f.header).c_str());
	}
}

/// Options of inject that set one field of the efbuff.
template <class Field> struct FieldOption {
	std::string_view option;
	uint32_t bit;
	Field moxlab_inject::*field;
};

#define FIELD_OPTION(field, id, bit, offset, convert, option) \
	{ option, bit, &moxlab_inject::field },
constexpr FieldOption<uint32_t> kWords[] = { MOXLAB_WORDS(FIELD_OPTION) };
constexpr FieldOption<uint16_t> kHalves[] = { MOXLAB_HALVES(FIELD_OPTION) };
constexpr FieldOption<uint8_t> kBytes[] = { MOXLAB_BYTES(FIELD_OPTION) };
#undef FIELD_OPTION

template <class Field, size_t N>
void take_fields(Arguments &args, moxlab_inject &request, const FieldOption<Field> (&options)[N])
{
	for (const auto &o : options)
		if (auto value = args.option(o.option)) {
			request.*o.field = Field(parse_number(*value, o.option, Field(~Field(0))));
			request.set |= o.bit;
		}
}

void inject(const Device &lab, Arguments args)
{
	Injection i(number_of(kPoints, args.word("the point"), "point"));
	if (auto v = args.option("--port"))
		i.port(parse_interface(*v));
	if (auto v = args.option("--src"))
		i.source(*v == "none" ? MOXLAB_NO_BLOCK : parse_interface(*v));
	if (auto v = args.option("--dst"))
		i.destination(*v == "none" ? MOXLAB_NO_BLOCK : parse_interface(*v));
	if (auto v = args.option("--cpu"))
		i.cpu(uint32_t(parse_number(*v, "CPU", 4095)));
	if (auto v = args.option("--repeat"))
		i.repeat(uint32_t(parse_number(*v, "--repeat", 0xffffffff)));
	if (auto v = args.option("--only"))
		i.only(*v);
	take_fields(args, i.request, kWords);
	take_fields(args, i.request, kHalves);
	take_fields(args, i.request, kBytes);
	i.bytes = parse_hex(args.word("the frame in hexadecimal"));
	args.end();

	moxlab_inject r = lab.inject(i);
	std::printf("%s answer 0x%x hooks %u cpu %u ports %u",
		    name_of(kOutcomes, r.outcome).c_str(), r.answer, r.hooks_run, r.ran_on_cpu,
		    r.left_ports);
	if (r.header_valid)
		std::printf(" reason %u", r.header_out[43]);
	std::printf("\n");
	if (i.request.repeat > 1)
		for (uint32_t n = 0; n < kOutcomes.size(); ++n)
			if (r.outcomes[n])
				std::printf("%s %u\n", name_of(kOutcomes, n).c_str(),
					    r.outcomes[n]);
}

void fail(const Device &lab, Arguments args)
{
	std::string call = args.word("the call");
	if (call == "nothing") {
		args.end();
		return lab.fail_nothing();
	}
	uint32_t count = 1, skip = 0;
	int32_t value = -1;
	if (auto v = args.option("--count"))
		count = *v == "forever" ? MOXLAB_FOREVER
					: uint32_t(parse_number(*v, "--count", 0xfffffffe));
	if (auto v = args.option("--skip"))
		skip = uint32_t(parse_number(*v, "--skip", 0xffffffff));
	if (auto v = args.option("--value"))
		value = parse_signed(*v, "--value");
	args.end();
	lab.fail(number_of(kFailCalls, call, "call"), count, skip, value);
}

void outcome(const Device &lab, Arguments args)
{
	uint32_t count = 1;
	if (auto v = args.option("--count"))
		count = *v == "forever" ? MOXLAB_FOREVER
					: uint32_t(parse_number(*v, "--count", 0xfffffffe));
	bool send = args.flag("--send");
	int32_t number = parse_signed(args.word("the outcome number"), "outcome");
	args.end();
	lab.override_outcome(number, count, send);
}

void service(const Device &lab, Arguments args)
{
	moxlab_service s{};
	s.op = number_of(kServiceOps, args.word("what to do"), "operation");
	if (auto v = args.option("--result"))
		s.result = parse_signed(*v, "--result");
	if (auto v = args.option("--mac"))
		parse_mac(*v, s.mac);
	if (auto v = args.option("--event"))
		s.event = uint32_t(parse_number(*v, "--event", 0xffffffff));
	if (auto v = args.option("--entry"))
		s.entry = uint8_t(parse_number(*v, "--entry", MOXLAB_SERVICE_ENTRIES - 1));
	s.service_class = uint32_t(
		parse_number(args.word("the service class"), "class", 0xffffffff));
	s.instance = uint32_t(parse_number(args.word("the instance"), "instance", 0xffffffff));
	args.end();
	s = lab.service(s);
	std::printf("%s calls %u late %u handlers %u\n", s.published ? "published" : "absent",
		    s.calls, s.late, s.handlers);
}

void misuse(const Device &lab, Arguments args)
{
	args.end();
	moxlab_misuse m = lab.misuse();
	for (uint32_t kind = 0; kind < MOXLAB_MISUSE_COUNT; ++kind)
		std::printf("%s %u\n", name_of(kMisuseKinds, kind).c_str(), m.seen[kind]);
	std::printf("unannounced %u\n", m.unexpected);
}

void settings(const Device &lab, Arguments args)
{
	moxlab_settings s = lab.settings();
	const struct {
		std::string_view name;
		uint32_t &value;
	} numbers[] = { { "redzone", s.redzone },
			{ "quarantine", s.quarantine },
			{ "hold-memory", s.hold_memory },
			{ "printk-echo", s.printk_echo } };
	bool change = false;
	while (auto word = args.word_if_any()) {
		size_t equals = word->find('=');
		std::string name = word->substr(0, equals);
		std::string value = equals == std::string::npos ? "" : word->substr(equals + 1);
		change = true;
		if (name == "tag") {
			s.tag_mode = number_of(kTagModes, value, "tag mode");
			continue;
		}
		auto at = std::find_if(std::begin(numbers), std::end(numbers),
				       [&](auto &n) { return n.name == name; });
		if (at == std::end(numbers))
			throw Usage(
				"unknown setting \"" + name +
				"\"; there are: tag, redzone, quarantine, hold-memory, printk-echo");
		at->value = uint32_t(parse_number(value, name, 4096));
	}
	args.end();
	if (change)
		s = lab.set(s);
	std::printf("tag=%s\n", name_of(kTagModes, s.tag_mode).c_str());
	for (const auto &n : numbers)
		std::printf("%s=%u\n", std::string(n.name).c_str(), n.value);
}

void sync(const Device &lab, Arguments args)
{
	args.end();
	lab.sync();
}

void flush(const Device &lab, Arguments args)
{
	args.end();
	lab.flush_fdb();
}

constexpr Command commands[] = {
	{ "port", "add DEVICE [--wlan RADIO:WLAN:AP] | del DEVICE",
	  "make a network device a port, or no port any more; add prints its index", port },
	{ "ports", "[clear]", "list the ports with their counters, or zero these", ports },
	{ "intf", "set INDEX [--mac M] [--link up|down] [--name N] [--wlan] | del INDEX",
	  "create, change or remove an interface control block", intf },
	{ "intfs", "", "list the interface control blocks", intfs },
	{ "balance", "[OWNER]", "efbuffs by owner; the last line has the number alive", balance },
	{ "live", "", "list the efbuffs that are alive, with who made them", live },
	{ "stats", "[clear]", "what became of the frames", stats },
	{ "regs", "", "the functions that are registered now", regs },
	{ "log", "[clear]", "every registration call so far, or forget them", log },
	{ "printk", "[clear]", "every mox_printk line so far, or forget them", printk },
	{ "left", "[on|off|--header]",
	  "the frames that left, with their efbuff's header; on and off switch the recording and forget",
	  left },
	{ "inject", "POINT HEX [OPTION VALUE...]",
	  "one frame (--repeat N: many) at a point; see below", inject },
	{ "fail", "CALL [--count N|forever] [--skip N] [--value V] | nothing",
	  "make the next calls of that kind fail", fail },
	{ "outcome", "NUMBER [--count N|forever] [--send]",
	  "what the next sends return, sent or only freed", outcome },
	{ "service",
	  "publish|withdraw|event|set|query CLASS INSTANCE [--entry 0|1] [--result N] [--mac M] [--event N]",
	  "services, and events about them", service },
	{ "misuse", "", "breaches of the efbuff rules, by kind", misuse },
	{ "settings", "[NAME=VALUE...]",
	  "show or change: tag, redzone, quarantine, hold-memory, printk-echo", settings },
	{ "sync", "", "wait until the hooks that run now have come back", sync },
	{ "flush", "", "forget the learned MAC addresses", flush },
};

} // namespace

constinit const std::span<const Command> kCommands{ commands };

} // namespace moxlab
