// Storage areas: an arena of chunks from which blocks are handed out by
// bumping a pointer and released only all together.
#include <errno.h>
#include <string.h>

#include "ks/imsg.h"
#include "ks/stg.h"
#include "pfm_internal.h"
#include "stg_internal.h"
#include "stg_msg.h"
#include "stg_testing.h"

// One chunk of an area; the chain runs from the newest to the first created.
struct stg_chunk {
    uint32_t used;          // bytes handed out from the start of data
    struct stg_chunk *next; // the chunk created before this one
    uint32_t size;          // bytes of data
    unsigned char *data;    // a block of its own from stg_malloc
};

// The record behind an area handle.
struct stg_area_rec {
    struct stg_chunk *chunks; // newest chunk
    uint32_t first_size;      // size asked for the first chunk ("1st")
    uint32_t base_incr;       // size of later chunks ("base")
    uint32_t allocated;       // sum of the sizes of chunks obtained
    uint32_t desired;         // sum of the clamped increments asked for ("des")
    float growth;             // 0.0: no growth
    struct stg_area_rec *next_area;
    unsigned char zero;     // fill chunks with 0x00 instead of 0xFF
    unsigned char incr_set; // stg_set_incr was called
};

namespace {

// No single increment may exceed this, whatever the growth factor.
constexpr uint32_t kMaxIncrement = 102400;
// Chunk sizes and counters are 32-bit: no bigger block can be had.
constexpr size_t kMaxBlock = UINT32_MAX - 7;

uint32_t round8(uint32_t n)
{
    return (n + 7) & ~static_cast<uint32_t>(7);
}

stg_area_rec *area_head;
stg_area_rec *area_tail;

bool is_real_area(stg_area_t area)
{
    return area != STG_AREA_NULL && area != STG_AREA_HEAP;
}

unsigned char fill_byte(const stg_area_rec *area)
{
    return area->zero ? 0x00 : 0xFF;
}

// Addresses are printed as unsigned long ("0x%08lX").
unsigned long addr(const void *p)
{
    return reinterpret_cast<unsigned long>(p);
}

void trace_area(stg_msg_index index, const stg_area_rec *area)
{
    if (ks::stg_traced(4))
        imsg_print(IMSG_TRACE, &_stg_ks_msg_table, index, addr(area));
}

// The size of the next chunk for a request of needed (already rounded) bytes;
// *increment receives the clamped increment it was derived from.  Returns
// false when the size does not fit the 32-bit counters.
bool chunk_size(const stg_area_rec *area, uint64_t needed, uint32_t *increment, uint32_t *size)
{
    int count = 0;
    for (const stg_chunk *c = area->chunks; c; c = c->next)
        count++;

    uint32_t incr;
    if (count == 0) {
        incr = area->first_size;
    } else if (area->growth > 0.0f && !(count == 1 && area->incr_set)) {
        float grown = static_cast<float>(static_cast<double>(area->growth) *
                                         static_cast<double>(area->chunks->size));
        // Truncating a float beyond 32 bits is undefined; the clamp below
        // would take it down to the cap anyway.
        incr = grown >= static_cast<float>(kMaxIncrement) ? kMaxIncrement
                                                          : static_cast<uint32_t>(grown);
    } else {
        incr = area->base_incr;
    }
    if (incr > kMaxIncrement)
        incr = kMaxIncrement;

    uint64_t total = incr;
    if (static_cast<double>(needed) > 0.7 * static_cast<double>(incr))
        total += needed;
    total = (total + 7) & ~static_cast<uint64_t>(7);
    if (total > UINT32_MAX)
        return false;
    *increment = incr;
    *size = static_cast<uint32_t>(total);
    return true;
}

// Makes a chunk big enough for needed bytes and puts it at the head of the
// chain; null (after the out-of-memory report) on failure.
stg_chunk *make_chunk(stg_area_rec *area, uint64_t needed)
{
    uint32_t incr, size;
    if (!chunk_size(area, needed, &incr, &size)) {
        imsg_print(IMSG_ERROR, &_stg_ks_msg_table, STG_MSG_NO_MEMORY);
        errno = ENOMEM;
        return nullptr;
    }
    stg_chunk *chunk = static_cast<stg_chunk *>(stg_malloc(sizeof *chunk));
    if (!chunk)
        return nullptr;
    chunk->data = static_cast<unsigned char *>(stg_malloc(size));
    if (!chunk->data) {
        stg_free(chunk);
        return nullptr;
    }
    chunk->used = 0;
    chunk->size = size;

    bool first = area->chunks == nullptr;
    area->allocated += size;
    // The first chunk of an area with an explicit increment is not counted:
    // stg_free_area's reset of desired relies on the same asymmetry.
    if (!(first && area->incr_set))
        area->desired += incr;
    memset(chunk->data, fill_byte(area), size);

    if (ks::stg_traced(4))
        imsg_print(IMSG_TRACE, &_stg_ks_msg_table, STG_MSG_CHUNK_CREATED, addr(area), addr(chunk),
                   size);
    chunk->next = area->chunks;
    area->chunks = chunk;
    return chunk;
}

// make_chunk with signals held: an interrupt between taking the chunk's
// blocks and linking them in would otherwise lose both.
stg_chunk *new_chunk(stg_area_rec *area, uint64_t needed)
{
    bool held = ks::pfm_hold();
    stg_chunk *chunk = make_chunk(area, needed);
    if (held)
        pfm_enable();
    return chunk;
}

// Reports the first byte of [p, p + len) that no longer holds the fill.
void check_fill(const stg_area_rec *area, const unsigned char *p, size_t len)
{
    unsigned char expected = fill_byte(area);
    for (size_t i = 0; i < len; i++) {
        if (p[i] != expected) {
            imsg_print(IMSG_ERROR, &_stg_ks_msg_table, STG_MSG_CORRUPTED, addr(area), addr(p + i));
            return;
        }
    }
}

void free_chunk(stg_area_rec *area, stg_chunk *chunk)
{
    if (ks::stg_traced(4))
        imsg_print(IMSG_TRACE, &_stg_ks_msg_table, STG_MSG_CHUNK_FREEING, addr(area), addr(chunk));
    stg_free(chunk->data);
    stg_free(chunk);
}

// Everything stg_alloc does beyond bumping the newest chunk.
[[gnu::noinline]] void *alloc_slow(stg_area_t area, size_t size)
{
    if (area == STG_AREA_HEAP)
        return stg_malloc(size);
    if (area == STG_AREA_NULL) {
        errno = EINVAL;
        return nullptr;
    }
    if (size > kMaxBlock) {
        imsg_print(IMSG_ERROR, &_stg_ks_msg_table, STG_MSG_NO_MEMORY);
        errno = ENOMEM;
        return nullptr;
    }
    uint32_t need = round8(static_cast<uint32_t>(size));

    stg_chunk *chunk = area->chunks;
    if (chunk && need > chunk->size - chunk->used) {
        // The oldest chunk with room, so that the newest keeps its space for
        // the common case of the next small request.
        stg_chunk *found = nullptr;
        for (stg_chunk *c = chunk->next; c; c = c->next)
            if (need <= c->size - c->used)
                found = c;
        chunk = found;
    }
    if (!chunk) {
        chunk = new_chunk(area, need);
        if (!chunk)
            return nullptr;
    }

    unsigned char *result = chunk->data + chunk->used;
    if (ks::stg_traced(1)) {
        size_t len = ks::stg_traced(2) ? chunk->size - chunk->used : need;
        check_fill(area, result, len);
    }
    chunk->used += need;
    if (ks::stg_traced(5))
        imsg_print(IMSG_TRACE, &_stg_ks_msg_table, STG_MSG_AREA_ALLOCATED, addr(area), addr(result),
                   need);
    return result;
}

} // namespace

namespace ks {

size_t stg_area_count_for_testing()
{
    size_t n = 0;
    for (const stg_area_rec *a = area_head; a; a = a->next_area)
        n++;
    return n;
}

} // namespace ks

stg_area_t stg_create_area(uint32_t first_size)
{
    stg_area_rec *area = static_cast<stg_area_rec *>(stg_malloc(sizeof *area));
    if (!area)
        return STG_AREA_NULL;
    area->chunks = nullptr;
    area->first_size = first_size;
    area->base_incr = first_size;
    area->allocated = 0;
    area->desired = 0;
    area->growth = 0.0f;
    area->next_area = nullptr;
    area->zero = 0;
    area->incr_set = 0;
    if (area_tail)
        area_tail->next_area = area;
    else
        area_head = area;
    area_tail = area;
    trace_area(STG_MSG_AREA_CREATED, area);
    return area;
}

void stg_set_incr(stg_area_t area, uint32_t incr)
{
    if (!is_real_area(area))
        return;
    area->base_incr = incr;
    area->incr_set = 1;
}

void stg_set_growth(stg_area_t area, double factor)
{
    if (!is_real_area(area))
        return;
    if (factor > 1.0) // false for NaN as well
        area->growth = static_cast<float>(factor);
}

void stg_set_zero(stg_area_t area)
{
    if (is_real_area(area))
        area->zero = 1;
}

void *stg_alloc(stg_area_t area, size_t size)
{
    // The common case, kept to a few instructions: a real area with room in
    // its newest chunk and tracing off (a verbosity not yet read from the
    // environment takes the long way).
    if (reinterpret_cast<uintptr_t>(area) > reinterpret_cast<uintptr_t>(STG_AREA_HEAP) &&
        size <= kMaxBlock) {
        uint32_t need = round8(static_cast<uint32_t>(size));
        stg_chunk *chunk = area->chunks;
        if (chunk && need <= chunk->size - chunk->used && imsg_desired_verbosity < 1) {
            unsigned char *result = chunk->data + chunk->used;
            chunk->used += need;
            return result;
        }
    }
    return alloc_slow(area, size);
}

char *stg_area_strdup(stg_area_t area, const char *s)
{
    if (!s)
        return nullptr;
    size_t len = strlen(s) + 1;
    char *copy = static_cast<char *>(stg_alloc(area, len));
    if (copy)
        memcpy(copy, s, len);
    return copy;
}

uint32_t stg_free_area(stg_area_t area, int keep)
{
    if (!is_real_area(area))
        return 0;
    trace_area(STG_MSG_AREA_CLEARING, area);
    stg_chunk *kept = nullptr;
    stg_chunk *chunk = area->chunks;
    while (chunk) {
        stg_chunk *next = chunk->next;
        if (keep && !next)
            kept = chunk;
        else
            free_chunk(area, chunk);
        chunk = next;
    }
    area->chunks = kept;
    if (!kept) {
        area->desired = 0;
        area->allocated = 0;
        return 0;
    }
    kept->used = 0;
    memset(kept->data, fill_byte(area), kept->size);
    area->allocated = kept->size;
    area->desired = area->incr_set ? 0 : area->first_size;
    return kept->size;
}

void stg_delete_area(stg_area_t *handle)
{
    if (!handle || !is_real_area(*handle))
        return;
    stg_area_rec *area = *handle;
    trace_area(STG_MSG_AREA_DELETING, area);

    stg_area_rec *prev = nullptr;
    stg_area_rec *a = area_head;
    while (a && a != area) {
        prev = a;
        a = a->next_area;
    }
    if (a) {
        if (prev)
            prev->next_area = area->next_area;
        else
            area_head = area->next_area;
        if (area_tail == area)
            area_tail = prev;
    }

    stg_free_area(area, 0);
    stg_free(area);
    *handle = STG_AREA_NULL;
}

void stg_dump_area(stg_area_t area)
{
    if (!is_real_area(area))
        return;
    unsigned long allocd = 0, used = 0;
    int count = 0;
    for (const stg_chunk *c = area->chunks; c; c = c->next) {
        allocd += c->size;
        used += c->used;
        count++;
    }
    imsg_print(IMSG_OK, &_stg_ks_msg_table, STG_MSG_DUMP_AREA, addr(area), allocd, used, count,
               static_cast<unsigned long>(area->first_size),
               static_cast<unsigned long>(area->base_incr),
               static_cast<unsigned long>(area->desired), static_cast<double>(area->growth));
    // "avail" shows the bytes used: the line has always read that way.
    for (const stg_chunk *c = area->chunks; c; c = c->next)
        imsg_print(IMSG_OK, &_stg_ks_msg_table, STG_MSG_DUMP_CHUNK, addr(c),
                   static_cast<unsigned long>(c->size), static_cast<unsigned long>(c->used),
                   addr(c->data), addr(c->next));
}

void stg_dump()
{
    for (stg_area_rec *a = area_head; a; a = a->next_area)
        stg_dump_area(a);
}
