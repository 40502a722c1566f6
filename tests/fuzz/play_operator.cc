// SPDX-License-Identifier: GPL-2.0-only
// What operators, their programs and other parts of the platform do, as the bytes choose it.
#include "play.h"

#include "base/restriction.hpp"

namespace fuzz {
namespace {

// The local-MAC service.
int local_mac(u32, u8 mac[6])
{
	memset(mac, 2, 6);
	return 0;
}

// A module of the platform that may drop a frame.
int rnfp(void *efbuff)
{
	return fake::word(efbuff) / 1024 % 4 == 0;
}

} // namespace

// A request of an operator: a report, a switch, the filter or the dump file.
void Play::request(int)
{
	const u16 type = u16(below(17));
	Bytes body;
	if (type == MOX_MSG_DEBUG) {
		// Not the hooks: they are taken away until an operator gives them back.
		body = debug_body(below(MOX_DEBUG_HOOK_FIRST), below(2));
	} else {
		body.resize(below(4) ? sizeof(mox_packet_filter) : 0);
		for (u8 &byte : body)
			byte = below(4) ? 0 : u8(below(256));
		if (type == MOX_MSG_FILTER && !body.empty())
			body[0] = u8(below(4) != 0);
		if (type == MOX_MSG_SHOW_PID)
			body = u32_bytes(below(4) ? u32(kernel().pid) : 0);
		if (type == MOX_MSG_SHOW_NAME && below(4))
			body = Bytes(kernel().comm.begin(), kernel().comm.end()) + Bytes{ 0 };
	}
	receive_request(record(type, body));
}

void Play::receive_request(const Bytes &record)
{
	CaptureTest::receive(message(record));
}

// The next batch of a dump that is open, or a request for one answer.
void Play::dump(int)
{
	const u32 what = below(8);
	if (what == 0) {
		return do_capture(below(2) ? MOX_CAPTURE_CMD_INFO : MOX_CAPTURE_CMD_THREAD, {});
	}
	if (filling_)
		return;
	filling_ = true;
	if (!reader_ || what == 1)
		reader_ = std::make_unique<Reader>(
			u8(MOX_CAPTURE_CMD_LOCATIONS +
			   below(MOX_CAPTURE_CMD_MEMORY - MOX_CAPTURE_CMD_LOCATIONS + 1)));
	if (reader_->started != 0 || reader_->fill(512 + below(256)) <= 0)
		reader_.reset();
	filling_ = false;
}

void Play::do_capture(u8 command, const Bytes &attributes, u32 client)
{
	std::string text;
	const seam_request request{ &fake::init_net(), client, 99, 0, &text };
	mox_capture_do(command, exact(attributes).get(), attributes.size(), &request);
}

// Begins or ends a trace, of more clients than may have one.
void Play::trace(int)
{
	const u32 client = 1 + below(MOX_CAPTURE_TRACES + 1), what = below(8);
	if (what == 0)
		return mox_capture_client_gone(client);
	if (what == 1)
		return do_capture(MOX_CAPTURE_CMD_TRACE_STOP, {}, client);
	Bytes attributes;
	for (u32 left = below(3); left; left--) {
		const u8 lengths[] = {
			0, 4, 4, 8, 1, 4, 2, 6, 2, below(2) ? u8(4) : u8(16), 1, 1, 2
		};
		const u32 type = below(std::size(lengths));
		Bytes value(lengths[type]);
		for (u8 &byte : value)
			byte = u8(below(8));
		attributes = attributes + attribute(u16(type), value);
	}
	do_capture(MOX_CAPTURE_CMD_TRACE_START, attributes, client);
}

// Socket diagnosis lists the sockets, as many as fit each time.
void Play::diagnose(int)
{
	seam_diag_place at{};
	kernel().diag_room = below(4);
	for (int calls = 0; calls < 3; calls++)
		mox_packet_diag_dump(nullptr, nullptr, &fake::init_net(), &at);
	kernel().diag_listed.clear();
}

// What a process may do, where it is, and what time it is.
void Play::surroundings(int)
{
	const u32 what = below(256);
	fake::Kernel &k = kernel();
	k.net_admin = what & 1;
	k.net_raw = what & 2;
	restriction_set((what & 12) == 12);
	k.cwd = (what & 48) == 48 ? "/data/var/run/vsd/3" : "/root";
	k.need_resched = what & 64;
	k.clock_ticks += what / 128;
	k.monotonic_ns += u64{ what } << 18;
}

void Play::service(int)
{
	const struct {
		u32 service_class, instance;
		void *entry;
	} services[] = {
		{ 11, 10, reinterpret_cast<void *>(local_mac) },
		{ 32, 0, reinterpret_cast<void *>(rnfp) },
		{ 32, 3, reinterpret_cast<void *>(rnfp) },
	};
	const auto &[service_class, instance, entry] = services[below(std::size(services))];
	if (below(2))
		efmp().publish(service_class, instance, entry);
	else
		efmp().withdraw(service_class, instance);
}

} // namespace fuzz
