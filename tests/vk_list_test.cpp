// Tests of the vklist list: the queue operations and the move_bulk overwrite rule the send
// queue relies on, and one smoke test of the operations nothing in the agent calls.
#include "vk_list.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
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

std::vector<int> s_released;
void release(void *d)
{
    s_released.push_back(*static_cast<int *>(d));
    free(d);
}

TEST(VkList, QueueOrderAndMoveBulkOverwritesTheTarget)
{
    list_ptr from(create_vklist()), to(create_vklist()), stale(create_vklist());
    ASSERT_TRUE(from && to && stale);
    EXPECT_EQ(is_empty_vklist(from.get()), 1);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(push_back_vklist(from.get(), boxed(i)), i + 1);
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
    EXPECT_EQ(push_back_vklist(nullptr, nullptr), -1);

    int *first = static_cast<int *>(pop_front_vklist(to.get()));
    EXPECT_EQ(*first, 0);
    free(first);
    EXPECT_EQ(count_vklist(to.get()), 2u);
    s_released.clear();
    clean_vklist(to.get(), release);
    EXPECT_EQ(s_released, (std::vector<int>{1, 2}));
    EXPECT_EQ(is_empty_vklist(to.get()), 1);
    clean_vklist(stale.get(), release);
    clean_vklist(from.get(), release);
}

TEST(VkList, UnusedOperationsSmoke)
{
    list_ptr list(create_vklist());
    std::vector<int *> data;
    for (int i = 0; i < 5; i++)
        push_front_vklist(list.get(), data.emplace_back(boxed(i))); // 4 3 2 1 0
    EXPECT_EQ(*static_cast<int *>(find_index_vklist(list.get(), 1)), 3);
    EXPECT_EQ(find_index_vklist(list.get(), 5), nullptr);
    vknode_t *cursor = back_node_vklist(list.get());
    EXPECT_EQ(*static_cast<int *>(prev_node_data_vklist(&cursor)), 0);
    s_released.clear();
    EXPECT_EQ(remove_with_item_ptr_vklist(list.get(), data[2], release), 0);
    EXPECT_EQ(remove_with_item_ptr_vklist(list.get(), data[2], release), -1); // already gone
    EXPECT_EQ(remove_node_vklist(list.get(), front_node_vklist(list.get()), release), 0);
    std::unique_ptr<int, decltype(&free)> back(static_cast<int *>(pop_back_vklist(list.get())), free);
    EXPECT_EQ(*back, 0);
    EXPECT_EQ(values(list.get()), (std::vector<int>{3, 1}));
    EXPECT_EQ(*static_cast<int *>(front_vklist(list.get())) * 10 + *static_cast<int *>(back_vklist(list.get())), 31);
    EXPECT_EQ(s_released, (std::vector<int>{2, 4}));
    clean_vklist(list.get(), release);
}

} // namespace
