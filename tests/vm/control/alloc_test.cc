// SPDX-License-Identifier: GPL-2.0-only
// Every allocation on the way of a request fails once: that is printed, the client is not left waiting if there is a way to
// answer, and nothing stays behind.
#include "control.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>

#include <sys/stat.h>

#include "scene.h"
#include "support/failnth.h"

namespace {

using namespace vm;

class ControlAlloc : public ControlTest {
protected:
	void SetUp() override
	{
		if (!can_inject_failures())
			GTEST_SKIP() << "this kernel injects no failures; the checked one does";
		ControlTest::SetUp();
		home_ = std::filesystem::current_path();
		std::filesystem::create_directories("/tmp/vsd/0/ef/af_packet");
		std::filesystem::create_directories("/tmp/vsd/5/ef/af_packet");
		std::filesystem::create_directories("/data/var/run/vsd/5");
		debug(true);
	}
	void TearDown() override
	{
		if (IsSkipped())
			return;
		std::filesystem::current_path(home_);
		std::filesystem::remove_all("/tmp/vsd");
		ControlTest::TearDown();
	}
	/// Sockets are made before: no other vsd than 0 gets any.
	static void enter_vsd_5() { std::filesystem::current_path("/data/var/run/vsd/5"); }
	std::filesystem::path home_;
};

/// What one request with one failed allocation led to.
struct Outcome {
	int sent = 0;
	bool answered = false;
	std::vector<std::string> lines;
	bool has_line(const char *text) const { return bool(HasLine(lines, text)); }
};

TEST_F(ControlAlloc, a_dump)
{
	LayerTwoScene scene;
	enter_vsd_5();
	const Bytes message = request(MOX_MSG_TECH);
	int handled = 0, without_path = 0, without_file = 0, without_buffer = 0, without_answer = 0;
	FailNth injector;
	for (unsigned nth = 1;; ++nth) {
		ASSERT_LT(nth, 400u) << "the failures never came to an end";
		SCOPED_TRACE(nth);
		std::filesystem::remove("/tmp/vsd/0/ef/af_packet/afpacketdump");
		std::filesystem::remove("/tmp/vsd/5/ef/af_packet/afpacketdump");
		client_.drain();
		lab::clear_printk();
		Outcome out;
		uint32_t taken = requests_taken();
		injector.arm(nth);
		out.sent = client_.send(message);
		bool hit = injector.disarm() == 0;
		out.lines = lab::printk_lines();
		out.answered = bool(client_.receive());
		EXPECT_EQ(lab::peek32("g_file_buff"), 0u);
		EXPECT_EQ(lab::peek8("g_tech_dump"), 0);
		if (requests_taken() == taken) {
			EXPECT_TRUE(hit); // the message itself could not be sent
			continue;
		}
		++handled;
		EXPECT_EQ(out.sent, 0);
		bool path = !out.has_line("Failed to kmalloc buf.");
		bool no_buffer = out.has_line("Vmalloc file buff failed."),
		     no_answer = out.has_line("Malloc skb fail.");
		std::string file = std::string("/tmp/vsd/") + (path ? "5" : "0") +
				   "/ef/af_packet/afpacketdump";
		bool no_file = out.has_line(("Failed to open file: /tmp/vsd/" +
					     std::string(path ? "5" : "0") +
					     "//ef/af_packet/afpacketdump.")
						    .c_str());
		// Whatever happened to the file, the client gets its answer, unless there is no buffer for it.
		EXPECT_EQ(out.answered, !no_answer);
		EXPECT_EQ(out.has_line("Ask msg success."), out.answered);
		std::error_code none;
		uintmax_t size = std::filesystem::file_size(file, none);
		if (no_file)
			EXPECT_TRUE(none || size == 0);
		else if (no_buffer)
			EXPECT_EQ(size, 0u);
		else
			EXPECT_GT(size, 100u);
		without_path += !path;
		without_file += no_file;
		without_buffer += no_buffer;
		without_answer += no_answer;
		if (!hit)
			break;
		EXPECT_LE(int(!path) + no_file + no_buffer + no_answer, 1)
			<< "one failure at a time";
	}
	EXPECT_GT(handled, 5);
	EXPECT_EQ(without_path, 1) << "the buffer for the asker's directory";
	EXPECT_GE(without_file, 1) << "something that opening needs";
	EXPECT_GE(without_buffer, 1) << "the staging buffer";
	EXPECT_GE(without_answer, 1) << "the answer";
}

TEST_F(ControlAlloc, a_filter_is_set_for_vsd_0_when_the_path_buffer_is_missed)
{
	enter_vsd_5();
	Bytes body(72, 0);
	body[0] = 1;
	body[4] = MOX_FILTER_VID;
	body[8] = 5;
	const Bytes message = request(MOX_MSG_FILTER, body);
	bool missed = false;
	with_each_failure(
		[&] {
			lab::poke8("g_pktd_kdbg_filter", 8, 0x77);
			client_.send(message);
		},
		[&](bool) {
			Bytes vid = lab::peek("g_pktd_kdbg_filter", 8, 4);
			if (vid[0] == 0x77)
				return; // not handled at all
			bool line = false;
			for (const std::string &text : lab::printk_lines())
				line |= text == "\1"
						"0Failed to kmalloc buf.\n";
			missed |= line;
			EXPECT_EQ(vid, (Bytes{ uint8_t(line ? 0 : 0x50), 0, 0, 5 }));
			lab::clear_printk();
		});
	EXPECT_TRUE(missed) << "and it is printed at emergency level";
}

TEST_F(ControlAlloc, reports_need_no_memory)
{
	LayerTwoScene scene;
	debug(false);
	for (uint16_t type :
	     { uint16_t(1), uint16_t(MOX_MSG_SHOW_QUEUES), uint16_t(MOX_MSG_SHOW_MEMORY),
	       uint16_t(MOX_MSG_SHOW_THREAD), uint16_t(MOX_MSG_SHOW_PID) }) {
		const Bytes message = request(type, words({ uint32_t(::getpid()) }));
		const std::string whole = printed(message);
		int sent = 0;
		with_each_failure([&] { sent = client_.send(message); },
				  [&](bool) {
					  // What the kernel's own layer lacks memory for it refuses before it calls the module.
					  auto reply = client_.receive();
					  bool refused = sent != 0 ||
							 (reply && reply->error() == -ENOMEM);
					  EXPECT_EQ(said(), refused ? "" : whole) << type;
				  });
	}
}

} // namespace
