// SPDX-License-Identifier: GPL-2.0-only
/*
 * serv.c - the services that the platform publishes, and their change handlers.
 */
#include <linux/etherdevice.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include "efmp.h"

#define HANDLERS 8

/*
 * Two entry points for each service, so that one can take the other's place.
 *
 * When the verb of a withdrawal returns, every handler and every hook that ran
 * meanwhile has returned, so a later call of a drop service is a bug of the
 * caller. The local MAC is looked up in process context, outside any section that
 * could be waited for: a sender that took the pointer before may still call it.
 * Entry points therefore stay valid until this module is unloaded, which its
 * importers prevent.
 */
struct entry {
	void *func;
	s32 result;
	u8 mac[ETH_ALEN]; /* LOCAL_MAC; zero: the host port's */
	bool gone;        /* withdrawn or replaced: a call is misuse, or late */
	atomic_t calls;
};

struct service {
	u32 service_class;
	u32 instance;
	struct entry entries[MOXLAB_SERVICE_ENTRIES];
	u32 current_entry;
	bool published;
	atomic_t late;
};

typedef void (*handler_t)(u32 event, void *record);

static int local_mac_0(u32 unit, u8 mac[ETH_ALEN]);
static int local_mac_1(u32 unit, u8 mac[ETH_ALEN]);
static int drop_0(void *efbuff);
static int drop_1(void *efbuff);
static int drop_wlan_0(void *efbuff);
static int drop_wlan_1(void *efbuff);

enum { LOCAL_MAC, DROP, DROP_WLAN };

static struct service services[] = {
	/* A device has its own address from the start. */
	[LOCAL_MAC] = { .service_class = 11,
			.instance = 10,
			.published = true,
			.entries = { { local_mac_0 }, { local_mac_1 } } },
	[DROP] = { .service_class = 32, .instance = 0, .entries = { { drop_0 }, { drop_1 } } },
	[DROP_WLAN] = { .service_class = 32,
			.instance = 3,
			.entries = { { drop_wlan_0 }, { drop_wlan_1 } } },
};

static u32 last_unit; /* what the last call for the local MAC gave */
static handler_t handlers[HANDLERS];
/* The table and the handlers; held while handlers run. */
static DEFINE_MUTEX(serv_lock);
static DEFINE_SPINLOCK(mac_lock); /* an address changes as a whole */

struct failpoint efmp_reg_serv_fail = FAILPOINT_INIT(efmp_reg_serv_fail);
struct failpoint efmp_get_service_fail = FAILPOINT_INIT(efmp_get_service_fail);

static struct entry *called(int which, int n)
{
	struct service *s = &services[which];
	struct entry *e = &s->entries[n];

	atomic_inc(&e->calls);
	if (READ_ONCE(e->gone)) {
		atomic_inc(&s->late);
		if (which != LOCAL_MAC)
			efmp_misuse(MOXLAB_MISUSE_WITHDRAWN,
				    "entry %d of service %u/%u was called after its withdrawal", n,
				    s->service_class, s->instance);
	}
	return e;
}

static int local_mac(int n, u32 unit, u8 mac[ETH_ALEN])
{
	struct entry *e = called(LOCAL_MAC, n);
	int result = READ_ONCE(e->result);

	WRITE_ONCE(last_unit, unit);
	if (result)
		return result;
	spin_lock_bh(&mac_lock);
	memcpy(mac, is_zero_ether_addr(e->mac) ? efmp_host_mac() : e->mac, ETH_ALEN);
	spin_unlock_bh(&mac_lock);
	return 0;
}

static int drop(int which, int n, void *efbuff)
{
	void *mine = (void *)(this_cpu_read(efmp_cpu_buffer_cache) & ~1ul);

	if (efbuff != mine)
		efmp_misuse(MOXLAB_MISUSE_UNKNOWN,
			    "a drop service was asked about %px, but this CPU's hook has %px",
			    efbuff, mine);
	return READ_ONCE(called(which, n)->result);
}

static int local_mac_0(u32 unit, u8 mac[ETH_ALEN])
{
	return local_mac(0, unit, mac);
}

static int local_mac_1(u32 unit, u8 mac[ETH_ALEN])
{
	return local_mac(1, unit, mac);
}

static int drop_0(void *efbuff)
{
	return drop(DROP, 0, efbuff);
}

static int drop_1(void *efbuff)
{
	return drop(DROP, 1, efbuff);
}

static int drop_wlan_0(void *efbuff)
{
	return drop(DROP_WLAN, 0, efbuff);
}

static int drop_wlan_1(void *efbuff)
{
	return drop(DROP_WLAN, 1, efbuff);
}

static struct service *find(u32 service_class, u32 instance)
{
	int i;

	for (i = 0; i < ARRAY_SIZE(services); i++)
		if (services[i].service_class == service_class && services[i].instance == instance)
			return &services[i];
	return NULL;
}

void *efmp_get_service(u32 service_class, u32 instance)
{
	struct service *s;
	void *entry;

	if (failpoint_hit(&efmp_get_service_fail, NULL))
		return NULL;
	mutex_lock(&serv_lock);
	s = find(service_class, instance);
	entry = s && s->published ? s->entries[s->current_entry].func : NULL;
	mutex_unlock(&serv_lock);
	return entry;
}
EXPORT_SYMBOL(efmp_get_service);

/* Under serv_lock: the slot of @handler; null is a free one. */
static int slot_of(handler_t handler)
{
	int i;

	for (i = 0; i < HANDLERS; i++)
		if (handlers[i] == handler)
			return i;
	return -ENOSPC;
}

int efmp_reg_serv_change_handler(handler_t handler)
{
	struct moxlab_reglog_rec rec = { .call = MOXLAB_REG_SERV };
	int slot;

	if (!handler)
		return -EINVAL;
	mutex_lock(&serv_lock);
	if (!failpoint_hit(&efmp_reg_serv_fail, &rec.result) && slot_of(handler) < 0) {
		slot = slot_of(NULL);
		if (slot < 0) {
			rec.result = slot;
		} else {
			handlers[slot] = handler;
			rec.changed = 1;
		}
	}
	mutex_unlock(&serv_lock);
	efmp_reglog_add(&rec, handler);
	return rec.result;
}
EXPORT_SYMBOL(efmp_reg_serv_change_handler);

int efmp_unreg_serv_change_handler(handler_t handler)
{
	struct moxlab_reglog_rec rec = { .call = MOXLAB_DEREG_SERV };
	int slot;

	if (!handler)
		return -EINVAL;
	mutex_lock(&serv_lock);
	slot = slot_of(handler);
	if (slot >= 0) {
		handlers[slot] = NULL;
		rec.changed = 1;
	}
	mutex_unlock(&serv_lock);
	efmp_reglog_add(&rec, handler);
	return 0;
}
EXPORT_SYMBOL(efmp_unreg_serv_change_handler);

bool efmp_serv_nth_handler(u32 n, struct moxlab_reg_rec *rec)
{
	bool found = false;
	int i;

	mutex_lock(&serv_lock);
	for (i = 0; i < HANDLERS && !found; i++) {
		if (!handlers[i] || n--)
			continue;
		rec->call = MOXLAB_REG_SERV;
		efmp_symbol(handlers[i], rec->symbol);
		found = true;
	}
	mutex_unlock(&serv_lock);
	return found;
}

/* Under serv_lock. */
static void call_handlers(u32 event, const struct moxlab_service *v, const void *func)
{
	int i;

	for (i = 0; i < HANDLERS; i++) {
		u32 record[3] = {
			(u32)(unsigned long)func,
			v->service_class,
			v->instance,
		};

		if (handlers[i])
			handlers[i](event, record);
	}
}

static void set_answers(struct entry *e, const struct moxlab_service *v)
{
	WRITE_ONCE(e->result, v->result);
	spin_lock_bh(&mac_lock);
	ether_addr_copy(e->mac, v->mac);
	spin_unlock_bh(&mac_lock);
}

/* Under serv_lock, when the handlers know better: no hook is in it any more. */
static void bid_farewell(struct entry *e)
{
	efmp_hooks_wait();
	WRITE_ONCE(e->gone, true);
}

/* Under serv_lock. */
static void publish(struct service *s, const struct moxlab_service *v)
{
	struct entry *old = &s->entries[s->current_entry];
	struct entry *e = &s->entries[v->entry];

	set_answers(e, v);
	WRITE_ONCE(e->gone, false);
	s->current_entry = v->entry;
	s->published = true;
	call_handlers(0, v, e->func);
	if (old != e)
		bid_farewell(old);
}

/* Under serv_lock. */
static void withdraw(struct service *s, const struct moxlab_service *v)
{
	struct entry *e = &s->entries[s->current_entry];

	s->published = false;
	call_handlers(1, v, e->func);
	bid_farewell(e);
}

/* Under serv_lock. Handlers may call what event 0 offers them. */
static void event(struct service *s, const struct moxlab_service *v)
{
	struct entry *e = s ? &s->entries[v->entry] : NULL;

	if (e && v->event == 0)
		WRITE_ONCE(e->gone, false);
	call_handlers(v->event, v, e ? e->func : NULL);
}

int efmp_serv_verb(struct moxlab_service *v)
{
	struct service *s = find(v->service_class, v->instance);
	int i;

	if (v->op > MOXLAB_SERVICE_QUERY || v->entry >= MOXLAB_SERVICE_ENTRIES)
		return -EINVAL;
	if (!s && v->op != MOXLAB_SERVICE_EVENT)
		return -ENOENT;

	mutex_lock(&serv_lock);
	switch (v->op) {
	case MOXLAB_SERVICE_PUBLISH:
		publish(s, v);
		break;
	case MOXLAB_SERVICE_WITHDRAW:
		withdraw(s, v);
		break;
	case MOXLAB_SERVICE_EVENT:
		event(s, v);
		break;
	case MOXLAB_SERVICE_SET:
		set_answers(&s->entries[v->entry], v);
		break;
	}
	v->published = s && s->published;
	v->calls = s ? atomic_read(&s->entries[v->entry].calls) : 0;
	v->late = s ? atomic_read(&s->late) : 0;
	v->unit = READ_ONCE(last_unit);
	v->handlers = 0;
	for (i = 0; i < HANDLERS; i++)
		v->handlers += !!handlers[i];
	mutex_unlock(&serv_lock);
	return 0;
}

/* For the platform's own test: what a forgetful importer would do. */
int efmp_serv_call_late(void)
{
	struct moxlab_service v = { .service_class = 32 };
	struct service *s = &services[DROP];
	int err = -EBUSY; /* a handler that keeps the pointer is not to be fooled */

	mutex_lock(&serv_lock);
	if (!s->published) {
		withdraw(s, &v);
		local_bh_disable();
		((int (*)(void *))s->entries[s->current_entry].func)(NULL);
		local_bh_enable();
		err = 0;
	}
	mutex_unlock(&serv_lock);
	return err;
}
