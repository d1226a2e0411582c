// The daemon log: a server's messages go to a log file for the rest of its
// life, reopened at most once an hour so that it can be rotated, and what any
// code writes to descriptors 1 and 2 is caught through pipes and copied in
// line by line, in the order it was said.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <initializer_list>

#include "imsg_internal.h"
#include "imsg_log_internal.h"
#include "imsg_msg.h"
#include "ks/imsg.h"
#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks_internal.h"

namespace {

constexpr time_t kReopenInterval = 3600;
constexpr mode_t kLogMode = 0666;
// The longest line copied from a pipe in one piece.
constexpr size_t kPipeLineSize = 4096;
constexpr int kStdOut = 0;
constexpr int kStdErr = 1;

// The read end of one pipe and the unfinished line it gave so far.
struct pipe_reader {
    FILE *in;
    size_t len;
    char pending[kPipeLineSize + 2]; // room for an added line end and the NUL
};

char *log_name;         // heap copy; non-null exactly in a daemon
bool separate_err;      // the error stream opens the file a second time
bool log_open;          // the current streams are log files opened here
time_t reopen_time;     // the log is not reopened before this
FILE *saved_streams[2]; // the log's streams while suspended
// Descriptors 1 and 2 as they were before the pipes, and streams on them:
// what suspension prints to.
int real_fds[2] = {-1, -1};
FILE *real_streams[2];
pipe_reader pipe_in[2];
bool draining;
bool exit_handler_set;

FILE *real_stream(int which)
{
    if (real_streams[which] != nullptr)
        return real_streams[which];
    return which == kStdOut ? stdout : stderr;
}

// Opens the log for the output stream and, by choice, again for the error
// stream; perror(name) when it cannot be opened.
bool open_log_streams(FILE **out, FILE **err)
{
    *out = fopen(log_name, "ae");
    *err = *out;
    if (*out != nullptr && separate_err) {
        *err = fopen(log_name, "ae");
        if (*err == nullptr) {
            int e = errno;
            fclose(*out);
            *out = nullptr;
            errno = e;
        }
    }
    if (*out == nullptr) {
        perror(log_name);
        return false;
    }
    setvbuf(*out, nullptr, _IOLBF, 0);
    if (*err != *out)
        setvbuf(*err, nullptr, _IOLBF, 0);
    return true;
}

void close_log_streams()
{
    FILE *out = ks::imsg_out_stream();
    FILE *err = ks::imsg_err_stream();
    if (err != out)
        fclose(err);
    fclose(out);
}

// Opens the log afresh; the old streams are kept when that fails (and are
// drained into and closed when it works).
void reopen_log()
{
    if (ks::imsg_log_refuses_link(log_name))
        return;
    FILE *out;
    FILE *err;
    if (!open_log_streams(&out, &err))
        return;
    // Set first: the lines drained below are printed, which asks again.
    reopen_time = ks::clock_time() + kReopenInterval;
    if (log_open) {
        ks::imsg_drain_daemon_pipes();
        close_log_streams();
    }
    ks::imsg_set_streams(out, err);
    log_open = true;
    fchmod(fileno(out), kLogMode);
}

void keep_stdin_open()
{
    int fd = open("/dev/null", O_RDONLY);
    if (fd < 0)
        imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, IMSG_MSG_CANNOT_OPEN_FILE, "/dev/null",
                   imsg_strerror(errno));
    else if (fd != 0)
        close(fd);
}

bool set_nonblocking(int fd)
{
    int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

// What catching descriptors 1 and 2 holds while it is being set up.
struct catch_state {
    int out[2] = {-1, -1}; // pipe of descriptor 1: read, write end
    int err[2] = {-1, -1};
    int saved[2] = {-1, -1};
    bool moved = false; // the write ends are on descriptors 1 and 2
};

// The steps of catching descriptors 1 and 2; the text of the step that
// failed, or null.  With flush, what stdio holds goes where it was meant to
// go first (a child's copy of its parent's buffers is not flushed).
const char *catch_steps(catch_state &c, bool flush)
{
    c.saved[kStdOut] = fcntl(1, F_DUPFD_CLOEXEC, 3);
    c.saved[kStdErr] = fcntl(2, F_DUPFD_CLOEXEC, 3);
    if (c.saved[kStdOut] < 0 || c.saved[kStdErr] < 0)
        return "Can't dup pipes to stdout/err";
    if (pipe2(c.out, O_CLOEXEC) != 0 || pipe2(c.err, O_CLOEXEC) != 0)
        return "Can't create pipe";
    if (flush) {
        fflush(stdout);
        fflush(stderr);
    }
    c.moved = true;
    if (dup2(c.out[1], 1) < 0 || dup2(c.err[1], 2) < 0)
        return "Can't dup pipes to stdout/err";
    if (!set_nonblocking(c.out[0]))
        return "Unable to set stdout read pipe non-blocking";
    if (!set_nonblocking(c.err[0]))
        return "Unable to set stderr read pipe non-blocking";
    if (!set_nonblocking(1))
        return "Unable to set stdout non-blocking";
    if (!set_nonblocking(2))
        return "Unable to set stderr non-blocking";
    if ((pipe_in[kStdOut].in = fdopen(c.out[0], "r")) == nullptr)
        return "Can't set stdout pipe read handle";
    c.out[0] = -1;
    if ((pipe_in[kStdErr].in = fdopen(c.err[0], "r")) == nullptr)
        return "Can't set stderr pipe read handle";
    c.err[0] = -1;
    return nullptr;
}

void close_fd(int fd)
{
    if (fd >= 0)
        close(fd);
}

// Gives the process back the descriptors it had: the saved copies go back
// on 1 and 2 (which closes the pipes' write ends there), then every pipe end
// and copy made on the way is closed.
void undo_catch(catch_state &c)
{
    for (pipe_reader &p : pipe_in)
        if (p.in != nullptr) {
            fclose(p.in);
            p.in = nullptr;
        }
    if (c.moved) {
        dup2(c.saved[kStdOut], 1);
        dup2(c.saved[kStdErr], 2);
    }
    for (int fd : {c.out[0], c.out[1], c.err[0], c.err[1], c.saved[0], c.saved[1]})
        close_fd(fd);
}

// Puts pipes on descriptors 1 and 2; false after the failed step was
// reported and the descriptors were given back.
bool catch_std_descriptors(bool flush)
{
    catch_state c;
    const char *failed = catch_steps(c, flush);
    if (failed != nullptr) {
        int e = errno;
        undo_catch(c);
        errno = e;
        perror(failed);
        return false;
    }
    close(c.out[1]);
    close(c.err[1]);
    for (int which : {kStdOut, kStdErr}) {
        real_fds[which] = c.saved[which];
        real_streams[which] = fdopen(real_fds[which], "w");
        if (real_streams[which] != nullptr)
            setvbuf(real_streams[which], nullptr, _IOLBF, 0);
    }
    return true;
}

// Puts descriptors 1 and 2 back as they were before the pipes.
void release_std_descriptors()
{
    for (int which : {kStdOut, kStdErr}) {
        pipe_reader &p = pipe_in[which];
        if (p.in != nullptr)
            fclose(p.in);
        p.in = nullptr;
        p.len = 0;
        if (real_fds[which] < 0)
            continue;
        dup2(real_fds[which], which + 1);
        if (real_streams[which] != nullptr)
            fclose(real_streams[which]);
        else
            close(real_fds[which]);
        real_fds[which] = -1;
        real_streams[which] = nullptr;
    }
}

// Prints the line waiting in p (a line end added if it has none) as one
// message of type.
void emit_pending(pipe_reader &p, int type)
{
    if (p.len == 0)
        return;
    if (p.pending[p.len - 1] != '\n')
        p.pending[p.len++] = '\n';
    p.pending[p.len] = '\0';
    p.len = 0;
    imsg_print(type, "%s", IMSG_LITERAL, p.pending);
}

// Copies the whole lines waiting in one pipe; an unfinished one stays
// pending until its end arrives or it fills kPipeLineSize bytes.
void copy_pipe(pipe_reader &p, int type)
{
    while (p.in != nullptr) {
        clearerr(p.in);
        errno = 0;
        char *at = p.pending + p.len;
        if (fgets(at, static_cast<int>(kPipeLineSize - p.len + 1), p.in) == nullptr) {
            if (ferror(p.in) != 0 && errno != EAGAIN && errno != EWOULDBLOCK)
                imsg_print(IMSG_ERROR, "Error while reading pipe: %s\n", IMSG_LITERAL,
                           imsg_strerror(errno));
            return;
        }
        p.len += strlen(at);
        if (p.len < kPipeLineSize && (p.len == 0 || p.pending[p.len - 1] != '\n'))
            return; // no more for now: the rest of the line comes later
        emit_pending(p, type);
    }
}

// At exit: stdio's buffers into the pipes, the pipes into the log, and the
// unfinished lines as they are.
void drain_at_exit(int status, void *arg)
{
    static_cast<void>(status);
    static_cast<void>(arg);
    if (log_name == nullptr)
        return;
    ks::imsg_drain_daemon_pipes();
    emit_pending(pipe_in[kStdOut], IMSG_INFO);
    emit_pending(pipe_in[kStdErr], IMSG_ERROR);
}

} // namespace

namespace ks {

void imsg_reopen_daemon_log_when_due()
{
    // Lines copied from the pipes do not try again: a failed try's perror
    // line is among them.
    if (log_name == nullptr || draining || imsg_daemon_suspended() || clock_time() <= reopen_time)
        return;
    reopen_log();
}

void imsg_drain_daemon_pipes()
{
    // Printing a copied line comes back here; that turn has nothing to do.
    if (log_name == nullptr || draining || pipe_in[kStdOut].in == nullptr)
        return;
    draining = true;
    fflush(stdout);
    fflush(stderr);
    copy_pipe(pipe_in[kStdOut], IMSG_INFO);
    copy_pipe(pipe_in[kStdErr], IMSG_ERROR);
    draining = false;
}

} // namespace ks

int32_t imsg_init_daemon(const char *path, int separate_stderr)
{
    imsg_initialize();
    ks::imsg_set_output_ok(true);
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    keep_stdin_open();
    char *copy = stg_strdup(path);
    if (copy == nullptr)
        return -1;
    bool first = log_name == nullptr;
    stg_free(log_name);
    log_name = copy;
    ks::imsg_set_daemon_log_name(log_name);
    separate_err = separate_stderr != 0;
    reopen_time = 0;
    if (!ks::imsg_daemon_suspended())
        reopen_log();
    if (!first)
        return 0;
    if (!exit_handler_set)
        pfm_on_exit(drain_at_exit, nullptr);
    exit_handler_set = true;
    bool caught = catch_std_descriptors(true);
    // Without a log file the messages go to the real descriptors, never into
    // the pipes they are drained from.
    if (caught && !log_open)
        ks::imsg_set_streams(real_stream(kStdOut), real_stream(kStdErr));
    return caught ? 0 : -1;
}

int imsg_am_daemon(void)
{
    imsg_initialize();
    return log_name != nullptr ? 1 : 0;
}

void imsg_suspend_daemon_logging(void)
{
    imsg_initialize();
    if (log_name == nullptr) {
        perror("Can't suspend daemon logging, process not a daemon");
        return;
    }
    if (ks::imsg_daemon_suspended())
        return;
    ks::imsg_drain_daemon_pipes();
    ks::imsg_set_output_ok(false);
    saved_streams[kStdOut] = ks::imsg_out_stream();
    saved_streams[kStdErr] = ks::imsg_err_stream();
    ks::imsg_set_streams(real_stream(kStdOut), real_stream(kStdErr));
    ks::imsg_set_daemon_suspended(true);
}

void imsg_resume_daemon_logging(void)
{
    imsg_initialize();
    if (log_name == nullptr) {
        perror("Can't resume daemon logging, process not a daemon");
        return;
    }
    if (!ks::imsg_daemon_suspended())
        return;
    ks::imsg_drain_daemon_pipes();
    ks::imsg_set_output_ok(true);
    ks::imsg_set_streams(saved_streams[kStdOut], saved_streams[kStdErr]);
    saved_streams[kStdOut] = nullptr;
    saved_streams[kStdErr] = nullptr;
    ks::imsg_set_daemon_suspended(false);
}

void imsg_starting_process(void)
{
    imsg_initialize();
    if (log_name == nullptr)
        return;
    if (pipe_in[kStdOut].in != nullptr) {
        release_std_descriptors();
        catch_std_descriptors(false);
    }
    // The streams in use may have been the parent's real ones, just closed.
    if (ks::imsg_daemon_suspended() || !log_open)
        ks::imsg_set_streams(real_stream(kStdOut), real_stream(kStdErr));
    reopen_time = 0;
    ks::imsg_reopen_daemon_log_when_due();
}

void imsg_drain_pipes(void)
{
    imsg_initialize();
    if (log_name == nullptr) {
        imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, IMSG_MSG_NOT_DAEMON_DRAIN);
        return;
    }
    ks::imsg_drain_daemon_pipes();
}
