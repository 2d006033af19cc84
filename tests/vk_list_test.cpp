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

} // namespace
