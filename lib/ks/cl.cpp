// The option scanner: single-letter options with exclusive groups, argument
// words and abbreviated sub-commands, over an argument vector or a line.
#include "ks/cl.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <array>

#include "ks/imsg.h"
#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks/strutl.h"
#include "cmdline_internal.h"
#include "ks_assert.h"
#include "ks_msg.h"

struct cl_word {
    int32_t len;
    char *ptr;
};

struct cl_handle {
    uint32_t cl_magic;
    char *strings; // every word NUL-terminated, then one more NUL
    int32_t size;  // bytes of the words, their NULs included
    int32_t index; // current word
    char *word;    // start of the current word
    char *pos;     // next unread character of it
    char *eoo;     // options stop at this word
    int32_t error;
    char *etext;
    char eopt[2];
    int32_t nseen;
    char *seen;     // accepted letters, each once, in order of acceptance
    int32_t count;  // words, the terminal empty word excluded
    cl_word *words; // count + 1 pairs
};

const char *cl_errlist[5] = {"", "Out of memory", "Bad option", "Duplicate or conflicting option",
                             "Bad argument"};
int32_t cl_mallocs = 0;
int32_t cl_frees = 0;
int32_t cl_brkit = 0;

namespace {

// The catalogue texts are copied: a later catclose must not pull them away.
constexpr size_t kTextMax = 256;
// Longest inputs taken: the words with their NULs (and, for a line, one NUL
// per word more) must stay within the handle's int32_t sizes.
constexpr size_t kArgvMax = 0x7FFFFFF0u;
constexpr size_t kLineMax = 0x3FFFFFF0u;
char err_texts[6][kTextMax];
bool errlist_ready = false;
const char *unknown_text = "Unknown error";

void copy_text(char *dst, const char *src)
{
    size_t n = src ? strlen(src) : 0;
    if (n >= kTextMax)
        n = kTextMax - 1;
    if (n)
        memcpy(dst, src, n);
    dst[n] = '\0';
}

void load_errlist()
{
    if (errlist_ready)
        return;
    errlist_ready = true;
    // The texts of 301 to 304, in the order of cl_errlist (0 keeps "").
    constexpr std::array<int, 5> kErrlistMsg = {-1, KS_MSG_OUT_OF_MEMORY, KS_MSG_CL_BAD_OPTION,
                                                KS_MSG_CL_DUPLICATE, KS_MSG_CL_BAD_ARGUMENT};
    for (size_t i = 1; i < kErrlistMsg.size(); i++) {
        copy_text(err_texts[i], cat_extractmsg(&_ks_ks_msg_table, kErrlistMsg[i]));
        cl_errlist[i] = err_texts[i];
    }
    copy_text(err_texts[5], cat_extractmsg(&_ks_ks_msg_table, KS_MSG_CL_UNKNOWN));
    unknown_text = err_texts[5];
}

void *cl_alloc(size_t size)
{
    if (cl_brkit != 0 && --cl_brkit == 0)
        return nullptr;
    void *p = stg_malloc(size);
    if (p)
        cl_mallocs++;
    return p;
}

void cl_release(void *p)
{
    if (p) {
        stg_free(p);
        cl_frees++;
    }
}

void check(const cl_handle *clh)
{
    KS_ASSERT(clh != nullptr && clh->cl_magic == CL_MAGIC, "clh->cl_magic == CL_MAGIC");
}

void clear_error(cl_handle *clh)
{
    clh->error = 0;
    clh->etext = nullptr;
    clh->eopt[0] = '\0';
}

void set_error(cl_handle *clh, int code)
{
    clh->error = code;
    clh->etext = clh->word;
}

// A handle with its arrays, all empty; null (nothing kept) when one fails.
cl_handle *new_handle(int32_t strings_size, int32_t nwords)
{
    cl_handle *clh = static_cast<cl_handle *>(cl_alloc(sizeof(cl_handle)));
    if (!clh)
        return nullptr;
    memset(clh, 0, sizeof *clh);
    clh->strings = static_cast<char *>(cl_alloc(static_cast<size_t>(strings_size) + 1));
    clh->seen = clh->strings ? static_cast<char *>(cl_alloc(static_cast<size_t>(strings_size) + 1))
                             : nullptr;
    clh->words =
        clh->seen
            ? static_cast<cl_word *>(cl_alloc(sizeof(cl_word) * (static_cast<size_t>(nwords) + 1)))
            : nullptr;
    if (!clh->words) {
        cl_release(clh->seen);
        cl_release(clh->strings);
        cl_release(clh);
        return nullptr;
    }
    clh->strings[0] = '\0';
    clh->seen[0] = '\0';
    return clh;
}

void finish_handle(cl_handle *clh, char *terminal, int32_t start)
{
    *terminal = '\0';
    clh->words[clh->count].len = 0;
    clh->words[clh->count].ptr = terminal;
    clh->size = static_cast<int32_t>(terminal - clh->strings);
    clh->eoo = terminal;
    clh->index = start > clh->count ? clh->count : start;
    clh->word = clh->words[clh->index].ptr;
    clh->pos = clh->word;
    clh->cl_magic = CL_MAGIC;
}

void next_word(cl_handle *clh)
{
    if (clh->index < clh->count)
        clh->index++;
    clh->word = clh->words[clh->index].ptr;
    clh->pos = clh->word;
}

// Moves past one option letter, onto the next word when the word is used up.
void advance_letter(cl_handle *clh)
{
    if (*clh->pos)
        clh->pos++;
    if (*clh->pos == '\0')
        next_word(clh);
}

// Whether letter c is allowed by optstring, given the letters seen so far.
bool check_letter(cl_handle *clh, const char *optstring, char c)
{
    clear_error(clh);
    clh->eopt[0] = c;
    clh->eopt[1] = '\0';
    bool in_group = false;
    const char *group = nullptr; // first letter of the current group
    const char *p = optstring ? optstring : "";
    for (; *p; p++) {
        if (*p == ':')
            continue;
        if (*p == '[') {
            in_group = true;
            group = p + 1;
        } else if (*p == ']') {
            in_group = false;
        } else if (*p == c) {
            break;
        }
    }
    if (*p == '\0' || c == '\0') {
        set_error(clh, CL_EBADOPT);
        return false;
    }
    if (!in_group)
        return true;
    // The group's letters: those before c, c and the rest up to "]".
    for (const char *g = group; *g && *g != ']'; g++) {
        if (*g == ':' || *g == '[')
            continue;
        if (memchr(clh->seen, *g, static_cast<size_t>(clh->nseen)) != nullptr) {
            set_error(clh, CL_EDUPOPT);
            return false;
        }
    }
    return true;
}

// The words of a line, written into the handle's strings as they are read.
// The walk is a small machine: outside or inside quotes, with a backslash
// waiting or not.
struct line_splitter {
    cl_handle *clh;
    int32_t max_words; // the estimate the pairs were sized from
    char *out = clh->strings;
    char *start = nullptr; // first byte of the open word
    int32_t nwords = 0;
    bool in_word = false;
    bool escaped = false; // a backslash waits for the next non-space character
    char quote = 0;

    // Splits line up to its NUL or its first unescaped newline.
    void run(const char *p)
    {
        while (p != nullptr && *p != '\0')
            p = quote == 0 ? unquoted(p) : quoted(p);
        end_word();
    }

    void end_word()
    {
        if (!in_word)
            return;
        *out++ = '\0';
        clh->words[nwords].len = static_cast<int32_t>(out - 1 - start);
        clh->words[nwords].ptr = start;
        nwords++;
        in_word = false;
    }

    // Each step takes the character at p and answers where to go on, or null
    // where the line ends.  Outside quotes white space ends the word, even
    // right after a backslash, whose escape then waits for the next character.
    const char *unquoted(const char *p)
    {
        int space_len = 1;
        if (ks::cmdline_is_space(p, &space_len)) {
            if (*p == '\n' && !escaped)
                return nullptr;
            end_word();
            return p + space_len;
        }
        if (!in_word) {
            if (nwords >= max_words) // cannot happen: words never outnumber runs
                return nullptr;
            in_word = true;
            start = out;
        }
        if (escaped) {
            escaped = false;
        } else if (*p == '\\') {
            escaped = true;
            return p + 1;
        } else if (*p == '"' || *p == '\'') {
            quote = *p;
            return p + 1;
        }
        return copy(p);
    }

    // The first unescaped newline ends the line, quoted or not.
    const char *quoted(const char *p)
    {
        if (escaped) {
            escaped = false;
        } else if (*p == '\n') {
            return nullptr;
        } else if (*p == '\\') {
            escaped = true;
            return p + 1;
        } else if (*p == quote) {
            quote = 0;
            return p + 1;
        }
        return copy(p);
    }

    // Copies the character at p whole; ordinary characters after it need no
    // decision, so they go in one run.
    const char *copy(const char *p)
    {
        for (int n = ks::cmdline_char_len(p); n > 0; n--)
            *out++ = *p++;
        while (ks::cmdline_kind(p) == ks::CMDLINE_PLAIN)
            *out++ = *p++;
        return p;
    }
};

} // namespace

cl_handle_t *cl_parse_argv(int argc, char **argv, int *error)
{
    if (error)
        *error = 0;
    if (argc < 0 || argv == nullptr)
        argc = 0;
    size_t total = 0;
    for (int i = 0; i < argc; i++)
        total += strlen(argv[i] ? argv[i] : "") + 1;
    if (total > kArgvMax) {
        if (error)
            *error = CL_ENOMEM;
        return nullptr;
    }
    cl_handle *clh = new_handle(static_cast<int32_t>(total), argc);
    if (!clh) {
        if (error)
            *error = CL_ENOMEM;
        return nullptr;
    }
    char *out = clh->strings;
    for (int i = 0; i < argc; i++) {
        const char *w = argv[i] ? argv[i] : "";
        size_t n = strlen(w);
        memcpy(out, w, n + 1);
        clh->words[i].len = static_cast<int32_t>(n);
        clh->words[i].ptr = out;
        out += n + 1;
    }
    clh->count = argc;
    finish_handle(clh, out, 1);
    return clh;
}

cl_handle_t *cl_parse_line(const char *line, int *error)
{
    if (error)
        *error = 0;
    if (line == nullptr)
        line = "";
    size_t len = strlen(line);
    int32_t runs = ks::cmdline_count_runs(line);
    // Each word takes at most its own input bytes plus a NUL.
    cl_handle *clh =
        len > kLineMax
            ? nullptr
            : new_handle(static_cast<int32_t>(len + static_cast<size_t>(runs) + 1), runs);
    if (!clh) {
        if (error)
            *error = CL_ENOMEM;
        return nullptr;
    }
    line_splitter split{clh, runs};
    split.run(line);
    clh->count = split.nwords;
    finish_handle(clh, split.out, 0);
    return clh;
}

void cl_destroy(cl_handle_t **handle)
{
    if (handle == nullptr || *handle == nullptr)
        return;
    cl_handle *clh = *handle;
    check(clh);
    clh->cl_magic = 0;
    cl_release(clh->words);
    cl_release(clh->seen);
    cl_release(clh->strings);
    cl_release(clh);
    *handle = nullptr;
}

int cl_getopt(cl_handle_t *clh, const char *optstring)
{
    check(clh);
    clear_error(clh);
    if (clh->word >= clh->eoo)
        return 0;
    if (strcmp(clh->word, "--") == 0) {
        clh->eoo = clh->word;
        next_word(clh);
        return 0;
    }
    if (clh->word[0] != '-')
        return 0;
    while (*clh->pos == '-') {
        clh->pos++;
        if (*clh->pos == '\0') {
            next_word(clh);
            if (clh->word[0] != '-')
                return 0;
        }
    }
    char c = *clh->pos;
    if (!check_letter(clh, optstring, c)) {
        advance_letter(clh);
        return '?';
    }
    advance_letter(clh);
    // Only membership is ever asked of the seen letters: a letter already
    // there is not added again, so rescans after cl_setoffset cannot outgrow
    // the buffer (at most one byte per byte of the words).
    if (memchr(clh->seen, c, static_cast<size_t>(clh->nseen)) == nullptr) {
        clh->seen[clh->nseen++] = c;
        clh->seen[clh->nseen] = '\0';
    }
    clear_error(clh);
    return static_cast<unsigned char>(c);
}

int cl_getopt_long(cl_handle_t *clh, const char *optstring, char **longname)
{
    check(clh);
    clear_error(clh);
    if (clh->word < clh->eoo && clh->pos == clh->word && strncmp(clh->word, "--", 2) == 0 &&
        clh->word[2] != '\0') {
        char *copy = stg_strdup(clh->word + 2);
        if (longname)
            *longname = copy;
        else
            stg_free(copy);
        next_word(clh);
        return 0;
    }
    return cl_getopt(clh, optstring);
}

char *cl_getarg(cl_handle_t *clh)
{
    check(clh);
    clear_error(clh);
    if (clh->index >= clh->count)
        return nullptr;
    if (clh->pos != clh->word) {
        set_error(clh, CL_EBADARG);
        return nullptr;
    }
    char *w = clh->word;
    next_word(clh);
    return w;
}

char *cl_getname(cl_handle_t *clh)
{
    return cl_getarg(clh);
}

char *cl_getarg_noopt(cl_handle_t *clh)
{
    check(clh);
    if (clh->index < clh->count && clh->word[0] == '-') {
        clear_error(clh);
        return nullptr;
    }
    return cl_getarg(clh);
}

int cl_get_subcommand(cl_handle_t *clh, int n, const char *const *patterns)
{
    char *w = cl_getarg(clh);
    if (w == nullptr || patterns == nullptr)
        return -1;
    for (int i = 0; i < n; i++)
        if (patterns[i] && cl_match(w, patterns[i]))
            return i;
    return -1;
}

int cl_match(const char *word, const char *pattern)
{
    if (word == nullptr || pattern == nullptr)
        return 0;
    char wc[MB_LEN_MAX + 1];
    char pc[MB_LEN_MAX + 1];
    bool skipped = false;
    const char *w = word;
    const char *p = pattern;
    while (*w) {
        if (*p == '\0')
            return 0;
        int wl = strutl_cvt_case_char(w, wc, STRUTL_CASE_UPPER);
        int pl = strutl_cvt_case_char(p, pc, STRUTL_CASE_UPPER);
        if (strcmp(wc, pc) == 0) {
            w += wl;
            p += pl;
            continue;
        }
        if (*p == '[') {
            skipped = true;
            p++;
            continue;
        }
        return 0;
    }
    return (*p == '[' || *p == '\0' || skipped) ? 1 : 0;
}

int32_t cl_getoffset(cl_handle_t *clh)
{
    check(clh);
    clear_error(clh);
    return static_cast<int32_t>(clh->pos - clh->strings);
}

void cl_setoffset(cl_handle_t *clh, int32_t offset)
{
    check(clh);
    clear_error(clh);
    if (offset < 0)
        offset = 0;
    if (offset > clh->size)
        offset = clh->size;
    char *target = clh->strings + offset;
    // Last word starting at or before the target (the starts rise with the index).
    int32_t lo = 0, hi = clh->count, found = -1;
    while (lo <= hi) {
        int32_t mid = lo + (hi - lo) / 2;
        if (clh->words[mid].ptr <= target) {
            found = mid;
            lo = mid + 1;
        } else {
            hi = mid - 1;
        }
    }
    if (found < 0) {
        clh->index = 0;
        clh->word = clh->words[0].ptr;
        clh->pos = clh->word;
        return;
    }
    clh->index = found;
    clh->word = clh->words[found].ptr;
    if (target == clh->word || target < clh->word + clh->words[found].len)
        clh->pos = target;
    else
        next_word(clh);
}

int cl_errno(const cl_handle_t *clh)
{
    check(clh);
    return clh->error;
}

const char *cl_estr(const cl_handle_t *clh)
{
    check(clh);
    return clh->etext ? clh->etext : "";
}

const char *cl_eopt(const cl_handle_t *clh)
{
    check(clh);
    return clh->eopt;
}

const char *cl_strerror(int code)
{
    load_errlist();
    switch (code) {
    case 0: return cl_errlist[0];
    case CL_ENOMEM: return cl_errlist[1];
    case CL_EBADOPT: return cl_errlist[2];
    case CL_EDUPOPT: return cl_errlist[3];
    case CL_EBADARG: return cl_errlist[4];
    default: return unknown_text;
    }
}

int cl_strtotime(void)
{
    return 0;
}
