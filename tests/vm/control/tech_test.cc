// SPDX-License-Identifier: GPL-2.0-only
// The dump file: where it lies, that it reads as the log would, what a full staging buffer loses, and the answer.
#include "control.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "scene.h"

namespace {

using namespace vm;

constexpr uint32_t kStaging = 131072;

class Tech : public ControlTest {
protected:
	void SetUp() override
	{
		ControlTest::SetUp();
		home_ = std::filesystem::current_path();
		std::filesystem::remove_all("/tmp/vsd");
	}
	void TearDown() override
	{
		std::filesystem::current_path(home_);
		std::filesystem::remove_all("/tmp/vsd");
		ControlTest::TearDown();
	}
	/// Where a process of the virtual switch device gets its file; the directory is made.
	static std::string file_of(unsigned vsd)
	{
		std::string directory = "/tmp/vsd/" + std::to_string(vsd) + "//ef/af_packet";
		std::filesystem::create_directories(directory);
		return directory + "/afpacketdump";
	}
	static std::string content(const std::string &file)
	{
		std::ifstream in(file, std::ios::binary);
		EXPECT_TRUE(in) << file;
		return { std::istreambuf_iterator<char>(in), {} };
	}
	/// Asks for the dump; what was printed. The answer must be there when the request has been handled.
	std::string dump()
	{
		client_.drain();
		std::string text = printed(request(MOX_MSG_TECH));
		EXPECT_TRUE(answered()) << "no answer";
		return text;
	}
	/// Whether the answer has come, to the byte.
	bool answered()
	{
		auto reply = client_.receive();
		if (!reply)
			return false;
		Bytes wanted;
		put32(wanted, 24);
		put16(wanted, family_);
		put16(wanted, 0);
		put32(wanted, 0);
		put32(wanted, client_.port());
		wanted.insert(wanted.end(), { 0, 1, 0, 0, 4, 0, 1, 0 });
		EXPECT_EQ(reply->bytes, wanted);
		EXPECT_FALSE(client_.receive()) << "one answer";
		return true;
	}
	/// What the file must hold, by the reports that go to the log.
	std::string by_the_log()
	{
		return dump_text(answer(MOX_MSG_SHOW_ALL), answer(MOX_MSG_SHOW_MEMORY));
	}
	std::filesystem::path home_;
};

TEST_F(Tech, the_file_reads_as_the_log_does)
{
	LayerTwoScene two;
	EveryLocationScene every;
	std::string file = file_of(0), wanted = by_the_log();
	EXPECT_EQ(dump(), "") << "nothing of it in the log, not even who asked";
	EXPECT_EQ(content(file), wanted);
	EXPECT_EQ(content("/tmp/vsd/0/ef/af_packet/afpacketdump"), wanted);
}

TEST_F(Tech, the_file_on_known_sockets)
{
	EveryLocationScene scene;
	std::string file = file_of(0), locations;
	for (unsigned location = 1; location <= 8; ++location)
		locations += joined(location_pieces(location, scene.sockets_at(location),
						    scene.entries_at(location))) +
			     "\n";
	dump();
	EXPECT_EQ(content(file), dump_text(locations, joined(memory_pieces())));
}

TEST_F(Tech, the_file_without_sockets)
{
	std::string file = file_of(0), wanted = by_the_log();
	dump();
	EXPECT_EQ(content(file), wanted);
	struct stat status {};
	ASSERT_EQ(::stat(file.c_str(), &status), 0);
	EXPECT_EQ(status.st_mode, mode_t(S_IFREG)) << "made without any permission";
	EXPECT_EQ(status.st_uid, 0u);
}

TEST_F(Tech, a_longer_file_is_cut)
{
	std::string file = file_of(0), wanted = by_the_log();
	std::ofstream(file) << std::string(300000, 'x');
	dump();
	EXPECT_EQ(content(file), wanted);
	dump();
	EXPECT_EQ(content(file), wanted) << "and so is its own";
}

TEST_F(Tech, while_debugging_the_success_is_printed)
{
	std::string file = file_of(0);
	debug(true);
	EXPECT_EQ(dump(),
		  tagged("Deal message, length:4.\n") +
			  tagged("MSG TYPE 16, client " + std::to_string(client_.port()) + "\n") +
			  tagged("Ask msg success.\n"));
	debug(false);
	EXPECT_EQ(content(file), by_the_log());
}

TEST_F(Tech, without_the_directory_the_answer_comes_all_the_same)
{
	EXPECT_EQ(dump(), "");
	debug(true);
	EXPECT_EQ(dump(),
		  tagged("Deal message, length:4.\n") +
			  tagged("MSG TYPE 16, client " + std::to_string(client_.port()) + "\n") +
			  tagged("Failed to open file: /tmp/vsd/0//ef/af_packet/afpacketdump.\n") +
			  tagged("Ask msg success.\n"));
	EXPECT_FALSE(std::filesystem::exists("/tmp/vsd")) << "the module makes no directory";
}

TEST_F(Tech, the_askers_vsd_chooses_the_file)
{
	LayerTwoScene scene;
	std::string zero = file_of(0), five = file_of(5), seventeen = file_of(17),
		    wanted = by_the_log();
	struct Row {
		const char *directory;
		std::string file;
	};
	for (const Row &row : { Row{ "/data/var/run/vsd/5", five },
				{ "/data/var/run/vsd/5/deep/er", five },
				{ "/data/var/run/vsd/17", seventeen },
				{ "/data/var/run/vsd/0", zero },
				{ "/root", zero },
				{ "/data/var/run", zero },
				{ "/data/var/run/vsd/4294967290", zero } }) {
		for (const std::string &file : { zero, five, seventeen })
			std::filesystem::remove(file);
		std::filesystem::create_directories(row.directory);
		std::filesystem::current_path(row.directory);
		dump();
		for (const std::string &file : { zero, five, seventeen })
			EXPECT_EQ(std::filesystem::exists(file), file == row.file)
				<< file << " from " << row.directory;
		EXPECT_EQ(content(row.file), wanted);
	}
	debug(true);
	std::filesystem::create_directories("/data/var/run/vsd/6");
	std::filesystem::current_path("/data/var/run/vsd/6");
	EXPECT_NE(dump().find("Failed to open file: /tmp/vsd/6//ef/af_packet/afpacketdump.\n"),
		  std::string::npos);
}

TEST_F(Tech, the_askers_rights_count)
{
	std::string file = file_of(0);
	std::ofstream(file) << "not to be touched";
	::chmod(file.c_str(), 0);
	bool replied = false;
	std::thread([&] {
		::syscall(SYS_setresuid32, 65534, 65534, 65534);
		GenlSocket client;
		ask(client, MOX_MSG_TECH);
		replied = bool(client.receive());
	}).join();
	EXPECT_TRUE(replied);
	EXPECT_EQ(content(file), "not to be touched");
	::chmod(file.c_str(), 0666);
	std::thread([&] {
		::syscall(SYS_setresuid32, 65534, 65534, 65534);
		GenlSocket client;
		ask(client, MOX_MSG_TECH);
	}).join();
	EXPECT_EQ(content(file), by_the_log());
}

TEST_F(Tech, a_place_that_takes_no_file)
{
	std::filesystem::create_directories(file_of(0));
	debug(true);
	EXPECT_NE(dump().find("Failed to open file: /tmp/vsd/0//ef/af_packet/afpacketdump.\n"),
		  std::string::npos)
		<< "a directory of that name";
}

TEST_F(Tech, a_full_file_system_is_not_reported)
{
	std::string file = file_of(0);
	const char *directory = "/tmp/vsd/0/ef/af_packet";
	ASSERT_EQ(::mount("none", directory, "tmpfs", 0, "size=4k"), 0) << std::strerror(errno);
	LayerTwoScene scene;
	EveryLocationScene every;
	debug(true);
	std::string text = dump();
	std::string got = content(file);
	EXPECT_EQ(::umount(directory), 0) << std::strerror(errno);
	EXPECT_NE(text.find("Ask msg success.\n"), std::string::npos);
	EXPECT_EQ(text.find("Failed"), std::string::npos);
	EXPECT_GT(got.size(), 0u);
	EXPECT_LE(got.size(), 4096u) << "more does not fit";
	debug(false);
	EXPECT_GT(by_the_log().size(), 4096u);
}

/// What any user may put where the dump file belongs, when the directory is his: nothing of it is waited for,
/// followed or written.
class Trap : public Tech {
protected:
	static constexpr const char *kOther = "/tmp/dump-other";

	void SetUp() override
	{
		Tech::SetUp();
		file_ = file_of(0);
		std::ofstream(kOther) << "another's";
		debug(true);
	}
	void TearDown() override
	{
		std::filesystem::remove(kOther);
		Tech::TearDown();
	}
	/// The dump is refused as if the file could not be opened, soon, and the answer comes.
	void expect_refused()
	{
		auto before = std::chrono::steady_clock::now();
		EXPECT_EQ(dump(), tagged("Deal message, length:4.\n") +
					  tagged("MSG TYPE 16, client " +
						 std::to_string(client_.port()) + "\n") +
					  tagged("Failed to open file: "
						 "/tmp/vsd/0//ef/af_packet/afpacketdump.\n") +
					  tagged("Ask msg success.\n"));
		EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(10));
		EXPECT_EQ(content(kOther), "another's");
	}
	std::string file_;
};

TEST_F(Trap, a_full_fifo)
{
	ASSERT_EQ(::mkfifo(file_.c_str(), 0666), 0);
	int fifo = ::open(file_.c_str(), O_RDWR | O_NONBLOCK);
	ASSERT_GE(fifo, 0);
	const char page[4096] = {};
	size_t full = 0;
	for (ssize_t some; (some = ::write(fifo, page, sizeof page)) > 0;)
		full += size_t(some);
	ASSERT_EQ(errno, EAGAIN);
	ASSERT_GE(full, sizeof page);
	// Should the request hang after all, an end of the room that it waits for comes by itself.
	std::atomic<bool> done = false;
	std::thread rescue([&] {
		for (int i = 0; i < 200 && !done; ++i)
			std::this_thread::sleep_for(std::chrono::milliseconds(100));
		char room[4096];
		while (!done && ::read(fifo, room, sizeof room) >= 0)
			;
	});
	expect_refused();
	done = true;
	rescue.join();
	int held = 0;
	EXPECT_EQ(::ioctl(fifo, FIONREAD, &held), 0);
	EXPECT_EQ(size_t(held), full) << "nothing was written";
	::close(fifo);
}

TEST_F(Trap, a_fifo_without_a_reader)
{
	ASSERT_EQ(::mkfifo(file_.c_str(), 0666), 0);
	expect_refused();
}

TEST_F(Trap, a_symbolic_link)
{
	ASSERT_EQ(::symlink(kOther, file_.c_str()), 0);
	expect_refused();
	std::filesystem::remove(file_);
	ASSERT_EQ(::symlink("/tmp/dump-none", file_.c_str()), 0);
	expect_refused();
	EXPECT_FALSE(std::filesystem::exists("/tmp/dump-none")) << "nor created through a link";
}

TEST_F(Trap, a_hard_link)
{
	ASSERT_EQ(::link(kOther, file_.c_str()), 0);
	expect_refused();
	// The link alone is an ordinary file.
	ASSERT_EQ(::rename(kOther, "/tmp/dump-away"), 0);
	std::filesystem::remove("/tmp/dump-away");
	std::ofstream(kOther) << "another's";
	dump();
	debug(false);
	EXPECT_EQ(content(file_), by_the_log());
}

TEST_F(Trap, a_device)
{
	ASSERT_EQ(::mknod(file_.c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
	expect_refused();
}

TEST_F(Tech, a_client_that_does_not_read_is_reported_while_debugging)
{
	int little = 0;
	ASSERT_EQ(::setsockopt(client_.fd(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
	debug(true);
	std::string text;
	int asked = 0;
	for (; asked < 200 && text.find("unicast") == std::string::npos; ++asked)
		text = printed(request(MOX_MSG_TECH));
	ASSERT_LT(asked, 200) << "the buffer never filled";
	EXPECT_NE(text.find(tagged("Genlmsg_unicast fail, ret -11.\n")), std::string::npos) << text;
	EXPECT_EQ(text.find("Ask msg success"), std::string::npos);
	client_.drain();
	debug(false);
	EXPECT_EQ(dump(), "") << "room again";
}

TEST_F(Tech, the_answer_goes_to_who_asked)
{
	GenlSocket first, second;
	ask(second, MOX_MSG_TECH);
	EXPECT_FALSE(first.receive());
	auto reply = second.receive();
	ASSERT_TRUE(reply);
	uint32_t port;
	std::memcpy(&port, &reply->bytes[12], sizeof port);
	EXPECT_EQ(port, second.port());
}

/// A staging buffer between two flushes: a piece that does not fit is lost whole, and a shorter one may still fit.
std::string staged(const Pieces &pieces, size_t *lost = nullptr)
{
	std::string out;
	for (const std::string &piece : pieces)
		if (out.size() + piece.size() < kStaging)
			out += piece;
		else if (lost)
			++*lost;
	return out;
}

class FullStaging : public Tech {
protected:
	void SetUp() override
	{
		Tech::SetUp();
		rlimit many{ 4096, 4096 };
		ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &many), 0);
	}
	void TearDown() override
	{
		::prctl(PR_SET_NAME, "vm_control");
		sockets_.clear();
		Tech::TearDown();
	}
	/// A socket at layer 2, made under that name.
	void make(const std::string &name)
	{
		::prctl(PR_SET_NAME, name.c_str());
		sockets_.push_back(capture(PACKET_LEV2_LOC, PACKET_COPY, all()));
		names_.push_back(name);
	}
	static SocketText text(const std::string &name)
	{
		SocketText out = own_socket(PACKET_LEV2_LOC, PACKET_COPY, { { PACKET_ALL, {} } });
		out.process = name;
		return out;
	}
	/// The socket part of the layer 2 report, and what the file must hold when that part is staged and nothing else.
	Pieces socket_pieces() const
	{
		Pieces out;
		for (const std::string &name : names_)
			append(out, text(name).pieces());
		return out;
	}
	std::string wanted(size_t *lost = nullptr) const
	{
		std::string locations;
		for (unsigned location = 1; location <= 8; ++location) {
			if (location != PACKET_LEV2_LOC) {
				locations += joined(location_pieces(location)) + "\n";
				continue;
			}
			std::vector<CopyText> copies;
			for (const std::string &name : names_)
				copies.push_back({ name, PACKET_COPY, {} });
			locations += joined(queue_pieces(location)) +
				     staged(socket_pieces(), lost) + "\n" +
				     joined(filter_list_pieces({ { PACKET_ALL, "", copies } })) +
				     "\n";
		}
		return dump_text(locations, joined(memory_pieces()));
	}
	/// Compares without printing a hundred kilobytes.
	static void expect_same(const std::string &got, const std::string &wanted)
	{
		EXPECT_EQ(got.size(), wanted.size());
		auto [is, was] = std::mismatch(got.begin(), got.end(), wanted.begin(),
					       wanted.end());
		if (is != got.end() || was != wanted.end()) {
			size_t at = size_t(is - got.begin()), from = at < 100 ? 0 : at - 100;
			ADD_FAILURE()
				<< "at byte " << at << "\n"
				<< got.substr(from, 200) << "\n--- where this was wanted ---\n"
				<< wanted.substr(from, 200);
		}
	}
	/// The dump's file with so many sockets of one name, held against what is wanted; `lost` pieces are not in it.
	std::string dump_of(int count, size_t *lost)
	{
		std::string file = file_of(0);
		for (int i = 0; i < count; ++i)
			make("vm_control");
		std::string expected = wanted(lost);
		dump();
		std::string got = content(file);
		expect_same(got, expected);
		return got;
	}
	std::vector<Socket> sockets_;
	std::vector<std::string> names_;
};

TEST_F(FullStaging, of_five_hundred_sockets_the_last_are_lost_piece_by_piece)
{
	size_t lost = 0;
	std::string got = dump_of(500, &lost);
	size_t whole = 0;
	for (size_t at = 0; (at = got.find("sk refcnt:", at)) != std::string::npos; ++at)
		++whole;
	size_t one = joined(text("vm_control").pieces()).size(), fit = (kStaging - 1) / one;
	EXPECT_GT(lost, 0u);
	EXPECT_GE(whole, fit);
	EXPECT_LT(whole, 500u);
	// The walk over the filter list flushes on its way: there all of them are.
	size_t copies = 0;
	for (size_t at = 0;
	     (at = got.find("    process:      vm_control\n", at)) != std::string::npos; ++at)
		++copies;
	EXPECT_EQ(copies, 500u);
	std::printf(
		"500 sockets: %zu bytes of file, %zu sockets printed to the end, %zu pieces lost\n",
		got.size(), whole, lost);
}

TEST_F(FullStaging, a_thousand_sockets)
{
	size_t lost = 0;
	std::string got = dump_of(1000, &lost);
	std::printf("1000 sockets: %zu bytes of file, %zu pieces lost\n", got.size(), lost);
}

TEST_F(FullStaging, one_byte_short_of_the_limit_at_it_and_past_it)
{
	std::string file = file_of(0);
	// As many sockets as fit, and names that are longer by what is missing.
	size_t one = joined(text("vm_contr").pieces()).size();
	for (int32_t beyond : { -2, -1, 0, 1 }) {
		SCOPED_TRACE(beyond);
		size_t total = size_t(int64_t(kStaging) + beyond), count = total / one,
		       missing = total - count * one;
		sockets_.clear();
		names_.clear();
		for (size_t i = 0; i < count; ++i) {
			size_t more = std::min(missing, size_t(7));
			make("vm_contr" + std::string(more, '+'));
			missing -= more;
		}
		ASSERT_EQ(missing, 0u);
		ASSERT_EQ(joined(socket_pieces()).size(), total);
		size_t lost = 0;
		std::string expected = wanted(&lost);
		EXPECT_EQ(lost, beyond < 0 ? 0u : 1u) << "the staged bytes stay below the limit";
		dump();
		expect_same(content(file), expected);
	}
}

} // namespace
