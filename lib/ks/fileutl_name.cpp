// Pathnames taken apart and put together without touching the file system.
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include "fileutl_internal.h"
#include "ks/fileutl.h"
#include "ks/imsg.h"
#include "ks/strutl.h"
#include "ks_assert.h"
#include "ks_msg.h"

using ks::fileutl::char_len;
using ks::fileutl::kSep;
using ks::fileutl::last_sep;
using ks::fileutl::multibyte_locale;
using ks::fileutl::next_sep;
using ks::fileutl::trailing_run;

namespace {

char *too_long(char *out, size_t size)
{
    if (size > 0)
        out[0] = '\0';
    errno = ENAMETOOLONG;
    return nullptr;
}

// Copies the n bytes at src into dst of size bytes (null dst: nothing to do).
bool put(char *dst, size_t size, const char *src, size_t n)
{
    if (dst == nullptr)
        return true;
    if (n >= size)
        return false;
    memmove(dst, src, n);
    dst[n] = '\0';
    return true;
}

// Both parts of a split, or "" in both with ENAMETOOLONG.
int put_two(char *a, size_t a_size, const char *a_src, size_t a_len, char *b, size_t b_size,
            const char *b_src, size_t b_len)
{
    if ((a == nullptr || a_len < a_size) && (b == nullptr || b_len < b_size)) {
        put(a, a_size, a_src, a_len);
        put(b, b_size, b_src, b_len);
        return 0;
    }
    if (a != nullptr && a_size > 0)
        a[0] = '\0';
    if (b != nullptr && b_size > 0)
        b[0] = '\0';
    errno = ENAMETOOLONG;
    return 1;
}

bool is_dotdot(const char *s, size_t len)
{
    return len == 2 && s[0] == '.' && s[1] == '.';
}

// Drops the last component of out[0..*len) with the separator before it, for
// a ".." that follows.  An empty result is the root, which a ".." cannot
// leave.  False (nothing dropped) when no separator precedes the component
// or the component is itself "..".
bool drop_component(const char *out, size_t *len, bool mb)
{
    if (*len == 0)
        return true;
    ptrdiff_t sep = last_sep(out, *len, mb);
    if (sep < 0 || is_dotdot(out + sep + 1, *len - sep - 1))
        return false;
    *len = static_cast<size_t>(sep);
    return true;
}

// Removes the trailing component of out[root..*len), and the separators
// before it, never shortening the result below root bytes.
void climb(const char *out, size_t root, size_t *len, bool mb)
{
    size_t end = root + trailing_run(out + root, *len - root, mb);
    ptrdiff_t sep = last_sep(out + root, end - root, mb);
    end = sep < 0 ? root : root + sep;
    *len = root + trailing_run(out + root, end - root, mb);
}

// Whether out[0..len) ends in a separator.
bool ends_in_sep(const char *out, size_t len, bool mb)
{
    return len > 0 && trailing_run(out, len, mb) < len;
}

// Copies src into dst (KS_PATH_BUF bytes) without trailing separators; with
// fold, "\" also separates and every separator is written "/".  False when
// it does not fit.
bool working_copy(const char *src, char *dst, bool fold, bool mb)
{
    size_t i = 0;
    if (!fold && !mb) {
        i = strlen(src);
        if (i >= KS_PATH_BUF)
            return false;
        memcpy(dst, src, i + 1);
    } else {
        while (src[i] != '\0') {
            size_t n = char_len(src + i, mb);
            if (i + n >= KS_PATH_BUF)
                return false;
            memcpy(dst + i, src + i, n);
            if (fold && n == 1 && src[i] == '\\')
                dst[i] = kSep;
            i += n;
        }
        dst[i] = '\0';
    }
    size_t run = trailing_run(dst, i, mb);
    if (run > 0) // a leading run stays
        dst[run] = '\0';
    return true;
}

// When base (blen bytes, "" for the root) is path or above it, component by
// component with runs of separators counting as one: the rest of path after
// the separators that follow base; else null.
const char *rest_below(const char *base, size_t blen, const char *path, bool mb)
{
    size_t i = 0;
    const char *p = path;
    while (i < blen) {
        if (base[i] == kSep) {
            if (*p != kSep)
                return nullptr;
            while (base[i] == kSep)
                i++;
            while (*p == kSep)
                p++;
            continue;
        }
        size_t n = char_len(base + i, mb);
        if (base[i] != *p || (n > 1 && strncmp(base + i, p, n) != 0))
            return nullptr;
        i += n;
        p += n;
    }
    if (*p != '\0' && *p != kSep && blen > 0)
        return nullptr;
    while (*p == kSep)
        p++;
    return p;
}

// Drops the last component of base (*blen bytes) and the separators before
// it; false when nothing is left to climb or the component is "..".
bool base_up(char *base, size_t *blen, bool mb)
{
    if (*blen == 0)
        return false;
    ptrdiff_t sep = last_sep(base, *blen, mb);
    size_t start = sep < 0 ? 0 : static_cast<size_t>(sep) + 1;
    if (is_dotdot(base + start, *blen - start))
        return false;
    *blen = sep < 0 ? 0 : trailing_run(base, static_cast<size_t>(sep) + 1, mb);
    base[*blen] = '\0';
    return true;
}

// ups times "..", joined by "/", then "/" and rest (rest alone when ups is
// 0) into out; false when it does not fit.
bool compose_rel(char *out, size_t size, int ups, const char *rest)
{
    size_t o = 0;
    size_t rlen = strlen(rest);
    for (int k = 0; k < ups; k++) {
        size_t need = k > 0 ? 3 : 2;
        if (o + need >= size)
            return false;
        memcpy(out + o, k > 0 ? "/.." : "..", need);
        o += need;
    }
    if (rlen > 0 && ups > 0) {
        if (o + 1 >= size)
            return false;
        out[o++] = kSep;
    }
    if (o + rlen >= size)
        return false;
    memcpy(out + o, rest, rlen + 1);
    return true;
}

} // namespace

char *fileutl_remove_embedded_dots(const char *path, char *out, size_t size)
{
    const bool mb = multibyte_locale();
    size_t o = 0;
    const char *p = path;
    for (;;) {
        // The component up to the next separator is copied as it stands.
        const char *sep = next_sep(p, mb);
        size_t n = static_cast<size_t>(sep - p);
        if (o + n >= size)
            return too_long(out, size);
        memmove(out + o, p, n);
        o += n;
        p = sep;
        if (*p == '\0')
            break;
        size_t dots = 0;
        while (p[1 + dots] == '.')
            dots++;
        char after = p[1 + dots];
        if ((after == kSep || after == '\0') &&
            (dots == 1 || (dots == 2 && drop_component(out, &o, mb)))) {
            p += 1 + dots;
            continue;
        }
        if (o + 1 >= size)
            return too_long(out, size);
        out[o++] = kSep;
        p++;
    }
    if (o == 0) {
        if (size < 2)
            return too_long(out, size);
        out[o++] = kSep;
    }
    out[o] = '\0';
    return out;
}

char *fileutl_make_abs_pn(char *out, size_t size, const char *path, const char *cwd)
{
    size_t plen = strlen(path);
    if (path[0] == kSep)
        return put(out, size, path, plen) ? out : too_long(out, size);
    const bool mb = multibyte_locale();
    size_t o = cwd == nullptr ? 0 : strlen(cwd);
    if (!put(out, size, cwd == nullptr ? "" : cwd, o))
        return too_long(out, size);
    const size_t root = out[0] == kSep ? 1 : 0;
    for (const char *p = path; *p != '\0';) {
        const char *sep = next_sep(p, mb);
        size_t n = static_cast<size_t>(sep - p);
        if (n == 2 && p[0] == '.' && p[1] == '.') {
            climb(out, root, &o, mb);
        } else if (n > 0 && !(n == 1 && p[0] == '.')) {
            bool add_sep = o > 0 && !ends_in_sep(out, o, mb);
            if (o + add_sep + n >= size)
                return too_long(out, size);
            if (add_sep)
                out[o++] = kSep;
            memcpy(out + o, p, n);
            o += n;
        }
        p = *sep == '\0' ? sep : sep + 1;
    }
    out[o] = '\0';
    return out;
}

char *fileutl_make_rel_pn(char *out, size_t size, const char *path, const char *base, int dot_ok,
                          int fold_seps, int max_up)
{
    char p[KS_PATH_BUF], b[KS_PATH_BUF], nb[KS_PATH_BUF];
    if (size == 0)
        return out;
    const bool mb = multibyte_locale();
    const bool prepared = working_copy(path, p, fold_seps != 0, mb);
    if (prepared && working_copy(base, b, fold_seps != 0, mb) &&
        fileutl_remove_embedded_dots(b, nb, sizeof nb) != nullptr) {
        // Without trailing separators; the root becomes "".
        size_t blen = trailing_run(nb, strlen(nb), mb);
        nb[blen] = '\0';
        for (int ups = 0;; ups++) {
            const char *rest = rest_below(nb, blen, p, mb);
            if (rest != nullptr && (*rest != '\0' || ups > 0 || dot_ok)) {
                if (compose_rel(out, size, ups, *rest == '\0' && ups == 0 ? "." : rest))
                    return out;
                break;
            }
            if (rest != nullptr || ups >= max_up || !base_up(nb, &blen, mb))
                break;
        }
    }
    // No relative form: path itself.
    const char *whole = fold_seps && prepared ? p : path;
    if (strutl_cpy_buf(out, size, whole) != 0)
        errno = ENAMETOOLONG;
    return out;
}

int fileutl_pname_scoped_by_list(const char *const *list, int count, const char *path)
{
    for (int i = 0; i < count; i++)
        if (fileutl_pname_equal_or_parent(list[i], path))
            return i;
    return -1;
}

int fileutl_pname_equal(const char *a, const char *b)
{
    return strcmp(a, b) == 0;
}

int fileutl_pname_equal_or_parent(const char *parent, const char *path)
{
    size_t n = strlen(parent);
    return strncmp(parent, path, n) == 0 && (path[n] == kSep || path[n] == '\0');
}

int fileutl_strip_leaf(const char *path, size_t dir_size, char *dir, size_t leaf_size, char *leaf)
{
    const bool mb = multibyte_locale();
    size_t len = strlen(path);
    size_t end = trailing_run(path, len, mb);
    if (len > 0 && end == 0) // separators only
        return put_two(dir, dir_size, "/", 1, leaf, leaf_size, "", 0);
    // The run of separators before the last component decides.
    ptrdiff_t sep = last_sep(path, end, mb);
    if (sep < 0)
        return put_two(dir, dir_size, "", 0, leaf, leaf_size, path, end);
    size_t run = trailing_run(path, static_cast<size_t>(sep) + 1, mb);
    return put_two(dir, dir_size, path, run == 0 ? 1 : run, leaf, leaf_size, path + sep + 1,
                   end - sep - 1);
}

int fileutl_strip_suffix(const char *path, size_t base_size, char *base, size_t sfx_size, char *sfx)
{
    const bool mb = multibyte_locale();
    size_t len = strlen(path);
    ptrdiff_t sep = last_sep(path, len, mb);
    size_t dot = len;
    for (size_t i = static_cast<size_t>(sep + 1); i < len; i += char_len(path + i, mb))
        if (path[i] == '.')
            dot = i;
    return put_two(base, base_size, path, dot, sfx, sfx_size, path + dot, len - dot);
}

int fileutl_strip_hostname(const char *path, size_t host_size, char *host, size_t rest_size,
                           char *rest)
{
    size_t i = ks::fileutl::host_len(path, multibyte_locale());
    if (i > 0)
        return put_two(host, host_size, path, i, rest, rest_size, path + i + 1,
                       strlen(path + i + 1));
    return put_two(host, host_size, "", 0, rest, rest_size, path, strlen(path));
}

char *fileutl_find_pname_sep_left(const char *path)
{
    const char *sep = next_sep(path, multibyte_locale());
    return *sep == kSep ? const_cast<char *>(sep) : nullptr;
}

char *fileutl_strip_pname_sep(char *path)
{
    size_t run = trailing_run(path, strlen(path), multibyte_locale());
    if (run > 0)
        path[run] = '\0';
    return path;
}

char *fileutl_match_trailing_sep(const char *path)
{
    size_t len = strlen(path);
    size_t run = trailing_run(path, len, multibyte_locale());
    return run < len ? const_cast<char *>(path + len - 1) : nullptr;
}

int fileutl_ends_with_slash_dot(const char *path, size_t len)
{
    const bool mb = multibyte_locale();
    len = strnlen(path, len);
    // Starts of the last two characters.
    size_t last = len, before = len;
    for (size_t i = 0; i < len; i += char_len(path + i, mb)) {
        before = last;
        last = i;
    }
    return len >= 3 && last == len - 1 && path[last] == '.' && before == len - 2 &&
           path[before] == kSep;
}

int fileutl_root_split(const char *path, char *root, size_t root_path_size, char *rel,
                       size_t rel_path_size)
{
    size_t path_len = strlen(path);
    KS_ASSERT(root_path_size >= 1 + 1);
    KS_ASSERT(rel_path_size >= (path_len - 1) + 1);
    if (path[0] != kSep) {
        root[0] = '\0';
        if (rel_path_size > 0)
            rel[0] = '\0';
        errno = EINVAL;
        return 1;
    }
    memcpy(root, "/", 2);
    memcpy(rel, path + 1, path_len);
    return 0;
}

int fileutl_chk_large_file_overflow(int64_t size, const char *name)
{
    if (size <= INT32_MAX)
        return 0;
    if (name != nullptr)
        imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_FILE_TOO_LARGE, name);
    return 1;
}
