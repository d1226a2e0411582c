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
#include <string.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ks_test_util.h"

namespace {

using ks_test::run_in_child;

void say(const char *fmt, ...)
{
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n > 0 && write(1, buf, (size_t)n) < 0)
        _exit(99);
}

bool blocked(int sig)
{
    sigset_t cur;
    sigprocmask(SIG_BLOCK, nullptr, &cur);
    return sigismember(&cur, sig) == 1;
}

// A library-level handler that reports each call, and whether it runs, as it
// must, with the asynchronous signals blocked and the faults not.
void note_signal(int sig) { say(blocked(SIGWINCH) && !blocked(SIGSEGV) ? "<%d>" : "<%d unmasked>", sig); }

void exit_note(int status, void *arg) { say("%s%d ", static_cast<const char *>(arg), status); }

pfm_signal_t os_handler(int sig)
{
    struct sigaction sa;
    sigaction(sig, nullptr, &sa);
    return sa.sa_handler;
}

TEST(PfmDeferral, SigintWaitsWhileInhibitedAndARepeatWarnsOnce)
{
    auto r = run_in_child([] {
        pfm_signal(SIGINT, note_signal);
        kill(getpid(), SIGINT); // not inhibited: at once
        pfm_inhibit();
        for (int i = 0; i < 3; i++) {
            kill(getpid(), SIGINT);
            say(" pending=%d", pfm_blocked_count());
        }
        pfm_enable();
        say(" pending=%d depth=%d", pfm_blocked_count(), pfm_inhibit_count());
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "<2> pending=1 pending=1 pending=1<2> pending=0 depth=0");
    EXPECT_EQ(r.err, "pfm_signal_handler: got signal 2, inhibited\npfm_signal_handler: got signal 2, inhibited\n");
}

TEST(PfmDeferral, NestedInhibitDeliversAtTheOutermostEnableInAscendingOrderOrReRaises)
{
    auto r = run_in_child([] {
        for (int sig : {SIGUSR2, SIGUSR1, SIGHUP, SIGRTMIN + 2, SIGTRAP})
            pfm_signal(sig, note_signal);
        pfm_inhibit();
        pfm_inhibit();
        // A repeated signal that is not a user signal: no warning, counted once.
        for (int sig : {SIGRTMIN + 2, SIGUSR2, SIGUSR1, SIGUSR1, SIGHUP, SIGTRAP})
            kill(getpid(), sig); // the fault is never deferred
        say(" pending=%d ", pfm_blocked_count());
        pfm_enable();
        say("inner ");
        pfm_enable();
        say(" after:%d", blocked(SIGWINCH));
        // A handler set back to the default while its signal waits: the signal is raised again.
        pfm_inhibit();
        kill(getpid(), SIGUSR1);
        pfm_signal(SIGUSR1, (pfm_signal_t)SIG_DFL);
        pfm_enable();
        say("survived");
        return 0;
    });
    char expect[64];
    snprintf(expect, sizeof expect, "<5> pending=4 inner <1><10><12><%d> after:0", SIGRTMIN + 2);
    EXPECT_EQ(r.term_signal(), SIGUSR1);
    EXPECT_EQ(r.out, expect);
    EXPECT_EQ(r.err, "");
}

TEST(PfmDeferral, SigtstpWaitsForTheSuspendDepthOnly)
{
    auto r = run_in_child([] {
        pfm_signal(SIGTSTP, note_signal);
        pfm_signal(SIGUSR1, note_signal);
        pfm_inhibit_suspend();
        kill(getpid(), SIGUSR1); // not held by the suspend depth
        kill(getpid(), SIGTSTP);
        say(" pending=%d ", pfm_blocked_count());
        pfm_enable_suspend();
        // Pending while the suspend depth outlives the inhibit depth, and the reverse.
        pfm_inhibit();
        kill(getpid(), SIGTSTP);
        kill(getpid(), SIGUSR1);
        pfm_inhibit_suspend();
        pfm_enable(); // delivers SIGUSR1 only
        say(" pending=%d ", pfm_blocked_count());
        pfm_inhibit();
        pfm_enable_suspend(); // still inhibited: nothing yet
        say("susp=%d ", pfm_inhibit_suspend_count());
        pfm_enable();
        return 0;
    });
    EXPECT_EQ(r.out, "<10> pending=1 <20><10> pending=1 susp=0 <20>");
}

TEST(PfmDeferral, RaiseDeferredMakesSigintPendingOrUnwindsAtOnce)
{
    auto r = run_in_child([] {
        pfm_cleanup_t rec, now;
        if (PFM_CLEANUP_START(&rec, 0) == 0) {
            pfm_inhibit();
            pfm_raise_deferred(7);
            pfm_raise_deferred(7);
            say("pending=%d ", pfm_blocked_count());
            pfm_enable(); // the interrupt catcher takes it: 4, not 7
            say("not reached");
        } else {
            say("unwound %d ", rec.value);
        }
        pfm_enable();
        if (PFM_CLEANUP_START(&now, 0) == 0)
            pfm_raise_deferred(7);
        else
            say("unwound %d", now.value);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "pending=1 unwound 4 unwound 7");
}

void foreign_handler(int) { say("foreign "); }

TEST(PfmSignals, InitTakesOverTheDispositionsItFinds)
{
    auto r = run_in_child([] {
        signal(SIGINT, SIG_IGN); // stays ignored
        signal(SIGUSR1, SIG_IGN);
        signal(SIGCHLD, SIG_IGN);
        signal(SIGHUP, foreign_handler);
        signal(SIGALRM, foreign_handler);
        struct sigaction sa;
        memset(&sa, 0, sizeof sa);
        sa.sa_sigaction = [](int, siginfo_t *, void *) {};
        sa.sa_flags = SA_SIGINFO;
        sigaction(SIGUSR2, &sa, nullptr);
        pfm_init();
        pfm_init(); // once only
        say("int:%d chld:%d ", os_handler(SIGINT) == SIG_IGN, os_handler(SIGCHLD) == SIG_DFL);
        say("usr1:%d ", pfm_signal(SIGUSR1, note_signal) == (pfm_signal_t)SIG_IGN);
        say("usr2:%d ", pfm_signal(SIGUSR2, note_signal) == (pfm_signal_t)SIG_DFL);
        say("kill:%d ", pfm_signal(SIGKILL, note_signal) == (pfm_signal_t)SIG_ERR);
        errno = 0;
        say("err:%d ", pfm_signal(SIGUSR1, (pfm_signal_t)SIG_ERR) == (pfm_signal_t)SIG_ERR && errno == EINVAL);
        // The table keeps a procedure found at start; the new one is routed for real.
        say("prev:%d ", pfm_signal(SIGALRM, note_signal) == foreign_handler);
        sigaction(SIGUSR1, nullptr, &sa); // SA_RESTORER is glibc's own; any other flag would be ours
        say("flags:%d ", (int)(sa.sa_flags & ~0x04000000));
        pfm_inhibit();
        kill(getpid(), SIGALRM);
        kill(getpid(), SIGUSR1);
        pfm_enable();
        kill(getpid(), SIGINT);
        kill(getpid(), SIGHUP); // the interrupt catcher took over: with no record, the end with 4
        say("not reached");
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 4);
    EXPECT_EQ(r.out, "int:1 chld:1 usr1:1 usr2:1 kill:1 err:1 prev:1 flags:0 <10><14>");
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
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(waitpid(pid, &status, WUNTRACED), pid);
        ASSERT_TRUE(WIFSTOPPED(status) && WSTOPSIG(status) == SIGTSTP) << "status " << status;
        kill(pid, SIGCONT);
        char c;
        ASSERT_EQ(read(sync_pipe[0], &c, 1), 1);
    }
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    close(sync_pipe[0]);
}

TEST(PfmCleanup, InterruptUnwindsWithFourAndTheWorkRunsOneLevelAboveTheSavedDepth)
{
    auto r = run_in_child([] {
        pfm_cleanup_t rec, inh;
        if (PFM_CLEANUP_START(&rec, 0) == 0) {
            say("armed:%d ", rec.magic == MAGIC_SET);
            kill(getpid(), SIGINT);
            say("not reached");
        } else {
            say("unwound %d depth=%d tripped:%d ", rec.value, pfm_inhibit_count(), rec.magic == MAGIC_TRIPPED);
            pfm_enable();
        }
        // Armed inhibited, the work defers the interrupt; the unwind steps depths down.
        if (PFM_CLEANUP_START(&inh, 1) == 0) {
            say("work depth=%d ", pfm_inhibit_count());
            kill(getpid(), SIGINT);
            pfm_inhibit();
            pfm_inhibit();
            pfm_inhibit_suspend();
            pfm_inhibit_suspend();
            pfm_raise(9);
        } else {
            say("unwound %d depth=%d susp=%d pending=%d ", inh.value, pfm_inhibit_count(),
                pfm_inhibit_suspend_count(), pfm_blocked_count());
            // Enabling delivers the waiting interrupt: no record left, the end with 4.
            pfm_on_exit(exit_note, (void *)"exit");
            pfm_enable();
        }
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 4);
    EXPECT_EQ(r.out, "armed:1 unwound 4 depth=1 tripped:1 work depth=1 unwound 9 depth=1 susp=0 pending=1 exit4 ");
}

TEST(PfmCleanup, NestedRecordsUnwindInnermostFirstAndResetRearms)
{
    auto r = run_in_child([] {
        pfm_cleanup_t outer, inner;
        volatile int rounds = 0;
        if (PFM_CLEANUP_START(&outer, 0) == 0) {
            if (PFM_CLEANUP_START(&inner, 0) == 0) {
                pfm_raise(3);
            } else {
                say("inner %d depth=%d ", inner.value, pfm_inhibit_count());
                if ((rounds = rounds + 1) < 3) { // resume: back on the chain, the extra level dropped
                    pfm_cleanup_reset(&inner);
                    say("reset depth=%d ", pfm_inhibit_count());
                    pfm_raise(3 + rounds);
                }
                pfm_raise(inner.value);
            }
        } else {
            say("outer %d depth=%d", outer.value, pfm_inhibit_count());
        }
        return 0;
    });
    EXPECT_EQ(r.out, "inner 3 depth=1 reset depth=0 inner 4 depth=1 reset depth=0 inner 5 depth=1 outer 5 depth=1");
}

TEST(PfmCleanup, ReleasedAndNegativeRecordsLeaveTheChain)
{
    auto r = run_in_child([]() -> int {
        pfm_cleanup_t rec, other;
        rec.value = -2; // returned untouched, nothing armed
        rec.magic = 0;
        say("%d armed:%d depth=%d ", pfm_cleanup_start(&rec, 1), rec.magic == MAGIC_SET, pfm_inhibit_count());
        for (volatile int i = 0; i < 2; i = i + 1) // armed again after release: fine
            if (PFM_CLEANUP_START(&rec, 0) == 0)
                pfm_cleanup_rls(&rec);
        say("tripped:%d ", rec.magic == MAGIC_TRIPPED);
        other.magic = MAGIC_SET; // stale, from a record that is not on the chain
        if (PFM_CLEANUP_START(&other, 0) == 0)
            pfm_cleanup_rls(&other);
        pfm_raise(6); // no record left: the end
    });
    EXPECT_EQ(r.exit_code(), 6);
    EXPECT_EQ(r.out, "-2 armed:0 depth=0 tripped:1 ");
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
    struct { const char *name; void (*end)(); int status; const char *out; } cases[] = {
        {"raise without record", [] { pfm_raise(7); }, 7, "B7 A7 "},
        {"SIGINT", [] { kill(getpid(), SIGINT); }, 4, "B4 A4 "},
        {"SIGHUP", [] { kill(getpid(), SIGHUP); }, 4, "B4 A4 "},
        {"SIGTERM", [] { kill(getpid(), SIGTERM); }, 4, "B4 A4 "},
        {"exit, through atexit", [] { exit(3); }, 3, "B0 A0 "},
        {"a handler exits again", [] { pfm_on_exit(exit_again, nullptr); pfm_exit(3); }, 5, "again3 B5 A5 "},
        {"set exit", [] {
             say("prev:%d ", pfm_set_exit(exit_plus_ten) == exit); // the C library's, to begin with
             say("swap:%d ", pfm_set_exit(exit_plus_ten) == exit_plus_ten);
             pfm_exit(2);
         }, 12, "prev:1 swap:1 B2 A2 "},
        {"an ending procedure that returns", [] {
             pfm_set_exit(exit_returns);
             pfm_exit(2);
             say("back ");
             pfm_raise(8); // cannot come back: ends anyway
         }, 8, "B2 A2 ending 2 back ending 8 "},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.name);
        auto r = run_in_child([&c] {
            pfm_on_exit(exit_note, (void *)"A");
            pfm_on_exit(exit_note, (void *)"B");
            c.end();
            say("not reached");
            return 0;
        });
        EXPECT_EQ(r.exit_code(), c.status);
        EXPECT_EQ(r.out, c.out);
    }
}

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
}

volatile int raise_value;
void raise_it(int) { pfm_raise(raise_value); }

TEST(PfmSelect, OtherUnwindsPassThrough)
{
    for (int value : {11, -3}) {
        SCOPED_TRACE(value);
        auto r = run_in_child([value] {
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
                say("not reached");
                pfm_cleanup_rls(&rec);
            } else {
                say("outer %d depth=%d ", rec.value, pfm_inhibit_count());
                if (rec.value < 0) // a negative value leaves the record armed
                    pfm_cleanup_rls(&rec);
            }
            pfm_enable();
            say("depth=%d", pfm_inhibit_count());
            wait(nullptr);
            return 0;
        });
        EXPECT_EQ(r.exit_code(), 0);
        EXPECT_EQ(r.out, "outer " + std::to_string(value) + " depth=1 depth=0");
    }
}

// Every abort prints its line and dies by SIGABRT.
void no_core()
{
    struct rlimit rl = {0, 0};
    setrlimit(RLIMIT_CORE, &rl);
}

void expect_abort(void (*fn)(), const char *text)
{
    SCOPED_TRACE(text);
    EXPECT_EXIT((no_core(), fn()), testing::KilledBySignal(SIGABRT), text);
}

#define PFM_ASSERT_RE(text) "PFM_ASSERT:\\(" text "\\) failed: 'pfm':[0-9]+"

TEST(PfmDeathTest, DepthsBelowZeroOrBelowTheSavedDepthsAbort)
{
    expect_abort([] { pfm_enable(); }, PFM_ASSERT_RE("inh_count >= 0"));
    expect_abort([] { pfm_enable_suspend(); }, PFM_ASSERT_RE("pfm_inh_susp_count >= 0"));
    expect_abort([] {
        pfm_cleanup_t rec;
        pfm_inhibit();
        if (PFM_CLEANUP_START(&rec, 0) == 0)
            pfm_enable(), pfm_raise(3);
    }, PFM_ASSERT_RE("pfm_inh_count >= cl_rec->inh"));
    expect_abort([] {
        pfm_cleanup_t rec;
        pfm_inhibit_suspend();
        if (PFM_CLEANUP_START(&rec, 0) == 0)
            pfm_enable_suspend(), pfm_raise(3);
    }, PFM_ASSERT_RE("pfm_inh_susp_count >= cl_rec->inh_susp"));
    expect_abort([] {
        struct timeval tv = {0, 0};
        pfm_select_inhibited(0, nullptr, nullptr, nullptr, &tv);
    }, PFM_ASSERT_RE("pfm_inh_count == 1"));
}

TEST(PfmDeathTest, RecordsArmedOrReleasedOutOfTurnAbort)
{
    expect_abort([] {
        pfm_cleanup_t rec;
        if (PFM_CLEANUP_START(&rec, 0) == 0)
            pfm_cleanup_reset(&rec);
    }, PFM_ASSERT_RE("cl_rec->magic == MAGIC_TRIPPED"));
    expect_abort([] {
        pfm_cleanup_t rec;
        if (PFM_CLEANUP_START(&rec, 0) == 0 && PFM_CLEANUP_START(&rec, 0) == 0)
            pfm_cleanup_rls(&rec);
    }, PFM_ASSERT_RE("cl_tmp != cl_rec"));
    expect_abort([] { // releasing an outer record
        pfm_cleanup_t outer, inner;
        if (PFM_CLEANUP_START(&outer, 0) == 0 && PFM_CLEANUP_START(&inner, 0) == 0)
            pfm_cleanup_rls(&outer);
    }, PFM_ASSERT_RE("cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET"));
    expect_abort([] { // releasing twice
        pfm_cleanup_t rec;
        if (PFM_CLEANUP_START(&rec, 0) == 0)
            pfm_cleanup_rls(&rec), pfm_cleanup_rls(&rec);
    }, PFM_ASSERT_RE("cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET"));
}

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

TEST(PfmDeathTest, PanicsAssertionsAndTheCommonHandlerWithoutAProcedureAbort)
{
    expect_abort([] { common_handler_on(SIGUSR2, (pfm_signal_t)SIG_DFL); },
                 PFM_ASSERT_RE("handler_sigvec\\[sig-1\\] != \\(pfm_signal_t\\)SIG_DFL"));
    expect_abort([] { common_handler_on(SIGUSR2, (pfm_signal_t)SIG_IGN); },
                 PFM_ASSERT_RE("handler_sigvec\\[sig-1\\] != \\(pfm_signal_t\\)SIG_IGN"));
    expect_abort([] { pfm_panic("caller.c", 42); }, "\\*\\*\\*ABORT\\*\\*\\*  'caller\\.c':42\n");
    expect_abort([] { pfm_assert_fail("x > 0", "caller.c", 7); }, "PFM_ASSERT:\\(x > 0\\) failed: 'caller\\.c':7\n");
    expect_abort([] {
        volatile int zero = 0;
        PFM_ASSERT(zero == 1);
    }, "PFM_ASSERT:\\(zero == 1\\) failed: 'pfm_test\\.cpp':[0-9]+");
}

} // namespace
