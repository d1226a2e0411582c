// The message layer's set-up and settings: initialisation, the service table
// of the layers above, the state the log layer drives, the application name,
// the error-number texts and the front-end questions.
//
// This layer sits beneath the reporting heap wrappers (they print through
// it), so it keeps its own state with the C allocator: a failure here must
// never call back into a layer that prints.
#include "ks/imsg.h"

#include <ctype.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>
#include <wchar.h>
#include <wctype.h>

#include "imsg_internal.h"
#include "imsg_msg.h"
#include "imsg_testing.h"

namespace {

constexpr char kDefaultAppName[] = "noname";
constexpr char kDefaultMessageHome[] = "/opt/tamarack/ottermere";

bool initialized;
char *app_name;     // heap copy, or null for the default
char *message_home; // heap copy, or null for the default
char *errnum_file;  // heap copy, or null for the default "errnum.imsg"
FILE *errnum_stream;
imsg_clock_fn clock_fn;
void *clock_arg;

bool subsys_form;
bool output_ok;
bool io_interleave;
bool ate_enabled;
char error_number_message[256];

ks::imsg_services services;
bool services_wired;

FILE *out_stream;
FILE *err_stream;
ks::imsg_log_info_t log_info = {0, 0, nullptr, 0};
const char *daemon_log_name;
bool daemon_suspended;

bool env_set(const char *name)
{
    const char *v = getenv(name);
    return v != nullptr && *v != '\0';
}

// Length of the character at s as the library's string walkers count it: a
// byte that starts no valid character counts as one.
int char_len(const char *s)
{
    if (static_cast<unsigned char>(*s) - 1U < 0x7FU || MB_CUR_MAX == 1)
        return 1;
    mbstate_t st;
    memset(&st, 0, sizeof st);
    size_t n = mbrlen(s, strnlen(s, MB_CUR_MAX), &st);
    if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2) || n == 0)
        return 1;
    return static_cast<int>(n);
}

// The last '/' of path that is a character of its own, never the second byte
// of a multibyte character; null when there is none.
const char *last_slash(const char *path)
{
    const char *found = nullptr;
    for (const char *p = path; *p != '\0';) {
        int n = char_len(p);
        if (n == 1 && *p == '/')
            found = p;
        p += n;
    }
    return found;
}

// Lower-case form of the character at src (n bytes) into dst; the bytes
// written.  A character without one is copied as it is.
size_t lower_char(const char *src, int n, char *dst)
{
    auto len = static_cast<size_t>(n);
    if (n == 1 && (MB_CUR_MAX == 1 || static_cast<unsigned char>(*src) < 0x80)) {
        dst[0] = static_cast<char>(tolower(static_cast<unsigned char>(*src)));
        return 1;
    }
    wchar_t wc;
    mbstate_t st;
    memset(&st, 0, sizeof st);
    size_t r = mbrtowc(&wc, src, len, &st);
    char tmp[MB_LEN_MAX];
    size_t m = 0;
    if (r != static_cast<size_t>(-1) && r != static_cast<size_t>(-2) && r != 0) {
        memset(&st, 0, sizeof st);
        m = wcrtomb(tmp, static_cast<wchar_t>(towlower(static_cast<wint_t>(wc))), &st);
    }
    if (m == static_cast<size_t>(-1) || m == 0) {
        memcpy(dst, src, len);
        return len;
    }
    memcpy(dst, tmp, m);
    return m;
}

// Lower-case copy of s into dst (null: only measured); its length.
size_t lower_copy(const char *s, char *dst)
{
    size_t total = 0;
    char tmp[MB_LEN_MAX + 1];
    for (const char *p = s; *p != '\0';) {
        int n = char_len(p);
        size_t m = lower_char(p, n, dst != nullptr ? dst + total : tmp);
        total += m;
        p += n;
    }
    if (dst != nullptr)
        dst[total] = '\0';
    return total;
}

// Whether value is the word "True" in any case, compared as the locale
// collates the lower-case forms.
bool is_true_word(const char *value)
{
    char small[256];
    size_t need = lower_copy(value, nullptr) + 1;
    char *lower = need <= sizeof small ? small : static_cast<char *>(malloc(need));
    if (lower == nullptr)
        return strcoll(value, "True") == 0;
    lower_copy(value, lower);
    bool yes = strcoll(lower, "true") == 0;
    if (lower != small)
        free(lower);
    return yes;
}

const char *app_name_or_default()
{
    return app_name != nullptr ? app_name : kDefaultAppName;
}

} // namespace

namespace ks {

const imsg_services &imsg_services_in_use()
{
    if (!services_wired) {
        imsg_wire_services(&services);
        services_wired = true;
    }
    return services;
}

imsg_services imsg_set_services_for_testing(const imsg_services &table)
{
    imsg_services previous = imsg_services_in_use();
    services = table;
    return previous;
}

void imsg_assert_fail(const char *text, const char *source, int line)
{
    const imsg_services &s = imsg_services_in_use();
    if (s.assert_fail != nullptr)
        s.assert_fail(text, source, line);
    else
        fprintf(stderr, "PFM_ASSERT:(%s) failed: '%s':%d\n", text, source, line);
    abort();
}

imsg_log_info_t imsg_log_info()
{
    return log_info;
}
void imsg_set_log_info(const imsg_log_info_t &info)
{
    log_info = info;
}
const char *imsg_daemon_log_name()
{
    return daemon_log_name;
}
void imsg_set_daemon_log_name(const char *name)
{
    daemon_log_name = name;
}
bool imsg_daemon_suspended()
{
    return daemon_suspended;
}
void imsg_set_daemon_suspended(bool suspended)
{
    daemon_suspended = suspended;
}

FILE *imsg_out_stream()
{
    imsg_initialize();
    return out_stream;
}

FILE *imsg_err_stream()
{
    imsg_initialize();
    return err_stream;
}

void imsg_set_streams(FILE *out, FILE *err)
{
    imsg_initialize();
    out_stream = out;
    err_stream = err;
}

bool imsg_set_output_ok(bool on)
{
    imsg_initialize();
    bool old = output_ok;
    output_ok = on;
    return old;
}

bool imsg_output_ok()
{
    return output_ok;
}
bool imsg_subsys_form()
{
    return subsys_form;
}
bool imsg_io_interleave()
{
    return io_interleave;
}
bool imsg_tagging_enabled_for_testing()
{
    return ate_enabled;
}

} // namespace ks

void imsg_initialize(void)
{
    if (initialized)
        return;
    out_stream = stdout;
    err_stream = stderr;
    subsys_form = env_set("PRINT_SUBSYS");
    if (env_set("PRINT_SUBSYS_OK")) {
        subsys_form = true;
        output_ok = true;
    }
    io_interleave = env_set("IMSG_IO_INTERLEAVE");
    const char *ate = getenv("OTTERMERE_ENABLE_ATE_MESSAGES");
    ate_enabled = ate != nullptr && is_true_word(ate);
    ks::imsg_start_capture_log();
    initialized = true;
}

int imsg_output_subsys(int flag)
{
    imsg_initialize();
    int old = subsys_form;
    subsys_form = flag != 0;
    return old;
}

void imsg_set_app_name(const char *path)
{
    imsg_initialize();
    char *copy = nullptr;
    if (path != nullptr) {
        const char *slash = last_slash(path);
        copy = strdup(slash != nullptr ? slash + 1 : path);
    }
    free(app_name);
    app_name = copy;
    const ks::imsg_services &s = ks::imsg_services_in_use();
    if (s.log_command != nullptr)
        s.log_command(app_name_or_default());
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
    message_home = dir != nullptr ? strdup(dir) : nullptr;
    return message_home != nullptr ? message_home : kDefaultMessageHome;
}

void imsg_set_errnum_file(const char *path)
{
    imsg_initialize();
    if (path != nullptr) {
        if (access(path, R_OK) != 0)
            return;
        char *copy = strdup(path);
        if (copy == nullptr)
            return;
        free(errnum_file);
        errnum_file = copy;
    } else {
        free(errnum_file);
        errnum_file = nullptr;
    }
    if (errnum_stream != nullptr) {
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
    return clock_fn != nullptr ? clock_fn(clock_arg) : 0;
}

const char *imsg_strerror(long error_number)
{
    imsg_initialize();
    if (error_number > 0 && error_number <= INT_MAX &&
        strerrordesc_np(static_cast<int>(error_number)) != nullptr)
        return strerror(static_cast<int>(error_number));
    auto count = static_cast<size_t>(
        snprintf(error_number_message, sizeof error_number_message, "%ld", error_number));
    if (count >= sizeof error_number_message)
        ks::imsg_assert_fail("count < sizeof error_number_message", KS_SOURCE_NAME, __LINE__);
    return error_number_message;
}

const char *imsg_strerror_gethost(int host_error_number)
{
    imsg_initialize();
    switch (host_error_number) {
    case 1: return cat_extractmsg(&_imsg_ks_msg_table, IMSG_MSG_HOST_NOT_FOUND);
    case 2: return cat_extractmsg(&_imsg_ks_msg_table, IMSG_MSG_TRY_AGAIN);
    case 3: return cat_extractmsg(&_imsg_ks_msg_table, IMSG_MSG_NO_RECOVERY);
    case 4: return cat_extractmsg(&_imsg_ks_msg_table, IMSG_MSG_NO_DATA);
    default: return imsg_strerror(host_error_number);
    }
}

int imsg_in_gui(void)
{
    const ks::imsg_services &s = ks::imsg_services_in_use();
    bool force = s.force_gui != nullptr && s.force_gui() != 0;
    return force || (s.web_gui != nullptr && s.web_gui() != 0) ? 1 : 0;
}

int imsg_prompt_proceed(int type, const char *text, int default_choice, int choices)
{
    imsg_initialize();
    if (text != nullptr)
        imsg_print(type, "%s", IMSG_LITERAL, text);
    if (isatty(0) == 0)
        return 0;
    fflush(out_stream);
    fflush(err_stream);
    char line[256];
    if (fgets(line, sizeof line, stdin) == nullptr)
        return (choices & 1) != 0 ? 1 : 0;
    char *s = line;
    while (*s == ' ' || *s == '\t')
        s++;
    size_t len = strcspn(s, " \t\r\n");
    if (len == 0)
        return default_choice == 1 && (choices & 1) != 0 ? 1 : 0;
    const char *abort_word = cat_extractmsg(&_imsg_ks_msg_table, IMSG_MSG_WORD_ABORT);
    if ((choices & 1) != 0 && strncasecmp(s, abort_word, len) == 0)
        return 1;
    return 0;
}
