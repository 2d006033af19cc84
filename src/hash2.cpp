// hash2: chained hash map over caller-allocated items, bucketed by lookup2; see hash2.h.
//
//   table[0] [item|next]--> [item|next]--> null     first entry of a bucket lives in the
//   table[1] [null]                                 table; further ones are chained and
//   ...                                             owned by the map
#include "hash2.h"

#include <cstdlib>
#include <cstring>

// ---- lookup2 -----------------------------------------------------------------

// The published mix: three rounds over the state words, shifts 13 8 13 12 16 5 3 10 15.
static inline void lookup2_mix(uint32_t &a, uint32_t &b, uint32_t &c)
{
    // clang-format off
    a -= b; a -= c; a ^= (c >> 13);
    b -= c; b -= a; b ^= (a << 8);
    c -= a; c -= b; c ^= (b >> 13);
    a -= b; a -= c; a ^= (c >> 12);
    b -= c; b -= a; b ^= (a << 16);
    c -= a; c -= b; c ^= (b >> 5);
    a -= b; a -= c; a ^= (c >> 3);
    b -= c; b -= a; b ^= (a << 10);
    c -= a; c -= b; c ^= (b >> 15);
    // clang-format on
}

static inline uint32_t le32(const uint8_t *k)
{
    return k[0] | (uint32_t)k[1] << 8 | (uint32_t)k[2] << 16 | (uint32_t)k[3] << 24;
}

uint32_t hash(const void *key, uint32_t length, uint32_t initval)
{
    const uint8_t *k = static_cast<const uint8_t *>(key);
    uint32_t a = 0x9e3779b9, b = 0x9e3779b9, c = initval;
    uint32_t len = length;

    while (len >= 12) {
        a += le32(k);
        b += le32(k + 4);
        c += le32(k + 8);
        lookup2_mix(a, b, c);
        k += 12;
        len -= 12;
    }
    // The low byte of c is reserved for the length, so tail bytes 8..10 go above it.
    c += length;
    // clang-format off
    switch (len) {
    case 11: c += (uint32_t)k[10] << 24; [[fallthrough]];
    case 10: c += (uint32_t)k[9] << 16; [[fallthrough]];
    case 9: c += (uint32_t)k[8] << 8; [[fallthrough]];
    case 8: b += (uint32_t)k[7] << 24; [[fallthrough]];
    case 7: b += (uint32_t)k[6] << 16; [[fallthrough]];
    case 6: b += (uint32_t)k[5] << 8; [[fallthrough]];
    case 5: b += k[4]; [[fallthrough]];
    case 4: a += (uint32_t)k[3] << 24; [[fallthrough]];
    case 3: a += (uint32_t)k[2] << 16; [[fallthrough]];
    case 2: a += (uint32_t)k[1] << 8; [[fallthrough]];
    case 1: a += k[0]; break;
    case 0: break;
    }
    // clang-format on
    lookup2_mix(a, b, c);
    return c;
}

// ---- map ---------------------------------------------------------------------

static bool key_matches(const void *item, const void *key, uint32_t len)
{
    return item != nullptr && memcmp(item, key, len) == 0;
}

static map_entry_t *bucket_of(const map_t *map, const void *key, uint32_t len)
{
    return &map->table[hash(key, len, 0) & map->mask];
}

int map_init(map_t *map, uint16_t size, int option)
{
    if (map == nullptr)
        return -1;
    *map = map_t{};
    if (size == 0 || (size & (size - 1)) != 0)
        return -1;
    map->table = static_cast<map_entry_t *>(calloc(size, sizeof(map_entry_t)));
    if (map->table == nullptr)
        return -2;
    for (uint32_t i = 0; i < size; i++)
        map->table[i].index = i;
    map->size = size;
    map->mask = static_cast<uint16_t>(size - 1);
    map->option = option;
    return 0;
}

int map_setat(map_t *map, const void *key, uint32_t len, void *item)
{
    if (map == nullptr || map->table == nullptr || key == nullptr || item == nullptr)
        return -1;
    map_entry_t *e = bucket_of(map, key, len);
    if (e->item == nullptr) {
        e->item = item;
        map->count++;
        return 1;
    }
    for (;; e = e->next) {
        if (key_matches(e->item, key, len)) {
            if (e->item != item) // re-storing the same item must not free it
                free(e->item);
            e->item = item;
            return 2;
        }
        if (e->next == nullptr)
            break;
    }
    auto *added = static_cast<map_entry_t *>(calloc(1, sizeof(map_entry_t)));
    if (added == nullptr)
        return -1;
    added->index = e->index;
    added->item = item;
    e->next = added;
    map->count++;
    return 1;
}

int map_lookup(const map_t *map, const void *key, uint32_t len, void **out)
{
    if (map == nullptr || map->table == nullptr || key == nullptr)
        return 0;
    for (const map_entry_t *e = bucket_of(map, key, len); e != nullptr; e = e->next) {
        if (key_matches(e->item, key, len)) {
            if (out != nullptr)
                *out = e->item;
            return 1;
        }
    }
    return 0;
}

int map_item_delete(map_t *map, const void *key, uint32_t len)
{
    if (map == nullptr || map->table == nullptr || key == nullptr)
        return 0;
    map_entry_t *head = bucket_of(map, key, len);
    if (key_matches(head->item, key, len)) {
        free(head->item);
        // Pull the first chained entry into the head slot, so the chain stays findable.
        if (map_entry_t *next = head->next) {
            head->item = next->item;
            head->next = next->next;
            free(next);
        } else {
            head->item = nullptr;
        }
        map->count--;
        return 1;
    }
    for (map_entry_t *prev = head, *e = head->next; e != nullptr; prev = e, e = e->next) {
        if (key_matches(e->item, key, len)) {
            prev->next = e->next;
            free(e->item);
            free(e);
            map->count--;
            return 1;
        }
    }
    return 0;
}

// ---- iteration -----------------------------------------------------------------
//
// The cursor names a position, never an address, so deleting the item it names cannot
// leave it pointing at freed memory:
//
//   bit 63   62 ........ 48   47 ............. 16   15 ...... 0
//   [ 0 ]  [ count & 0x7FFF ] [ chain position + 1 ] [ bucket ]
//
// Position 0 is the bucket head, 1 the first chained entry, and so on. Deleting an item at
// position p moves every later item of its bucket one position down (a deleted head pulls
// its first chained entry into the table), so when the count has dropped by exactly one
// since the cursor was made, the item that followed the deleted one now sits at p. Bit 63
// is always clear and the position field never 0, so a live cursor is neither a start
// value nor 0, which marks a finished walk.

namespace
{

constexpr uint64_t k_cursor_count_mask = 0x7FFF;

uint64_t make_cursor(uint32_t bucket, uint32_t position, uint32_t count)
{
    return (static_cast<uint64_t>(count) & k_cursor_count_mask) << 48 |
           static_cast<uint64_t>(position + 1) << 16 | (bucket & 0xFFFFu);
}

} // namespace

void map_get_next_node(const map_t *map, uint64_t *cursor, void **out)
{
    if (cursor == nullptr || out == nullptr || map == nullptr || map->table == nullptr || map->size == 0)
        return;
    if (*cursor == 0) {
        *out = nullptr;
        return;
    }
    uint32_t bucket = 0;
    uint32_t position = 0; // where the next item is looked for
    if (*cursor < MAP_CURSOR_START - 1) {
        bucket = static_cast<uint32_t>(*cursor & 0xFFFF);
        uint32_t last = static_cast<uint32_t>(*cursor >> 16) - 1; // any field value is harmless
        uint64_t seen_count = (*cursor >> 48) & k_cursor_count_mask;
        bool last_deleted = ((seen_count - 1) & k_cursor_count_mask) == (map->count & k_cursor_count_mask);
        position = last_deleted ? last : last + 1;
    }
    for (; bucket < map->size; bucket++, position = 0) {
        // An empty head has no chain: deletion pulls a chained entry into the head.
        const map_entry_t *e = &map->table[bucket];
        if (e->item == nullptr)
            continue;
        for (uint32_t i = 0; e != nullptr && i < position; i++)
            e = e->next;
        if (e != nullptr) {
            *cursor = make_cursor(bucket, position, map->count);
            *out = e->item;
            return;
        }
    }
    *cursor = 0;
    *out = nullptr;
}

void map_clear_ex(map_t *map, map_release_fn release)
{
    if (map == nullptr || map->table == nullptr)
        return;
    for (uint32_t i = 0; i < map->size; i++) {
        map_entry_t *head = &map->table[i];
        for (map_entry_t *e = head->next; e != nullptr;) {
            map_entry_t *next = e->next;
            release != nullptr ? release(e->item) : free(e->item);
            free(e);
            e = next;
        }
        if (head->item != nullptr)
            release != nullptr ? release(head->item) : free(head->item);
        head->item = nullptr;
        head->next = nullptr;
    }
    map->count = 0;
}

void map_clear(map_t *map)
{
    map_clear_ex(map, nullptr);
}

void map_destroy_ex(map_t *map, map_release_fn release)
{
    if (map == nullptr)
        return;
    map_clear_ex(map, release);
    free(map->table);
    *map = map_t{};
}

void map_destroy(map_t *map)
{
    map_destroy_ex(map, nullptr);
}
