// Hash tables: creation, growth, the cell engine, scans and the dumps.
#include "hash_internal.h"

#include "ks/imsg.h"
#include "ks/stg.h"
#include "ks_msg.h"

#include <stdio.h>
#include <string.h>

const uint32_t hash_prime_sizes[30] = {
    1,        2,        3,        7,         17,        31,        61,      127,
    257,      509,      1021,     2053,      4093,      8191,      16381,   32771,
    65537,    131071,   262147,   524287,    1048573,   2097143,   4194301, 8388617,
    16777213, 33554467, 67108859, 134217757, 268435459, 536870909,
};

namespace {

using namespace ks::hashimpl;

// The prime scan at creation stops here, whatever the hint.
constexpr int kLastScannedPrime = 28;
// Chain lengths counted by hash_dump_stats.
constexpr int kHistogramSize = 50;

uint32_t climit_for(uint32_t nbuckets, uint32_t limit)
{
    uint64_t c = static_cast<uint64_t>(nbuckets) * limit;
    return c > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(c);
}

size_t cell_bytes(const hash_table_t *t)
{
    return sizeof(hash_cell) + t->data_bytes + (t->ordered ? sizeof(hash_order_links) : 0);
}

// A cleared array of n bucket slots from the heap; null when out of memory.
hash_cell **new_buckets(uint32_t n)
{
    size_t bytes =
        sizeof(hash_cell *) * n; // NOLINT(bugprone-sizeof-expression): slots are pointers
    auto *buckets = static_cast<hash_cell **>(stg_malloc(bytes));
    if (buckets)
        memset(buckets, 0, bytes);
    return buckets;
}

void out_of_memory()
{
    imsg_print_shared(IMSG_ERROR, "ks", &_ks_ks_msg_table, KS_MSG_OUT_OF_MEMORY);
}

const char *key_type_name(int type)
{
    switch (type) {
    case HASH_KEY_INT: return "HASH_KEY_INT";
    case HASH_KEY_STR: return "HASH_KEY_STR";
    case HASH_KEY_FLEN: return "HASH_KEY_FLEN";
    default: return "*unknown*";
    }
}

unsigned long ptr(const void *p)
{
    return reinterpret_cast<unsigned long>(p);
}

} // namespace

namespace ks {
namespace hashimpl {

uint32_t int_hash(const void *key)
{
    return int_hash_value(*static_cast<const int32_t *>(key));
}

int int_compare(const void *stored, const void *probe)
{
    return *static_cast<const int32_t *>(stored) == *static_cast<const int32_t *>(probe);
}

void report_unexpected()
{
    imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_HASH_ERROR);
}

hash_cell *add_cell(hash_table_t *t, uint32_t hval)
{
    hash_cell *c = t->free_cells;
    if (c) {
        // A recycled cell keeps its old data; only the links are renewed.
        t->free_cells = c->next;
    } else {
        char *p = static_cast<char *>(stg_alloc(t->area, cell_bytes(t)));
        if (!p)
            return nullptr;
        // Area memory normally arrives zeroed, unless the area was reused.
        memset(p, 0, cell_bytes(t));
        t->made_cells = 1;
        c = reinterpret_cast<hash_cell *>(t->ordered ? p + sizeof(hash_order_links) : p);
    }
    if (t->ordered) {
        hash_order_links *l = links(c);
        l->order_next = nullptr;
        l->order_back = t->last;
        if (t->last)
            links(t->last)->order_next = c;
        else
            t->first = c;
        t->last = c;
    }
    c->hval = hval;
    hash_cell **slot = &t->buckets[bucket_index(t, hval)];
    c->next = *slot;
    *slot = c;
    t->cells++;
    if (t->limit > 0 && t->cells > t->climit && t->nbuckets < HASH_MAX_BUCKETS)
        grow(t);
    return c;
}

void release_cell(hash_table_t *t, hash_cell **link)
{
    hash_cell *c = *link;
    if (t->ordered) {
        hash_order_links *l = links(c);
        if (l->order_back)
            links(l->order_back)->order_next = l->order_next;
        else
            t->first = l->order_next;
        if (l->order_next)
            links(l->order_next)->order_back = l->order_back;
        else
            t->last = l->order_back;
        l->order_next = l->order_back = nullptr;
    }
    *link = c->next;
    c->next = t->free_cells;
    t->free_cells = c;
    t->cells--;
}

void grow(hash_table_t *t)
{
    uint32_t size = HASH_MAX_BUCKETS;
    for (uint32_t p : hash_prime_sizes) {
        if (p > t->nbuckets) {
            size = p < HASH_MAX_BUCKETS ? p : HASH_MAX_BUCKETS;
            break;
        }
    }
    hash_resize(t, size);
}

int scan_next(hash_table_t *t, hash_cursor_t **cursor, hash_cell **cell)
{
    hash_cursor *cur = *cursor;
    hash_cell *c = nullptr;
    uint32_t b = 0;
    if (!cur) {
        cur = static_cast<hash_cursor *>(stg_malloc(sizeof(hash_cursor)));
        if (!cur) {
            if (cell)
                *cell = nullptr;
            return 0;
        }
        *cursor = cur;
    } else {
        b = cur->bucket;
        c = cur->cell ? cur->cell->next : nullptr;
        if (!c)
            b++;
    }
    while (!c && b < t->nbuckets) {
        c = t->buckets[b];
        if (!c)
            b++;
    }
    if (!c) {
        stg_free(cur);
        *cursor = nullptr;
        if (cell)
            *cell = nullptr;
        return 0;
    }
    cur->bucket = b;
    cur->cell = c;
    if (cell)
        *cell = c;
    return 1;
}

int scan_next_in_order(hash_table_t *t, hash_cursor_t **cursor, hash_cell **cell)
{
    hash_cursor *cur = *cursor;
    hash_cell *c;
    if (!cur) {
        cur = static_cast<hash_cursor *>(stg_malloc(sizeof(hash_cursor)));
        if (!cur) {
            if (cell)
                *cell = nullptr;
            return 0;
        }
        cur->bucket = 0;
        *cursor = cur;
        c = t->ordered ? t->first : nullptr;
    } else {
        c = cur->cell ? links(cur->cell)->order_next : nullptr;
    }
    if (!c) {
        stg_free(cur);
        *cursor = nullptr;
        if (cell)
            *cell = nullptr;
        return 0;
    }
    cur->cell = c;
    if (cell)
        *cell = c;
    return 1;
}

} // namespace hashimpl
} // namespace ks

hash_table_t *hash_create_ht(uint32_t hint, uint32_t data_bytes, int key_type, int copy_keys,
                             uint32_t key_bytes, hash_fn_t hash, hash_compare_fn_t compare)
{
    int i = 0;
    while (i < kLastScannedPrime && hash_prime_sizes[i] < hint)
        i++;
    uint32_t prime = hash_prime_sizes[i];
    stg_area_t area = stg_create_area(prime * 4);
    if (area == STG_AREA_NULL) {
        out_of_memory();
        return nullptr;
    }
    stg_set_zero(area);
    stg_set_growth(area, 1.5);
    hash_table_t *t = static_cast<hash_table_t *>(stg_alloc(area, sizeof(hash_table_t)));
    if (!t) {
        out_of_memory();
        stg_delete_area(&area);
        return nullptr;
    }
    memset(t, 0, sizeof *t);
    t->area = area;
    t->nbuckets = prime < HASH_MAX_BUCKETS ? prime : HASH_MAX_BUCKETS;
    t->bucket_magic = bucket_magic_for(t->nbuckets);
    t->buckets = new_buckets(t->nbuckets);
    if (!t->buckets) {
        out_of_memory();
        stg_delete_area(&area);
        return nullptr;
    }
    t->data_bytes = data_bytes;
    t->key_bytes = key_bytes;
    t->key_type = key_type;
    t->copy_keys = copy_keys;
    if (key_type == HASH_KEY_INT) {
        t->hash = hash ? hash : int_hash;
        t->compare = compare ? compare : int_compare;
    } else if (key_type == HASH_KEY_STR) {
        t->hash = hash ? hash : str_hash;
        t->compare = compare ? compare : str_compare;
    } else {
        // Fixed-length tables may go without: the byte hash and memcmp.
        t->hash = hash;
        t->compare = compare;
    }
    return t;
}

void hash_set_dynamic(hash_table_t *table, uint32_t limit)
{
    table->limit = limit;
    table->climit = climit_for(table->nbuckets, limit);
}

void hash_set_order(hash_table_t *table)
{
    // Cells made without the order links cannot take them later.
    if (!table->made_cells)
        table->ordered = 1;
}

uint32_t hash_get_key_bytes(const hash_table_t *table)
{
    return table->key_bytes;
}

int hash_resize(hash_table_t *table, uint32_t nbuckets)
{
    if (nbuckets == 0)
        nbuckets = 1;
    if (nbuckets > HASH_MAX_BUCKETS)
        nbuckets = HASH_MAX_BUCKETS;
    hash_cell **nb = new_buckets(nbuckets);
    if (!nb)
        return 1;
    uint64_t magic = bucket_magic_for(nbuckets);
    for (uint32_t b = 0; b < table->nbuckets; b++) {
        hash_cell *c = table->buckets[b];
        while (c) {
            hash_cell *next = c->next;
            hash_cell **slot = &nb[bucket_index(magic, nbuckets, c->hval)];
            c->next = *slot;
            *slot = c;
            c = next;
        }
    }
    stg_free(table->buckets);
    table->buckets = nb;
    table->nbuckets = nbuckets;
    table->bucket_magic = magic;
    table->climit = climit_for(nbuckets, table->limit);
    return 0;
}

void hash_delete_ht(hash_table_t **table)
{
    if (!table || !*table)
        return;
    stg_area_t area = (*table)->area;
    stg_free((*table)->buckets);
    // The header lives in the area: nothing of it may be touched after this.
    stg_delete_area(&area);
    *table = nullptr;
}

uint32_t hash_count(const hash_table_t *table)
{
    return table->cells;
}

uint32_t hash_nbuckets(const hash_table_t *table)
{
    return table->nbuckets;
}

int hash_next(hash_table_t *table, hash_cursor_t **cursor, hash_cell_t **cell)
{
    return scan_next(table, cursor, cell);
}

int hash_next_in_order(hash_table_t *table, hash_cursor_t **cursor, hash_cell_t **cell)
{
    return scan_next_in_order(table, cursor, cell);
}

void hash_term_scan(hash_cursor_t **cursor)
{
    if (!cursor)
        return;
    stg_free(*cursor);
    *cursor = nullptr;
}

void *hash_cell_data(hash_cell_t *cell)
{
    return cell ? cell_data(cell) : nullptr;
}

void hash_dump_stats(const hash_table_t *table)
{
    uint32_t histogram[kHistogramSize] = {};
    printf("-------------------------- Hash Table Statistics ------------------------------\n");
    for (uint32_t b = 0; b < table->nbuckets; b++) {
        int n = 0;
        for (hash_cell *c = table->buckets[b]; c; c = c->next)
            n++;
        if (n > 0)
            printf("bucket %lu: %d\n", static_cast<unsigned long>(b), n);
        if (n < kHistogramSize)
            histogram[n]++;
    }
    int nfree = 0;
    for (hash_cell *c = table->free_cells; c; c = c->next)
        nfree++;
    if (nfree > 0)
        printf("Number of entries on free list: %d\n", nfree);
    printf("\n");
    printf("number of buckets: %lu\n", static_cast<unsigned long>(table->nbuckets));
    printf("number of cells: %lu\n", static_cast<unsigned long>(table->cells));
    for (int i = 0; i < kHistogramSize; i++)
        if (histogram[i] > 0)
            printf("#buckets with %d entries: %d\n", i, static_cast<int>(histogram[i]));
}

// Lines end only where the texts carry a newline: the key-type part of the
// header and the cells of an unordered table carry none, so what follows
// them runs on in the same line.
void hash_dump(const hash_table_t *table)
{
    printf("-------------------------- Hash Table Dump ------------------------------------\n");
    printf("(hash) ht 0x%016lx: bkts=0x%016lx, #bkts=%lu, #cells=%lu, dbytes=%lu,\n", ptr(table),
           ptr(table->buckets), static_cast<unsigned long>(table->nbuckets),
           static_cast<unsigned long>(table->cells), static_cast<unsigned long>(table->data_bytes));
    printf("       area=0x%016lx, keytype=%s, copyk=%c", ptr(table->area),
           key_type_name(table->key_type), table->copy_keys ? 'T' : 'F');
    if (table->key_type == HASH_KEY_FLEN)
        printf(", key_bytes=%lu", static_cast<unsigned long>(table->key_bytes));
    if (table->limit > 0 || table->ordered)
        printf("       limit=%lu, climit=%lu, order=%c, 1cell=0x%016lx, lcell=0x%016lx\n",
               static_cast<unsigned long>(table->limit), static_cast<unsigned long>(table->climit),
               table->ordered ? 'T' : 'F', ptr(table->first), ptr(table->last));
    for (uint32_t b = 0; b < table->nbuckets; b++) {
        printf("bucket %lu:\n", static_cast<unsigned long>(b));
        for (hash_cell *c = table->buckets[b]; c; c = c->next) {
            printf("  cell 0x%016lx: ", ptr(c));
            if (table->key_type == HASH_KEY_INT)
                printf("key=%ld, ", static_cast<long>(c->key.ival));
            printf("hval=%u, datap=0x%016lx, next=0x%016lx", c->hval, ptr(cell_data(c)),
                   ptr(c->next));
            if (table->ordered) {
                hash_order_links *l = links(c);
                printf(", order=0x%016lx, back=0x%016lx\n", ptr(l->order_next), ptr(l->order_back));
            }
            if (table->key_type == HASH_KEY_STR)
                printf("    key=\"%s\"\n", static_cast<const char *>(c->key.ptr));
        }
    }
}
