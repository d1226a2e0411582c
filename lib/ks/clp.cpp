// The flag-descriptor command-line parser: descriptor tables with
// abbreviations, aliases and exclusive groups; the command-string splitter
// and builder; the stack of nested command names; the command-history log.
#include "ks/clp.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "ks/fileutl.h"
#include "ks/imsg.h"
#include "ks/ks_product.h"
#include "ks/pfm.h"
#include "ks/strutl.h"
#include "cmdline_internal.h"
#include "ks_internal.h"

namespace {

struct clp_constraint {
    int32_t used;     // flag seen; for a group start: some flag of the group seen
    int32_t partner;  // alias: its non-alias; used group start: the flag seen
};

} // namespace

struct clp_hdl {
    uint32_t magic;
    stg_area_t owned;            // area made for the handle itself, or none
    int32_t argc;
    char **argv;
    int32_t index;               // next word to read
    char *next;                  // argv[index], or the pending sub-argument
    int32_t end_of_flags;        // "--" was read
    int32_t ndesc;
    const clp_flag_desc_t *desc;
    clp_constraint *cons;
    int32_t obso_mode;
    const char *last_flag;
    stg_area_t home;             // area the handle lives in
};

const clp_flag_desc_t start_mutex_list = CLP_START_MUTUAL_EXCLUSION;
const clp_flag_desc_t end_mutex_list = CLP_END_MUTUAL_EXCLUSION;

namespace {

constexpr uint32_t kMagic = 0x17171717u;

// Indices of the clp table.
enum {
    MSG_NESTED_START = 0,
    MSG_STRAY_END = 1,
    MSG_SAME_VALUE = 2,
    MSG_LONE_ALIAS = 3,
    MSG_UNTERMINATED = 4,
    MSG_DUPLICATE = 5,
    MSG_EXCLUSIVE = 6,
    MSG_BAD_MAGIC = 7,
    MSG_NULL_HANDLE = 8,
    MSG_BAD_FLAGS = 9,
    MSG_BAD_CONSTRAINTS = 10,
    MSG_BAD_ARGV = 11,
    MSG_BAD_ARGV_ARRAY = 12,
    MSG_NULL_AREA = 13,
    MSG_UNRECOGNIZED = 14,
    MSG_OBSOLETE_FLAG = 15,
    MSG_OBSOLETE_SYNTAX = 16
};

enum { OBSO_IGNORE = 0, OBSO_WARN = 1, OBSO_FAIL = 2 };

constexpr int kCmdTextMax = 256;
constexpr int kStackDepth = 10;
constexpr size_t kAreaSize = 1000;

// The splitter builds each word here before copying it into the area.
char token_buf[CLP_MAX_TOKEN + 1];

char cmd_text[kCmdTextMax + 1] = "No command";

char cmd_stack[kStackDepth][CLP_MAX_STACK_STRING + 1];
int cmd_count;
int cmd_level;
uint32_t clp_generation = 1;
uint32_t built_generation;
char clp_cmd_string[CLP_MAX_STACK_STRING + 1];

int collect_checked_i = -1;
int collect_checked_s = -1;

KS_NORETURN void fatal(int index)
{
    imsg_print(IMSG_ERROR, &_clp_ks_msg_table, index);
    abort();
}

void check_handle(const clp_hdl *h)
{
    if (h == nullptr)
        fatal(MSG_NULL_HANDLE);
    if (h->magic != kMagic)
        fatal(MSG_BAD_MAGIC);
}

bool is_start(const clp_flag_desc_t &d)
{
    return d.value == CLP_START_MUTEX_VALUE;
}

bool is_end(const clp_flag_desc_t &d)
{
    return d.value == CLP_END_MUTEX_VALUE;
}

bool named(const clp_flag_desc_t &d, const char *name)
{
    return d.name != nullptr && strcmp(d.name, name) == 0;
}

int obsolete_mode()
{
    const char *v = getenv("OTTERMERE_OBSO_SYN");
    if (v == nullptr || strcasecmp(v, "WARN") == 0)
        return OBSO_WARN;
    if (strcasecmp(v, "FAIL") == 0)
        return OBSO_FAIL;
    return OBSO_IGNORE;
}

int32_t count_descriptors(const clp_flag_desc_t *desc)
{
    int32_t n = 0;
    if (desc)
        while (desc[n].name != nullptr)
            n++;
    return n;
}

// Checks a descriptor table and fills the constraint table (n + 1 pairs).
// Structural errors abort; two flags of one value return false.
bool check_table(const clp_flag_desc_t *desc, int32_t n, clp_constraint *cons)
{
    bool in_group = false;
    for (int32_t i = 0; i < n; i++) {
        if (is_start(desc[i])) {
            if (in_group)
                fatal(MSG_NESTED_START);
            in_group = true;
        } else if (is_end(desc[i])) {
            if (!in_group)
                fatal(MSG_STRAY_END);
            in_group = false;
        }
    }
    // The group markers share their values from group to group: they are not flags.
    for (int32_t i = 0; i < n; i++) {
        if ((desc[i].flags & CLP_ALIAS_FLAG) || is_start(desc[i]) || is_end(desc[i]))
            continue;
        for (int32_t j = i + 1; j < n; j++) {
            if ((desc[j].flags & CLP_ALIAS_FLAG) || is_end(desc[j]) || is_start(desc[j]))
                continue;
            if (desc[i].value == desc[j].value) {
                imsg_print(IMSG_ERROR, &_clp_ks_msg_table, MSG_SAME_VALUE, desc[i].name, desc[j].name);
                return false;
            }
        }
    }
    for (int32_t i = 0; i <= n; i++) {
        cons[i].used = 0;
        cons[i].partner = -1;
    }
    for (int32_t i = 0; i < n; i++) {
        if (!(desc[i].flags & CLP_ALIAS_FLAG))
            continue;
        int32_t found = -1;
        for (int32_t j = i - 1; j >= 0 && !named(desc[j], CLP_START_MUTEX_NAME); j--) {
            if (!(desc[j].flags & CLP_ALIAS_FLAG) && desc[j].value == desc[i].value) {
                found = j;
                break;
            }
        }
        for (int32_t j = i + 1; found < 0; j++) {
            if (j >= n || named(desc[j], CLP_END_MUTEX_NAME)) {
                imsg_print(IMSG_ERROR, &_clp_ks_msg_table, MSG_LONE_ALIAS, desc[i].name);
                abort();
            }
            if (!(desc[j].flags & CLP_ALIAS_FLAG) && desc[j].value == desc[i].value)
                found = j;
        }
        cons[i].partner = found;
    }
    return true;
}

// Index of the start marker of the group holding descriptor i, or -1.
int32_t group_of(const clp_flag_desc_t *desc, int32_t i)
{
    for (int32_t j = i - 1; j >= 0; j--) {
        if (is_end(desc[j]))
            return -1;
        if (is_start(desc[j]))
            return j;
    }
    return -1;
}

clp_constraint *new_constraints(stg_area_t area, const clp_flag_desc_t *desc, int32_t n, bool *dup)
{
    *dup = false;
    clp_constraint *cons =
        static_cast<clp_constraint *>(stg_alloc(area, sizeof(clp_constraint) * ((size_t)n + 1)));
    if (cons == nullptr)
        return nullptr;
    if (!check_table(desc, n, cons)) {
        *dup = true;
        return nullptr;
    }
    return cons;
}

void set_next(clp_hdl *h)
{
    h->next = (h->argv && h->index < h->argc) ? h->argv[h->index] : nullptr;
}

clp_hdl *make_handle(int argc, char **argv, const clp_flag_desc_t *desc, stg_area_t home, stg_area_t owned)
{
    bool dup = false;
    int32_t n = count_descriptors(desc);
    clp_constraint *cons = new_constraints(home, desc, n, &dup);
    if (cons == nullptr)
        return nullptr;
    clp_hdl *h = static_cast<clp_hdl *>(stg_alloc(home, sizeof(clp_hdl)));
    if (h == nullptr)
        return nullptr;
    memset(h, 0, sizeof *h);
    h->magic = kMagic;
    h->owned = owned;
    h->argc = argc < 0 ? 0 : argc;
    h->argv = argv;
    h->index = 0;
    set_next(h);
    h->end_of_flags = 0;
    h->ndesc = n;
    h->desc = desc;
    h->cons = cons;
    h->obso_mode = obsolete_mode();
    h->last_flag = nullptr;
    h->home = home;
    return h;
}

// Appends n bytes to the token; false (reported) when the token gets too long.
bool put(size_t *len, const char *src, int n)
{
    if (*len + (size_t)n > CLP_MAX_TOKEN) {
        imsg_print(IMSG_ERROR, "Bad command line: a word is longer than %d bytes\n", -1, CLP_MAX_TOKEN);
        return false;
    }
    memcpy(token_buf + *len, src, (size_t)n);
    *len += (size_t)n;
    return true;
}

bool escapable(char c)
{
    return c == '\'' || c == '"' || c == '\\';
}

// Takes the next token of *pp into token_buf.  Returns its length (0: the
// list is over) or -1 on an unterminated quote or an over-long word.
long get_next_token(const char **pp)
{
    const char *p = *pp;
    int sl = 1;
    while (*p && ks::cmdline_is_space(p, &sl))
        p += sl;
    size_t len = 0;
    char quote = 0;
    for (;;) {
        char c = *p;
        if (quote == 0) {
            if (c == '\0' || ks::cmdline_is_space(p, &sl))
                break;
            if (c == '\\' && escapable(p[1])) {
                if (!put(&len, p + 1, 1))
                    return -1;
                p += 2;
                continue;
            }
            if (c == '\'' || c == '"') {
                quote = c;
                p++;
                continue;
            }
        } else {
            if (c == '\0') {
                imsg_print(IMSG_ERROR, &_clp_ks_msg_table, MSG_UNTERMINATED);
                return -1;
            }
            if (c == quote) {
                // A closing quote ends the token, whatever follows it.
                p++;
                break;
            }
            if (c == '\\' && escapable(p[1])) {
                if (!put(&len, p, 2))
                    return -1;
                p += 2;
                continue;
            }
        }
        int have = ks::cmdline_char_len(p);
        // Ordinary characters that follow need no decision: take them together.
        while (ks::cmdline_kind(p + have) == ks::CMDLINE_PLAIN)
            have++;
        if (!put(&len, p, have))
            return -1;
        p += have;
    }
    token_buf[len] = '\0';
    *pp = p;
    return (long)len;
}

// Blocks of no area and of the heap pseudo-area are the caller's to free one by
// one, so a failure or a grown array must give them back.
bool on_heap(stg_area_t area)
{
    return area == STG_AREA_NULL || area == STG_AREA_HEAP;
}

void *area_alloc(stg_area_t area, size_t size)
{
    return area ? stg_alloc(area, size) : stg_malloc(size);
}

// Copy of the first len bytes of s, NUL-terminated, in area (or the heap).
char *area_copy(stg_area_t area, const char *s, size_t len)
{
    char *copy = static_cast<char *>(area ? stg_alloc(area, len + 1) : stg_malloc(len + 1));
    if (copy) {
        memcpy(copy, s, len);
        copy[len] = '\0';
    }
    return copy;
}

void free_heap_words(char **argv, int n)
{
    for (int i = 0; i < n; i++)
        stg_free(argv[i]);
    stg_free(argv);
}

// Splits text; area null puts everything on the heap.
int split(const char *text, stg_area_t area, int *argc_out, char ***argv_out)
{
    *argc_out = 0;
    *argv_out = nullptr;
    if (text == nullptr)
        return 0;
    int cap = ks::cmdline_count_runs(text);
    if (cap == 0)
        return 0;
    char **argv = static_cast<char **>(area_alloc(area, sizeof(char *) * ((size_t)cap + 1)));
    if (argv == nullptr)
        return 1;
    int n = 0;
    const char *p = text;
    for (;;) {
        long len = get_next_token(&p);
        if (len < 0) {
            if (on_heap(area))
                free_heap_words(argv, n);
            return 1;
        }
        if (len == 0)
            break;
        if (n == cap) {
            // A closing quote ends a token, so a run can hold several.
            int ncap = cap * 2;
            char **grown = static_cast<char **>(area_alloc(area, sizeof(char *) * ((size_t)ncap + 1)));
            if (grown == nullptr) {
                if (on_heap(area))
                    free_heap_words(argv, n);
                return 1;
            }
            memcpy(grown, argv, sizeof(char *) * (size_t)n);
            if (on_heap(area))
                stg_free(argv);
            argv = grown;
            cap = ncap;
        }
        char *word = area_copy(area, token_buf, (size_t)len);
        if (word == nullptr) {
            if (on_heap(area))
                free_heap_words(argv, n);
            return 1;
        }
        argv[n++] = word;
    }
    argv[n] = nullptr;
    if (n == 0) {
        if (on_heap(area))
            stg_free(argv);
        return 0;
    }
    *argc_out = n;
    *argv_out = argv;
    return 0;
}

bool is_special(char c)
{
    return c != '\0' && strchr(" \t\r\n?*~[]", c) != nullptr;
}

// Prints the obsolete notice for name; false when the mode makes it an error.
bool obsolete_ok(int mode, const char *name)
{
    if (mode == OBSO_IGNORE)
        return true;
    int type = mode == OBSO_FAIL ? IMSG_ERROR : IMSG_WARNING;
    if (name)
        imsg_print(type, &_clp_ks_msg_table, MSG_OBSOLETE_FLAG, name);
    else
        imsg_print(type, &_clp_ks_msg_table, MSG_OBSOLETE_SYNTAX);
    return mode != OBSO_FAIL;
}

// "%Y:%m:%d:%H:%M:%S." of now into ts; the milliseconds are returned.
int time_stamp(char *ts, size_t size)
{
    struct timeval tv;
    ks::clock_gettimeofday(&tv);
    time_t sec = tv.tv_sec;
    struct tm tm;
    localtime_r(&sec, &tm);
    if (strftime(ts, size, "%Y:%m:%d:%H:%M:%S.", &tm) == 0)
        ts[0] = '\0';
    return (int)(tv.tv_usec / 1000);
}

bool collecting()
{
    char path[KS_PATH_BUF];
    ks_host_config_dir(path, "collect_history");
    return fileutl_exists(path, 0) != 0;
}

FILE *open_history()
{
    char path[KS_PATH_BUF];
    ks_hostdata_dir(path, "log", "ottermere_history");
    return fopen(path, "a");
}

void log_history(const char *text)
{
    if (!collecting())
        return;
    FILE *f = open_history();
    if (f == nullptr)
        return;
    char ts[64];
    int ms = time_stamp(ts, sizeof ts);
    fprintf(f, "%s%03d ", ts, ms);
    fprintf(f, "(%d) %s ", (int)getpid(), text);
    char cwd[KS_PATH_BUF];
    if (getcwd(cwd, sizeof cwd) != nullptr)
        fprintf(f, "in %s ", cwd);
    fputc('\n', f);
    fclose(f);
}

void data_line(const char *first, const char *data)
{
    FILE *f = open_history();
    if (f == nullptr)
        return;
    char ts[64];
    unsigned ms = (unsigned)time_stamp(ts, sizeof ts);
    fprintf(f, "%s%03u %s ", ts, ms, first ? first : "");
    fprintf(f, "'%s': ", data ? data : "");
    fputc('\n', f);
    fclose(f);
}

} // namespace

clp_hdl_t *clp_create_hdl_using_argv(int argc, char **argv, const clp_flag_desc_t *descriptors, stg_area_t area)
{
    stg_area_t owned = STG_AREA_NULL;
    if (area == STG_AREA_NULL) {
        owned = stg_create_area(kAreaSize);
        if (owned == STG_AREA_NULL)
            return nullptr;
        area = owned;
    }
    clp_hdl *h = make_handle(argc, argv, descriptors, area, owned);
    if (h == nullptr && owned != STG_AREA_NULL)
        stg_delete_area(&owned);
    return h;
}

clp_hdl_t *clp_create_hdl_using_string(const char *text, const clp_flag_desc_t *descriptors, stg_area_t area)
{
    stg_area_t owned = STG_AREA_NULL;
    if (area == STG_AREA_NULL) {
        owned = stg_create_area(kAreaSize);
        if (owned == STG_AREA_NULL)
            return nullptr;
        area = owned;
    }
    int argc = 0;
    char **argv = nullptr;
    clp_hdl *h = nullptr;
    if (split(text, area, &argc, &argv) == 0) {
        // A text without words still gets a (null-terminated) vector, so that
        // the handle reads as "no more words" rather than as a broken one.
        if (argv == nullptr)
            argv = static_cast<char **>(stg_alloc(area, sizeof(char *)));
        if (argv != nullptr) {
            argv[argc] = nullptr;
            h = make_handle(argc, argv, descriptors, area, owned);
        }
    }
    if (h == nullptr && owned != STG_AREA_NULL)
        stg_delete_area(&owned);
    return h;
}

int clp_parse_string(const char *text, stg_area_t area, int *argc, char ***argv)
{
    int n = 0;
    char **v = nullptr;
    int rc = split(text, area, &n, &v);
    if (argc)
        *argc = n;
    if (argv)
        *argv = v;
    return rc;
}

void clp_destroy_hdl(clp_hdl_t **handle)
{
    if (handle == nullptr || *handle == nullptr)
        return;
    clp_hdl *h = *handle;
    check_handle(h);
    stg_area_t owned = h->owned;
    h->magic = 0;
    if (owned != STG_AREA_NULL)
        stg_delete_area(&owned);
    *handle = nullptr;
}

clp_hdl_t *clp_save_hdl(clp_hdl_t *h)
{
    check_handle(h);
    stg_area_t area = h->owned != STG_AREA_NULL ? h->owned : h->home;
    clp_hdl *copy = static_cast<clp_hdl *>(stg_alloc(area, sizeof(clp_hdl)));
    if (copy)
        memcpy(copy, h, sizeof *copy);
    return copy;
}

void clp_restore_hdl(clp_hdl_t *h, const clp_hdl_t *saved)
{
    check_handle(h);
    check_handle(saved);
    if (h != saved)
        memcpy(h, saved, sizeof *h);
}

int clp_switch_flags(clp_hdl_t *h, const clp_flag_desc_t *descriptors, stg_area_t area)
{
    check_handle(h);
    if (area == STG_AREA_NULL)
        area = h->owned;
    if (area == STG_AREA_NULL) {
        imsg_print(IMSG_ERROR, &_clp_ks_msg_table, MSG_NULL_AREA);
        return 1;
    }
    bool dup = false;
    int32_t n = count_descriptors(descriptors);
    clp_constraint *cons = new_constraints(area, descriptors, n, &dup);
    if (cons == nullptr)
        return 1;
    h->desc = descriptors;
    h->ndesc = n;
    h->cons = cons;
    h->last_flag = nullptr;
    return 0;
}

int clp_get_next_flag_value(clp_hdl_t *h, int quiet, uint32_t *value)
{
    check_handle(h);
    if (h->desc == nullptr)
        fatal(MSG_BAD_FLAGS);
    if (h->cons == nullptr)
        fatal(MSG_BAD_CONSTRAINTS);
    if (h->argv == nullptr)
        fatal(MSG_BAD_ARGV);
    if (value)
        *value = 0xFFFFFFFFu;
    if (h->index >= h->argc || h->end_of_flags)
        return 2;
    const char *word = h->argv[h->index];
    if (word == nullptr)
        fatal(MSG_BAD_ARGV_ARRAY);
    if (strcmp(word, "--") == 0) {
        h->end_of_flags = 1;
        h->index++;
        set_next(h);
        return 2;
    }
    const clp_flag_desc_t *desc = h->desc;
    int32_t m = -1;
    for (int32_t i = 0; i < h->ndesc; i++) {
        if (is_start(desc[i]) || is_end(desc[i]))
            continue;
        if (clp_match(word, desc[i].name)) {
            m = i;
            break;
        }
    }
    if (m < 0) {
        if (word[0] != '-')
            return 2;
        if (!quiet)
            imsg_print(IMSG_ERROR, &_clp_ks_msg_table, MSG_UNRECOGNIZED, word);
        return 1;
    }
    h->last_flag = desc[m].name;
    int32_t t = (desc[m].flags & CLP_ALIAS_FLAG) ? h->cons[m].partner : m;
    if (t < 0 || t >= h->ndesc)
        fatal(MSG_BAD_CONSTRAINTS);
    bool obsolete = (desc[m].flags & CLP_OBSOLETE) != 0;
    int32_t g = group_of(desc, t);
    if (desc[t].flags & CLP_REPEATABLE) {
        if (obsolete && !obsolete_ok(h->obso_mode, desc[t].name))
            return 1;
        if (g >= 0 && h->cons[g].used && h->cons[g].partner != t) {
            imsg_print(IMSG_ERROR, &_clp_ks_msg_table, MSG_EXCLUSIVE, desc[t].name,
                       desc[h->cons[g].partner].name);
            return 1;
        }
    } else {
        if (h->cons[t].used) {
            imsg_print(IMSG_ERROR, &_clp_ks_msg_table, MSG_DUPLICATE, desc[t].name);
            return 1;
        }
        if (obsolete && !obsolete_ok(h->obso_mode, desc[t].name))
            return 1;
        if (g >= 0 && h->cons[g].used) {
            imsg_print(IMSG_ERROR, &_clp_ks_msg_table, MSG_EXCLUSIVE, desc[t].name,
                       desc[h->cons[g].partner].name);
            return 1;
        }
    }
    h->cons[t].used = 1;
    if (g >= 0 && !h->cons[g].used) {
        h->cons[g].used = 1;
        h->cons[g].partner = t;
    }
    h->index++;
    set_next(h);
    if (value)
        *value = desc[t].value;
    return 0;
}

int clp_get_next_arg(clp_hdl_t *h, char **arg)
{
    check_handle(h);
    if (h->argv == nullptr || h->index >= h->argc) {
        if (arg)
            *arg = nullptr;
        return 2;
    }
    if (arg)
        *arg = h->argv[h->index];
    h->index++;
    set_next(h);
    return 0;
}

int clp_unget_arg(clp_hdl_t *h)
{
    check_handle(h);
    if (h->index <= 0)
        return 2;
    h->index--;
    set_next(h);
    return 0;
}

int clp_get_next_subarg(clp_hdl_t *h, char **sub)
{
    check_handle(h);
    if (h->next == nullptr) {
        set_next(h);
        if (sub)
            *sub = nullptr;
        return 2;
    }
    char *piece = h->next;
    if (h->argv && h->index < h->argc && piece == h->argv[h->index])
        h->index++;
    char *comma = strchr(piece, ',');
    if (comma) {
        *comma = '\0';
        h->next = comma + 1;
    } else {
        h->next = nullptr;
    }
    if (sub)
        *sub = piece;
    return 0;
}

int clp_get_last_flag_name(clp_hdl_t *h, int strip, char *buf, int size)
{
    check_handle(h);
    if (buf == nullptr || size < 1)
        return h->last_flag ? 0 : 2;
    buf[0] = '\0';
    if (h->last_flag == nullptr)
        return 2;
    int n = 0;
    for (const char *p = h->last_flag; *p && n < size - 1; p++) {
        if (strip && (*p == '[' || *p == ']'))
            continue;
        buf[n++] = *p;
    }
    buf[n] = '\0';
    return 0;
}

int clp_get_command_name(clp_hdl_t *h, char **name)
{
    check_handle(h);
    if (name)
        *name = (h->argv && h->argc > 0) ? h->argv[0] : nullptr;
    return 0;
}

int clp_get_argc(clp_hdl_t *h)
{
    check_handle(h);
    return h->argc;
}

int clp_match(const char *word, const char *name)
{
    if (word == nullptr || name == nullptr)
        return 0;
    bool skipped = false;
    const char *w = word;
    const char *n = name;
    while (*w) {
        if (*w == *n) {
            w++;
            n++;
            continue;
        }
        if (*n != '[')
            return 0;
        while (*n == '[')
            n++;
        skipped = true;
    }
    return (*n == '\0' || *n == '[' || skipped) ? 1 : 0;
}

int clp_argv_to_string(int argc, char **argv, stg_area_t area, int escape, char **text)
{
    if (text)
        *text = nullptr;
    if (argv == nullptr || argc < 0)
        argc = 0;
    size_t total = 1;
    for (int i = 0; i < argc; i++)
        total += strlen(argv[i] ? argv[i] : "") + 3;
    char *buf = static_cast<char *>(area_alloc(area, total));
    if (buf == nullptr)
        return 1;
    char *out = buf;
    for (int i = 0; i < argc; i++) {
        const char *w = argv[i] ? argv[i] : "";
        size_t n = strlen(w);
        if (i > 0)
            *out++ = ' ';
        if (w[0] == '"' || w[0] == '\'') {
            if (n < 2 || w[n - 1] != w[0]) {
                imsg_print(IMSG_ERROR, &_clp_ks_msg_table, MSG_UNTERMINATED);
                if (on_heap(area))
                    stg_free(buf);
                return 1;
            }
            if (escape)
                *out++ = (char)escape;
            memcpy(out, w, n - 1);
            out += n - 1;
            if (escape)
                *out++ = (char)escape;
            *out++ = w[0];
            continue;
        }
        // By whole characters: a trail byte that looks like "[" or "~" is no reason to quote.
        bool special = false;
        for (const char *p = w; *p && !special; p += ks::cmdline_char_len(p))
            special = is_special(*p);
        if (special)
            *out++ = '"';
        memcpy(out, w, n);
        out += n;
        if (special)
            *out++ = '"';
    }
    *out = '\0';
    if (text)
        *text = buf;
    else if (on_heap(area))
        stg_free(buf);
    return 0;
}

int clp_check_obsolete(void)
{
    switch (obsolete_mode()) {
    case OBSO_WARN:
        imsg_print(IMSG_WARNING, &_clp_ks_msg_table, MSG_OBSOLETE_SYNTAX);
        return 0;
    case OBSO_FAIL:
        imsg_print(IMSG_ERROR, &_clp_ks_msg_table, MSG_OBSOLETE_SYNTAX);
        return 1;
    default:
        return 0;
    }
}

void clp_log_cl_args(const char *command, int argc, char **argv)
{
    const char *c = command ? command : "";
    size_t len = strlen(c);
    if (len > (size_t)kCmdTextMax)
        len = kCmdTextMax;
    memcpy(cmd_text, c, len);
    cmd_text[len] = '\0';
    for (int i = 0; argv && i < argc; i++) {
        const char *a = argv[i] ? argv[i] : "";
        size_t alen = strlen(a);
        if (len + alen + 3 > (size_t)kCmdTextMax)
            break;
        snprintf(cmd_text + len, sizeof cmd_text - len, " '%s'", a);
        len += alen + 3;
    }
    log_history(cmd_text);
}

void clp_log_command(const char *command, clp_hdl_t *h)
{
    check_handle(h);
    if (h->argv && h->argc > 1)
        clp_log_cl_args(command, h->argc - 1, h->argv + 1);
    else
        clp_log_cl_args(command, 0, nullptr);
}

const char *clp_get_command(void)
{
    return cmd_text;
}

void clp_collectdatai(const char *text, int number)
{
    if (collect_checked_i < 0)
        collect_checked_i = collecting() ? 1 : 0;
    if (!collect_checked_i)
        return;
    if (number != 0) {
        char data[1100];
        snprintf(data, sizeof data, "%.1000s %20d", text ? text : "", number);
        data_line(text, data);
    } else {
        data_line(text, text);
    }
}

void clp_collectdatas(const char *tag, const char *text)
{
    if (collect_checked_s < 0)
        collect_checked_s = collecting() ? 1 : 0;
    if (!collect_checked_s)
        return;
    data_line(tag, text);
}

void clp_collectdata_cleanup(void)
{
}

void clp_push_cmd(const char *name)
{
    cmd_level++;
    if (cmd_count < kStackDepth) {
        const char *n = name ? name : "";
        size_t len = strlen(n);
        if (len > CLP_MAX_STACK_STRING)
            len = CLP_MAX_STACK_STRING;
        memcpy(cmd_stack[cmd_count], n, len);
        cmd_stack[cmd_count][len] = '\0';
        cmd_count++;
        clp_generation++;
    }
}

void clp_pop_cmd(void)
{
    if (cmd_level <= kStackDepth && cmd_count > 0) {
        cmd_count--;
        clp_generation++;
    }
    cmd_level--;
}

const char *clp_get_cmd_stack(uint32_t *generation)
{
    if (generation && *generation == clp_generation)
        return nullptr;
    if (built_generation != clp_generation) {
        size_t ptr = 0;
        for (int i = 0; i < cmd_count; i++) {
            for (const char *p = cmd_stack[i]; *p; p++) {
                PFM_ASSERT(ptr < CLP_MAX_STACK_STRING);
                clp_cmd_string[ptr++] = *p;
            }
            PFM_ASSERT(ptr < CLP_MAX_STACK_STRING);
            clp_cmd_string[ptr++] = ':';
        }
        PFM_ASSERT(ptr < CLP_MAX_STACK_STRING);
        clp_cmd_string[ptr] = '\0';
        built_generation = clp_generation;
    }
    if (generation)
        *generation = clp_generation;
    return clp_cmd_string;
}
