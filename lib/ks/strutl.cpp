// String utilities.  Every routine that walks text steps by whole characters
// when the locale has characters of more than one byte, so that the second
// byte of a Shift_JIS character (which may be '\\' or '|') is never taken for
// a separator.  Nothing here holds an object with a destructor across a call
// that the fault manager could unwind.
#include "ks/strutl.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <unistd.h>
#include <sys/stat.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "ks/imsg.h"
#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks_internal.h"

namespace {

// Indices into the module's message table (catalogue number minus one).
enum {
    MSG_BAD_FORMAT = 0,
    MSG_BUF_TOO_SMALL = 1,
    MSG_NO_MEMORY = 2,
    MSG_NULL_STRING = 3,
    MSG_INVALID_MB = 4,
    MSG_TO_WIDE = 5,
    MSG_FROM_WIDE = 6
};
// "Operation %s: %s\n" of the library's shared table.
const int KS_MSG_OPERATION = 2;

// ---- Multibyte walking ---------------------------------------------------

inline bool multibyte_locale() { return MB_CUR_MAX > 1; }

// Length of the character at s: 0 at the NUL, -1 for bytes that do not
// form a valid character.
inline int char_len_checked(const char *s)
{
    if (*s == '\0')
        return 0;
    if (!multibyte_locale())
        return 1;
    mbstate_t st;
    memset(&st, 0, sizeof st);
    size_t lim = strnlen(s, MB_CUR_MAX);
    size_t n = mbrlen(s, lim, &st);
    if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2) || n == 0)
        return -1;
    return static_cast<int>(n);
}

// Like char_len_checked, but a byte that does not start a valid character
// counts as one, so that every walker advances.
inline int char_len(const char *s)
{
    if (static_cast<unsigned char>(*s) - 1u < 0x7Fu)
        return 1;
    int n = char_len_checked(s);
    return n < 0 ? 1 : n;
}

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
    mbstate_t st;
    memset(&st, 0, sizeof st);
    size_t r = mbrtowc(&wc, s, static_cast<size_t>(n), &st);
    if (r == static_cast<size_t>(-1) || r == static_cast<size_t>(-2))
        return false;
    return iswspace(static_cast<wint_t>(wc)) != 0;
}

void assert_fail(const char *text, int line) { pfm_assert_fail(text, __FILE__, line); }

#define STRUTL_ASSERT(expr) ((expr) ? (void)0 : assert_fail(#expr, __LINE__))

// ---- Numbers ---------------------------------------------------------------

template <typename T, typename F>
uint32_t parse_extended(const char *str, T *out, char **endp, F conv)
{
    *out = 0;
    errno = 0;
    if (endp)
        *endp = const_cast<char *>(str);
    if (str == nullptr)
        return 1;
    char *end = nullptr;
    T v = conv(str, &end);
    if (endp)
        *endp = end;
    if (errno != 0 || (v == 0 && end == str))
        return 1;
    *out = v;
    return 0;
}

// The whole-string rule: as parse_extended, and text after the number fails
// (the value is still stored).
template <typename T, typename F>
uint32_t parse_whole(const char *str, T *out, F conv)
{
    char *end = nullptr;
    if (parse_extended(str, out, &end, conv) != 0)
        return 1;
    return *end != '\0' ? 1 : 0;
}

uint32_t size_to_long(const char *str, long *out, bool in_kilo)
{
    *out = 0;
    char *end = nullptr;
    double v;
    if (parse_extended(str, &v, &end, [](const char *p, char **e) { return strtod(p, e); }) != 0)
        return 1;
    double factor;
    if (*end == '\0') {
        factor = in_kilo ? 0.0009765625 : 1.0;
    } else {
        if (end[1] != '\0')
            return 1;
        char c = *end;
        if (in_kilo && (c < 'G' || c > 'm'))
            return 1;
        switch (c) {
        case 'K': case 'k': factor = in_kilo ? 1.0 : 1024.0; break;
        case 'M': case 'm': factor = in_kilo ? 1024.0 : 1048576.0; break;
        case 'G': case 'g': factor = in_kilo ? 1048576.0 : 1073741824.0; break;
        default: return 1;
        }
    }
    double p = v * factor;
    // A size that a long cannot hold (or NaN) is refused rather than wrapped.
    if (!(p > -9223372036854775808.0 && p < 9223372036854775808.0))
        return 1;
    long r = static_cast<long>(p);
    if (r == 0 && v != 0)
        r = 1;
    *out = r;
    return 0;
}

char u32_buf[33];

// ---- Tokenizer and flags state --------------------------------------------

char *token_pos = nullptr;
char *flags_buf = nullptr;
const size_t FLAGS_BUF_SIZE = 1024;

// ---- Environment expansion ---------------------------------------------------

// Output that grows inside the temporary area (old blocks go with the area).
struct area_buf {
    stg_area_t area;
    char *data;
    size_t len;
    size_t cap;
};

bool ab_reserve(area_buf *b, size_t extra)
{
    if (b->len + extra + 1 <= b->cap)
        return true;
    size_t cap = b->cap ? b->cap : 64;
    while (cap < b->len + extra + 1)
        cap *= 2;
    char *d = static_cast<char *>(stg_alloc(b->area, cap));
    if (d == nullptr)
        return false;
    if (b->len)
        memcpy(d, b->data, b->len);
    b->data = d;
    b->cap = cap;
    return true;
}

bool ab_append(area_buf *b, const char *s, size_t n)
{
    if (!ab_reserve(b, n))
        return false;
    memcpy(b->data + b->len, s, n);
    b->len += n;
    b->data[b->len] = '\0';
    return true;
}

inline bool name_char(const char *p)
{
    unsigned char c = static_cast<unsigned char>(*p);
    return c < 0x80 && (isalnum(c) || c == '_');
}

// One pass over work (a copy of the caller's string held in the area; it is
// cut for a moment at the end of each name so that getenv can read it).
char *expand_pass(stg_area_t area, char *work, int *found)
{
    area_buf out = {area, nullptr, 0, 0};
    if (!ab_reserve(&out, strlen(work)))
        return nullptr;
    out.data[0] = '\0';
    char *p = work;
    while (*p) {
        int n = char_len(p);
        if (n > 1) {
            if (!ab_append(&out, p, static_cast<size_t>(n)))
                return nullptr;
            p += n;
            continue;
        }
        if (*p == '\\') {
            if (p[1] == '\0') {
                if (!ab_append(&out, p, 1))
                    return nullptr;
                p++;
                continue;
            }
            int m = char_len(p + 1);
            if (!ab_append(&out, p + 1, static_cast<size_t>(m)))
                return nullptr;
            p += 1 + m;
            continue;
        }
        if (*p == '$' && (p[1] == '{' || name_char(p + 1))) {
            *found = 1;
            char *name;
            char *name_end;
            char *next;
            if (p[1] == '{') {
                name = p + 2;
                name_end = name;
                while (*name_end && *name_end != '}')
                    name_end += char_len(name_end);
                next = *name_end ? name_end + 1 : name_end;
            } else {
                name = p + 1;
                name_end = name;
                while (name_char(name_end))
                    name_end++;
                next = name_end;
            }
            // The string is rewritten in place for the look-up: a handler
            // must not see it cut.
            pfm_inhibit();
            char saved = *name_end;
            *name_end = '\0';
            const char *value = getenv(name);
            *name_end = saved;
            pfm_enable();
            if (value && !ab_append(&out, value, strlen(value)))
                return nullptr;
            p = next;
            continue;
        }
        if (!ab_append(&out, p, 1))
            return nullptr;
        p++;
    }
    return out.data;
}

// One expansion pass into *slot.  The area, and the result while it has no
// owner yet, are never left behind by an unwind: the record is armed before
// the area exists, and the result changes hands with signals held.
void expand_into(const char *str, int *flag, char *volatile *slot)
{
    stg_area_t volatile area = STG_AREA_NULL;
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) != 0) {
        // Unwound from inside: the area goes, the fault goes on outwards.
        stg_area_t doomed = area;
        stg_delete_area(&doomed);
        pfm_raise(rec.value);
    }
    pfm_inhibit();
    area = stg_create_area(1024);
    pfm_enable();
    int found = 0;
    char *work = area != STG_AREA_NULL ? stg_area_strdup(area, str) : nullptr;
    char *expanded = work ? expand_pass(area, work, &found) : nullptr;
    pfm_inhibit();
    *slot = expanded ? stg_strdup(expanded) : nullptr;
    pfm_cleanup_rls(&rec);
    stg_area_t done = area;
    stg_delete_area(&done);
    pfm_enable();
    if (flag)
        *flag = found;
}

// Passes of strutl_expand_evs_iterate.  *cur holds the latest result and
// *next the one being made, both for the caller's clean-up frame.
char *expand_passes(const char *str, int limit, char *volatile *cur, char *volatile *next)
{
    int passes = 0;
    const char *in = str;
    for (;;) {
        int flag = 0;
        expand_into(in, &flag, next);
        pfm_inhibit();
        stg_free(*cur);
        *cur = *next;
        *next = nullptr;
        pfm_enable();
        if (*cur == nullptr) {
            errno = ENOMEM;
            return nullptr;
        }
        if (!flag)
            return *cur;
        if (++passes > limit) {
            pfm_inhibit();
            stg_free(*cur);
            *cur = nullptr;
            pfm_enable();
            errno = EINVAL;
            return nullptr;
        }
        in = *cur;
    }
}

// ---- UTF tables ----------------------------------------------------------------

// Converts the leading ASCII units of the next 8 (to bytes) and returns how
// many there were; the destination needs room for 8 bytes, of which those
// past the count are scratch.
inline size_t ascii_units8(const wchar_t *src, unsigned char *dst)
{
#if defined(__SSE2__)
    static_assert(sizeof(wchar_t) == 4, "32-bit units");
    __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src));
    __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 4));
    __m128i m = _mm_set1_epi32(~0x7F);
    __m128i z = _mm_setzero_si128();
    __m128i ok = _mm_packs_epi32(_mm_cmpeq_epi32(_mm_and_si128(a, m), z),
                                 _mm_cmpeq_epi32(_mm_and_si128(b, m), z));
    unsigned bad = ~static_cast<unsigned>(_mm_movemask_epi8(ok)) & 0xFFFFu;
    __m128i w = _mm_packs_epi32(a, b);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(dst), _mm_packus_epi16(w, w));
    return bad == 0 ? 8 : static_cast<size_t>(__builtin_ctz(bad)) / 2;
#else
    size_t k = 0;
    while (k < 8 && static_cast<uint32_t>(src[k]) < 0x80) {
        dst[k] = static_cast<unsigned char>(src[k]);
        k++;
    }
    return k;
#endif
}

// Converts the leading ASCII bytes of the next 16 (to units) and returns how
// many there were; the destination needs room for 16 units, of which those
// past the count are scratch.
inline size_t ascii_bytes16(const unsigned char *src, wchar_t *dst)
{
#if defined(__SSE2__)
    __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src));
    unsigned bad = static_cast<unsigned>(_mm_movemask_epi8(v));
    __m128i z = _mm_setzero_si128();
    __m128i lo = _mm_unpacklo_epi8(v, z);
    __m128i hi = _mm_unpackhi_epi8(v, z);
    __m128i *out = reinterpret_cast<__m128i *>(dst);
    _mm_storeu_si128(out, _mm_unpacklo_epi16(lo, z));
    _mm_storeu_si128(out + 1, _mm_unpackhi_epi16(lo, z));
    _mm_storeu_si128(out + 2, _mm_unpacklo_epi16(hi, z));
    _mm_storeu_si128(out + 3, _mm_unpackhi_epi16(hi, z));
    return bad == 0 ? 16 : static_cast<size_t>(__builtin_ctz(bad));
#else
    size_t k = 0;
    while (k < 16 && src[k] < 0x80) {
        dst[k] = static_cast<wchar_t>(src[k]);
        k++;
    }
    return k;
#endif
}

const unsigned char first_byte_mark[7] = {0x00, 0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};

constexpr unsigned char trailing_bytes_entry(int c)
{
    return c < 0xC0 ? 0 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : c < 0xF8 ? 3 : c < 0xFC ? 4 : 5;
}

struct trailing_table {
    unsigned char v[256];
    constexpr trailing_table() : v()
    {
        for (int i = 0; i < 256; i++)
            v[i] = trailing_bytes_entry(i);
    }
};
constexpr trailing_table trailing_bytes;

const uint32_t offsets_from_utf8[6] = {0x00000000u, 0x00003080u, 0x000E2080u,
                                       0x03C82080u, 0xFA082080u, 0x82082080u};

// ---- Scrambling tables (key material) -----------------------------------------

// Phase 0 keeps the top six bits and carries two; phase 1 keeps four and
// carries four; phase 2 keeps two and carries six, which make the fourth symbol.
const uint32_t store_shift[3] = {2, 4, 6};
const uint32_t store_mask[3] = {0xFC, 0xF0, 0xC0};
const uint32_t carry_shift[3] = {4, 2, 0};
const uint32_t carry_mask[3] = {0x03, 0x0F, 0x3F};

const unsigned char key_table[64] = {
    52, 30, 54, 46, 40, 12, 9,  62, 47, 63, 22, 6,  51, 16, 5,  10,
    55, 32, 60, 26, 14, 19, 41, 25, 29, 8,  39, 31, 4,  24, 17, 2,
    27, 48, 35, 23, 37, 15, 1,  34, 59, 0,  33, 13, 44, 20, 61, 18,
    49, 42, 57, 43, 11, 38, 36, 7,  3,  56, 50, 21, 28, 45, 58, 53};

const unsigned char encode_table[65] =
    "pkceEK+8jbCiYudR9ISqnNoZ42g0fGl6hyPAUM1vLF5xWaDHmT-sOBV73wtXJzQr";

// Inverse of encode_table: the symbol's value, -1 for a byte that is none.
struct decode_table_t {
    int16_t v[256];
    constexpr decode_table_t() : v()
    {
        for (int i = 0; i < 256; i++)
            v[i] = -1;
        for (int i = 0; i < 64; i++)
            v[encode_table[i]] = static_cast<int16_t>(i);
    }
};
constexpr decode_table_t decode_table;
static_assert(sizeof(decode_table.v) == 512, "decode table size");

size_t scrambled_len(size_t plain_len)
{
    size_t r = plain_len % 3;
    return plain_len / 3 * 4 + (r ? r + 1 : 0) + 1;
}

// ---- Case conversion -------------------------------------------------------------

// Converts the character at src (n bytes) into dst; returns the bytes written.
int convert_case(const char *src, int n, char *dst, int mode)
{
    if (n == 1 && (!multibyte_locale() || static_cast<unsigned char>(*src) < 0x80)) {
        unsigned char c = static_cast<unsigned char>(*src);
        dst[0] = static_cast<char>(mode == STRUTL_CASE_UPPER ? toupper(c) : tolower(c));
        return 1;
    }
    wchar_t wc;
    mbstate_t st;
    memset(&st, 0, sizeof st);
    size_t r = mbrtowc(&wc, src, static_cast<size_t>(n), &st);
    if (r == static_cast<size_t>(-1) || r == static_cast<size_t>(-2) || r == 0) {
        memcpy(dst, src, static_cast<size_t>(n));
        return n;
    }
    wint_t w2 = mode == STRUTL_CASE_UPPER ? towupper(static_cast<wint_t>(wc))
                                         : towlower(static_cast<wint_t>(wc));
    char tmp[MB_LEN_MAX];
    mbstate_t st2;
    memset(&st2, 0, sizeof st2);
    size_t m = wcrtomb(tmp, static_cast<wchar_t>(w2), &st2);
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

// Lower-case copy of s: into small (size bytes) when it fits, else from the
// heap.  Null when out of memory.
char *lower_copy(const char *s, char *small, size_t size)
{
    size_t need = case_len(s, STRUTL_CASE_LOWER) + 1;
    char *dst = need <= size ? small : static_cast<char *>(stg_malloc(need));
    if (dst)
        strutl_cvt_case_string(dst, need, s, STRUTL_CASE_LOWER);
    return dst;
}

// ---- Joining -----------------------------------------------------------------------

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

void print_list(int first_type, const char *const *list)
{
    if (list == nullptr)
        return;
    int type = first_type;
    for (const char *const *p = list; *p; p++) {
        imsg_print(type, "%s\n", -1, *p);
        type = first_type + 1;
    }
}

void report_system_error(const char *operation, int err)
{
    imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_OPERATION, operation, strerror(err));
}

// Reads with fill (bytes read, 0 at the end or with *err set on an error)
// into a block of stg_malloc that starts at cap bytes and doubles.
template <typename F>
char *read_all(size_t cap, size_t *len, F fill)
{
    if (len)
        *len = 0;
    char *buf = static_cast<char *>(stg_malloc(cap));
    if (buf == nullptr)
        return nullptr;
    size_t used = 0;
    for (;;) {
        if (used + 1 >= cap) {
            char *nb = static_cast<char *>(stg_realloc(buf, cap * 2));
            if (nb == nullptr) {
                stg_free(buf);
                return nullptr;
            }
            buf = nb;
            cap *= 2;
        }
        int err = 0;
        size_t r = fill(buf + used, cap - 1 - used, &err);
        if (err != 0) {
            stg_free(buf);
            report_system_error("read", err);
            errno = err;
            return nullptr;
        }
        if (r == 0)
            break;
        used += r;
    }
    buf[used] = '\0';
    if (len)
        *len = used;
    return buf;
}

} // namespace

// =========================================================================
// Numbers

uint32_t strutl_strtol(const char *str, int base, long *out)
{
    return parse_whole(str, out, [base](const char *s, char **e) { return strtol(s, e, base); });
}

uint32_t strutl_strtoul(const char *str, int base, unsigned long *out)
{
    return parse_whole(str, out, [base](const char *s, char **e) { return strtoul(s, e, base); });
}

uint32_t strutl_strtod(const char *str, double *out)
{
    return parse_whole(str, out, [](const char *s, char **e) { return strtod(s, e); });
}

uint32_t strutl_strtol_extended(const char *str, int base, long *out, char **end)
{
    return parse_extended(str, out, end, [base](const char *s, char **e) { return strtol(s, e, base); });
}

uint32_t strutl_strtoul_extended(const char *str, int base, unsigned long *out, char **end)
{
    return parse_extended(str, out, end, [base](const char *s, char **e) { return strtoul(s, e, base); });
}

uint32_t strutl_strtod_extended(const char *str, double *out, char **end)
{
    return parse_extended(str, out, end, [](const char *s, char **e) { return strtod(s, e); });
}

uint32_t strutl_kstr_to_long(const char *str, long *out) { return size_to_long(str, out, true); }

uint32_t strutl_kstr_or_str_to_long(const char *str, long *out) { return size_to_long(str, out, false); }

long strutl_process_long_param(const char *str, long def, long min, long max)
{
    long v;
    if (str == nullptr || strutl_strtol(str, 10, &v) != 0)
        return def;
    if (v < min)
        return min;
    return v < max ? v : max;
}

char *strutl_u32tostr(uint32_t value, int base, int width)
{
    static const char digits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    if (base < 2 || base > 36)
        return nullptr;
    memset(u32_buf, '0', 32);
    u32_buf[32] = '\0';
    int i = 32;
    uint32_t b = static_cast<uint32_t>(base);
    while (value != 0 && i > 0) {
        u32_buf[--i] = digits[value % b];
        value /= b;
    }
    if (width > 32)
        return u32_buf;
    if (width >= 0)
        return u32_buf + 32 - width;
    int first = 0;
    while (first < 31 && u32_buf[first] == '0')
        first++;
    return u32_buf + first;
}

// =========================================================================
// Character classes and multibyte walking

int strutl_test_char(const char *s, uint32_t classes, int *len)
{
    if (len)
        *len = 0;
    if (s == nullptr || *s == '\0')
        return 0;
    wchar_t wc;
    mbstate_t st;
    memset(&st, 0, sizeof st);
    size_t lim = strnlen(s, MB_CUR_MAX);
    size_t n = mbrtowc(&wc, s, lim, &st);
    bool wide = !(n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2) || n == 0);
    if (len)
        *len = wide ? static_cast<int>(n) : 1;
    if (wide) {
        wint_t w = static_cast<wint_t>(wc);
        if ((classes & STRUTL_CT_ALPHA) && !iswalpha(w)) return 0;
        if ((classes & STRUTL_CT_UPPER) && !iswupper(w)) return 0;
        if ((classes & STRUTL_CT_LOWER) && !iswlower(w)) return 0;
        if ((classes & STRUTL_CT_DIGIT) && !iswdigit(w)) return 0;
        if ((classes & STRUTL_CT_XDIGIT) && !iswxdigit(w)) return 0;
        if ((classes & STRUTL_CT_ALNUM) && !iswalnum(w)) return 0;
        if ((classes & STRUTL_CT_SPACE) && !iswspace(w)) return 0;
        if ((classes & STRUTL_CT_PUNCT) && !iswpunct(w)) return 0;
        if ((classes & STRUTL_CT_PRINT) && !iswprint(w)) return 0;
        if ((classes & STRUTL_CT_GRAPH) && !iswgraph(w)) return 0;
        return 1;
    }
    int c = static_cast<unsigned char>(*s);
    if ((classes & STRUTL_CT_ALPHA) && !isalpha(c)) return 0;
    if ((classes & STRUTL_CT_UPPER) && !isupper(c)) return 0;
    if ((classes & STRUTL_CT_LOWER) && !islower(c)) return 0;
    if ((classes & STRUTL_CT_DIGIT) && !isdigit(c)) return 0;
    if ((classes & STRUTL_CT_XDIGIT) && !isxdigit(c)) return 0;
    if ((classes & STRUTL_CT_ALNUM) && !isalnum(c)) return 0;
    if ((classes & STRUTL_CT_SPACE) && !isspace(c)) return 0;
    if ((classes & STRUTL_CT_PUNCT) && !ispunct(c)) return 0;
    if ((classes & STRUTL_CT_PRINT) && !isprint(c)) return 0;
    if ((classes & STRUTL_CT_GRAPH) && !isgraph(c)) return 0;
    return 1;
}

int strutl_mblen(const char *s)
{
    if (s == nullptr)
        return 0;
    return char_len(s);
}

int strutl_mb_char_from_str(char *ch, const char **s_tail)
{
    STRUTL_ASSERT(s_tail != NULL);
    const char *s = *s_tail;
    int n = (s == nullptr) ? 0 : char_len(s);
    if (n > 0) {
        memcpy(ch, s, static_cast<size_t>(n));
        *s_tail = s + n;
    }
    ch[n] = '\0';
    return n;
}

int strutl_wide_char_from_str(wchar_t *wc, const char **s_tail)
{
    STRUTL_ASSERT(s_tail != NULL);
    const char *s = *s_tail;
    if (s == nullptr || *s == '\0') {
        *wc = L'\0';
        return 0;
    }
    mbstate_t st;
    memset(&st, 0, sizeof st);
    size_t lim = strnlen(s, MB_CUR_MAX);
    size_t n = mbrtowc(wc, s, lim, &st);
    if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2) || n == 0) {
        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_INVALID_MB, s);
        return -1;
    }
    *s_tail = s + n;
    return static_cast<int>(n);
}

size_t strutl_mb_strlen(const char *s)
{
    STRUTL_ASSERT(s != NULL);
    if (!multibyte_locale())
        return strlen(s);
    size_t count = 0;
    while (*s) {
        s += char_len(s);
        count++;
    }
    return count;
}

size_t strutl_wide_strlen(const wchar_t *ws)
{
    STRUTL_ASSERT(ws != NULL);
    return wcslen(ws);
}

wchar_t *strutl_cvt_str_to_wide_str(stg_area_t area, const char *s)
{
    STRUTL_ASSERT(area != STG_AREA_NULL);
    if (s == nullptr) {
        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_NULL_STRING);
        return nullptr;
    }
    for (const char *p = s; *p;) {
        int n = char_len_checked(p);
        if (n < 0) {
            imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_INVALID_MB, p);
            return nullptr;
        }
        p += n;
    }
    mbstate_t st;
    memset(&st, 0, sizeof st);
    const char *src = s;
    size_t count = mbsrtowcs(nullptr, &src, 0, &st);
    if (count == static_cast<size_t>(-1)) {
        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_TO_WIDE, strerror(errno));
        return nullptr;
    }
    wchar_t *ws = static_cast<wchar_t *>(stg_alloc(area, (count + 1) * sizeof(wchar_t)));
    if (ws == nullptr)
        return nullptr;
    memset(&st, 0, sizeof st);
    src = s;
    mbsrtowcs(ws, &src, count + 1, &st);
    ws[count] = L'\0';
    return ws;
}

char *strutl_cvt_wide_str_to_str(stg_area_t area, const wchar_t *ws)
{
    STRUTL_ASSERT(area != STG_AREA_NULL);
    if (ws == nullptr) {
        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_NULL_STRING);
        return nullptr;
    }
    mbstate_t st;
    memset(&st, 0, sizeof st);
    const wchar_t *src = ws;
    size_t count = wcsrtombs(nullptr, &src, 0, &st);
    if (count == static_cast<size_t>(-1)) {
        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_FROM_WIDE);
        return nullptr;
    }
    char *s = static_cast<char *>(stg_alloc(area, count + 1));
    if (s == nullptr)
        return nullptr;
    memset(&st, 0, sizeof st);
    src = ws;
    wcsrtombs(s, &src, count + 1, &st);
    s[count] = '\0';
    return s;
}

int strutl_get_sys_char_type(void) { return MB_CUR_MAX < 2 ? 1 : 0; }

// =========================================================================
// Environment expansion

char *strutl_expand_evs_status(const char *str, int *flag)
{
    if (flag)
        *flag = 0;
    const char *s = str;
    STRUTL_ASSERT(s != NULL);
    char *volatile result = nullptr;
    expand_into(str, flag, &result);
    return result;
}

char *strutl_expand_evs(const char *str) { return strutl_expand_evs_status(str, nullptr); }

char *strutl_expand_evs_iterate(const char *str, int max)
{
    if (max < 0) {
        errno = EINVAL;
        return nullptr;
    }
    // The intermediate results go with an unwind as well.
    char *volatile cur = nullptr;
    char *volatile next = nullptr;
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) != 0) {
        stg_free(cur);
        stg_free(next);
        pfm_raise(rec.value);
    }
    char *result = expand_passes(str, max == 0 ? 8 : max, &cur, &next);
    pfm_cleanup_rls(&rec);
    return result;
}

// =========================================================================
// UTF-8 and UTF-16

int strutl_utf16to8(char *dst, const wchar_t *src, size_t src_units, size_t dst_capacity)
{
    unsigned char *d = reinterpret_cast<unsigned char *>(dst);
    unsigned char *const end = d + dst_capacity;
    size_t i = 0;
    while (i < src_units) {
        // Runs of ASCII need no length decision: a block at a time while
        // both sides have room, then one by one.
        while (src_units - i >= 8 && end - d >= 8) {
            size_t k = ascii_units8(src + i, d);
            i += k;
            d += k;
            if (k < 8)
                break;
        }
        while (i < src_units && d < end && static_cast<uint32_t>(src[i]) < 0x80)
            *d++ = static_cast<unsigned char>(src[i++]);
        if (i == src_units)
            break;
        // Other characters while a following unit and four bytes of room
        // exist: computed without branches, since real text mixes lengths
        // unpredictably.  Bytes past the character's length are scratch that
        // the next character or the terminator overwrites.
        while (src_units - i >= 2 && end - d >= 4 && static_cast<uint32_t>(src[i]) >= 0x80) {
            // A branch, not a select, for the surrogate pair: the position
            // of the next unit then does not wait for this one's load.
            uint32_t ch = static_cast<uint32_t>(src[i]);
            uint32_t pair = 0;
            if (ch - 0xD800 < 0x400) {
                uint32_t u1 = static_cast<uint32_t>(src[i + 1]);
                if (u1 - 0xDC00 < 0x400) {
                    ch = ((ch - 0xD800) << 10) + (u1 - 0xDC00) + 0x10000;
                    pair = 1;
                }
            }
            uint32_t quirk = ch >= 0x200000;
            ch = quirk ? 0xFFFD : ch;
            uint32_t len = quirk ? 2 : 1 + (ch >= 0x80) + (ch >= 0x800) + (ch >= 0x10000);
            // Shifts of the first three bytes by length (the later ones
            // are scratch for short characters).
            static const unsigned char shift0[5] = {0, 0, 6, 12, 18};
            static const unsigned char shift1[5] = {0, 0, 0, 6, 12};
            static const unsigned char shift2[5] = {0, 0, 0, 0, 6};
            unsigned s1 = shift1[len];
            unsigned s2 = shift2[len];
            uint32_t b0 = ((ch >> shift0[len]) | first_byte_mark[len]) & 0xFF;
            uint32_t b1 = 0x80 | ((ch >> s1) & 0x3F);
            uint32_t b2 = 0x80 | ((ch >> s2) & 0x3F);
            uint32_t b3 = 0x80 | (ch & 0x3F);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
            // One store for the four bytes.
            uint32_t word = b0 | b1 << 8 | b2 << 16 | b3 << 24;
            memcpy(d, &word, 4);
#else
            d[0] = static_cast<unsigned char>(b0);
            d[1] = static_cast<unsigned char>(b1);
            d[2] = static_cast<unsigned char>(b2);
            d[3] = static_cast<unsigned char>(b3);
#endif
            d += len;
            i += 1 + pair;
        }
        if (i == src_units)
            break;
        // ASCII after a word goes back to the run loops above; only what
        // they cannot take (the last unit, or too little room) comes here.
        if (static_cast<uint32_t>(src[i]) < 0x80 && d < end)
            continue;
        uint32_t ch = static_cast<uint32_t>(src[i++]);
        if (ch >= 0xD800 && ch <= 0xDBFF && i < src_units) {
            uint32_t ch2 = static_cast<uint32_t>(src[i]);
            if (ch2 >= 0xDC00 && ch2 <= 0xDFFF) {
                ch = ((ch - 0xD800) << 10) + (ch2 - 0xDC00) + 0x10000;
                i++;
            }
        }
        int len;
        if (ch < 0x80) {
            len = 1;
        } else if (ch < 0x800) {
            len = 2;
        } else if (ch < 0x10000) {
            len = 3;
        } else if (ch < 0x200000) {
            len = 4;
        } else {
            // Kept as it always was: two bytes, which come out as 0xFF 0xBD.
            ch = 0xFFFD;
            len = 2;
        }
        if (len > end - d) {
            *d = '\0';
            return 3;
        }
        // Continuation bytes carry six bits each, marked 0x80; the first
        // byte gets the mark of the length (for the kept quirk its high bits
        // spill into the mark, giving 0xFF).
        switch (len) {
        case 1:
            d[0] = static_cast<unsigned char>(ch);
            break;
        case 2:
            d[1] = static_cast<unsigned char>(0x80 | (ch & 0x3F));
            d[0] = static_cast<unsigned char>((ch >> 6) | first_byte_mark[2]);
            break;
        case 3:
            d[2] = static_cast<unsigned char>(0x80 | (ch & 0x3F));
            d[1] = static_cast<unsigned char>(0x80 | ((ch >> 6) & 0x3F));
            d[0] = static_cast<unsigned char>((ch >> 12) | first_byte_mark[3]);
            break;
        default:
            d[3] = static_cast<unsigned char>(0x80 | (ch & 0x3F));
            d[2] = static_cast<unsigned char>(0x80 | ((ch >> 6) & 0x3F));
            d[1] = static_cast<unsigned char>(0x80 | ((ch >> 12) & 0x3F));
            d[0] = static_cast<unsigned char>((ch >> 18) | first_byte_mark[4]);
            break;
        }
        d += len;
    }
    *d = '\0';
    return 0;
}

int strutl_utf8to16(wchar_t *dst, const char *src, size_t src_bytes, size_t dst_capacity_units,
                    size_t *consumed)
{
    const unsigned char *s = reinterpret_cast<const unsigned char *>(src);
    const unsigned char *const send = s + src_bytes;
    wchar_t *d = dst;
    wchar_t *const dend = dst + dst_capacity_units;
    int result = 0;
    while (s < send) {
        while (send - s >= 16 && dend - d >= 16) {
            size_t k = ascii_bytes16(s, d);
            s += k;
            d += k;
            if (k < 16)
                break;
        }
        while (s < send && d < dend && *s < 0x80)
            *d++ = static_cast<wchar_t>(*s++);
        if (s == send)
            break;
        // Sequences of two to four bytes while four source bytes and two
        // units of room exist, without branches on the length; d[1] is
        // scratch when the character takes one unit.
        while (send - s >= 4 && dend - d >= 2 && *s >= 0x80) {
            uint32_t extra = trailing_bytes.v[*s];
            if (extra > 3)
                break;
            uint32_t v0 = s[0];
            uint32_t v1 = (v0 << 6) + s[1];
            uint32_t v2 = (v1 << 6) + s[2];
            uint32_t v3 = (v2 << 6) + s[3];
            uint32_t acc = extra == 1 ? v1 : extra == 2 ? v2 : extra == 3 ? v3 : v0;
            uint32_t ch = acc - offsets_from_utf8[extra];
            uint32_t over = ch > 0x10FFFF;
            uint32_t pair = (ch >= 0x10000) & !over;
            uint32_t c = ch - 0x10000;
            d[0] = static_cast<wchar_t>(pair ? 0xD800 + (c >> 10) : over ? 0xFFFD : ch);
            d[1] = static_cast<wchar_t>(0xDC00 + (c & 0x3FF));
            d += 1 + pair;
            s += extra + 1;
        }
        if (s == send)
            break;
        unsigned extra = trailing_bytes.v[*s];
        if (extra >= static_cast<size_t>(send - s)) {
            result = 1;
            break;
        }
        if (d >= dend) {
            result = 3;
            break;
        }
        uint32_t ch = 0;
        const unsigned char *start = s;
        switch (extra) {
        case 5: ch += *s++; ch <<= 6; [[fallthrough]];
        case 4: ch += *s++; ch <<= 6; [[fallthrough]];
        case 3: ch += *s++; ch <<= 6; [[fallthrough]];
        case 2: ch += *s++; ch <<= 6; [[fallthrough]];
        case 1: ch += *s++; ch <<= 6; [[fallthrough]];
        case 0: ch += *s++;
        }
        ch -= offsets_from_utf8[extra];
        if (ch < 0x10000) {
            *d++ = static_cast<wchar_t>(ch);
        } else if (ch > 0x10FFFF) {
            *d++ = static_cast<wchar_t>(0xFFFD);
        } else {
            if (dend - d < 2) {
                s = start;
                result = 3;
                break;
            }
            ch -= 0x10000;
            *d++ = static_cast<wchar_t>(0xD800 + (ch >> 10));
            *d++ = static_cast<wchar_t>(0xDC00 + (ch & 0x3FF));
        }
    }
    *d = 0;
    if (consumed)
        *consumed = static_cast<size_t>(s - reinterpret_cast<const unsigned char *>(src));
    return result;
}

// =========================================================================
// Flags, tokens, delimiters, hash

const char *strutl_flags_to_str(uint32_t flags, const char *sep, const strutl_flag_entry_t *table,
                                int count)
{
    if (flags_buf == nullptr) {
        flags_buf = static_cast<char *>(stg_malloc(FLAGS_BUF_SIZE));
        if (flags_buf == nullptr)
            return nullptr;
    }
    if (sep == nullptr || *sep == '\0')
        sep = " ";
    char *pos = flags_buf;
    char *const end = flags_buf + FLAGS_BUF_SIZE;
    *pos = '\0';
    uint32_t rest = flags;
    bool first = true;
    for (int i = 0; i < count; i++) {
        if (table[i].mask & rest) {
            if (!first)
                strutl_cpy_and_advance(&pos, end, sep);
            strutl_cpy_and_advance(&pos, end, table[i].name);
            first = false;
        }
        rest &= ~table[i].mask;
    }
    if (rest) {
        char tmp[32];
        snprintf(tmp, sizeof tmp, " UNKNOWN(0x%x)", rest);
        strutl_cpy_and_advance(&pos, end, tmp);
    }
    return flags_buf;
}

uint32_t strutl_flags_from_str(const char *str, int case_sensitive, const char *sep,
                               const strutl_flag_entry_t *table, int count, const char **bad)
{
    if (bad)
        *bad = nullptr;
    if (str == nullptr || *str == '\0')
        return 0;
    if (sep == nullptr || *sep == '\0')
        sep = " ";
    char buf[1024];
    strutl_cpy_buf(buf, sizeof buf, str);
    size_t seplen = strlen(sep);
    uint32_t result = 0;
    char *word = buf;
    for (;;) {
        char *next = strutl_find_str(word, sep);
        if (next)
            *next = '\0';
        if (*word) {
            bool hit = false;
            char lw_small[256];
            char *lw = case_sensitive ? word : lower_copy(word, lw_small, sizeof lw_small);
            for (int i = 0; lw && i < count && !hit; i++) {
                if (table[i].name == nullptr)
                    continue;
                if (case_sensitive) {
                    hit = strcmp(word, table[i].name) == 0;
                } else {
                    char ln_small[256];
                    char *ln = lower_copy(table[i].name, ln_small, sizeof ln_small);
                    hit = ln && strcoll(lw, ln) == 0;
                    if (ln != ln_small)
                        stg_free(ln);
                }
                if (hit)
                    result |= table[i].mask;
            }
            if (!case_sensitive && lw != lw_small)
                stg_free(lw);
            if (!hit) {
                if (bad)
                    *bad = str + (word - buf);
                return 0;
            }
        }
        if (next == nullptr)
            break;
        word = next + seplen;
    }
    return result;
}

char *strutl_tokenize(char *str, const char *delims)
{
    char *p = str ? str : token_pos;
    if (p == nullptr || delims == nullptr)
        return nullptr;
    while (*p && char_len(p) == 1 && strchr(delims, *p))
        p++;
    if (*p == '\0') {
        token_pos = p;
        return nullptr;
    }
    char *token = p;
    while (*p) {
        int n = char_len(p);
        if (n == 1 && strchr(delims, *p)) {
            *p = '\0';
            token_pos = p + 1;
            return token;
        }
        p += n;
    }
    token_pos = p;
    return token;
}

int strutl_find_end_delim(const char *str, int start, int open, int close, int *pos)
{
    size_t len = strlen(str);
    if (start < 0)
        start = 0;
    if (static_cast<size_t>(start) > len) {
        *pos = static_cast<int>(len);
        return 0;
    }
    int depth = 0;
    const char *p = str + start;
    while (*p) {
        int n = char_len(p);
        if (n == 1) {
            unsigned char c = static_cast<unsigned char>(*p);
            if (c == static_cast<unsigned char>(close)) {
                if (depth == 0) {
                    *pos = static_cast<int>(p - str);
                    return 1;
                }
                depth--;
            } else if (c == static_cast<unsigned char>(open)) {
                depth++;
            }
        }
        p += n;
    }
    *pos = static_cast<int>(p - str);
    return 0;
}

uint32_t strutl_str_to_hash32(uint32_t seed, const char *str)
{
    uint32_t h = seed;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(str); *p; p++)
        h = ((h << 5) | (h >> 27)) + *p;
    return h;
}

uint32_t strutl_cvt_sjis_to_euc(uint32_t b1, uint32_t b2, unsigned char *hi, unsigned char *lo)
{
    uint32_t high = b1 * 2 - (b1 < 0xA0 ? 0xE1 : 0x161);
    uint32_t low;
    if (b2 >= 0x9F) {
        high += 1;
        low = b2 - 0x7E;
    } else if (b2 >= 0x7F) {
        low = b2 - 0x20;
    } else {
        low = b2 - 0x1F;
    }
    uint32_t code = (((high & 0xFF) << 8) | (low & 0xFF)) | 0x8080;
    if (hi)
        *hi = static_cast<unsigned char>(code >> 8);
    if (lo)
        *lo = static_cast<unsigned char>(code & 0xFF);
    return code;
}

// =========================================================================
// Scrambling of short strings

int strutl_extract_head(const char *plain, char *out, size_t out_size)
{
    if (plain == nullptr || out == nullptr || out_size == 0)
        return 1;
    size_t len = strlen(plain);
    if (len == 0) {
        out[0] = '\0';
        return 0;
    }
    if (out_size < scrambled_len(len) + 1) {
        out[0] = '\0';
        return 1;
    }
    time_t now = ks::clock_time();
    uint32_t start = static_cast<uint32_t>(now) & 63;
    uint32_t key = start;
    uint32_t check = 0;
    size_t o = 0;
    auto emit = [&](uint32_t v) {
        v = (v ^ key_table[key]) & 63;
        key = (key + 1) & 63;
        check ^= v;
        out[o++] = static_cast<char>(encode_table[v]);
    };
    uint32_t carry = 0;
    for (size_t i = 0; i < len; i++) {
        uint32_t b = static_cast<unsigned char>(plain[i]);
        size_t ph = i % 3;
        emit(carry | ((b & store_mask[ph]) >> store_shift[ph]));
        carry = (b & carry_mask[ph]) << carry_shift[ph];
        if (ph == 2) {
            emit(carry);
            carry = 0;
        }
    }
    if (size_t r = len % 3) {
        // The bits below the carried ones are filled from the clock (the
        // same bits that chose the start), which the reader checks.
        uint32_t free_mask = (1u << carry_shift[r - 1]) - 1;
        emit(carry | (start & free_mask));
    }
    out[o++] = static_cast<char>(encode_table[(start ^ check) & 63]);
    out[o] = '\0';
    return 0;
}

int strutl_extract_tail(const char *coded, char *out, size_t out_size)
{
    if (coded == nullptr || out == nullptr || out_size == 0)
        return 1;
    out[0] = '\0';
    size_t n = strlen(coded);
    if (n == 0)
        return 0;
    size_t data = n - 1;
    if (data < 2 || data % 4 == 1)
        return 1;
    size_t plain_len = data / 4 * 3 + (data % 4 ? data % 4 - 1 : 0);
    if (out_size < plain_len + 1)
        return 1;
    uint32_t check = 0;
    for (size_t i = 0; i < n; i++) {
        int v = decode_table.v[static_cast<unsigned char>(coded[i])];
        if (v < 0)
            return 1;
        if (i < data)
            check ^= static_cast<uint32_t>(v);
    }
    uint32_t start = (static_cast<uint32_t>(decode_table.v[static_cast<unsigned char>(coded[data])]) ^ check) & 63;
    uint32_t key = start;
    // Symbols without the key, one group of four at a time.
    size_t o = 0;
    for (size_t g = 0; g < data; g += 4) {
        uint32_t sym[4] = {0, 0, 0, 0};
        size_t m = data - g < 4 ? data - g : 4;
        for (size_t k = 0; k < m; k++) {
            sym[k] = (static_cast<uint32_t>(decode_table.v[static_cast<unsigned char>(coded[g + k])]) ^ key_table[key]) & 63;
            key = (key + 1) & 63;
        }
        for (size_t ph = 0; ph + 1 < m; ph++) {
            uint32_t b = ((sym[ph] << store_shift[ph]) & store_mask[ph]) |
                         ((sym[ph + 1] >> carry_shift[ph]) & carry_mask[ph]);
            if (b == 0) {
                out[0] = '\0';
                return 1;
            }
            out[o++] = static_cast<char>(b);
        }
        if (m < 4) {
            uint32_t free_mask = (1u << carry_shift[m - 2]) - 1;
            if ((sym[m - 1] & free_mask) != (start & free_mask)) {
                out[0] = '\0';
                return 1;
            }
        }
    }
    out[o] = '\0';
    return 0;
}

// =========================================================================
// Lists and white space

void strutl_list_print(const char *const *list) { print_list(IMSG_OK, list); }

void strutl_list_trace_print(const char *subsys, int level, const char *const *list)
{
    if (imsg_should_trace(subsys, level))
        print_list(IMSG_TRACE, list);
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
    STRUTL_ASSERT(s != NULL);
    char *p = s;
    for (int n; (n = char_len(p)) > 0 && is_space_char(p, n);)
        p += n;
    char *last_end = p;
    for (char *q = p; *q;) {
        int n = char_len(q);
        q += n;
        if (!is_space_char(q - n, n))
            last_end = q;
    }
    size_t keep = static_cast<size_t>(last_end - p);
    if (p != s)
        memmove(s, p, keep);
    s[keep] = '\0';
    return s;
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
    size_t total = cur - len + rlen;
    if (total + 1 > size) {
        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_BUF_TOO_SMALL);
        return 1;
    }
    memmove(buf + start + rlen, buf + start + len, cur - start - len + 1);
    if (rlen)
        memcpy(buf + start, repl, rlen);
    return 0;
}

int strutl_find_replace_substr(char *buf, size_t size, const char *s, const char *find, const char *repl)
{
    if (size == 0) {
        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_BUF_TOO_SMALL);
        return -1;
    }
    size_t flen = find ? strlen(find) : 0;
    size_t rlen = repl ? strlen(repl) : 0;
    size_t o = 0;
    int count = 0;
    const char *p = s;
    while (*p) {
        const char *piece;
        size_t plen;
        int step;
        if (flen && strncmp(p, find, flen) == 0) {
            piece = repl;
            plen = rlen;
            step = static_cast<int>(flen);
            count++;
        } else {
            piece = p;
            step = char_len(p);
            plen = static_cast<size_t>(step);
        }
        if (o + plen + 1 > size) {
            // Whole characters only in what is kept.
            size_t room = size - 1 - o;
            size_t k = piece == p ? 0 : fit_len(piece, room);
            if (k)
                memcpy(buf + o, piece, k);
            buf[o + k] = '\0';
            imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_BUF_TOO_SMALL);
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

// =========================================================================
// Searches

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
    char ch = static_cast<char>(c);
    if (!multibyte_locale())
        return const_cast<char *>(strchr(s, ch));
    for (const char *p = s;; ) {
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
    for (const char *p = s; p + n <= end; ) {
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
    char ch = static_cast<char>(c);
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

// =========================================================================
// Bounded copies and joins

int strutl_ncpy(char *dst, const char *src, size_t n)
{
    size_t k = fit_len(src, n);
    memmove(dst, src, k);
    dst[k] = '\0';
    return src[k] != '\0' ? 1 : 0;
}

int strutl_ncpy_buf(char *buf, size_t size, const char *src, size_t n)
{
    size_t want = strnlen(src, n);
    if (size == 0)
        return want ? 1 : 0;
    size_t k = fit_len(src, want < size - 1 ? want : size - 1);
    memmove(buf, src, k);
    buf[k] = '\0';
    return k < want ? 1 : 0;
}

int strutl_cpy_buf(char *buf, size_t size, const char *src)
{
    if (size == 0)
        return *src ? 1 : 0;
    size_t k = fit_len(src, size - 1);
    memmove(buf, src, k);
    buf[k] = '\0';
    return src[k] != '\0' ? 1 : 0;
}

int strutl_ccpy_buf(char *buf, size_t size, const char *src, int c, const char **stop)
{
    const char *end = strutl_find_char(src, c);
    if (c == '\0' || end == nullptr)
        end = src + strlen(src);
    size_t want = static_cast<size_t>(end - src);
    size_t k = 0;
    if (size > 0) {
        k = fit_len(src, want < size - 1 ? want : size - 1);
        memmove(buf, src, k);
        buf[k] = '\0';
    }
    if (stop)
        *stop = src + k;
    return k < want ? 1 : 0;
}

int strutl_cpy_and_advance(char **pos, char *end, const char *src)
{
    if (*pos >= end)
        return *src ? 1 : 0;
    size_t size = static_cast<size_t>(end - *pos);
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
        size_t k = fit_len(prefix, size - 1);
        memmove(buf, prefix, k);
        buf[k] = '\0';
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
        if (s == nullptr || *s == '\0')
            continue;
        if (cut) {
            continue;
        }
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
    STRUTL_ASSERT(area != STG_AREA_NULL);
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

// =========================================================================
// Conversions and comparisons

int strutl_cstr_to_str(char *s)
{
    STRUTL_ASSERT(s != NULL);
    size_t len = strlen(s);
    const char *p = s;
    const char *end = s + len;
    if (*p == '"') {
        // Quoted: the closing quote must be the last character.
        if (len < 2 || s[len - 1] != '"') {
            imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_BAD_FORMAT, s);
            return 1;
        }
        p++;
        end--;
    }
    // The result is never longer than the input, but it is built aside so
    // that a bad escape leaves s as it was.
    char small[256];
    char *out = len < sizeof small ? small : static_cast<char *>(stg_malloc(len + 1));
    if (out == nullptr)
        return 1;
    size_t o = 0;
    bool quoted = *s == '"';
    while (p < end) {
        int n = char_len(p);
        if (n > 1 || *p != '\\') {
            if (quoted && n == 1 && *p == '"') {
                imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_BAD_FORMAT, p);
                goto fail;
            }
            memcpy(out + o, p, static_cast<size_t>(n));
            o += static_cast<size_t>(n);
            p += n;
            continue;
        }
        if (p + 1 >= end) {
            imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_BAD_FORMAT, p);
            goto fail;
        }
        {
            const char *esc = p;
            p++;
            char c = *p++;
            switch (c) {
            case 'n': out[o++] = '\n'; break;
            case 't': out[o++] = '\t'; break;
            case 'r': out[o++] = '\r'; break;
            case 'a': out[o++] = '\a'; break;
            case 'b': out[o++] = '\b'; break;
            case 'f': out[o++] = '\f'; break;
            case 'v': out[o++] = '\v'; break;
            case '\\': case '"': case '\'': case '?': out[o++] = c; break;
            case 'x': {
                unsigned v = 0;
                int digits = 0;
                while (p < end && digits < 2 && isxdigit(static_cast<unsigned char>(*p))) {
                    char h = *p++;
                    v = v * 16 + static_cast<unsigned>(isdigit(static_cast<unsigned char>(h)) ? h - '0' : (tolower(static_cast<unsigned char>(h)) - 'a' + 10));
                    digits++;
                }
                if (digits == 0 || v == 0) {
                    imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_BAD_FORMAT, esc);
                    goto fail;
                }
                out[o++] = static_cast<char>(v);
                break;
            }
            default:
                if (c >= '0' && c <= '7') {
                    unsigned v = static_cast<unsigned>(c - '0');
                    int digits = 1;
                    while (p < end && digits < 3 && *p >= '0' && *p <= '7') {
                        v = v * 8 + static_cast<unsigned>(*p++ - '0');
                        digits++;
                    }
                    if (v == 0 || v > 0xFF) {
                        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_BAD_FORMAT, esc);
                        goto fail;
                    }
                    out[o++] = static_cast<char>(v);
                    break;
                }
                imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_BAD_FORMAT, esc);
                goto fail;
            }
        }
    }
    memcpy(s, out, o);
    s[o] = '\0';
    if (out != small)
        stg_free(out);
    return 0;
fail:
    if (out != small)
        stg_free(out);
    return 1;
}

int strutl_cmp_ignore_whitespace(const char *a, const char *b)
{
    const char *p = a;
    const char *q = b;
    for (;;) {
        int n;
        while ((n = char_len(p)) > 0 && is_space_char(p, n))
            p += n;
        int m;
        while ((m = char_len(q)) > 0 && is_space_char(q, m))
            q += m;
        // Character against character, so that the walk never lands inside
        // one (where a trailing byte and the next could pass for a space).
        int k = n < m ? n : m;
        int c = memcmp(p, q, static_cast<size_t>(k));
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
    const char *p = src;
    char tmp[MB_LEN_MAX + 1];
    while (*p) {
        int n = char_len(p);
        int m = convert_case(p, n, tmp, mode);
        if (in_place && m != n) {
            memcpy(tmp, p, static_cast<size_t>(n));
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
    int r;
    if (la && lb)
        r = strcoll(la, lb);
    else
        r = strcoll(a, b);
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
        bool ok;
        if (n == 1 && *p == '_') {
            ok = true;
        } else {
            uint32_t cls = first ? STRUTL_CT_ALPHA : STRUTL_CT_ALNUM;
            ok = strutl_test_char(p, cls, nullptr) != 0 ||
                 char_in_set(p, n, first ? first_ok : other_ok);
        }
        if (!ok)
            return 0;
        first = false;
        p += n;
    }
    return 1;
}

char *strutl_xlate_pname_sep(char *pname, const char *seps, int to_sep, char *buf, size_t size)
{
    if (pname == nullptr)
        return nullptr;
    char *target = pname;
    if (buf != nullptr) {
        if (strlen(pname) + 1 > size) {
            imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_BUF_TOO_SMALL);
            return nullptr;
        }
        memmove(buf, pname, strlen(pname) + 1);
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
    for (const char *p = s; *p;) {
        int n = char_len(p);
        const char *hit = (n == 1 && chars && *p) ? strchr(chars, *p) : nullptr;
        if (hit) {
            const char *r = strings[hit - chars];
            total += r ? strlen(r) : 0;
        } else {
            total += static_cast<size_t>(n);
        }
        p += n;
    }
    char *out = static_cast<char *>(stg_malloc(total + 1));
    if (out == nullptr)
        return nullptr;
    size_t o = 0;
    for (const char *p = s; *p;) {
        int n = char_len(p);
        const char *hit = (n == 1 && chars && *p) ? strchr(chars, *p) : nullptr;
        if (hit) {
            const char *r = strings[hit - chars];
            size_t rl = r ? strlen(r) : 0;
            if (rl)
                memcpy(out + o, r, rl);
            o += rl;
        } else {
            memcpy(out + o, p, static_cast<size_t>(n));
            o += static_cast<size_t>(n);
        }
        p += n;
    }
    out[o] = '\0';
    return out;
}

const char *strutl_find_printf_directive(const char *fmt, size_t *len, char *conv)
{
    if (fmt == nullptr)
        return nullptr;
    const char *p = fmt;
    while ((p = strutl_find_char(p, '%')) != nullptr) {
        if (p[1] == '%') {
            p += 2;
            continue;
        }
        const char *q = p + 1;
        while (*q && strchr("-+ #0'", *q))
            q++;
        if (*q == '*')
            q++;
        else
            while (isdigit(static_cast<unsigned char>(*q)))
                q++;
        if (*q == '.') {
            q++;
            if (*q == '*')
                q++;
            else
                while (isdigit(static_cast<unsigned char>(*q)))
                    q++;
        }
        if ((q[0] == 'l' && q[1] == 'l') || (q[0] == 'h' && q[1] == 'h'))
            q += 2;
        else if (*q && strchr("hlLqjzt", *q))
            q++;
        if (*q == '\0' || !strchr("diouxXeEfFgGaAcspnCS", *q)) {
            imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, MSG_BAD_FORMAT, p);
            return nullptr;
        }
        if (len)
            *len = static_cast<size_t>(q + 1 - p);
        if (conv)
            *conv = *q;
        return p;
    }
    return nullptr;
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

// =========================================================================
// Files

char *strutl_read(int fd, size_t *len)
{
    size_t cap = 4096;
    struct stat sb;
    if (fstat(fd, &sb) == 0 && S_ISREG(sb.st_mode) && sb.st_size > 0)
        cap = static_cast<size_t>(sb.st_size) + 1;
    return read_all(cap, len, [fd](char *buf, size_t n, int *err) -> size_t {
        for (;;) {
            ssize_t r = read(fd, buf, n);
            if (r >= 0)
                return static_cast<size_t>(r);
            if (errno != EINTR) {
                *err = errno;
                return 0;
            }
        }
    });
}

char *strutl_read_fp(FILE *fp, size_t *len)
{
    return read_all(4096, len, [fp](char *buf, size_t n, int *err) -> size_t {
        size_t r = fread(buf, 1, n, fp);
        if (r == 0 && ferror(fp))
            *err = errno != 0 ? errno : EIO;
        return r;
    });
}

int strutl_write(int fd, const char *s)
{
    size_t left = strlen(s);
    while (left > 0) {
        ssize_t w = write(fd, s, left);
        if (w < 0) {
            if (errno == EINTR)
                continue;
            int err = errno;
            report_system_error("write", err);
            errno = err;
            return 1;
        }
        s += w;
        left -= static_cast<size_t>(w);
    }
    return 0;
}
