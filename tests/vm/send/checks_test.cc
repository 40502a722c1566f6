// SPDX-License-Identifier: GPL-2.0-only
// What a send may fail for, each reason alone and in front of all that would come after it: the errno, the counter, the
// debug text, and whose the efbuff was.
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <sys/mman.h>
#include <unistd.h>

#include "support/send.h"

namespace {

using namespace vm;

/// One page that can be read and none behind it.
class Cliff {
public:
	Cliff() : page_(size_t(::sysconf(_SC_PAGESIZE)))
	{
		area_ = static_cast<uint8_t *>(::mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE,
						      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
		::mprotect(area_ + page_, page_, PROT_NONE);
	}
	~Cliff() { ::munmap(area_, 2 * page_); }
	const uint8_t *edge() const { return area_ + page_; }

private:
	size_t page_;
	uint8_t *area_;
};

constexpr uint32_t kNowhere = lab::kNoSuchInterface;

/// What a reason does to the message, or to the world around the call.
struct Scene {
	Send &send;
	const Cliff &cliff;
};

struct Reason {
	const char *name;
	contract::Refusal refusal;
	const char *named; ///< in its line
	void (*provoke)(Scene scene);

	const contract::RefusalFacts &facts() const { return contract::kRefusalFacts[refusal]; }
	std::string line() const { return "MOX-PACKET-SEND: " + refusal_line(refusal, named); }
};

/// In the order of the checks.
const Reason kReasons[] = {
	{ "vsd", contract::kVsd, "3",
	  [](Scene) {
		  std::filesystem::create_directories("/data/var/run/vsd/3/x");
		  std::filesystem::current_path("/data/var/run/vsd/3/x");
	  } },
	{ "control_length", contract::kControlLength, "47",
	  [](Scene s) { s.send.control_length = 47; } },
	{ "name_length", contract::kNameLength, "19", [](Scene s) { s.send.name_length = 19; } },
	{ "no_efbuff", contract::kNoEfbuff, "", [](Scene) { lab::fail(lab::Fail::Alloc, 1); } },
	{ "no_destination_mac", contract::kNoDstMac, "",
	  [](Scene s) { s.send.address().sll_halen = 0; } },
	{ "no_mac_service", contract::kNoMacService, "",
	  [](Scene) { withdraw(kLocalMacService); } },
	{ "mac_service_fails", contract::kMacServiceFails, "",
	  [](Scene) { publish(kLocalMacService, 0, 1); } },
	{ "data_fault", contract::kDataFault, "",
	  [](Scene s) {
		  s.send.at = s.cliff.edge() - 20;
		  s.send.at_length = 60;
	  } },
	{ "no_destination", contract::kNoDst, "3999",
	  [](Scene s) { s.send.address().sll_ifindex = int(kNowhere); } },
	{ "link_down", contract::kDstDown, "port-down",
	  [](Scene s) { s.send.address().sll_ifindex = int(lab::kPortDown); } },
	{ "no_source", contract::kNoSrc, "3999",
	  [](Scene s) { s.send.control.pkt_ifx = kNowhere; } },
	{ "platform_drops", contract::kDropped, "vm_send send pkt %p in vsd 0",
	  [](Scene) { platform().override_outcome(1, 1, false); } },
};

class Checks : public SendTest, public ::testing::WithParamInterface<size_t> {
protected:
	void SetUp() override
	{
		SendTest::SetUp();
		home_ = std::filesystem::current_path();
	}
	void TearDown() override
	{
		std::filesystem::current_path(home_);
		SendTest::TearDown();
	}

	/// The message that all is well with.
	Send good() const
	{
		Send send;
		send.data = counting(60);
		send.with({}).to(lab::kPortA);
		send.control.pkt_ifx = lab::kPortB;
		return send;
	}

	/// Sends with reason `first`, and with all behind it, too, when `with_later`.
	void fails_for(size_t first, bool with_later, int type)
	{
		SCOPED_TRACE(type == SOCK_DGRAM ? "SOCK_DGRAM" : "SOCK_RAW");
		const Reason &reason = kReasons[first];
		Cliff cliff;
		Send send = good();
		Socket socket(type);
		ASSERT_EQ(socket.error(), 0);
		// From the last to the first: where two set the same field, the earlier one decides.
		for (size_t n = std::size(kReasons); n-- > first;)
			if (n == first || (with_later && (type == SOCK_DGRAM ||
							  !kReasons[n].facts().datagram_only)))
				kReasons[n].provoke({ send, cliff });
		Trial trial = attempt(socket, send, true);
		std::filesystem::current_path(home_);
		lab::clear_failures();
		platform().override_outcome(0, 0, false);
		publish(kLocalMacService, 0, 0, kLocalMac[0]);

		EXPECT_EQ(trial.result, -1);
		EXPECT_EQ(trial.error, reason.facts().error) << std::strerror(trial.error);
		EXPECT_EQ(trial.counters, SendCounters::one(reason.facts().counter))
			<< "its own counter and no other";
		EXPECT_TRUE(HasLineLike(trial.lines, reason.line()));
		EXPECT_TRUE(trial.left.empty());
		bool handed_over = reason.facts().error == ENETUNREACH;
		EXPECT_EQ(trial.allocated, reason.facts().allocated ? 1u : 0u);
		EXPECT_EQ(trial.freed, reason.facts().allocated && !handed_over ? 1u : 0u);
		EXPECT_EQ(trial.given, handed_over ? 1u : 0u) << "the platform's from the call on";
		EXPECT_EQ(lab::books().live, 0);
		for (const Reason &other : kReasons)
			EXPECT_EQ(bool(HasLineLike(trial.lines, other.line())), &other == &reason)
				<< other.name;
	}

	std::filesystem::path home_;
};

TEST_P(Checks, alone)
{
	fails_for(GetParam(), false, SOCK_DGRAM);
	if (!kReasons[GetParam()].facts().datagram_only)
		fails_for(GetParam(), false, SOCK_RAW);
}

TEST_P(Checks, before_all_later_ones)
{
	fails_for(GetParam(), true, SOCK_DGRAM);
	if (!kReasons[GetParam()].facts().datagram_only)
		fails_for(GetParam(), true, SOCK_RAW);
}

INSTANTIATE_TEST_SUITE_P(Reasons, Checks, ::testing::Range(size_t(0), std::size(kReasons)),
			 [](const auto &info) { return kReasons[info.param].name; });

TEST_F(Checks, the_number_of_the_vsd_decides)
{
	struct Row {
		const char *path;
		int vsd;
	};
	for (Row row : { Row{ "/data/var/run/vsd/0", 0 },
			 { "/data/var/run/vsd/0/deep/er", 0 },
			 { "/data/var/run/vsd/12abc", 12 },
			 { "/data/var/run/vsd/abc", 0 },
			 { "/data/var/run/vsd/2147483647/x", 2147483647 },
			 { "/data/var/run", 0 },
			 { "/", 0 } }) {
		Socket socket(SOCK_RAW); // made at home: sockets are not made in another vsd
		std::filesystem::create_directories(row.path);
		std::filesystem::current_path(row.path);
		Trial trial = attempt(socket, good(), true);
		std::filesystem::current_path(home_);
		EXPECT_EQ(trial.error, row.vsd ? EINVAL : 0) << row.path;
		EXPECT_EQ(trial.counters,
			  (row.vsd ? SendCounters{ .sendmsg_ill = 1 } : SendCounters{ .sent = 1 }))
			<< row.path;
		if (row.vsd) {
			// It is refused before anything else is said.
			EXPECT_TRUE(LinesAre(trial.lines, { "MOX-PACKET-SEND: get vsd id " +
							    std::to_string(row.vsd) + " fail." }));
		}
	}
}

TEST_F(Checks, interface_numbers_are_unsigned)
{
	Socket socket(SOCK_RAW);
	Send send = good();
	send.address().sll_ifindex = -1;
	EXPECT_TRUE(HasLine(attempt(socket, send, true).lines,
			    "MOX-PACKET-SEND: get dst intf 4294967295 fail"));
	send = good();
	send.control.pkt_ifx = 0xffffffff;
	EXPECT_TRUE(HasLine(attempt(socket, send, true).lines,
			    "MOX-PACKET-SEND: get src intf 4294967295 fail!"));
}

TEST_F(Checks, without_any_reason_it_succeeds)
{
	for (int type : { SOCK_RAW, SOCK_DGRAM }) {
		Socket socket(type);
		Trial trial = attempt(socket, good(), true);
		EXPECT_EQ(trial.result, 60);
		EXPECT_EQ(trial.counters, SendCounters{ .sent = 1 });
		EXPECT_EQ(trial.allocated, 1u);
		EXPECT_EQ(trial.given, 1u);
		EXPECT_EQ(trial.freed, 0u);
		ASSERT_EQ(trial.left.size(), 1u);
		EXPECT_EQ(trial.left[0].ifindex, lab::kPortA);
	}
}

TEST_F(Checks, statistics_clear_the_send_counters)
{
	Socket socket(SOCK_RAW);
	Send bad = good();
	bad.control_length = 47;
	EXPECT_EQ(bad.by(socket.fd()), -1);
	EXPECT_EQ(good().by(socket.fd()), 60);
	EXPECT_EQ(SendCounters::of(socket), (SendCounters{ .sendmsg_ill = 1, .sent = 1 }));
	mox_packet_stats stats = socket.stats();
	EXPECT_EQ(stats.packets, 0u) << "sends are not counted there";
	EXPECT_EQ(stats.drops, 0u);
	EXPECT_EQ(SendCounters::of(socket), SendCounters{});
}

TEST_F(Checks, counters_are_each_sockets_own)
{
	Socket one(SOCK_RAW), other(SOCK_RAW);
	EXPECT_EQ(good().by(one.fd()), 60);
	EXPECT_EQ(SendCounters::of(one), SendCounters{ .sent = 1 });
	EXPECT_EQ(SendCounters::of(other), SendCounters{});
}

TEST_F(Checks, control_lengths)
{
	Socket socket(SOCK_RAW);
	struct Row {
		size_t length;
		int error;
	};
	// 0 bytes at an address are a control buffer, and too short a one.
	for (Row row : { Row{ 0, EINVAL },
			 { 1, EINVAL },
			 { 16, EINVAL },
			 { 47, EINVAL },
			 { 48, 0 },
			 { 49, 0 },
			 { 255, 0 } }) {
		Send send = good();
		send.control_length = row.length;
		Trial trial = attempt(socket, send);
		EXPECT_EQ(trial.error, row.error) << row.length;
		EXPECT_EQ(trial.counters, (row.error ? SendCounters{ .sendmsg_ill = 1 }
						     : SendCounters{ .sent = 1 }))
			<< row.length;
	}
}

TEST_F(Checks, name_lengths_and_mac_lengths)
{
	Socket socket(SOCK_RAW);
	struct Row {
		socklen_t name_length;
		uint8_t mac_length;
		int error;
	};
	for (Row row : { Row{ 1, 0, EINVAL },
			 { 12, 0, EINVAL },
			 { 18, 6, EINVAL },
			 { 19, 0, EINVAL },
			 { 19, 6, EINVAL },
			 { 20, 0, 0 },
			 { 20, 5, 0 },
			 { 20, 6, 0 },
			 { 20, 8, 0 },
			 { 20, 9, EINVAL },
			 { 21, 9, 0 },
			 { 20, 255, EINVAL },
			 { 32, 20, 0 },
			 { 32, 21, EINVAL },
			 { 128, 116, 0 },
			 { 128, 117, EINVAL },
			 { 128, 255, EINVAL } }) {
		Send send = good();
		send.name_length = row.name_length;
		send.address().sll_halen = row.mac_length;
		Trial trial = attempt(socket, send, true);
		std::string which = std::to_string(row.name_length) + " with " +
				    std::to_string(row.mac_length);
		EXPECT_EQ(trial.error, row.error) << which;
		EXPECT_EQ(trial.counters, (row.error ? SendCounters{ .sendmsg_ill = 1 }
						     : SendCounters{ .sent = 1 }))
			<< which;
		std::string text = "MOX-PACKET-SEND: msg namelen " +
				   std::to_string(row.name_length) + " illegal.";
		EXPECT_EQ(bool(HasLine(trial.lines, text)), row.error != 0) << which;
	}
	// The kernel takes a name of no length for no name.
	Send send = good();
	send.name_length = 0;
	ASSERT_EQ(socket.bind(lab::kPortB), 0);
	EXPECT_EQ(leaves(socket, send).ifindex, lab::kPortB);
}

TEST_F(Checks, a_dgram_destination_needs_six_bytes_of_address)
{
	Socket socket(SOCK_DGRAM);
	for (int length : { 0, 1, 5, 6, 7, 8 }) {
		Send send = good();
		send.address().sll_halen = uint8_t(length);
		Trial trial = attempt(socket, send);
		EXPECT_EQ(trial.error, length < 6 ? EINVAL : 0) << length;
		EXPECT_EQ(trial.counters, (length < 6 ? SendCounters{ .macfunc_ill = 1 }
						      : SendCounters{ .sent = 1 }))
			<< length;
	}
}

TEST_F(Checks, the_family_of_the_name_is_not_looked_at)
{
	Socket socket(SOCK_RAW);
	for (uint16_t family : { 0, AF_INET, 17, 0xffff }) {
		Send send = good();
		send.address().sll_family = family;
		EXPECT_EQ(leaves(socket, send).ifindex, lab::kPortA) << family;
	}
}

TEST_F(Checks, flags_of_the_call_are_not_looked_at)
{
	Socket socket(SOCK_RAW);
	for (int flags : { MSG_DONTWAIT, MSG_OOB, MSG_DONTROUTE, MSG_CONFIRM, MSG_MORE, MSG_EOR }) {
		Send send = good();
		send.flags = flags;
		EXPECT_EQ(leaves(socket, send).ifindex, lab::kPortA) << flags;
	}
}

TEST_F(Checks, a_source_whose_link_is_down_is_no_obstacle)
{
	Socket socket(SOCK_RAW);
	Send send = good();
	send.control.pkt_ifx = lab::kPortDown;
	EXPECT_EQ(word_at(leaves(socket, send).header, 4), lab::kPortDown);
}

TEST_F(Checks, only_link_state_1_is_up)
{
	Socket socket(SOCK_RAW);
	lab::set_link(lab::kPortA, false);
	EXPECT_EQ(attempt(socket, good()).error, ENETDOWN);
	lab::set_link(lab::kPortA, true);
	EXPECT_EQ(attempt(socket, good()).error, 0);
}

TEST_F(Checks, nothing_is_printed_while_not_debugging)
{
	Socket socket(SOCK_RAW);
	for (size_t length : { 47, 48 }) {
		Send send = good();
		send.control_length = length;
		send.control.flags = ~0u;
		SendCounters::of(socket); // leaves the log empty
		send.by(socket.fd());
		EXPECT_EQ(lab::printk_lines(), std::vector<std::string>{}) << length;
	}
}

} // namespace
