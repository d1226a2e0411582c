// Internal: included by hash.cpp, hash_int.cpp, hash_str.cpp and hash_flen.cpp;
// never installed.  The hash table's records and the cell engine shared by
// the per-key-kind files.
#ifndef KS_HASH_INTERNAL_H
#define KS_HASH_INTERNAL_H

#include "ks/hash.h"
#include "ks/stg.h"

#include <stdint.h>
#include <string.h>

struct hash_cell {
    hash_cell *next; // bucket chain
    union {
        const void *ptr; // string and fixed-length keys
        int32_t ival;    // integer keys live in the cell
    } key;
    uint32_t hval; // full hash, before reduction
    // data_bytes of data follow at offset sizeof(hash_cell)
};

// Ordered tables put these two links in front of every cell.
struct hash_order_links {
    hash_cell *order_next;
    hash_cell *order_back;
};

struct hash_table {
    hash_cell **buckets; // heap
    stg_area_t area;
    uint32_t cells;
    hash_cell *first;
    hash_cell *last;
    hash_cell *free_cells;
    uint32_t data_bytes;
    uint32_t key_bytes;
    uint32_t nbuckets;
    uint32_t limit;
    uint32_t climit;
    int32_t key_type;
    int32_t copy_keys;
    int32_t ordered;
    hash_fn_t hash;
    hash_compare_fn_t compare;
    // Engine bookkeeping, after the described fields.
    int32_t made_cells;    // set once the first cell is taken from the area
    const void *null_key;  // stands in for a null fixed-length key
    uint64_t bucket_magic; // reciprocal of nbuckets, see bucket_index
};

struct hash_cursor {
    uint32_t bucket;
    hash_cell *cell;
};

namespace ks {
namespace hashimpl {

inline void *cell_data(hash_cell *c)
{
    return reinterpret_cast<char *>(c) + sizeof(hash_cell);
}

inline hash_order_links *links(hash_cell *c)
{
    return reinterpret_cast<hash_order_links *>(reinterpret_cast<char *>(c) -
                                                sizeof(hash_order_links));
}

// Built-in procedures.
uint32_t int_hash(const void *key);
int int_compare(const void *stored, const void *probe);
uint32_t str_hash(const void *key);
int str_compare(const void *stored, const void *probe);
uint32_t str_hash_nospace(const void *key);
int str_compare_nospace(const void *stored, const void *probe);

inline uint32_t int_hash_value(int32_t k)
{
    return static_cast<uint32_t>(k >> 2);
}

// hash mod nbuckets without a division (Lemire's 32-bit fastmod): exact for
// every 32-bit hash and bucket count.
inline uint64_t bucket_magic_for(uint32_t nbuckets)
{
    return UINT64_MAX / nbuckets + 1;
}

inline uint32_t bucket_index(uint64_t magic, uint32_t nbuckets, uint32_t h)
{
    uint64_t low = magic * h;
    return static_cast<uint32_t>((static_cast<unsigned __int128>(low) * nbuckets) >> 64);
}

inline uint32_t bucket_index(const hash_table_t *t, uint32_t h)
{
    return bucket_index(t->bucket_magic, t->nbuckets, h);
}

inline uint32_t str_hash_step(uint32_t h, unsigned char b)
{
    uint32_t c = static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(b)));
    return h + (c ^ (h << 7));
}

// h + (c ^ (h << 7)) with c below 0x80 never carries between the two terms,
// so it equals h * 129 + c.  Eight such characters fold into one multiply by
// 129^8, which shortens the dependency chain of the byte loop eightfold;
// blocks holding a byte above 0x7F take the byte-by-byte steps.
inline uint32_t str_hash_value(const char *s)
{
    const unsigned char *p = reinterpret_cast<const unsigned char *>(s);
    size_t n = strlen(s);
    // Powers of 129, wrapping as the hash does.
    constexpr uint32_t kPow1 = 129, kPow2 = kPow1 * kPow1, kPow3 = kPow2 * kPow1;
    constexpr uint32_t kPow4 = kPow2 * kPow2, kPow5 = kPow4 * kPow1, kPow6 = kPow4 * kPow2;
    constexpr uint32_t kPow7 = kPow4 * kPow3, kPow8 = kPow4 * kPow4;
    uint32_t h = 0;
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t w;
        memcpy(&w, p + i, sizeof w);
        if (w & 0x8080808080808080u) {
            for (size_t j = 0; j < 8; j++)
                h = str_hash_step(h, p[i + j]);
        } else {
            const unsigned char *q = p + i;
            uint32_t lo = q[0] * kPow7 + q[1] * kPow6 + q[2] * kPow5 + q[3] * kPow4;
            uint32_t hi = q[4] * kPow3 + q[5] * kPow2 + q[6] * kPow1 + q[7];
            h = h * kPow8 + (lo + hi);
        }
    }
    for (; i < n; i++)
        h = str_hash_step(h, p[i]);
    return h;
}

inline uint32_t bytes_hash_value(const void *key, uint32_t n)
{
    const unsigned char *p = static_cast<const unsigned char *>(key);
    uint32_t h = 0;
    for (uint32_t i = 0; i < n; i++)
        h = h + ((h << 7) ^ p[i]);
    return h;
}

// Takes a cell (recycled or new), links it into the order chain and its
// bucket, counts it and grows the table when the limit is passed.  The caller
// has not yet stored the key: it fills key and data through the result.
// Null only when the area is exhausted.
hash_cell *add_cell(hash_table_t *t, uint32_t hval);
// Unlinks the cell behind *link (a bucket slot or a next field) and puts it
// on the free list.
void release_cell(hash_table_t *t, hash_cell **link);
// Growth step: the first prime above nbuckets, capped.
void grow(hash_table_t *t);
// The "Unexpected error in hash package." notice.
void report_unexpected();
// Cursor-driven scans shared by the per-kind scanners.
int scan_next(hash_table_t *t, hash_cursor_t **cursor, hash_cell **cell);
int scan_next_in_order(hash_table_t *t, hash_cursor_t **cursor, hash_cell **cell);

// What an entry point asks of its key: the values of hash_flen_lookup_action.
enum action {
    ACT_LOOKUP = 0,
    ACT_ENTER = 1,
    ACT_RELEASE = 2
};

// The step every pointer-keyed kind shares once find() has stopped at link:
// entering an absent key takes the key to keep from store_key (null when out
// of memory) and then a cell; freeing releases the cell found.  Returns the
// cell concerned (a released one included), or null.
template <typename StoreKey>
inline hash_cell *act_on_key(hash_table_t *t, hash_cell **link, uint32_t h, action a,
                             StoreKey store_key)
{
    hash_cell *c = link ? *link : nullptr;
    if (a == ACT_ENTER && !c) {
        const void *stored = store_key();
        if (stored && (c = add_cell(t, h)) != nullptr)
            c->key.ptr = stored;
    } else if (a == ACT_RELEASE && c) {
        release_cell(t, link);
    }
    return c;
}

inline void set_outs(hash_cell *c, void **data)
{
    if (data)
        *data = c ? cell_data(c) : nullptr;
}

} // namespace hashimpl
} // namespace ks

#endif
