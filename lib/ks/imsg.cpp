// The message layer: catalogue look-up, prefixes, printing, styled writing,
// trace decisions and formatting of messages into memory.
//
// This module sits beneath the reporting heap wrappers (they print through
// it), so it keeps its own state with the C allocator: a failure here must
// never call back into a layer that prints.
#include "ks/imsg.h"

#include <errno.h>
#include <limits.h>
#include <nl_types.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>
#include <wchar.h>

#include "imsg_internal.h"
#include "ks/date.h"
#include "ks/ks_product.h"
#include "ks/pfm.h"
#include "ks/strutl.h"
#include "ks/clp.h"
#include "ks_internal.h"

// The terminal library last: its headers define many short macros.
#include <curses.h>
#include <term.h>

#define IMSG_TBL(p) (static_cast<const imsg_msg_table_t *>(p))

// Indices into the imsg table (the catalogue numbers are 3 more, or more).
enum {
    IX_UNKNOWN_TYPE = 0,
    IX_WORD_ABORT = 12,
    IX_WORD_OK = 14,
    IX_WORD_SYSTEM = 17,
    IX_NULL_MESSAGE = 18,
    IX_BAD_TABLE = 19,
    IX_HOST_NOT_FOUND = 95,
    IX_NO_DATA = 96,
    IX_NO_RECOVERY = 97,
    IX_TRY_AGAIN = 98
};

extern "C" {
KS_API imsg_out_fn imsg_out_fns[IMSG_NTYPES] = {
    imsg_append_proc_default, imsg_append_proc_default, imsg_append_proc_default,
    imsg_append_proc_default, imsg_append_proc_default, imsg_append_proc_default,
    imsg_append_proc_default, imsg_append_proc_default, imsg_append_proc_default,
    imsg_append_proc_default, imsg_append_proc_default,
};
KS_API int32_t imsg_desired_verbosity = 32767;
KS_API const char *imsg_desired_tsubsys = nullptr;
}

namespace ks {
imsg_log_info_t imsg_log_info = {0, 0, nullptr, 0};
char *imsg_daemon_log_name = nullptr;
bool imsg_daemon_suspended = false;
void (*imsg_daemon_reopen_hook)() = nullptr;
void (*imsg_drain_pipes_hook)() = nullptr;
FILE *imsg_out_stream = nullptr;
FILE *imsg_err_stream = nullptr;
} // namespace ks

namespace {

const char default_app_name[] = "noname";
const char default_message_home[] = "/opt/tamarack/ottermere";
const char default_errnum_file[] = "errnum.imsg";
const char capture_header[] = "## library : subsys : msg ID : msg text\n";
const int32_t verbosity_unread = 32767;
const size_t first_out_buf_size = 16384;

bool initialized;
char *app_name;            // heap copy, or null for the default
char *message_home;        // heap copy, or null for the default
char *errnum_file;         // heap copy, or null for the default
FILE *errnum_stream;
imsg_clock_fn clock_fn;
void *clock_arg;

bool output_subsys;
bool output_ok;
bool suppress_prefix;
bool io_interleave;
bool ate_enabled;
bool capture_enabled;
bool capture_started;
bool dup_output_read;
bool dup_output;
int current_type = IMSG_OK;

char *out_buf_p;
size_t out_buf_size;
char i18n_log_name[1024];
char error_number_message[256];

// The catalogue cache: two open catalogues, chosen by recency.
struct cat_slot {
    nl_catd catd;        // (nl_catd)-1: the open failed
    char *name;
    struct timeval used; // last successful look-up
};
const nl_catd no_catd = reinterpret_cast<nl_catd>(-1);
cat_slot slots[2];
bool cache_ready;
int last_used_slot = -1;
int round_robin;
unsigned catalog_opens;

// Severity words, fetched once through the catalogue.
char *severity_words[4];
bool words_fetched;
char prefix_buf[512];

// Styled writing.
enum term_state_t { TERM_UNTRIED, TERM_READY, TERM_UNAVAILABLE };
term_state_t term_state = TERM_UNTRIED;
const char *style_caps[6]; // bold, sgr0, smso, rmso, smul, rmul
struct termios saved_modes;
FILE *putchar_stream;

const char *app_name_or_default()
{
    return app_name ? app_name : default_app_name;
}

const char *default_text(const imsg_msg_table_t *t, int index)
{
    return t->texts[index];
}

// Whether name occurs in a ':'-separated list where an element starts (the
// list's start or after a ':') and ends (the list's end or a ':').
bool list_has(const char *list, const char *name)
{
    size_t n = strlen(name);
    for (const char *p = list;;) {
        if (strncmp(p, name, n) == 0 && (p[n] == '\0' || p[n] == ':'))
            return true;
        p = strchr(p, ':');
        if (!p)
            return false;
        p++;
    }
}

// Message 27: a null table or an index outside it.
void report_bad_table(const char *what, const void *table, int index)
{
    imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, IX_BAD_TABLE, what,
               static_cast<long>(reinterpret_cast<intptr_t>(table)), index);
}

// The subsystem a message carries: its table's, none for a literal format.
const char *table_subsys(const void *table, int index)
{
    return index != -1 && table ? IMSG_TBL(table)->subsys : "";
}

// Traced report of a failed format.
void report_format_error()
{
    if (imsg_should_trace("ks/imsg", 1))
        fprintf(stderr, "There was some kind of error in imsg_print_sharedv_util. (sz: %d).\n",
                static_cast<int>(out_buf_size));
}

void append_capture_line(const imsg_msg_table_t *t, int index)
{
    FILE *f = fopen(i18n_log_name, "a+");
    if (!f)
        return;
    fprintf(f, "%s : %s : %d : %s\n", t->catalog, t->subsys, t->numbers[index], t->texts[index]);
    fclose(f);
}

// Finds the text of (table, index) as printing and the memory formatters do:
// internal errors are printed and give null.
const char *find_text(const void *table, int index, const char *what)
{
    if (index == -1) {
        if (!table)
            imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, IX_NULL_MESSAGE, "vsprintf/NOMSG");
        return static_cast<const char *>(table);
    }
    const imsg_msg_table_t *t = IMSG_TBL(table);
    if (!t || index < 0 || index >= t->count) {
        report_bad_table(what, table, index);
        return nullptr;
    }
    if (capture_enabled)
        append_capture_line(t, index);
    return cat_extractmsg(t, index);
}

void fetch_severity_words()
{
    for (int i = 0; i < 4; i++) {
        const char *w = cat_extractmsg(&_imsg_ks_msg_table, IX_WORD_OK + i);
        severity_words[i] = strdup(w);
        if (!severity_words[i])
            severity_words[i] = const_cast<char *>(default_text(&_imsg_ks_msg_table, IX_WORD_OK + i));
    }
    words_fetched = true;
}

// Appends a literal word to the prefix format, doubling any '%'.
void append_word(const char *word)
{
    size_t len = strlen(prefix_buf);
    for (const char *p = word; *p && len + 2 < sizeof prefix_buf; p++) {
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

// Makes sure the output buffer holds at least size bytes.
void ensure_out_buf(size_t size)
{
    if (out_buf_p && out_buf_size >= size)
        return;
    out_buf_p = static_cast<char *>(realloc(out_buf_p, size));
    PFM_ASSERT(out_buf_p != NULL);
    out_buf_size = size;
}

// "%H:%M:%S.mmm" of now.
void trace_time_stamp(char *ts, size_t ts_sz)
{
    struct timeval tv;
    ks::clock_gettimeofday(&tv);
    time_t sec = tv.tv_sec;
    struct tm tm;
    localtime_r(&sec, &tm);
    char hms[16];
    strftime(hms, sizeof hms, "%H:%M:%S", &tm);
    size_t ts_count = static_cast<size_t>(snprintf(ts, ts_sz, "%s.%.3d", hms, static_cast<int>(tv.tv_usec / 1000)));
    PFM_ASSERT(ts_count <= ts_sz);
}

// Formats the prefix format with its arguments into buf.
int format_prefix(char *buf, size_t size, const char *pfx, int type, int with_subsys, const char *subsys,
                  const char *ts)
{
    if (type == IMSG_TRACE)
        return with_subsys ? snprintf(buf, size, pfx, ts, app_name_or_default(), subsys)
                           : snprintf(buf, size, pfx, ts, app_name_or_default());
    return with_subsys ? snprintf(buf, size, pfx, app_name_or_default(), subsys)
                       : snprintf(buf, size, pfx, app_name_or_default());
}

// Formats a looked-up text into memory (size 0: unbounded).
int format_text(char *buf, size_t size, const char *fmt, va_list ap)
{
    if (size == 0)
        return vsprintf(buf, fmt, ap);
    return strutl_vsnprintf(buf, size, fmt, ap);
}

bool stream_is_tty(FILE *stream)
{
    int fd = fileno(stream);
    return fd >= 0 && isatty(fd);
}

// Writes the line to the command log, or to the stream of its type with the
// daemon time stamp in front.
void write_line(int type, const char *text)
{
    if (ks::imsg_log_info.ref_count > 0 && ks::imsg_log_info.stream) {
        imsg_fputs(text, ks::imsg_log_info.stream);
        return;
    }
    FILE *stream = (type >= 0 && type <= IMSG_INFO_CONT) ? ks::imsg_out_stream : ks::imsg_err_stream;
    if (ks::imsg_daemon_log_name && !ks::imsg_daemon_suspended)
        imsg_print_time(stream, type);
    imsg_fputs(text, stream);
}

void imsg_reset_term(int status, void *arg)
{
    (void)status;
    (void)arg;
    tcsetattr(1, TCSADRAIN, &saved_modes);
}

void imsg_sigttou_handler(int sig)
{
    pfm_raise(sig);
}

// Loads the terminal description and the six style capabilities (once).
// A background process that touches the terminal here gets SIGTTOU, which
// is raised as a fault so that it stops cleanly instead of hanging.
void setup_terminal()
{
    const char *term = getenv("TERM");
    term_state = TERM_UNAVAILABLE;
    if (!term || !*term || ks_no_bold())
        return;
    struct sigaction sa, old;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = imsg_sigttou_handler;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTTOU, &sa, &old);
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) == 0) {
        if (tcgetattr(1, &saved_modes) == 0)
            pfm_on_exit(imsg_reset_term, nullptr);
        int err = 0;
        if (setupterm(term, 1, &err) == OK) {
            static const char *const names[6] = {"bold", "sgr0", "smso", "rmso", "smul", "rmul"};
            for (int i = 0; i < 6; i++) {
                const char *cap = tigetstr(names[i]);
                style_caps[i] = (cap && cap != reinterpret_cast<char *>(-1)) ? cap : nullptr;
            }
            term_state = TERM_READY;
        }
        pfm_cleanup_rls(&rec);
    } else {
        sigaction(SIGTTOU, &old, nullptr);
        pfm_raise(rec.value);
    }
    sigaction(SIGTTOU, &old, nullptr);
}

// The capability of a style sequence's digit and letter, -1 if none.
int style_index(char state, char letter)
{
    int base;
    switch (letter) {
    case 'B': base = 0; break;
    case 'I': base = 2; break;
    case 'U': base = 4; break;
    default: return -1;
    }
    if (state == '1')
        return base;
    if (state == '0')
        return base + 1;
    return -1;
}

} // namespace

namespace ks {
bool imsg_set_output_ok(bool on)
{
    imsg_initialize();
    bool old = output_ok;
    output_ok = on;
    return old;
}
bool imsg_output_ok() { return output_ok; }
unsigned imsg_catalog_open_count() { return catalog_opens; }
const char *imsg_catalog_slot_name(int slot)
{
    return (slot == 0 || slot == 1) && cache_ready ? slots[slot].name : nullptr;
}
bool imsg_tagging_enabled() { return ate_enabled; }
const char *imsg_errnum_file() { return errnum_file ? errnum_file : default_errnum_file; }
int imsg_current_type() { return current_type; }
} // namespace ks

extern "C" {

void imsg_initialize(void)
{
    if (initialized)
        return;
    ks::imsg_out_stream = stdout;
    ks::imsg_err_stream = stderr;
    const char *v = getenv("PRINT_SUBSYS");
    if (v && *v)
        output_subsys = true;
    v = getenv("PRINT_SUBSYS_OK");
    if (v && *v) {
        output_subsys = true;
        output_ok = true;
    }
    v = getenv("IMSG_IO_INTERLEAVE");
    if (v && *v)
        io_interleave = true;
    v = getenv("OTTERMERE_ENABLE_ATE_MESSAGES");
    if (v && strutl_stricoll(v, "True") == 0)
        ate_enabled = true;
    v = getenv("OTTERMERE_IMSG_CAPTURE_LOG");
    if (v && *v) {
        capture_enabled = true;
        snprintf(i18n_log_name, sizeof i18n_log_name, "%s.%d", v, static_cast<int>(getpid()));
        FILE *f = fopen(i18n_log_name, "a+");
        if (f) {
            fputs(capture_header, f);
            fclose(f);
            capture_started = true;
        }
    }
    initialized = true;
}

const char *cat_extractmsg(const void *table, int index)
{
    const imsg_msg_table_t *t = IMSG_TBL(table);
    if (!t || index < 0 || index >= t->count) {
        report_bad_table("cat_extractmsg", table, index);
        return "";
    }
    if (!cache_ready) {
        for (auto &s : slots) {
            s.catd = no_catd;
            s.name = nullptr;
            s.used.tv_sec = 0;
            s.used.tv_usec = 0;
        }
        last_used_slot = -1;
        round_robin = 0;
        cache_ready = true;
    }
    int use = -1;
    if (last_used_slot >= 0 && slots[last_used_slot].name &&
        strcmp(slots[last_used_slot].name, t->catalog) == 0) {
        use = last_used_slot;
    } else {
        int candidate = -1;
        for (int i = 0; i < 2; i++) {
            if (slots[i].name && strcmp(slots[i].name, t->catalog) == 0) {
                use = i;
                last_used_slot = i;
                break;
            }
            if (!slots[i].name || (candidate < 0 && slots[i].catd == no_catd))
                candidate = i;
        }
        if (use < 0) {
            if (candidate >= 0) {
                use = slots[round_robin].catd == no_catd ? round_robin : candidate;
                round_robin = 1 - round_robin;
            } else {
                const struct timeval &a = slots[0].used, &b = slots[1].used;
                bool zero_later = a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_usec > b.tv_usec);
                use = zero_later ? 1 : 0;
            }
            cat_slot &s = slots[use];
            if (s.catd != no_catd)
                catclose(s.catd);
            s.catd = no_catd;
            free(s.name);
            s.name = strdup(t->catalog);
            if (s.name) {
                s.catd = catopen(s.name, 0);
                catalog_opens++;
            }
            last_used_slot = use;
        }
    }
    cat_slot &s = slots[use];
    if (s.catd == no_catd)
        return default_text(t, index);
    date_get_timeval(&s.used);
    return catgets(s.catd, t->set, t->numbers[index], default_text(t, index));
}

const char *imsg_prefix_format(int type, int with_subsystem)
{
    imsg_initialize();
    if (!words_fetched)
        fetch_severity_words();
    prefix_buf[0] = '\0';
    if (suppress_prefix)
        return prefix_buf;
    if (type < IMSG_OK || type > IMSG_NOTE_CONT) {
        imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, IX_UNKNOWN_TYPE, type, "../imsg", __LINE__);
        prefix_buf[0] = '\0';
        append_word(severity_words[3]);
        return prefix_buf;
    }
    const char *name_part = with_subsystem ? "%s/%s: " : "%s: ";
    switch (type) {
    case IMSG_OK:
    case IMSG_INFO:
        if (output_ok)
            append_format(name_part);
        break;
    case IMSG_WARNING:
    case IMSG_ERROR:
        append_format(name_part);
        break;
    case IMSG_TRACE:
        append_format(with_subsystem ? ">>> %s (%s/%s): " : ">>> %s (%s): ");
        break;
    default:
        break;
    }
    if (type == IMSG_OK && output_ok)
        append_word(severity_words[0]);
    else if (type == IMSG_WARNING)
        append_word(severity_words[1]);
    else if (type == IMSG_ERROR)
        append_word(severity_words[2]);
    return prefix_buf;
}

int imsg_suppress_prefix(int flag)
{
    imsg_initialize();
    int old = suppress_prefix;
    suppress_prefix = flag != 0;
    return old;
}

int imsg_output_subsys(int flag)
{
    imsg_initialize();
    int old = output_subsys;
    output_subsys = flag != 0;
    return old;
}

int32_t imsg_print_sharedv_util(int type, int with_subsys, const char *subsys, const void *table, int index,
                                va_list ap)
{
    // A copy: the unknown-type message below reuses the static prefix buffer.
    char pfx[sizeof prefix_buf];
    const char *prefix_format = imsg_prefix_format(type, with_subsys);
    PFM_ASSERT(prefix_format != NULL);
    snprintf(pfx, sizeof pfx, "%s", prefix_format);
    if (!subsys)
        subsys = "";

    if (index != -1 && !table) {
        report_bad_table("print_sharedv", table, index);
        return -1;
    }

    imsg_initialize();
    if (ks::imsg_daemon_log_name) {
        if (ks::imsg_daemon_reopen_hook)
            ks::imsg_daemon_reopen_hook();
        if (ks::imsg_drain_pipes_hook)
            ks::imsg_drain_pipes_hook();
    }

    char ts[32] = "";
    if (type == IMSG_TRACE)
        trace_time_stamp(ts, sizeof ts);

    ensure_out_buf(first_out_buf_size);

    int plen = format_prefix(out_buf_p, out_buf_size, pfx, type, with_subsys, subsys, ts);
    const char *fmt = find_text(table, index, "vsprintf");
    if (!fmt)
        return -1;
    if (plen < 0) {
        report_format_error();
        return -1;
    }
    size_t pl = static_cast<size_t>(plen);
    bool prefix_fits = pl < out_buf_size;
    if (!prefix_fits && imsg_should_trace("ks/imsg", 1))
        fprintf(stderr, "prefix consumed entire buffer. (sz: %d).\n", static_cast<int>(out_buf_size));

    va_list aq;
    va_copy(aq, ap);
    int tlen = prefix_fits ? vsnprintf(out_buf_p + pl, out_buf_size - pl, fmt, aq) : vsnprintf(nullptr, 0, fmt, aq);
    va_end(aq);
    if (tlen < 0) {
        report_format_error();
        return -1;
    }
    size_t total = pl + static_cast<size_t>(tlen);
    if (total >= out_buf_size) {
        ensure_out_buf(total + 1);
        if (!prefix_fits)
            format_prefix(out_buf_p, out_buf_size, pfx, type, with_subsys, subsys, ts);
        va_copy(aq, ap);
        vsnprintf(out_buf_p + pl, out_buf_size - pl, fmt, aq);
        va_end(aq);
    }

    int slot = (type >= IMSG_OK && type <= IMSG_NOTE_CONT) ? type : IMSG_ERROR;
    imsg_out_fn fn = imsg_out_fns[slot];
    if (type == IMSG_INFO && fn == imsg_append_proc_default)
        fn = imsg_out_fns[IMSG_OK];
    else if (type == IMSG_INFO_CONT && fn == imsg_append_proc_default)
        fn = imsg_out_fns[IMSG_OK_CONT];
    current_type = type;

    if (ks::imsg_log_info.ref_count > 0 && ks::imsg_log_info.stream) {
        imsg_fputs(out_buf_p, ks::imsg_log_info.stream);
        return static_cast<int32_t>(total);
    }
    bool also_procedure = false;
    if (fn && fn != imsg_append_proc_default) {
        if (!dup_output_read) {
            const char *v = getenv("IMSG_DUP_OUTPUT");
            int n = 0;
            dup_output = v && sscanf(v, "%d", &n) == 1 && n != 0;
            dup_output_read = true;
        }
        if (!dup_output) {
            fn(type, out_buf_p);
            return static_cast<int32_t>(total);
        }
        also_procedure = true;
    }
    write_line(type, out_buf_p);
    if (also_procedure)
        fn(type, out_buf_p);
    return static_cast<int32_t>(total);
}

int32_t imsg_print(int type, const void *table, int index, ...)
{
    va_list ap;
    va_start(ap, index);
    const char *subsys = table_subsys(table, index);
    int32_t r = imsg_print_sharedv_util(type, 0, subsys, table, index, ap);
    va_end(ap);
    return r;
}

int32_t imsg_print_sharedv(int type, const char *subsys, const void *table, int index, va_list ap)
{
    imsg_initialize();
    if (!subsys)
        subsys = table_subsys(table, index);
    return imsg_print_sharedv_util(type, output_subsys, subsys, table, index, ap);
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
    if (text)
        write_line(type, text);
}

void imsg_print_time(FILE *stream, int type)
{
    static bool busy; // the failure message below is itself an even type
    imsg_initialize();
    if (busy || !stream || type < 0 || type > IMSG_NOTE_CONT || type % 2 != 0)
        return;
    busy = true;
    char *s = date_fmt_token_general(ks::clock_time(), 0, 0, 0, 0);
    if (s) {
        fprintf(stream, "%s ", s);
        free(s);
    } else {
        imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, IX_NULL_MESSAGE,
                   "imsg_print_time: date_fmt_token_general failed");
    }
    busy = false;
}

int imsg_putchar(int c)
{
    return putc(c, putchar_stream ? putchar_stream : stdout);
}

int imsg_fputs(const char *text, FILE *stream)
{
    imsg_initialize();
    if (!text || !stream)
        return EOF;
    if (io_interleave) {
        // Keeps the two streams in the order things were said.
        FILE *other = stream == ks::imsg_err_stream ? ks::imsg_out_stream : ks::imsg_err_stream;
        if (other && other != stream)
            fflush(other);
    }
    bool multibyte = MB_CUR_MAX > 1;
    mbstate_t mbs;
    memset(&mbs, 0, sizeof mbs);
    const char *run = text;
    const char *p = text;
    while (*p) {
        if (p[0] == '\001' && p[1] == '\001' && p[2] && p[3]) {
            int cap = style_index(p[2], p[3]);
            if (cap >= 0) {
                fwrite(run, 1, static_cast<size_t>(p - run), stream);
                if (term_state == TERM_UNTRIED && stream_is_tty(stream))
                    setup_terminal();
                if (term_state == TERM_READY && style_caps[cap] && stream_is_tty(stream)) {
                    putchar_stream = stream;
                    tputs(style_caps[cap], 1, imsg_putchar);
                    putchar_stream = nullptr;
                }
                p += 4;
                run = p;
                continue;
            }
        }
        if (io_interleave && p[0] == '|' && p[1] == '|') {
            fwrite(run, 1, static_cast<size_t>(p - run), stream);
            fflush(stream);
            p += 2;
            run = p;
            continue;
        }
        size_t step = 1;
        if (multibyte) {
            size_t n = mbrlen(p, MB_CUR_MAX, &mbs);
            if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2)) {
                memset(&mbs, 0, sizeof mbs);
            } else if (n > 1) {
                step = n;
            }
        }
        p += step;
    }
    fwrite(run, 1, static_cast<size_t>(p - run), stream);
    if (io_interleave)
        fflush(stream);
    return ferror(stream) ? EOF : 0;
}

int imsg_vsnprintf(char *buf, size_t size, const void *table, int index, va_list ap)
{
    imsg_initialize();
    const char *fmt = find_text(table, index, "vsprintf");
    if (!fmt)
        return -1;
    return format_text(buf, size, fmt, ap);
}

int imsg_snprintf(char *buf, size_t size, const void *table, int index, ...)
{
    va_list ap;
    va_start(ap, index);
    int r = imsg_vsnprintf(buf, size, table, index, ap);
    va_end(ap);
    return r;
}

int imsg_vsprintf(char *buf, const void *table, int index, va_list ap)
{
    return imsg_vsnprintf(buf, 0, table, index, ap);
}

int imsg_sprintf(char *buf, const void *table, int index, ...)
{
    va_list ap;
    va_start(ap, index);
    int r = imsg_vsnprintf(buf, 0, table, index, ap);
    va_end(ap);
    return r;
}

int imsg_vsnprintf_taggable(char *buf, size_t size, const void *table, int index, va_list ap)
{
    return imsg_vsnprintf(buf, size, table, index, ap);
}

int imsg_snprintf_taggable(char *buf, size_t size, const void *table, int index, ...)
{
    va_list ap;
    va_start(ap, index);
    int r = imsg_vsnprintf(buf, size, table, index, ap);
    va_end(ap);
    return r;
}

int imsg_snprintf_type(char *buf, size_t size, int type, const void *table, int index, ...)
{
    char prefix_format[sizeof prefix_buf];
    snprintf(prefix_format, sizeof prefix_format, "%s", imsg_prefix_format(type, 0));
    const char *subsys = table_subsys(table, index);
    char ts[32] = "";
    if (type == IMSG_TRACE)
        trace_time_stamp(ts, sizeof ts);
    // The prefix is measured first so that a short buffer (or a long
    // application name) still yields the full count, as snprintf does.
    int plen = format_prefix(nullptr, 0, prefix_format, type, 0, subsys, ts);
    if (plen < 0)
        return -1;
    size_t pl = static_cast<size_t>(plen);
    format_prefix(buf, size == 0 ? pl + 1 : size, prefix_format, type, 0, subsys, ts);
    va_list ap;
    va_start(ap, index);
    int r;
    if (size == 0) {
        r = imsg_vsnprintf(buf + pl, 0, table, index, ap);
    } else if (pl < size - 1) {
        r = imsg_vsnprintf(buf + pl, size - pl, table, index, ap);
    } else {
        char scratch[1];
        r = imsg_vsnprintf(scratch, 1, table, index, ap);
    }
    va_end(ap);
    return r < 0 ? -1 : static_cast<int>(pl) + r;
}

int imsg_dynamic_len_vsnprintf(char **result, int start_size, int max_size, const void *table, int index,
                               va_list ap)
{
    imsg_initialize();
    if (max_size < start_size || start_size < 1) {
        if (imsg_should_trace("ks/imsg", 1))
            fprintf(stderr,
                    "ERROR im imsg_dynamic_len_vsnprintf(): passed max_size argument is greater than passed "
                    "start_size argument, or start_size argument is less or equal to 0.\n"
                    "max_size = %d,\tstart_size = %d\n",
                    max_size, start_size);
        return -1;
    }
    // Looked up once, so that a bad index is reported (and captured) once
    // rather than at every size tried.
    const char *fmt = find_text(table, index, "vsprintf");
    if (!fmt) {
        *result = nullptr;
        return -1;
    }
    double step = (max_size - start_size) * 0.2;
    double size = start_size;
    for (;;) {
        int sz = static_cast<int>(size);
        char *buf = static_cast<char *>(malloc(static_cast<size_t>(sz)));
        if (!buf) {
            if (imsg_should_trace("ks/imsg", 1))
                fprintf(stderr, "ERROR in imsg_dynamic_len_vsnprintf(): cannot allocate a string of size %d\n", sz);
            return -1;
        }
        va_list aq;
        va_copy(aq, ap);
        int n = format_text(buf, static_cast<size_t>(sz), fmt, aq);
        va_end(aq);
        if (n >= 0 && n < sz) {
            *result = buf;
            return n;
        }
        if (n >= sz)
            size = static_cast<double>(n) + 1;
        else if (step > 0)
            size += step;
        else
            size = static_cast<double>(max_size) + 1; // start equals max: nothing to grow into
        free(buf);
        if (size > max_size) {
            if (imsg_should_trace("ks/imsg", 1))
                fprintf(stderr,
                        "Error, max buffer size %d passed to imsg_dynamic_len_vsnprintf() is not sufficient "
                        "to hold the string.\n",
                        max_size);
            *result = nullptr;
            return -1;
        }
    }
}

int imsg_dynamic_len_snprintf(char **result, int start_size, int max_size, const void *table, int index, ...)
{
    va_list ap;
    va_start(ap, index);
    int r = imsg_dynamic_len_vsnprintf(result, start_size, max_size, table, index, ap);
    va_end(ap);
    return r;
}

void imsg_set_app_name(const char *path)
{
    imsg_initialize();
    char *copy = nullptr;
    if (path) {
        const char *slash = strutl_strrpbrk(path, "/");
        copy = strdup(slash ? slash + 1 : path);
    }
    free(app_name);
    app_name = copy;
    clp_log_cl_args(app_name_or_default(), 0, nullptr);
}

const char *imsg_get_app_name(void)
{
    imsg_initialize();
    return app_name_or_default();
}

const char *imsg_set_message_home(const char *dir)
{
    imsg_initialize();
    free(message_home);
    message_home = dir ? strdup(dir) : nullptr;
    return message_home ? message_home : default_message_home;
}

void imsg_set_errnum_file(const char *path)
{
    imsg_initialize();
    if (path) {
        if (access(path, R_OK) != 0)
            return;
        char *copy = strdup(path);
        if (!copy)
            return;
        free(errnum_file);
        errnum_file = copy;
    } else {
        free(errnum_file);
        errnum_file = nullptr;
    }
    if (errnum_stream) {
        fclose(errnum_stream);
        errnum_stream = nullptr;
    }
}

void imsg_set_clock_callback(imsg_clock_fn fn, void *arg)
{
    imsg_initialize();
    clock_fn = fn;
    clock_arg = arg;
}

uint32_t imsg_clock(void)
{
    imsg_initialize();
    return clock_fn ? clock_fn(clock_arg) : 0;
}

const char *imsg_strerror(long error_number)
{
    imsg_initialize();
    if (error_number > 0 && error_number <= INT_MAX && strerrordesc_np(static_cast<int>(error_number)))
        return strerror(static_cast<int>(error_number));
    size_t count = static_cast<size_t>(
        snprintf(error_number_message, sizeof error_number_message, "%ld", error_number));
    PFM_ASSERT(count < sizeof error_number_message);
    return error_number_message;
}

const char *imsg_strerror_gethost(int host_error_number)
{
    imsg_initialize();
    switch (host_error_number) {
    case 1: return cat_extractmsg(&_imsg_ks_msg_table, IX_HOST_NOT_FOUND);
    case 2: return cat_extractmsg(&_imsg_ks_msg_table, IX_TRY_AGAIN);
    case 3: return cat_extractmsg(&_imsg_ks_msg_table, IX_NO_RECOVERY);
    case 4: return cat_extractmsg(&_imsg_ks_msg_table, IX_NO_DATA);
    default: return imsg_strerror(host_error_number);
    }
}

void imsg_set_trace_verbosity(int32_t level)
{
    imsg_initialize();
    imsg_desired_verbosity = level;
}

void imsg_reset_verbosity(void)
{
    imsg_initialize();
    imsg_desired_verbosity = verbosity_unread;
}

int32_t imsg_get_desired_verbosity(void)
{
    imsg_initialize();
    return imsg_desired_verbosity;
}

void imsg_set_trace_subsys(const char *list)
{
    imsg_initialize();
    imsg_desired_tsubsys = list;
}

int32_t imsg_get_verbosity_ev(void)
{
    const char *v = getenv("TRACE_VERBOSITY");
    int n = 0;
    if (!v || sscanf(v, "%d", &n) != 1)
        return 0;
    return n;
}

int imsg_should_trace(const char *subsystem, int level)
{
    if (imsg_desired_verbosity < level)
        return 0;
    if (imsg_desired_verbosity == verbosity_unread) {
        imsg_desired_verbosity = imsg_get_verbosity_ev();
        if (!imsg_desired_tsubsys)
            imsg_desired_tsubsys = getenv("TRACE_SUBSYS");
        if (imsg_desired_verbosity < level || !imsg_desired_tsubsys)
            return 0;
    } else if (!imsg_desired_tsubsys) {
        return 0;
    }
    const char *list = imsg_desired_tsubsys;
    if (!*list)
        return 0;
    if (strcmp(list, "*") == 0)
        return 1;
    return subsystem && list_has(list, subsystem) ? 1 : 0;
}

int imsg_should_trace_subsys(const char *subsystem)
{
    return imsg_should_trace(subsystem, 0);
}

int imsg_in_gui(void)
{
    return ks_force_gui() || ks_web_gui() ? 1 : 0;
}

int imsg_prompt_proceed(int type, const char *text, int default_choice, int choices)
{
    imsg_initialize();
    if (text)
        imsg_print(type, "%s", -1, text);
    if (!isatty(0))
        return 0;
    fflush(ks::imsg_out_stream);
    fflush(ks::imsg_err_stream);
    char line[256];
    if (!fgets(line, sizeof line, stdin))
        return (choices & 1) ? 1 : 0;
    char *s = line;
    while (*s == ' ' || *s == '\t')
        s++;
    size_t len = strcspn(s, " \t\r\n");
    if (len == 0)
        return (default_choice == 1 && (choices & 1)) ? 1 : 0;
    const char *abort_word = cat_extractmsg(&_imsg_ks_msg_table, IX_WORD_ABORT);
    if ((choices & 1) && strncasecmp(s, abort_word, len) == 0)
        return 1;
    return 0;
}

} // extern "C"
