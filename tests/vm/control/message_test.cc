// SPDX-License-Identifier: GPL-2.0-only
// Each type of request with the exact lines that it prints, debugging and not, and the debug switches.
#include "control.h"

#include <cstdio>
#include <thread>

#include <pthread.h>
#include <unistd.h>

#include "golden.h"

namespace {

using namespace vm;

class Message : public ControlTest {
protected:
	/// What a request of the type with an empty body prints behind the line that names the asking process.
	static std::string text_of(unsigned type, bool debugging)
	{
		auto debug_line = [&](const char *text) {
			return debugging ? tagged(text) : std::string();
		};
		Pieces out;
		switch (type) {
		case 0 ... 7:
			return joined(location_pieces(type + 1));
		case 8:
			for (unsigned location = 1; location <= 8; ++location) {
				append(out, location_pieces(location));
				out.push_back("\n");
			}
			return joined(out);
		case 9:
			for (unsigned location = 1; location <= 8; ++location)
				append(out, queue_pieces(location));
			return joined(out);
		case 10:
			return joined(memory_pieces());
		case 11:
			return "show process  regular:\n";
		case 12:
			out = { "show process 0 regular:\n" };
			for (int location = 1; location <= 8; ++location)
				out.push_back(
					debug_line("MOX-PACKET-SHOW-REGULAR-SPEC: pid is <= 0!\n"));
			return joined(out);
		case 13:
			return joined(thread_pieces());
		case 14:
			return debug_line("DEBUG TYPE 0, IS_OPEN 0\n");
		case 15:
			return debug_line("Recv filter debug msg disable\n");
		case 16:
			return debug_line(
				       "Failed to open file: /tmp/vsd/0//ef/af_packet/afpacketdump.\n") +
			       debug_line("Ask msg success.\n");
		default:
			return debug_line("MSG TYPE ILLEGAL.\n");
		}
	}
};

TEST_F(Message, each_type_prints_its_lines)
{
	::rename("/tmp/vsd",
		 "/tmp/vsd.away"); // so that type 16 prints that it cannot open its file
	for (unsigned type = 0; type <= 18; ++type) {
		uint16_t number = type == 18 ? 65535 : uint16_t(type);
		SCOPED_TRACE(number);
		std::string client = std::to_string(client_.port());
		for (bool debugging : { false, true }) {
			debug(debugging);
			uint32_t taken = requests_taken();
			std::string text = printed(request(number)), wanted;
			if (debugging)
				wanted = tagged("Deal message, length:4.\n") +
					 tagged("MSG TYPE " + std::to_string(number) + ", client " +
						client + "\n");
			// Support tools ask for the dump again and again: that request does not name the process.
			if (number != 16)
				wanted += asked_by(client_.port());
			EXPECT_EQ(text, wanted + text_of(number, debugging));
			EXPECT_EQ(requests_taken(), taken + 1);
			EXPECT_EQ(bool(client_.receive()), number == 16)
				<< "nothing but the dump is answered";
		}
	}
	::rename("/tmp/vsd.away", "/tmp/vsd");
}

TEST_F(Message, the_name_of_who_asks_is_that_of_the_thread)
{
	std::string name = "fifteen letters";
	uint32_t port = 0;
	std::thread([&] {
		ASSERT_EQ(::pthread_setname_np(::pthread_self(), name.c_str()), 0);
		GenlSocket client;
		port = client.port();
		ask(client, 65535);
	}).join();
	EXPECT_EQ(said(), asked_by(port, name.c_str()));
}

TEST_F(Message, the_tag_bears_the_asking_cpu)
{
	debug(true);
	for (int cpu = 0; cpu < 4; ++cpu) {
		pin(cpu);
		said();
		ask(65535);
		EXPECT_TRUE(HasLine(lab::printk_lines(), "MSG TYPE ILLEGAL.", cpu));
	}
}

TEST_F(Message, each_switch_with_each_value)
{
	for (uint8_t start : { 0, 1, 0xaa })
		for (uint32_t type = 0; type <= 28; ++type)
			for (uint32_t value : { 0u, 1u, 2u, 255u, 256u, 0xffffff00u, 0x101u }) {
				SCOPED_TRACE(type * 1000 + value);
				Bytes wanted(kSwitches, start);
				wanted[9] = wanted[18] = 0;
				for (uint32_t i = 0; i < kSwitches; ++i)
					lab::poke8("mox_packet_debug", i, wanted[i]);
				const auto [from, to] = contract::switches_of(type);
				for (uint32_t i = from; i <= to; ++i)
					wanted[i] = uint8_t(value);
				ask_debug(type, value);
				EXPECT_EQ(switches(), wanted);
				said();
			}
}

TEST_F(Message, switch_9_turns_the_delivery_switches_and_leaves_its_own_byte)
{
	ask_debug(9, 1);
	EXPECT_EQ(switches(), (Bytes{ 0, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }));
	ask_debug(18, 7);
	EXPECT_EQ(switches(), (Bytes{ 0, 1, 1, 1, 1, 1, 1, 1, 1, 0, 7, 7, 7, 7, 7, 7, 7, 7, 0 }));
}

TEST_F(Message, switches_are_printed_while_debugging)
{
	const std::string head = tagged("Deal message, length:12.\n") +
				 tagged("MSG TYPE 14, client " + std::to_string(client_.port()) +
					"\n") +
				 asked_by(client_.port());
	struct Row {
		uint32_t type, value;
		std::string lines;
	};
	for (const Row &row : std::vector<Row>{
		     { 3, 1, tagged("DEBUG TYPE 3, IS_OPEN 1\n") },
		     { 9, 256, tagged("DEBUG TYPE 9, IS_OPEN 0\n") },
		     { 18, 0x1ff, tagged("DEBUG TYPE 18, IS_OPEN 255\n") },
		     { 23, 1, tagged("DEBUG TYPE 23, IS_OPEN 1\n") },
		     { 24, 0, tagged("DEBUG TYPE 24, IS_OPEN 0\n") },
		     { 27, 0, tagged("DEBUG TYPE 27, IS_OPEN 0\n") },
		     { 28, 1,
		       tagged("DEBUG TYPE 28, IS_OPEN 1\n") + tagged("DEBUG TYPE ILLEGAL\n") },
		     { 0xffffffff, 7,
		       tagged("DEBUG TYPE -1, IS_OPEN 7\n") + tagged("DEBUG TYPE ILLEGAL\n") },
	     }) {
		debug(true);
		EXPECT_EQ(printed(request(MOX_MSG_DEBUG, words({ row.type, row.value }))),
			  head + row.lines)
			<< row.type;
	}
}

TEST_F(Message, going_off_is_still_printed_and_coming_on_is_not)
{
	EXPECT_EQ(answer(MOX_MSG_DEBUG, words({ 0, 1 })), "")
		<< "the switch was looked at before it changed";
	EXPECT_EQ(switches()[0], 1);
	said();
	ask_debug(0, 0);
	std::string text = said(), last = tagged("DEBUG TYPE 0, IS_OPEN 0\n");
	EXPECT_EQ(text.substr(text.size() - std::min(text.size(), last.size())), last);
	EXPECT_EQ(switches()[0], 0);
}

} // namespace
