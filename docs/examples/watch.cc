/* SPDX-License-Identifier: MIT */
/* watch - prints the frames of a rule: c++ -std=c++20 watch.cc $(pkg-config --cflags --libs mox); ./a.out eth=arp */
#include <cstdio>
#include <exception>
#include <mox/capture_socket.h>

int main(int argc, char **argv)
try {
	auto rule = mox::Rule::parse(argc > 1 ? argv[1] : "all", mox::system_interface_index);
	mox::CaptureSocket socket(mox::SocketKind::kRaw);
	socket.add_rule(rule);
	socket.set_treatment(PACKET_COPY);
	socket.set_location(PACKET_LEV2_LOC);
	for (std::uint8_t buffer[2048];;)
		if (auto frame = socket.receive(buffer, true))
			std::printf("interface %u, %zu bytes\n", frame->ifindex, frame->length);
} catch (const std::exception &error) {
	std::fprintf(stderr, "watch: %s\n", error.what());
	return 1;
}
