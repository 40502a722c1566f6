// SPDX-License-Identifier: GPL-2.0-only
/* The C API: what a handle passes to the kernel, and in which order. */
#include "fixture.h"

#include <cerrno>
#include <cstring>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int kAdd = MOX_PACKET_ADD_RULE, kDelete = MOX_PACKET_DEL_RULE;

TEST_F(Handle, new__makes_no_system_call)
{
	make();
	EXPECT_EQ(calls.family, -1);
	EXPECT_TRUE(calls.options.empty());
	EXPECT_EQ(mox_fd(s), -1);
	EXPECT_EQ(errno, EBADF);
	EXPECT_NE(error().find("mox_start"), std::string::npos) << error();
}

TEST_F(Handle, new__kind)
{
	struct {
		mox_kind kind;
		int type;
	} const cases[] = { { MOX_RAW, SOCK_RAW }, { MOX_DATAGRAM, SOCK_DGRAM } };
	for (const auto &each : cases) {
		make(each.kind);
		ASSERT_EQ(mox_open(s), 0) << error();
		EXPECT_EQ(calls.family, 17);
		EXPECT_EQ(calls.type, each.type | SOCK_CLOEXEC);
		EXPECT_EQ(calls.protocol, 0);
	}
	EXPECT_EQ(mox::new_handle(7, calls), nullptr);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_NE(error().find("kind 7"), std::string::npos) << error();
}

TEST_F(Handle, start__sets_the_location_last)
{
	make();
	ASSERT_EQ(mox_set_location(s, PACKET_RESV_LOC), 0);
	ASSERT_EQ(mox_set_treatment(s, PACKET_FETCH), 0);
	ASSERT_EQ(mox_set_timestamps(s, 1), 0);
	ASSERT_EQ(mox_set_receive_buffer(s, 65536), 0);
	ASSERT_EQ(mox_add_rule(s, "eth=888e"), 0);
	EXPECT_EQ(calls.family, -1) << "nothing before the start";
	ASSERT_EQ(mox_start(s), 0) << error();
	EXPECT_EQ(calls.option_order(),
		  (std::vector<int>{ SO_RCVBUF, PACKET_CTRL_INFO, SO_TIMESTAMPNS, kAdd,
				     PACKET_TREATMENT, PACKET_LOCATION }));
	EXPECT_EQ(calls.options[0].u32(), 65536u);
	EXPECT_EQ(calls.options[1].u32(), 1u);
	EXPECT_EQ(calls.options[3].value, (Bytes{ 3, 0, 2, 0, 1, 0, 0x88, 0x8e }));
	EXPECT_EQ(calls.options[4].u32(), static_cast<unsigned>(PACKET_FETCH));
	EXPECT_EQ(calls.options[5].u32(), static_cast<unsigned>(PACKET_RESV_LOC));

	EXPECT_EQ(mox_start(s), 0);
	EXPECT_EQ(calls.options.size(), 6u) << "a second start does nothing";
}

TEST_F(Handle, rules__the_record_to_the_byte)
{
	const std::uint32_t numbers[] = { 0x0806, 0x88cc };
	const std::uint8_t macs[] = { 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12 };
	struct {
		const char *what;
		std::function<int(mox_socket *)> add;
		Bytes record;
	} const cases[] = {
		{ "text",
		  [](mox_socket *h) { return mox_add_rule(h, "eth=0x888e,arp"); },
		  { 3, 0, 2, 0, 2, 0, 0x88, 0x8e, 0x08, 0x06 } },
		{ "text without a value",
		  [](mox_socket *h) { return mox_add_rule(h, "all"); },
		  { 16, 0, 0, 0, 0, 0 } },
		{ "numbers in host order",
		  [&](mox_socket *h) {
			  return mox_add_rule_numbers(h, PACKET_ETH_PROT_EQUAL, numbers, 2);
		  },
		  { 3, 0, 2, 0, 2, 0, 0x08, 0x06, 0x88, 0xcc } },
		{ "elements",
		  [&](mox_socket *h) {
			  return mox_add_rule_elements(h, PACKET_DEST_MAC_EQUAL, macs, 2);
		  },
		  { 1, 0, 6, 0, 2, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12 } },
		{ "a condition",
		  [](mox_socket *h) {
			  return mox_add_rule_elements(h, PACKET_IPv4_MCAST_TRAFFIC, nullptr, 0);
		  },
		  { 12, 0, 0, 0, 1, 0 } },
		{ "a value that is not compared",
		  [](mox_socket *h) {
			  return mox_add_rule_elements(h, PACKET_EAPOL_TYPE_WPS, nullptr, 0);
		  },
		  { 15, 0, 1, 0, 1, 0, 0 } },
		{ "every frame",
		  [](mox_socket *h) { return mox_add_rule_elements(h, PACKET_ALL, nullptr, 0); },
		  { 16, 0, 0, 0, 0, 0 } },
	};
	for (const auto &each : cases) {
		SCOPED_TRACE(each.what);
		make();
		calls.options.clear();
		ASSERT_EQ(each.add(s), 0) << error();
		ASSERT_EQ(mox_set_location(s, PACKET_LEV2_LOC), 0);
		ASSERT_EQ(mox_start(s), 0) << error();
		ASSERT_EQ(calls.options[1].option, kAdd);
		EXPECT_EQ(calls.options[1].value, each.record);
	}
}

TEST_F(Handle, rules__what_is_not_valid)
{
	struct {
		const char *what;
		std::function<int(mox_socket *)> add;
		const char *text;
	} const cases[] = {
		{ "an unknown type", [](mox_socket *h) { return mox_add_rule(h, "colour=red"); },
		  "dmac (PACKET_DEST_MAC_EQUAL)" },
		{ "a bad value", [](mox_socket *h) { return mox_add_rule(h, "eth=zebra"); },
		  "0x0 to 0xffff" },
		{ "no value", [](mox_socket *h) { return mox_add_rule(h, "eth"); },
		  "needs a value" },
		{ "no text", [](mox_socket *h) { return mox_add_rule(h, nullptr); }, "is NULL" },
		{ "an unknown number",
		  [](mox_socket *h) { return mox_add_rule_elements(h, 20, nullptr, 0); },
		  "allowed: 0 to 19" },
		{ "no element",
		  [](mox_socket *h) {
			  return mox_add_rule_elements(h, PACKET_SRC_MAC_EQUAL, nullptr, 0);
		  },
		  "needs a value" },
		{ "no elements' address",
		  [](mox_socket *h) {
			  return mox_add_rule_elements(h, PACKET_SRC_MAC_EQUAL, nullptr, 1);
		  },
		  "NULL" },
		{ "a number that does not fit",
		  [](mox_socket *h) {
			  const std::uint32_t number = 0x10000;
			  return mox_add_rule_numbers(h, PACKET_ETH_PROT_EQUAL, &number, 1);
		  },
		  "does not fit" },
		{ "numbers of a type without",
		  [](mox_socket *h) {
			  const std::uint32_t number = 1;
			  return mox_add_rule_numbers(h, PACKET_DEST_MAC_EQUAL, &number, 1);
		  },
		  "no values that are numbers" },
		{ "no numbers",
		  [](mox_socket *h) {
			  return mox_add_rule_numbers(h, PACKET_ETH_PROT_EQUAL, nullptr, 0);
		  },
		  "at least one" },
		{ "an interface that does not exist",
		  [](mox_socket *h) { return mox_set_interface(h, "nosuchport"); }, "nosuchport" },
		{ "a receive buffer of 0",
		  [](mox_socket *h) { return mox_set_receive_buffer(h, 0); }, "1 and more" },
		{ "deleting before the start",
		  [](mox_socket *h) { return mox_delete_rule(h, "eth=arp"); }, "mox_start" },
	};
	for (const auto &each : cases) {
		SCOPED_TRACE(each.what);
		make();
		errno = 0;
		EXPECT_EQ(each.add(s), -1);
		EXPECT_EQ(errno, EINVAL);
		EXPECT_NE(error().find(each.text), std::string::npos) << error();
	}
	EXPECT_TRUE(calls.options.empty());
}

TEST_F(Handle, start__needs_a_rule_and_a_location)
{
	make();
	EXPECT_EQ(mox_start(s), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_NE(error().find("no rule"), std::string::npos) << error();
	ASSERT_EQ(mox_add_rule(s, "all"), 0);
	EXPECT_EQ(mox_start(s), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_NE(error().find("mox_set_location"), std::string::npos) << error();
	EXPECT_EQ(calls.family, -1);
}

// An ARP operation as the key would never be found.
TEST_F(Handle, start__orders_the_rules_so_that_hooks_find_them)
{
	make();
	ASSERT_EQ(mox_add_rule(s, "arp=request"), 0);
	ASSERT_EQ(mox_set_location(s, PACKET_LEV2_LOC), 0);
	ASSERT_EQ(mox_start(s), 0);
	ASSERT_EQ(calls.options.size(), 5u);
	EXPECT_EQ(calls.options[1].value[0], PACKET_ETH_PROT_EQUAL);
	EXPECT_EQ(calls.options[2].value[0], PACKET_ARP_TYPE);
}

TEST_F(Handle, interface__is_a_rule_and_the_bind)
{
	make();
	ASSERT_EQ(mox_set_interface(s, "7"), 0);
	ASSERT_EQ(mox_set_location(s, PACKET_LEV2_LOC), 0);
	ASSERT_EQ(mox_start(s), 0) << error();
	EXPECT_EQ(calls.bound_to,
		  (Bytes{ 17, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }));
	EXPECT_EQ(calls.options[1].value, (Bytes{ 10, 0, 4, 0, 1, 0, 7, 0, 0, 0 }));
	EXPECT_EQ(mox_set_interface(s, "8"), -1);
	EXPECT_EQ(errno, EBUSY);
	EXPECT_NE(error().find("before mox_open"), std::string::npos) << error();
}

TEST_F(Handle, start__a_refusal_can_be_repeated)
{
	make();
	ASSERT_EQ(mox_add_rule(s, "all"), 0);
	ASSERT_EQ(mox_set_location(s, PACKET_MPLS_LOC), 0);
	calls.option_errors[PACKET_LOCATION] = EINVAL;
	EXPECT_EQ(mox_start(s), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_NE(error().find("PACKET_MPLS_LOC"), std::string::npos) << error();
	calls.option_errors.clear();
	ASSERT_EQ(mox_set_location(s, PACKET_LEV2_LOC), 0);
	EXPECT_EQ(mox_start(s), 0) << error();
	EXPECT_EQ(calls.options.back().u32(), static_cast<unsigned>(PACKET_LEV2_LOC));
}

TEST_F(Handle, open__a_refusal_leaves_no_socket)
{
	struct {
		int option, error;
		const char *text;
	} const cases[] = {
		{ PACKET_CTRL_INFO, EFAULT, "control information" },
		{ SO_TIMESTAMPNS, EPERM, "time stamps" },
		{ SO_RCVBUF, ENOBUFS, "receive buffer" },
	};
	for (const auto &each : cases) {
		SCOPED_TRACE(each.text);
		make();
		ASSERT_EQ(mox_set_timestamps(s, 1), 0);
		ASSERT_EQ(mox_set_receive_buffer(s, 4096), 0);
		calls.option_errors = { { each.option, each.error } };
		EXPECT_EQ(mox_open(s), -1);
		EXPECT_EQ(errno, each.error);
		EXPECT_NE(error().find(each.text), std::string::npos) << error();
		EXPECT_FALSE(calls.is_open());
	}
	make();
	calls.option_errors.clear();
	calls.socket_error = EAFNOSUPPORT;
	EXPECT_EQ(mox_open(s), -1);
	EXPECT_EQ(errno, EAFNOSUPPORT);
	EXPECT_NE(error().find("is mox_ef_socket.ko loaded?"), std::string::npos) << error();
}

TEST_F(Handle, a_running_socket_is_changed_immediately)
{
	start("eth=arp");
	calls.options.clear();
	ASSERT_EQ(mox_add_rule(s, "eth=888e"), 0);
	ASSERT_EQ(mox_delete_rule(s, "eth=arp"), 0);
	ASSERT_EQ(mox_set_treatment(s, PACKET_TRAP), 0);
	ASSERT_EQ(mox_set_location(s, PACKET_IPv4_LOC), 0);
	ASSERT_EQ(mox_set_control(s, 0), 0);
	ASSERT_EQ(mox_set_timestamps(s, 1), 0);
	ASSERT_EQ(mox_set_receive_buffer(s, 1), 0);
	EXPECT_EQ(calls.option_order(),
		  (std::vector<int>{ kAdd, kDelete, PACKET_TREATMENT, PACKET_LOCATION,
				     PACKET_CTRL_INFO, SO_TIMESTAMPNS, SO_RCVBUF }));
}

TEST_F(Handle, stop_and_start__keep_the_rules)
{
	start("arp=request");
	calls.options.clear();
	ASSERT_EQ(mox_stop(s), 0);
	ASSERT_EQ(mox_add_rule(s, "arp=reply"), 0);
	ASSERT_EQ(mox_start(s), 0) << error();
	EXPECT_EQ(calls.option_order(),
		  (std::vector<int>{ PACKET_LOCATION, kAdd, PACKET_TREATMENT, PACKET_LOCATION }));
	EXPECT_EQ(calls.options[0].u32(), 0u);
	EXPECT_EQ(calls.options[1].value, (Bytes{ 19, 0, 2, 0, 1, 0, 0, 2 }));
	EXPECT_EQ(calls.options[3].u32(), static_cast<unsigned>(PACKET_LEV2_LOC));
}

TEST_F(Handle, delete_rule__also_of_those_noted_since_the_stop)
{
	struct {
		const char *what;
		std::vector<const char *> noted;
		const char *deleted;
		std::vector<Bytes> added; // by the next start
	} const cases[] = {
		{ "the only one", { "eth=lldp" }, "eth=lldp", {} },
		{ "one of two values",
		  { "eth=lldp,888e" },
		  "eth=lldp",
		  { { 3, 0, 2, 0, 1, 0, 0x88, 0x8e } } },
		{ "of two rules of the type",
		  { "eth=888e", "eth=lldp", "eth=lldp" },
		  "eth=lldp,1234",
		  { { 3, 0, 2, 0, 1, 0, 0x88, 0x8e } } },
		{ "another type",
		  { "eth=888e" },
		  "snap=888e",
		  { { 3, 0, 2, 0, 1, 0, 0x88, 0x8e } } },
		{ "a type without values", { "mcast" }, "mcast", {} },
		{ "a value that frames are not compared with",
		  { "wps", "wps=7" },
		  "wps",
		  { { 15, 0, 1, 0, 1, 0, 7 } } },
		{ "all", { "all" }, "all", {} },
	};
	for (const auto &each : cases) {
		SCOPED_TRACE(each.what);
		start("arp=request");
		ASSERT_EQ(mox_stop(s), 0);
		calls.options.clear();
		for (const char *rule : each.noted)
			ASSERT_EQ(mox_add_rule(s, rule), 0) << error();
		ASSERT_EQ(mox_delete_rule(s, each.deleted), 0) << error();
		EXPECT_EQ(calls.option_order(), std::vector<int>{ kDelete })
			<< "the socket's own value goes, too";
		calls.options.clear();
		ASSERT_EQ(mox_start(s), 0) << error();
		std::vector<Bytes> added;
		for (const OptionCall &call : calls.options)
			if (call.option == kAdd)
				added.push_back(call.value);
		EXPECT_EQ(added, each.added);
	}
}

TEST_F(Handle, delete_rule__that_the_kernel_refuses_changes_nothing)
{
	start("arp=request");
	ASSERT_EQ(mox_stop(s), 0);
	ASSERT_EQ(mox_add_rule(s, "eth=lldp"), 0);
	calls.option_errors = { { kDelete, ENOMEM } };
	EXPECT_EQ(mox_delete_rule(s, "eth=lldp"), -1);
	EXPECT_EQ(errno, ENOMEM);
	calls.options.clear();
	ASSERT_EQ(mox_start(s), 0) << error();
	EXPECT_EQ(calls.options[0].option, kAdd);
}

TEST_F(Handle, names)
{
	EXPECT_EQ(mox_location("lev2"), PACKET_LEV2_LOC);
	EXPECT_EQ(mox_location("PACKET_WLAN_LOC"), PACKET_WLAN_LOC);
	EXPECT_EQ(mox_treatment("fetch"), PACKET_FETCH);
	EXPECT_STREQ(mox_location_name(2), "PACKET_LEV2_LOC");
	EXPECT_STREQ(mox_location_name(99), "Unknown");
	EXPECT_STREQ(mox_treatment_name(3), "PACKET_TRAP");
	EXPECT_EQ(mox_interface_index("12"), 12u);
	for (const char *bad : { "mpls", "none", "moon", "" }) {
		EXPECT_EQ(mox_location(bad), -1) << bad;
		EXPECT_EQ(errno, EINVAL);
		EXPECT_NE(error().find("lev2 (PACKET_LEV2_LOC)"), std::string::npos) << error();
	}
	EXPECT_EQ(mox_location(nullptr), -1);
	EXPECT_EQ(mox_treatment("none"), -1);
	EXPECT_EQ(mox_interface_index("nosuchport"), 0u);
	EXPECT_NE(error().find("ip link"), std::string::npos) << error();
	EXPECT_STREQ(mox_version(), MOX_VERSION);
}

} // namespace
