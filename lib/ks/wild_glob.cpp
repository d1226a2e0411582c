// Globbing: the words of a text compiled and expanded against the file
// system, one directory level at a time, and the names handed back as a
// sorted list, a display line or a single path.

#include "ks/wild.h"

#include <dirent.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks/strutl.h"
#include "ks_assert.h"
#include "wild_internal.h"

namespace {

using ks::wild::kEsc;
using ks::wild::kOpClass;
using ks::wild::kOpDots;
using ks::wild::kOpLit;
using ks::wild::uchar;

constexpr size_t kPathSize = 1024;

// One directory entry kept between reading a directory and going into it.
struct entry {
    char *name;
    unsigned char type; // d_type
};

// The storage of one glob call, released as a whole, also by an unwind:
// the input length plus 1 for the word, 1024 for the path, twice the input
// length plus 2050 for the compiled word (room for a home directory in
// front of it), and an area for the names found.
struct glob_work {
    char *word;
    char *path;
    char *compiled;
    size_t compiled_size;
    stg_area_t area;
    DIR *dir;
    char **found;
    size_t count;
    size_t cap;
    bool no_room;
};

bool is_blank(uchar c)
{
    return c == ' ' || c == '\t' || c == '\n';
}

int char_len(const uchar *s)
{
    return ks::wild::multibyte_locale() ? ks::wild::mb_char_len(s) : 1;
}

// ---- Storage ---------------------------------------------------------------

// Each block is recorded in w with signals held, so that an unwind finds it.
bool work_open(glob_work *w, size_t input_len)
{
    pfm_inhibit();
    w->word = static_cast<char *>(stg_malloc(input_len + 1));
    w->path = w->word ? static_cast<char *>(stg_malloc(kPathSize)) : nullptr;
    w->compiled_size = 2 * input_len + 2050;
    w->compiled = w->path ? static_cast<char *>(stg_malloc(w->compiled_size)) : nullptr;
    w->area = w->compiled ? stg_create_area(4096) : STG_AREA_NULL;
    pfm_enable();
    return w->area != STG_AREA_NULL;
}

void work_close(glob_work *w)
{
    if (w->dir != nullptr)
        closedir(w->dir);
    w->dir = nullptr;
    stg_delete_area(&w->area);
    stg_free(w->word);
    stg_free(w->path);
    stg_free(w->compiled);
    w->word = w->path = w->compiled = nullptr;
}

// A block of the working area.  Signals are held while the area takes a
// new chunk, so that an unwind never finds one half linked in.
void *area_alloc(glob_work *w, size_t size)
{
    pfm_inhibit();
    void *p = stg_alloc(w->area, size);
    pfm_enable();
    if (p == nullptr)
        w->no_room = true;
    return p;
}

char *area_copy(glob_work *w, const char *s, size_t len)
{
    auto *p = static_cast<char *>(area_alloc(w, len + 1));
    if (p == nullptr)
        return nullptr;
    memcpy(p, s, len);
    p[len] = '\0';
    return p;
}

// Records the path built so far as a match.
void add_found(glob_work *w, size_t len)
{
    if (w->count == w->cap) {
        size_t cap = w->cap == 0 ? 64 : 2 * w->cap;
        auto **grown = static_cast<char **>(area_alloc(w, cap * sizeof(char *)));
        if (grown == nullptr)
            return;
        if (w->count != 0)
            memcpy(grown, w->found, w->count * sizeof(char *));
        w->found = grown;
        w->cap = cap;
    }
    char *copy = area_copy(w, w->path, len);
    if (copy != nullptr)
        w->found[w->count++] = copy;
}

// ---- Paths -----------------------------------------------------------------

// Appends len bytes of s to the path at *len; false when the path would
// pass 1023 bytes.
bool path_append(glob_work *w, size_t *len, const char *s, size_t n)
{
    if (*len + n >= kPathSize)
        return false;
    memcpy(w->path + *len, s, n);
    *len += n;
    w->path[*len] = '\0';
    return true;
}

// Whether the entry just appended to the path is a directory (through
// symbolic links when follow).
bool is_dir(glob_work *w, unsigned char type, bool follow)
{
    if (type == DT_DIR)
        return true;
    if (type != DT_UNKNOWN && (type != DT_LNK || !follow))
        return false;
    struct stat st;
    return (follow ? stat(w->path, &st) : lstat(w->path, &st)) == 0 && S_ISDIR(st.st_mode);
}

// ---- Components of the compiled pattern -----------------------------------

// The end of the component at c: the next "/" outside a class, or the NUL.
uchar *component_end(uchar *c)
{
    while (*c != '\0' && *c != '/') {
        if (*c != kEsc) {
            c += char_len(c);
        } else if (c[1] == kOpClass) {
            for (c += 2; *c != kEsc && *c != '\0'; c++) {
            }
            c += *c == kEsc ? 1 : 0;
        } else {
            c += c[1] == '\0' ? 1 : 2;
        }
    }
    return c;
}

// Whether the component [c, end) is plain text (0x01 0x01 is a 0x01 byte).
bool is_literal(const uchar *c, const uchar *end)
{
    for (; c < end; c++) {
        if (*c != kEsc)
            continue;
        if (c[1] != kOpLit)
            return false;
        c++;
    }
    return true;
}

// Appends the plain component [c, end) to the path at *len; false when the
// path would pass 1023 bytes.
bool append_literal(glob_work *w, size_t *len, const uchar *c, const uchar *end)
{
    for (; c < end; c++) {
        if (*c == kEsc)
            c++;
        if (*len + 1 >= kPathSize)
            return false;
        w->path[(*len)++] = static_cast<char>(*c);
    }
    w->path[*len] = '\0';
    return true;
}

// ---- Expansion -------------------------------------------------------------

void expand(glob_work *w, uchar *comp, size_t len);

// Reads the directory of the path (len bytes) and keeps the entries that
// match the component [comp, end) (dirs_only: the subdirectories instead,
// hidden ones excepted).  Null with *n 0 when none or unreadable.
entry *read_dir(glob_work *w, size_t len, uchar *comp, uchar *end, bool dirs_only, size_t *n)
{
    *n = 0;
    w->path[len] = '\0'; // a deeper level may have left more behind
    pfm_inhibit();
    w->dir = opendir(len == 0 ? "." : w->path);
    pfm_enable();
    if (w->dir == nullptr)
        return nullptr;
    const uchar saved = *end;
    *end = '\0'; // the component alone, for wild_match
    const bool hidden_ok = !dirs_only && comp[0] == '.';
    entry *list = nullptr;
    size_t cap = 0;
    while (struct dirent *d = readdir(w->dir)) {
        const char *name = d->d_name;
        if ((name[0] == '.' && !hidden_ok) || strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
            continue;
        if (dirs_only ? d->d_type != DT_DIR && d->d_type != DT_UNKNOWN
                      : !wild_match(reinterpret_cast<char *>(comp), name, 1))
            continue;
        if (*n == cap) {
            cap = cap == 0 ? 16 : 2 * cap;
            auto *grown = static_cast<entry *>(area_alloc(w, cap * sizeof(entry)));
            if (grown == nullptr)
                break;
            if (*n != 0)
                memcpy(grown, list, *n * sizeof(entry));
            list = grown;
        }
        char *copy = area_copy(w, name, strlen(name));
        if (copy == nullptr)
            break;
        list[(*n)++] = entry{copy, d->d_type};
    }
    *end = saved;
    pfm_inhibit();
    closedir(w->dir);
    w->dir = nullptr;
    pfm_enable();
    return list;
}

// "...": the rest at this level, then in every subdirectory (symbolic links
// are not followed, so no loop is possible), depth first.  At the end of the
// pattern it gives the directories themselves.
void expand_dots(glob_work *w, uchar *comp, uchar *rest, size_t len)
{
    if (*rest != '\0')
        expand(w, rest, len);
    else if (len != 0)
        add_found(w, len);
    size_t n = 0;
    entry *subdirs = read_dir(w, len, comp, comp + 2, true, &n);
    for (size_t i = 0; i < n && !w->no_room; i++) {
        size_t sub = len;
        if (path_append(w, &sub, subdirs[i].name, strlen(subdirs[i].name)) &&
            is_dir(w, subdirs[i].type, false) && path_append(w, &sub, "/", 1))
            expand_dots(w, comp, rest, sub);
    }
}

// One name found for the component: the last gives a match (a directory
// only when the pattern ends in "/"), the others lead to the next level.
void take_name(glob_work *w, size_t len, unsigned char type, uchar *rest, bool last, bool dir_only)
{
    if (last && !dir_only) {
        add_found(w, len);
    } else if (is_dir(w, type, true) && path_append(w, &len, "/", 1)) {
        if (last)
            add_found(w, len);
        else
            expand(w, rest, len);
    }
}

// Expands the compiled pattern from the component at comp, below the path's
// first len bytes (empty, "/", or ending in "/").
void expand(glob_work *w, uchar *comp, size_t len)
{
    uchar *end = component_end(comp);
    uchar *rest = end;
    while (*rest == '/')
        rest++;
    const bool last = *rest == '\0';
    const bool dir_only = last && rest != end;
    if (comp[0] == kEsc && comp[1] == kOpDots && end == comp + 2) {
        expand_dots(w, comp, rest, len);
        return;
    }
    if (is_literal(comp, end)) {
        struct stat st;
        if (append_literal(w, &len, comp, end) && lstat(w->path, &st) == 0)
            take_name(w, len, S_ISDIR(st.st_mode) ? DT_DIR : DT_UNKNOWN, rest, last, dir_only);
        return;
    }
    size_t n = 0;
    entry *names = read_dir(w, len, comp, end, false, &n);
    for (size_t i = 0; i < n && !w->no_room; i++) {
        size_t sub = len;
        if (path_append(w, &sub, names[i].name, strlen(names[i].name)))
            take_name(w, sub, names[i].type, rest, last, dir_only);
    }
}

// Expands a compiled pattern from the current or the root directory.
void expand_pattern(glob_work *w, uchar *compiled)
{
    size_t len = 0;
    w->path[0] = '\0';
    if (*compiled == '/') {
        path_append(w, &len, "/", 1);
        while (*compiled == '/')
            compiled++;
    }
    if (*compiled != '\0')
        expand(w, compiled, len);
    else if (len != 0)
        add_found(w, len);
}

// ---- Words -----------------------------------------------------------------

// Takes the next word of *text into out (quotes removed, backslash pairs
// kept for the compiler); *tilde tells whether it starts with an unquoted
// "~".  False when only blanks are left.  An open quote runs to the end.
bool next_word(const char **text, bool split, char *out, bool *tilde)
{
    const auto *s = reinterpret_cast<const uchar *>(*text);
    while (is_blank(*s))
        s++;
    if (*s == '\0')
        return false;
    *tilde = *s == '~';
    uchar quote = 0;
    char *o = out;
    while (*s != '\0' && !(quote == 0 && split && is_blank(*s))) {
        if ((*s == '\'' || *s == '"') && (quote == 0 || quote == *s)) {
            quote = quote == 0 ? *s : 0;
            s++;
            continue;
        }
        if (*s == '\\' && s[1] != '\0')
            *o++ = static_cast<char>(*s++);
        int n = char_len(s);
        memcpy(o, s, n);
        o += n;
        s += n;
    }
    *o = '\0';
    *text = reinterpret_cast<const char *>(s);
    return true;
}

// The home directory named by "~" or "~user" at the start of word; *rest is
// set to what follows the name.  Null when there is none to use.
const char *home_of(const char *word, char *user, const char **rest)
{
    const char *slash = strchr(word + 1, '/');
    size_t n = slash ? static_cast<size_t>(slash - word - 1) : strlen(word + 1);
    *rest = word + 1 + n;
    const char *home = nullptr;
    if (n == 0) {
        home = getenv("HOME");
        if (home == nullptr || *home == '\0') {
            const struct passwd *pw = getpwuid(getuid());
            home = pw ? pw->pw_dir : nullptr;
        }
    } else if (n < kPathSize) {
        memcpy(user, word + 1, n);
        user[n] = '\0';
        const struct passwd *pw = getpwnam(user);
        home = pw ? pw->pw_dir : nullptr;
    }
    return home != nullptr && strlen(home) < kPathSize ? home : nullptr;
}

// Compiles the word in w->word (a home directory in front when tilde names
// one) into w->compiled: 0, or -1 for a malformed class.
int compile_word(glob_work *w, bool tilde)
{
    ks::wild::out_buf out{reinterpret_cast<uchar *>(w->compiled), w->compiled_size, 0};
    int wild = 0;
    const char *rest = nullptr;
    pfm_inhibit(); // the user database allocates inside the C library
    const char *home = tilde ? home_of(w->word, w->path, &rest) : nullptr;
    pfm_enable();
    int rc;
    if (home != nullptr) {
        ks::wild::compile_literal(home, &out);
        rc = ks::wild::compile_into(rest, &out, false, &wild);
    } else {
        rc = ks::wild::compile_into(w->word, &out, true, &wild);
    }
    if (rc != 0)
        return -1;
    if (out.len >= out.limit)
        return -3; // cannot happen with the sizes allocated
    out.data[out.len] = '\0';
    return 0;
}

int dirlist_strcmp(const void *a, const void *b)
{
    return strcmp(*static_cast<char *const *>(a), *static_cast<char *const *>(b));
}

// ---- Requests --------------------------------------------------------------

// What a glob call asks for and how its names are handed back.
struct request {
    const char *text;
    bool raw;   // one pattern: no quotes, "~" or splitting
    bool split; // blanks separate words
    int (*deliver)(const request &rq, char **found, size_t count);
    stg_area_t area;
    char ***names;
    char **display;
    char *buf;
    size_t size;
};

int expand_all(glob_work *w, const request &rq)
{
    if (rq.raw) {
        memcpy(w->word, rq.text, strlen(rq.text) + 1);
        int rc = compile_word(w, false);
        if (rc == 0)
            expand_pattern(w, reinterpret_cast<uchar *>(w->compiled));
        return rc != 0 ? rc : w->no_room ? -3 : 0;
    }
    const char *text = rq.text;
    bool tilde = false;
    while (next_word(&text, rq.split, w->word, &tilde)) {
        int rc = compile_word(w, tilde);
        if (rc != 0)
            return rc;
        expand_pattern(w, reinterpret_cast<uchar *>(w->compiled));
        if (w->no_room)
            return -3;
    }
    pfm_inhibit(); // qsort may take memory of its own
    if (w->count > 1)
        qsort(w->found, w->count, sizeof(char *), dirlist_strcmp);
    pfm_enable();
    return 0;
}

// Runs a request under a clean-up record: an unwind from inside releases the
// working storage and goes on outwards.  The names change hands with
// signals held.
int run_guarded(glob_work *w, const request &rq)
{
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) != 0) {
        work_close(w);
        pfm_raise(rec.value);
    }
    int rc = work_open(w, strlen(rq.text)) ? expand_all(w, rq) : -3;
    pfm_inhibit();
    if (rc == 0)
        rc = w->count > INT_MAX ? -3 : rq.deliver(rq, w->found, w->count);
    pfm_cleanup_rls(&rec);
    work_close(w);
    pfm_enable();
    return rc;
}

int run(const request &rq)
{
    glob_work w{};
    return run_guarded(&w, rq);
}

int deliver_list(const request &rq, char **found, size_t count)
{
    *rq.names = nullptr;
    if (count == 0)
        return 0;
    size_t bytes = (count + 1) * sizeof(char *);
    for (size_t i = 0; i < count; i++)
        bytes += strlen(found[i]) + 1;
    auto **list = static_cast<char **>(stg_alloc(rq.area, bytes));
    if (list == nullptr)
        return -3;
    char *text = reinterpret_cast<char *>(list + count + 1);
    for (size_t i = 0; i < count; i++) {
        size_t n = strlen(found[i]) + 1;
        list[i] = static_cast<char *>(memcpy(text, found[i], n));
        text += n;
    }
    list[count] = nullptr;
    *rq.names = list;
    return static_cast<int>(count);
}

// The display form of name into out (when given): in double quotes when it
// holds white space, each '"' preceded by a backslash.  Returns its length.
size_t transform_string(const char *name, char *out)
{
    bool space = false;
    size_t quotes = 0;
    for (const char *s = name; *s != '\0';) {
        int n = 1;
        space = strutl_test_char(s, STRUTL_CT_SPACE, &n) || space;
        quotes += *s == '"' ? 1 : 0;
        s += n > 0 ? n : 1;
    }
    size_t len = strlen(name) + quotes + (space ? 2 : 0);
    if (out == nullptr)
        return len;
    if (space)
        *out++ = '"';
    for (const char *s = name; *s != '\0';) {
        int n = char_len(reinterpret_cast<const uchar *>(s));
        if (*s == '"')
            *out++ = '\\';
        memcpy(out, s, n);
        out += n;
        s += n;
    }
    if (space)
        *out = '"';
    return len;
}

int deliver_display(const request &rq, char **found, size_t count)
{
    size_t bytes = 1;
    for (size_t i = 0; i < count; i++)
        bytes += transform_string(found[i], nullptr) + 1;
    char *text = static_cast<char *>(stg_malloc(bytes));
    if (text == nullptr)
        return -3;
    char *o = text;
    for (size_t i = 0; i < count; i++) {
        if (i != 0)
            *o++ = ' ';
        o += transform_string(found[i], o);
    }
    *o = '\0';
    *rq.display = text;
    return static_cast<int>(count);
}

int deliver_single(const request &rq, char **found, size_t count)
{
    if (count != 1)
        return static_cast<int>(count);
    size_t n = strlen(found[0]) + 1;
    if (rq.buf == nullptr || n > rq.size)
        return -3;
    memcpy(rq.buf, found[0], n);
    return 1;
}

} // namespace

int wild_glob_ext(const char *text, int mode, stg_area_t area, char ***names)
{
    KS_ASSERT(names != nullptr, "names != NULL");
    *names = nullptr;
    if (text == nullptr)
        return 0;
    KS_ASSERT(area != STG_AREA_NULL, "area != STG_AREA_NULL");
    request rq{text,    false, mode == WILD_GLOB_SPLIT, deliver_list, area, names, nullptr,
               nullptr, 0};
    return run(rq);
}

int wild_glob_r(const char *pattern, stg_area_t area, char ***names)
{
    KS_ASSERT(names != nullptr, "names != NULL");
    *names = nullptr;
    if (pattern == nullptr)
        return 0;
    KS_ASSERT(area != STG_AREA_NULL, "area != STG_AREA_NULL");
    request rq{pattern, true, false, deliver_list, area, names, nullptr, nullptr, 0};
    return run(rq);
}

int wild_glob(const char *text, char **text_out)
{
    KS_ASSERT(text_out != nullptr, "text_out != NULL");
    *text_out = nullptr;
    request rq{text ? text : "", false,   true, deliver_display, STG_AREA_NULL, nullptr,
               text_out,         nullptr, 0};
    return run(rq);
}

int wild_glob_single(const char *word, char *buf, size_t size)
{
    request rq{word ? word : "", false, false, deliver_single, STG_AREA_NULL, nullptr,
               nullptr,          buf,   size};
    return run(rq);
}
