// Storage areas and the heap wrappers: what the two halves share, and the
// record layouts that the tests inspect.  Never installed.
#ifndef KS_STG_INTERNAL_H
#define KS_STG_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "ks/stg.h"

// One chunk of an area; the chain runs from the newest to the first created.
struct stg_chunk {
    uint32_t used;            // bytes handed out from the start of data
    struct stg_chunk *next;   // the chunk created before this one
    uint32_t size;            // bytes of data
    unsigned char *data;      // a block of its own from stg_malloc
};

struct stg_area_rec {
    struct stg_chunk *chunks; // newest chunk
    uint32_t first_size;      // size asked for the first chunk ("1st")
    uint32_t base_incr;       // size of later chunks ("base")
    uint32_t allocated;       // sum of the sizes of chunks obtained
    uint32_t desired;         // sum of the clamped increments asked for ("des")
    float growth;             // 0.0: no growth
    struct stg_area_rec *next_area;
    unsigned char zero;       // fill chunks with 0x00 instead of 0xFF
    unsigned char incr_set;   // stg_set_incr was called
};

namespace ks {

// Whether "ks/stg" is traced at level (the debugging heap and area checks
// hold at level 1).
bool stg_traced(int level);

// The oldest and newest areas of the global list (stg_dump walks it).
stg_area_rec *stg_area_list_head();
stg_area_rec *stg_area_list_tail();

// Called by the debugging heap with the whole block (header and guard
// included) just before it goes back to the C allocator, after the free
// pattern has been written; lets tests see the pattern without touching
// freed memory.  Null (the default) means no call.
extern void (*stg_release_hook)(const void *block, size_t len);

} // namespace ks

#endif
