// Intrusive circular doubly linked lists with a sentinel head.
#include "ks/list.h"

#include "ks/pfm.h"

namespace {

// As PFM_ASSERT, naming the source file without the build's directories.
#define LLIST_ASSERT(expr) ((expr) ? (void)0 : pfm_assert_fail(#expr, __FILE_NAME__, __LINE__))

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
    LLIST_ASSERT(elem->next != NULL && elem->prev != NULL);
    elem->prev->next = elem->next;
    elem->next->prev = elem->prev;
    void *data = elem->data;
    elem->next = nullptr;
    elem->prev = nullptr;
    elem->data = nullptr;
    return data;
}

} // namespace

extern "C" {

KS_API void llist_d_insert(llist_d_node_t *head, void *data, llist_d_node_t *node, llist_d_order_fn order)
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

KS_API void llist_d_insert_before(llist_d_node_t *head, void *data, llist_d_node_t *node,
                                  llist_d_node_t *pos)
{
    init_head(head);
    node->data = data;
    link_before(node, pos);
}

KS_API void *llist_d_remove(llist_d_node_t *node)
{
    return unlink(node);
}

KS_API void llist_d_remove_list(llist_d_node_t *head)
{
    llist_d_node_t *elem = head;
    LLIST_ASSERT(elem->next != NULL && elem->prev != NULL);
    while (head->next != head)
        unlink(head->next);
}

} // extern "C"
