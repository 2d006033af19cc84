// vk_list: doubly linked list of caller data; see vk_list.h.
#include "vk_list.h"

#include <cstdlib>

static void release_data(void *data, vklist_release_fn release)
{
    if (release != nullptr)
        release(data);
    else
        free(data);
}

vklist_t *create_vklist()
{
    return static_cast<vklist_t *>(calloc(1, sizeof(vklist_t)));
}

void init_vklist(vklist_t *list)
{
    if (list != nullptr)
        *list = vklist_t{};
}

void clean_vklist(vklist_t *list, vklist_release_fn release)
{
    if (list == nullptr)
        return;
    for (vknode_t *n = list->head; n != nullptr;) {
        vknode_t *next = n->next;
        release_data(n->data, release);
        free(n);
        n = next;
    }
    *list = vklist_t{};
}

void destroy_vklist(vklist_t *list, vklist_release_fn release)
{
    clean_vklist(list, release);
    free(list);
}

vknode_t *create_node(void *data)
{
    auto *node = static_cast<vknode_t *>(calloc(1, sizeof(vknode_t)));
    if (node != nullptr)
        node->data = data;
    return node;
}

int push_front_node_vklist(vklist_t *list, vknode_t *node)
{
    if (list == nullptr || node == nullptr)
        return -1;
    node->prev = nullptr;
    node->next = list->head;
    if (list->head != nullptr)
        list->head->prev = node;
    else
        list->tail = node;
    list->head = node;
    return static_cast<int>(++list->count);
}

int push_back_node_vklist(vklist_t *list, vknode_t *node)
{
    if (list == nullptr || node == nullptr)
        return -1;
    node->next = nullptr;
    node->prev = list->tail;
    if (list->tail != nullptr)
        list->tail->next = node;
    else
        list->head = node;
    list->tail = node;
    return static_cast<int>(++list->count);
}

int push_front_vklist(vklist_t *list, void *data)
{
    if (list == nullptr)
        return -1;
    vknode_t *node = create_node(data);
    return node == nullptr ? 0 : push_front_node_vklist(list, node);
}

int push_back_vklist(vklist_t *list, void *data)
{
    if (list == nullptr)
        return -1;
    vknode_t *node = create_node(data);
    return node == nullptr ? 0 : push_back_node_vklist(list, node);
}

static void unlink_node(vklist_t *list, vknode_t *node)
{
    if (node->prev != nullptr)
        node->prev->next = node->next;
    else
        list->head = node->next;
    if (node->next != nullptr)
        node->next->prev = node->prev;
    else
        list->tail = node->prev;
    node->next = node->prev = nullptr;
    list->count--;
}

vknode_t *pop_front_node_vklist(vklist_t *list)
{
    if (list == nullptr || list->head == nullptr)
        return nullptr;
    vknode_t *node = list->head;
    unlink_node(list, node);
    return node;
}

vknode_t *pop_back_node_vklist(vklist_t *list)
{
    if (list == nullptr || list->tail == nullptr)
        return nullptr;
    vknode_t *node = list->tail;
    unlink_node(list, node);
    return node;
}

static void *take_data(vknode_t *node)
{
    if (node == nullptr)
        return nullptr;
    void *data = node->data;
    free(node);
    return data;
}

void *pop_front_vklist(vklist_t *list)
{
    return take_data(pop_front_node_vklist(list));
}

void *pop_back_vklist(vklist_t *list)
{
    return take_data(pop_back_node_vklist(list));
}

vknode_t *front_node_vklist(const vklist_t *list)
{
    return list != nullptr ? list->head : nullptr;
}

vknode_t *back_node_vklist(const vklist_t *list)
{
    return list != nullptr ? list->tail : nullptr;
}

void *front_vklist(const vklist_t *list)
{
    vknode_t *node = front_node_vklist(list);
    return node != nullptr ? node->data : nullptr;
}

void *back_vklist(const vklist_t *list)
{
    vknode_t *node = back_node_vklist(list);
    return node != nullptr ? node->data : nullptr;
}

void *next_node_data_vklist(vknode_t **cursor)
{
    if (cursor == nullptr || *cursor == nullptr)
        return nullptr;
    void *data = (*cursor)->data;
    *cursor = (*cursor)->next;
    return data;
}

void *prev_node_data_vklist(vknode_t **cursor)
{
    if (cursor == nullptr || *cursor == nullptr)
        return nullptr;
    void *data = (*cursor)->data;
    *cursor = (*cursor)->prev;
    return data;
}

uint32_t count_vklist(const vklist_t *list)
{
    return list != nullptr ? list->count : 0;
}

int is_empty_vklist(const vklist_t *list)
{
    return list == nullptr || list->count == 0 ? 1 : 0;
}

void *find_index_vklist(const vklist_t *list, uint32_t index)
{
    if (list == nullptr || index >= list->count)
        return nullptr;
    vknode_t *node = list->head;
    for (uint32_t i = 0; i < index && node != nullptr; i++)
        node = node->next;
    return node != nullptr ? node->data : nullptr;
}

int remove_node_vklist(vklist_t *list, vknode_t *node, vklist_release_fn release)
{
    if (list == nullptr || node == nullptr)
        return -1;
    unlink_node(list, node);
    release_data(node->data, release);
    free(node);
    return 0;
}

int remove_with_item_ptr_vklist(vklist_t *list, void *data, vklist_release_fn release)
{
    if (list == nullptr)
        return -1;
    for (vknode_t *n = list->head; n != nullptr; n = n->next) {
        if (n->data == data)
            return remove_node_vklist(list, n, release);
    }
    return -1;
}

int move_bulk_vklist(vklist_t *from, vklist_t *to)
{
    if (from == nullptr || to == nullptr)
        return -1;
    // `to` is overwritten, not appended to: callers hand over an empty or drained list.
    *to = *from;
    *from = vklist_t{};
    return static_cast<int>(to->count);
}
