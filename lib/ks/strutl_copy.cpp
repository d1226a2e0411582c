// Copying and joining: bounded copies that never write past the size, always
// terminate and never split a character (1 when the text was cut), joins,
// replacements and translations into a caller's buffer, and snprintf.
#include "ks/strutl.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ks/imsg.h"
#include "ks/stg.h"
#include "ks_assert.h"
#include "strutl_internal.h"
#include "strutl_msg.h"

using ks::strutl::char_len;
using ks::strutl::multibyte_locale;

namespace {

// Longest prefix of src of at most max bytes that does not split a
// character (and stops at the NUL).
size_t fit_len(const char *src, size_t max)
{
    if (!multibyte_locale())
        return strnlen(src, max);
    size_t n = 0;
    for (;;) {
        int l = char_len(src + n);
        if (l == 0 || n + static_cast<size_t>(l) > max)
            return n;
        n += static_cast<size_t>(l);
    }
}

// Copies the longest whole-character prefix of src of at most max bytes to
// dst (which may overlap it) and terminates it; returns its length.
size_t copy_fit(char *dst, const char *src, size_t max)
{
    size_t k = fit_len(src, max);
    memmove(dst, src, k);
    dst[k] = '\0';
    return k;
}

size_t total_len(int count, va_list ap)
{
    size_t total = 0;
    for (int i = 0; i < count; i++) {
        const char *s = va_arg(ap, const char *);
        if (s)
            total += strlen(s);
    }
    return total;
}

void join_into(char *dst, int count, va_list ap)
{
    char *p = dst;
    for (int i = 0; i < count; i++) {
        const char *s = va_arg(ap, const char *);
        if (s) {
            size_t n = strlen(s);
            memcpy(p, s, n);
            p += n;
        }
    }
    *p = '\0';
}

// Hands each piece of the translation of s to put: the string for a
// character of chars, or the character itself.
template <typename F>
void xlate_pieces(const char *s, const char *chars, const char *const *strings, F put)
{
    for (const char *p = s; *p;) {
        int n = char_len(p);
        const char *hit = (n == 1 && chars) ? strchr(chars, *p) : nullptr;
        if (hit) {
            const char *r = strings[hit - chars];
            put(r, r ? strlen(r) : 0);
        } else {
            put(p, static_cast<size_t>(n));
        }
        p += n;
    }
}

void report_too_small()
{
    imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, STRUTL_MSG_BUFFER_TOO_SMALL);
}

} // namespace

int strutl_ncpy(char *dst, const char *src, size_t n)
{
    size_t k = copy_fit(dst, src, n);
    return src[k] != '\0' ? 1 : 0;
}

int strutl_ncpy_buf(char *buf, size_t size, const char *src, size_t n)
{
    size_t want = strnlen(src, n);
    if (size == 0)
        return want ? 1 : 0;
    size_t k = copy_fit(buf, src, want < size - 1 ? want : size - 1);
    return k < want ? 1 : 0;
}

int strutl_cpy_buf(char *buf, size_t size, const char *src)
{
    if (size == 0)
        return *src ? 1 : 0;
    size_t k = copy_fit(buf, src, size - 1);
    return src[k] != '\0' ? 1 : 0;
}

int strutl_ccpy_buf(char *buf, size_t size, const char *src, int c, const char **stop)
{
    const char *end = strutl_find_char(src, c);
    if (c == '\0' || end == nullptr)
        end = src + strlen(src);
    auto want = static_cast<size_t>(end - src);
    size_t k = size > 0 ? copy_fit(buf, src, want < size - 1 ? want : size - 1) : 0;
    if (stop)
        *stop = src + k;
    return k < want ? 1 : 0;
}

int strutl_cpy_and_advance(char **pos, char *end, const char *src)
{
    if (*pos >= end)
        return *src ? 1 : 0;
    auto size = static_cast<size_t>(end - *pos);
    int cut = strutl_cpy_buf(*pos, size, src);
    *pos += strlen(*pos);
    return cut;
}

int strutl_prepend(char *buf, size_t size, const char *prefix)
{
    size_t plen = strlen(prefix);
    if (size == 0)
        return plen ? 1 : 0; // a buffer of no bytes is never read
    size_t blen = strnlen(buf, size - 1);
    bool cut = buf[blen] != '\0';
    if (plen >= size - 1) {
        size_t k = copy_fit(buf, prefix, size - 1);
        return k < plen || blen ? 1 : 0;
    }
    size_t keep = blen;
    if (plen + blen > size - 1) {
        buf[blen] = '\0';
        keep = fit_len(buf, size - 1 - plen);
        cut = true;
    }
    memmove(buf + plen, buf, keep);
    buf[plen + keep] = '\0';
    memcpy(buf, prefix, plen);
    return cut ? 1 : 0;
}

int strutl_concat(char *buf, size_t size, int count, ...)
{
    va_list ap;
    va_start(ap, count);
    int cut = 0;
    size_t o = 0;
    int i = 0;
    if (size == 0) {
        for (; i < count; i++) {
            const char *s = va_arg(ap, const char *);
            if (s && *s)
                cut = 1;
        }
        va_end(ap);
        return cut;
    }
    size_t limit = size - 1;
    if (count > 0) {
        const char *first = va_arg(ap, const char *);
        i = 1;
        if (first == buf) {
            o = strnlen(buf, limit);
            if (buf[o] != '\0') {
                o = fit_len(buf, limit);
                cut = 1;
            }
        } else if (first) {
            o = fit_len(first, limit);
            memmove(buf, first, o);
            if (first[o] != '\0')
                cut = 1;
        }
    }
    for (; i < count; i++) {
        const char *s = va_arg(ap, const char *);
        if (s == nullptr || *s == '\0' || cut)
            continue;
        size_t room = limit - o;
        size_t n = multibyte_locale() ? fit_len(s, room) : strnlen(s, room);
        memcpy(buf + o, s, n);
        o += n;
        if (s[n] != '\0')
            cut = 1;
    }
    va_end(ap);
    buf[o] = '\0';
    return cut;
}

char *strutl_concat_heap(int count, ...)
{
    va_list ap;
    va_start(ap, count);
    size_t total = total_len(count, ap);
    va_end(ap);
    char *r = static_cast<char *>(stg_malloc(total + 1));
    if (r == nullptr)
        return nullptr;
    va_start(ap, count);
    join_into(r, count, ap);
    va_end(ap);
    return r;
}

char *strutl_concat_area(stg_area_t area, int count, ...)
{
    KS_ASSERT(area != STG_AREA_NULL, "area != STG_AREA_NULL");
    va_list ap;
    va_start(ap, count);
    size_t total = total_len(count, ap);
    va_end(ap);
    char *r = static_cast<char *>(stg_alloc(area, total + 1));
    if (r == nullptr)
        return nullptr;
    va_start(ap, count);
    join_into(r, count, ap);
    va_end(ap);
    return r;
}

char *strutl_slide_tail(char *tail, ptrdiff_t shift)
{
    memmove(tail + shift, tail, strlen(tail) + 1);
    return tail + shift;
}

int strutl_replace_substr(char *buf, size_t size, size_t start, size_t len, const char *repl)
{
    size_t cur = strlen(buf);
    if (start > cur)
        start = cur;
    if (len > cur - start)
        len = cur - start;
    size_t rlen = repl ? strlen(repl) : 0;
    if (cur - len + rlen + 1 > size) {
        report_too_small();
        return 1;
    }
    memmove(buf + start + rlen, buf + start + len, cur - start - len + 1);
    std::copy_n(repl, rlen, buf + start);
    return 0;
}

int strutl_find_replace_substr(char *buf, size_t size, const char *s, const char *find,
                               const char *repl)
{
    if (size == 0) {
        report_too_small();
        return -1;
    }
    size_t flen = find ? strlen(find) : 0;
    size_t rlen = repl ? strlen(repl) : 0;
    size_t o = 0;
    int count = 0;
    for (const char *p = s; *p;) {
        // The next piece of the result: the replacement, or a character of s.
        const char *piece = p;
        auto step = static_cast<size_t>(char_len(p));
        size_t plen = step;
        if (flen && strncmp(p, find, flen) == 0) {
            piece = repl;
            plen = rlen;
            step = flen;
            count++;
        }
        if (o + plen + 1 > size) {
            // Whole characters only in what is kept.
            size_t k = piece == p ? 0 : fit_len(piece, size - 1 - o);
            if (k)
                memcpy(buf + o, piece, k);
            buf[o + k] = '\0';
            report_too_small();
            return -1;
        }
        if (plen)
            memcpy(buf + o, piece, plen);
        o += plen;
        p += step;
    }
    buf[o] = '\0';
    return count;
}

char *strutl_xlate_pname_sep(char *pname, const char *seps, int to_sep, char *buf, size_t size)
{
    if (pname == nullptr)
        return nullptr;
    char *target = pname;
    if (buf != nullptr) {
        size_t len = strlen(pname);
        if (len + 1 > size) {
            report_too_small();
            return nullptr;
        }
        memmove(buf, pname, len + 1);
        target = buf;
    }
    if (seps == nullptr)
        return target;
    for (char *p = target; *p;) {
        int n = char_len(p);
        if (n == 1 && strchr(seps, *p))
            *p = static_cast<char>(to_sep);
        p += n;
    }
    return target;
}

char *strutl_xlate_chars_to_strings(const char *s, const char *chars, const char *const *strings)
{
    if (s == nullptr)
        return nullptr;
    size_t total = 0;
    xlate_pieces(s, chars, strings, [&total](const char *, size_t n) { total += n; });
    char *out = static_cast<char *>(stg_malloc(total + 1));
    if (out == nullptr)
        return nullptr;
    size_t o = 0;
    xlate_pieces(s, chars, strings, [out, &o](const char *piece, size_t n) {
        if (n)
            memcpy(out + o, piece, n);
        o += n;
    });
    out[o] = '\0';
    return out;
}

int strutl_vsnprintf(char *buf, size_t size, const char *fmt, va_list ap)
{
    int n = vsnprintf(buf, size, fmt, ap);
    if (size > 0 && n >= 0 && static_cast<size_t>(n) >= size)
        buf[size - 1] = '\0';
    return n;
}

int strutl_snprintf(char *buf, size_t size, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = strutl_vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    return n;
}
