// SPDX-License-Identifier: GPL-2.0-only
// The longest time with bottom halves off, and the longest holds of the module's locks, while an unprivileged user does
// what takes long.
#include <algorithm>
#include <cxxabi.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench.hpp"
#include "bench_shapes.hpp"
#include "bench_support.hpp"
#include "mox_packet.h"

namespace bench {

namespace {

constexpr uint32_t kPeriod = 20000; // ns between two looks
constexpr uid_t kUnprivileged = 65534;
constexpr unsigned kCrowd = 4096;
constexpr const char *kLockTimes = "/sys/module/mox_ef_socket/parameters/lock_times";
constexpr const char *kLineTime = "/sys/module/mox_dprintk/parameters/line_us";

void write_to(const char *path, const char *text)
{
	std::ofstream(path) << text << "\n";
}

/// What a scenario's process has.
struct User {
	std::vector<Fd> sockets;
};

struct Scenario {
	const char *name;
	std::function<void(User &)> prepare;               ///< by the user; not measured
	std::function<void(User &)> act;                   ///< by the user; measured
	std::function<void(moxlab::Device &)> beside = {}; ///< by the lab, measured, instead of act
	const char *line_us = "0";                         ///< a console line's microseconds
};

/// Sends a byte, or waits for one: the two processes take turns.
class Turn {
public:
	Turn()
	{
		if (::pipe(ends_))
			die("a pipe");
	}
	void give() const
	{
		if (::write(ends_[1], "", 1) != 1)
			die("the other process");
	}
	/// False when the other process is gone.
	bool take() const
	{
		char byte;
		return ::read(ends_[0], &byte, 1) == 1;
	}
	~Turn()
	{
		only_take();
		only_give();
	}
	Turn(const Turn &) = delete;
	void only_take() { close_end(1); }
	void only_give() { close_end(0); }

private:
	void close_end(int end)
	{
		if (ends_[end] >= 0)
			::close(std::exchange(ends_[end], -1));
	}

	int ends_[2];
};

/// A function's name without its arguments and the module's namespaces.
std::string plain_name(std::string symbol)
{
	symbol = symbol.substr(0, symbol.find(' '));
	int status = 0;
	char *demangled = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status);
	if (!demangled)
		return symbol;
	std::string name = demangled;
	std::free(demangled);
	for (const char *space : { "mox::", "(anonymous namespace)::", "void " })
		for (size_t at; (at = name.find(space)) != std::string::npos;)
			name.erase(at, std::strlen(space));
	return name.substr(0, name.find_first_of("<("));
}

/// A scenario's name stands above its figures.
void show(const Scenario &scenario, const std::string &what, double value)
{
	std::printf("  %14.0f  %s\n", value, what.c_str());
	record({ "sections", what, scenario.name, 0, value });
}

void print_locks(const Scenario &scenario)
{
	std::ifstream file(kLockTimes);
	std::string kind, lock, function;
	uint64_t longest, count;
	std::map<std::string, uint64_t> holds;
	while (file >> kind >> lock >> function >> longest >> count) {
		uint64_t &most =
			holds[plain_name(lock) + " (" + kind + ") in " + plain_name(function)];
		most = std::max(most, longest);
	}
	std::vector<std::pair<uint64_t, std::string>> rows;
	for (const auto &[name, most] : holds)
		rows.push_back({ most, name });
	std::sort(rows.rbegin(), rows.rend());
	for (size_t n = 0; n < rows.size() && n < 3; ++n)
		show(scenario, "lock " + rows[n].second, double(rows[n].first));
}

[[noreturn]] void be_user(const Scenario &scenario, Turn &ready, Turn &go, Turn &done)
{
	try {
		if (::setgid(kUnprivileged) || ::setuid(kUnprivileged))
			die("to become an unprivileged user");
		User user;
		scenario.prepare(user);
		ready.give();
		go.take();
		if (scenario.act)
			scenario.act(user);
		done.give();
		go.take();
		::_exit(0);
	} catch (const std::exception &e) {
		std::fprintf(stderr, "lab-bench: %s: %s\n", scenario.name, e.what());
		::_exit(1);
	}
}

void run(const Scenario &scenario)
{
	moxlab::Device lab;
	Turn ready, go, done;
	std::printf("%s\n", scenario.name);
	std::fflush(stdout);
	const pid_t child = ::fork();
	if (child == 0) {
		ready.only_give();
		go.only_take();
		done.only_give();
		be_user(scenario, ready, go, done);
	}
	ready.only_take();
	go.only_give();
	done.only_take();
	auto failed = [&]() -> std::runtime_error {
		::waitpid(child, nullptr, 0);
		return std::runtime_error(std::string("failed: ") + scenario.name);
	};
	if (!ready.take())
		throw failed();
	const double memory = slab_bytes();
	write_to(kLineTime, scenario.line_us);
	write_to(kLockTimes, "0");
	moxlab_latency latency{};
	latency.op = MOXLAB_LATENCY_START;
	latency.period_ns = kPeriod;
	lab.latency(latency);
	const uint64_t begin = now_ns();
	go.give();
	if (!done.take())
		throw failed();
	if (scenario.beside)
		scenario.beside(lab);
	const uint64_t took = now_ns() - begin;
	latency.op = MOXLAB_LATENCY_STOP;
	latency = lab.latency(latency);
	write_to(kLineTime, "0");
	show(scenario, "bottom halves off", double(latency.longest_ns));
	std::printf("  %14s  (last seen in %s)\n", "", plain_name(latency.symbol).c_str());
	show(scenario, "all of it, with the timer's interrupts", double(took));
	const double grown = slab_bytes() - memory;
	std::printf("  %14.0f  bytes of kernel memory more than before\n", grown);
	record({ "sections", "memory taken", scenario.name, 0, grown, "bytes" });
	print_locks(scenario);
	go.give();
	int status = 0;
	::waitpid(child, &status, 0);
}

void nothing(User &) {}

/// So many values of a type.
Item many(unsigned count, uint16_t type)
{
	Item item{ type,
		   uint16_t(type == PACKET_SRC_MAC_EQUAL    ? 6
			    : type == PACKET_SRC_INTF_EQUAL ? 4
							    : 2),
		   {} };
	for (unsigned i = 0; i < count; ++i) {
		moxlab::Bytes value(item.width);
		value[0] = uint8_t(i >> 8);
		value[1] = uint8_t(i);
		item.values.insert(item.values.end(), value.begin(), value.end());
	}
	return item;
}

void change_values_of(const User &user, const Item &item, bool add)
{
	if (int error = add_item(user.sockets[0].get(), item, add))
		std::printf("  (refused: %s)\n", std::strerror(error));
}

/// Adds values to the rule of the user's one socket.
auto values(unsigned count, uint16_t type = PACKET_SRC_MAC_EQUAL)
{
	return [count, type](User &user) {
		if (user.sockets.empty()) {
			user.sockets.push_back(open_socket());
			set_option(user.sockets[0].get(), PACKET_TREATMENT, PACKET_COPY);
		}
		change_values_of(user, many(count, type), true);
	};
}

auto without_values(unsigned count)
{
	return [count](User &user) {
		change_values_of(user, many(count, PACKET_SRC_MAC_EQUAL), false);
	};
}

void bound(User &user)
{
	sockaddr_ll to{};
	to.sll_family = kFamily;
	to.sll_protocol = htons(0x88b6);
	if (::bind(user.sockets[0].get(), reinterpret_cast<sockaddr *>(&to), sizeof to))
		die("bind");
}

void located(User &user)
{
	set_option(user.sockets[0].get(), PACKET_LOCATION, PACKET_LEV2_LOC);
}

std::function<void(User &)> both(std::function<void(User &)> one, std::function<void(User &)> two)
{
	return [one, two](User &user) {
		one(user);
		two(user);
	};
}

void crowd(User &user)
{
	while (user.sockets.size() < kCrowd)
		user.sockets.push_back(listener({ value16(PACKET_ETH_PROT_EQUAL, 0x88b6) }));
}

void leave(User &user)
{
	user.sockets.clear();
}

void wait_for_delivery(const moxlab::Device &lab)
{
	for (unsigned tries = 0; lab.balance(MOXLAB_OWNER_MODULE).live; ++tries) {
		if (tries == 60000)
			throw std::runtime_error("the frames were not delivered");
		::usleep(1000);
	}
}

void long_frames(moxlab::Device &lab)
{
	moxlab::Injection in(MOXLAB_POINT_LEV2, plain_frame(0x88b6, 1500));
	lab.inject(in.source(kSource).repeat(4));
	wait_for_delivery(lab);
}

void near_misses(moxlab::Device &lab)
{
	moxlab::Injection in(MOXLAB_POINT_LEV2, kShapes[3].unwanted().bytes);
	for (int i = 0; i < 20; ++i)
		lab.inject(in.source(kSource).repeat(1));
}

void report_all(moxlab::Device &)
{
	shell("moxctl show rules >/dev/null");
}

void dump_file(moxlab::Device &)
{
	shell("mkdir -p /tmp/vsd/0/ef/af_packet");
	// It fails for a file that could not take all sockets, which is not what counts here.
	shell("moxctl tech -o /tmp/dump >/dev/null 2>&1; test -s /tmp/dump");
}

void huge_option(User &user)
{
	constexpr size_t kHuge = 200u << 20;
	user.sockets.push_back(open_socket());
	void *memory = ::mmap(nullptr, kHuge, PROT_READ | PROT_WRITE,
			      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
	if (memory == MAP_FAILED)
		die("200 MB of addresses");
	const mox_packet_rule head{ PACKET_ETH_PROT_EQUAL, 2, 1 };
	std::memcpy(memory, &head, sizeof head);
	const int result = ::setsockopt(user.sockets[0].get(), MOX_SOL_PACKET, MOX_PACKET_ADD_RULE,
					memory, socklen_t(kHuge));
	std::printf("  (option 11 with 200 MB: %s)\n", result ? std::strerror(errno) : "taken");
}

void own_report(User &user)
{
	if (::setsockopt(user.sockets[0].get(), MOX_SOL_PACKET, MOX_PACKET_DUMP_SOCKET, "", 0))
		die("the socket's report");
}

void change_values(User &user)
{
	for (unsigned n = 0; n < 200; ++n)
		for (bool add : { true, false })
			if (add_item(user.sockets[0].get(), kShapes[0].items(2000 + n)[0], add))
				die("a change");
}

void plain_sockets(User &user)
{
	for (int i = 0; i < 1000; ++i)
		user.sockets.push_back(Fd(::socket(AF_INET, SOCK_DGRAM, 0)));
	user.sockets.clear();
}

/// As many rules of a shape, or as many as the budgets allow if that is less.
std::function<void(User &)> listeners(const Shape &shape, unsigned count)
{
	return [&shape, count](User &user) {
		for (unsigned i = 0; i < count; ++i) {
			std::optional<Fd> fd = listener_within_budget(shape.items(i));
			if (!fd)
				return;
			user.sockets.push_back(std::move(*fd));
		}
	};
}

std::string thousands(unsigned n)
{
	char text[16];
	if (n < 1000)
		std::snprintf(text, sizeof text, "%u", n);
	else
		std::snprintf(text, sizeof text, "%u,%03u", n / 1000, n % 1000);
	return text;
}

} // namespace

void longest_sections(const std::vector<unsigned> &counts)
{
	allow_many_files(kCrowd + 8);
	std::printf("without the module:\n");
	run({ "no module, 1,000 sockets of another family", nothing, plain_sockets });

	Owner owner("mox_ef_socket");
	{
		moxlab::Device lab;
		quiet_platform(lab);
		make_interface(lab, kSource);
	}
	std::printf("with the module:\n");
	for (unsigned count : counts) {
		const std::string macs = thousands(count) + " source MACs, ";
		const std::string names[] = { macs + "adding",
					      macs + "location",
					      macs + "one value more",
					      macs + "location 0",
					      macs + "deleting while filed",
					      macs + "treatment",
					      macs + "bind",
					      macs + "closing" };
		auto filed = both(values(count), located);
		run({ names[0].c_str(), nothing, values(count) });
		run({ names[1].c_str(), values(count), located });
		run({ names[2].c_str(), filed, values(count + 1) });
		run({ names[3].c_str(), filed, [](User &user) {
			     set_option(user.sockets[0].get(), PACKET_LOCATION, PACKET_NONE_LOC);
		     } });
		run({ names[4].c_str(), filed, without_values(count) });
		run({ names[5].c_str(), filed, [](User &user) {
			     set_option(user.sockets[0].get(), PACKET_TREATMENT, PACKET_TRAP);
		     } });
		run({ names[6].c_str(), filed, bound });
		run({ names[7].c_str(), filed, leave });
	}
	constexpr unsigned kWide = 2048;
	auto wide = both(values(kWide, PACKET_ETH_PROT_EQUAL),
			 values(kWide, PACKET_SRC_INTF_EQUAL));
	run({ "2,048 EtherTypes and 2,048 interfaces, location", wide, located });
	run({ "2,048 EtherTypes and 2,048 interfaces, closing", both(wide, located), leave });
	run({ "1,024 rules, 200 changes of one value", listeners(kShapes[0], 1024),
	      change_values });
	run({ "500 rules of EtherType and port, near misses",
	      listeners(kShapes[3], 500),
	      {},
	      near_misses });
	run({ "rules chosen to hurt, as many as allowed",
	      listeners(hurting_most(), kCrowd),
	      {},
	      near_misses });
	run({ "1,500-byte frame wanted by 4,096 sockets", crowd, {}, long_frames });
	run({ "report of 4,096 sockets, 10 us a line", crowd, {}, report_all, "10" });
	run({ "dump file, 4,096 sockets", crowd, {}, dump_file });
	run({ "closing 4,096 sockets", crowd, leave });
	run({ "a socket's report, 2,000 values, 10 us a line",
	      both(values(2000), located),
	      own_report,
	      {},
	      "10" });
	run({ "report of all, a rule of 2,000 values, 10 us a line",
	      both(values(2000), located),
	      {},
	      report_all,
	      "10" });
	run({ "option 11 with a length of 200 MB", nothing, huge_option });
}

} // namespace bench
