// Hash tables keyed by 32-bit integers, stored in the cell itself.
#include "hash_internal.h"

namespace {

using namespace ks::hashimpl;

// The slot that points at the key's cell, or null.  Integer keys are cheaper
// to compare than the stored hash would be, so the compare comes first.
inline hash_cell **find(hash_table_t *t, int32_t key, uint32_t h)
{
    hash_cell **link = &t->buckets[bucket_index(t, h)];
    if (t->compare == int_compare) {
        for (; *link; link = &(*link)->next)
            if ((*link)->key.ival == key)
                return link;
    } else {
        for (; *link; link = &(*link)->next)
            if (t->compare(&(*link)->key.ival, &key))
                return link;
    }
    return nullptr;
}

// Inlined into each entry point, so that the action folds away.
__attribute__((always_inline)) inline int
lookup_action(hash_table_t *t, int32_t key, const int32_t **key_out, void **data, action a)
{
    uint32_t h = t->hash == int_hash ? int_hash_value(key) : t->hash(&key);
    hash_cell **link = find(t, key, h);
    hash_cell *c = link ? *link : nullptr;
    int found = c != nullptr;
    if (a == ACT_ENTER && !c) {
        c = add_cell(t, h);
        if (c)
            c->key.ival = key;
    } else if (a == ACT_RELEASE && c) {
        release_cell(t, link);
    }
    if (key_out)
        *key_out = c ? &c->key.ival : nullptr;
    set_outs(c, data);
    return found;
}

int next_common(hash_cell *c, int r, const int32_t **key_out, void **data)
{
    if (key_out)
        *key_out = c ? &c->key.ival : nullptr;
    set_outs(c, data);
    return r;
}

} // namespace

hash_table_t *hash_int_create(uint32_t hint, uint32_t data_bytes)
{
    return hash_create_ht(hint, data_bytes, HASH_KEY_INT, 1, 0, nullptr, nullptr);
}

int hash_int_enter(hash_table_t *table, int32_t key, const int32_t **key_out, void **data)
{
    return lookup_action(table, key, key_out, data, ACT_ENTER);
}

int hash_int_lookup(hash_table_t *table, int32_t key, const int32_t **key_out, void **data)
{
    return lookup_action(table, key, key_out, data, ACT_LOOKUP);
}

int hash_int_free(hash_table_t *table, int32_t key, const int32_t **key_out, void **data)
{
    return lookup_action(table, key, key_out, data, ACT_RELEASE);
}

int hash_int_next(hash_table_t *table, hash_cursor_t **cursor, const int32_t **key_out, void **data)
{
    hash_cell *c;
    int r = scan_next(table, cursor, &c);
    return next_common(c, r, key_out, data);
}

int hash_int_next_in_order(hash_table_t *table, hash_cursor_t **cursor, const int32_t **key_out,
                           void **data)
{
    hash_cell *c;
    int r = scan_next_in_order(table, cursor, &c);
    return next_common(c, r, key_out, data);
}
