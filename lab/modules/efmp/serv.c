// SPDX-License-Identifier: GPL-2.0
/*
 * serv.c - the services that the platform publishes, and who wants to hear of it.
 */
#include <linux/etherdevice.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include "efmp.h"

#define HANDLERS 8

struct service {
	u32 service_class;
	u32 instance;
	void *entry;
	bool published;
	s32 result;
	atomic_t calls;
};

typedef void (*handler_t)(u32 event, void *record);

static int local_mac(u32 unit, u8 mac[ETH_ALEN]);
static int drop(void *efbuff);
static int drop_wlan(void *efbuff);

enum { LOCAL_MAC, DROP, DROP_WLAN };

static struct service services[] = {
	/* A device knows its own address from the start. */
	[LOCAL_MAC] = { .service_class = 11, .instance = 10, .entry = local_mac,
			.published = true },
	[DROP] = { .service_class = 32, .instance = 0, .entry = drop },
	[DROP_WLAN] = { .service_class = 32, .instance = 3, .entry = drop_wlan },
};

static u8 chosen_mac[ETH_ALEN]; /* zero: the host port's */
static handler_t handlers[HANDLERS];
/* The table and the handlers; held while handlers run. */
static DEFINE_MUTEX(serv_lock);

struct failpoint efmp_reg_serv_fail = FAILPOINT_INIT(efmp_reg_serv_fail);
struct failpoint efmp_get_service_fail = FAILPOINT_INIT(efmp_get_service_fail);

static int called(int which)
{
	atomic_inc(&services[which].calls);
	return READ_ONCE(services[which].result);
}

static int local_mac(u32 unit, u8 mac[ETH_ALEN])
{
	int result = called(LOCAL_MAC);

	if (!result)
		memcpy(mac, is_zero_ether_addr(chosen_mac) ? efmp_host_mac() : chosen_mac,
		       ETH_ALEN);
	return result;
}

static int drop(void *efbuff)
{
	return called(DROP);
}

static int drop_wlan(void *efbuff)
{
	return called(DROP_WLAN);
}

static struct service *find(u32 service_class, u32 instance)
{
	int i;

	for (i = 0; i < ARRAY_SIZE(services); i++)
		if (services[i].service_class == service_class &&
		    services[i].instance == instance)
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
	entry = s && s->published ? s->entry : NULL;
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
static void tell(u32 event, const struct service *s, u32 service_class, u32 instance)
{
	int i;

	for (i = 0; i < HANDLERS; i++) {
		u32 record[3] = {
			s ? (u32)(unsigned long)s->entry : 0, service_class, instance,
		};

		if (handlers[i])
			handlers[i](event, record);
	}
}

int efmp_serv_verb(struct moxlab_service *v)
{
	struct service *s = find(v->service_class, v->instance);
	int i;

	if (v->op > MOXLAB_SERVICE_QUERY)
		return -EINVAL;
	if (!s && v->op != MOXLAB_SERVICE_EVENT)
		return -ENOENT;

	mutex_lock(&serv_lock);
	if (v->op == MOXLAB_SERVICE_PUBLISH || v->op == MOXLAB_SERVICE_SET) {
		WRITE_ONCE(s->result, v->result);
		if (s == &services[LOCAL_MAC])
			ether_addr_copy(chosen_mac, v->mac);
	}
	switch (v->op) {
	case MOXLAB_SERVICE_PUBLISH:
		s->published = true;
		tell(0, s, v->service_class, v->instance);
		break;
	case MOXLAB_SERVICE_WITHDRAW:
		s->published = false;
		tell(1, s, v->service_class, v->instance);
		break;
	case MOXLAB_SERVICE_EVENT:
		tell(v->event, s, v->service_class, v->instance);
		break;
	}
	v->published = s && s->published;
	v->calls = s ? atomic_read(&s->calls) : 0;
	v->handlers = 0;
	for (i = 0; i < HANDLERS; i++)
		v->handlers += !!handlers[i];
	mutex_unlock(&serv_lock);
	return 0;
}
