// Searches and case: first and last occurrences that match only at character
// boundaries, prefixes, lists, white space, case conversion of whole
// characters, case-blind collation and the check of names.
#include "ks/strutl.h"

#include <cctype>
#include <climits>
#include <clocale>
#include <cstring>
#include <cwctype>

#include "ks/stg.h"
#include "ks_assert.h"
#include "strutl_internal.h"

using ks::strutl::char_len;
using ks::strutl::char_len_checked;
using ks::strutl::decode_char;
using ks::strutl::lower_copy;
using ks::strutl::multibyte_locale;

namespace {

// Whether the character c (n bytes) is one of the characters of set.
bool char_in_set(const char *c, int n, const char *set)
{
    if (set == nullptr)
        return false;
    for (const char *p = set; *p;) {
        int l = char_len(p);
        if (l == n && memcmp(p, c, static_cast<size_t>(n)) == 0)
            return true;
        p += l;
    }
    return false;
}

bool is_space_char(const char *s, int n)
{
    if (n == 1)
        return isspace(static_cast<unsigned char>(*s)) != 0;
    wchar_t wc;
    return decode_char(s, static_cast<size_t>(n), &wc) > 0 && iswspace(static_cast<wint_t>(wc));
}

// Length of the white space at s.
size_t space_len(const char *s)
{
    size_t k = 0;
    for (int n; (n = char_len(s + k)) > 0 && is_space_char(s + k, n);)
        k += static_cast<size_t>(n);
    return k;
}

// Converts the character at src (n bytes) into dst; returns the bytes
// written.  A character without a conversion, or an invalid one, is copied.
int convert_case(const char *src, int n, char *dst, int mode)
{
    if (n == 1 && (!multibyte_locale() || static_cast<unsigned char>(*src) < 0x80)) {
        int c = static_cast<unsigned char>(*src);
        dst[0] = static_cast<char>(mode == STRUTL_CASE_UPPER ? toupper(c) : tolower(c));
        return 1;
    }
    wchar_t wc;
    char tmp[MB_LEN_MAX];
    mbstate_t st{};
    size_t m = static_cast<size_t>(-1);
    if (decode_char(src, static_cast<size_t>(n), &wc) > 0) {
        wint_t to = mode == STRUTL_CASE_UPPER ? towupper(static_cast<wint_t>(wc))
                                              : towlower(static_cast<wint_t>(wc));
        m = wcrtomb(tmp, static_cast<wchar_t>(to), &st);
    }
    if (m == static_cast<size_t>(-1) || m == 0) {
        memcpy(dst, src, static_cast<size_t>(n));
        return n;
    }
    memcpy(dst, tmp, m);
    return static_cast<int>(m);
}

// Bytes that the case conversion of s needs (without the NUL).
size_t case_len(const char *s, int mode)
{
    size_t total = 0;
    char tmp[MB_LEN_MAX + 1];
    while (*s) {
        int n = char_len(s);
        total += static_cast<size_t>(convert_case(s, n, tmp, mode));
        s += n;
    }
    return total;
}

} // namespace

char *ks::strutl::lower_copy(const char *s, char *small, size_t size)
{
    size_t need = case_len(s, STRUTL_CASE_LOWER) + 1;
    char *dst = need <= size ? small : static_cast<char *>(stg_malloc(need));
    if (dst)
        strutl_cvt_case_string(dst, need, s, STRUTL_CASE_LOWER);
    return dst;
}

char *strutl_find_char_from(const char *s, size_t start, int c)
{
    if (s == nullptr || start > strlen(s))
        return nullptr;
    return strutl_find_char(s + start, c);
}

char *strutl_find_char(const char *s, int c)
{
    if (s == nullptr)
        return nullptr;
    auto ch = static_cast<char>(c);
    if (!multibyte_locale())
        return const_cast<char *>(strchr(s, ch));
    for (const char *p = s;;) {
        if (*p == ch && char_len(p) <= 1)
            return const_cast<char *>(p);
        if (*p == '\0')
            return nullptr;
        p += char_len(p);
    }
}

char *strutl_find_str(const char *s, const char *sub)
{
    if (s == nullptr || sub == nullptr)
        return nullptr;
    if (!multibyte_locale())
        return const_cast<char *>(strstr(s, sub));
    size_t n = strlen(sub);
    for (const char *p = s; *p; p += char_len(p))
        if (strncmp(p, sub, n) == 0)
            return const_cast<char *>(p);
    return n == 0 ? const_cast<char *>(s) : nullptr;
}

char *strutl_find_str_range(const char *s, size_t len, const char *sub)
{
    if (s == nullptr || sub == nullptr)
        return nullptr;
    size_t n = strlen(sub);
    const char *end = s + strnlen(s, len);
    for (const char *p = s; p + n <= end;) {
        if (memcmp(p, sub, n) == 0)
            return const_cast<char *>(p);
        if (p == end)
            break;
        p += char_len(p);
    }
    return nullptr;
}

char *strutl_right_char(const char *s)
{
    if (s == nullptr || *s == '\0')
        return nullptr;
    const char *last = s;
    for (const char *p = s; *p; p += char_len(p))
        last = p;
    return const_cast<char *>(last);
}

char *strutl_find_last_char(const char *s, int c)
{
    if (s == nullptr)
        return nullptr;
    auto ch = static_cast<char>(c);
    if (!multibyte_locale())
        return const_cast<char *>(strrchr(s, ch));
    const char *found = nullptr;
    const char *p = s;
    for (; *p; p += char_len(p))
        if (*p == ch && char_len(p) == 1)
            found = p;
    if (ch == '\0')
        found = p;
    return const_cast<char *>(found);
}

int strutl_match_last_char(const char *s, int c)
{
    const char *last = strutl_right_char(s);
    return last && char_len(last) == 1 && *last == static_cast<char>(c) ? 1 : 0;
}

char *strutl_strrpbrk(const char *s, const char *set)
{
    if (s == nullptr || set == nullptr)
        return nullptr;
    const char *found = nullptr;
    for (const char *p = s; *p;) {
        int n = char_len(p);
        if (char_in_set(p, n, set))
            found = p;
        p += n;
    }
    return const_cast<char *>(found);
}

size_t strutl_match_prefix(const char *s, const char *prefix)
{
    if (s == nullptr || prefix == nullptr)
        return 0;
    size_t n = strlen(prefix);
    return strncmp(s, prefix, n) == 0 ? n : 0;
}

int strutl_str_in_list(const char *s, const char *const *list)
{
    if (s == nullptr || list == nullptr)
        return 0;
    for (const char *const *p = list; *p; p++)
        if (strcmp(s, *p) == 0)
            return 1;
    return 0;
}

char *strutl_strip_whitespace(char *s)
{
    KS_ASSERT(s != nullptr, "s != NULL");
    char *p = s + space_len(s);
    char *last_end = p;
    for (char *q = p; *q;) {
        int n = char_len(q);
        q += n;
        if (!is_space_char(q - n, n))
            last_end = q;
    }
    auto keep = static_cast<size_t>(last_end - p);
    if (p != s)
        memmove(s, p, keep);
    s[keep] = '\0';
    return s;
}

int strutl_cmp_ignore_whitespace(const char *a, const char *b)
{
    const char *p = a;
    const char *q = b;
    for (;;) {
        p += space_len(p);
        q += space_len(q);
        // Character against character, so that the walk never lands inside
        // one (where a trailing byte and the next could pass for a space).
        int n = char_len(p);
        int m = char_len(q);
        int c = memcmp(p, q, static_cast<size_t>(n < m ? n : m));
        if (c != 0)
            return c < 0 ? -1 : 1;
        if (n != m)
            return n < m ? -1 : 1;
        if (n == 0)
            return 0;
        p += n;
        q += n;
    }
}

int strutl_cvt_case_char(const char *src, char *dst, int mode)
{
    int n = char_len(src);
    if (n == 0) {
        dst[0] = '\0';
        return 0;
    }
    int m = convert_case(src, n, dst, mode);
    dst[m] = '\0';
    return n;
}

int strutl_cvt_case_string(char *dst, size_t size, const char *src, int mode)
{
    if (size == 0)
        return *src ? 1 : 0;
    bool in_place = dst == src;
    size_t o = 0;
    char tmp[MB_LEN_MAX + 1];
    for (const char *p = src; *p;) {
        int n = char_len(p);
        int m = convert_case(p, n, tmp, mode);
        if (in_place && m != n) {
            memcpy(tmp, p, static_cast<size_t>(n)); // another length cannot be written in place
            m = n;
        }
        if (o + static_cast<size_t>(m) > size - 1) {
            dst[o] = '\0';
            return 1;
        }
        memcpy(dst + o, tmp, static_cast<size_t>(m));
        o += static_cast<size_t>(m);
        p += n;
    }
    dst[o] = '\0';
    return 0;
}

int strutl_stricoll(const char *a, const char *b)
{
    char sa[256];
    char sb[256];
    char *la = lower_copy(a, sa, sizeof sa);
    char *lb = lower_copy(b, sb, sizeof sb);
    int r = la && lb ? strcoll(la, lb) : strcoll(a, b);
    if (la && la != sa)
        stg_free(la);
    if (lb && lb != sb)
        stg_free(lb);
    return r;
}

int strutl_is_ok_name(const char *name, const char *first_ok, const char *other_ok)
{
    if (name == nullptr || *name == '\0')
        return 0;
    bool first = true;
    for (const char *p = name; *p;) {
        int n = char_len_checked(p);
        if (n < 0)
            return 0;
        bool ok = (n == 1 && *p == '_') ||
                  strutl_test_char(p, first ? STRUTL_CT_ALPHA : STRUTL_CT_ALNUM, nullptr) != 0 ||
                  char_in_set(p, n, first ? first_ok : other_ok);
        if (!ok)
            return 0;
        first = false;
        p += n;
    }
    return 1;
}
