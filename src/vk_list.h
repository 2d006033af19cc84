// vk_list: doubly linked list of pointers (vklist), used for the DG send queue. The list
// owns its nodes; the data is the caller's and is freed with free() on node removal unless
// a release function is given. No lock of its own: users guard it.
// Interface only, kept for the unit's completeness (nothing in the agent calls them):
// destroy_vklist, push_front_vklist, pop_back_vklist, front_vklist, back_vklist,
// next_node_data_vklist, prev_node_data_vklist, find_index_vklist, remove_with_item_ptr_vklist.
#pragma once

#include <cstdint>

struct vknode_t {
    vknode_t *next;
    vknode_t *prev;
    void *data;
};

struct vklist_t {
    vknode_t *head;
    vknode_t *tail;
    uint32_t count;
};

using vklist_release_fn = void (*)(void *data);

// New empty list, or null when it cannot be allocated.
vklist_t *create_vklist();
// Makes `list` empty without touching former nodes (for a list in caller storage).
void init_vklist(vklist_t *list);
// Frees every node and its data (with `release`, or free() when null), then the list.
void destroy_vklist(vklist_t *list, vklist_release_fn release);
// Frees every node and its data; the list stays usable and empty.
void clean_vklist(vklist_t *list, vklist_release_fn release);
// New unlinked node holding `data`, or null.
vknode_t *create_node(void *data);

// Add data at an end. Return the new count, -1 for a null list, 0 when no node can be
// allocated (data stays the caller's).
int push_front_vklist(vklist_t *list, void *data);
int push_back_vklist(vklist_t *list, void *data);
// Link an existing unlinked node at an end. Return the new count, -1 for a null list or node.
int push_front_node_vklist(vklist_t *list, vknode_t *node);
int push_back_node_vklist(vklist_t *list, vknode_t *node);
// Unlink an end: the data (node freed) or the node (the caller frees it); null when empty.
void *pop_front_vklist(vklist_t *list);
void *pop_back_vklist(vklist_t *list);
vknode_t *pop_front_node_vklist(vklist_t *list);
vknode_t *pop_back_node_vklist(vklist_t *list);
// Peek at an end: data or node, null when empty.
void *front_vklist(const vklist_t *list);
void *back_vklist(const vklist_t *list);
vknode_t *front_node_vklist(const vklist_t *list);
vknode_t *back_node_vklist(const vklist_t *list);
// Cursor walk: return the data of *cursor's node and advance *cursor to the next (or
// previous) node; null when *cursor is null.
void *next_node_data_vklist(vknode_t **cursor);
void *prev_node_data_vklist(vknode_t **cursor);
uint32_t count_vklist(const vklist_t *list);
// 1 when empty (or null), else 0.
int is_empty_vklist(const vklist_t *list);
// Data of the node at zero-based `index`, null when out of range.
void *find_index_vklist(const vklist_t *list, uint32_t index);
// Unlink and free `node` and its data. Return 0, -1 for a null list or node.
int remove_node_vklist(vklist_t *list, vknode_t *node, vklist_release_fn release);
// Remove the first node whose data is `data`. Return 0, -1 when not found or null list.
int remove_with_item_ptr_vklist(vklist_t *list, void *data, vklist_release_fn release);
// Moves every node of `from` to `to` in one step: `to` takes head, tail and count (its
// previous content is overwritten, not appended to or freed), `from` becomes empty.
// Returns the moved count, -1 for a null list.
int move_bulk_vklist(vklist_t *from, vklist_t *to);
