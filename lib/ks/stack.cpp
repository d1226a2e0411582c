// Stacks of (item, size) entries kept on a list of the stack's area.
#include "ks/list.h"

#include "ks/stg.h"

namespace {

inline stack_entry_t *entry_of(list_elem_t *e)
{
    return static_cast<stack_entry_t *>(e->data);
}

} // namespace

stack_rec_t *stack_create(stg_area_t area, uint32_t item_size)
{
    stack_rec_t *s = static_cast<stack_rec_t *>(stg_alloc(area, sizeof(stack_rec_t)));
    if (!s)
        return nullptr;
    s->area = area;
    s->list = list_create(area, 0);
    s->top = nullptr;
    s->item_size = item_size;
    return s;
}

void stack_destroy(stack_rec_t **stack)
{
    if (!stack || !*stack)
        return;
    stack_rec_t *s = *stack;
    if (s->area == STG_AREA_HEAP) {
        // Entries still pushed are heap blocks of ours; popped ones are gone.
        for (list_elem_t *e = s->top; e;) {
            stack_entry_t *entry = entry_of(e);
            e = entry->prev_top;
            stg_free(entry);
        }
    }
    list_destroy(s->list);
    if (s->area == STG_AREA_HEAP)
        stg_free(s);
    *stack = nullptr;
}

int stack_varlen_push(stack_rec_t *stack, void *item, uint32_t size)
{
    stack_entry_t *entry =
        static_cast<stack_entry_t *>(stg_alloc(stack->area, sizeof(stack_entry_t)));
    if (!entry)
        return 1;
    entry->prev_top = stack->top;
    entry->size = size;
    entry->item = item;
    list_elem_t *e = list_append(stack->list, entry);
    if (!e) {
        if (stack->area == STG_AREA_HEAP)
            stg_free(entry);
        return 1;
    }
    stack->top = e;
    return 0;
}

int stack_push(stack_rec_t *stack, void *item)
{
    return stack_varlen_push(stack, item, stack->item_size);
}

int stack_pop(stack_rec_t *stack, void **item, uint32_t *size)
{
    if (!stack->top) {
        if (item)
            *item = nullptr;
        if (size)
            *size = 0;
        return 1;
    }
    stack_entry_t *entry = entry_of(stack->top);
    if (item)
        *item = entry->item;
    if (size)
        *size = entry->size;
    // The list element stays: the list records every push, not the height.
    stack->top = entry->prev_top;
    if (stack->area == STG_AREA_HEAP)
        stg_free(entry);
    return 0;
}

uint32_t stack_depth(const stack_rec_t *stack)
{
    return list_length(stack->list);
}
