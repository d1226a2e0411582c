// The reporting heap wrappers: malloc and friends that print "No more memory
// available." and set ENOMEM on failure, and that, while "ks/stg" is traced at
// level 1, keep a size header and a guard of 0xAA bytes around every block so
// that overruns are found when the block is reallocated or freed.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "ks/imsg.h"
#include "ks/pfm.h"
#include "ks/stg.h"
#include "pfm_internal.h"
#include "stg_internal.h"
#include "stg_msg.h"
#include "stg_testing.h"

namespace {

constexpr size_t kHeaderSize = 8;
constexpr unsigned char kUserFill = 0xFF;
constexpr unsigned char kGuardFill = 0xAA;
// Freed blocks read as this double, so a stale pointer's data stands out.
constexpr double kDeadPattern = 3735928559.0;

void (*release_hook)(const void *block, size_t len) = nullptr;

// The heap traces print through the message layer, which may itself take
// memory from here; a trace issued from inside another would never end.
int tracing;

// Addresses are printed as unsigned long ("0x%08lX").
unsigned long addr(const void *p)
{
    return reinterpret_cast<unsigned long>(p);
}

size_t round8(size_t n)
{
    return (n + 7) & ~static_cast<size_t>(7);
}

// Bytes the debugging heap takes for n user bytes, 0 when that overflows.
size_t debug_block_size(size_t n)
{
    if (n > SIZE_MAX - 2 * kHeaderSize - 7)
        return 0;
    return round8(n) + 2 * kHeaderSize;
}

bool heap_traced()
{
    return tracing == 0 && ks::stg_traced(5);
}

void report_no_memory()
{
    imsg_print(IMSG_ERROR, &_stg_ks_msg_table, STG_MSG_NO_MEMORY);
    errno = ENOMEM;
}

// The size stored in the header of a debugging block (its user pointer p).
size_t debug_size(const void *p)
{
    uint64_t n;
    memcpy(&n, static_cast<const unsigned char *>(p) - kHeaderSize, sizeof n);
    return static_cast<size_t>(n);
}

void write_header_and_guard(unsigned char *block, size_t n)
{
    uint64_t stored = n;
    memcpy(block, &stored, sizeof stored);
    memset(block + kHeaderSize + n, kGuardFill, round8(n) - n + kHeaderSize);
}

// Reports the first guard byte of block p that is no longer 0xAA.
void check_guard(const void *p)
{
    size_t n = debug_size(p);
    const unsigned char *guard = static_cast<const unsigned char *>(p) + n;
    size_t len = round8(n) - n + kHeaderSize;
    for (size_t i = 0; i < len; i++) {
        if (guard[i] != kGuardFill) {
            imsg_print(IMSG_ERROR, &_stg_ks_msg_table, STG_MSG_HEAP_OVERWRITTEN, addr(p),
                       addr(guard + i));
            return;
        }
    }
}

// The C allocator must not be left by an unwind: an interrupt landing inside
// malloc or free would leave the allocator's locks held and its lists half
// linked.  While fault management runs, signals wait for it to return.
void *c_malloc(size_t n)
{
    bool held = ks::pfm_hold();
    void *p = malloc(n);
    if (held)
        pfm_enable();
    return p;
}

void *c_realloc(void *old, size_t n)
{
    bool held = ks::pfm_hold();
    void *p = realloc(old, n);
    if (held)
        pfm_enable();
    return p;
}

void c_free(void *p)
{
    bool held = ks::pfm_hold();
    free(p);
    if (held)
        pfm_enable();
}

} // namespace

namespace ks {

bool stg_traced(int level)
{
    return imsg_desired_verbosity >= level && imsg_should_trace("ks/stg", level);
}

void stg_set_release_hook_for_testing(void (*hook)(const void *block, size_t len))
{
    release_hook = hook;
}

} // namespace ks

void *stg_malloc(size_t size)
{
    if (size == 0)
        size = 1;
    void *result = nullptr;
    if (ks::stg_traced(1)) {
        size_t total = debug_block_size(size);
        unsigned char *block = total ? static_cast<unsigned char *>(c_malloc(total)) : nullptr;
        if (block) {
            memset(block + kHeaderSize, kUserFill, size);
            write_header_and_guard(block, size);
            result = block + kHeaderSize;
        }
    } else {
        result = c_malloc(size);
    }
    if (!result)
        report_no_memory();
    if (heap_traced()) {
        int saved = errno;
        tracing++;
        imsg_print(IMSG_TRACE, &_stg_ks_msg_table, STG_MSG_HEAP_ALLOCATED, addr(result),
                   static_cast<unsigned>(size));
        tracing--;
        errno = saved;
    }
    return result;
}

void *stg_realloc(void *p, size_t size)
{
    if (size == 0)
        size = 1;
    void *result = nullptr;
    if (ks::stg_traced(1)) {
        if (p)
            check_guard(p);
        size_t total = debug_block_size(size);
        unsigned char *old = p ? static_cast<unsigned char *>(p) - kHeaderSize : nullptr;
        unsigned char *block =
            total ? static_cast<unsigned char *>(c_realloc(old, total)) : nullptr;
        if (block) {
            write_header_and_guard(block, size);
            result = block + kHeaderSize;
        }
    } else {
        result = c_realloc(p, size);
    }
    if (!result)
        report_no_memory();
    if (heap_traced()) {
        int saved = errno;
        tracing++;
        imsg_print(IMSG_TRACE, &_stg_ks_msg_table, STG_MSG_HEAP_REALLOCATED, addr(p), addr(result),
                   static_cast<unsigned>(size));
        tracing--;
        errno = saved;
    }
    return result;
}

void stg_free(void *p)
{
    if (heap_traced()) {
        tracing++;
        imsg_print(IMSG_TRACE, &_stg_ks_msg_table, STG_MSG_HEAP_FREEING, addr(p));
        tracing--;
    }
    if (!p)
        return;
    if (!ks::stg_traced(1)) {
        c_free(p);
        return;
    }
    check_guard(p);
    unsigned char *block = static_cast<unsigned char *>(p) - kHeaderSize;
    size_t total = round8(debug_size(p)) + 2 * kHeaderSize;
    unsigned char pattern[sizeof kDeadPattern];
    memcpy(pattern, &kDeadPattern, sizeof pattern);
    for (size_t i = 0; i < total; i += sizeof pattern)
        memcpy(block + i, pattern, sizeof pattern);
    if (release_hook)
        release_hook(block, total);
    c_free(block);
}

char *stg_strdup(const char *s)
{
    size_t len = strlen(s) + 1;
    char *copy = static_cast<char *>(stg_malloc(len));
    if (copy)
        memcpy(copy, s, len);
    return copy;
}
