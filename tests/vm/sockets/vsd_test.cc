// SPDX-License-Identifier: GPL-2.0-only
// The virtual switch device of a process is read from its working directory; only vsd 0 gets sockets.
#include <cerrno>
#include <filesystem>
#include <string>

#include <arpa/inet.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/fixture.h"

namespace {

using namespace vm;

class Vsd : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		home_ = std::filesystem::current_path();
	}
	void TearDown() override
	{
		std::filesystem::current_path(home_);
		VmTest::TearDown();
	}
	/// Makes the directory and goes there.
	void enter(const std::string &path)
	{
		std::filesystem::create_directories(path);
		std::filesystem::current_path(path);
	}
	std::filesystem::path home_;
};

TEST_F(Vsd, the_number_after_the_prefix_decides)
{
	struct Row {
		const char *path;
		int error;
	};
	for (Row row : {
		     Row{ "/data/var/run/vsd/0", 0 },
		     { "/data/var/run/vsd/0/deep/er", 0 },
		     { "/data/var/run/vsd/3", EINVAL },
		     { "/data/var/run/vsd/3/x", EINVAL },
		     { "/data/var/run/vsd/12abc", EINVAL },
		     { "/data/var/run/vsd/007", EINVAL },
		     { "/data/var/run/vsd/abc", 0 }, // no number at all reads as 0
		     { "/data/var/run/vsd/-3", 0 },
		     { "/data/var/run/vsd", 0 }, // 17 characters: the prefix ends in a slash
		     { "/data/var/run/vsd2/3", 0 },
		     { "/data/var/run/vsD/3", 0 },
		     { "/tmp/data/var/run/vsd/3", 0 },
		     { "/data/var/run/vsd/2147483647", EINVAL },
		     { "/data/var/run/vsd/2147483648", 0 }, // negative as a signed word counts as 0
		     { "/data/var/run/vsd/4294967295", 0 },
		     { "/", 0 },
	     }) {
		enter(row.path);
		Socket socket;
		EXPECT_EQ(socket.error(), row.error) << row.path;
	}
}

TEST_F(Vsd, a_refused_create_prints_which_vsd)
{
	enter("/data/var/run/vsd/3/x");
	pin(0);
	DebugOn debug;
	Socket socket(SOCK_RAW, htons(0x0806));
	EXPECT_EQ(socket.error(), EINVAL);
	auto lines = lab::printk_lines();
	EXPECT_TRUE(HasLine(lines, "Get vsd id 3 fail", 0));
	// The half-made socket is not orphaned yet when its last reference goes, which the destructor prints.
	ASSERT_FALSE(lines.empty());
	EXPECT_EQ(lines.back().substr(0, 42), "\1"
					      "3Attempt to release alive packet socket: ");
	pin(-1);
}

TEST_F(Vsd, bind_to_an_interface_is_refused_and_bind_to_all_is_not)
{
	Socket socket(SOCK_RAW, htons(0x0806));
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	enter("/data/var/run/vsd/7");
	DebugOn debug;
	EXPECT_EQ(socket.bind(lab::kPortA), EINVAL);
	EXPECT_TRUE(HasLine(lab::printk_lines(), "MOX-PACKET-BIND: get vsd id 7 fail."));
	EXPECT_EQ(socket.bind(lab::kNoSuchInterface), EINVAL)
		<< "the vsd is looked at before the interface";
	EXPECT_EQ(socket.bind(0), 0);
	enter("/data/var/run/vsd/0");
	EXPECT_EQ(socket.bind(lab::kPortA), 0);
}

TEST_F(Vsd, a_rule_on_interfaces_is_refused_within_a_vsd)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5));
	enter("/data/var/run/vsd/4");
	{
		DebugOn debug;
		EXPECT_EQ(socket.add(u32s(PACKET_SRC_INTF_EQUAL, { lab::kPortA })), EINVAL);
		EXPECT_TRUE(HasLine(lab::printk_lines(),
				    "MOX-PACKET-DEAL-REGULAR-DATA: get vsd id 4 fail."));
	}
	EXPECT_EQ(socket.del(u32s(PACKET_SRC_INTF_EQUAL, { lab::kPortA })), EINVAL);
	EXPECT_TRUE(lab::registered(lab::Hook::Lev2))
		<< "the socket is back in its library, as after a bad type";
	EXPECT_EQ(socket.add(be16s(PACKET_IPv4_DEST_PORT_EQUAL, { 80 })), 0)
		<< "no other type asks for the vsd";
	enter("/tmp");
	EXPECT_EQ(socket.add(u32s(PACKET_SRC_INTF_EQUAL, { lab::kPortA })), 0);
}

TEST_F(Vsd, a_path_too_long_to_be_printed_counts_as_none)
{
	// Deep below a vsd directory the path no longer fits the 4096 bytes it is rendered into.
	enter("/data/var/run/vsd/5");
	const std::string name(250, 'd');
	for (int i = 0; i < 18; ++i) {
		ASSERT_TRUE(::mkdir(name.c_str(), 0755) == 0 || errno == EEXIST);
		ASSERT_EQ(::chdir(name.c_str()), 0);
	}
	Socket socket;
	EXPECT_EQ(socket.error(), 0);
	EXPECT_EQ(socket.bind(lab::kPortA), 0);
	EXPECT_EQ(socket.add(u32s(PACKET_SRC_INTF_EQUAL, { lab::kPortA })), 0);
	for (int i = 0; i < 18; ++i) {
		ASSERT_EQ(::chdir(".."), 0);
		::rmdir(name.c_str());
	}
	Socket again;
	EXPECT_EQ(again.error(), EINVAL) << "and where it fits it counts";
}

TEST_F(Vsd, a_working_directory_that_was_removed)
{
	// The path then ends with " (deleted)"; the number still stands in it.
	enter("/data/var/run/vsd/6/gone");
	std::filesystem::remove("/data/var/run/vsd/6/gone");
	EXPECT_EQ(Socket().error(), EINVAL);
	enter("/tmp/vmtest-gone");
	std::filesystem::remove("/tmp/vmtest-gone");
	EXPECT_EQ(Socket().error(), 0);
}

TEST_F(Vsd, the_directory_is_seen_from_the_process_root)
{
	std::filesystem::create_directories("/data/chroot/data/var/run/vsd/8");
	pid_t child = fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		if (chroot("/data/chroot") || chdir("/data/var/run/vsd/8"))
			_exit(9);
		_exit(Socket().error());
	}
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	ASSERT_TRUE(WIFEXITED(status));
	EXPECT_EQ(WEXITSTATUS(status), EINVAL);
}

} // namespace
