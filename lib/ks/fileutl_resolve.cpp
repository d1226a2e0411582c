// Finding files along a list of directories, and pattern lists that scope
// names.  The wildcards are the small set below, matched here: "*", "?" and
// "\" for a literal character.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fileutl_internal.h"
#include "ks/fileutl.h"
#include "ks/stg.h"
#include "ks/strutl.h"

using ks::fileutl::char_len;
using ks::fileutl::kSep;
using ks::fileutl::multibyte_locale;
using ks::fileutl::next_sep;

namespace {

// Whether pat matches all of s[0..n).  "*" takes any run and "?" any one
// character, neither a separator; "\" makes the next character literal.
// A "*" is retried one character further on each mismatch after it.
bool wild_match(const char *pat, const char *s, size_t n, bool mb)
{
    const char *star_pat = nullptr;
    size_t star_at = 0, i = 0;
    while (i < n) {
        size_t len = char_len(s + i, mb);
        if (*pat == '*') {
            star_pat = ++pat;
            star_at = i;
            continue;
        }
        if (*pat == '?') {
            if (s[i] != kSep) {
                pat++;
                i += len;
                continue;
            }
        } else if (*pat != '\0') {
            const char *lit = *pat == '\\' && pat[1] != '\0' ? pat + 1 : pat;
            size_t plen = char_len(lit, mb);
            if (plen == len && memcmp(lit, s + i, len) == 0) {
                pat = lit + plen;
                i += len;
                continue;
            }
        }
        if (star_pat == nullptr || s[star_at] == kSep)
            return false;
        star_at += char_len(s + star_at, mb);
        i = star_at;
        pat = star_pat;
    }
    while (*pat == '*')
        pat++;
    return *pat == '\0';
}

// Whether pat matches a leading part of name that ends at a separator.
bool scopes(const char *pat, const char *name, bool mb)
{
    for (const char *p = next_sep(name, mb); *p != '\0'; p = next_sep(p + 1, mb))
        if (p > name && wild_match(pat, name, static_cast<size_t>(p - name), mb))
            return true;
    return false;
}

// dir "/" name ext (no separator added after one, nor with no dir) into buf
// (KS_PATH_BUF bytes); false when too long.
bool join(char *buf, const char *dir, const char *name, const char *ext)
{
    const char *sep = dir == nullptr || *dir == '\0' || dir[strlen(dir) - 1] == kSep ? "" : "/";
    int n = snprintf(buf, KS_PATH_BUF, "%s%s%s%s", dir == nullptr ? "" : dir, sep, name, ext);
    return n < KS_PATH_BUF;
}

// The search behind the fileutl_resolve_pathname family.
int search(const char *name, const char *const *dirs, int ndirs, const char *const *exts, int nexts,
           int amode, char *out, size_t size, int *dir_index, int *ext_index)
{
    char buf[KS_PATH_BUF];
    const bool direct =
        dirs == nullptr || ndirs <= 0 || fileutl_find_pname_sep_left(name) != nullptr;
    int err = ENOENT;
    for (int d = direct ? -1 : 0; d < (direct ? 0 : ndirs); d++) {
        for (int e = -1; e < nexts; e++) {
            if (!join(buf, d < 0 ? nullptr : dirs[d], name, e < 0 ? "" : exts[e])) {
                err = ENAMETOOLONG;
                continue;
            }
            if (access(buf, amode) != 0)
                continue;
            if (strutl_cpy_buf(out, size, buf) != 0) {
                err = ENAMETOOLONG;
                d = ndirs;
                break;
            }
            *dir_index = d;
            *ext_index = e;
            return 0;
        }
    }
    if (size > 0)
        out[0] = '\0';
    errno = err;
    return 1;
}

int compare_names(const void *a, const void *b)
{
    return strcmp(*static_cast<char *const *>(a), *static_cast<char *const *>(b));
}

// Adds dir "/" leaf to the list; false when storage ran out.
bool add_match(char ***list, int *count, const char *dir, const char *leaf)
{
    if ((*count & (*count - 1)) == 0) { // grows at each power of two
        size_t cap = *count == 0 ? 4 : static_cast<size_t>(*count) * 2;
        void *grown = stg_realloc(*list, cap * sizeof **list);
        if (grown == nullptr)
            return false;
        *list = static_cast<char **>(grown);
    }
    const char *sep = *dir == '\0' || dir[strlen(dir) - 1] == kSep ? "" : "/";
    char *name = strutl_concat_heap(3, dir, sep, leaf);
    if (name == nullptr)
        return false;
    (*list)[(*count)++] = name;
    return true;
}

// The matching leaves of dir; false when storage ran out.
bool collect(const char *pattern, const char *dir, char ***list, int *count, bool mb)
{
    DIR *dp = fileutl_opendir(dir);
    if (dp == nullptr)
        return true;
    bool ok = true;
    while (struct dirent *e = fileutl_readdir(dp)) {
        const char *leaf = e->d_name;
        if ((leaf[0] == '.' && pattern[0] != '.') || strcmp(leaf, ".") == 0 ||
            strcmp(leaf, "..") == 0 || !wild_match(pattern, leaf, strlen(leaf), mb))
            continue;
        if (!(ok = add_match(list, count, dir, leaf)))
            break;
    }
    fileutl_closedir(dp);
    return ok;
}

} // namespace

int fileutl_resolve_pathname(const char *name, const char *const *dirs, int ndirs, int amode,
                             char *out, size_t size)
{
    int d, e;
    return search(name, dirs, ndirs, nullptr, 0, amode, out, size, &d, &e);
}

int fileutl_resolve_pathname_index(const char *name, const char *const *dirs, int ndirs, int amode,
                                   char *out, size_t size, int *dir_index)
{
    int e;
    return search(name, dirs, ndirs, nullptr, 0, amode, out, size, dir_index, &e);
}

int fileutl_resolve_pathname_by_ext(const char *name, const char *const *dirs, int ndirs,
                                    const char *const *exts, int nexts, int amode, char *out,
                                    size_t size)
{
    int d, e;
    return search(name, dirs, ndirs, exts, nexts, amode, out, size, &d, &e);
}

int fileutl_resolve_pathname_index_with_ext(const char *name, const char *const *dirs, int ndirs,
                                            const char *const *exts, int nexts, int amode,
                                            char *out, size_t size, int *dir_index, int *ext_index)
{
    return search(name, dirs, ndirs, exts, nexts, amode, out, size, dir_index, ext_index);
}

int fileutl_resolve_pattern_index(const char *pattern, const char *const *dirs, int ndirs,
                                  char ***matches, int *count)
{
    const bool mb = multibyte_locale();
    *matches = nullptr;
    *count = 0;
    for (int d = 0; d < ndirs; d++) {
        char **list = nullptr;
        int n = 0;
        if (!collect(pattern, dirs[d], &list, &n, mb)) {
            fileutl_resolve_pattern_free(list, n);
            errno = ENOMEM;
            return -1;
        }
        if (n > 0) {
            qsort(list, static_cast<size_t>(n), sizeof *list, compare_names);
            *matches = list;
            *count = n;
            return d;
        }
    }
    errno = ENOENT;
    return -1;
}

void fileutl_resolve_pattern_free(char **matches, int count)
{
    if (matches == nullptr)
        return;
    for (int i = 0; i < count; i++)
        stg_free(matches[i]);
    stg_free(matches);
}

int fileutl_patt_list_matched_cell(const char *const *patterns, int count, const char *name,
                                   int *exact)
{
    const bool mb = multibyte_locale();
    const size_t len = strlen(name);
    int scoping = -1;
    for (int i = 0; i < count; i++) {
        if (wild_match(patterns[i], name, len, mb)) {
            if (exact != nullptr)
                *exact = 1;
            return i;
        }
        if (scoping < 0 && scopes(patterns[i], name, mb))
            scoping = i;
    }
    if (exact != nullptr)
        *exact = 0;
    return scoping;
}

int fileutl_patt_list_match(const char *const *patterns, int count, const char *name, int *exact)
{
    return fileutl_patt_list_matched_cell(patterns, count, name, exact) >= 0;
}
