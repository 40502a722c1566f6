// SPDX-License-Identifier: GPL-2.0-only
/* Rates and metrics as whole commands. */
#include "commands_fixture.h"
#include "expect_error.h"
#include "fake_capture.h"

#include <nlohmann/json.hpp>

#include <set>

namespace {

using nlohmann::json;

class Watch : public Commands {
protected:
	FakeCapture module{ netlink };
	std::uint64_t frames = 0;

	void SetUp() override
	{
		Commands::SetUp();
		options.action = Action::kWatch;
		options.interval = 2;
		options.count = 1;
		stopped = nullptr;
		grow(0);
		// 200 frames more in two seconds, of which a quarter is lost.
		on_sleep = [this] { grow(200); };
	}
	void grow(std::uint64_t more)
	{
		frames += more;
		auto location = sample_location();
		location.u64(MOX_CAPTURE_LOCATION_SEEN, 1000 + frames)
			.u64(MOX_CAPTURE_LOCATION_WANTED, 300 + frames)
			.u64(MOX_CAPTURE_LOCATION_KEPT, 270 + frames * 3 / 4)
			.u64(MOX_CAPTURE_LOCATION_COPIES_REFUSED, 12 + frames / 4);
		module.entries[MOX_CAPTURE_CMD_LOCATIONS] = { location,
							      sample_location(PACKET_LEV2_LOC, 0) };
		std::vector<Attributes> sockets;
		for (std::uint64_t i = 1; i <= 12; ++i) {
			auto counters = sample_counters();
			counters.u64(MOX_CAPTURE_COUNTERS_MATCHED, 100 + frames * i)
				.u64(MOX_CAPTURE_COUNTERS_READ, 87 + frames)
				.u64(MOX_CAPTURE_COUNTERS_FILTER_DROPS, frames / 2);
			sockets.push_back(
				sample_socket(i).nest(MOX_CAPTURE_SOCKET_COUNTERS, counters));
		}
		module.entries[MOX_CAPTURE_CMD_SOCKETS] = sockets;
	}
	json document()
	{
		options.json = true;
		EXPECT_EQ(run(), moxctl::status_ok);
		EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1);
		return json::parse(printed);
	}
};

TEST_F(Watch, rates)
{
	json found = document();
	EXPECT_DOUBLE_EQ(found["seconds"], 2);
	ASSERT_EQ(found["locations"].size(), 1u);
	EXPECT_EQ(found["locations"][0], (json{ { "location", "PACKET_LEV2_LOC" },
						{ "seen", 100.0 },
						{ "wanted", 100.0 },
						{ "kept", 75.0 },
						{ "lost", 25.0 },
						{ "queued", 4 } }));
	ASSERT_EQ(found["sockets"].size(), 10u);
	EXPECT_EQ(found["sockets"][0]["cookie"], 12);
	EXPECT_DOUBLE_EQ(found["sockets"][0]["matched"], 1200);
	EXPECT_DOUBLE_EQ(found["sockets"][0]["read"], 100);
	EXPECT_DOUBLE_EQ(found["sockets"][0]["dropped"], 50);
	EXPECT_EQ(found["sockets"][9]["cookie"], 3);
}

TEST_F(Watch, a_new_socket_has_no_rate_yet)
{
	on_sleep = [this] { module.entries[MOX_CAPTURE_CMD_SOCKETS] = { sample_socket(99) }; };
	EXPECT_EQ(document()["sockets"], json::array());
}

TEST_F(Watch, a_sum_that_seems_to_shrink_has_rate_0)
{
	on_sleep = [this] {
		module.entries[MOX_CAPTURE_CMD_LOCATIONS] = { sample_location().u64(
			MOX_CAPTURE_LOCATION_SEEN, 1) };
	};
	EXPECT_DOUBLE_EQ(document()["locations"][0]["seen"], 0);
}

TEST_F(Watch, locations_without_a_hook_have_no_rates)
{
	on_sleep = nullptr;
	module.entries[MOX_CAPTURE_CMD_LOCATIONS].push_back(
		Attributes().u32(MOX_CAPTURE_LOCATION_LOCATION, PACKET_LEV2_RESV_LOC));
	EXPECT_EQ(document()["locations"].size(), 1u);
}

TEST_F(Watch, text)
{
	options.count = 2;
	EXPECT_EQ(run(), moxctl::status_ok);
	std::string head = "LOCATION  SEEN/s  WANTED/s  DELIVERED/s  LOST/s  QUEUED\n"
			   "lev2       100.0     100.0         75.0    25.0       4\n";
	EXPECT_EQ(printed.find(head), 0u) << printed;
	EXPECT_NE(printed.find(head, 1), std::string::npos) << "the second one";
	EXPECT_NE(
		printed.find(
			"\narpwatch  412      12  lev2         1200.0   100.0       50.0       3\n"),
		std::string::npos)
		<< printed;
	EXPECT_EQ(printed.find('\x1b'), std::string::npos);
	EXPECT_EQ(flushes, 2u);
}

TEST_F(Watch, on_a_terminal_in_place)
{
	terminal = true;
	options.count = 2;
	run();
	EXPECT_EQ(printed.find("\x1b[H\x1b[J"), 0u);
	EXPECT_NE(printed.find("\x1b[H\x1b[J", 1), std::string::npos);
}

TEST_F(Watch, ends_at_a_signal)
{
	options.count = 0;
	int sleeps = 0;
	on_sleep = [&] { ++sleeps; };
	stopped = [&] { return sleeps == 3; };
	options.json = true;
	EXPECT_EQ(run(), moxctl::status_ok);
	EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 2);
}

TEST_F(Watch, a_signal_while_a_sample_is_received_ends_it_without_a_wait)
{
	options.count = 0;
	int sleeps = 0;
	on_sleep = [&] { ++sleeps; };
	stopped = [&] { return flushes > 0; };
	EXPECT_EQ(run(), moxctl::status_ok);
	EXPECT_EQ(sleeps, 1);
}

TEST_F(Watch, a_selection_is_sent)
{
	options.selection = { .location = 2, .pid = 412 };
	run();
	std::set<unsigned> commands;
	for (const auto &request : module.requests) {
		commands.insert(request.command);
		bool hooks = request.command == MOX_CAPTURE_CMD_LOCATIONS;
		EXPECT_EQ(request.attributes.at(MOX_CAPTURE_REQUEST_LOCATION),
			  payload_of<std::uint32_t>(2));
		EXPECT_EQ(request.attributes.contains(MOX_CAPTURE_REQUEST_PID), !hooks);
	}
	EXPECT_EQ(commands,
		  (std::set<unsigned>{ MOX_CAPTURE_CMD_LOCATIONS, MOX_CAPTURE_CMD_SOCKETS }));
}

class MetricsFile : public Watch {
protected:
	fs::path file;

	void SetUp() override
	{
		Watch::SetUp();
		options.action = Action::kMetrics;
		file = root / "mox.prom";
		options.output = file.string();
		module.entries[MOX_CAPTURE_CMD_THREAD] = { sample_thread() };
		module.entries[MOX_CAPTURE_CMD_INFO] = { sample_info() };
	}
	std::size_t files() const
	{
		return static_cast<std::size_t>(
			std::distance(fs::directory_iterator(root), fs::directory_iterator()));
	}
};

TEST_F(MetricsFile, is_replaced_as_a_whole)
{
	std::ofstream(file) << "old";
	fs::create_hard_link(file, root / "reader");
	std::size_t before = files();
	EXPECT_EQ(run(), moxctl::status_ok);
	EXPECT_EQ(printed, "");
	std::string text = contents(file);
	EXPECT_TRUE(text.starts_with("# HELP mox_capture_build ")) << text.substr(0, 100);
	EXPECT_TRUE(text.ends_with("\n# EOF\n"));
	EXPECT_EQ(contents(root / "reader"), "old") << "a reader of the old file";
	EXPECT_EQ(files(), before) << "nothing else is left";
	EXPECT_EQ(fs::status(file).permissions(), static_cast<fs::perms>(0644));
}

TEST_F(MetricsFile, stays_when_something_fails)
{
	std::ofstream(file) << "old";
	std::size_t before = files();
	module.error = EPERM;
	expect_error<Failure>([this] { run(); }, { "CAP_NET_ADMIN" });
	module.error = 0;
	module.interrupted = 100;
	EXPECT_EQ(run(), moxctl::status_incomplete);
	EXPECT_NE(complaints.find("nothing was written"), std::string::npos);
	EXPECT_EQ(contents(file), "old");
	EXPECT_EQ(files(), before);
}

TEST_F(MetricsFile, that_cannot_be_written)
{
	options.output = (root / "no/such/file").string();
	expect_error<Failure>([this] { run(); }, { "no/such/file", "No such file" });
	fs::create_directory(root / "directory");
	fs::create_directory(root / "directory/full");
	std::size_t before = files();
	options.output = (root / "directory").string();
	expect_error<Failure>([this] { run(); }, { "cannot write", "directory" });
	EXPECT_EQ(files(), before) << "nothing is left beside it";
}

TEST_F(MetricsFile, more_sockets_than_series)
{
	auto &sockets = module.entries[MOX_CAPTURE_CMD_SOCKETS];
	while (sockets.size() < 1003)
		sockets.push_back(sample_socket(100 + sockets.size()));
	EXPECT_EQ(run(), moxctl::status_ok);
	EXPECT_NE(complaints.find("more than 1000 sockets: 3 of them"), std::string::npos)
		<< complaints;
}

} // namespace
