// Tests of the vklist list: order at both ends, indexing, removal with ownership, and the
// move_bulk overwrite rule the send queue relies on.
#include "vk_list.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace
{

int *boxed(int v)
{
    auto *p = static_cast<int *>(malloc(sizeof(int)));
    *p = v;
    return p;
}

std::vector<int> values(const vklist_t *list)
{
    std::vector<int> out;
    vknode_t *cursor = front_node_vklist(list);
    while (void *d = next_node_data_vklist(&cursor))
        out.push_back(*static_cast<int *>(d));
    return out;
}

struct ListDeleter {
    void operator()(vklist_t *l) const { destroy_vklist(l, nullptr); }
};
using list_ptr = std::unique_ptr<vklist_t, ListDeleter>;

TEST(VkList, PushPopAtBothEndsKeepsOrderAndCount)
{
    list_ptr list(create_vklist());
    ASSERT_TRUE(list);
    EXPECT_EQ(is_empty_vklist(list.get()), 1);
    EXPECT_EQ(push_back_vklist(list.get(), boxed(2)), 1);
    EXPECT_EQ(push_back_vklist(list.get(), boxed(3)), 2);
    EXPECT_EQ(push_front_vklist(list.get(), boxed(1)), 3);
    EXPECT_EQ(values(list.get()), (std::vector<int>{1, 2, 3}));

    vknode_t *cursor = back_node_vklist(list.get());
    std::vector<int> reversed;
    while (void *d = prev_node_data_vklist(&cursor))
        reversed.push_back(*static_cast<int *>(d));
    EXPECT_EQ(reversed, (std::vector<int>{3, 2, 1}));

    int *front = static_cast<int *>(pop_front_vklist(list.get()));
    int *back = static_cast<int *>(pop_back_vklist(list.get()));
    EXPECT_EQ(*front, 1);
    EXPECT_EQ(*back, 3);
    free(front);
    free(back);
    EXPECT_EQ(count_vklist(list.get()), 1u);
    EXPECT_EQ(*static_cast<int *>(front_vklist(list.get())), 2);
    EXPECT_EQ(front_vklist(list.get()), back_vklist(list.get()));
    EXPECT_EQ(push_back_vklist(nullptr, nullptr), -1);
}

TEST(VkList, FindIndexIsBoundedByTheCount)
{
    list_ptr list(create_vklist());
    for (int i = 0; i < 4; i++)
        push_back_vklist(list.get(), boxed(i * 10));
    EXPECT_EQ(*static_cast<int *>(find_index_vklist(list.get(), 0)), 0);
    EXPECT_EQ(*static_cast<int *>(find_index_vklist(list.get(), 3)), 30);
    EXPECT_EQ(find_index_vklist(list.get(), count_vklist(list.get())), nullptr);
    EXPECT_EQ(find_index_vklist(nullptr, 0), nullptr);
}

TEST(VkList, RemovalUnlinksAnyPositionAndReleasesTheData)
{
    static std::vector<int> released;
    released.clear();
    auto release = [](void *d) {
        released.push_back(*static_cast<int *>(d));
        free(d);
    };
    list_ptr list(create_vklist());
    std::vector<int *> data;
    for (int i = 0; i < 5; i++) {
        data.push_back(boxed(i));
        push_back_vklist(list.get(), data.back());
    }
    EXPECT_EQ(remove_with_item_ptr_vklist(list.get(), data[2], release), 0); // middle
    EXPECT_EQ(remove_node_vklist(list.get(), front_node_vklist(list.get()), release), 0);
    EXPECT_EQ(remove_node_vklist(list.get(), back_node_vklist(list.get()), release), 0);
    EXPECT_EQ(remove_with_item_ptr_vklist(list.get(), data[2], release), -1); // already gone
    EXPECT_EQ(values(list.get()), (std::vector<int>{1, 3}));
    EXPECT_EQ(released, (std::vector<int>{2, 0, 4}));
    clean_vklist(list.get(), release);
    EXPECT_EQ(is_empty_vklist(list.get()), 1);
    EXPECT_EQ(front_node_vklist(list.get()), nullptr);
    EXPECT_EQ(released.size(), 5u);
}

TEST(VkList, MoveBulkOverwritesTheTargetAndEmptiesTheSource)
{
    list_ptr from(create_vklist()), to(create_vklist()), stale(create_vklist());
    for (int i = 0; i < 3; i++)
        push_back_vklist(from.get(), boxed(i));
    push_back_vklist(to.get(), boxed(99));

    // `to` is overwritten, not appended to: keep its old nodes reachable to free them.
    *stale = *to;
    EXPECT_EQ(move_bulk_vklist(from.get(), to.get()), 3);
    EXPECT_EQ(values(to.get()), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(is_empty_vklist(from.get()), 1);
    EXPECT_EQ(front_node_vklist(from.get()), nullptr);
    EXPECT_EQ(values(stale.get()), (std::vector<int>{99}));
    EXPECT_EQ(push_back_vklist(from.get(), boxed(7)), 1); // the source stays usable
    EXPECT_EQ(move_bulk_vklist(nullptr, to.get()), -1);
}

} // namespace
