// SPDX-License-Identifier: GPL-2.0-only
#include "control/requests.hpp"

#include "base/errors.hpp"
#include "base/log.hpp"
#include "base/owned.hpp"
#include "base/restriction.hpp"
#include "control/dump_file.hpp"
#include "control/reports.hpp"
#include "control/switches.hpp"
#include "locations/table.hpp"
#include "packet/filter.hpp"
#include "receive/thread.hpp"
#include "services/vsd.hpp"

extern "C" {
constinit u8 mox_packet_msg_inited = 0;
constinit u32 g_packet_msg_recv = 0;
}

namespace mox {
namespace {

/*
 * Requests are handled one at a time, but for dumps, which have a mutex of their
 * own: they wait for a file system, and it may be a user's.
 */
constinit seam_mutex g_request_mutex{};
constinit seam_mutex g_dump_mutex{};

seam_mutex *mutex_of(u32 type)
{
	return type == MOX_MSG_TECH ? &g_dump_mutex : &g_request_mutex;
}

/* A message: netlink header, generic netlink header, attribute header, record. */
constexpr u32 kMessageLen = 0; /* u32, in the netlink header */
constexpr u32 kAttrLen = 20;   /* u16, header included */
constexpr u32 kAttrHeader = 4;
constexpr u32 kRecord = kAttrLen + kAttrHeader;
constexpr u32 kBody = offsetof(mox_packet_request, body); /* in the record */

static_assert(sizeof(mox_packet_request) == 76);
static_assert(kBody == 4);

void show_process(u32 kind, const char *name, s32 pid)
{
	for (u32 location = kFirstLocation; location <= kLastLocation; location++) {
		if (seam_fatal_signal_pending())
			return;
		mox_packet_show_regular_spec(kind, location, name, pid);
	}
}

/**
 * What of a requested name is printed. The log cuts a line before that, and the kernel warns of
 * a printed length that fills 16 bits.
 */
constexpr u32 kNamePrinted = 1024;

/** The name of a request: up to its NUL, or to the end of the message without one. */
struct RequestedName {
	const char *text; /* not terminated */
	u32 len;
};

RequestedName requested_name(const void *text, u32 reach)
{
	const auto *name = static_cast<const char *>(text);
	u32 len = 0;

	while (len < reach && name[len])
		len++;
	return { name, len };
}

void show_process_by_name(const RequestedName &asked)
{
	/* One character more than any process has: a longer name is cut to one that matches none. */
	char name[MOX_PACKET_NAME_SIZE + 1]{};
	__builtin_memcpy(name, asked.text, asked.len < sizeof(name) ? asked.len : sizeof(name) - 1);
	mox_printk("show process %.*s regular:\n",
		   static_cast<int>(asked.len < kNamePrinted ? asked.len : kNamePrinted),
		   asked.text);
	show_process(MOX_MSG_SHOW_NAME, name, 0);
}

void show_process_by_pid(const mox_packet_request &record)
{
	s32 pid = static_cast<s32>(record.body.pid);
	mox_printk("show process %d regular:\n", pid);
	show_process(MOX_MSG_SHOW_PID, nullptr, pid);
}

void show_all()
{
	for (u32 index = 0; index <= MOX_MSG_SHOW_LAST; index++) {
		if (seam_fatal_signal_pending())
			return;
		mox_packet_show_regular(index);
		mox_printk("\n");
	}
}

void show_queues()
{
	for (u32 location = kFirstLocation; location <= kLastLocation; location++)
		mox_packet_show_cpu_queue(location);
}

void set_filter(const mox_packet_request &record)
{
	mox_packet_filter filter = record.body.filter;
	/* Only four bits are left for the vsd: a higher number loses its upper ones. */
	u32 vsd = current_vsd();
	filter.vid = __builtin_bswap32((filter.vid & 0xfff) | (vsd << 28));
	pktd_filter_store(filter);
	MOX_DEBUG("Recv filter debug msg %s\n", filter.enable ? "enable" : "disable");
	show_pktd_filter_debug(&g_pktd_kdbg_filter);
}

void tech_dump(u32 client)
{
	pkt_tech_msg_deal();
	/* Also when no file was written: the client waits for the answer. */
	if (pkt_ask_msg(client) == 0)
		MOX_DEBUG("Ask msg success.\n");
}

/** The requester, for every request but the one that support tools repeat. */
void log_request(u32 client)
{
	char name[16];
	seam_current_comm(name);
	mox_printk("Deal message from %u, %s.\n", client, name);
}

/** Act on a request. name: of MOX_MSG_SHOW_NAME, which may be longer than the record. */
void deal(mox_packet_request *record, const RequestedName &name, u32 client)
{
	const u32 type = record->msg_type;

	MOX_DEBUG("MSG TYPE %d, client %u\n", static_cast<int>(type), client);
	if (type != MOX_MSG_TECH)
		log_request(client);
	switch (type) {
	case MOX_MSG_SHOW_FIRST ... MOX_MSG_SHOW_LAST:
		mox_packet_show_regular(type);
		break;
	case MOX_MSG_SHOW_ALL:
		show_all();
		break;
	case MOX_MSG_SHOW_QUEUES:
		show_queues();
		break;
	case MOX_MSG_SHOW_MEMORY:
		mox_packet_dump_mem();
		break;
	case MOX_MSG_SHOW_NAME:
		show_process_by_name(name);
		break;
	case MOX_MSG_SHOW_PID:
		show_process_by_pid(*record);
		break;
	case MOX_MSG_SHOW_THREAD:
		mox_packet_dump_thread();
		break;
	case MOX_MSG_DEBUG:
		mox_packet_debug_msg_deal(record);
		break;
	case MOX_MSG_FILTER:
		set_filter(*record);
		break;
	case MOX_MSG_TECH:
		tech_dump(client);
		break;
	default:
		MOX_DEBUG("MSG TYPE ILLEGAL.\n");
		break;
	}
}

/** Fill an answer: empty, of one empty attribute. False after a log line. */
bool fill_answer(sk_buff *skb, u32 client)
{
	void *message = seam_genl_put(skb, client);
	if (!message) {
		MOX_DEBUG("Genlmsg_put fail.\n");
		return false;
	}
	int error = seam_genl_put_empty(skb, MOX_PACKET_GENL_ATTR);
	if (error) {
		MOX_DEBUG("Nla_put fail, ret %d.\n", error);
		return false;
	}
	seam_genl_end(skb, message);
	return true;
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" {

int mox_packet_msg_init(void)
{
	if (mox_packet_msg_inited)
		return 0;
	seam_request_mutex_init(&g_request_mutex);
	seam_dump_mutex_init(&g_dump_mutex);
	int error = seam_genl_register();
	if (error) {
		mox_printk("Failed to register generic netlink family, errno %d\n", error);
		return error;
	}
	mox_packet_msg_inited = 1;
	return 0;
}

void mox_packet_msg_deinit(void)
{
	if (!mox_packet_msg_inited)
		return;
	seam_genl_unregister();
	mox_packet_msg_inited = 0;
}

int mox_packet_msg_recv(sk_buff *request, genl_info *info)
{
	if (restriction_on() && !seam_genl_from_admin(request))
		return err::kPerm;
	const void *message = seam_genl_message(info);
	u32 len = field<u32>(message, kMessageLen);

	if (len < kRecord) {
		MOX_DEBUG("Netlink message length error.\n");
		return -1;
	}
	/*
	 * The record counts as far as the message reaches, whatever the
	 * attribute says of its length. Behind that lies foreign memory: a type
	 * reads zeroes there instead.
	 */
	mox_packet_request record{};
	const u8 *payload = static_cast<const u8 *>(message) + kRecord;
	u32 reach = len - kRecord;
	__builtin_memcpy(&record, payload, reach < sizeof(record) ? reach : sizeof(record));
	RequestedName name = reach > kBody ? requested_name(payload + kBody, reach - kBody)
					   : RequestedName{ "", 0 };
	KillableGuard guard(mutex_of(record.msg_type));
	if (!guard)
		return err::kIntr;
	MOX_DEBUG("Deal message, length:%d.\n",
		  static_cast<int>(field<u16>(message, kAttrLen)) - static_cast<int>(kAttrHeader));
	/* Under two mutexes, and yet exact: operators compare it with what they sent. */
	__atomic_fetch_add(&g_packet_msg_recv, 1, __ATOMIC_RELAXED);
	deal(&record, name, seam_genl_client(info));
	return 0;
}

int mox_packet_msg_deal(mox_packet_request *record, u32 client)
{
	KillableGuard guard(mutex_of(record->msg_type));
	if (!guard)
		return err::kIntr;
	deal(record, requested_name(record->body.name, sizeof(record->body)), client);
	return 0;
}

int pkt_ask_msg(u32 client)
{
	Owned<sk_buff, seam_genl_free> skb(seam_genl_alloc());
	if (!skb) {
		MOX_DEBUG("Malloc skb fail.\n");
		return err::kNoMem;
	}
	if (!fill_answer(skb.get(), client))
		return -1;
	int sent = seam_genl_unicast(skb.release(), client);
	if (sent < 0) {
		MOX_DEBUG("Genlmsg_unicast fail, ret %d.\n", sent);
		return -1;
	}
	return 0;
}
} // extern "C"
