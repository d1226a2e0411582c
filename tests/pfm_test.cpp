// Fault manager: signals, deferral, clean-up records, exit handlers and the
// aborts.  Everything that touches signals or ends a process runs in a child;
// the test process itself never initialises the module, so every child and
// every death test starts from a clean state.
//
// Children report what happened as a trace on descriptor 1, written without
// stdio so that nothing is lost on the way out through exit handlers.
#include "ks/pfm.h"

#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ks_test_util.h"
#include "pfm_internal.h"

namespace {

using ks_test::run_in_child;

void say(const char *fmt, ...)
{
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n > 0 && write(1, buf, static_cast<size_t>(n)) < 0)
        _exit(99);
}

bool blocked(int sig)
{
    sigset_t cur;
    return sigprocmask(SIG_BLOCK, nullptr, &cur) == 0 && sigismember(&cur, sig) == 1;
}

// A library-level handler that reports each call, and whether it runs, as it
// must, with the asynchronous signals blocked and the faults not.
void note_signal(int sig) { say(blocked(SIGWINCH) && !blocked(SIGSEGV) ? "<%d>" : "<%d unmasked>", sig); }
void exit_note(int status, void *arg) { say("%s%d ", static_cast<const char *>(arg), status); }
void foreign_handler(int) { say("foreign "); }

pfm_signal_t os_handler(int sig)
{
    struct sigaction sa;
    sigaction(sig, nullptr, &sa);
    return sa.sa_handler;
}

void send(std::initializer_list<int> sigs)
{
    for (int sig : sigs)
        kill(getpid(), sig);
}

TEST(PfmDeferral, InhibitedSignalsWaitForTheOutermostEnableAndComeInAscendingOrder)
{
    auto r = run_in_child([] {
        for (int sig : {SIGINT, SIGUSR2, SIGUSR1, SIGHUP, SIGRTMIN + 2, SIGTRAP, SIGTSTP})
            pfm_signal(sig, note_signal);
        send({SIGINT}); // not inhibited: at once
        pfm_inhibit();
        pfm_inhibit();
        // Each repeat of a waiting interrupt warns; other repeats count once,
        // silently; the fault is never deferred.
        send({SIGINT, SIGINT, SIGINT, SIGRTMIN + 2, SIGUSR2, SIGUSR1, SIGUSR1, SIGHUP, SIGTRAP});
        say(" pending=%d ", pfm_blocked_count());
        pfm_enable();
        say("inner ");
        pfm_enable();
        say(" depth=%d blocked=%d ", pfm_inhibit_count(), blocked(SIGWINCH));
        // The suspend depth holds SIGTSTP only, and SIGTSTP waits for both depths.
        pfm_inhibit_suspend();
        send({SIGUSR1, SIGTSTP});
        say(" pending=%d ", pfm_blocked_count());
        pfm_enable_suspend();
        pfm_inhibit();
        send({SIGTSTP, SIGUSR1});
        pfm_inhibit_suspend();
        pfm_enable(); // delivers SIGUSR1 only
        pfm_inhibit();
        pfm_enable_suspend(); // still inhibited: nothing yet
        say(" pending=%d susp=%d ", pfm_blocked_count(), pfm_inhibit_suspend_count());
        pfm_enable();
        // A handler set back to the default while its signal waits: raised again.
        pfm_inhibit();
        send({SIGUSR1});
        pfm_signal(SIGUSR1, SIG_DFL);
        pfm_enable();
        return 0;
    });
    EXPECT_EQ(r.term_signal(), SIGUSR1);
    EXPECT_EQ(r.out, "<2><5> pending=5 inner <1><2><10><12><" + std::to_string(SIGRTMIN + 2) +
                         "> depth=0 blocked=0 <10> pending=1 <20><10> pending=1 susp=0 <20>");
    EXPECT_EQ(r.err, "pfm_signal_handler: got signal 2, inhibited\npfm_signal_handler: got signal 2, inhibited\n");
}

TEST(PfmSignals, InitTakesOverTheDispositionsItFinds)
{
    auto r = run_in_child([] {
        for (int sig : {SIGINT, SIGUSR1, SIGCHLD}) // SIGINT stays ignored, SIGCHLD goes back to the default
            signal(sig, SIG_IGN);
        signal(SIGHUP, foreign_handler); // the interrupt catcher takes over
        signal(SIGALRM, foreign_handler);
        struct sigaction sa = {};
        sa.sa_sigaction = [](int, siginfo_t *, void *) {};
        sa.sa_flags = SA_SIGINFO; // recorded as the default
        sigaction(SIGUSR2, &sa, nullptr);
        pfm_init();
        pfm_init(); // once only
        // The table keeps a procedure found at start; the new one is routed for real.
        for (bool b : {os_handler(SIGINT) == SIG_IGN, os_handler(SIGCHLD) == SIG_DFL,
                       pfm_signal(SIGUSR1, note_signal) == SIG_IGN, pfm_signal(SIGUSR2, note_signal) == SIG_DFL,
                       pfm_signal(SIGKILL, note_signal) == SIG_ERR, (errno = 0, pfm_signal(SIGUSR1, SIG_ERR) == SIG_ERR && errno == EINVAL),
                       pfm_signal(SIGALRM, note_signal) == foreign_handler, sigaction(SIGUSR1, nullptr, &sa) == 0})
            say("%d", b);
        say(" flags:%d ", sa.sa_flags & ~0x04000000); // SA_RESTORER is glibc's own; any other flag would be ours
        pfm_inhibit();
        send({SIGALRM, SIGUSR1});
        pfm_enable();
        send({SIGINT, SIGHUP}); // with no record, the end with 4
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 4);
    EXPECT_EQ(r.out, "11111111 flags:0 <10><14>");
}

TEST(PfmSignals, SuspendCatcherStopsAndResumes)
{
    int sync_pipe[2];
    ASSERT_EQ(pipe(sync_pipe), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // A process group of its own whose parent is outside it: not orphaned,
        // so the kernel really stops it.
        setpgid(0, 0);
        pfm_init();
        for (int round = 0; round < 2; round++)
            if (kill(getpid(), SIGTSTP) != 0 || write(sync_pipe[1], "c", 1) != 1)
                _exit(3);
        // The catcher is back in place as a procedure after each stop.
        _exit(os_handler(SIGTSTP) != SIG_DFL && os_handler(SIGTSTP) != SIG_IGN ? 0 : 4);
    }
    close(sync_pipe[1]);
    int status = 0;
    char c;
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(waitpid(pid, &status, WUNTRACED), pid);
        ASSERT_TRUE(WIFSTOPPED(status) && WSTOPSIG(status) == SIGTSTP) << "status " << status;
        kill(pid, SIGCONT);
        ASSERT_EQ(read(sync_pipe[0], &c, 1), 1);
    }
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    close(sync_pipe[0]);
}

// pfm_raise_deferred(7) at depth 0 or 1: at once, or SIGINT made pending
// (its catcher then unwinds with 4, not 7).
void raise_deferred_at(int depth)
{
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) == 0) {
        if (depth == 1)
            pfm_inhibit();
        pfm_raise_deferred(7);
        pfm_raise_deferred(7);
        say("pending=%d ", pfm_blocked_count());
        pfm_enable();
    }
    say("unwound %d ", rec.value);
    pfm_enable();
}

// Interrupts unwind with 4, and the clean-up work runs one level above the
// depth saved at arming; pfm_raise_deferred makes SIGINT pending instead of
// keeping its value while inhibited.
TEST(PfmCleanup, UnwindsLandInhibitedOneLevelAboveTheSavedDepth)
{
    auto r = run_in_child([] {
        pfm_cleanup_t rec, inh;
        if (PFM_CLEANUP_START(&rec, 0) == 0) {
            say("armed:%d ", rec.magic == MAGIC_SET);
            kill(getpid(), SIGINT);
        } else {
            say("unwound %d depth=%d tripped:%d ", rec.value, pfm_inhibit_count(), rec.magic == MAGIC_TRIPPED);
            pfm_enable();
        }
        raise_deferred_at(1);
        raise_deferred_at(0);
        // Armed inhibited, the work defers the interrupt; the unwind steps depths down.
        if (PFM_CLEANUP_START(&inh, 1) == 0) {
            kill(getpid(), SIGINT);
            pfm_inhibit();
            pfm_inhibit_suspend();
            pfm_inhibit_suspend();
            pfm_raise(9);
        }
        say("unwound %d depth=%d susp=%d pending=%d ", inh.value, pfm_inhibit_count(), pfm_inhibit_suspend_count(),
            pfm_blocked_count());
        // Enabling delivers the waiting interrupt: no record left, the end with 4.
        pfm_on_exit(exit_note, const_cast<char *>("exit"));
        pfm_enable();
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 4);
    EXPECT_EQ(r.out, "armed:1 unwound 4 depth=1 tripped:1 pending=1 unwound 4 unwound 7 unwound 9 depth=1 susp=0 pending=1 exit4 ");
}

TEST(PfmCleanup, NestedRecordsUnwindInnermostFirstResetRearmsAndReleasedRecordsLeave)
{
    auto r = run_in_child([]() -> int {
        pfm_cleanup_t outer, inner, other;
        volatile int rounds = 0;
        if (PFM_CLEANUP_START(&outer, 0) == 0) {
            if (PFM_CLEANUP_START(&inner, 0) == 0)
                pfm_raise(3);
            say("inner %d depth=%d ", inner.value, pfm_inhibit_count());
            if ((rounds = rounds + 1) < 3) { // resume: back on the chain, the extra level dropped
                pfm_cleanup_reset(&inner);
                say("reset depth=%d ", pfm_inhibit_count());
                pfm_raise(3 + rounds);
            }
            pfm_raise(inner.value);
        }
        say("outer %d depth=%d ", outer.value, pfm_inhibit_count());
        pfm_enable();
        other.value = -2; // returned untouched, nothing armed
        other.magic = 0;
        say("%d armed:%d depth=%d ", pfm_cleanup_start(&other, 1), other.magic == MAGIC_SET, pfm_inhibit_count());
        for (volatile int i = 0; i < 2; i = i + 1) // armed again after release; a stale magic off the chain: fine
            if (other.magic = MAGIC_SET, PFM_CLEANUP_START(&other, 0) == 0)
                pfm_cleanup_rls(&other);
        say("tripped:%d ", other.magic == MAGIC_TRIPPED);
        pfm_raise(6); // no record left: the end
    });
    EXPECT_EQ(r.exit_code(), 6);
    EXPECT_EQ(r.out, "inner 3 depth=1 reset depth=0 inner 4 depth=1 reset depth=0 inner 5 depth=1 outer 5 depth=1 "
                     "-2 armed:0 depth=0 tripped:1 ");
}

void exit_again(int status, void *)
{
    say("again%d ", status);
    pfm_exit(5);
}

void exit_plus_ten(int status) { _exit(status + 10); }
void exit_returns(int status) { say("ending %d ", status); }

// Each case registers handlers A then B, then ends the process its own way.
TEST(PfmExit, HandlersRunNewestFirstAndEachOnce)
{
    struct { void (*end)(); int status; const char *out; } cases[] = {
        {[] { pfm_raise(7); }, 7, "B7 A7 "},
        {[] { kill(getpid(), SIGTERM); }, 4, "B4 A4 "}, // the interrupt catcher
        {[] { exit(3); }, 3, "B0 A0 "}, // through atexit
        {[] { pfm_on_exit(exit_again, nullptr), pfm_exit(3); }, 5, "again3 B5 A5 "},
        {[] {
             say("prev:%d ", pfm_set_exit(exit_plus_ten) == exit); // the C library's, to begin with
             say("swap:%d ", pfm_set_exit(exit_plus_ten) == exit_plus_ten);
             pfm_exit(2);
         }, 12, "prev:1 swap:1 B2 A2 "},
        {[] { // an ending procedure that returns; a raise cannot come back and ends anyway
             pfm_set_exit(exit_returns);
             pfm_exit(2);
             say("back ");
             pfm_raise(8);
         }, 8, "B2 A2 ending 2 back ending 8 "},
    };
    for (auto &c : cases) {
        auto r = run_in_child([&c] {
            pfm_on_exit(exit_note, const_cast<char *>("A"));
            pfm_on_exit(exit_note, const_cast<char *>("B"));
            c.end();
            return 0;
        });
        EXPECT_EQ(std::to_string(r.exit_code()) + " " + r.out, std::to_string(c.status) + " " + c.out);
    }
}

volatile int raise_value;
void raise_it(int) { pfm_raise(raise_value); }

// Ready descriptors of the large set come back; a signal waiting or arriving
// interrupts the sleep with EINTR and is delivered at the caller's enable;
// other unwinds (a fault raising 11, or -3, which leaves its record armed)
// pass through to the caller's record.
TEST(PfmSelect, ReturnsReadyDescriptorsOfTheLargeSetAndSignalsInterrupt)
{
    auto r = run_in_child([] {
        struct rlimit rl = {5000, 5000};
        int p[2];
        if (setrlimit(RLIMIT_NOFILE, &rl) != 0 || pipe(p) != 0 || dup2(p[0], 4500) != 4500 || write(p[1], "x", 1) != 1)
            return 1;
        ks_fd_set rd;
        KS_FD_ZERO(&rd);
        KS_FD_SET(4500, &rd);
        struct timeval tv = {5, 0};
        pfm_signal(SIGALRM, note_signal);
        pfm_inhibit();
        int n = pfm_select_inhibited(KS_FD_SETSIZE, &rd, nullptr, nullptr, &tv);
        say("n=%d set=%u ", n, KS_FD_ISSET(4500, &rd));
        struct itimerval it = {{0, 0}, {0, 50000}};
        setitimer(ITIMER_REAL, &it, nullptr);
        for (int i = 0; i < 2; i++) { // the second does not sleep: the signal is still pending
            tv.tv_sec = 20;
            errno = 0;
            n = pfm_select_inhibited(0, nullptr, nullptr, nullptr, &tv);
            say("n=%d eintr=%d depth=%d pending=%d ", n, errno == EINTR, pfm_inhibit_count(), pfm_blocked_count());
        }
        pfm_enable();
        return 0;
    });
    EXPECT_EQ(r.out, "n=1 set=1 n=-1 eintr=1 depth=1 pending=1 n=-1 eintr=1 depth=1 pending=1 <14>");
    for (int value : {11, -3}) {
        r = run_in_child([value] {
            alarm(10); // a loop of unwinds ends here rather than in the test's time-out
            raise_value = value;
            pfm_signal(SIGTRAP, raise_it); // a fault: never deferred
            pfm_cleanup_t rec;
            if (PFM_CLEANUP_START(&rec, 0) == 0) {
                pfm_inhibit();
                pid_t me = getpid();
                if (fork() == 0) // a fault from another process, a moment later
                    _exit((usleep(100000), kill(me, SIGTRAP)));
                struct timeval tv = {20, 0};
                pfm_select_inhibited(0, nullptr, nullptr, nullptr, &tv);
            } else if (say("outer %d depth=%d ", rec.value, pfm_inhibit_count()), rec.value < 0) {
                pfm_cleanup_rls(&rec);
            }
            pfm_enable();
            say("depth=%d", pfm_inhibit_count());
            return wait(nullptr) < 0;
        });
        EXPECT_EQ(r.out + std::to_string(r.exit_code()), "outer " + std::to_string(value) + " depth=1 depth=00");
    }
}

// The event loop's view of the handler table and the deferred set.
TEST(PfmInternal, HandlerTableAndDeferredSet)
{
    auto r = run_in_child([] {
        pfm_signal(SIGUSR1, note_signal);
        bool known = ks::pfm_library_handler(SIGUSR1) == note_signal && ks::pfm_library_handler(SIGUSR2) == SIG_DFL &&
                     ks::pfm_library_handler(49) == SIG_ERR;
        // A procedure for a procedure changes the table only; the OS keeps routing.
        bool swapped = ks::pfm_replace_library_handler(SIGUSR1, foreign_handler) == note_signal &&
                       ks::pfm_replace_library_handler(SIGUSR2, note_signal) == SIG_DFL && os_handler(SIGUSR2) != SIG_DFL;
        pfm_inhibit();
        send({SIGUSR1, SIGUSR2});
        say("%d%d ", known, swapped);
        for (int v : {int{ks::pfm_signal_pending(SIGUSR1)}, ks::pfm_pending_signal_count(), int{ks::pfm_clear_pending(SIGUSR2)},
                      int{ks::pfm_clear_pending(SIGUSR2)}, int{ks::pfm_signal_pending(SIGUSR2)}, pfm_blocked_count()})
            say("%d", v);
        pfm_enable(); // only SIGUSR1 is left, for its new handler
        return 0;
    });
    EXPECT_EQ(r.out, "11 121001foreign ");
}

// Every abort prints its line and dies by SIGABRT.
#define PFM_ASSERT_RE(text) "PFM_ASSERT:\\(" text "\\) failed: 'pfm':[0-9]+"

// The common handler reached for a signal whose library-level entry is not a
// procedure: its address is borrowed from a routed signal.
void common_handler_on(int sig, pfm_signal_t entry)
{
    pfm_signal(SIGUSR1, note_signal);
    pfm_signal(sig, entry);
    struct sigaction sa;
    sigaction(SIGUSR1, nullptr, &sa);
    sigaction(sig, &sa, nullptr);
    kill(getpid(), sig);
}

TEST(PfmDeathTest, ChecksPanicsAndAssertionsAbortWithTheirLine)
{
    struct { void (*fn)(); const char *text; } cases[] = {
        {[] { pfm_enable(); }, PFM_ASSERT_RE("inh_count >= 0")},
        {[] { pfm_enable_suspend(); }, PFM_ASSERT_RE("pfm_inh_susp_count >= 0")},
        {[] { pfm_cleanup_t rec; pfm_inhibit(); if (PFM_CLEANUP_START(&rec, 0) == 0) pfm_enable(), pfm_raise(3); },
         PFM_ASSERT_RE("pfm_inh_count >= cl_rec->inh")},
        {[] { pfm_cleanup_t rec; pfm_inhibit_suspend(); if (PFM_CLEANUP_START(&rec, 0) == 0) pfm_enable_suspend(), pfm_raise(3); },
         PFM_ASSERT_RE("pfm_inh_susp_count >= cl_rec->inh_susp")},
        {[] { struct timeval tv = {0, 0}; pfm_select_inhibited(0, nullptr, nullptr, nullptr, &tv); },
         PFM_ASSERT_RE("pfm_inh_count == 1")},
        {[] { pfm_cleanup_t rec; if (PFM_CLEANUP_START(&rec, 0) == 0) pfm_cleanup_reset(&rec); },
         PFM_ASSERT_RE("cl_rec->magic == MAGIC_TRIPPED")},
        {[] { pfm_cleanup_t rec; if (PFM_CLEANUP_START(&rec, 0) == 0 && PFM_CLEANUP_START(&rec, 0) == 0) pfm_cleanup_rls(&rec); },
         PFM_ASSERT_RE("cl_tmp != cl_rec")},
        {[] { pfm_cleanup_t o, i; if (PFM_CLEANUP_START(&o, 0) == 0 && PFM_CLEANUP_START(&i, 0) == 0) pfm_cleanup_rls(&o); },
         PFM_ASSERT_RE("cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET")}, // an outer record released
        {[] { common_handler_on(SIGUSR2, SIG_DFL); }, PFM_ASSERT_RE("handler_sigvec\\[sig-1\\] != \\(pfm_signal_t\\)SIG_DFL")},
        {[] { common_handler_on(SIGUSR2, SIG_IGN); }, PFM_ASSERT_RE("handler_sigvec\\[sig-1\\] != \\(pfm_signal_t\\)SIG_IGN")},
        {[] { pfm_panic("caller.c", 42); }, "\\*\\*\\*ABORT\\*\\*\\*  'caller\\.c':42\n"},
        {[] { pfm_assert_fail("x > 0", "caller.c", 7); }, "PFM_ASSERT:\\(x > 0\\) failed: 'caller\\.c':7\n"},
        {[] { volatile int zero = 0; PFM_ASSERT(zero == 1); }, "PFM_ASSERT:\\(zero == 1\\) failed: 'pfm_test\\.cpp':[0-9]+"},
    };
    struct rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    for (auto &c : cases)
        EXPECT_EXIT(c.fn(), testing::KilledBySignal(SIGABRT), c.text) << c.text;
}

} // namespace
