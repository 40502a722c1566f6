// SPDX-License-Identifier: GPL-2.0-only
#include "control/capture.hpp"

#include "base/errors.hpp"
#include "base/log.hpp"
#include "base/owned.hpp"
#include "base/restriction.hpp"
#include "base/socket_record.hpp"
#include "control/diag.hpp"
#include "locations/table.hpp"
#include "receive/tracer.hpp"

extern "C" {
constinit u8 mox_capture_inited = 0;
}

namespace mox {
namespace {

/* Bytes behind the headers of an answer to INFO or THREAD, which have 14 short attributes at most. */
constexpr size_t kAnswerSize = 1024;

using Fill = bool (*)(Dump *dump, sk_buff *skb, const seam_request *request);

/** What writes a dump, or null for a command that is none. */
Fill fill_of(u8 command)
{
	switch (command) {
	case MOX_CAPTURE_CMD_LOCATIONS:
		return dump_locations;
	case MOX_CAPTURE_CMD_SOCKETS:
		return dump_sockets_list;
	case MOX_CAPTURE_CMD_RULES:
		return dump_rules;
	case MOX_CAPTURE_CMD_QUEUES:
		return dump_queues;
	case MOX_CAPTURE_CMD_MEMORY:
		return dump_memory;
	default:
		return nullptr;
	}
}

constexpr u32 bit(mox_capture_request_attr which)
{
	return 1u << which;
}

/* The attributes by which a trace chooses frames. */
constexpr u32 kTraceCriteria = bit(MOX_CAPTURE_REQUEST_LOCATION) |
			       bit(MOX_CAPTURE_REQUEST_IFINDEX) | bit(MOX_CAPTURE_REQUEST_VLAN) |
			       bit(MOX_CAPTURE_REQUEST_MAC) | bit(MOX_CAPTURE_REQUEST_ETHER_TYPE) |
			       bit(MOX_CAPTURE_REQUEST_ADDRESS) | bit(MOX_CAPTURE_REQUEST_PREFIX) |
			       bit(MOX_CAPTURE_REQUEST_IP_PROTOCOL) | bit(MOX_CAPTURE_REQUEST_PORT);

/** The attributes that a command takes. */
u32 attributes_of(u8 command)
{
	switch (command) {
	case MOX_CAPTURE_CMD_LOCATIONS:
	case MOX_CAPTURE_CMD_QUEUES:
		return bit(MOX_CAPTURE_REQUEST_LOCATION);
	case MOX_CAPTURE_CMD_SOCKETS:
	case MOX_CAPTURE_CMD_RULES:
		return bit(MOX_CAPTURE_REQUEST_LOCATION) | bit(MOX_CAPTURE_REQUEST_PID) |
		       bit(MOX_CAPTURE_REQUEST_COOKIE);
	case MOX_CAPTURE_CMD_RESTRICT:
		return bit(MOX_CAPTURE_REQUEST_RESTRICT);
	case MOX_CAPTURE_CMD_TRACE_START:
		return kTraceCriteria;
	default:
		return 0;
	}
}

/** Read a request's attributes: 0, or a negative errno, explained. */
int read_request(u8 command, const void *attributes, size_t size, const seam_request *request,
		 Query *query)
{
	const char *reason;
	int error = read_query(attributes, size, query, &reason);

	if (!error && (query->present & ~attributes_of(command))) {
		reason = "an attribute that this command does not take";
		error = err::kInval;
	}
	if (error)
		seam_capture_explain(request, reason);
	return error;
}

/** Answer with one message, which put() writes. 0 or a negative errno. */
int answer(const seam_request *request, u8 command, void (*put)(Message &message))
{
	Owned<sk_buff, seam_capture_free> skb(seam_capture_alloc(kAnswerSize));

	if (!skb)
		return err::kNoMem;
	{
		Message message(skb.get(), request, command);
		put(message);
		if (!message.end())
			return err::kMsgSize;
	}
	return seam_capture_reply(request, skb.release());
}

int set_restriction(const Query &query, const seam_request *request)
{
	if (!query.has(MOX_CAPTURE_REQUEST_RESTRICT)) {
		seam_capture_explain(request, "restrict: absent");
		return err::kInval;
	}
	restriction_set(query.restrict_on != 0);
	return 0;
}

int start_trace(const Query &query, const seam_request *request)
{
	TraceFilter filter{};

	filter.criteria = query.present;
	filter.location = query.location;
	filter.ifindex = query.ifindex;
	filter.vlan = query.vlan;
	filter.ether_type = query.ether_type;
	__builtin_memcpy(filter.mac, query.mac, sizeof(filter.mac));
	filter.address_size = query.address_size;
	filter.prefix = query.prefix;
	__builtin_memcpy(filter.address, query.address, sizeof(filter.address));
	filter.ip_protocol = query.ip_protocol;
	filter.port = query.port;
	int error = tracer_start(request->client, filter);
	if (error == err::kBusy)
		seam_capture_explain(request, "too many traces go on: end one of them");
	return error;
}

int stop_trace(const seam_request *request)
{
	int error = tracer_stop(request->client);
	if (error)
		seam_capture_explain(request, "no trace of this socket goes on");
	return error;
}

} // namespace

bool selects(const Query &query, mox_packet_sock *po, seam_sock_identity *identity)
{
	if (query.has(MOX_CAPTURE_REQUEST_LOCATION) && load(po->regular.location) != query.location)
		return false;
	if (query.has(MOX_CAPTURE_REQUEST_PID) && po->pid != query.pid)
		return false;
	seam_sock_identify(sk_of(po), identity);
	return !query.has(MOX_CAPTURE_REQUEST_COOKIE) || identity->cookie == query.cookie;
}

bool rule_entered(mox_packet_sock *po)
{
	return po_flag(po, PO_RUNNING) && location_library(load(po->regular.location));
}

void hold_socket(Dump *dump, mox_packet_sock *po)
{
	hold_socket_in_use(po);
	dump->held = po;
}

void drop_socket(Dump *dump)
{
	mox_packet_sock *po = dump->held;

	dump->held = nullptr;
	put_socket_in_use(po);
}

} // namespace mox

using namespace mox;

extern "C" {

int mox_capture_init(void)
{
	if (mox_capture_inited)
		return 0;
	restriction_set(false);
	tracer_init();
	int error = seam_capture_register();
	if (error) {
		mox_printk("Failed to register generic netlink family %s, errno %d\n",
			   MOX_CAPTURE_NAME, error);
		return error;
	}
	diag_init();
	mox_capture_inited = 1;
	return 0;
}

void mox_capture_deinit(void)
{
	if (!mox_capture_inited)
		return;
	diag_deinit();
	seam_capture_unregister();
	tracer_deinit();
	mox_capture_inited = 0;
}

int mox_capture_do(u8 command, const void *attributes, size_t size, const seam_request *request)
{
	Query query;
	int error = read_request(command, attributes, size, request, &query);
	if (error)
		return error;
	switch (command) {
	case MOX_CAPTURE_CMD_INFO:
		return answer(request, command, put_info);
	case MOX_CAPTURE_CMD_THREAD:
		return answer(request, command, put_thread);
	case MOX_CAPTURE_CMD_RESTRICT:
		return set_restriction(query, request);
	case MOX_CAPTURE_CMD_TRACE_START:
		return start_trace(query, request);
	case MOX_CAPTURE_CMD_TRACE_STOP:
		return stop_trace(request);
	default:
		return err::kOpNotSupp;
	}
}

int mox_capture_dump_start(u8 command, const void *attributes, size_t size,
			   const seam_request *request, void **state)
{
	Query query;
	int error = read_request(command, attributes, size, request, &query);
	if (error)
		return error;
	if (!fill_of(command))
		return err::kOpNotSupp;
	auto *dump = static_cast<Dump *>(seam_kmalloc(sizeof(Dump)));
	if (!dump)
		return err::kNoMem;
	*dump = Dump{};
	dump->command = command;
	dump->query = query;
	*state = dump;
	return 0;
}

int mox_capture_dump_fill(sk_buff *skb, void *state, const seam_request *request, u32 *sequence)
{
	auto *dump = static_cast<Dump *>(state);

	*sequence = registry_changes();
	if (dump->ended)
		return 0;
	dump->ended = fill_of(dump->command)(dump, skb, request);
	const int filled = static_cast<int>(seam_skb_len(skb));
	/* Not even one message has found room: the reader's buffer is too small. */
	return filled == 0 && !dump->ended ? err::kMsgSize : filled;
}

void mox_capture_client_gone(u32 client)
{
	/* Most sockets that close have no trace. */
	if (tracer_on())
		(void)tracer_stop(client);
}

void mox_capture_dump_done(void *state)
{
	auto *dump = static_cast<Dump *>(state);

	if (dump && dump->held)
		drop_socket(dump);
	seam_kfree(dump);
}
} // extern "C"
