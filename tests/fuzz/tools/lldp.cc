// SPDX-License-Identifier: GPL-2.0-only
// lldpagent: any frames from neighbours; what is shown of them, and what is read can be written.
#include <nlohmann/json.hpp>

#include "agent.h"
#include "harness.h"
#include "printable.h"
#include "state.h"

namespace {

class NoWire : public lldp::Wire {
public:
	int send(std::uint32_t, lldp::View) override { return 0; }
};

void read_twice(lldp::View frame)
{
	const auto pdu = lldp::lldpdu_of(frame);
	if (!pdu)
		return;
	const lldp::Decoded first = lldp::decode(*pdu);
	EXPECT_EQ(first.pdu.has_value(), first.error == nullptr);
	if (!first.pdu)
		return;
	const lldp::Decoded second = lldp::decode(lldp::encode(*first.pdu));
	ASSERT_TRUE(second.pdu) << second.error;
	EXPECT_TRUE(*second.pdu == *first.pdu);
	EXPECT_EQ(second.tlvs_discarded, 0u);
}

} // namespace

void fuzz_case(fuzz::Input input)
{
	const lldp::Mac mac{ 2, 0, 0, 0, 3, 1 };
	NoWire wire;
	lldp::Agent agent({}, { { 3, "port1" } }, { mac }, 2, wire,
			  [](const std::string &line) { expect_printable(line); });
	lldp::Time now{};
	for (int frames = 0; frames < 8 && !input.empty(); frames++) {
		const uint8_t how = input.byte();
		lldp::Bytes bytes = input.bytes(input.byte() + (how & 3) * 256u);
		if (how & 4)
			bytes = lldp::frame_of(mac, bytes);
		bytes.shrink_to_fit();
		read_twice(bytes);
		agent.receive(how & 128 ? 4 : 3, bytes, now);
		now += std::chrono::seconds(how / 8 % 16 * 8);
		agent.run(now);
		EXPECT_LE(agent.neighbours().all().size(), 2u);
	}
	expect_printable(lldp::state_as_text(agent, now));
	const std::string json = lldp::state_as_json(agent, now);
	expect_printable(json);
	EXPECT_TRUE(nlohmann::json::accept(json)) << json;
}
