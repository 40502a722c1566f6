/* SPDX-License-Identifier: GPL-2.0-only */
#include "socket.h"
#include "error.h"
#include "status.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

class StatusTest : public ::testing::Test {
protected:
	StatusTest()
	{
		char name[] = "/tmp/lldpagent-test-XXXXXX";
		directory = mkdtemp(name);
		path = directory + "/sock";
	}
	~StatusTest() override { std::filesystem::remove_all(directory); }

	std::string ask(lldp::StatusServer &server, lldp::StateForm form, const std::string &state)
	{
		std::string answer;
		std::thread client([&] {
			try {
				answer = lldp::ask_status(path, form);
			} catch (const lldp::SystemError &error) {
				answer = std::string("error: ") + error.what();
			}
		});
		pollfd ready{ server.fd(), POLLIN, 0 };
		EXPECT_EQ(poll(&ready, 1, 5000), 1);
		server.answer([&](lldp::StateForm asked) {
			return std::string(1, static_cast<char>(asked)) + state;
		});
		client.join();
		return answer;
	}
	int connect_client() const
	{
		int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
		sockaddr_un address{};
		address.sun_family = AF_UNIX;
		std::strcpy(address.sun_path, path.c_str());
		EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
		return fd;
	}

	std::string directory, path;
};

TEST_F(StatusTest, answers_in_the_form_asked_for_whatever_the_length)
{
	lldp::StatusServer server(path);
	EXPECT_EQ(ask(server, lldp::StateForm::kText, "state\n"), "tstate\n");
	EXPECT_EQ(ask(server, lldp::StateForm::kJson, "{}\n"), "j{}\n");
	std::string much(3'000'000, 'x');
	EXPECT_EQ(ask(server, lldp::StateForm::kText, much + "\n"), "t" + much + "\n");
}

TEST_F(StatusTest, an_answer_without_its_end_is_an_error)
{
	lldp::StatusServer server(path);
	EXPECT_TRUE(ask(server, lldp::StateForm::kText, "half of it").starts_with("error: "))
		<< "no newline at its end";
}

TEST_F(StatusTest, only_the_owner_may_ask_and_the_path_goes_with_the_server)
{
	{
		lldp::StatusServer server(path);
		struct stat found;
		ASSERT_EQ(stat(path.c_str(), &found), 0);
		EXPECT_EQ(found.st_mode & 0777, 0600u);
	}
	EXPECT_FALSE(std::filesystem::exists(path));
	EXPECT_THROW(lldp::ask_status(path, lldp::StateForm::kText), lldp::SystemError);
}

TEST_F(StatusTest, a_path_left_behind_is_taken_over_but_a_living_agents_is_not)
{
	{
		lldp::StatusServer server(path);
		EXPECT_THROW(lldp::StatusServer second(path), lldp::SystemError);
		ASSERT_EQ(link(path.c_str(), (path + ".kept").c_str()), 0);
	}
	ASSERT_EQ(rename((path + ".kept").c_str(), path.c_str()),
		  0); // as an agent that was killed leaves it
	EXPECT_NO_THROW(lldp::StatusServer server(path));
}

TEST_F(StatusTest, a_file_that_is_no_socket_is_left_alone)
{
	std::ofstream(path) << "precious";
	EXPECT_THROW(lldp::StatusServer server(path), lldp::SystemError);
	EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(StatusTest, a_path_too_long_or_in_no_directory)
{
	EXPECT_THROW(lldp::StatusServer server(directory + "/" + std::string(200, 'x')),
		     lldp::SystemError);
	EXPECT_THROW(lldp::StatusServer server(directory + "/none/sock"), lldp::SystemError);
}

TEST_F(StatusTest, a_client_that_says_nothing_does_not_hold_the_agent_up)
{
	lldp::StatusServer server(path);
	int fd = connect_client();
	auto before = std::chrono::steady_clock::now();
	server.answer([](lldp::StateForm) -> std::string {
		ADD_FAILURE() << "no client asked";
		return "";
	});
	EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(3));
	close(fd);
}

TEST_F(StatusTest, a_client_that_reads_nothing_or_asks_nonsense_does_not_either)
{
	lldp::StatusServer server(path);
	int silent = connect_client();
	ASSERT_EQ(write(silent, "t", 1), 1);
	server.answer([](lldp::StateForm) { return std::string(10'000'000, 'x'); });
	close(silent);

	int odd = connect_client();
	ASSERT_EQ(write(odd, "?", 1), 1);
	server.answer([](lldp::StateForm) -> std::string {
		ADD_FAILURE() << "no such form";
		return "";
	});
	close(odd);
}

} // namespace
