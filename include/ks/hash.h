/*
 * Chained hash tables keyed by 32-bit integers, strings or fixed-length byte
 * keys.  Every cell carries data_bytes bytes of the caller's data.
 *
 * A table owns a storage area: its header, cells and copied keys come from
 * there and go when the table is deleted.  Only the bucket array and scan
 * cursors are heap blocks.  Optionally a table keeps its cells in insertion
 * order (hash_set_order) and grows through a fixed table of primes once the
 * average chain passes a limit (hash_set_dynamic).
 *
 * Enter, lookup and free return 1 when the key was present, 0 otherwise.
 * Their two out parameters (either may be null) receive a pointer to the
 * stored key and a pointer to the cell's data, both null when nothing was
 * found.  Integer keys are int32_t, stored in the cell itself.
 *
 * Scans: start with a null cursor variable and pass its address; each call
 * returns 1 with the next cell, and the call that finds no more frees the
 * cursor, sets it to null and returns 0.  hash_term_scan ends a scan early.
 * Adding or freeing cells during a scan is not supported.
 */
#ifndef KS_HASH_H
#define KS_HASH_H

#include "ks/ks_common.h"
#include "ks/list.h"

KS_BEGIN_DECLS

#define HASH_KEY_INT  0
#define HASH_KEY_STR  1
#define HASH_KEY_FLEN 2

/* Largest bucket count a table is ever given. */
#define HASH_MAX_BUCKETS 1048573u

typedef struct hash_table hash_table_t;
typedef struct hash_cell hash_cell_t;
typedef struct hash_cursor hash_cursor_t;

/* Hash procedure: the key (for integer tables, a pointer to the int32_t). */
typedef uint32_t (*hash_fn_t)(const void *key);
/* Compare procedure: stored key, probe key; non-zero when they are equal. */
typedef int (*hash_compare_fn_t)(const void *stored, const void *probe);

/* The bucket counts a table chooses from. */
KS_API extern const uint32_t hash_prime_sizes[30];

/* New table of the first prime >= hint buckets (at most 1048573).  Null hash
 * or compare procedures take the key type's built-in ones.  Returns null
 * after "Out of memory" when the area or the bucket array cannot be made. */
KS_API hash_table_t *hash_create_ht(uint32_t hint, uint32_t data_bytes, int key_type, int copy_keys,
                                    uint32_t key_bytes, hash_fn_t hash, hash_compare_fn_t compare);
/* Lets the table grow once it holds more than limit cells per bucket (0: fixed). */
KS_API void hash_set_dynamic(hash_table_t *table, uint32_t limit);
/* Keeps cells in insertion order; ignored once the table has made a cell. */
KS_API void hash_set_order(hash_table_t *table);
/* Key length of a fixed-length table (0 for the others). */
KS_API uint32_t hash_get_key_bytes(const hash_table_t *table);
/* Moves every cell into a new array of nbuckets buckets (1 to 1048573) and
 * sets climit; 0, or 1 with the table unchanged when out of memory. */
KS_API int hash_resize(hash_table_t *table, uint32_t nbuckets);
/* Frees the bucket array and the table's area; sets *table to 0. */
KS_API void hash_delete_ht(hash_table_t **table);
/* Number of live cells. */
KS_API uint32_t hash_count(const hash_table_t *table);
/* Number of buckets. */
KS_API uint32_t hash_nbuckets(const hash_table_t *table);
/* Next cell in bucket order (see the scan rules above); 1, or 0 at the end. */
KS_API int hash_next(hash_table_t *table, hash_cursor_t **cursor, hash_cell_t **cell);
/* Next cell in insertion order (ordered tables); 1, or 0 at the end. */
KS_API int hash_next_in_order(hash_table_t *table, hash_cursor_t **cursor, hash_cell_t **cell);
/* Frees the cursor of an abandoned scan and sets *cursor to 0 (null is fine). */
KS_API void hash_term_scan(hash_cursor_t **cursor);
/* The data area of a cell returned by a scan. */
KS_API void *hash_cell_data(hash_cell_t *cell);
/* Chain lengths and their histogram, printed to standard output. */
KS_API void hash_dump_stats(const hash_table_t *table);
/* Header, buckets and cells, printed to standard output.  The key-type part
 * of the header and an unordered table's cells end without a newline, so the
 * next text continues their line. */
KS_API void hash_dump(const hash_table_t *table);

/* Integer keys: copy_keys is implied (the key lives in the cell). */
KS_API hash_table_t *hash_int_create(uint32_t hint, uint32_t data_bytes);
/* Adds key when absent (0, new zero-filled cell); an existing cell is left as it is (1). */
KS_API int hash_int_enter(hash_table_t *table, int32_t key, const int32_t **key_out, void **data);
KS_API int hash_int_lookup(hash_table_t *table, int32_t key, const int32_t **key_out, void **data);
/* Releases the key's cell (1; its pointers stay valid until the next enter). */
KS_API int hash_int_free(hash_table_t *table, int32_t key, const int32_t **key_out, void **data);
KS_API int hash_int_next(hash_table_t *table, hash_cursor_t **cursor, const int32_t **key_out,
                         void **data);
KS_API int hash_int_next_in_order(hash_table_t *table, hash_cursor_t **cursor,
                                  const int32_t **key_out, void **data);

/* String keys: with copy_keys the table keeps its own copy of each key,
 * otherwise the caller's string must outlive the cell.  A null key prints
 * "Unexpected error in hash package." and is taken as the empty string. */
KS_API hash_table_t *hash_str_create(uint32_t hint, uint32_t data_bytes, int copy_keys);
/* Switches to the whitespace-blind procedures ("a b" and "ab" are one key);
 * call before the first entry. */
KS_API void hash_str_ignore_spaces(hash_table_t *table);
KS_API int hash_str_enter(hash_table_t *table, const char *key, const char **key_out, void **data);
KS_API int hash_str_lookup(hash_table_t *table, const char *key, const char **key_out, void **data);
KS_API int hash_str_free(hash_table_t *table, const char *key, const char **key_out, void **data);
/* Enters every string datum of list; 1 only if all were already present. */
KS_API int hash_str_enter_list(hash_table_t *table, const list_t *list);
KS_API int hash_str_next(hash_table_t *table, hash_cursor_t **cursor, const char **key_out,
                         void **data);
KS_API int hash_str_next_in_order(hash_table_t *table, hash_cursor_t **cursor, const char **key_out,
                                  void **data);

/* Fixed-length keys of key_bytes bytes, hashed and compared bytewise unless
 * procedures are given.  A null key prints "Unexpected error in hash
 * package." and is taken as key_bytes zero bytes. */
KS_API hash_table_t *hash_flen_create(uint32_t hint, uint32_t data_bytes, int copy_keys,
                                      uint32_t key_bytes);
KS_API hash_table_t *hash_flen_create_with_fns(uint32_t hint, uint32_t data_bytes, int copy_keys,
                                               uint32_t key_bytes, hash_fn_t hash,
                                               hash_compare_fn_t compare);
/* action 0 lookup, 1 enter, 2 free; any other action prints "Unexpected
 * error in hash package." and returns 0 with nothing found. */
KS_API int hash_flen_lookup_action(hash_table_t *table, const void *key, const void **key_out,
                                   void **data, int action);
KS_API int hash_flen_enter(hash_table_t *table, const void *key, const void **key_out, void **data);
KS_API int hash_flen_lookup(hash_table_t *table, const void *key, const void **key_out,
                            void **data);
KS_API int hash_flen_free(hash_table_t *table, const void *key, const void **key_out, void **data);
KS_API int hash_flen_next(hash_table_t *table, hash_cursor_t **cursor, const void **key_out,
                          void **data);
KS_API int hash_flen_next_in_order(hash_table_t *table, hash_cursor_t **cursor,
                                   const void **key_out, void **data);

KS_END_DECLS

#endif
