/* SPDX-License-Identifier: GPL-2.0-only */
/* The agent's loop over a socket whose queue is never empty. */
#include "serve.h"

#include "fake_calls.h"
#include "pending_signal.h"
#include "samples.h"

#include <gtest/gtest.h>

#include <stdlib.h>

namespace {

using lldp::Bytes;

class KeepingWire : public lldp::Wire {
public:
	std::vector<Bytes> sent;
	int send(std::uint32_t, lldp::View frame) override
	{
		sent.emplace_back(frame.begin(), frame.end());
		return 0;
	}
};

TEST(Serve, run_until_stopped__a_flood_does_not_outlast_a_signal)
{
	constexpr int enough = 2000;
	char directory[] = "/tmp/serve_test.XXXXXX";
	ASSERT_TRUE(mkdtemp(directory));
	const std::string path = std::string(directory) + "/status";

	FakeCalls calls;
	KeepingWire wire;
	PendingSignal signal;
	int received = 0;
	{
		const std::vector<lldp::Port> ports{ { 3, "port1" } };
		lldp::StatusServer status(path);
		lldp::Listener listener(ports, calls);
		lldp::Identity identity;
		lldp::Agent agent(identity, ports, { lldp::Mac{ 2, 0, 0, 0, 1, 0xff } }, 2, wire,
				  [](const std::string &) {});
		QueuedFrame frame{ lldp::frame_of(sample_mac, lldp::encode(sample_pdu())), {} };
		frame.control.pkt_ifx = 3;
		calls.queue(frame);
		// Every frame that is read brings the next one; a loop that the signal does not end is ended after many.
		calls.on_receive = [&] {
			if (++received == enough)
				PendingSignal::stopped = 1;
			calls.queue(frame);
		};
		lldp::run_until_stopped(agent, listener, status, PendingSignal::stopped,
					signal.waiting);
		EXPECT_EQ(agent.neighbours().all().size(), 1u);
	}
	rmdir(directory);

	EXPECT_GE(received, 1);
	EXPECT_LT(received, enough);
	ASSERT_EQ(wire.sent.size(), 2u);
	auto last = lldp::decode(*lldp::lldpdu_of(wire.sent.back()));
	ASSERT_TRUE(last.pdu);
	EXPECT_EQ(last.pdu->ttl, 0) << "the shutdown";
}

} // namespace
