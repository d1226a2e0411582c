// The message layer's printing: prefixes with the severity words, the output
// buffer, the choice of output procedure and stream, and the daemon time
// stamp.
#include "ks/imsg.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include "imsg_internal.h"
#include "imsg_msg.h"
#include "imsg_testing.h"
#include "ks_internal.h"

imsg_out_fn imsg_out_fns[IMSG_NTYPES] = {
    imsg_append_proc_default, imsg_append_proc_default, imsg_append_proc_default,
    imsg_append_proc_default, imsg_append_proc_default, imsg_append_proc_default,
    imsg_append_proc_default, imsg_append_proc_default, imsg_append_proc_default,
    imsg_append_proc_default, imsg_append_proc_default,
};

namespace {

constexpr size_t kFirstOutBufSize = 16384;

// Severity words "Ok: ", "Warning: ", "Error: " and "System message: ",
// fetched through the catalogue once per process and kept.
constexpr int kWordOk = 0;
constexpr int kWordWarning = 1;
constexpr int kWordError = 2;
constexpr int kWordSystem = 3;
char *severity_words[4];
bool words_fetched;

char prefix_buf[ks::kImsgPrefixSize];
bool suppress_prefix;

// One output buffer for the process, grown to the largest message seen.
char *out_buf_p;
size_t out_buf_size;

bool dup_output_read;
bool dup_output;
int current_type = IMSG_OK;

void fetch_severity_words()
{
    for (int i = 0; i < 4; i++) {
        const char *w = cat_extractmsg(&_imsg_ks_msg_table, IMSG_MSG_WORD_OK + i);
        severity_words[i] = strdup(w);
        if (severity_words[i] == nullptr)
            severity_words[i] = const_cast<char *>(_imsg_ks_msg_table.texts[IMSG_MSG_WORD_OK + i]);
    }
    words_fetched = true;
}

// Appends a literal word to the prefix format, doubling any '%'.
void append_word(const char *word)
{
    size_t len = strlen(prefix_buf);
    for (const char *p = word; *p != '\0' && len + 2 < sizeof prefix_buf; p++) {
        if (*p == '%')
            prefix_buf[len++] = '%';
        prefix_buf[len++] = *p;
    }
    prefix_buf[len] = '\0';
}

void append_format(const char *fmt)
{
    size_t len = strlen(prefix_buf);
    snprintf(prefix_buf + len, sizeof prefix_buf - len, "%s", fmt);
}

// The name part of a type's prefix format, "" for none.
const char *name_part(int type, int with_subsystem)
{
    switch (type) {
    case IMSG_OK:
    case IMSG_INFO: return ks::imsg_output_ok() ? (with_subsystem ? "%s/%s: " : "%s: ") : "";
    case IMSG_WARNING:
    case IMSG_ERROR: return with_subsystem ? "%s/%s: " : "%s: ";
    case IMSG_TRACE: return with_subsystem ? ">>> %s (%s/%s): " : ">>> %s (%s): ";
    default: return "";
    }
}

// Makes sure the output buffer holds at least size bytes.
void ensure_out_buf(size_t size)
{
    if (out_buf_p != nullptr && out_buf_size >= size)
        return;
    out_buf_p = static_cast<char *>(realloc(out_buf_p, size));
    if (out_buf_p == nullptr)
        ks::imsg_assert_fail("out_buf_p != NULL", KS_SOURCE_NAME, __LINE__);
    out_buf_size = size;
}

// Traced report of a failed format.
void report_format_error()
{
    if (imsg_should_trace("ks/imsg", 1) != 0)
        fprintf(stderr, "There was some kind of error in imsg_print_sharedv_util. (sz: %d).\n",
                static_cast<int>(out_buf_size));
}

// Print step 1: a copy of the type's prefix format (the unknown-type message
// reuses the static buffer).
void copy_prefix_format(char *pfx, int type, int with_subsys)
{
    const char *prefix_format = imsg_prefix_format(type, with_subsys);
    if (prefix_format == nullptr)
        ks::imsg_assert_fail("prefix_format != NULL", KS_SOURCE_NAME, __LINE__);
    snprintf(pfx, ks::kImsgPrefixSize, "%s", prefix_format);
}

// Print step 3: the log layer's steps before a daemon's message.
void run_daemon_steps()
{
    if (ks::imsg_daemon_log_name() == nullptr)
        return;
    const ks::imsg_services &s = ks::imsg_services_in_use();
    if (s.reopen_daemon_log != nullptr)
        s.reopen_daemon_log();
    if (s.drain_daemon_pipes != nullptr)
        s.drain_daemon_pipes();
}

// Print steps 4 to 9: prefix and text into the output buffer, grown once to
// fit.  The line's length, or -1 after a traced report.
int format_line(int type, bool with_subsys, const char *subsys, const char *pfx, const char *fmt,
                va_list ap)
{
    char ts[ks::kImsgStampSize] = "";
    if (type == IMSG_TRACE)
        ks::imsg_trace_time_stamp(ts, sizeof ts);
    ensure_out_buf(kFirstOutBufSize);
    int plen = ks::imsg_format_prefix(out_buf_p, out_buf_size, pfx, type, with_subsys, subsys, ts);
    if (plen < 0) {
        report_format_error();
        return -1;
    }
    auto pl = static_cast<size_t>(plen);
    bool prefix_fits = pl < out_buf_size;
    if (!prefix_fits && imsg_should_trace("ks/imsg", 1) != 0)
        fprintf(stderr, "prefix consumed entire buffer. (sz: %d).\n",
                static_cast<int>(out_buf_size));
    va_list aq;
    va_copy(aq, ap);
    int tlen = prefix_fits ? vsnprintf(out_buf_p + pl, out_buf_size - pl, fmt, aq)
                           : vsnprintf(nullptr, 0, fmt, aq);
    va_end(aq);
    if (tlen < 0) {
        report_format_error();
        return -1;
    }
    size_t total = pl + static_cast<size_t>(tlen);
    if (total >= out_buf_size) {
        ensure_out_buf(total + 1);
        if (!prefix_fits)
            ks::imsg_format_prefix(out_buf_p, out_buf_size, pfx, type, with_subsys, subsys, ts);
        va_copy(aq, ap);
        vsnprintf(out_buf_p + pl, out_buf_size - pl, fmt, aq);
        va_end(aq);
    }
    return static_cast<int>(total);
}

// Print step 10: the type's output procedure; IMSG_INFO and IMSG_INFO_CONT
// borrow those of IMSG_OK and IMSG_OK_CONT while their own is the default,
// types above 10 take that of IMSG_ERROR.
imsg_out_fn choose_procedure(int type)
{
    int slot = type >= IMSG_OK && type <= IMSG_NOTE_CONT ? type : IMSG_ERROR;
    imsg_out_fn fn = imsg_out_fns[slot];
    if (type == IMSG_INFO && fn == imsg_append_proc_default)
        return imsg_out_fns[IMSG_OK];
    if (type == IMSG_INFO_CONT && fn == imsg_append_proc_default)
        return imsg_out_fns[IMSG_OK_CONT];
    return fn;
}

// Whether IMSG_DUP_OUTPUT (read once) asks for the stream as well as an
// installed procedure.
bool wants_dup_output()
{
    if (!dup_output_read) {
        const char *v = getenv("IMSG_DUP_OUTPUT");
        int n = 0;
        dup_output = v != nullptr && sscanf(v, "%d", &n) == 1 && n != 0;
        dup_output_read = true;
    }
    return dup_output;
}

// An open command log takes every message (and a blank line after it while
// its extra-newlines flag is set).
bool write_to_command_log(const char *text)
{
    ks::imsg_log_info_t log = ks::imsg_log_info();
    if (log.ref_count <= 0 || log.stream == nullptr)
        return false;
    imsg_fputs(text, log.stream);
    if (log.extra_nls != 0)
        fputc('\n', log.stream);
    return true;
}

// Writes the line to the stream of its type, the daemon time stamp first.
void write_to_stream(int type, const char *text)
{
    FILE *stream =
        type >= 0 && type <= IMSG_INFO_CONT ? ks::imsg_out_stream() : ks::imsg_err_stream();
    if (ks::imsg_daemon_log_name() != nullptr && !ks::imsg_daemon_suspended())
        imsg_print_time(stream, type);
    imsg_fputs(text, stream);
}

// Print steps 10 to 14: the command log, an installed procedure, or the stream.
void deliver(int type, const char *text)
{
    imsg_out_fn fn = choose_procedure(type);
    current_type = type;
    if (write_to_command_log(text))
        return;
    bool installed = fn != nullptr && fn != imsg_append_proc_default;
    if (installed && !wants_dup_output()) {
        fn(type, text);
        return;
    }
    write_to_stream(type, text);
    if (installed)
        fn(type, text);
}

} // namespace

namespace ks {

int imsg_current_type_for_testing()
{
    return current_type;
}

void imsg_trace_time_stamp(char *ts, size_t size)
{
    struct timeval tv;
    clock_gettimeofday(&tv);
    time_t sec = tv.tv_sec;
    struct tm tm;
    localtime_r(&sec, &tm);
    char hms[16];
    strftime(hms, sizeof hms, "%H:%M:%S", &tm);
    auto ts_count = static_cast<size_t>(
        snprintf(ts, size, "%s.%.3d", hms, static_cast<int>(tv.tv_usec / 1000)));
    if (ts_count > size)
        imsg_assert_fail("ts_count <= ts_sz", KS_SOURCE_NAME, __LINE__);
}

int imsg_format_prefix(char *buf, size_t size, const char *pfx, int type, bool with_subsys,
                       const char *subsys, const char *ts)
{
    const char *name = imsg_get_app_name();
    if (type == IMSG_TRACE)
        return with_subsys ? snprintf(buf, size, pfx, ts, name, subsys)
                           : snprintf(buf, size, pfx, ts, name);
    return with_subsys ? snprintf(buf, size, pfx, name, subsys) : snprintf(buf, size, pfx, name);
}

} // namespace ks

const char *imsg_prefix_format(int type, int with_subsystem)
{
    imsg_initialize();
    if (!words_fetched)
        fetch_severity_words();
    prefix_buf[0] = '\0';
    if (suppress_prefix)
        return prefix_buf;
    if (type < IMSG_OK || type > IMSG_NOTE_CONT) {
        imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, IMSG_MSG_UNKNOWN_TYPE, type, "../imsg",
                   __LINE__);
        prefix_buf[0] = '\0';
        append_word(severity_words[kWordSystem]);
        return prefix_buf;
    }
    append_format(name_part(type, with_subsystem));
    if (type == IMSG_OK && ks::imsg_output_ok())
        append_word(severity_words[kWordOk]);
    else if (type == IMSG_WARNING)
        append_word(severity_words[kWordWarning]);
    else if (type == IMSG_ERROR)
        append_word(severity_words[kWordError]);
    return prefix_buf;
}

int imsg_suppress_prefix(int flag)
{
    imsg_initialize();
    int old = suppress_prefix;
    suppress_prefix = flag != 0;
    return old;
}

int32_t imsg_print_sharedv_util(int type, int with_subsys, const char *subsys, const void *table,
                                int index, va_list ap)
{
    char pfx[ks::kImsgPrefixSize];
    copy_prefix_format(pfx, type, with_subsys);
    if (index != -1 && table == nullptr) {
        ks::imsg_report_bad_table("print_sharedv", table, index);
        return -1;
    }
    imsg_initialize();
    run_daemon_steps();
    const char *fmt = ks::imsg_find_text(table, index, "vsprintf");
    if (fmt == nullptr)
        return -1;
    int total = format_line(type, with_subsys != 0, subsys != nullptr ? subsys : "", pfx, fmt, ap);
    if (total < 0)
        return -1;
    deliver(type, out_buf_p);
    return total;
}

int32_t imsg_print(int type, const void *table, int index, ...)
{
    va_list ap;
    va_start(ap, index);
    const char *subsys = ks::imsg_table_subsys(table, index);
    int32_t r = imsg_print_sharedv_util(type, 0, subsys, table, index, ap);
    va_end(ap);
    return r;
}

int32_t imsg_print_sharedv(int type, const char *subsys, const void *table, int index, va_list ap)
{
    imsg_initialize();
    if (subsys == nullptr)
        subsys = ks::imsg_table_subsys(table, index);
    return imsg_print_sharedv_util(type, ks::imsg_subsys_form() ? 1 : 0, subsys, table, index, ap);
}

int32_t imsg_print_shared(int type, const char *subsys, const void *table, int index, ...)
{
    va_list ap;
    va_start(ap, index);
    int32_t r = imsg_print_sharedv(type, subsys, table, index, ap);
    va_end(ap);
    return r;
}

void imsg_append_proc_default(int type, const char *text)
{
    imsg_initialize();
    if (text == nullptr)
        return;
    if (!write_to_command_log(text))
        write_to_stream(type, text);
}

void imsg_print_time(FILE *stream, int type)
{
    // The failure message below is itself of an even type, and the date
    // formatter reports through this layer: either would come back here.
    static bool busy;
    imsg_initialize();
    if (busy || stream == nullptr || type < 0 || type > IMSG_NOTE_CONT || type % 2 != 0)
        return;
    const ks::imsg_services &s = ks::imsg_services_in_use();
    if (s.time_stamp == nullptr)
        return;
    busy = true;
    char *stamp = s.time_stamp(ks::clock_time());
    if (stamp != nullptr) {
        fprintf(stream, "%s ", stamp);
        free(stamp);
    } else {
        imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, IMSG_MSG_NULL_MESSAGE,
                   "imsg_print_time: date_fmt_token_general failed");
    }
    busy = false;
}
