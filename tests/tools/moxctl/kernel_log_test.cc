/* SPDX-License-Identifier: GPL-2.0-only */
/* Records of /dev/kmsg, and picking a report out of them. */
#include "fake_module.h"
#include "kernel_log.h"
#include "log_follower.h"
#include "report_filter.h"
#include "report_lines.h"
#include "report_texts.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

using moxctl::decode_record;
using moxctl::ReportFilter;

TEST(ctl_record, decode__parts)
{
	auto record = decode_record("14,4294967297,1234567,-;hello  \n");
	ASSERT_TRUE(record);
	EXPECT_EQ(record->priority, 14u);
	EXPECT_EQ(record->sequence, 4294967297u);
	EXPECT_EQ(record->caller, "");
	EXPECT_EQ(record->text, "hello  ");
}

TEST(ctl_record, decode__texts)
{
	struct {
		const char *raw;
		const char *text;
	} const cases[] = {
		{ "4,1,2,-;\n", "" },
		{ "4,1,2,-;", "" },
		{ "4,1,2,-;a;b,c\n", "a;b,c" },
		{ "4,1,2,c;continued\n", "continued" },
		{ "4,1,2,-;\\x0a------------ dump sock ------------\n",
		  "\n------------ dump sock ------------" },
		{ "4,1,2,-;a\\x5cx0a\\x09\\xc3\\xa4\n", "a\\x0a\t\xc3\xa4" },
		{ "4,1,2,-;not \\x4 \\xgg \\q an escape\\x\n", "not \\x4 \\xgg \\q an escape\\x" },
		{ "6,1,2,-;usb: new\n SUBSYSTEM=usb\n DEVICE=c189:1\n", "usb: new" },
	};
	for (const auto &each : cases) {
		auto record = decode_record(each.raw);
		ASSERT_TRUE(record) << each.raw;
		EXPECT_EQ(record->text, each.text) << each.raw;
	}
}

TEST(ctl_record, decode__caller)
{
	EXPECT_EQ(decode_record("4,1,2,-,caller=T412;x\n")->caller, "T412");
	EXPECT_EQ(decode_record("4,1,2,-,caller=C1,more=2;x\n")->caller, "C1");
	EXPECT_EQ(decode_record("4,1,2,-,other=1,caller=T7;x;caller=T8\n")->caller, "T7");
	EXPECT_EQ(decode_record("4,1,2,-;,caller=T8;\n")->caller, "");
}

TEST(ctl_record, decode__what_is_no_record)
{
	for (const char *raw : { "", "4", "4,", "4,1", "4,1,2", "4,1,2,-", "x,1,2,-;t", "4,x,2,-;t",
				 "4,1,x,-;t", "4;t" })
		EXPECT_FALSE(decode_record(raw)) << raw;
}

TEST(ctl_record, every_printk_call_comes_back)
{
	std::string all;
	for (int c = 1; c < 256; ++c)
		all += static_cast<char>(c);
	EXPECT_EQ(decode_record(kmsg_record(1, all))->text, all);
	EXPECT_EQ(decode_record(kmsg_record(1, "\n"))->text, "");
}

TEST(ctl_kernel_log, errors_name_the_remedy)
{
	struct {
		int error;
		const char *part;
	} const cases[] = {
		{ EPERM, "kernel.dmesg_restrict=0" },
		{ EACCES, "CAP_SYSLOG" },
		{ ENOENT, "mknod" },
		{ ENODEV, "CONFIG_PRINTK" },
		{ EIO, "Input/output error" },
	};
	for (const auto &each : cases) {
		std::string text = moxctl::kernel_log_error(each.error);
		EXPECT_NE(text.find("/dev/kmsg"), std::string::npos) << text;
		EXPECT_NE(text.find(each.part), std::string::npos) << text;
	}
}

/** A log in the making: numbers records, as the kernel does. */
class Log {
public:
	explicit Log(unsigned kind) : filter(FakeNetlink::own_port, kind) {}

	void print(const std::string &call, unsigned priority = 4, const std::string &caller = {})
	{
		auto record = decode_record(kmsg_record(sequence++, call, priority, caller));
		ASSERT_TRUE(record);
		filter.take(*record);
	}
	void print_text(const std::string &text, const std::string &caller = {})
	{
		for (const std::string &call : printk_calls(text))
			print(call, 4, caller);
	}
	void open(const std::string &caller = {})
	{
		print("Deal message from 4711, moxctl.\n", 4, caller);
	}
	std::string text()
	{
		filter.finish();
		std::string all;
		for (const std::string &line : filter.lines())
			all += line + "\n";
		return all;
	}

	unsigned long sequence = 100;
	ReportFilter filter;
};

TEST(ctl_filter, every_report_comes_out_to_the_byte)
{
	struct {
		unsigned kind;
		std::string text;
	} const cases[] = {
		{ moxctl::report_rules, lev2_report() },
		{ moxctl::report_rules, all_reports() },
		{ moxctl::report_queues, queues_report() },
		{ moxctl::report_memory, memory_report() },
		{ moxctl::report_thread, thread_report() },
		{ moxctl::report_process,
		  "show process arpwatch regular:\n" + arpwatch_socket() + everything_socket() },
	};
	for (const auto &each : cases) {
		Log log(each.kind);
		log.print("before\n");
		log.open();
		log.print_text(each.text);
		EXPECT_TRUE(log.filter.begun());
		EXPECT_EQ(log.filter.lost(), 0u);
		EXPECT_EQ(log.text(), each.text);
	}
}

TEST(ctl_filter, what_stands_before_the_request_is_not_the_reports)
{
	Log log(moxctl::report_rules);
	log.print("Deal message from 4712, moxctl.\n");
	log.print_text(empty_report("PACKET_WLAN_LOC"));
	EXPECT_FALSE(log.filter.begun());
	log.print("Deal message from 47110, moxctl.\n");
	EXPECT_FALSE(log.filter.begun());
	EXPECT_EQ(log.text(), "");
	log.open();
	EXPECT_TRUE(log.filter.begun());
	log.print_text(lev2_report());
	EXPECT_EQ(log.text(), lev2_report());
}

TEST(ctl_filter, the_next_request_ends_it)
{
	Log log(moxctl::report_rules);
	log.open();
	log.print_text(lev2_report());
	log.print("Deal message from 99, other.\n");
	log.print_text(lev2_report());
	log.sequence += 10;
	log.print("late\n");
	EXPECT_EQ(log.text(), lev2_report());
	EXPECT_EQ(log.filter.lost(), 0u) << "records lost behind the report do not count";
}

TEST(ctl_filter, foreign_lines_in_between_are_left_out)
{
	// Before every record of the report, also between a label and its value.
	const struct {
		const char *call;
		unsigned priority;
	} foreign[] = {
		{ "port1: link up\n", 6 },
		{ "usb 1-1: new device\n", 4 },
		{ "[MOX-PACKET(2)]: MOX-PACKET-RCV: fast filter\n", 4 },
		{ "arpwatch[412]: process:       x\n", 4 },
		{ "sk recv packets:        17\n", 6 }, // reads like one, but another level
		{ "PACKET_ALL\n", 12 },                // a program's line
		{ "sk recv packets:        none\n", 4 },
		{ "location: KITCHEN\n", 4 },
	};
	for (const auto &each : foreign) {
		Log log(moxctl::report_rules);
		log.open();
		for (const std::string &call : printk_calls(lev2_report())) {
			log.print(each.call, each.priority);
			log.print(call);
		}
		log.print(each.call, each.priority);
		EXPECT_EQ(log.text(), lev2_report()) << each.call;
	}
}

TEST(ctl_filter, lines_of_other_reports_are_left_out_of_those_that_have_none)
{
	// A socket that prints itself (option 18) meanwhile.
	Log log(moxctl::report_memory);
	log.open();
	for (const std::string &call : printk_calls(memory_report())) {
		log.print("process:       arpwatch\n");
		log.print(call);
	}
	EXPECT_EQ(log.text(), memory_report());
}

TEST(ctl_filter, where_the_kernel_tells_callers_only_the_requests_own_count)
{
	Log log(moxctl::report_rules);
	log.open("T412");
	log.print_text(lev2_report(), "T412");
	log.print_text(arpwatch_socket(), "T413");
	log.print_text(arpwatch_socket());
	EXPECT_EQ(log.text(), lev2_report());
}

TEST(ctl_filter, a_process_name_with_a_line_end_stays_one_line)
{
	Log log(moxctl::report_rules);
	log.open();
	log.print("process:       a\nsk refcnt:              9\n");
	log.filter.finish();
	EXPECT_EQ(log.filter.lines(),
		  std::vector<std::string>{ "process:       a\nsk refcnt:              9" });
}

TEST(ctl_filter, a_label_without_a_value_is_a_line)
{
	Log log(moxctl::report_rules);
	log.open();
	log.print("regular data:  ");
	log.print("PACKET LOC:         PACKET_LEV2_LOC\n");
	log.print("regular data:  ");
	log.print("regular type:  ");
	log.print("PACKET_ALL\n");
	log.print("regular data:  ");
	EXPECT_EQ(log.text(),
		  "regular data:  \nPACKET LOC:         PACKET_LEV2_LOC\nregular data:  \n"
		  "regular type:  PACKET_ALL\nregular data:  \n");
}

TEST(ctl_filter, a_whole_line_in_one_call_is_as_good)
{
	Log log(moxctl::report_rules);
	log.open();
	for (const std::string &line : lines_of_text(arpwatch_socket()))
		log.print(line + "\n");
	EXPECT_EQ(log.text(), arpwatch_socket());
}

TEST(ctl_filter, lost_records_are_counted_from_the_request_on)
{
	Log log(moxctl::report_rules);
	log.print("before\n");
	log.sequence += 5;
	log.open();
	log.print_text(queue_lines("PACKET_LEV2_LOC"));
	EXPECT_EQ(log.filter.lost(), 0u);
	log.sequence += 7;
	log.print("anything\n", 6);
	log.sequence += 2;
	log.print("sk refcnt:              3\n");
	EXPECT_EQ(log.filter.lost(), 9u);
	EXPECT_FALSE(log.filter.was_overwritten());
	log.filter.overwritten();
	EXPECT_TRUE(log.filter.was_overwritten());
}

TEST(ctl_follower, reads_while_the_report_is_printed_and_to_its_end)
{
	FakeLog log;
	ReportFilter filter(FakeNetlink::own_port, moxctl::report_rules);
	log.log("no record at all");
	log.log(kmsg_record(1, "Deal message from 4711, moxctl.\n"));
	unsigned long sequence = 2;
	std::string expected;
	{
		moxctl::LogFollower follower(log);
		for (int i = 0; i < 50; ++i) {
			for (const std::string &call : printk_calls(lev2_report()))
				log.log(kmsg_record(sequence++, call));
			expected += lev2_report();
		}
		follower.stop(filter);
	}
	std::string text;
	for (const std::string &line : filter.lines())
		text += line + "\n";
	EXPECT_EQ(text, expected);
	EXPECT_FALSE(filter.was_overwritten());
}

TEST(ctl_follower, tells_of_overwritten_records_and_of_errors)
{
	FakeLog log;
	ReportFilter filter(FakeNetlink::own_port, moxctl::report_rules);
	log.log(kmsg_record(1, "Deal message from 4711, moxctl.\n"));
	log.overwrite();
	log.log(kmsg_record(12, "sk refcnt:              3\n"));
	moxctl::LogFollower(log).stop(filter);
	EXPECT_TRUE(filter.was_overwritten());
	EXPECT_EQ(filter.lost(), 10u);

	FakeLog broken;
	broken.fail(EIO);
	ReportFilter other(FakeNetlink::own_port, moxctl::report_rules);
	moxctl::LogFollower follower(broken);
	EXPECT_THROW(follower.stop(other), moxctl::Failure);
}

} // namespace
