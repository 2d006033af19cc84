// Tests of the hash map and its lookup2 hash: known hash values, the replace/delete/iterate
// rules, a walk that deletes what it was just given, and item ownership.
#include "hash2.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace
{

TEST(Lookup2, KnownValues)
{
    // Computed once from the published algorithm in another language; the 11- and 23-byte
    // values (a tail reaching c's bytes) from this unit when it agreed with an independent
    // formulation for every length up to 40.
    EXPECT_EQ(hash("", 0, 0), 0xbd49d10du);
    EXPECT_EQ(hash("", 0, 1), 0x6ddfb8c9u);
    EXPECT_EQ(hash("a", 1, 0), 0x29eec818u);
    EXPECT_EQ(hash("abc", 3, 0), 0x251e4793u);
    EXPECT_EQ(hash("Four score and seven years ago", 30, 0), 0x50f2424bu);
    uint8_t seq[40];
    for (int i = 0; i < 40; i++)
        seq[i] = static_cast<uint8_t>(i);
    EXPECT_EQ(hash(seq, 40, 0), 0xaab655d0u);
    EXPECT_EQ(hash(seq, 23, 7), 0x4f7f23a7u);
    EXPECT_EQ(hash("hello world", 11, 0), 0x1aa919e6u);
}

// Items are keyed by a fixed 16-byte name at their start, as the agent's records are.
struct item_t {
    char key[16];
    int value;
};

item_t *make_item(const char *key, int value)
{
    auto *it = static_cast<item_t *>(calloc(1, sizeof(item_t)));
    strncpy(it->key, key, sizeof it->key - 1);
    it->value = value;
    return it;
}

// Finds keys whose buckets (in a map of `size`) are `bucket`.
std::vector<std::string> keys_in_bucket(uint16_t size, uint32_t bucket, size_t want)
{
    std::vector<std::string> keys;
    for (int i = 0; keys.size() < want; i++) {
        char k[16] = {};
        snprintf(k, sizeof k, "k%d", i);
        if ((hash(k, sizeof k, 0) & (size - 1u)) == bucket)
            keys.emplace_back(k);
    }
    return keys;
}

int lookup_value(const map_t &m, const char *name)
{
    char key[16] = {};
    strncpy(key, name, sizeof key - 1);
    void *out = nullptr;
    return map_lookup(&m, key, sizeof key, &out) == 1 ? static_cast<item_t *>(out)->value : -1;
}

class MapTest : public ::testing::Test
{
  protected:
    void SetUp() override { ASSERT_EQ(map_init(&m, 8, 12432), 0); }
    void TearDown() override { map_destroy(&m); }
    int set(const std::string &key, int value)
    {
        item_t *it = make_item(key.c_str(), value);
        int rc = map_setat(&m, it->key, sizeof it->key, it);
        if (rc < 0)
            free(it);
        return rc;
    }
    int del(const std::string &name)
    {
        char key[16] = {};
        strncpy(key, name.c_str(), sizeof key - 1);
        return map_item_delete(&m, key, sizeof key);
    }
    map_t m{};
};

TEST_F(MapTest, ReplacingAndDeletingInsideAChainKeepTheChainFindable)
{
    map_t other{};
    EXPECT_EQ(map_init(&other, 0, 0), -1);
    EXPECT_EQ(map_init(&other, 12, 0), -1); // not a power of two
    EXPECT_EQ(map_init(nullptr, 8, 0), -1);
    std::vector<std::string> keys = keys_in_bucket(8, 3, 3);
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(set(keys[i], i), 1);
    EXPECT_EQ(set(keys[2], 20), 2); // replaced in place, the old item freed (ASan sees a leak otherwise)
    EXPECT_EQ(m.count, 3u);
    EXPECT_EQ(lookup_value(m, keys[2].c_str()), 20);
    EXPECT_EQ(lookup_value(m, "absent"), -1);
    EXPECT_EQ(del(keys[0]), 1); // the bucket head
    EXPECT_EQ(del(keys[0]), 0);
    EXPECT_EQ(lookup_value(m, keys[1].c_str()) * 100 + lookup_value(m, keys[2].c_str()), 120);
    EXPECT_EQ(del(keys[2]), 1); // a chained entry
    EXPECT_EQ(lookup_value(m, keys[1].c_str()), 1);
    EXPECT_EQ(m.count, 1u);
}

// Walks the map, deleting (under the item's own key, as the garbage collector does) every
// item `drop` selects right after it was returned. Returns the values in walk order.
std::vector<int> walk_deleting(map_t &m, const std::function<bool(int)> &drop)
{
    std::vector<int> seen;
    uint64_t cursor = MAP_CURSOR_START;
    void *out = nullptr;
    for (map_get_next_node(&m, &cursor, &out); out != nullptr; map_get_next_node(&m, &cursor, &out)) {
        auto *it = static_cast<item_t *>(out);
        seen.push_back(it->value);
        if (drop(it->value)) {
            EXPECT_EQ(map_item_delete(&m, it->key, sizeof it->key), 1) << it->value;
        }
    }
    map_get_next_node(&m, &cursor, &out);
    EXPECT_EQ(out, nullptr); // a finished walk stays finished
    return seen;
}

TEST_F(MapTest, WalkInBucketOrderSurvivesDeletingTheItemItJustReturnedAndClear)
{
    // Chains of 3, 1 and 4 items in buckets 0, 3 and 7, values 0..7 in chain order.
    std::vector<std::string> keys;
    for (auto [bucket, n] : {std::pair{0u, 3u}, {3u, 1u}, {7u, 4u}})
        for (const std::string &k : keys_in_bucket(8, bucket, n))
            keys.push_back(k);
    const std::vector<int> order = {0, 1, 2, 3, 4, 5, 6, 7};
    const std::pair<const char *, std::function<bool(int)>> cases[] = {
        {"all", [](int) { return true; }},
        {"none", [](int) { return false; }},
        {"heads", [](int v) { return v == 0 || v == 3 || v == 4; }},
        {"chained", [](int v) { return v == 1 || v == 2 || v == 5 || v == 6 || v == 7; }},
        {"every other", [](int v) { return v % 2 == 0; }},
        {"last", [](int v) { return v == 7; }},
    };
    for (const auto &[name, drop] : cases) {
        map_clear(&m);
        for (int i : {4, 5, 6, 7, 3, 0, 1, 2}) // chains in reverse bucket order
            ASSERT_EQ(set(keys[i], i), 1);
        EXPECT_EQ(walk_deleting(m, drop), order) << name; // each item once, in bucket order
        uint32_t kept = 0;
        for (int i = 0; i < 8; i++) {
            EXPECT_EQ(lookup_value(m, keys[i].c_str()), drop(i) ? -1 : i) << name << " " << i;
            kept += drop(i) ? 0 : 1;
        }
        EXPECT_EQ(m.count, kept) << name;
    }
    // 0xFFFFFFFFFFFFFFFE also starts at bucket 0; a null cursor leaves out untouched.
    uint64_t cursor = MAP_CURSOR_START - 1;
    void *out = nullptr;
    map_get_next_node(&m, &cursor, &out);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(static_cast<item_t *>(out)->value, 0); // "last" left 0..6
    map_get_next_node(&m, nullptr, &out);
    EXPECT_EQ(static_cast<item_t *>(out)->value, 0);

    // Clearing hands every item to the release function; the map stays usable.
    static std::multiset<int> released;
    released.clear();
    map_clear_ex(&m, [](void *p) {
        released.insert(static_cast<item_t *>(p)->value);
        free(p);
    });
    EXPECT_EQ(released, (std::multiset<int>{0, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(m.count, 0u);
    EXPECT_EQ(lookup_value(m, keys[3].c_str()), -1);
    EXPECT_EQ(set(keys[3], 33), 1);
    EXPECT_EQ(lookup_value(m, keys[3].c_str()), 33);
}

} // namespace
