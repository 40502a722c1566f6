// SPDX-License-Identifier: GPL-2.0-only
/*
 * The generic netlink family for reading. The module checks attributes itself, so that
 * every kernel version gives the same answers: the kernel's own checks differ, and 4.19
 * has none of dumps.
 */
#include <linux/module.h>
#include <linux/uidgid.h>
#include <net/genetlink.h>
#include <linux/netlink.h>
#include <linux/notifier.h>
#include <net/net_namespace.h>
#include <net/netlink.h>
#include <linux/sock_diag.h>
#include <net/sock.h>

#include "seam_capture.h"
#include "seam_compat.h"

static struct genl_family mox_capture_family;

static const void *attributes_of(const struct nlmsghdr *header, size_t *size)
{
	const int len = nlmsg_len(header) - GENL_HDRLEN;

	*size = len > 0 ? len : 0;
	return (const char *)nlmsg_data(header) + GENL_HDRLEN;
}

static u8 command_of(const struct nlmsghdr *header)
{
	return ((const struct genlmsghdr *)nlmsg_data(header))->cmd;
}

static int seam_capture_doit(struct sk_buff *skb, struct genl_info *info)
{
	const struct seam_request request = {
		.net = genl_info_net(info),
		.client = info->snd_portid,
		.number = info->snd_seq,
		.explanation = info->extack,
	};
	size_t size;
	const void *attributes = attributes_of(info->nlhdr, &size);

	return mox_capture_do(command_of(info->nlhdr), attributes, size, &request);
}

static struct seam_request dump_request(const struct netlink_callback *cb)
{
	return (struct seam_request){
		.net = sock_net(cb->skb->sk),
		.client = NETLINK_CB(cb->skb).portid,
		.number = cb->nlh->nlmsg_seq,
		.flags = NLM_F_MULTI,
		.explanation = seam_compat_dump_extack(cb),
	};
}

static int seam_capture_start(struct netlink_callback *cb)
{
	const struct seam_request request = dump_request(cb);
	size_t size;
	const void *attributes = attributes_of(cb->nlh, &size);
	void *state = NULL;
	int error = mox_capture_dump_start(command_of(cb->nlh), attributes, size, &request, &state);

	cb->args[0] = (long)state;
	return error;
}

static int seam_capture_dumpit(struct sk_buff *skb, struct netlink_callback *cb)
{
	const struct seam_request request = dump_request(cb);
	u32 sequence = 0;
	int filled = mox_capture_dump_fill(skb, (void *)cb->args[0], &request, &sequence);
	struct nlmsghdr *first = (struct nlmsghdr *)skb->data;

	cb->seq = sequence;
	/* One message of the buffer says it for all of them. */
	if (filled > 0)
		nl_dump_check_consistent(cb, first);
	return filled;
}

static int seam_capture_done(struct netlink_callback *cb)
{
	mox_capture_dump_done((void *)cb->args[0]);
	return 0;
}

/* A row of the table of commands as a row of operations; events are none. */
#define SEAM_CAPTURE_ROW(name, number, how, ...) SEAM_CAPTURE_ROW_##how(number)
#define SEAM_CAPTURE_FLAGS_OF(number) ((number) == MOX_CAPTURE_CMD_INFO ? 0 : GENL_ADMIN_PERM)
#define SEAM_CAPTURE_ROW_DO(number)               \
	{ .cmd = number,                          \
	  .flags = SEAM_CAPTURE_FLAGS_OF(number), \
	  .doit = seam_capture_doit,              \
	  SEAM_GENL_LIBERAL },
#define SEAM_CAPTURE_ROW_DUMP(number)             \
	{ .cmd = number,                          \
	  .flags = SEAM_CAPTURE_FLAGS_OF(number), \
	  .start = seam_capture_start,            \
	  .dumpit = seam_capture_dumpit,          \
	  .done = seam_capture_done,              \
	  SEAM_GENL_LIBERAL },
#define SEAM_CAPTURE_ROW_EVENT(number)

static const struct genl_ops mox_capture_ops[] = { MOX_CAPTURE_CMD_TABLE(SEAM_CAPTURE_ROW) };

static struct genl_family mox_capture_family = {
	.name = MOX_CAPTURE_NAME,
	.version = MOX_CAPTURE_VERSION,
	.maxattr = MOX_CAPTURE_REQUEST_MAX,
	.netnsok = false,
	.parallel_ops = true,
	.ops = mox_capture_ops,
	.n_ops = ARRAY_SIZE(mox_capture_ops),
	SEAM_CAPTURE_RESV_START.module = THIS_MODULE,
};

static int seam_capture_event(struct notifier_block *block, unsigned long event, void *data)
{
	const struct netlink_notify *notify = data;

	if (event == NETLINK_URELEASE && notify->protocol == NETLINK_GENERIC &&
	    net_eq(notify->net, &init_net) && notify->portid)
		mox_capture_client_gone(notify->portid);
	return NOTIFY_DONE;
}

static struct notifier_block mox_capture_notifier = { .notifier_call = seam_capture_event };

int seam_capture_register(void)
{
	int error = netlink_register_notifier(&mox_capture_notifier);

	if (error)
		return error;
	error = genl_register_family(&mox_capture_family);
	if (error)
		netlink_unregister_notifier(&mox_capture_notifier);
	return error;
}

void seam_capture_unregister(void)
{
	genl_unregister_family(&mox_capture_family);
	netlink_unregister_notifier(&mox_capture_notifier);
}

void seam_capture_explain(const struct seam_request *request, const char *text)
{
	struct netlink_ext_ack *extack = request->explanation;

	if (extack)
		extack->_msg = text;
}

struct sk_buff *seam_capture_alloc(size_t size)
{
	return genlmsg_new(size, GFP_KERNEL);
}

struct sk_buff *seam_capture_alloc_atomic(size_t size)
{
	return genlmsg_new(size, GFP_ATOMIC);
}

void seam_capture_free(struct sk_buff *skb)
{
	nlmsg_free(skb);
}

int seam_capture_reply(const struct seam_request *request, struct sk_buff *skb)
{
	return genlmsg_unicast(request->net, skb, request->client);
}

void *seam_capture_begin(struct sk_buff *skb, const struct seam_request *request, u8 command)
{
	return genlmsg_put(skb, request->client, request->number, &mox_capture_family,
			   request->flags, command);
}

void seam_capture_end(struct sk_buff *skb, void *message)
{
	genlmsg_end(skb, message);
}

void seam_capture_cancel(struct sk_buff *skb, void *message)
{
	genlmsg_cancel(skb, message);
}

int seam_capture_put(struct sk_buff *skb, int type, size_t size, const void *data)
{
	return nla_put(skb, type, size, data);
}

size_t seam_capture_room(const struct sk_buff *skb)
{
	return skb_tailroom(skb);
}

void *seam_capture_nest(struct sk_buff *skb, int type)
{
	return nla_nest_start(skb, type | NLA_F_NESTED);
}

void seam_capture_nest_end(struct sk_buff *skb, void *nest)
{
	nla_nest_end(skb, nest);
}

void seam_capture_nest_cancel(struct sk_buff *skb, void *nest)
{
	nla_nest_cancel(skb, nest);
}

u64 seam_sk_cookie(struct sock *sk)
{
	u32 cookie[2];

	sock_diag_save_cookie(sk, cookie);
	return (u64)cookie[1] << 32 | cookie[0];
}

void seam_sock_identify(struct sock *sk, struct seam_sock_identity *identity)
{
	identity->cookie = seam_sk_cookie(sk);
	identity->inode = sock_i_ino(sk);
	identity->uid = from_kuid_munged(&init_user_ns, seam_compat_user(sk));
	identity->netns = sock_net(sk)->ns.inum;
	identity->type = sk->sk_type;
	identity->rcvbuf = READ_ONCE(sk->sk_rcvbuf);
	identity->filtered = rcu_access_pointer(sk->sk_filter) != NULL;
	identity->stamped = seam_sk_stamped(sk) != 0;
}

s32 seam_task_pid(const struct task_struct *task)
{
	return task_pid_nr((struct task_struct *)task);
}
