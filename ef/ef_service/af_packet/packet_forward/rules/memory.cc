// SPDX-License-Identifier: GPL-2.0-only
#include "rules/memory.hpp"

#include "base/log.hpp"
#include "locations/registration.hpp"
#include "rules/budget.hpp"
#include "rules/index.hpp"
#include "rules/pauses.hpp"
#include "rules/ranges.hpp"

extern "C" {
constinit u32 g_regular_data_stats[MOX_STAT_COUNT]{};
constinit u32 g_regular_item_stats[MOX_STAT_COUNT]{};
constinit u32 g_packet_regular_data_alloc = 0;
constinit u32 g_packet_regular_data_free = 0;
constinit u8 mox_packet_regular_inited = 0;
}

namespace mox {
namespace {

enum Cache : u32 { kDataCache, kItemCache, kEntryCache, kCopyCache, kCaches };

struct CacheTraits {
	const char *name;
	size_t size;
	const char *failure;
};

/* In the order of creation, which is also that of destruction. */
constexpr CacheTraits kCacheTraits[kCaches] = {
	{ "pkt_regular_data", sizeof(regular_data),
	  "MOX-PACKET-REGULAR-INIT: failed to create pkt_regular_data_cache.\n" },
	{ "pkt_item_mem", sizeof(regular_item),
	  "MOX-PACKET-REGULAR-INIT: failed to create pkt_regular_item_cache.\n" },
	{ "pkt_flt_mem", sizeof(filter_list_data),
	  "MOX-PACKET-REGULAR-INIT: failed to create pkt_filter_list_cache.\n" },
	{ "pkt_match_mem", sizeof(packet_regular),
	  "MOX-PACKET-REGULAR-INIT: failed to create pkt_match_list_cache.\n" },
};

constinit kmem_cache *g_caches[kCaches]{};
constinit u32 g_priority = 0;

void destroy_caches()
{
	for (kmem_cache *&cache : g_caches) {
		if (cache)
			seam_cache_destroy(cache);
		cache = nullptr;
	}
}

/**
 * An object of a cache with counter counted up, or null with the failure
 * counted. The object is not initialised.
 */
template <typename Record> Record *take(Cache cache, u32 (&stats)[MOX_STAT_COUNT], u32 counter)
{
	void *memory = seam_cache_alloc(g_caches[cache]);
	if (!memory) {
		bump(stats[MOX_STAT_FAILED]);
		return nullptr;
	}
	bump(stats[counter]);
	return static_cast<Record *>(memory);
}

/* Types come from callers that checked them; the bound keeps a mistake inside the array. */
constexpr u32 stat_of(u32 type)
{
	return type < MOX_PACKET_RULE_TYPES ? type : u32{ MOX_STAT_FAILED };
}

/** The next of a sequence that users cannot predict: its beginning is random. Any context. */
u32 next_priority()
{
	/* Two CPUs may draw the same number: equal priorities are no error. */
	u32 next = load(g_priority) * 1664525 + 1013904223;

	store(g_priority, next);
	return next;
}

void free_datas(regular_item *item)
{
	Pauses pauses;

	for (regular_data *data : datas_of(item)) {
		mox_packet_del_data(data);
		list_poison(&data->node);
		mox_packet_free_data(data);
		pauses.step();
	}
}

} // namespace

OwnedData make_data(u32 type, const void *value, u32 len)
{
	OwnedData data(mox_packet_alloc_init_data(type));
	if (data)
		__builtin_memcpy(data->value, value, len);
	return data;
}

} // namespace mox

using namespace mox;

extern "C" {

void mox_packet_init_regular_lib(packet_regular_lib *lib) SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	seam_lib_lock_init(lib);
	lib->regular_count = 0;
	list_init(&lib->regulars);
	lib->filter_count = 0;
	list_init(&lib->filter_list);
	lib->filter = {};
	lib->delivery = {};
	for (rule_anchor *&bucket : lib->filter_buckets)
		bucket = nullptr;
	for (rule_anchor *&bucket : lib->delivery_buckets)
		bucket = nullptr;
	for (u32 type = 0; type < MOX_PACKET_RULE_TYPES; type++) {
		lib->last_entry[type] = nullptr;
		lib->values[type] = nullptr;
		list_init(&lib->items[type]);
	}
	lib->nameless = 0;
	for (lib_report &report : lib->reports)
		report = {};
	lib->entries_made = 0;
	lib->rules_entered = 0;
}

int mox_packet_regular_init(void)
{
	if (mox_packet_regular_inited)
		return 0;
	for (u32 queue = 0; queue < CPU_QUEUES; queue++)
		mox_packet_init_regular_lib(location_library(queue_location(queue)));
	hook_lock_init();
	index_choose_seeds();
	budget_init();
	g_priority = seam_random();
	for (u32 cache = 0; cache < kCaches; cache++) {
		g_caches[cache] = seam_cache_create(kCacheTraits[cache].name,
						    kCacheTraits[cache].size);
		if (!g_caches[cache]) {
			mox_printk("%s", kCacheTraits[cache].failure);
			destroy_caches();
			return -1;
		}
	}
	mox_packet_regular_inited = 1;
	return 0;
}

void mox_packet_regular_deinit(void)
{
	if (!mox_packet_regular_inited)
		return;
	destroy_caches();
	mox_packet_regular_inited = 0;
}

regular_data *mox_packet_alloc_init_data(u32 type)
{
	auto *data = take<regular_data>(kDataCache, g_regular_data_stats, stat_of(type));
	if (!data) {
		MOX_DEBUG("MOX-PACKET-ALLOC-INIT-DATA: alloc failed!\n");
		return nullptr;
	}
	list_init(&data->node);
	data->type = type;
	__builtin_memset(data->value, 0, sizeof(data->value));
	data->priority = next_priority();
	data->entry = nullptr;
	data->filed = nullptr;
	data->anchor.prev = nullptr;
	data->hits = {};
	return data;
}

void mox_packet_free_data(regular_data *data)
{
	bump(g_regular_data_stats[stat_of(data->type)], -1);
	seam_cache_free(g_caches[kDataCache], data);
}

void mox_packet_del_data(regular_data *data)
{
	list_unlink(&data->node);
}

regular_item *mox_packet_alloc_init_item(u32 type)
{
	auto *item = take<regular_item>(kItemCache, g_regular_item_stats, stat_of(type));
	if (!item) {
		MOX_DEBUG("MOX-PACKET-ALLOC-INIT-ITEM: alloc failed!\n");
		return nullptr;
	}
	list_init(&item->node);
	item->type = type;
	list_init(&item->datas);
	item->root = nullptr;
	item->count = 0;
	item->hits = {};
	return item;
}

void mox_packet_free_item(regular_item *item)
{
	bump(g_regular_item_stats[stat_of(item->type)], -1);
	seam_cache_free(g_caches[kItemCache], item);
}

void mox_packet_del_item(regular_item *item)
{
	list_unlink(&item->node);
}

bool mox_packet_item_empty(const regular_item *item)
{
	return list_empty(&item->datas);
}

filter_list_data *pkt_alloc_filter_list_data(u32 type, const void *value)
{
	auto *entry = take<filter_list_data>(kEntryCache, g_regular_data_stats, MOX_STAT_ENTRIES);
	if (!entry) {
		MOX_DEBUG("PKT-ALLOC-FILTER-LIST-DATA: alloc failed!\n");
		return nullptr;
	}
	list_init(&entry->node);
	list_init(&entry->match_list);
	list_init(&entry->local_match_list);
	entry->type = type;
	entry->last_trap = nullptr;
	if (value)
		__builtin_memcpy(entry->value, value, sizeof(entry->value));
	else
		__builtin_memset(entry->value, 0, sizeof(entry->value));
	return entry;
}

void pkt_free_filter_list_data(filter_list_data *entry)
{
	bump(g_regular_data_stats[MOX_STAT_ENTRIES], -1);
	seam_cache_free(g_caches[kEntryCache], entry);
}

void pkt_del_filter_list_data(filter_list_data *entry)
{
	list_unlink(&entry->node);
}

packet_regular *pkt_alloc_regular_data(void)
{
	auto *copy = take<packet_regular>(kCopyCache, g_regular_data_stats, MOX_STAT_COPIES);
	if (!copy) {
		MOX_DEBUG("PKT-ALLOC-REGULAR-DATA: alloc failed!\n");
		return nullptr;
	}
	copy->owner = nullptr;
	copy->treatment = PACKET_TREATMENT_NONE;
	copy->location = PACKET_NONE_LOC;
	list_init(&copy->items);
	list_init(&copy->lib_node);
	copy->entry = nullptr;
	copy->filed_at = nullptr;
	copy->anchored = nullptr;
	copy->anchor.prev = nullptr;
	return copy;
}

void pkt_free_regular_data(packet_regular *copy)
{
	bump(g_regular_data_stats[MOX_STAT_COPIES], -1);
	mox_packet_empty_match_regular(copy);
	copy->owner = nullptr;
	seam_cache_free(g_caches[kCopyCache], copy);
}

void mox_packet_empty_match_regular(packet_regular *regular)
{
	for (regular_item *item : items_of(regular)) {
		mox_packet_del_item(item);
		list_poison(&item->node);
		free_datas(item);
		mox_packet_free_item(item);
	}
}

void mox_packet_empty_regular(packet_regular *regular)
{
	for (regular_item *item : items_of(regular)) {
		free_datas(item);
		mox_packet_del_item(item);
		list_poison(&item->node);
		mox_packet_free_item(item);
	}
}
} // extern "C"
