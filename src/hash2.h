// hash2: chained hash map keyed by raw bytes, with Bob Jenkins' lookup2 hash. Used for the
// option table's name index, the properties presets and the patch transfers. The map has
// no lock of its own: every user guards it with its own lock.
//
// Ownership: items are caller-allocated with malloc. A map that accepts an item owns it
// from then on: replacing or deleting an item frees it, clearing frees (or releases) all.
// An item's key is its own first `len` bytes.
// Interface only, kept for the unit's completeness (nothing in the agent calls them): map_clear.
#pragma once

#include <cstdint>

struct map_entry_t {
    uint32_t index;    // bucket index of this entry
    void *item;        // null = empty bucket head
    map_entry_t *next; // chained entries, allocated by the map
};

struct map_t {
    map_entry_t *table; // `size` bucket heads
    uint16_t size;      // number of buckets, a power of two
    uint16_t mask;      // size - 1
    uint32_t count;     // items stored
    int option;         // the caller's value, stored and never read by the map
};

using map_release_fn = void (*)(void *item);

// Cursor value that starts an iteration at bucket 0 (any value >= MAP_CURSOR_START - 1 does).
inline constexpr uint64_t MAP_CURSOR_START = UINT64_MAX;

// Bob Jenkins' 1996 lookup2 hash of `length` bytes.
uint32_t hash(const void *key, uint32_t length, uint32_t initval);

// Allocates `size` zeroed buckets, count 0. Returns 0; -1 for a null map or a size that is
// 0 or not a power of two; -2 when the table cannot be allocated (map left zeroed).
[[nodiscard]] int map_init(map_t *map, uint16_t size, int option);
// Stores `item` under its first `len` bytes. Returns 1 added, 2 an item with the same key
// existed and was freed and replaced, -1 when a chain entry cannot be allocated (the item
// is then not owned by the map) or the map is not initialised.
[[nodiscard]] int map_setat(map_t *map, const void *key, uint32_t len, void *item);
// Returns 1 and the item through `out`, or 0 (out untouched).
int map_lookup(const map_t *map, const void *key, uint32_t len, void **out);
// Returns 1 when the item was found and freed (with its chain entry), 0 when not found.
int map_item_delete(map_t *map, const void *key, uint32_t len);
// Iteration in bucket order, chains first. Start with *cursor = MAP_CURSOR_START; each
// call gives the next item through `out`, null when none is left (and from then on). A
// null cursor or an uninitialised map leaves `out` untouched.
// Changes during a walk: the caller may delete (map_item_delete) the item it was just
// given, and only that one, before the next call; the walk then goes on with the item that
// followed it, skipping none. Any other change (setting items, deleting other items) may
// make the walk skip or repeat items. The cursor holds no address, so no change ever makes
// the walk touch freed memory.
void map_get_next_node(const map_t *map, uint64_t *cursor, void **out);
// Free every item (or hand it to `release`), drop the chains, count 0; the map stays usable.
void map_clear(map_t *map);
void map_clear_ex(map_t *map, map_release_fn release);
// As map_clear, then free the table (the map is left zeroed).
void map_destroy(map_t *map);
void map_destroy_ex(map_t *map, map_release_fn release);
