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
    if (n > 0) {
        ssize_t w = write(1, buf, (size_t)n);
        (void)w;
    }
}

// A library-level handler that reports each call.
void note_signal(int sig) { say("<%d>", sig); }

volatile sig_atomic_t calls;
void count_signal(int) { calls = calls + 1; }

void exit_note(int status, void *arg) { say("%s%d ", static_cast<const char *>(arg), status); }

// No core files from the deliberate aborts.
void no_core()
{
    struct rlimit rl = {0, 0};
    setrlimit(RLIMIT_CORE, &rl);
}

pfm_signal_t os_handler(int sig)
{
    struct sigaction sa;
    sigaction(sig, nullptr, &sa);
    return sa.sa_handler;
}

// ---------------------------------------------------------------------------
// Deferral and delivery

TEST(PfmDeferral, SigintWaitsWhileInhibitedAndRepeatWarnsOnce)
{
    auto r = run_in_child([] {
        pfm_signal(SIGINT, note_signal);
        pfm_inhibit();
        kill(getpid(), SIGINT);
        say("pending=%d ", pfm_blocked_count());
        kill(getpid(), SIGINT);
        say("pending=%d ", pfm_blocked_count());
        pfm_enable();
        say(" pending=%d depth=%d", pfm_blocked_count(), pfm_inhibit_count());
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "pending=1 pending=1 <2> pending=0 depth=0");
    EXPECT_EQ(r.err, "pfm_signal_handler: got signal 2, inhibited\n");
}

TEST(PfmDeferral, NestedInhibitDeliversOnlyAtTheOutermostEnable)
{
    auto r = run_in_child([] {
        pfm_signal(SIGUSR1, note_signal);
        pfm_inhibit();
        pfm_inhibit();
        kill(getpid(), SIGUSR1);
        kill(getpid(), SIGUSR1); // not a user signal: no warning, counted once
        pfm_enable();
        say("inner ");
        pfm_enable();
        say(" outer");
        return 0;
    });
    EXPECT_EQ(r.out, "inner <10> outer");
    EXPECT_EQ(r.err, "");
}

TEST(PfmDeferral, DeliveryIsInAscendingSignalOrder)
{
    auto r = run_in_child([] {
        pfm_signal(SIGUSR2, note_signal);
        pfm_signal(SIGUSR1, note_signal);
        pfm_signal(SIGHUP, note_signal);
        pfm_signal(SIGRTMIN + 2, note_signal);
        pfm_inhibit();
        kill(getpid(), SIGRTMIN + 2);
        kill(getpid(), SIGUSR2);
        kill(getpid(), SIGUSR1);
        kill(getpid(), SIGHUP);
        say("pending=%d ", pfm_blocked_count());
        pfm_enable();
        return 0;
    });
    char expect[64];
    snprintf(expect, sizeof expect, "pending=4 <1><10><12><%d>", SIGRTMIN + 2);
    EXPECT_EQ(r.out, expect);
}

TEST(PfmDeferral, NotInhibitedCallsAtOnce)
{
    auto r = run_in_child([] {
        pfm_signal(SIGUSR1, note_signal);
        kill(getpid(), SIGUSR1);
        say(" pending=%d", pfm_blocked_count());
        return 0;
    });
    EXPECT_EQ(r.out, "<10> pending=0");
}

TEST(PfmDeferral, HandlerSetToDefaultWhileDeferredIsReRaised)
{
    auto r = run_in_child([] {
        pfm_signal(SIGUSR1, note_signal);
        pfm_inhibit();
        kill(getpid(), SIGUSR1);
        pfm_signal(SIGUSR1, (pfm_signal_t)SIG_DFL);
        pfm_enable();
        say("survived");
        return 0;
    });
    EXPECT_EQ(r.term_signal(), SIGUSR1);
    EXPECT_EQ(r.out, "");
}

TEST(PfmDeferral, DeliveredHandlerRunsWithAsyncSignalsBlocked)
{
    auto r = run_in_child([] {
        pfm_signal(SIGUSR1, [](int) {
            sigset_t cur;
            sigprocmask(SIG_BLOCK, nullptr, &cur);
            say("usr2:%d segv:%d ", sigismember(&cur, SIGUSR2), sigismember(&cur, SIGSEGV));
        });
        pfm_inhibit();
        kill(getpid(), SIGUSR1);
        pfm_enable();
        sigset_t cur;
        sigprocmask(SIG_BLOCK, nullptr, &cur);
        say("after:%d", sigismember(&cur, SIGUSR2));
        return 0;
    });
    EXPECT_EQ(r.out, "usr2:1 segv:0 after:0");
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
        say(" pending=%d", pfm_blocked_count());
        return 0;
    });
    EXPECT_EQ(r.out, "<10> pending=1 <20> pending=0");
}

TEST(PfmDeferral, SigtstpStaysPendingWhileTheSuspendDepthOutlivesTheInhibit)
{
    auto r = run_in_child([] {
        pfm_signal(SIGTSTP, note_signal);
        pfm_signal(SIGUSR1, note_signal);
        pfm_inhibit();
        kill(getpid(), SIGTSTP);
        kill(getpid(), SIGUSR1);
        pfm_inhibit_suspend();
        pfm_enable();               // delivers SIGUSR1 only
        say(" pending=%d ", pfm_blocked_count());
        pfm_inhibit();
        pfm_enable_suspend();       // still inhibited: nothing yet
        say("susp=%d ", pfm_inhibit_suspend_count());
        pfm_enable();
        return 0;
    });
    EXPECT_EQ(r.out, "<10> pending=1 susp=0 <20>");
}

TEST(PfmDeferral, RaiseDeferredWhileInhibitedMakesSigintPending)
{
    auto r = run_in_child([] {
        pfm_signal(SIGINT, note_signal);
        pfm_inhibit();
        pfm_raise_deferred(7);
        pfm_raise_deferred(7);
        say("pending=%d ", pfm_blocked_count());
        pfm_enable();
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "pending=1 <2>");
}

TEST(PfmDeferral, RaiseDeferredUnwindsWithFourOnceEnabled)
{
    auto r = run_in_child([] {
        pfm_cleanup_t rec;
        if (PFM_CLEANUP_START(&rec, 0) == 0) {
            pfm_inhibit();
            pfm_raise_deferred(7);
            say("deferred ");
            pfm_enable();
            say("not reached");
            pfm_cleanup_rls(&rec);
        } else {
            say("unwound %d", rec.value);
        }
        return 0;
    });
    EXPECT_EQ(r.out, "deferred unwound 4");
}

TEST(PfmDeferral, RaiseDeferredNotInhibitedUnwindsWithTheValue)
{
    auto r = run_in_child([] {
        pfm_cleanup_t rec;
        if (PFM_CLEANUP_START(&rec, 0) == 0) {
            pfm_raise_deferred(7);
            pfm_cleanup_rls(&rec);
        } else {
            say("unwound %d", rec.value);
        }
        return 0;
    });
    EXPECT_EQ(r.out, "unwound 7");
}

// ---------------------------------------------------------------------------
// Dispositions

TEST(PfmSignals, IgnoredInterruptStaysIgnored)
{
    auto r = run_in_child([] {
        signal(SIGINT, SIG_IGN);
        pfm_init();
        say("int:%d term:%d ", os_handler(SIGINT) == SIG_IGN, os_handler(SIGTERM) != SIG_DFL &&
                                                                  os_handler(SIGTERM) != SIG_IGN);
        kill(getpid(), SIGINT);
        say("alive");
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "int:1 term:1 alive");
}

TEST(PfmSignals, InitRecordsDispositionsAndResetsSigchld)
{
    auto r = run_in_child([] {
        signal(SIGUSR1, SIG_IGN);
        signal(SIGCHLD, SIG_IGN);
        struct sigaction sa;
        memset(&sa, 0, sizeof sa);
        sa.sa_sigaction = [](int, siginfo_t *, void *) {};
        sa.sa_flags = SA_SIGINFO;
        sigaction(SIGUSR2, &sa, nullptr);
        pfm_init();
        pfm_init(); // once only
        say("usr1:%d ", pfm_signal(SIGUSR1, note_signal) == (pfm_signal_t)SIG_IGN);
        say("usr2:%d ", pfm_signal(SIGUSR2, note_signal) == (pfm_signal_t)SIG_DFL);
        say("chld:%d ", os_handler(SIGCHLD) == SIG_DFL);
        say("kill:%d ", pfm_signal(SIGKILL, note_signal) == (pfm_signal_t)SIG_ERR);
        say("prev:%d ", pfm_signal(SIGUSR1, count_signal) == note_signal);
        errno = 0;
        say("err:%d ", pfm_signal(SIGUSR1, (pfm_signal_t)SIG_ERR) == (pfm_signal_t)SIG_ERR &&
                           errno == EINVAL);
        // Refused: the handler before it still runs.
        kill(getpid(), SIGUSR1);
        say("calls:%d", (int)calls);
        return 0;
    });
    EXPECT_EQ(r.out, "usr1:1 usr2:1 chld:1 kill:1 prev:1 err:1 calls:1");
}

void foreign_handler(int) { say("foreign "); }

TEST(PfmSignals, HandlerFoundAtStartIsReplacedAtTheSystemToo)
{
    auto r = run_in_child([] {
        signal(SIGUSR1, foreign_handler);
        signal(SIGINT, foreign_handler);
        pfm_init();
        // The table keeps the procedure found; the new one is routed for real.
        say("prev:%d ", pfm_signal(SIGUSR1, note_signal) == foreign_handler);
        pfm_inhibit();
        kill(getpid(), SIGUSR1);
        say("pending=%d ", pfm_blocked_count());
        pfm_enable();
        // The interrupt catcher took over: no record, so the process ends with 4.
        kill(getpid(), SIGINT);
        say("not reached");
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 4);
    EXPECT_EQ(r.out, "prev:1 pending=1 <10>");
}

TEST(PfmSignals, HandlersAreInstalledWithTheAsyncMaskAndNoFlags)
{
    auto r = run_in_child([] {
        pfm_signal(SIGUSR1, note_signal);
        struct sigaction sa;
        sigaction(SIGUSR1, nullptr, &sa);
        // SA_RESTORER is glibc's own; anything else would be ours.
        say("flags:%d mask-int:%d mask-fpe:%d ", (int)(sa.sa_flags & ~0x04000000),
            sigismember(&sa.sa_mask, SIGINT), sigismember(&sa.sa_mask, SIGFPE));
        pfm_signal(SIGUSR1, (pfm_signal_t)SIG_IGN);
        say("ign:%d", os_handler(SIGUSR1) == SIG_IGN);
        return 0;
    });
    EXPECT_EQ(r.out, "flags:0 mask-int:1 mask-fpe:0 ign:1");
}

TEST(PfmSignals, SuspendCatcherStopsAndResumes)
{
    int sync_pipe[2];
    ASSERT_EQ(pipe(sync_pipe), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // A process group of its own, whose parent is outside it: not orphaned,
        // so the kernel really stops it.
        setpgid(0, 0);
        pfm_init();
        for (int round = 0; round < 2; round++) {
            kill(getpid(), SIGTSTP);
            char c = 'c';
            if (write(sync_pipe[1], &c, 1) != 1)
                _exit(3);
        }
        // The catcher is back in place as a procedure after each stop.
        struct sigaction sa;
        sigaction(SIGTSTP, nullptr, &sa);
        _exit(sa.sa_handler != SIG_DFL && sa.sa_handler != SIG_IGN ? 0 : 4);
    }
    close(sync_pipe[1]);
    for (int round = 0; round < 2; round++) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, WUNTRACED), pid);
        ASSERT_TRUE(WIFSTOPPED(status)) << "status " << status;
        EXPECT_EQ(WSTOPSIG(status), SIGTSTP);
        kill(pid, SIGCONT);
        char c;
        ASSERT_EQ(read(sync_pipe[0], &c, 1), 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    close(sync_pipe[0]);
}

TEST(PfmSignals, SynchronousSignalIsNotDeferred)
{
    auto r = run_in_child([] {
        pfm_signal(SIGTRAP, note_signal);
        pfm_inhibit();
        kill(getpid(), SIGTRAP);
        say(" pending=%d", pfm_blocked_count());
        return 0;
    });
    EXPECT_EQ(r.out, "<5> pending=0");
}

// ---------------------------------------------------------------------------
// Clean-up records

TEST(PfmCleanup, RealInterruptUnwindsWithFourOneLevelAboveTheSavedDepth)
{
    auto r = run_in_child([] {
        pfm_init();
        pfm_inhibit();
        pfm_enable();
        pfm_cleanup_t rec;
        if (PFM_CLEANUP_START(&rec, 0) == 0) {
            say("armed magic=%d ", rec.magic == MAGIC_SET);
            kill(getpid(), SIGINT);
            say("not reached");
        } else {
            say("unwound %d depth=%d tripped=%d ", rec.value, pfm_inhibit_count(), rec.magic == MAGIC_TRIPPED);
            pfm_enable();
            say("depth=%d", pfm_inhibit_count());
        }
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "armed magic=1 unwound 4 depth=1 tripped=1 depth=0");
}

TEST(PfmCleanup, InhibitFlagProtectsTheWorkAndUnwindStepsDepthsDown)
{
    auto r = run_in_child([] {
        pfm_init();
        pfm_cleanup_t rec;
        if (PFM_CLEANUP_START(&rec, 1) == 0) {
            say("work depth=%d ", pfm_inhibit_count());
            kill(getpid(), SIGINT); // deferred: the record was armed inhibited
            pfm_inhibit();
            pfm_inhibit();
            pfm_inhibit_suspend();
            pfm_inhibit_suspend();
            pfm_raise(9);
        } else {
            say("unwound %d depth=%d susp=%d pending=%d ", rec.value, pfm_inhibit_count(),
                pfm_inhibit_suspend_count(), pfm_blocked_count());
            // The interrupt is still waiting; enabling now ends the process
            // through the quit catcher with no record left.
            pfm_on_exit(exit_note, (void *)"exit");
            pfm_enable();
        }
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 4);
    EXPECT_EQ(r.out, "work depth=1 unwound 9 depth=1 susp=0 pending=1 exit4 ");
}

TEST(PfmCleanup, ReleaseRestoresNothingButTheChain)
{
    auto r = run_in_child([]() -> int {
        pfm_cleanup_t rec;
        if (PFM_CLEANUP_START(&rec, 0) == 0) {
            pfm_cleanup_rls(&rec);
            say("released tripped=%d ", rec.magic == MAGIC_TRIPPED);
        }
        // With no record left, pfm_raise ends the process.
        pfm_raise(6);
    });
    EXPECT_EQ(r.exit_code(), 6);
    EXPECT_EQ(r.out, "released tripped=1 ");
}

TEST(PfmCleanup, NestedRecordsUnwindInnermostFirstAndPropagate)
{
    auto r = run_in_child([] {
        pfm_cleanup_t outer;
        if (PFM_CLEANUP_START(&outer, 0) == 0) {
            pfm_cleanup_t inner;
            if (PFM_CLEANUP_START(&inner, 0) == 0) {
                pfm_raise(5);
            } else {
                say("inner %d depth=%d ", inner.value, pfm_inhibit_count());
                pfm_raise(inner.value);
            }
        } else {
            say("outer %d depth=%d", outer.value, pfm_inhibit_count());
        }
        return 0;
    });
    EXPECT_EQ(r.out, "inner 5 depth=1 outer 5 depth=1");
}

TEST(PfmCleanup, ResetRearmsAndDropsTheExtraLevel)
{
    auto r = run_in_child([] {
        pfm_cleanup_t rec;
        volatile int rounds = 0;
        if (PFM_CLEANUP_START(&rec, 0) == 0) {
            say("work ");
            pfm_raise(3);
        } else {
            say("caught %d depth=%d ", rec.value, pfm_inhibit_count());
            rounds = rounds + 1;
            if (rounds < 3) {
                pfm_cleanup_reset(&rec);
                say("reset depth=%d ", pfm_inhibit_count());
                pfm_raise(3 + rounds);
            }
        }
        return 0;
    });
    EXPECT_EQ(r.out, "work caught 3 depth=1 reset depth=0 caught 4 depth=1 reset depth=0 caught 5 depth=1 ");
}

TEST(PfmCleanup, NegativeValueIsReturnedUntouched)
{
    auto r = run_in_child([] {
        pfm_cleanup_t rec;
        rec.value = -2;
        rec.magic = 0;
        say("%d armed=%d", pfm_cleanup_start(&rec, 1), rec.magic == MAGIC_SET);
        say(" depth=%d", pfm_inhibit_count());
        return 0;
    });
    EXPECT_EQ(r.out, "-2 armed=0 depth=0");
}

TEST(PfmCleanup, RecordArmedAgainAfterReleaseIsFine)
{
    auto r = run_in_child([] {
        pfm_cleanup_t rec;
        for (volatile int i = 0; i < 2; i = i + 1)
            if (PFM_CLEANUP_START(&rec, 0) == 0)
                pfm_cleanup_rls(&rec);
        // A stale MAGIC_SET from a record that lives elsewhere is harmless.
        pfm_cleanup_t other;
        other.magic = MAGIC_SET;
        if (PFM_CLEANUP_START(&other, 0) == 0)
            pfm_cleanup_rls(&other);
        say("ok");
        return 0;
    });
    EXPECT_EQ(r.out, "ok");
}

// ---------------------------------------------------------------------------
// Exit handlers and the end of the process

TEST(PfmExit, RaiseWithoutRecordRunsHandlersNewestFirst)
{
    auto r = run_in_child([]() -> int {
        pfm_on_exit(exit_note, (void *)"A");
        pfm_on_exit(exit_note, (void *)"B");
        pfm_on_exit(exit_note, (void *)"C");
        pfm_raise(7);
    });
    EXPECT_EQ(r.exit_code(), 7);
    EXPECT_EQ(r.out, "C7 B7 A7 ");
}

TEST(PfmExit, InterruptWithoutRecordExitsFourAfterHandlers)
{
    for (int sig : {SIGINT, SIGHUP, SIGTERM}) {
        auto r = run_in_child([sig] {
            pfm_on_exit(exit_note, (void *)"h");
            kill(getpid(), sig);
            say("not reached");
            return 0;
        });
        EXPECT_EQ(r.exit_code(), 4) << sig;
        EXPECT_EQ(r.out, "h4 ") << sig;
    }
}

TEST(PfmExit, AtexitRunnerPassesZero)
{
    auto r = run_in_child([]() -> int {
        pfm_on_exit(exit_note, (void *)"a");
        pfm_on_exit(exit_note, (void *)"b");
        exit(3);
    });
    EXPECT_EQ(r.exit_code(), 3);
    EXPECT_EQ(r.out, "b0 a0 ");
}

void exit_again(int status, void *) {
    say("again%d ", status);
    pfm_exit(5);
}

TEST(PfmExit, EachHandlerRunsOnceEvenWhenOneExitsAgain)
{
    auto r = run_in_child([] {
        pfm_on_exit(exit_note, (void *)"A");
        pfm_on_exit(exit_again, nullptr);
        pfm_exit(3);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 5);
    EXPECT_EQ(r.out, "again3 A5 ");
}

void exit_plus_ten(int status) { _exit(status + 10); }

TEST(PfmExit, SetExitReplacesTheEndingProcedure)
{
    auto r = run_in_child([] {
        pfm_exit_routine_t prev = pfm_set_exit(exit_plus_ten);
        say("prev:%d ", prev == exit); // the C library's, to begin with
        say("swap:%d ", pfm_set_exit(exit_plus_ten) == exit_plus_ten);
        pfm_on_exit(exit_note, (void *)"h");
        pfm_exit(2);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 12);
    EXPECT_EQ(r.out, "prev:1 swap:1 h2 ");
}

void exit_returns(int status) { say("ending %d ", status); }

TEST(PfmExit, EndingProcedureThatReturnsLetsPfmExitReturn)
{
    auto r = run_in_child([]() -> int {
        pfm_set_exit(exit_returns);
        pfm_exit(2);
        say("back ");
        pfm_raise(8); // cannot come back: ends anyway
    });
    EXPECT_EQ(r.exit_code(), 8);
    EXPECT_EQ(r.out, "ending 2 back ending 8 ");
}

// ---------------------------------------------------------------------------
// Sleeping inhibited

TEST(PfmSelect, ReturnsReadyDescriptors)
{
    auto r = run_in_child([] {
        int p[2];
        if (pipe(p) != 0)
            return 1;
        if (write(p[1], "x", 1) != 1)
            return 1;
        ks_fd_set rd;
        KS_FD_ZERO(&rd);
        KS_FD_SET(p[0], &rd);
        struct timeval tv = {5, 0};
        pfm_inhibit();
        int n = pfm_select_inhibited(p[0] + 1, &rd, nullptr, nullptr, &tv);
        say("n=%d set=%u depth=%d", n, KS_FD_ISSET(p[0], &rd), pfm_inhibit_count());
        return 0;
    });
    EXPECT_EQ(r.out, "n=1 set=1 depth=1");
}

TEST(PfmSelect, HighDescriptorInTheLargeSet)
{
    auto r = run_in_child([] {
        struct rlimit rl = {5000, 5000};
        if (setrlimit(RLIMIT_NOFILE, &rl) != 0)
            return 1;
        int p[2];
        if (pipe(p) != 0 || dup2(p[0], 4500) != 4500 || write(p[1], "x", 1) != 1)
            return 1;
        ks_fd_set rd;
        KS_FD_ZERO(&rd);
        KS_FD_SET(4500, &rd);
        struct timeval tv = {5, 0};
        pfm_inhibit();
        int n = pfm_select_inhibited(KS_FD_SETSIZE, &rd, nullptr, nullptr, &tv);
        say("n=%d set=%u", n, KS_FD_ISSET(4500, &rd));
        return 0;
    });
    EXPECT_EQ(r.out, "n=1 set=1");
}

TEST(PfmSelect, SignalFromAnotherProcessInterruptsTheSleep)
{
    auto r = run_in_child([] {
        pfm_signal(SIGUSR1, note_signal);
        int p[2];
        if (pipe(p) != 0)
            return 1;
        pid_t me = getpid();
        pfm_inhibit();
        pid_t sender = fork();
        if (sender == 0) {
            usleep(100000);
            kill(me, SIGUSR1);
            _exit(0);
        }
        ks_fd_set rd;
        KS_FD_ZERO(&rd);
        KS_FD_SET(p[0], &rd);
        struct timeval tv = {20, 0};
        int n = pfm_select_inhibited(p[0] + 1, &rd, nullptr, nullptr, &tv);
        int err = errno;
        say("n=%d eintr=%d depth=%d pending=%d ", n, err == EINTR, pfm_inhibit_count(), pfm_blocked_count());
        pfm_enable();
        waitpid(sender, nullptr, 0);
        return 0;
    });
    EXPECT_EQ(r.out, "n=-1 eintr=1 depth=1 pending=1 <10>");
}

TEST(PfmSelect, AlarmInterruptsAndPendingSignalFailsAtOnce)
{
    auto r = run_in_child([] {
        pfm_signal(SIGALRM, note_signal);
        pfm_inhibit();
        struct itimerval it = {{0, 0}, {0, 50000}};
        setitimer(ITIMER_REAL, &it, nullptr);
        struct timeval tv = {20, 0};
        int n = pfm_select_inhibited(0, nullptr, nullptr, nullptr, &tv);
        say("n=%d eintr=%d ", n, errno == EINTR);
        // Still pending: the next sleep does not start.
        tv.tv_sec = 20;
        errno = 0;
        n = pfm_select_inhibited(0, nullptr, nullptr, nullptr, &tv);
        say("n=%d eintr=%d ", n, errno == EINTR);
        pfm_enable();
        return 0;
    });
    EXPECT_EQ(r.out, "n=-1 eintr=1 n=-1 eintr=1 <14>");
}

void raise_eleven(int) { pfm_raise(11); }

TEST(PfmSelect, OtherUnwindsPassThrough)
{
    auto r = run_in_child([] {
        pfm_signal(SIGTRAP, raise_eleven); // a fault: never deferred
        pid_t me = getpid();
        pfm_cleanup_t rec;
        if (PFM_CLEANUP_START(&rec, 0) == 0) {
            pfm_inhibit();
            pid_t sender = fork();
            if (sender == 0) {
                usleep(100000);
                kill(me, SIGTRAP);
                _exit(0);
            }
            struct timeval tv = {20, 0};
            pfm_select_inhibited(0, nullptr, nullptr, nullptr, &tv);
            say("not reached");
            pfm_cleanup_rls(&rec);
        } else {
            say("outer %d depth=%d", rec.value, pfm_inhibit_count());
        }
        wait(nullptr);
        return 0;
    });
    EXPECT_EQ(r.out, "outer 11 depth=1");
}

void raise_minus_three(int) { pfm_raise(-3); }

TEST(PfmSelect, NegativeUnwindPassesThroughOnce)
{
    auto r = run_in_child([] {
        alarm(10); // a loop of unwinds ends here rather than in the test's time-out
        pfm_signal(SIGTRAP, raise_minus_three);
        pid_t me = getpid();
        pfm_cleanup_t rec;
        if (PFM_CLEANUP_START(&rec, 0) == 0) {
            pfm_inhibit();
            pid_t sender = fork();
            if (sender == 0) {
                usleep(100000);
                kill(me, SIGTRAP);
                _exit(0);
            }
            struct timeval tv = {20, 0};
            pfm_select_inhibited(0, nullptr, nullptr, nullptr, &tv);
            say("not reached");
            pfm_cleanup_rls(&rec);
        } else {
            // A negative value leaves the outer record armed: release it.
            say("outer %d depth=%d ", rec.value, pfm_inhibit_count());
            pfm_cleanup_rls(&rec);
            pfm_enable();
            say("depth=%d", pfm_inhibit_count());
        }
        wait(nullptr);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "outer -3 depth=1 depth=0");
}

// ---------------------------------------------------------------------------
// Aborts: every one prints its line and dies by SIGABRT.

#define PFM_ASSERT_RE(text) "PFM_ASSERT:\\(" text "\\) failed: 'pfm\\.cpp':[0-9]+"

void arm_and_reset()
{
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) == 0)
        pfm_cleanup_reset(&rec);
}

void arm_twice()
{
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) == 0)
        if (PFM_CLEANUP_START(&rec, 0) == 0)
            pfm_cleanup_rls(&rec);
}

void release_outer()
{
    pfm_cleanup_t outer;
    pfm_cleanup_t inner;
    if (PFM_CLEANUP_START(&outer, 0) == 0)
        if (PFM_CLEANUP_START(&inner, 0) == 0)
            pfm_cleanup_rls(&outer);
}

void release_twice()
{
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) == 0) {
        pfm_cleanup_rls(&rec);
        pfm_cleanup_rls(&rec);
    }
}

void unwind_below_saved_depth()
{
    pfm_inhibit();
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) == 0) {
        pfm_enable();
        pfm_raise(3);
    }
}

void unwind_below_saved_suspend_depth()
{
    pfm_inhibit_suspend();
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) == 0) {
        pfm_enable_suspend();
        pfm_raise(3);
    }
}

void select_at_depth_zero()
{
    struct timeval tv = {0, 0};
    pfm_select_inhibited(0, nullptr, nullptr, nullptr, &tv);
}

// The common handler reached for a signal whose library-level entry is not a
// procedure: its address is borrowed from a routed signal.
void common_handler_on(int sig)
{
    pfm_signal(SIGUSR1, note_signal);
    struct sigaction sa;
    sigaction(SIGUSR1, nullptr, &sa);
    sigaction(sig, &sa, nullptr);
    kill(getpid(), sig);
}

void common_handler_on_ignored()
{
    pfm_signal(SIGUSR2, (pfm_signal_t)SIG_IGN);
    common_handler_on(SIGUSR2);
}

void failing_macro()
{
    volatile int zero = 0;
    PFM_ASSERT(zero == 1);
}

TEST(PfmDeathTest, EnableBelowZero)
{
    EXPECT_EXIT((no_core(), pfm_enable()), testing::KilledBySignal(SIGABRT), PFM_ASSERT_RE("inh_count >= 0"));
}

TEST(PfmDeathTest, EnableSuspendBelowZero)
{
    EXPECT_EXIT((no_core(), pfm_enable_suspend()), testing::KilledBySignal(SIGABRT),
                PFM_ASSERT_RE("pfm_inh_susp_count >= 0"));
}

TEST(PfmDeathTest, ResetOfArmedRecord)
{
    EXPECT_EXIT((no_core(), arm_and_reset()), testing::KilledBySignal(SIGABRT),
                PFM_ASSERT_RE("cl_rec->magic == MAGIC_TRIPPED"));
}

TEST(PfmDeathTest, ArmingARecordTwice)
{
    EXPECT_EXIT((no_core(), arm_twice()), testing::KilledBySignal(SIGABRT), PFM_ASSERT_RE("cl_tmp != cl_rec"));
}

TEST(PfmDeathTest, ReleasingAnOuterRecord)
{
    EXPECT_EXIT((no_core(), release_outer()), testing::KilledBySignal(SIGABRT),
                PFM_ASSERT_RE("cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET"));
}

TEST(PfmDeathTest, ReleasingTwice)
{
    EXPECT_EXIT((no_core(), release_twice()), testing::KilledBySignal(SIGABRT),
                PFM_ASSERT_RE("cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET"));
}

TEST(PfmDeathTest, UnwindBelowTheSavedDepth)
{
    EXPECT_EXIT((no_core(), unwind_below_saved_depth()), testing::KilledBySignal(SIGABRT),
                PFM_ASSERT_RE("pfm_inh_count >= cl_rec->inh"));
}

TEST(PfmDeathTest, UnwindBelowTheSavedSuspendDepth)
{
    EXPECT_EXIT((no_core(), unwind_below_saved_suspend_depth()), testing::KilledBySignal(SIGABRT),
                PFM_ASSERT_RE("pfm_inh_susp_count >= cl_rec->inh_susp"));
}

TEST(PfmDeathTest, SelectNotAtDepthOne)
{
    EXPECT_EXIT((no_core(), select_at_depth_zero()), testing::KilledBySignal(SIGABRT),
                PFM_ASSERT_RE("pfm_inh_count == 1"));
}

TEST(PfmDeathTest, CommonHandlerWithDefaultEntry)
{
    EXPECT_EXIT((no_core(), common_handler_on(SIGUSR2)), testing::KilledBySignal(SIGABRT),
                PFM_ASSERT_RE("handler_sigvec\\[sig-1\\] != \\(pfm_signal_t\\)SIG_DFL"));
}

TEST(PfmDeathTest, CommonHandlerWithIgnoredEntry)
{
    EXPECT_EXIT((no_core(), common_handler_on_ignored()), testing::KilledBySignal(SIGABRT),
                PFM_ASSERT_RE("handler_sigvec\\[sig-1\\] != \\(pfm_signal_t\\)SIG_IGN"));
}

TEST(PfmDeathTest, PanicPrintsSourceAndLine)
{
    EXPECT_EXIT((no_core(), pfm_panic("caller.c", 42)), testing::KilledBySignal(SIGABRT),
                "\\*\\*\\*ABORT\\*\\*\\*  'caller\\.c':42\n");
}

TEST(PfmDeathTest, AssertFailPrintsExpressionSourceAndLine)
{
    EXPECT_EXIT((no_core(), pfm_assert_fail("x > 0", "caller.c", 7)), testing::KilledBySignal(SIGABRT),
                "PFM_ASSERT:\\(x > 0\\) failed: 'caller\\.c':7\n");
}

TEST(PfmDeathTest, AssertMacroNamesTheCallersFile)
{
    EXPECT_EXIT((no_core(), failing_macro()), testing::KilledBySignal(SIGABRT),
                "PFM_ASSERT:\\(zero == 1\\) failed: '.*pfm_test\\.cpp':[0-9]+");
}

} // namespace
