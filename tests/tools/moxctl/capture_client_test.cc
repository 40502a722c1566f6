// SPDX-License-Identifier: GPL-2.0-only
/* Requests to "mox_capture" and their answers, message by message. */
#include "capture_client.h"
#include "expect_error.h"
#include "fake_capture.h"
#include "mox_version.h"

#include <limits>
#include <random>

namespace {

using moxctl::CaptureClient;
using moxctl::CaptureRequest;
using moxctl::Dump;
using moxctl::Failure;
using moxctl::Record;

class Family : public testing::Test {
protected:
	FakeNetlink netlink;
	FakeCapture module{ netlink };
	static constexpr std::chrono::milliseconds timeout{ 50 };

	CaptureClient client() { return CaptureClient::find_or_fail(netlink, timeout); }
	void add_sockets(std::uint64_t count)
	{
		for (std::uint64_t i = 1; i <= count; ++i)
			module.entries[MOX_CAPTURE_CMD_SOCKETS].push_back(sample_socket(i));
	}
};

TEST_F(Family, find__without_the_family)
{
	netlink.on_capture = nullptr;
	EXPECT_FALSE(CaptureClient::find(netlink, timeout));
	expect_error<Failure>([this] { client(); },
			      { "mox_capture", "mox_ef_socket.ko", "as new as", "nsenter" });
}

TEST_F(Family, request__to_the_byte)
{
	CaptureRequest request;
	request.add(MOX_CAPTURE_REQUEST_LOCATION, 2);
	request.add(MOX_CAPTURE_REQUEST_COOKIE, 0x0102030405060708);
	CaptureClient one = client();
	one.dump(MOX_CAPTURE_CMD_SOCKETS, request);
	Bytes expected;
	put<std::uint32_t>(expected, 40);
	put<std::uint16_t>(expected, 0x1c);
	put<std::uint16_t>(expected, 0x301); // request, dump
	put<std::uint32_t>(expected, 2);
	put<std::uint32_t>(expected, 4711);
	for (std::uint8_t byte : { 3, 1, 0, 0 })
		expected.push_back(byte);
	put<std::uint16_t>(expected, 8);
	put<std::uint16_t>(expected, 1);
	put<std::uint32_t>(expected, 2);
	put<std::uint16_t>(expected, 12);
	put<std::uint16_t>(expected, 3);
	put<std::uint64_t>(expected, 0x0102030405060708);
	EXPECT_EQ(netlink.datagrams.back(), expected);
}

TEST_F(Family, request__every_number_has_the_width_of_the_header)
{
	for (const moxctl::AttributeRow &row : moxctl::attributes_of(moxctl::Set::kRequest)) {
		std::size_t width = moxctl::width_of(row.kind);
		if (width == 0)
			continue;
		CaptureRequest request;
		request.add(static_cast<mox_capture_request_attr>(row.number), 0x7f);
		EXPECT_EQ(request.attributes()[0], 4 + width) << row.name;
		if (width < 8)
			expect_error<Failure>(
				[&] {
					request.add(
						static_cast<mox_capture_request_attr>(row.number),
						std::uint64_t{ 1 } << (8 * width));
				},
				{ "does not hold" });
	}
}

TEST_F(Family, dump__however_it_is_split)
{
	for (std::uint64_t count : { 0u, 1u, 2u, 7u })
		for (std::size_t per_datagram : { 1u, 2u, 3u, 100u }) {
			module.entries.clear();
			add_sockets(count);
			module.per_datagram = per_datagram;
			netlink.foreign_messages = true;
			Dump dump = client().dump(MOX_CAPTURE_CMD_SOCKETS);
			ASSERT_EQ(dump.entries.size(), count);
			EXPECT_FALSE(dump.interrupted);
			for (std::uint64_t i = 0; i < count; ++i)
				EXPECT_EQ(dump.entries[i].number(MOX_CAPTURE_SOCKET_COOKIE), i + 1);
		}
}

TEST_F(Family, dump__is_requested_again_when_it_changed)
{
	add_sockets(3);
	module.interrupted = 2;
	Dump dump = client().dump(MOX_CAPTURE_CMD_SOCKETS);
	EXPECT_FALSE(dump.interrupted);
	EXPECT_EQ(dump.entries.size(), 3u);
	EXPECT_EQ(module.requests.size(), 3u);
}

TEST_F(Family, dump__is_requested_five_times_at_most)
{
	add_sockets(3);
	module.interrupted = 1000;
	Dump dump = client().dump(MOX_CAPTURE_CMD_SOCKETS);
	EXPECT_TRUE(dump.interrupted);
	EXPECT_EQ(dump.entries.size(), 3u);
	EXPECT_EQ(module.requests.size(), 5u);
}

TEST_F(Family, dump__has_a_limit)
{
	const Attributes entry = Attributes().u32(MOX_CAPTURE_QUEUE_CPU, 1);
	module.per_datagram = 1000;
	auto &queues = module.entries[MOX_CAPTURE_CMD_QUEUES];
	queues.assign(moxctl::kMostEntries, entry);
	EXPECT_EQ(client().dump(MOX_CAPTURE_CMD_QUEUES).entries.size(), moxctl::kMostEntries);
	queues.push_back(entry);
	expect_error<Failure>([this] { client().dump(MOX_CAPTURE_CMD_QUEUES); },
			      { "more than 131072 entries" });
}

TEST_F(Family, errors__have_the_remedy_and_the_kernels_text)
{
	struct {
		int error;
		const char *text;
		std::vector<const char *> expected;
	} const cases[] = {
		{ EPERM, "", { "sockets", "Operation not permitted", "CAP_NET_ADMIN", "root" } },
		{ EINVAL, "no such location", { "Invalid argument", "(no such location)" } },
		{ EOPNOTSUPP, "", { "older than this moxctl" } },
	};
	for (const auto &each : cases)
		for (bool capped : { true, false }) {
			module.error = each.error;
			module.error_text = each.text;
			module.capped = capped;
			std::string what;
			try {
				client().dump(MOX_CAPTURE_CMD_SOCKETS);
			} catch (const Failure &failure) {
				what = failure.what();
			}
			for (const char *part : each.expected)
				EXPECT_NE(what.find(part), std::string::npos) << what;
		}
}

TEST_F(Family, errors__an_older_module__names_the_feature_and_the_version)
{
	module.error = EOPNOTSUPP;
	module.entries[MOX_CAPTURE_CMD_INFO] = { Attributes().text(MOX_CAPTURE_INFO_MODULE_VERSION,
								   "0.7") };
	struct {
		mox_capture_cmd command;
		const char *feature;
	} const cases[] = {
		{ MOX_CAPTURE_CMD_TRACE_START, "lacks the feature \"trace\"" },
		{ MOX_CAPTURE_CMD_RESTRICT, "lacks the feature \"restrict\"" },
		{ MOX_CAPTURE_CMD_THREAD, "" },
	};
	for (const auto &each : cases) {
		module.error_of = each.command;
		expect_error<Failure>([&] { client().ask(each.command); },
				      { "older than this moxctl", each.feature,
					"its version is 0.7", "load one of version " MOX_VERSION });
	}
	// A module that does not even describe itself: what was asked for is what is reported.
	module.error_of = 0;
	expect_error<Failure>([&] { client().ask(MOX_CAPTURE_CMD_RESTRICT); },
			      { "the request \"restrict\"",
				"lacks the feature \"restrict\": load" });
}

TEST_F(Family, errors__a_fifth_trace)
{
	module.error = EBUSY;
	expect_error<Failure>([this] { client().start_trace({}, [](const Record &) {}); },
			      { "trace_start", "4 traces" });
}

TEST_F(Family, errors__at_the_end_of_a_dump)
{
	netlink.on_capture = [this](const Bytes &datagram) {
		std::uint32_t sequence;
		std::memcpy(&sequence, datagram.data() + 8, sizeof(sequence));
		Bytes body;
		put<std::int32_t>(body, -ENOMEM);
		Attributes text;
		text.text(1, "too many sockets");
		body.insert(body.end(), text.bytes().begin(), text.bytes().end());
		netlink.queue(netlink_message(3, 0x202, sequence, FakeNetlink::own_port, body));
	};
	expect_error<Failure>([this] { client().dump(MOX_CAPTURE_CMD_SOCKETS); },
			      { "Cannot allocate memory", "(too many sockets)" });
}

TEST_F(Family, errors__a_number_that_has_no_positive_one)
{
	for (std::uint16_t type : { 2, 3 }) { // an acknowledgement, the end of a dump
		netlink.on_capture = [&](const Bytes &datagram) {
			std::uint32_t sequence;
			std::memcpy(&sequence, datagram.data() + 8, sizeof(sequence));
			Bytes body;
			put<std::int32_t>(body, std::numeric_limits<std::int32_t>::min());
			body.resize(4 + 16);
			netlink.queue(
				netlink_message(type, 0, sequence, FakeNetlink::own_port, body));
		};
		expect_error<Failure>([this] { client().dump(MOX_CAPTURE_CMD_SOCKETS); },
				      { "Unknown error" });
	}
}

TEST_F(Family, silence_ends_in_a_time_out)
{
	module.silent = true;
	for (bool dump : { true, false }) {
		try {
			if (dump)
				client().dump(MOX_CAPTURE_CMD_SOCKETS);
			else
				client().ask(MOX_CAPTURE_CMD_INFO);
			ADD_FAILURE() << "it ended";
		} catch (const Failure &failure) {
			EXPECT_EQ(failure.status(), moxctl::status_timeout);
		}
	}
}

TEST_F(Family, ask__one_answer)
{
	module.entries[MOX_CAPTURE_CMD_THREAD] = { sample_thread() };
	netlink.foreign_messages = true;
	Record thread = client().ask(MOX_CAPTURE_CMD_THREAD);
	EXPECT_EQ(thread.text(MOX_CAPTURE_THREAD_NAME), "packet-copy");
	EXPECT_EQ(module.last().flags, 5); // request, acknowledge
}

TEST_F(Family, ask__an_acknowledgement_alone)
{
	CaptureRequest request;
	request.add(MOX_CAPTURE_REQUEST_RESTRICT, 1);
	Record nothing = client().ask(MOX_CAPTURE_CMD_RESTRICT, request);
	EXPECT_EQ(nothing.set(), moxctl::Set::kNone);
	EXPECT_EQ(module.last().attributes.at(MOX_CAPTURE_REQUEST_RESTRICT), Bytes{ 1 });

	module.no_reply = true;
	expect_error<Failure>([this] { client().ask(MOX_CAPTURE_CMD_INFO); },
			      { "info", "sent no answer" });
}

Attributes part_of_rule(std::uint64_t cookie, std::uint8_t value, bool more)
{
	Attributes part = sample_rule_head(cookie);
	part.nest(MOX_CAPTURE_RULE_VALUE, sample_value(PACKET_IPv4_PROT_EQUAL, { value }, value));
	if (more)
		part.flag(MOX_CAPTURE_RULE_MORE);
	return part;
}

TEST_F(Family, rules__in_several_messages_are_joined)
{
	module.entries[MOX_CAPTURE_CMD_RULES] = {
		part_of_rule(1, 1, false), part_of_rule(2, 2, true), part_of_rule(2, 3, true),
		part_of_rule(2, 4, false), part_of_rule(3, 5, false)
	};
	for (std::size_t per_datagram : { 1u, 2u, 5u }) {
		module.per_datagram = per_datagram;
		Dump rules = client().dump_rules();
		ASSERT_EQ(rules.entries.size(), 3u);
		EXPECT_FALSE(rules.interrupted);
		ASSERT_EQ(rules.entries[1].nests().size(), 3u);
		for (unsigned i = 0; i < 3; ++i)
			EXPECT_EQ(rules.entries[1].nests()[i].record.number(MOX_CAPTURE_VALUE_HITS),
				  i + 2);
	}
}

TEST_F(Family, rules__whose_rest_is_missing)
{
	const std::vector<Attributes> cases[] = {
		{ part_of_rule(1, 1, true), part_of_rule(2, 2, false) },
		{ part_of_rule(1, 1, false), part_of_rule(2, 2, true) },
	};
	for (const auto &each : cases) {
		module.entries[MOX_CAPTURE_CMD_RULES] = each;
		Dump rules = client().dump_rules();
		EXPECT_EQ(rules.entries.size(), 2u);
		EXPECT_TRUE(rules.interrupted);
	}
}

TEST_F(Family, a_broken_entry_ends_the_dump)
{
	module.entries[MOX_CAPTURE_CMD_SOCKETS] = { sample_socket(), Attributes().u32(1, 17) };
	expect_error<Failure>([this] { client().dump(MOX_CAPTURE_CMD_SOCKETS); },
			      { "COOKIE", "4 bytes instead of 8", "SOCKET" });
}

TEST_F(Family, trace__records_before_and_after_the_acknowledgement)
{
	module.events = { sample_trace(), sample_trace() };
	unsigned events = 0;
	CaptureClient one = client();
	netlink.queue(netlink_message(FakeNetlink::capture_family, 0, 0, FakeNetlink::own_port, [] {
		Bytes body = { MOX_CAPTURE_CMD_TRACE, 1, 0, 0 };
		Attributes event = sample_trace();
		body.insert(body.end(), event.bytes().begin(), event.bytes().end());
		return body;
	}()));
	one.start_trace({}, [&](const Record &) { ++events; });
	EXPECT_EQ(events, 1u);
	for (int i = 0; i < 3; ++i)
		EXPECT_FALSE(one.receive_events(std::chrono::milliseconds(1)));
	EXPECT_EQ(events, 3u);
}

TEST_F(Family, random_datagrams_do_no_harm)
{
	std::mt19937 random(3);
	for (int round = 0; round < 3000; ++round) {
		netlink.on_capture = [&](const Bytes &datagram) {
			Bytes answer(random() % 100);
			for (std::uint8_t &byte : answer)
				byte = static_cast<std::uint8_t>(random());
			// Often a message of the family, or an end or error, with the right number.
			if (answer.size() >= 20 && random() % 8) {
				const std::uint16_t types[] = { FakeNetlink::capture_family, 2, 3 };
				std::uint32_t length = static_cast<std::uint32_t>(answer.size() -
										  random() % 4);
				std::uint16_t type = types[random() % 3];
				std::memcpy(answer.data(), &length, 4);
				std::memcpy(answer.data() + 4, &type, 2);
				std::memcpy(answer.data() + 8, datagram.data() + 8, 4);
			}
			netlink.queue(answer);
			Bytes done(20);
			const std::uint32_t head[] = { 20, 3 };
			std::memcpy(done.data(), head, sizeof(head));
			std::memcpy(done.data() + 8, datagram.data() + 8, 4);
			netlink.queue(done);
		};
		try {
			CaptureClient one = client();
			one.dump(MOX_CAPTURE_CMD_SOCKETS);
		} catch (const Failure &) {
		}
		while (!netlink.receive(std::chrono::milliseconds(0)).empty())
			;
	}
}

} // namespace
