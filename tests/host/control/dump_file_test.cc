// SPDX-License-Identifier: GPL-2.0-only
// The dump file: where it is, what stands in it, and what a long report loses.
#include "control_fixture.h"

namespace {

class TechDump : public ControlTest {
protected:
	void TearDown() override
	{
		socks.clear();
		ControlTest::TearDown();
	}
	// The files that one dump wrote, and what it logged.
	std::map<std::string, std::string> dump()
	{
		kernel().disk.clear();
		kernel().writes.clear();
		kernel().log.clear();
		pkt_tech_msg_deal();
		EXPECT_EQ(g_tech_dump, 0);
		EXPECT_EQ(g_tech_filp, nullptr);
		EXPECT_EQ(g_file_buff, nullptr);
		EXPECT_EQ(g_file_bufflen, 0u);
		return kernel().disk;
	}
	std::string text()
	{
		auto files = dump();
		EXPECT_EQ(files.size(), 1u);
		return files.empty() ? "" : files.begin()->second;
	}
	void open_sockets(int count, u32 location, bool shared_key = true)
	{
		for (int i = 0; i < count; i++) {
			auto s = std::make_unique<Sock>();
			kernel().pid = 1000 + socks.size();
			ASSERT_EQ(s->create(), 0);
			if (shared_key)
				ASSERT_EQ(s->add(PACKET_ALL), 0);
			else
				ASSERT_EQ(s->add(10, 1, u32_bytes(100 + socks.size())), 0);
			ASSERT_EQ(s->set(PACKET_TREATMENT, PACKET_COPY), 0);
			ASSERT_EQ(s->set(PACKET_LOCATION, location), 0);
			socks.push_back(std::move(s));
		}
		kernel().pid = 4711;
	}
	// The same reports as the file has, out of the log.
	static std::string from_log()
	{
		return printed([] {
			mox_printk(
				"**************** AF-PACKET DUMP REGULAR START ****************\n");
			for (u32 i = 0; i < 8; i++) {
				mox_packet_show_regular(i);
				mox_printk("\n");
			}
			mox_printk(
				"**************** AF-PACKET DUMP REGULAR END ****************\n");
			mox_printk("\n");
			mox_printk("**************** AF-PACKET DUMP MEM START ****************\n");
			mox_packet_dump_mem();
			mox_printk("**************** AF-PACKET DUMP MEM END ****************\n");
			mox_printk("\n");
		});
	}
	static size_t count(const std::string &text, const std::string &part)
	{
		size_t n = 0;
		for (size_t at = text.find(part); at != std::string::npos;
		     at = text.find(part, at + 1))
			n++;
		return n;
	}

	std::vector<std::unique_ptr<Sock>> socks;
};

// ---- the file ---------------------------------------------------------------------------

TEST_F(TechDump, path__of_the_callers_vsd)
{
	const struct {
		const char *cwd, *path;
	} cases[] = {
		{ "/root", "/tmp/vsd/0//ef/af_packet/afpacketdump" },
		{ "/data/var/run/vsd/0", "/tmp/vsd/0//ef/af_packet/afpacketdump" },
		{ "/data/var/run/vsd/5/x", "/tmp/vsd/5//ef/af_packet/afpacketdump" },
		{ "/data/var/run/vsd/17", "/tmp/vsd/17//ef/af_packet/afpacketdump" },
		{ "/data/var/run/vsd/2147483647",
		  "/tmp/vsd/2147483647//ef/af_packet/afpacketdump" },
		{ "/data/var/run/vsd/2147483648", "/tmp/vsd/0//ef/af_packet/afpacketdump" },
		{ "/data/var/run/vsdx/5", "/tmp/vsd/0//ef/af_packet/afpacketdump" },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.cwd);
		kernel().cwd = c.cwd;
		auto files = dump();
		ASSERT_EQ(files.size(), 1u);
		EXPECT_EQ(files.begin()->first, c.path);
	}
}

TEST_F(TechDump, path__without_a_working_directory_is_vsd_0s)
{
	kernel().cwd = "/data/var/run/vsd/5";
	kernel().cwd_renders = false;
	EXPECT_EQ(dump().begin()->first, "/tmp/vsd/0//ef/af_packet/afpacketdump");
	kernel().cwd_renders = true;
	kernel().fail(Fail::kKmalloc);
	EXPECT_EQ(dump().begin()->first, "/tmp/vsd/0//ef/af_packet/afpacketdump");
	EXPECT_EQ(said(), "Failed to kmalloc buf.\n");
}

TEST_F(TechDump, file__is_truncated_by_each_dump)
{
	const std::string path = "/tmp/vsd/0//ef/af_packet/afpacketdump";
	std::string first = text();
	kernel().disk[path] = std::string(1 << 20, 'o');
	pkt_tech_msg_deal();
	EXPECT_EQ(kernel().disk[path], first);
}

TEST_F(TechDump, file__every_report_and_nothing_in_the_log)
{
	open_sockets(2, PACKET_LEV2_LOC);
	open_sockets(1, PACKET_WLAN_LOC, false);
	std::string wanted = from_log();
	EXPECT_EQ(text(), wanted);
	EXPECT_EQ(said(), "");
	EXPECT_EQ(wanted.substr(0, 63),
		  "**************** AF-PACKET DUMP REGULAR START ****************\n");
	const std::string tail =
		"AF-PACKET free  0 skbs\n**************** AF-PACKET DUMP MEM END ****************\n\n";
	EXPECT_EQ(wanted.substr(wanted.size() - tail.size()), tail);
	EXPECT_EQ(count(wanted, "\n\n**************** AF-PACKET DUMP REGULAR END"), 1u);
	EXPECT_EQ(
		count(wanted,
		      "REGULAR END ****************\n\n**************** AF-PACKET DUMP MEM START"),
		1u);
}

// ---- failures -----------------------------------------------------------------------------

TEST_F(TechDump, open__failing_is_printed_while_debugging)
{
	kernel().cwd = "/data/var/run/vsd/5";
	for (bool on : { false, true }) {
		debug(on);
		kernel().fail(Fail::kFileOpen);
		EXPECT_TRUE(dump().empty());
		EXPECT_EQ(
			said(),
			on ? tagged("Failed to open file: /tmp/vsd/5//ef/af_packet/afpacketdump.\n")
			   : "");
	}
	EXPECT_EQ(kernel().calls(Fail::kVzalloc), 0u);
}

// What lies at the path may be another user's: only a plain file with one name is written, and
// nothing else loses its content.
TEST_F(TechDump, open__what_takes_a_dump)
{
	const std::string path = "/tmp/vsd/0//ef/af_packet/afpacketdump";
	const std::string line = "Failed to open file: " + path + ".\n";
	const struct {
		const char *what;
		bool opens, regular;
		u32 links;
		std::string content;
		bool truncates, dumped;
	} rows[] = {
		{ "no file yet", true, true, 1, "", true, true },
		{ "an empty one that cannot be truncated", true, true, 1, "", false, true },
		{ "a short file", true, true, 1, "old", true, true },
		{ "a file longer than the dump", true, true, 1, std::string(1 << 20, 'o'), true,
		  true },
		{ "a symbolic link", false, true, 1, "old", true, false },
		{ "a directory", false, false, 2, "", true, false },
		{ "a FIFO", true, false, 1, "", true, false },
		{ "a device", true, false, 1, "old", true, false },
		{ "a hard link", true, true, 2, "old", true, false },
		{ "a file with many names", true, true, ~0u, "old", true, false },
		{ "a file whose name is gone", true, true, 0, "old", true, false },
		{ "a file that cannot be truncated", true, true, 1, "old", false, false },
	};
	const std::string dumped = text();
	for (auto &row : rows) {
		for (bool on : { false, true }) {
			SCOPED_TRACE(row.what);
			debug(on);
			kernel().disk[path] = row.content;
			kernel().places[path] = { row.regular, row.links };
			kernel().writes.clear();
			kernel().log.clear();
			if (!row.opens)
				kernel().fail(Fail::kFileOpen);
			const bool truncated = row.opens && row.regular && row.links == 1 &&
					       !row.content.empty();
			if (!row.truncates && truncated)
				kernel().fail(Fail::kFileTruncate);
			const uint64_t cuts = kernel().calls(Fail::kFileTruncate);
			pkt_tech_msg_deal();
			EXPECT_EQ(kernel().disk[path], row.dumped ? dumped : row.content);
			EXPECT_EQ(kernel().writes.empty(), !row.dumped);
			EXPECT_EQ(said(), on && !row.dumped ? tagged(line) : "");
			EXPECT_EQ(kernel().calls(Fail::kFileTruncate) - cuts, truncated ? 1u : 0u)
				<< "truncated only when nothing speaks against it";
			EXPECT_TRUE(kernel().open_files.empty());
		}
	}
}

TEST_F(TechDump, buffer__failing_is_printed_and_the_file_closed)
{
	for (bool on : { false, true }) {
		debug(on);
		kernel().fail(Fail::kVzalloc);
		EXPECT_EQ(text(), "");
		EXPECT_EQ(said(), on ? tagged("Vmalloc file buff failed.\n") : "");
		EXPECT_TRUE(kernel().open_files.empty());
	}
}

TEST_F(TechDump, write__each_one_failing_loses_its_part_only)
{
	open_sockets(3, PACKET_LEV2_LOC);
	std::string whole = text();
	std::vector<size_t> writes = kernel().writes;
	ASSERT_GT(writes.size(), 8u);
	size_t at = 0;
	for (size_t i = 0; i < writes.size(); at += writes[i++]) {
		kernel().fail(Fail::kFileWrite, i + 1);
		EXPECT_EQ(text(), whole.substr(0, at) + whole.substr(at + writes[i]))
			<< "write " << i;
	}
}

// ---- staging ---------------------------------------------------------------------------------

// Queues; sockets; the filter list: a location's three parts are written one by one.
TEST_F(TechDump, flush__points_of_a_location)
{
	open_sockets(2, PACKET_LOCAL_LOC);
	std::string whole = text();
	const std::string head =
		"**************** AF-PACKET DUMP REGULAR START ****************\n"
		"location: PACKET_LOCAL_LOC\ncpu 0 efbuff cnt:      0\ncpu 1 efbuff cnt:      0\n\n";
	EXPECT_EQ(kernel().writes.at(0), head.size());
	const size_t sockets = whole.find("filter regular list") - 1 - head.size();
	EXPECT_EQ(kernel().writes.at(1), sockets);
	EXPECT_EQ(kernel().writes.at(2), 1u) << "the line between";
}

// 500 sockets at one location: 128 KiB of their reports are kept, whole lines only, and
// everything behind them.
TEST_F(TechDump, staging__sockets_of_a_location_beyond_it_are_lost)
{
	open_sockets(500, PACKET_IPv6_LOC);
	std::string wanted = from_log(), got = text();
	EXPECT_EQ(kernel().disk.size(), 1u);
	size_t largest = *std::max_element(kernel().writes.begin(), kernel().writes.end());
	EXPECT_LT(largest, kStagingSize);
	EXPECT_GT(largest, kStagingSize - 128) << "filled until no line fits";
	EXPECT_LT(got.size(), wanted.size());
	// The sockets' part of the log, cut where the buffer was full; later lines that
	// were short enough are there as well, so compare up to the first loss.
	const size_t from = wanted.find("location: PACKET_IPv6_LOC");
	const size_t first = wanted.find("\n------------ dump sock", from);
	EXPECT_EQ(got.substr(0, first + kStagingSize - 128),
		  wanted.substr(0, first + kStagingSize - 128));
	EXPECT_EQ(count(wanted, "dump sock"), 500u);
	const size_t kept = count(got, "dump sock");
	EXPECT_GT(kept, 100u);
	EXPECT_LT(kept, 200u);
	// What follows is complete: the filter list of that location, and the rest.
	const std::string list = "filter regular list cnt: 1\n";
	EXPECT_EQ(got.substr(got.find(list)), wanted.substr(wanted.find(list)));
	EXPECT_EQ(count(got, "    process:      captured\n"), 500u);
}

// Every line of the file is a line of the report: none is split.
TEST_F(TechDump, staging__lines_are_whole)
{
	open_sockets(300, PACKET_IPv4_LOC, false);
	std::set<std::string> lines;
	auto split = [](const std::string &text) {
		Strings out;
		size_t at = 0;
		for (size_t end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
			out.push_back(text.substr(at, end - at));
		EXPECT_EQ(at, text.size()) << "ends in a line end";
		return out;
	};
	// A type or datum and the words before it are printed one by one, and fit or are
	// dropped on their own.
	for (const std::string &line : split(from_log())) {
		lines.insert(line);
		if (line.rfind("regular type:  ", 0) == 0 || line.rfind("regular data:  ", 0) == 0)
			lines.insert({ line.substr(15), line.substr(0, 15) });
	}
	std::string got = text();
	EXPECT_GT(*std::max_element(kernel().writes.begin(), kernel().writes.end()),
		  kStagingSize - 128);
	for (const std::string &line : split(got))
		EXPECT_TRUE(lines.count(line)) << line;
}

// A filter list goes on behind each flush, at the same place.
TEST_F(TechDump, staging__filter_list_of_any_length_is_whole)
{
	for (bool shared : { true, false }) {
		SCOPED_TRACE(shared);
		open_sockets(3000, PACKET_IPv4_LOC, shared);
		std::string wanted = from_log(), got = text();
		const std::string list = "filter regular list cnt: " +
					 std::to_string(shared ? 1 : 3000) + "\n";
		ASSERT_NE(got.find(list), std::string::npos);
		EXPECT_EQ(got.substr(got.find(list)), wanted.substr(wanted.find(list)));
		EXPECT_GT(count(wanted, "    process: ") * 60, kStagingSize)
			<< "more than the buffer holds";
		for (size_t write : kernel().writes)
			EXPECT_LT(write, kStagingSize);
		socks.clear();
	}
}

// ---- the other CPUs ------------------------------------------------------------------------------

// The list shrinks between two batches of it: the report ends, with less.
TEST_F(TechDump, race__rules_that_go_between_two_batches)
{
	open_sockets(3000, PACKET_IPv4_LOC, false);
	int batches = 0;
	kernel().at[Point::kWrite] = [&](const void *) {
		batches++;
		while (socks.size() > 100 && kernel().writes.back() > kStagingSize / 2)
			socks.pop_back();
	};
	std::string got = text();
	kernel().at.clear();
	EXPECT_GT(batches, 10);
	EXPECT_NE(got.find("AF-PACKET DUMP MEM END"), std::string::npos);
	EXPECT_EQ(socks.size(), 100u);
}

// The list grows faster than it is printed, for as long as the report lasts: it ends all
// the same, about where the list ended at first.
TEST_F(TechDump, race__rules_that_come_between_two_batches)
{
	open_sockets(2000, PACKET_IPv4_LOC, true);
	int writes = 0;
	kernel().at[Point::kWrite] = [&](const void *) {
		ASSERT_LT(writes++, 100) << "a report without an end";
		if (kernel().writes.back() > kStagingSize / 2)
			open_sockets(1800, PACKET_IPv4_LOC, true);
	};
	std::string got = text();
	kernel().at.clear();
	EXPECT_GT(socks.size(), 5000u);
	EXPECT_NE(got.find("AF-PACKET DUMP MEM END"), std::string::npos);
	// 1800 came behind the sockets' part, and were there when the list began; one more
	// takes the place of the line that ended the key.
	EXPECT_LE(count(got, "    process: "), 3801u);
	EXPECT_GE(count(got, "    process: "), 3790u);
}

// A daemon asks for its socket's report while the file is written: the log has it, the
// file has nothing of it.
TEST_F(TechDump, race__socket_report_of_another_task)
{
	open_sockets(1, PACKET_LEV2_LOC);
	std::string undisturbed = text();
	Sock other;
	kernel().comm = "other";
	ASSERT_EQ(other.create(), 0);
	kernel().comm = "captured";
	const std::string report = printed([&] { mox_packet_sock_dump(&other.po()); });
	int asked = 0;
	kernel().at[Point::kWrite] = [&](const void *) {
		kernel().pid = 9999;
		EXPECT_EQ(other.setsockopt(MOX_PACKET_DUMP_SOCKET, u32_bytes(0)), 0);
		kernel().pid = 4711;
		asked++;
	};
	std::string got = text();
	kernel().at.clear();
	EXPECT_EQ(got, undisturbed);
	ASSERT_GT(asked, 10);
	std::string log = said();
	EXPECT_EQ(count(log, report), static_cast<size_t>(asked));
	EXPECT_EQ(log.size(), report.size() * asked);
}

// ---- the request -----------------------------------------------------------------------------------

TEST_F(TechDump, request__file_first_then_the_answer)
{
	std::string at_answer;
	kernel().fault = [&](Fail call) {
		if (call == Fail::kGenlAlloc)
			at_answer = kernel().disk["/tmp/vsd/0//ef/af_packet/afpacketdump"];
		return false;
	};
	ask(16);
	kernel().fault = nullptr;
	EXPECT_NE(at_answer.find("AF-PACKET DUMP MEM END"), std::string::npos);
	EXPECT_EQ(kernel().answers.size(), 1u);
	EXPECT_EQ(said(), "");
}

} // namespace
