/* SPDX-License-Identifier: GPL-2.0-only */
/* The dump as a whole command against a fake module, and where its file is. */
#include "commands_fixture.h"
#include "dump_file.h"
#include "expect_error.h"

#include <sys/stat.h>
#include <unistd.h>

namespace {

TEST_F(Commands, tech__prints_the_file)
{
	options.action = Action::kTech;
	will_write(dump_file_text());
	EXPECT_EQ(run(), moxctl::status_ok) << complaints;
	EXPECT_EQ(printed, dump_file_text());
	EXPECT_EQ(complaints, "");
}

TEST_F(Commands, tech__removes_an_old_file_and_saves_the_new_one)
{
	options.action = Action::kTech;
	options.output = root / "saved";
	will_write(dump_file_text());
	fs::create_directories(root / "tmp/vsd/0/ef/af_packet");
	std::ofstream(root / "tmp/vsd/0/ef/af_packet/afpacketdump") << "old";
	EXPECT_EQ(run(), moxctl::status_ok) << complaints;
	EXPECT_EQ(printed, "");
	EXPECT_EQ(contents(options.output), dump_file_text());
}

TEST_F(Commands, tech__of_a_virtual_switch_device)
{
	options.action = Action::kTech;
	directory = "/data/var/run/vsd/5/here";
	will_write(dump_file_text(), "5");
	EXPECT_EQ(run(), moxctl::status_ok) << complaints;
	EXPECT_EQ(printed, dump_file_text());
}

TEST_F(Commands, tech__a_dump_with_dropped_lines_is_saved_and_called_incomplete)
{
	options.action = Action::kTech;
	std::string text = dump_file_text();
	std::size_t at = text.find("sk refcnt");
	text.erase(at, text.find('\n', at) + 1 - at);
	will_write(text);
	EXPECT_EQ(run(), moxctl::status_incomplete);
	EXPECT_EQ(printed, text);
	EXPECT_NE(complaints.find("the dump is incomplete: a socket of process \"arpwatch\""),
		  std::string::npos)
		<< complaints;
	EXPECT_NE(complaints.find("moxctl show rules LOCATION"), std::string::npos) << complaints;
}

TEST_F(Commands, tech__only_a_terminal_is_kept_from_control_characters)
{
	options.action = Action::kTech;
	std::string text = dump_file_text();
	// A process names itself, with an escape sequence, C1's CSI in UTF-8 or any bytes.
	const std::string name = "arpwatch", evil = "\x1b[2J\xc2\x9b"
						    "H\xff";
	const std::string safe = "\\x1b[2J\\xc2\\x9bH\\xff";
	std::size_t at = text.find(name);
	ASSERT_NE(at, std::string::npos);
	std::string shown = text;
	shown.replace(at, name.size(), safe);
	text.replace(at, name.size(), evil);
	will_write(text);

	run();
	EXPECT_EQ(printed, text) << "a pipe gets what the module wrote";
	printed.clear();
	terminal = true;
	run();
	EXPECT_EQ(printed, shown);
	printed.clear();
	options.output = root / "saved";
	run();
	EXPECT_EQ(contents(options.output), text);
	EXPECT_EQ(printed, "");
}

TEST_F(Commands, tech__a_line_that_was_cut_gets_no_end)
{
	options.action = Action::kTech;
	terminal = true;
	will_write("one\n\ntwo\x07");
	run();
	EXPECT_EQ(printed, "one\n\ntwo\\x07");
}

TEST_F(Commands, tech__no_file)
{
	options.action = Action::kTech;
	expect_error<Failure>([this] { run(); },
			      { "wrote no file", "/tmp/vsd/0//ef/af_packet/afpacketdump",
				"debug on" });
}

TEST_F(Commands, tech__an_empty_file)
{
	options.action = Action::kTech;
	will_write("");
	expect_error<Failure>([this] { run(); }, { "wrote nothing", "memory" });
}

TEST_F(Commands, tech__no_answer_in_time)
{
	options.action = Action::kTech;
	netlink.answers_tech = false;
	try {
		run();
		ADD_FAILURE() << "it ended";
	} catch (const Failure &failure) {
		EXPECT_EQ(failure.status(), moxctl::status_timeout);
		EXPECT_NE(std::string(failure.what()).find("within 50 ms"), std::string::npos)
			<< failure.what();
	}
}

TEST_F(Commands, tech__an_answer_that_comes_late)
{
	options.action = Action::kTech;
	options.timeout = 5;
	netlink.answers_tech = false;
	will_write(dump_file_text());
	auto write = netlink.on_request;
	bool acknowledged = false;
	netlink.on_request = [&](const Bytes &payload) {
		write(payload);
		// Behind the acknowledgement, in a datagram of its own.
		netlink.acknowledges = false;
		netlink.queue(FakeNetlink::acknowledgement(2, 0));
		netlink.queue(netlink_message(FakeNetlink::family, 0, 0, 4711,
					      { 0, 1, 0, 0, 4, 0, 1, 0 }));
		acknowledged = true;
	};
	EXPECT_EQ(run(), moxctl::status_ok) << complaints;
	EXPECT_TRUE(acknowledged);
}

TEST_F(Commands, tech__directories_in_the_way)
{
	options.action = Action::kTech;
	std::ofstream(root / "tmp/vsd") << "a file";
	expect_error<Failure>([this] { run(); }, { "tmp/vsd is no directory", "remove it" });
	EXPECT_TRUE(netlink.payloads.empty()) << "asked although there is no place for the file";
	fs::remove(root / "tmp/vsd");
	fs::create_directory(root / "elsewhere");
	fs::create_directory_symlink(root / "elsewhere", root / "tmp/vsd");
	expect_error<Failure>([this] { run(); }, { "tmp/vsd is no directory" });
	EXPECT_TRUE(fs::is_empty(root / "elsewhere"));
}

TEST_F(Commands, tech__output_that_cannot_be_written)
{
	options.action = Action::kTech;
	options.output = root / "no/such/directory";
	will_write(dump_file_text());
	expect_error<Failure>([this] { run(); },
			      { "cannot write", "no/such/directory", "No such file" });
	options.output = "/dev/full";
	will_write(dump_file_text());
	expect_error<Failure>([this] { run(); }, { "cannot write /dev/full", "No space" });
}

TEST(ctl_dump_file, vsd_of_a_directory__as_the_module_counts)
{
	struct {
		const char *directory;
		std::uint32_t vsd;
	} const cases[] = {
		{ "/", 0 },
		{ "", 0 },
		{ "/root", 0 },
		{ "/data/var/run/vsd", 0 },
		{ "/data/var/run/vsd/", 0 },
		{ "/data/var/run/vsd/5", 5 },
		{ "/data/var/run/vsd/5/", 5 },
		{ "/data/var/run/vsd/12/deep/down", 12 },
		{ "/data/var/run/vsd/7x", 7 },
		{ "/data/var/run/vsd/x7", 0 },
		{ "/data/var/run/vsd/-1", 0 },
		{ "/data/var/run/vsd/2147483647", 2147483647 },
		{ "/data/var/run/vsd/2147483648", 0 },
		{ "/data/var/run/vsd/4294967299", 3 },
		{ "/x/data/var/run/vsd/5", 0 },
	};
	for (const auto &each : cases)
		EXPECT_EQ(moxctl::vsd_of(each.directory), each.vsd) << each.directory;
}

TEST(ctl_dump_file, path_has_the_double_slash)
{
	EXPECT_EQ(moxctl::DumpFile(0).path(), "/tmp/vsd/0//ef/af_packet/afpacketdump");
	EXPECT_EQ(moxctl::DumpFile(12, "/x").path(), "/x/tmp/vsd/12//ef/af_packet/afpacketdump");
}

TEST(ctl_dump_file, working_directory)
{
	EXPECT_EQ(moxctl::working_directory(), fs::current_path().string());
}

} // namespace
