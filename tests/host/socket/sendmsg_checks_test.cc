// SPDX-License-Identifier: GPL-2.0-only
// sendmsg: each check on the way, alone and against all others, with its errno, its
// counter and its line.
#include "send_fixture.h"

namespace {

using enum contract::Refusal;

// A way in which a send fails. In the order in which sendmsg looks: of two that hold at
// once, the first one is the answer.
struct Failure {
	const char *name;
	contract::Refusal refusal;
	const char *named; // in its line
	int tells;         // how many lines a send prints before it
	bool errno_line;   // a debug send prints its errno
	const char *knob;  // what it turns: two that turn the same exclude each other

	const contract::RefusalFacts &facts() const { return contract::kRefusalFacts[refusal]; }
	int error() const { return -facts().error; }
	Counter counter() const { return facts().counter; }
	std::string line() const
	{
		return "MOX-PACKET-SEND: " + refusal_line(refusal, named) + "\n";
	}
};

class SendChecks : public SendTest {
protected:
	// A message to interface 7 from interface 8, with a control record; nothing wrong.
	Outgoing sound(bool debug_send)
	{
		mox_packet_ctrl_info record{};
		record.pkt_ifx = 8;
		record.flags = debug_send ? MOX_SEND_DEBUG : 0;
		return { .name = address(7, 0xcc88), .control = control(record) };
	}
	void set_name_index(Outgoing &m, u32 ifindex) { memcpy(&(*m.name)[4], &ifindex, 4); }

	// Turns a knob wrong, for one send.
	void spoil(const std::string &name, Outgoing &m)
	{
		if (name == "vsd")
			kernel().cwd = "/data/var/run/vsd/3/tmp";
		else if (name == "controllen")
			m.control->resize(47);
		else if (name == "namelen")
			m.name->resize(19);
		else if (name == "namelen for its mac")
			(*m.name)[11] = 9;
		else if (name == "alloc")
			kernel().fail(Fail::kEfbuffAlloc);
		else if (name == "dst mac")
			(*m.name)[11] = 5;
		else if (name == "no service")
			efmp().withdraw(11, 10);
		else if (name == "service fails")
			g_local_mac.result = -5;
		else if (name == "copy")
			m.fault_at = 30;
		else if (name == "dst missing")
			set_name_index(m, 77);
		else if (name == "dst down")
			set_name_index(m, 9);
		else if (name == "src missing") {
			const u32 missing = 78;
			memcpy(m.control->data(), &missing, 4);
		} else if (name == "drop")
			efmp().outcome = 1;
		else
			ADD_FAILURE() << name;
	}
	void mend()
	{
		kernel().cwd = "/root";
		// Where an earlier check has refused, no efbuff was asked for.
		kernel().disarm(Fail::kEfbuffAlloc);
		publish_local_mac();
		g_local_mac.result = 0;
		efmp().outcome = 0;
	}
	// What a failing send of the message above prints, in order.
	Strings said_for(const Failure &f, bool debug_send, const Outgoing &m)
	{
		const char *src = "8";
		if (m.control && m.control->size() == 48 && (*m.control)[0] == 78)
			src = "78";
		const Strings before{
			"MOX-PACKET-SEND: process captured send pkt, len 60.\n",
			std::string("MOX-PACKET-SEND: ctrl pkt_ifx:") + src +
				", pkt_origifx:0, pkt_l2ifx:0, pkt_dst_l2ifx:0\n",
			"MOX-PACKET-SEND: ctrl eth_info.inner_vid:0x0, ex_inner_vlan:0x0.\n",
			"MOX-PACKET-SEND: ctrl wlan_id:0x0, ap_wlan_id:0x0, radio_id:0x0.\n",
			"MOX-PACKET-SEND: send src intf: eth8, dst intf: eth7.\n",
		};
		Strings out(before.begin(), before.begin() + f.tells);
		if (f.counter() == kEfSendFails)
			out.push_back("MOX-PACKET-SEND: " +
				      refusal_line(kDropped,
						   std::string("captured send ") +
							   (debug_send ? "debug pkt " : "pkt ") +
							   efbuff_text + " in vsd 0") +
				      "\n");
		else
			out.push_back(f.line());
		if (debug_send && f.errno_line)
			out.push_back("MOX-PACKET-SEND: process captured send debug pkt fail: " +
				      std::to_string(f.error()) + ".\n");
		return out;
	}
	void check(const Failure &f, bool debug_send, const Outgoing &m)
	{
		kernel().log.clear();
		const int calls = g_local_mac.calls;
		expect_send(m, f.error(), f.counter());
		EXPECT_EQ(lines(), said_for(f, debug_send, m));
		// What comes later is not called.
		const std::string name = f.name;
		const bool before_service = f.counter() == kSendmsgIll ||
					    f.counter() == kAllocFails || name == "dst mac" ||
					    name == "no service";
		EXPECT_EQ(g_local_mac.calls - calls, before_service ? 0 : 1);
	}
};

const Failure kFailures[] = {
	{ "vsd", kVsd, "3", 0, false, "vsd" },
	{ "controllen", kControlLength, "47", 1, false, "control" },
	{ "namelen", kNameLength, "19", 4, true, "namelen" },
	{ "namelen for its mac", kNameLength, "20", 4, true, "namelen" },
	{ "alloc", kNoEfbuff, "", 4, true, "alloc" },
	{ "dst mac", kNoDstMac, "", 4, true, "mac" },
	{ "no service", kNoMacService, "", 4, true, "service" },
	{ "service fails", kMacServiceFails, "", 4, true, "service" },
	{ "copy", kDataFault, "", 4, true, "copy" },
	{ "dst missing", kNoDst, "77", 4, true, "dst" },
	{ "dst down", kDstDown, "eth9", 4, true, "dst" },
	{ "src missing", kNoSrc, "78", 4, true, "src" },
	{ "drop", kDropped, "", 5, false, "drop" },
};

TEST_F(SendChecks, alone__each_with_its_errno_counter_and_lines)
{
	open(kDgram);
	debug();
	for (bool debug_send : { false, true })
		for (const Failure &f : kFailures) {
			SCOPED_TRACE(testing::Message() << f.name << ", debug send " << debug_send);
			Outgoing m = sound(debug_send);
			expect_sent(m, 60);
			spoil(f.name, m);
			check(f, debug_send, m);
			mend();
		}
}

TEST_F(SendChecks, order__of_any_two_the_first_is_the_answer)
{
	open(kDgram);
	debug();
	int pairs = 0;
	for (const Failure &first : kFailures)
		for (const Failure *second = &first + 1; second != std::end(kFailures); second++) {
			if (std::string(first.knob) == second->knob ||
			    // The same byte of the name.
			    (std::string(first.name) == "namelen for its mac" &&
			     std::string(second->name) == "dst mac"))
				continue;
			for (bool debug_send : { false, true }) {
				SCOPED_TRACE(testing::Message()
					     << first.name << " before " << second->name
					     << ", debug send " << debug_send);
				Outgoing m = sound(debug_send);
				spoil(second->name, m);
				spoil(first.name, m);
				check(first, debug_send, m);
				mend();
			}
			pairs++;
		}
	EXPECT_EQ(pairs, 13 * 12 / 2 - 4);
}

// With everything wrong, then one thing less at a time from the front.
TEST_F(SendChecks, order__mended_from_the_front_the_next_is_the_answer)
{
	open(kDgram);
	const char *const all[] = { "vsd",         "controllen", "namelen", "alloc",
				    "dst mac",     "no service", "copy",    "dst down",
				    "src missing", "drop" };
	for (size_t from = 0; from < std::size(all); from++) {
		Outgoing m = sound(true);
		for (size_t i = std::size(all); i-- > from;)
			spoil(all[i], m);
		for (const Failure &f : kFailures)
			if (std::string(f.name) == all[from]) {
				SCOPED_TRACE(f.name);
				expect_send(m, f.error(), f.counter());
			}
		mend();
	}
}

// Steps of the header are for datagrams only, those of the interfaces for all.
TEST_F(SendChecks, raw__header_checks_are_not_made)
{
	for (const Failure &f : kFailures) {
		SCOPED_TRACE(f.name);
		Outgoing m = sound(false);
		spoil(f.name, m);
		if (f.counter() == kMacfuncIll)
			expect_sent(m, 60);
		else
			expect_send(m, f.error(), f.counter());
		mend();
	}
	EXPECT_EQ(g_local_mac.calls, 0);
}

TEST_F(SendChecks, quiet__nothing_is_said_while_not_debugging)
{
	open(kDgram);
	for (bool debug_send : { false, true })
		for (const Failure &f : kFailures) {
			Outgoing m = sound(debug_send);
			expect_sent(m, 60);
			spoil(f.name, m);
			expect_send(m, f.error(), f.counter());
			mend();
		}
	Outgoing m{ .name = address(7), .control = control_flags(~0u) };
	expect_sent(m, 60);
	EXPECT_EQ(kernel().text(), "");
}

// ---- the vsd ------------------------------------------------------------------------

TEST_F(SendChecks, vsd__of_the_sender_and_not_of_the_creator)
{
	debug();
	struct {
		const char *cwd;
		const char *line; // null: may send
	} const cases[] = {
		{ "/data/var/run/vsd/0", nullptr },
		{ "/data/var/run/vsd/0/x", nullptr },
		{ "/data/var/run/vsd/", nullptr },
		{ "/data/var/run/vs/3", nullptr },
		{ "/data/var/run/vsd/1", "MOX-PACKET-SEND: get vsd id 1 fail.\n" },
		{ "/data/var/run/vsd/12/a/b", "MOX-PACKET-SEND: get vsd id 12 fail.\n" },
		{ "/data/var/run/vsd/2147483647",
		  "MOX-PACKET-SEND: get vsd id 2147483647 fail.\n" },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.cwd);
		kernel().cwd = c.cwd;
		kernel().log.clear();
		if (!c.line) {
			expect_sent({}, 60);
			continue;
		}
		expect_send({}, -22, kSendmsgIll);
		EXPECT_EQ(lines(), Strings{ c.line });
		EXPECT_EQ(kernel().calls(Fail::kEfbuffAlloc), efmp().allocated)
			<< "none was asked for";
	}
}

TEST_F(SendChecks, vsd__without_a_path_buffer_it_is_0)
{
	kernel().cwd = "/data/var/run/vsd/3";
	for (bool printing : { false, true }) {
		debug(printing);
		kernel().fail(Fail::kKmalloc);
		expect_sent({}, 60);
		Strings said = lines();
		ASSERT_EQ(said.size(), printing ? 3u : 1u);
		EXPECT_EQ(said[0], "<0>Failed to kmalloc buf.\n");
	}
	expect_send({}, -22, kSendmsgIll);
}

TEST_F(SendChecks, vsd__of_a_directory_without_a_path_is_0)
{
	kernel().cwd = "/data/var/run/vsd/3";
	kernel().cwd_renders = false;
	expect_sent({}, 60);
	EXPECT_EQ(kernel().text(), "");
}

// ---- the control buffer ----------------------------------------------------------------

TEST_F(SendChecks, control__lengths)
{
	debug();
	for (size_t len : { 0, 1, 12, 28, 47, 48, 49, 100, 4096 }) {
		SCOPED_TRACE(len);
		Bytes record = control_flags(MOX_SEND_BLOCK);
		record.resize(len, 0xff);
		kernel().log.clear();
		if (len >= 48) {
			expect_sent({ .control = record }, 60);
			EXPECT_EQ(last().header, SentHeader(60).put<u32>(60, 2).bytes)
				<< "what is behind it is not read";
			continue;
		}
		expect_send({ .control = record }, -22, kSendmsgIll);
		EXPECT_EQ(lines(),
			  (Strings{ "MOX-PACKET-SEND: process captured send pkt, len 60.\n",
				    "MOX-PACKET-SEND: msg controllen " + std::to_string(len) +
					    " illegal.\n" }));
	}
}

// Without a buffer a length is nothing.
TEST_F(SendChecks, control__a_length_without_a_buffer)
{
	for (size_t len : { 0, 47, 48 }) {
		msghdr msg;
		msg.controllen = len;
		msg.out = Bytes(60);
		EXPECT_EQ(mox_packet_sendmsg(&s.socket, &msg, 60), 60);
	}
}

TEST_F(SendChecks, control__lines)
{
	debug();
	mox_packet_ctrl_info record{};
	record.pkt_ifx = 8;
	record.pkt_origifx = 4294967295u;
	record.pkt_l2ifx = 12;
	record.pkt_dst_l2ifx = 13;
	record.inner_vid = 0xabcd;
	record.ex_inner_vlan = 0xf123;
	record.wlan_id = 0x1a2b;
	record.ap_wlan_id = 0xffff;
	record.radio_id = 0xfe;
	expect_sent({ .control = control(record) }, 60);
	EXPECT_EQ(
		lines(),
		(Strings{
			"MOX-PACKET-SEND: process captured send pkt, len 60.\n",
			"MOX-PACKET-SEND: ctrl pkt_ifx:8, pkt_origifx:4294967295, pkt_l2ifx:12, pkt_dst_l2ifx:13\n",
			"MOX-PACKET-SEND: ctrl eth_info.inner_vid:0xabc, ex_inner_vlan:0xf123.\n",
			"MOX-PACKET-SEND: ctrl wlan_id:0x1a2b, ap_wlan_id:0xffff, radio_id:0xfe.\n",
			"MOX-PACKET-SEND: send src intf: eth8, dst intf: no dst.\n",
			"MOX-PACKET-SEND: process captured send pkt " + efbuff_text +
				" in vsd 0 success.\n" }));
}

// The interfaces are printed together, when the record names a source.
TEST_F(SendChecks, source__line_only_with_a_source)
{
	debug();
	expect_sent({ .name = address(7) }, 60);
	EXPECT_EQ(lines(), (Strings{ "MOX-PACKET-SEND: process captured send pkt, len 60.\n",
				     "MOX-PACKET-SEND: process captured send pkt " + efbuff_text +
					     " in vsd 0 success.\n" }));
	expect_sent({ .name = address(7), .control = control_flags(0) }, 60);
	EXPECT_EQ(kernel().count_said("src intf"), 0u);
}

// ---- the name ------------------------------------------------------------------------------

TEST_F(SendChecks, name__lengths)
{
	debug();
	struct {
		size_t len;
		u8 mac_len;
		bool sound;
	} const cases[] = {
		{ 0, 6, false },    { 1, 6, false },    { 11, 6, false },    { 12, 0, false },
		{ 12, 6, false },   { 17, 5, false },   { 18, 6, false },    { 19, 0, false },
		{ 19, 6, false },   { 19, 7, false },   { 20, 0, true },     { 20, 5, true },
		{ 20, 6, true },    { 20, 8, true },    { 20, 9, false },    { 21, 9, true },
		{ 20, 255, false }, { 128, 116, true }, { 128, 117, false }, { 266, 255, false },
		{ 267, 255, true }, { 24, 6, true },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(testing::Message()
			     << c.len << " bytes with a MAC of " << int(c.mac_len));
		Bytes name = address(7, 0, c.mac_len);
		name.resize(c.len, 0x99);
		kernel().log.clear();
		if (c.sound) {
			expect_sent({ .name = name }, 60);
			EXPECT_EQ(last().field<u32>(8), port);
			continue;
		}
		expect_send({ .name = name }, -22, kSendmsgIll);
		EXPECT_EQ(lines(),
			  (Strings{ "MOX-PACKET-SEND: process captured send pkt, len 60.\n",
				    "MOX-PACKET-SEND: msg namelen " + std::to_string(c.len) +
					    " illegal.\n" }));
	}
}

TEST_F(SendChecks, name__other_fields_are_not_looked_at)
{
	Bytes name = address(7, 0xcc88);
	name[0] = 2;  // family
	name[8] = 99; // hardware type
	name[10] = 4; // packet type
	for (int type : { kRaw, kDgram }) {
		open(type);
		expect_sent({ .name = name }, 60);
	}
}

TEST_F(SendChecks, dst_mac__lengths_of_a_datagrams)
{
	open(kDgram);
	debug();
	for (u8 mac_len : { 0, 1, 5, 6, 7, 8 }) {
		kernel().log.clear();
		if (mac_len >= 6) {
			expect_sent({ .name = address(7, 0, mac_len) }, 60);
			continue;
		}
		expect_send({ .name = address(7, 0, mac_len) }, -22, kMacfuncIll);
		EXPECT_EQ(kernel().count_said(
				  "MOX-PACKET-SEND: sock_dgram but dst mac addr is null.\n"),
			  1u);
	}
	expect_send({}, -22, kMacfuncIll);
}

// ---- efbuffs and data --------------------------------------------------------------------------

TEST_F(SendChecks, alloc__longest_frame)
{
	efmp().longest = 1600;
	expect_sent({ .data = Bytes(1600) }, 1600);
	expect_send({ .data = Bytes(1601) }, -12, kAllocFails);
	open(kDgram);
	expect_sent({ .data = Bytes(1586), .name = address(7) }, 1586);
	expect_send({ .data = Bytes(1587), .name = address(7) }, -12, kAllocFails);
}

// A length that no efbuff can have is not even asked for.
TEST_F(SendChecks, alloc__lengths_that_overflow)
{
	struct {
		int type;
		size_t len;
		bool asked;
	} const cases[] = {
		{ kRaw, 0xffffffff, true },       { kRaw, 0x100000000, false },
		{ kRaw, 0x10000003c, false },     { kRaw, SIZE_MAX, false },
		{ kDgram, 0xfffffff1, true },     { kDgram, 0xfffffff2, false },
		{ kDgram, 0xffffffff, false },    { kDgram, 0x100000000, false },
		{ kDgram, SIZE_MAX - 13, false }, { kDgram, SIZE_MAX, false },
	};
	debug();
	for (auto &c : cases) {
		SCOPED_TRACE(testing::Message() << "type " << c.type << " length " << c.len);
		open(c.type);
		const uint64_t asked = kernel().calls(Fail::kEfbuffAlloc);
		expect_send({ .name = address(7), .len = c.len }, -12, kAllocFails);
		EXPECT_EQ(kernel().calls(Fail::kEfbuffAlloc) - asked, c.asked ? 1u : 0u);
		EXPECT_EQ(kernel().count_said("MOX-PACKET-SEND: alloc ebuff failed.\n"), 1u);
		kernel().log.clear();
	}
}

TEST_F(SendChecks, copy__faults_at_each_place)
{
	for (int type : { kRaw, kDgram }) {
		open(type);
		for (size_t len : { 1, 60, 1514 }) {
			for (size_t fault_at : { size_t{ 0 }, len / 2, len - 1 })
				expect_send({ .data = Bytes(len),
					      .name = address(7),
					      .fault_at = fault_at },
					    -14, kCopyFails);
			expect_sent({ .data = Bytes(len), .name = address(7), .fault_at = len },
				    len);
		}
		// Nothing to read cannot fault.
		expect_sent({ .data = Bytes(), .name = address(7), .fault_at = 0 }, 0);
	}
}

TEST_F(SendChecks, copy__a_message_shorter_than_its_length)
{
	expect_send({ .data = Bytes(59), .len = 60 }, -14, kCopyFails);
}

// An interface that goes and comes between two sends.
TEST_F(SendChecks, interfaces__are_looked_up_for_each_send)
{
	ASSERT_EQ(s.bind(8), 0);
	auto block = efmp().interfaces.extract(8);
	expect_send({}, -6, kDstintfIll);
	efmp().interfaces.insert(std::move(block));
	expect_sent({}, 60);
}

} // namespace
