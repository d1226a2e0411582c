// Hash tables keyed by strings, optionally blind to white space.
#include "hash_internal.h"

#include "ks/strutl.h"
#include "ks/stg.h"

#include <ctype.h>
#include <string.h>

namespace {

using namespace ks::hashimpl;

// The slot that points at the key's cell, or null.  The stored full hash is
// compared before the (costlier) compare procedure is called.
inline hash_cell **find(hash_table_t *t, const char *key, uint32_t h)
{
    hash_cell **link = &t->buckets[bucket_index(t, h)];
    if (t->compare == str_compare) {
        for (; *link; link = &(*link)->next)
            if ((*link)->hval == h && strcmp(static_cast<const char *>((*link)->key.ptr), key) == 0)
                return link;
    } else {
        for (; *link; link = &(*link)->next)
            if ((*link)->hval == h && t->compare((*link)->key.ptr, key))
                return link;
    }
    return nullptr;
}

// Inlined into each entry point, so that the action folds away.
__attribute__((always_inline)) inline int lookup_action(hash_table_t *t, const char *key,
                                                        const char **key_out, void **data, action a)
{
    if (!key) {
        report_unexpected();
        key = "";
    }
    uint32_t h = t->hash == str_hash ? str_hash_value(key) : t->hash(key);
    hash_cell **link = find(t, key, h);
    int found = link != nullptr;
    hash_cell *c = act_on_key(t, link, h, a, [t, key]() -> const void * {
        return t->copy_keys ? stg_area_strdup(t->area, key) : key;
    });
    if (key_out)
        *key_out = c ? static_cast<const char *>(c->key.ptr) : nullptr;
    set_outs(c, data);
    return found;
}

int next_common(hash_cell *c, int r, const char **key_out, void **data)
{
    if (key_out)
        *key_out = c ? static_cast<const char *>(c->key.ptr) : nullptr;
    set_outs(c, data);
    return r;
}

} // namespace

namespace ks {
namespace hashimpl {

uint32_t str_hash(const void *key)
{
    return str_hash_value(static_cast<const char *>(key));
}

int str_compare(const void *stored, const void *probe)
{
    return strcmp(static_cast<const char *>(stored), static_cast<const char *>(probe)) == 0;
}

uint32_t str_hash_nospace(const void *key)
{
    uint32_t h = 0;
    for (const unsigned char *p = static_cast<const unsigned char *>(key); *p; p++) {
        if (isspace(*p))
            continue;
        h = h + (static_cast<uint32_t>(*p) ^ (h << 7));
    }
    return h;
}

int str_compare_nospace(const void *stored, const void *probe)
{
    return strutl_cmp_ignore_whitespace(static_cast<const char *>(stored),
                                        static_cast<const char *>(probe)) == 0;
}

} // namespace hashimpl
} // namespace ks

hash_table_t *hash_str_create(uint32_t hint, uint32_t data_bytes, int copy_keys)
{
    return hash_create_ht(hint, data_bytes, HASH_KEY_STR, copy_keys, 0, nullptr, nullptr);
}

void hash_str_ignore_spaces(hash_table_t *table)
{
    table->hash = str_hash_nospace;
    table->compare = str_compare_nospace;
}

int hash_str_enter(hash_table_t *table, const char *key, const char **key_out, void **data)
{
    return lookup_action(table, key, key_out, data, ACT_ENTER);
}

int hash_str_lookup(hash_table_t *table, const char *key, const char **key_out, void **data)
{
    return lookup_action(table, key, key_out, data, ACT_LOOKUP);
}

int hash_str_free(hash_table_t *table, const char *key, const char **key_out, void **data)
{
    return lookup_action(table, key, key_out, data, ACT_RELEASE);
}

int hash_str_enter_list(hash_table_t *table, const list_t *list)
{
    int all_present = 1;
    void *datum;
    for (list_elem_t *e = list_next(list, nullptr, &datum); e; e = list_next(list, e, &datum))
        if (!lookup_action(table, static_cast<const char *>(datum), nullptr, nullptr, ACT_ENTER))
            all_present = 0;
    return all_present;
}

int hash_str_next(hash_table_t *table, hash_cursor_t **cursor, const char **key_out, void **data)
{
    hash_cell *c;
    int r = scan_next(table, cursor, &c);
    return next_common(c, r, key_out, data);
}

int hash_str_next_in_order(hash_table_t *table, hash_cursor_t **cursor, const char **key_out,
                           void **data)
{
    hash_cell *c;
    int r = scan_next_in_order(table, cursor, &c);
    return next_common(c, r, key_out, data);
}
