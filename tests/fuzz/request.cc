// SPDX-License-Identifier: GPL-2.0
// Requests to both netlink families: any message, any attributes, any room for a dump's messages.
#include "capture_fixture.h"
#include "fixture_case.h"

namespace {

class Requests : public CaptureTest {
public:
	void play(fuzz::Input &input)
	{
		Sock socks[3];
		for (u32 i = 0; i < std::size(socks); i++)
			socks[i].capture(PACKET_LEV2_LOC + i % 2, PACKET_COPY + i % 3);
		for (int requests = 0; requests < 8 && !input.empty(); requests++)
			request(input);
		capture_answers_are_sound();
	}

private:
	void request(fuzz::Input &input)
	{
		const u8 what = input.byte();
		if (what < 96) {
			const u16 type = input.byte();
			const Bytes body = input.bytes(input.byte());
			receive(message(record(type, body), what < 16 ? input.number<u16>() : -1,
					what % 8 == 0 ? input.number<u16>() : -1));
			return;
		}
		const u8 command = static_cast<u8>(what % 14);
		const size_t room = 512 + input.number<u16>() % 8192;
		const Bytes attributes = input.bytes(input.byte());
		const bool is_dump = command >= MOX_CAPTURE_CMD_LOCATIONS &&
				     command <= MOX_CAPTURE_CMD_MEMORY;
		if (is_dump) {
			Reader reader(command, attributes);
			if (reader.started == 0)
				reader.rest(room);
		} else {
			ask_one(command, attributes);
		}
	}
	// Whatever was sent decodes with the interface's tables; what they lack fails.
	static void capture_answers_are_sound()
	{
		for (const auto &answer : kernel().capture_answers)
			capture::decode(answer.message);
	}
};

} // namespace

void fuzz_case(fuzz::Input input)
{
	fuzz::Case<Requests>::run([&](Requests &requests) { requests.play(input); });
}
