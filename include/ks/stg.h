/*
 * Storage areas and the reporting heap wrappers.
 *
 * An area hands out many small blocks with stg_alloc and releases them all
 * at once (stg_free_area, stg_delete_area).  stg_malloc and its siblings are
 * the heap allocator every module uses; blocks from them are released with
 * stg_free only, never with free (in debugging mode each carries a header).
 * Debugging mode: TRACE_VERBOSITY >= 1 and "ks/stg" in TRACE_SUBSYS.
 * Once fault management runs, the heap wrappers hold signals while inside the
 * C allocator, so an interrupt never unwinds out of malloc or free.
 */
#ifndef KS_STG_H
#define KS_STG_H

#include "ks/ks_common.h"

KS_BEGIN_DECLS

typedef struct stg_area_rec *stg_area_t;

#define STG_AREA_NULL ((stg_area_t)0)
/* Pseudo-area: stg_alloc on it is stg_malloc; its blocks go back with stg_free. */
#define STG_AREA_HEAP ((stg_area_t)1)

/* New empty area; its first chunk, made by the first stg_alloc, holds first_size
 * bytes (at most 102400, more for a larger first request).  0 when out of memory. */
KS_API stg_area_t stg_create_area(uint32_t first_size);
/* Size of the chunks after the first (growth, when set, applies from the third). */
KS_API void stg_set_incr(stg_area_t area, uint32_t incr);
/* Growth factor for later chunks; values not above 1.0 (and NaN) are ignored. */
KS_API void stg_set_growth(stg_area_t area, double factor);
/* Chunks made or reset from now on are filled with 0x00 instead of 0xFF. */
KS_API void stg_set_zero(stg_area_t area);
/* size bytes (rounded up to 8) from the area, valid until the area is freed;
 * null after "No more memory" (area unchanged), or with EINVAL for a null area. */
KS_API void *stg_alloc(stg_area_t area, size_t size);
/* Copy of s in the area; null for a null s or when out of memory. */
KS_API char *stg_area_strdup(stg_area_t area, const char *s);
/* Frees the area's chunks; with keep, the first chunk stays, empty: returns its size. */
KS_API uint32_t stg_free_area(stg_area_t area, int keep);
/* Destroys the area and everything in it; sets *area to 0. */
KS_API void stg_delete_area(stg_area_t *area);
/* Prints the area line and one line per chunk. */
KS_API void stg_dump_area(stg_area_t area);
/* stg_dump_area for every area, oldest first. */
KS_API void stg_dump(void);

/* malloc that reports failure (and sets ENOMEM); size 0 is taken as 1. */
KS_API void *stg_malloc(size_t size);
/* realloc that reports failure; p may be null; size 0 is taken as 1. */
KS_API void *stg_realloc(void *p, size_t size);
/* Releases a block of stg_malloc/stg_realloc/stg_strdup; null is ignored. */
KS_API void stg_free(void *p);
/* Heap copy of s (s must not be null); null after "No more memory". */
KS_API char *stg_strdup(const char *s);

KS_END_DECLS

#endif
