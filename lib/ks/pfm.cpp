// Process fault management: the process's signal dispositions, deferral of
// asynchronous signals while code runs inhibited, the chain of clean-up
// records that interrupts unwind to, exit handlers, panics and assertions.
//
// Everything here can be reached from a signal handler or crossed by a
// siglongjmp, so the module holds no object with a destructor.
#include "ks/pfm.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <unistd.h>

#include "ks/imsg.h"
#include "ks_assert.h"
#include "ks_internal.h"
#include "pfm_internal.h"
#include "pfm_msg.h"

namespace {

constexpr int kNsig = 48;

struct on_exit_entry {
    pfm_exit_handler_t proc;
    void *arg;
    struct on_exit_entry *next;
};

constexpr int kSynchronousSignals[5] = {SIGFPE, SIGILL, SIGSEGV, SIGBUS, SIGTRAP};
constexpr int kUserSignals[4] = {SIGINT, SIGQUIT, SIGTERM, SIGTSTP};

bool pfm_inited = false;
pfm_signal_t handler_sigvec[kNsig];
// Set for the signals whose OS disposition this module routed to the common
// handler; a procedure found installed at start-up is not routed yet.
bool routed[kNsig];
sigset_t all_async_signals;
sigset_t all_user_signals;
sigset_t deferred_signals;
volatile sig_atomic_t pfm_pending_count = 0;
volatile sig_atomic_t pfm_inh_count = 0;
volatile sig_atomic_t pfm_inh_susp_count = 0;
volatile sig_atomic_t last_inh_signal = 0;
volatile sig_atomic_t pfm_select_sleeping = 0;
pfm_cleanup_t *volatile cl_rec_root = nullptr;
on_exit_entry *volatile on_exit_list = nullptr;
pfm_exit_routine_t saved_exit_routine = exit;
// Set while a panic or assertion prints: the message layer asserts through
// this module too (out of memory for its buffer), so a fault in printing
// comes back here and must not print again.
volatile sig_atomic_t aborting = 0;

bool is_procedure(pfm_signal_t h)
{
    return h != SIG_DFL && h != SIG_IGN && h != reinterpret_cast<pfm_signal_t>(SIG_ERR);
}

bool is_member(const sigset_t *set, int sig)
{
    return sigismember(set, sig) == 1;
}

bool is_synchronous(int sig)
{
    for (int s : kSynchronousSignals)
        if (s == sig)
            return true;
    return false;
}

// Pops and calls every exit handler; each is off the list before it runs, so
// a handler that exits again or raises is never called twice.
void run_exit_handlers(int status)
{
    while (on_exit_entry *e = on_exit_list) {
        on_exit_list = e->next;
        pfm_exit_handler_t proc = e->proc;
        void *arg = e->arg;
        free(e);
        proc(status, arg);
    }
}

void run_exit_handlers_at_exit()
{
    run_exit_handlers(0);
}

// Unwinds to the innermost clean-up record, or ends the process when there is none.
KS_NORETURN void unwind(int value)
{
    pfm_cleanup_t *rec = cl_rec_root;
    if (rec == nullptr) {
        run_exit_handlers(value);
        saved_exit_routine(value);
        // A process-ending procedure that returns leaves no way back.
        exit(value);
    }
    siglongjmp(rec->jmpbuf, value);
}

// Writes the repeat warning without stdio: this runs inside a signal handler.
void write_inhibited_warning(int sig)
{
    static const char head[] = "pfm_signal_handler: got signal ";
    static const char tail[] = ", inhibited\n";
    char buf[sizeof head + sizeof tail + 16];
    size_t n = 0;
    memcpy(buf, head, sizeof head - 1);
    n += sizeof head - 1;
    char digits[12];
    int nd = 0;
    unsigned v = sig < 0 ? 0U - static_cast<unsigned>(sig) : static_cast<unsigned>(sig);
    do {
        digits[nd++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    if (sig < 0)
        buf[n++] = '-';
    while (nd > 0)
        buf[n++] = digits[--nd];
    memcpy(buf + n, tail, sizeof tail - 1);
    n += sizeof tail - 1;
    ssize_t w = write(2, buf, n);
    (void)w;
}

// Adds sig to the deferred set, counting it once.
void defer(int sig)
{
    if (!is_member(&deferred_signals, sig)) {
        sigaddset(&deferred_signals, sig);
        pfm_pending_count = pfm_pending_count + 1;
    }
}

// The OS-level handler of every signal that has a library-level procedure.
void pfm_signal_handler(int sig)
{
    int saved_errno = errno;
    pfm_signal_t h = handler_sigvec[sig - 1];
    KS_ASSERT(h != SIG_DFL, "handler_sigvec[sig-1] != (pfm_signal_t)SIG_DFL");
    KS_ASSERT(h != SIG_IGN, "handler_sigvec[sig-1] != (pfm_signal_t)SIG_IGN");

    // The faults cannot wait: returning would only repeat the fault.
    if ((pfm_inh_count == 0 && !(sig == SIGTSTP && pfm_inh_susp_count > 0)) ||
        is_synchronous(sig)) {
        if (is_member(&deferred_signals, sig)) {
            sigdelset(&deferred_signals, sig);
            pfm_pending_count = pfm_pending_count - 1;
            KS_ASSERT(pfm_pending_count >= 0, "--pfm_pending_count >= 0");
        }
        h(sig);
        errno = saved_errno;
        return;
    }

    // One warning when the user repeats an interrupt that is waiting.
    if (sig == last_inh_signal && is_member(&all_user_signals, sig))
        write_inhibited_warning(sig);
    last_inh_signal = sig;
    defer(sig);
    if (pfm_select_sleeping) {
        pfm_select_sleeping = 0;
        unwind(PFM_SELECT_INTERRUPTED);
    }
    errno = saved_errno;
}

// Sets the OS disposition with the module's mask and no flags.
int os_disposition(int sig, void (*h)(int))
{
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = h;
    sa.sa_mask = all_async_signals;
    sa.sa_flags = 0;
    return sigaction(sig, &sa, nullptr);
}

// Calls the waiting signals' handlers, lowest signal number first.
void deliver_deferred()
{
    if (pfm_pending_count == 0)
        return;
    KS_ASSERT(pfm_inh_count == 0, "pfm_inh_count == 0");
    sigset_t old;
    sigprocmask(SIG_BLOCK, &all_async_signals, &old);
    last_inh_signal = 0;
    for (int sig = 1; sig <= kNsig; sig++) {
        if (!is_member(&deferred_signals, sig))
            continue;
        if (sig == SIGTSTP && pfm_inh_susp_count > 0)
            continue;
        sigdelset(&deferred_signals, sig);
        pfm_pending_count = pfm_pending_count - 1;
        KS_ASSERT(pfm_pending_count >= 0, "--pfm_pending_count >= 0");
        pfm_signal_t h = handler_sigvec[sig - 1];
        if (is_procedure(h))
            h(sig);
        else
            raise(sig);
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
}

// SIGINT, SIGHUP and SIGTERM: unwind as an interrupt.
void quit_catcher(int)
{
    unwind(PFM_INTERRUPT);
}

// SIGTSTP: stop for real, then put the catcher back once continued.
void suspend_catcher(int sig)
{
    os_disposition(sig, SIG_DFL);
    pfm_signal_t prev = handler_sigvec[sig - 1];
    handler_sigvec[sig - 1] = SIG_DFL;
    routed[sig - 1] = false;
    sigset_t just;
    sigemptyset(&just);
    sigaddset(&just, sig);
    sigprocmask(SIG_UNBLOCK, &just, nullptr);
    kill(getpid(), sig);
    sigprocmask(SIG_BLOCK, &just, nullptr);
    pfm_signal(sig, prev);
    sigprocmask(SIG_UNBLOCK, &just, nullptr);
}

// A fault while the message layer prints a fault: the built-in text goes
// straight to descriptor 2 instead, so the first report is not lost in a loop.
void write_plain(const char *format, const char *expr, const char *source, int line)
{
    char buf[1024];
    int n = expr != nullptr ? snprintf(buf, sizeof buf, format, expr, source, line)
                            : snprintf(buf, sizeof buf, format, source, line);
    if (n > 0) {
        ssize_t w = write(
            2, buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
        (void)w;
    }
}

void ensure_init()
{
    if (!pfm_inited)
        pfm_init();
}

} // namespace

namespace ks {

bool pfm_hold()
{
    if (!pfm_inited)
        return false;
    pfm_inh_count = pfm_inh_count + 1;
    return true;
}

pfm_signal_t pfm_library_handler(int sig)
{
    ensure_init();
    if (sig < 1 || sig > kNsig)
        return reinterpret_cast<pfm_signal_t>(SIG_ERR);
    return handler_sigvec[sig - 1];
}

pfm_signal_t pfm_replace_library_handler(int sig, pfm_signal_t handler)
{
    ensure_init();
    if (sig >= 1 && sig <= kNsig && is_procedure(handler) &&
        is_procedure(handler_sigvec[sig - 1]) && routed[sig - 1]) {
        pfm_signal_t prev = handler_sigvec[sig - 1];
        handler_sigvec[sig - 1] = handler;
        return prev;
    }
    return pfm_signal(sig, handler);
}

bool pfm_signal_pending(int sig)
{
    return sig >= 1 && sig <= kNsig && is_member(&deferred_signals, sig);
}

bool pfm_clear_pending(int sig)
{
    ensure_init();
    if (sig < 1 || sig > kNsig)
        return false;
    sigset_t old;
    sigprocmask(SIG_BLOCK, &all_async_signals, &old);
    bool was_pending = is_member(&deferred_signals, sig);
    if (was_pending) {
        sigdelset(&deferred_signals, sig);
        pfm_pending_count = pfm_pending_count - 1;
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
    return was_pending;
}

int pfm_pending_signal_count()
{
    return pfm_pending_count;
}

} // namespace ks

void pfm_init(void)
{
    if (pfm_inited)
        return;
    for (int sig = 1; sig <= kNsig; sig++) {
        struct sigaction old;
        pfm_signal_t h = SIG_DFL;
        // SIGKILL, SIGSTOP and the C library's own signals are never ours to set.
        bool settable = sig != SIGKILL && sig != SIGSTOP && !(sig >= 32 && sig < SIGRTMIN);
        if (settable && sigaction(sig, nullptr, &old) == 0 && !(old.sa_flags & SA_SIGINFO))
            h = old.sa_handler;
        handler_sigvec[sig - 1] = h;
        routed[sig - 1] = false;
    }
    sigfillset(&all_async_signals);
    for (int s : kSynchronousSignals)
        sigdelset(&all_async_signals, s);
    sigemptyset(&all_user_signals);
    for (int s : kUserSignals)
        sigaddset(&all_user_signals, s);
    sigemptyset(&deferred_signals);
    pfm_inited = true;

    // A program started with an interrupt ignored keeps it ignored.
    const int quit_signals[3] = {SIGINT, SIGHUP, SIGTERM};
    for (int s : quit_signals)
        if (handler_sigvec[s - 1] != SIG_IGN)
            pfm_signal(s, quit_catcher);

    os_disposition(SIGCHLD, SIG_DFL);
    handler_sigvec[SIGCHLD - 1] = SIG_DFL;
    routed[SIGCHLD - 1] = false;

    pfm_signal(SIGTSTP, suspend_catcher);
    atexit(run_exit_handlers_at_exit);
}

pfm_signal_t pfm_signal(int sig, pfm_signal_t handler)
{
    ensure_init();
    // SIG_ERR is no procedure: the common handler would jump to it.
    if (sig < 1 || sig > kNsig || handler == reinterpret_cast<pfm_signal_t>(SIG_ERR)) {
        errno = EINVAL;
        return reinterpret_cast<pfm_signal_t>(SIG_ERR);
    }
    sigset_t just, old;
    sigemptyset(&just);
    sigaddset(&just, sig);
    sigprocmask(SIG_BLOCK, &just, &old);

    pfm_signal_t prev = handler_sigvec[sig - 1];
    int rc = 0;
    if (handler == SIG_DFL || handler == SIG_IGN) {
        rc = os_disposition(sig, handler);
        if (rc == 0)
            routed[sig - 1] = false;
    } else if (!(is_procedure(prev) && routed[sig - 1])) {
        rc = os_disposition(sig, pfm_signal_handler);
        if (rc == 0)
            routed[sig - 1] = true;
    }
    if (rc == 0)
        handler_sigvec[sig - 1] = handler;

    int saved_errno = errno;
    sigprocmask(SIG_SETMASK, &old, nullptr);
    if (rc != 0) {
        errno = saved_errno;
        return reinterpret_cast<pfm_signal_t>(SIG_ERR);
    }
    return prev;
}

void pfm_raise(int value)
{
    ensure_init();
    unwind(value);
}

void pfm_raise_deferred(int value)
{
    ensure_init();
    if (pfm_inh_count == 0)
        unwind(value);
    // The value is not kept: SIGINT's handler unwinds once the depth is back to 0.
    sigset_t old;
    sigprocmask(SIG_BLOCK, &all_async_signals, &old);
    defer(SIGINT);
    sigprocmask(SIG_SETMASK, &old, nullptr);
}

void pfm_inhibit(void)
{
    ensure_init();
    pfm_inh_count = pfm_inh_count + 1;
}

void pfm_enable(void)
{
    ensure_init();
    int inh_count = pfm_inh_count - 1;
    pfm_inh_count = inh_count;
    if (inh_count > 0)
        return;
    KS_ASSERT(inh_count >= 0, "inh_count >= 0");
    deliver_deferred();
}

void pfm_inhibit_suspend(void)
{
    ensure_init();
    pfm_inh_susp_count = pfm_inh_susp_count + 1;
}

void pfm_enable_suspend(void)
{
    ensure_init();
    pfm_inh_susp_count = pfm_inh_susp_count - 1;
    if (pfm_inh_susp_count > 0)
        return;
    KS_ASSERT(pfm_inh_susp_count >= 0, "pfm_inh_susp_count >= 0");
    if (pfm_inh_count == 0)
        deliver_deferred();
}

int pfm_inhibit_count(void)
{
    return pfm_inh_count;
}

int pfm_inhibit_suspend_count(void)
{
    return pfm_inh_susp_count;
}

int pfm_blocked_count(void)
{
    return pfm_pending_count;
}

int pfm_cleanup_start(pfm_cleanup_t *cl_rec, int inhibit)
{
    int value = cl_rec->value;
    if (value == 0) {
        ensure_init();
        cl_rec->inh = pfm_inh_count;
        cl_rec->inh_susp = pfm_inh_susp_count;
        if (inhibit)
            pfm_inh_count = pfm_inh_count + 1;
        // A record still marked armed (one that was never released) must not be
        // pushed twice: the chain would loop.
        if (cl_rec->magic == MAGIC_SET)
            for (pfm_cleanup_t *cl_tmp = cl_rec_root; cl_tmp != nullptr; cl_tmp = cl_tmp->prev)
                KS_ASSERT(cl_tmp != cl_rec, "cl_tmp != cl_rec");
        cl_rec->magic = MAGIC_SET;
        cl_rec->prev = cl_rec_root;
        cl_rec_root = cl_rec;
        return 0;
    }
    if (value < 0)
        return value;

    // An unwind landed here: the clean-up code runs one level above the
    // depth saved at arming.
    KS_ASSERT(cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET,
              "cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET");
    KS_ASSERT(pfm_inh_count >= cl_rec->inh, "pfm_inh_count >= cl_rec->inh");
    if (pfm_inh_count == cl_rec->inh) {
        pfm_inh_count = pfm_inh_count + 1;
    } else {
        while (pfm_inh_count > cl_rec->inh + 1) {
            pfm_inh_count = pfm_inh_count - 1;
            if (pfm_inh_count == 0)
                deliver_deferred();
        }
    }
    KS_ASSERT(pfm_inh_susp_count >= cl_rec->inh_susp, "pfm_inh_susp_count >= cl_rec->inh_susp");
    while (pfm_inh_susp_count > cl_rec->inh_susp)
        pfm_enable_suspend();
    cl_rec_root = cl_rec->prev;
    cl_rec->magic = MAGIC_TRIPPED;
    return value;
}

int pfm_cleanup_rls(pfm_cleanup_t *cl_rec)
{
    KS_ASSERT(cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET,
              "cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET");
    cl_rec_root = cl_rec->prev;
    cl_rec->magic = MAGIC_TRIPPED;
    return 0;
}

int pfm_cleanup_reset(pfm_cleanup_t *cl_rec)
{
    KS_ASSERT(cl_rec->magic == MAGIC_TRIPPED, "cl_rec->magic == MAGIC_TRIPPED");
    cl_rec->magic = MAGIC_SET;
    cl_rec->prev = cl_rec_root;
    cl_rec_root = cl_rec;
    pfm_enable();
    return 0;
}

void pfm_on_exit(pfm_exit_handler_t fn, void *arg)
{
    ensure_init();
    // No procedure, nothing to run: an empty entry would only crash the exit.
    if (fn == nullptr)
        return;
    auto *entry = static_cast<on_exit_entry *>(malloc(sizeof(on_exit_entry)));
    KS_ASSERT(entry != nullptr,
              "(new = (struct on_exit_entry *)malloc(sizeof(struct on_exit_entry))) != NULL");
    entry->proc = fn;
    entry->arg = arg;
    entry->next = on_exit_list;
    on_exit_list = entry;
}

pfm_exit_routine_t pfm_set_exit(pfm_exit_routine_t fn)
{
    ensure_init();
    pfm_exit_routine_t prev = saved_exit_routine;
    saved_exit_routine = fn != nullptr ? fn : exit;
    return prev;
}

void pfm_exit(int status)
{
    ensure_init();
    run_exit_handlers(status);
    saved_exit_routine(status);
}

int pfm_select_inhibited(int nfds, ks_fd_set *readfds, ks_fd_set *writefds, ks_fd_set *exceptfds,
                         struct timeval *timeout)
{
    ensure_init();
    KS_ASSERT(pfm_inh_count == 1, "pfm_inh_count == 1");

    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) == 0) {
        pfm_select_sleeping = 1;
        if (pfm_pending_count != 0) {
            pfm_select_sleeping = 0;
            pfm_cleanup_rls(&rec);
            errno = EINTR;
            return -1;
        }
        // The sets hold KS_FD_SETSIZE descriptors; the kernel must not read past them.
        int n = select(nfds > KS_FD_SETSIZE ? KS_FD_SETSIZE : nfds,
                       reinterpret_cast<fd_set *>(readfds), reinterpret_cast<fd_set *>(writefds),
                       reinterpret_cast<fd_set *>(exceptfds), timeout);
        int saved_errno = errno;
        pfm_select_sleeping = 0;
        pfm_cleanup_rls(&rec);
        errno = saved_errno;
        return n;
    }
    pfm_select_sleeping = 0;
    if (rec.value != PFM_SELECT_INTERRUPTED) {
        // A negative value leaves the record armed: passed on from here it
        // would land here again, for ever.
        if (rec.value < 0)
            pfm_cleanup_rls(&rec);
        unwind(rec.value);
    }
    // Back to depth 1: the caller delivers when it enables.
    pfm_enable();
    errno = EINTR;
    return -1;
}

void pfm_panic(const char *source, int line)
{
    if (!aborting) {
        aborting = 1;
        imsg_print(IMSG_ERROR, &_pfm_ks_msg_table, PFM_MSG_ABORT, source, line);
    } else {
        write_plain(_pfm_ks_msg_table.texts[PFM_MSG_ABORT], nullptr, source, line);
    }
    abort();
}

void pfm_assert_fail(const char *expr, const char *source, int line)
{
    if (!aborting) {
        aborting = 1;
        imsg_print(IMSG_ERROR, &_pfm_ks_msg_table, PFM_MSG_ASSERT, expr, source, line);
    } else {
        write_plain(_pfm_ks_msg_table.texts[PFM_MSG_ASSERT], expr, source, line);
    }
    abort();
}
