/*
 * Lists and stacks.
 *
 *  list_      singly linked lists whose elements carry the caller's pointer
 *             and attr_size attribute bytes of their own;
 *  llist_d_   intrusive circular doubly linked lists: the caller embeds an
 *             llist_d_node_t in its record, the head is such a node too;
 *  stack_     stacks of (item, size) entries built on the lists.
 *
 * Lists and stacks take their memory from a storage area.  With the heap
 * pseudo-area STG_AREA_HEAP they free what they remove; with a real area the
 * area owns every block and nothing is freed singly.  List mutations run with
 * fault management inhibited, so a signal handler never sees a half-linked
 * list.  An allocation failure in the list family prints "Unable to allocate
 * storage" and panics: those calls never return failure.
 */
#ifndef KS_LIST_H
#define KS_LIST_H

#include "ks/ks_common.h"
#include "ks/stg.h"

KS_BEGIN_DECLS

/* One element; attr_size attribute bytes follow the record directly. */
typedef struct list_elem {
    struct list_elem *next;
    void *data;
} list_elem_t;

typedef struct list {
    list_elem_t *first;
    list_elem_t *last;
    stg_area_t area;    /* where the header and the elements come from */
    uint32_t attr_size; /* attribute bytes carried by every element */
} list_t;

/* New empty list in area (header from the area).  Panics when out of memory. */
KS_API list_t *list_create(stg_area_t area, uint32_t attr_size);
/* With the heap pseudo-area frees every element and the header; with a real
 * area does nothing (the area owns the memory).  Element data is never freed. */
KS_API void list_destroy(list_t *list);
/* 1 when the list has no element (a null list is empty), else 0. */
KS_API int list_is_empty(const list_t *list);
/* Appends a new element holding data; its attribute bytes are uninitialised.
 * Returns the element; panics when out of memory. */
KS_API list_elem_t *list_append(list_t *list, void *data);
/* Inserts a new element after elem, or at the head when elem is null.
 * Returns the element; panics when out of memory. */
KS_API list_elem_t *list_insert(list_t *list, list_elem_t *elem, void *data);
/* Unlinks elem; frees it only with the heap area.  An element that is not in
 * the list is left alone. */
KS_API void list_remove(list_t *list, list_elem_t *elem);
/* The element after elem (the first when elem is null), its data in *data;
 * at the end returns null with *data = 0.  data may be null. */
KS_API list_elem_t *list_next(const list_t *list, const list_elem_t *elem, void **data);
/* The last element and its data in *data; null and 0 when the list is empty. */
KS_API list_elem_t *list_final(const list_t *list, void **data);
/* Appends to dst a copy of every element of src, in order, with
 * min(attr sizes) attribute bytes copied.  Always returns null; panics when
 * out of memory. */
KS_API void *list_concat(list_t *dst, const list_t *src);
/* Copies count bytes into elem's attribute bytes.  count above the list's
 * attr_size prints "Attempt to store ..." and panics. */
KS_API void list_set_attrs(list_t *list, list_elem_t *elem, uint32_t count, const void *bytes);
/* Pointer to elem's attribute bytes (inside the element); *size = attr_size. */
KS_API void *list_get_attrs(const list_t *list, list_elem_t *elem, uint32_t *size);
KS_API void list_set_data(list_t *list, list_elem_t *elem, void *data);
KS_API void *list_get_data(const list_t *list, const list_elem_t *elem);
/* Number of elements; 0 for a null list. */
KS_API uint32_t list_length(const list_t *list);

/* A node of an intrusive list; a list head is a node of the same kind.  An
 * empty list's head points to itself both ways; an all-null head is an
 * uninitialised empty list, set up by the first insertion. */
typedef struct llist_d_node {
    struct llist_d_node *next;
    struct llist_d_node *prev;
    void *data;
} llist_d_node_t;

/* Order of llist_d_insert: a procedure (new data, data of an existing node)
 * returning <= 0 where the new node goes before the existing one, or one of
 * the two markers below. */
typedef int (*llist_d_order_fn)(void *new_data, void *node_data);
#define LLIST_D_TAIL  ((llist_d_order_fn)0)
#define LLIST_D_FRONT ((llist_d_order_fn)1)

/* Links node (storing data in it) at the tail, at the front, or before the
 * first node for which order returns <= 0 (ascending order, new before equal). */
KS_API void llist_d_insert(llist_d_node_t *head, void *data, llist_d_node_t *node,
                           llist_d_order_fn order);
/* Links node (storing data) immediately before pos; pos == head means at the tail. */
KS_API void llist_d_insert_before(llist_d_node_t *head, void *data, llist_d_node_t *node,
                                  llist_d_node_t *pos);
/* Unlinks node, clears its links and data, returns the former data.  A node
 * that is not linked fails the assertion and aborts. */
KS_API void *llist_d_remove(llist_d_node_t *node);
/* Unlinks every node (each cleared), leaving the head empty; frees nothing.
 * An all-null head fails the assertion and aborts. */
KS_API void llist_d_remove_list(llist_d_node_t *head);

/* A stack entry: the data of one list element of the stack's list. */
typedef struct stack_entry {
    list_elem_t *prev_top; /* element of the entry below */
    uint32_t size;
    void *item;
} stack_entry_t;

typedef struct stack_rec {
    stg_area_t area;
    list_t *list;       /* attr_size 0; one element per push */
    list_elem_t *top;   /* element holding the top entry, null when empty */
    uint32_t item_size; /* size recorded by stack_push */
} stack_rec_t;

/* New empty stack in area; null when the header cannot be allocated. */
KS_API stack_rec_t *stack_create(stg_area_t area, uint32_t item_size);
/* Destroys *stack (freeing with the heap area only) and sets *stack to 0. */
KS_API void stack_destroy(stack_rec_t **stack);
/* Pushes item with size item_size; 0, or 1 when out of memory. */
KS_API int stack_push(stack_rec_t *stack, void *item);
/* Pushes item with the given size; 0, or 1 when out of memory. */
KS_API int stack_varlen_push(stack_rec_t *stack, void *item, uint32_t size);
/* Pops the top entry into *item and *size: 0; when empty, 1 with both 0. */
KS_API int stack_pop(stack_rec_t *stack, void **item, uint32_t *size);
/* Pushes since creation: popping does not shorten the stack's list. */
KS_API uint32_t stack_depth(const stack_rec_t *stack);

KS_END_DECLS

#endif
