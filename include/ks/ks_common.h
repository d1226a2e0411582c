/*
 * liborvinks: conventions shared by every module.
 *
 *  1. Names: prefix_verb_object for functions, upper case for exported
 *     constants and markers.  Every public header includes this one.
 *  2. Status: the parsing and credential families return 0 for success and
 *     1 for failure, with the value through an out parameter; functions that
 *     return pointers return null on failure.  When a failure is returned its
 *     message has already been printed through the message layer (imsg).
 *  3. Memory: what a function documents as allocated is released by the
 *     caller with stg_free (or by deleting the storage area it came from);
 *     results documented as made with strdup/malloc are released with free;
 *     static results are never released and are overwritten by the next call.
 *  4. Threads: the library is single-threaded.  Module state is process-wide,
 *     set up lazily on first use and not locked.  Signal handlers and the code
 *     they interrupt are kept apart with pfm_inhibit/pfm_enable.
 *  5. Faults: internal inconsistencies end in pfm_assert_fail or pfm_panic,
 *     which print and abort; no C++ exception ever leaves the library.
 *  6. Text walking is multibyte-aware: where the locale has characters of more
 *     than one byte, routines step by whole characters.
 *  7. Unwinds: an interrupt or a raised fault unwinds to the innermost
 *     clean-up record with siglongjmp, which runs no destructors.  C++ callers
 *     keep objects with destructors out of any frame such an unwind can cross.
 */
#ifndef KS_COMMON_H
#define KS_COMMON_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define KS_API          __attribute__((visibility("default")))
#define KS_NORETURN     __attribute__((noreturn))
#define KS_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define KS_API
#define KS_NORETURN
#define KS_PRINTF(f, a)
#endif

#ifdef __cplusplus
#define KS_BEGIN_DECLS extern "C" {
#define KS_END_DECLS   }
#else
#define KS_BEGIN_DECLS
#define KS_END_DECLS
#endif

/* Descriptor sets of 16384 descriptors, handed to select() as they stand. */
#define KS_FD_SETSIZE 16384
typedef struct ks_fd_set {
    uint32_t fds_bits[KS_FD_SETSIZE / 32];
} ks_fd_set;

#define KS_FD_ZERO(s)                                                                              \
    do {                                                                                           \
        unsigned ks_i_;                                                                            \
        for (ks_i_ = 0; ks_i_ < KS_FD_SETSIZE / 32; ks_i_++)                                       \
            (s)->fds_bits[ks_i_] = 0;                                                              \
    } while (0)
#define KS_FD_SET(fd, s)                                                                           \
    ((s)->fds_bits[(unsigned)(fd) / 32] |= (uint32_t)1 << ((unsigned)(fd) % 32))
#define KS_FD_CLR(fd, s)                                                                           \
    ((s)->fds_bits[(unsigned)(fd) / 32] &= ~((uint32_t)1 << ((unsigned)(fd) % 32)))
#define KS_FD_ISSET(fd, s) (((s)->fds_bits[(unsigned)(fd) / 32] >> ((unsigned)(fd) % 32)) & 1u)

#endif
