/* SPDX-License-Identifier: GPL-2.0-only */
/* A command's world for tests: a fake module behind netlink and the kernel log, and a directory as the root. */
#ifndef MOXCTL_COMMANDS_FIXTURE_H
#define MOXCTL_COMMANDS_FIXTURE_H

#include "commands.h"
#include "fake_module.h"
#include "report_texts.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

using moxctl::Action;
using moxctl::Failure;
namespace fs = std::filesystem;

/** Hands out what the test keeps. */
template <typename Base, typename Fake> class Lent : public Base {
public:
	explicit Lent(Fake &fake) : fake_(fake) {}

protected:
	Fake &fake_;
};

class LentNetlink : public Lent<moxctl::NetlinkSocket, FakeNetlink> {
public:
	using Lent::Lent;
	std::uint32_t port() const override { return fake_.port(); }
	void send(std::span<const std::uint8_t> datagram) override { fake_.send(datagram); }
	Bytes receive(std::chrono::milliseconds time) override { return fake_.receive(time); }
};

class LentLog : public Lent<moxctl::KernelLog, FakeLog> {
public:
	using Lent::Lent;
	Read read(std::string &raw) override { return fake_.read(raw); }
	void wait() override { fake_.wait(); }
	void interrupt() override { fake_.interrupt(); }
};

inline std::string contents(const fs::path &path)
{
	std::ostringstream text;
	text << std::ifstream(path).rdbuf();
	return text.str();
}

class Commands : public testing::Test {
protected:
	void SetUp() override
	{
		char name[] = "/tmp/moxctl-test.XXXXXX";
		ASSERT_TRUE(mkdtemp(name));
		root = name;
		fs::create_directory(root / "tmp");
		options.timeout = 0.05;
	}
	void TearDown() override { fs::remove_all(root); }

	moxctl::Status run()
	{
		moxctl::World world{
			.open_netlink = [this] { return std::make_unique<LentNetlink>(netlink); },
			.open_kernel_log = [this]() -> std::unique_ptr<moxctl::KernelLog> {
				if (log_error)
					throw Failure(moxctl::kernel_log_error(log_error));
				return std::make_unique<LentLog>(log);
			},
			.working_directory = [this] { return directory; },
			.root = root.string(),
			.print = [this](const std::string &text) { printed += text; },
			.complain = [this](const std::string &line) { complaints += line + "\n"; },
			.interface_name =
				[this](std::uint32_t index) {
					++name_look_ups;
					return index == 7 ? std::string("port1") : std::string();
				},
			.terminal = terminal,
			.flush = [this] { ++flushes; },
			.stopped = [this] { return stopped && stopped(); },
			.sleep =
				[this](std::chrono::milliseconds time) {
					now += time;
					if (on_sleep)
						on_sleep();
				},
			.clock = [this] { return now; },
		};
		return moxctl::run_command(options, world);
	}

	/** The module prints this when asked, behind its opening line and with a foreign line in front of every call. */
	void will_print(const std::string &text)
	{
		netlink.on_request = [this, text](const Bytes &) {
			print("Deal message from 4711, moxctl.\n");
			for (const std::string &call : printk_calls(text)) {
				print("port1: link up\n", 6);
				print(call);
			}
		};
	}
	void print(const std::string &call, unsigned priority = 4)
	{
		log.log(kmsg_record(sequence++, call, priority));
	}

	/** The module writes this into the dump file when asked, as it does: mode 0. */
	void will_write(const std::string &text, const std::string &vsd = "0")
	{
		netlink.on_request = [this, text, vsd](const Bytes &) {
			fs::path path = root / "tmp/vsd" / vsd / "ef/af_packet/afpacketdump";
			EXPECT_TRUE(fs::is_directory(path.parent_path()))
				<< "the module does not make it";
			EXPECT_FALSE(fs::exists(path))
				<< "an old dump could be taken for the new one";
			std::ofstream(path) << text;
			fs::permissions(path, fs::perms::none);
		};
	}

	FakeNetlink netlink;
	FakeLog log;
	unsigned long sequence = 1000;
	int log_error = 0;
	std::string directory = "/root";
	fs::path root;
	moxctl::Options options;
	std::string printed, complaints;
	bool terminal = false;
	unsigned name_look_ups = 0, flushes = 0;
	std::function<bool()> stopped;
	std::function<void()> on_sleep;
	std::chrono::milliseconds now{ 1000 };
};

#endif
