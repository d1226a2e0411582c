// Hash tables keyed by fixed-length byte strings.
#include "hash_internal.h"

#include "ks/stg.h"

#include <string.h>

namespace {

using namespace ks::hashimpl;

inline uint32_t hash_of(const hash_table_t *t, const void *key)
{
    return t->hash ? t->hash(key) : bytes_hash_value(key, t->key_bytes);
}

// The slot that points at the key's cell, or null.  The stored full hash is
// compared before the compare procedure (or memcmp) is called.
inline hash_cell **find(hash_table_t *t, const void *key, uint32_t h)
{
    hash_cell **link = &t->buckets[bucket_index(t, h)];
    if (!t->compare) {
        for (; *link; link = &(*link)->next)
            if ((*link)->hval == h && memcmp((*link)->key.ptr, key, t->key_bytes) == 0)
                return link;
    } else {
        for (; *link; link = &(*link)->next)
            if ((*link)->hval == h && t->compare((*link)->key.ptr, key))
                return link;
    }
    return nullptr;
}

// A null key is a caller error; it is reported and then taken as key_bytes
// zero bytes so that the operation can go on.
const void *null_key_stand_in(hash_table_t *t)
{
    if (!t->null_key) {
        void *z = stg_alloc(t->area, t->key_bytes);
        if (z)
            memset(z, 0, t->key_bytes);
        t->null_key = z;
    }
    return t->null_key;
}

int lookup_action(hash_table_t *t, const void *key, const void **key_out, void **data, int a)
{
    hash_cell *c = nullptr;
    int found = 0;
    if (a != ACT_LOOKUP && a != ACT_ENTER && a != ACT_RELEASE) {
        report_unexpected();
    } else {
        if (!key) {
            report_unexpected();
            key = null_key_stand_in(t);
        }
        if (key) {
            uint32_t h = hash_of(t, key);
            hash_cell **link = find(t, key, h);
            found = link != nullptr;
            c = act_on_key(t, link, h, static_cast<action>(a), [t, key]() -> const void * {
                if (!t->copy_keys)
                    return key;
                // A recycled cell brings its key buffer along.
                void *buf = t->free_cells ? const_cast<void *>(t->free_cells->key.ptr) : nullptr;
                if (!buf)
                    buf = stg_alloc(t->area, t->key_bytes);
                if (buf)
                    memcpy(buf, key, t->key_bytes);
                return buf;
            });
        }
    }
    if (key_out)
        *key_out = c ? c->key.ptr : nullptr;
    set_outs(c, data);
    return found;
}

int next_common(hash_cell *c, int r, const void **key_out, void **data)
{
    if (key_out)
        *key_out = c ? c->key.ptr : nullptr;
    set_outs(c, data);
    return r;
}

} // namespace

hash_table_t *hash_flen_create(uint32_t hint, uint32_t data_bytes, int copy_keys,
                               uint32_t key_bytes)
{
    return hash_create_ht(hint, data_bytes, HASH_KEY_FLEN, copy_keys, key_bytes, nullptr, nullptr);
}

hash_table_t *hash_flen_create_with_fns(uint32_t hint, uint32_t data_bytes, int copy_keys,
                                        uint32_t key_bytes, hash_fn_t hash,
                                        hash_compare_fn_t compare)
{
    return hash_create_ht(hint, data_bytes, HASH_KEY_FLEN, copy_keys, key_bytes, hash, compare);
}

int hash_flen_lookup_action(hash_table_t *table, const void *key, const void **key_out, void **data,
                            int action)
{
    return lookup_action(table, key, key_out, data, action);
}

int hash_flen_enter(hash_table_t *table, const void *key, const void **key_out, void **data)
{
    return lookup_action(table, key, key_out, data, ACT_ENTER);
}

int hash_flen_lookup(hash_table_t *table, const void *key, const void **key_out, void **data)
{
    return lookup_action(table, key, key_out, data, ACT_LOOKUP);
}

int hash_flen_free(hash_table_t *table, const void *key, const void **key_out, void **data)
{
    return lookup_action(table, key, key_out, data, ACT_RELEASE);
}

int hash_flen_next(hash_table_t *table, hash_cursor_t **cursor, const void **key_out, void **data)
{
    hash_cell *c;
    int r = scan_next(table, cursor, &c);
    return next_common(c, r, key_out, data);
}

int hash_flen_next_in_order(hash_table_t *table, hash_cursor_t **cursor, const void **key_out,
                            void **data)
{
    hash_cell *c;
    int r = scan_next_in_order(table, cursor, &c);
    return next_common(c, r, key_out, data);
}
