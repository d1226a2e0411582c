// Singly linked lists with per-element attribute bytes.
#include "ks/list.h"

#include "ks/imsg.h"
#include "ks/pfm.h"
#include "ks/stg.h"
#include "list_msg.h"

#include <string.h>

namespace {

// Lists never hand an allocation failure back: every caller would have to
// unwind a half-built structure, so the process stops here instead.
[[noreturn]] void no_storage(int line)
{
    imsg_print_shared(IMSG_ERROR, "ks/list", &_list_ks_msg_table, LIST_MSG_NO_STORAGE);
    pfm_panic(__FILE_NAME__, line);
}

inline size_t elem_bytes(const list_t *list)
{
    return sizeof(list_elem_t) + list->attr_size;
}

inline unsigned char *attrs_of(list_elem_t *elem)
{
    return reinterpret_cast<unsigned char *>(elem) + sizeof(list_elem_t);
}

inline list_elem_t *new_elem(list_t *list, void *data, int line)
{
    list_elem_t *e = static_cast<list_elem_t *>(stg_alloc(list->area, elem_bytes(list)));
    if (!e)
        no_storage(line);
    e->next = nullptr;
    e->data = data;
    return e;
}

// Links e after the last element; the caller holds the inhibit.
inline void link_last(list_t *list, list_elem_t *e)
{
    e->next = nullptr;
    if (list->last)
        list->last->next = e;
    else
        list->first = e;
    list->last = e;
}

} // namespace

list_t *list_create(stg_area_t area, uint32_t attr_size)
{
    list_t *list = static_cast<list_t *>(stg_alloc(area, sizeof(list_t)));
    if (!list)
        no_storage(__LINE__);
    list->first = nullptr;
    list->last = nullptr;
    list->area = area;
    list->attr_size = attr_size;
    return list;
}

void list_destroy(list_t *list)
{
    if (!list || list->area != STG_AREA_HEAP)
        return;
    list_elem_t *e = list->first;
    while (e) {
        list_elem_t *next = e->next;
        stg_free(e);
        e = next;
    }
    stg_free(list);
}

int list_is_empty(const list_t *list)
{
    return !list || list->last == nullptr;
}

list_elem_t *list_append(list_t *list, void *data)
{
    list_elem_t *e = new_elem(list, data, __LINE__);
    pfm_inhibit();
    link_last(list, e);
    pfm_enable();
    return e;
}

list_elem_t *list_insert(list_t *list, list_elem_t *elem, void *data)
{
    list_elem_t *e = new_elem(list, data, __LINE__);
    pfm_inhibit();
    if (elem) {
        e->next = elem->next;
        elem->next = e;
    } else {
        e->next = list->first;
        list->first = e;
    }
    if (!e->next)
        list->last = e;
    pfm_enable();
    return e;
}

void list_remove(list_t *list, list_elem_t *elem)
{
    if (!list || !elem)
        return;
    pfm_inhibit();
    list_elem_t *pred = nullptr;
    list_elem_t *e = list->first;
    while (e && e != elem) {
        pred = e;
        e = e->next;
    }
    if (!e) {
        pfm_enable();
        return;
    }
    if (pred)
        pred->next = elem->next;
    else
        list->first = elem->next;
    if (list->last == elem)
        list->last = pred;
    pfm_enable();
    if (list->area == STG_AREA_HEAP)
        stg_free(elem);
}

list_elem_t *list_next(const list_t *list, const list_elem_t *elem, void **data)
{
    list_elem_t *e = elem ? elem->next : (list ? list->first : nullptr);
    if (data)
        *data = e ? e->data : nullptr;
    return e;
}

list_elem_t *list_final(const list_t *list, void **data)
{
    list_elem_t *e = list ? list->last : nullptr;
    if (data)
        *data = e ? e->data : nullptr;
    return e;
}

void *list_concat(list_t *dst, const list_t *src)
{
    if (!src || !src->first)
        return nullptr;
    size_t copy =
        sizeof(list_elem_t) + (src->attr_size < dst->attr_size ? src->attr_size : dst->attr_size);
    // Stop at the source's present end, so that concatenating a list onto
    // itself copies it once instead of chasing its own copies.
    const list_elem_t *end = src->last;
    for (const list_elem_t *s = src->first; s; s = s->next) {
        list_elem_t *e = static_cast<list_elem_t *>(stg_alloc(dst->area, elem_bytes(dst)));
        if (!e)
            no_storage(__LINE__);
        memcpy(e, s, copy);
        pfm_inhibit();
        link_last(dst, e);
        pfm_enable();
        if (s == end)
            break;
    }
    return nullptr;
}

void list_set_attrs(list_t *list, list_elem_t *elem, uint32_t count, const void *bytes)
{
    if (count > list->attr_size) {
        imsg_print(IMSG_ERROR, &_list_ks_msg_table, LIST_MSG_ATTR_TOO_BIG, static_cast<int>(count),
                   static_cast<int>(list->attr_size));
        pfm_panic(__FILE_NAME__, __LINE__);
    }
    if (count > 0)
        memcpy(attrs_of(elem), bytes, count);
}

void *list_get_attrs(const list_t *list, list_elem_t *elem, uint32_t *size)
{
    if (size)
        *size = list->attr_size;
    return attrs_of(elem);
}

void list_set_data(list_t * /*list*/, list_elem_t *elem, void *data)
{
    elem->data = data;
}

void *list_get_data(const list_t * /*list*/, const list_elem_t *elem)
{
    return elem->data;
}

uint32_t list_length(const list_t *list)
{
    uint32_t n = 0;
    if (list)
        for (const list_elem_t *e = list->first; e; e = e->next)
            n++;
    return n;
}
