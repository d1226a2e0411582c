// Intrusive circular doubly linked lists with a sentinel head.
#include "ks/list.h"

#include "ks_assert.h"

namespace {

// What a failed check of a node's links prints, as it always has.
constexpr char kLinkedCheck[] = "elem->next != NULL && elem->prev != NULL";

// A zero-filled head (a static or calloc'ed record) is an empty list that
// nobody has set up yet.
inline void init_head(llist_d_node_t *head)
{
    if (!head->next && !head->prev) {
        head->next = head;
        head->prev = head;
    }
}

inline void link_before(llist_d_node_t *node, llist_d_node_t *pos)
{
    node->prev = pos->prev;
    node->next = pos;
    pos->prev->next = node;
    pos->prev = node;
}

inline void *unlink(llist_d_node_t *elem)
{
    KS_ASSERT(elem->next != nullptr && elem->prev != nullptr, kLinkedCheck);
    elem->prev->next = elem->next;
    elem->next->prev = elem->prev;
    void *data = elem->data;
    elem->next = nullptr;
    elem->prev = nullptr;
    elem->data = nullptr;
    return data;
}

} // namespace

void llist_d_insert(llist_d_node_t *head, void *data, llist_d_node_t *node, llist_d_order_fn order)
{
    init_head(head);
    node->data = data;
    llist_d_node_t *pos = head;
    if (order == LLIST_D_FRONT) {
        pos = head->next;
    } else if (order != LLIST_D_TAIL) {
        for (pos = head->next; pos != head; pos = pos->next)
            if (order(data, pos->data) <= 0)
                break;
    }
    link_before(node, pos);
}

void llist_d_insert_before(llist_d_node_t *head, void *data, llist_d_node_t *node,
                           llist_d_node_t *pos)
{
    init_head(head);
    node->data = data;
    link_before(node, pos);
}

void *llist_d_remove(llist_d_node_t *node)
{
    return unlink(node);
}

void llist_d_remove_list(llist_d_node_t *head)
{
    KS_ASSERT(head->next != nullptr && head->prev != nullptr, kLinkedCheck);
    while (head->next != head)
        unlink(head->next);
}
