// Tests of the hash map and its lookup2 hash: agreement with an independent formulation of
// the hash, the replace/delete/iterate rules, a walk that deletes what it was just given,
// and item ownership.
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

// lookup2 written differently from the unit: the tail is zero-padded to a full block, and
// its bytes 8..10 enter c shifted by one byte (the low byte carries the length).
uint32_t reference_lookup2(const uint8_t *k, size_t n, uint32_t initval)
{
    auto rd = [](const uint8_t *p) {
        uint32_t v = 0;
        for (int i = 3; i >= 0; i--)
            v = (v << 8) | p[i];
        return v;
    };
    auto mix = [](uint32_t &a, uint32_t &b, uint32_t &c) {
        const int sh[9] = {13, 8, 13, 12, 16, 5, 3, 10, 15};
        uint32_t *r[3] = {&a, &b, &c};
        for (int i = 0; i < 9; i++) {
            uint32_t &x = *r[i % 3], &y = *r[(i + 1) % 3], &z = *r[(i + 2) % 3];
            x = x - y - z;
            x ^= (i % 3 == 1) ? (z << sh[i]) : (z >> sh[i]);
        }
    };
    uint32_t a = 0x9e3779b9, b = 0x9e3779b9, c = initval;
    size_t off = 0;
    for (; n - off >= 12; off += 12) {
        a += rd(k + off), b += rd(k + off + 4), c += rd(k + off + 8);
        mix(a, b, c);
    }
    uint8_t tail[12] = {};
    memcpy(tail, k + off, n - off);
    a += rd(tail), b += rd(tail + 4), c += static_cast<uint32_t>(n) + (rd(tail + 8) << 8);
    mix(a, b, c);
    return c;
}

TEST(Lookup2, AgreesWithIndependentFormulationForLengths0To40)
{
    uint8_t key[40];
    for (int i = 0; i < 40; i++)
        key[i] = static_cast<uint8_t>(0xA5 ^ (i * 37));
    for (uint32_t init : {0u, 1u, 0xdeadbeefu}) {
        for (uint32_t len = 0; len <= 40; len++)
            EXPECT_EQ(hash(key, len, init), reference_lookup2(key, len, init))
                << "len " << len << " init " << init;
    }
}

TEST(Lookup2, KnownValues)
{
    // Computed once from the published algorithm in another language.
    EXPECT_EQ(hash("", 0, 0), 0xbd49d10du);
    EXPECT_EQ(hash("", 0, 1), 0x6ddfb8c9u);
    EXPECT_EQ(hash("a", 1, 0), 0x29eec818u);
    EXPECT_EQ(hash("abc", 3, 0), 0x251e4793u);
    EXPECT_EQ(hash("Four score and seven years ago", 30, 0), 0x50f2424bu);
    uint8_t seq[40];
    for (int i = 0; i < 40; i++)
        seq[i] = static_cast<uint8_t>(i);
    EXPECT_EQ(hash(seq, 40, 0), 0xaab655d0u);
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
    int set(const char *key, int value)
    {
        item_t *it = make_item(key, value);
        int rc = map_setat(&m, it->key, sizeof it->key, it);
        if (rc < 0)
            free(it);
        return rc;
    }
    map_t m{};
};

TEST_F(MapTest, InitRejectsSizesThatAreNotPowersOfTwo)
{
    map_t other{};
    EXPECT_EQ(map_init(&other, 0, 0), -1);
    EXPECT_EQ(map_init(&other, 12, 0), -1);
    EXPECT_EQ(map_init(nullptr, 8, 0), -1);
    EXPECT_EQ(m.size, 8);
    EXPECT_EQ(m.mask, 7);
    EXPECT_EQ(m.option, 12432);
}

TEST_F(MapTest, SettingTheSameKeyTwiceReplacesAndKeepsTheCount)
{
    EXPECT_EQ(set("alpha", 1), 1);
    EXPECT_EQ(set("alpha", 2), 2); // the first item is freed (ASan's leak check sees a leak otherwise)
    EXPECT_EQ(m.count, 1u);
    EXPECT_EQ(lookup_value(m, "alpha"), 2);
    EXPECT_EQ(lookup_value(m, "beta"), -1);
}

TEST_F(MapTest, ReplacingInsideAChainAndDeletingTheHeadKeepTheChainFindable)
{
    std::vector<std::string> keys = keys_in_bucket(8, 3, 3);
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(set(keys[i].c_str(), i), 1);
    EXPECT_EQ(set(keys[2].c_str(), 20), 2); // last chained entry replaced in place
    EXPECT_EQ(m.count, 3u);

    char head[16] = {};
    strncpy(head, keys[0].c_str(), 15);
    EXPECT_EQ(map_item_delete(&m, head, sizeof head), 1);
    EXPECT_EQ(map_item_delete(&m, head, sizeof head), 0);
    EXPECT_EQ(m.count, 2u);
    EXPECT_EQ(lookup_value(m, keys[1].c_str()), 1);
    EXPECT_EQ(lookup_value(m, keys[2].c_str()), 20);

    char middle[16] = {};
    strncpy(middle, keys[2].c_str(), 15);
    EXPECT_EQ(map_item_delete(&m, middle, sizeof middle), 1);
    EXPECT_EQ(lookup_value(m, keys[1].c_str()), 1);
    EXPECT_EQ(m.count, 1u);
}

TEST_F(MapTest, IterationFollowsBucketOrderThenEnds)
{
    std::vector<std::string> b0 = keys_in_bucket(8, 0, 1);
    std::vector<std::string> b5 = keys_in_bucket(8, 5, 2);
    ASSERT_EQ(set(b5[0].c_str(), 50), 1);
    ASSERT_EQ(set(b0[0].c_str(), 0), 1);
    ASSERT_EQ(set(b5[1].c_str(), 51), 1);

    uint64_t cursor = MAP_CURSOR_START;
    std::vector<int> seen;
    void *out = nullptr;
    for (map_get_next_node(&m, &cursor, &out); out != nullptr; map_get_next_node(&m, &cursor, &out))
        seen.push_back(static_cast<item_t *>(out)->value);
    EXPECT_EQ(seen, (std::vector<int>{0, 50, 51}));
    map_get_next_node(&m, &cursor, &out);
    EXPECT_EQ(out, nullptr);

    // 0xFFFFFFFFFFFFFFFE also starts at bucket 0; a null cursor leaves out untouched.
    cursor = MAP_CURSOR_START - 1;
    map_get_next_node(&m, &cursor, &out);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(static_cast<item_t *>(out)->value, 0);
    void *untouched = &cursor;
    map_get_next_node(&m, nullptr, &untouched);
    EXPECT_EQ(untouched, &cursor);
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

TEST_F(MapTest, WalkSurvivesDeletingTheItemItJustReturned)
{
    // Chains of 3, 1 and 4 items in buckets 0, 3 and 7; values 0..7 in chain order.
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
        for (int i = 0; i < 8; i++)
            ASSERT_EQ(set(keys[i].c_str(), i), 1);
        EXPECT_EQ(walk_deleting(m, drop), order) << name; // each item once, in bucket order
        uint32_t kept = 0;
        for (int i = 0; i < 8; i++) {
            EXPECT_EQ(lookup_value(m, keys[i].c_str()), drop(i) ? -1 : i) << name << " " << i;
            kept += drop(i) ? 0 : 1;
        }
        EXPECT_EQ(m.count, kept) << name;
    }
}

TEST_F(MapTest, ClearHandsEveryItemToTheReleaseFunctionAndStaysUsable)
{
    static std::multiset<int> released;
    released.clear();
    for (int i = 0; i < 20; i++)
        ASSERT_EQ(set(("n" + std::to_string(i)).c_str(), i), 1);
    map_clear_ex(&m, [](void *p) {
        released.insert(static_cast<item_t *>(p)->value);
        free(p);
    });
    EXPECT_EQ(released.size(), 20u);
    EXPECT_EQ(*released.begin(), 0);
    EXPECT_EQ(*released.rbegin(), 19);
    EXPECT_EQ(m.count, 0u);
    EXPECT_EQ(lookup_value(m, "n3"), -1);
    EXPECT_EQ(set("n3", 33), 1);
    EXPECT_EQ(lookup_value(m, "n3"), 33);
}

} // namespace
