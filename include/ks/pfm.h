/*
 * Process fault management: signal dispositions, inhibited sections whose
 * signals are deferred and delivered in ascending order, clean-up records
 * that interrupted work unwinds to, exit handlers, panics and assertions.
 *
 * Arming a clean-up record must happen in the caller's own frame:
 *
 *     pfm_cleanup_t rec;
 *     if (PFM_CLEANUP_START(&rec, 0) == 0) {
 *         ... protected work ...
 *         pfm_cleanup_rls(&rec);
 *     } else {
 *         ... clean up (runs inhibited) ...
 *         pfm_raise(rec.value);        (or pfm_cleanup_reset(&rec) to resume)
 *     }
 *
 * Frames that an unwind can cross must hold no C++ object with a destructor.
 */
#ifndef KS_PFM_H
#define KS_PFM_H

#include <setjmp.h>
#include <sys/time.h>

#include "ks/ks_common.h"

KS_BEGIN_DECLS

typedef void (*pfm_signal_t)(int sig);

/* The jump buffer saves the signal mask: sigjmp_buf and sigsetjmp are POSIX,
 * so a program built as strict ISO C (-std=c99) defines _POSIX_C_SOURCE
 * (200809L, or _XOPEN_SOURCE) before its first include. */
#if !defined(_POSIX_C_SOURCE) && !defined(__cplusplus)
#error "ks/pfm.h uses sigsetjmp: define _POSIX_C_SOURCE before the first include"
#endif
typedef sigjmp_buf pfm_sigjmp_buf_t;
#define PFM_SIGSETJMP(env, savemask) sigsetjmp((env), (savemask))

#define MAGIC_SET     0xFA01BEEFu /* armed, on the chain */
#define MAGIC_TRIPPED 0x05FE4110u /* taken off the chain */

/* Unwind value of an interrupt (SIGINT, SIGHUP, SIGTERM). */
#define PFM_INTERRUPT 4
/* Unwind value of a signal that arrived while pfm_select_inhibited slept. */
#define PFM_SELECT_INTERRUPTED 23792

typedef struct pfm_cleanup_rec {
    uint32_t magic;
    struct pfm_cleanup_rec *prev;
    pfm_sigjmp_buf_t jmpbuf;
    int32_t inh;
    int32_t inh_susp;
    int32_t value;
} pfm_cleanup_t;

/* Arms rec (0) or reports the value an unwind brought back to it. */
#define PFM_CLEANUP_START(rec, inhibit)                                                            \
    ((rec)->value = PFM_SIGSETJMP((rec)->jmpbuf, 1), pfm_cleanup_start((rec), (inhibit)))

/* Fails with the expression text, the source's name and the line.  The name
 * is the file's own, without its directories, where the compiler knows it
 * (__FILE_NAME__: GCC 12, clang); else the path the build gave. */
#ifdef __FILE_NAME__
#define PFM_ASSERT(expr) ((expr) ? (void)0 : pfm_assert_fail(#expr, __FILE_NAME__, __LINE__))
#else
#define PFM_ASSERT(expr) ((expr) ? (void)0 : pfm_assert_fail(#expr, __FILE__, __LINE__))
#endif

typedef void (*pfm_exit_handler_t)(int status, void *arg);
typedef void (*pfm_exit_routine_t)(int status);

/* Records the dispositions and installs the default catchers (once). */
KS_API void pfm_init(void);
/* Sets the library-level handler of sig; returns the previous one, or SIG_ERR
 * (errno set) for a signal outside 1 to 48, a SIG_ERR handler, or one the
 * system refuses. */
KS_API pfm_signal_t pfm_signal(int sig, pfm_signal_t handler);
/* Unwinds to the innermost clean-up record with value; with none, exits. */
KS_API KS_NORETURN void pfm_raise(int value);
/* pfm_raise when not inhibited; otherwise SIGINT becomes pending. */
KS_API void pfm_raise_deferred(int value);
KS_API void pfm_inhibit(void);
/* Leaving the outermost inhibit delivers the deferred signals. */
KS_API void pfm_enable(void);
/* Defers SIGTSTP only. */
KS_API void pfm_inhibit_suspend(void);
KS_API void pfm_enable_suspend(void);
KS_API int pfm_inhibit_count(void);
KS_API int pfm_inhibit_suspend_count(void);
/* Number of deferred signals waiting. */
KS_API int pfm_blocked_count(void);
/* Use PFM_CLEANUP_START, which saves the jump buffer first. */
KS_API int pfm_cleanup_start(pfm_cleanup_t *rec, int inhibit);
/* Disarms the innermost record; returns 0. */
KS_API int pfm_cleanup_rls(pfm_cleanup_t *rec);
/* Re-arms a tripped record and drops the unwind's extra inhibit; returns 0. */
KS_API int pfm_cleanup_reset(pfm_cleanup_t *rec);
/* Registers an exit handler; handlers run newest first, each once.  A null
 * procedure is ignored; running out of memory is a failed assertion. */
KS_API void pfm_on_exit(pfm_exit_handler_t fn, void *arg);
/* Replaces the procedure that ends the process, initially exit (null puts
 * exit back); returns the previous one. */
KS_API pfm_exit_routine_t pfm_set_exit(pfm_exit_routine_t fn);
/* Runs the exit handlers, then the process-ending procedure. */
KS_API void pfm_exit(int status);
/* select() that a signal interrupts even while inhibited (depth must be 1).
 * A signal already waiting or arriving meanwhile gives -1 with EINTR; it is
 * delivered when the caller enables. */
KS_API int pfm_select_inhibited(int nfds, ks_fd_set *readfds, ks_fd_set *writefds,
                                ks_fd_set *exceptfds, struct timeval *timeout);
/* Prints "***ABORT***" with the source and line, then abort(). */
KS_API KS_NORETURN void pfm_panic(const char *source, int line);
/* Prints "PFM_ASSERT" with the expression, source and line, then abort(). */
KS_API KS_NORETURN void pfm_assert_fail(const char *expr, const char *source, int line);

KS_END_DECLS

#endif
