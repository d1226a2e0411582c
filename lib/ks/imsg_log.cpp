// The command log: a file that takes every printed message of a command for
// a while, under a header saying when, where, by which process and for which
// user.  Several processes may share one file: each holds an exclusive record
// lock on it from start to end.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "imsg_internal.h"
#include "imsg_log_internal.h"
#include "imsg_msg.h"
#include "ks/date.h"
#include "ks/fileutl.h"
#include "ks/imsg.h"
#include "ks/stg.h"
#include "ks/sysutl.h"
#include "ks_assert.h"
#include "ks_internal.h"

namespace {

constexpr int kLockTries = 20;
constexpr char kAsteriskLine[] =
    "\n*******************************************************************\n";

char *hdrfmt; // message 79, fetched once and kept
bool locked;  // the log file carries this process's record lock
bool owned;   // the log stream was opened here and is closed at the end

FILE *error_stream()
{
    FILE *err = ks::imsg_err_stream();
    return err != nullptr ? err : stderr;
}

bool set_lock(FILE *file, short type)
{
    struct flock fl = {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0; // the whole file, however long it grows
    return fcntl(fileno(file), F_SETLK, &fl) == 0;
}

// Tries the lock kLockTries times in a row, never waiting for it.
bool lock_log(FILE *file)
{
    for (int i = 0; i < kLockTries; i++)
        if (set_lock(file, F_WRLCK))
            return true;
    return false;
}

// The stream a new log writes to: the file at path, opened for update (made
// when missing), locked unless a terminal and positioned at its end once the
// lock is held, so nothing another process wrote is overwritten.  The error
// stream when the file cannot be used.
FILE *open_log(const char *path)
{
    if (ks::imsg_log_refuses_link(path))
        return error_stream();
    FILE *file = fopen(path, "r+e");
    if (file == nullptr && errno == ENOENT)
        file = fopen(path, "w+e");
    if (file == nullptr) {
        imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, IMSG_MSG_CANNOT_OPEN_FILE, path,
                   imsg_strerror(errno));
        return error_stream();
    }
    if (isatty(fileno(file)) == 0) {
        if (!lock_log(file)) {
            fclose(file);
            return error_stream();
        }
        locked = true;
    }
    fseeko(file, 0, SEEK_END);
    owned = true;
    return file;
}

void write_header(FILE *log)
{
    if (hdrfmt == nullptr)
        hdrfmt = stg_strdup(cat_extractmsg(&_imsg_ks_msg_table, IMSG_MSG_LOG_HEADER));
    KS_ASSERT(hdrfmt != nullptr, "hdrfmt != NULL");
    const char *when = date_fmt_long_date_time(ks::clock_time());
    fputs(kAsteriskLine, log);
    fprintf(log, hdrfmt, when != nullptr ? when : "", sysutl_myhostname(),
            static_cast<int>(getpid()), sysutl_myloginname());
    fflush(log);
}

// Ends the log: what it holds reaches the file before another process can
// take the lock.
int close_log(FILE *log)
{
    int status = 0;
    if (log != nullptr && fflush(log) != 0)
        status = -1;
    if (locked)
        set_lock(log, F_UNLCK);
    if (owned && fclose(log) != 0)
        status = -1;
    locked = false;
    owned = false;
    return status;
}

} // namespace

namespace ks {

bool imsg_log_refuses_link(const char *path)
{
    struct stat st;
    if (path[0] == '\0' || fileutl_stat(path, 0, &st) != 0 || !S_ISLNK(st.st_mode))
        return false;
    FILE *err = error_stream();
    fprintf(err, "Unable to open log file \"%s\": pathname must not be a symbolic link.\n", path);
    fflush(err);
    return true;
}

} // namespace ks

FILE *imsg_start_log(const char *path, int ignored)
{
    static_cast<void>(ignored);
    imsg_initialize();
    return imsg_start_log_file(path);
}

FILE *imsg_start_log_file(const char *path)
{
    ks::imsg_drain_daemon_pipes();
    imsg_initialize();
    ks::imsg_log_info_t log = ks::imsg_log_info();
    // A count set by imsg_sync_log with nothing inherited still needs a file.
    if (log.ref_count <= 0 || log.stream == nullptr) {
        log.stream = open_log(path != nullptr ? path : "");
        log.is_tty = isatty(fileno(log.stream)) != 0 ? 1 : 0;
        if (log.ref_count < 1)
            log.ref_count = 1;
        ks::imsg_set_log_info(log);
    }
    write_header(log.stream);
    return log.stream;
}

int32_t imsg_end_log(void)
{
    imsg_initialize();
    ks::imsg_log_info_t log = ks::imsg_log_info();
    if (log.ref_count <= 0) {
        log.ref_count = 0;
        ks::imsg_set_log_info(log);
        return 0;
    }
    ks::imsg_drain_daemon_pipes();
    log = ks::imsg_log_info();
    if (--log.ref_count > 0) {
        ks::imsg_set_log_info(log);
        return 0;
    }
    ks::imsg_set_log_info({0, 0, nullptr, 0});
    return close_log(log.stream);
}

int32_t imsg_end_log_file(void)
{
    return imsg_end_log();
}

int32_t imsg_sync_log(int32_t count)
{
    imsg_initialize();
    ks::imsg_log_info_t log = ks::imsg_log_info();
    if (count < 1 && log.ref_count > 0) {
        log.ref_count = 1;
        ks::imsg_set_log_info(log);
        return imsg_end_log();
    }
    log.ref_count = count < 0 ? 0 : count;
    ks::imsg_set_log_info(log);
    return log.ref_count;
}

int32_t imsg_log_ref_count(void)
{
    imsg_initialize();
    return ks::imsg_log_info().ref_count;
}

void imsg_set_log_nextra_nls(void)
{
    imsg_initialize();
    ks::imsg_log_info_t log = ks::imsg_log_info();
    if (log.ref_count > 0) {
        log.extra_nls = 1;
        ks::imsg_set_log_info(log);
    }
}
