// Internal: included by wild*.cpp only.
// The character steps shared by the compiler, the matcher and the globber,
// the class test of both matchers, and the compiler's entry for patterns
// that continue a text already compiled (a home directory in front of the
// rest of a word).
#ifndef KS_WILD_INTERNAL_H
#define KS_WILD_INTERNAL_H

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace ks::wild {

using uchar = unsigned char;

constexpr uchar kEsc = 0x01;
constexpr uchar kOpLit = 0x01;
constexpr uchar kOpStar = 0x02;
constexpr uchar kOpAny = 0x03;
constexpr uchar kOpClass = 0x04;
constexpr uchar kOpDots = 0x05;

// Whether the locale has characters of more than one byte.
inline bool multibyte_locale()
{
    return MB_CUR_MAX > 1;
}

// Length of the character at s (not at its NUL) in a multibyte locale: a
// byte that starts no valid character is one of its own.
inline int mb_char_len(const uchar *s)
{
    if (*s < 0x80)
        return 1;
    const char *c = reinterpret_cast<const char *>(s);
    mbstate_t st{};
    size_t n = mbrtowc(nullptr, c, strnlen(c, MB_CUR_MAX), &st);
    if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2) || n == 0)
        return 1;
    return static_cast<int>(n);
}

// The same for a character of a compiled pattern, which never runs into an
// escape byte: the escape always starts an item of its own.
inline int pat_char_len(const uchar *s)
{
    int n = mb_char_len(s);
    for (int i = 1; i < n; i++)
        if (s[i] == kEsc)
            return 1;
    return n;
}

// The byte that ends the class whose members start at m: its closing escape,
// or the NUL of a form that lacks one.
inline const uchar *class_end(const uchar *m)
{
    while (*m != kEsc && *m != '\0')
        m++;
    return m;
}

// A range test: byte values in a single-byte locale, the locale's collation
// where characters take more than one byte.
template <bool Mb>
bool in_range(const uchar *lo, int lo_len, const uchar *hi, int hi_len, const uchar *c, int len)
{
    if (!Mb)
        return *lo <= *c && *c <= *hi;
    char a[MB_LEN_MAX + 1], b[MB_LEN_MAX + 1], x[MB_LEN_MAX + 1];
    memcpy(a, lo, lo_len);
    a[lo_len] = '\0';
    memcpy(b, hi, hi_len);
    b[hi_len] = '\0';
    memcpy(x, c, len);
    x[len] = '\0';
    return strcoll(x, a) >= 0 && strcoll(x, b) <= 0;
}

// Whether the character c (len bytes) belongs to the class whose members run
// from m to end.  A "-" between two members makes a range; first or last it
// is a member.
template <bool Mb>
bool class_has(const uchar *m, const uchar *end, const uchar *c, int len)
{
    while (m < end) {
        int m_len = Mb ? pat_char_len(m) : 1;
        const uchar *next = m + m_len;
        if (*next == '-' && next + 1 < end) {
            const uchar *hi = next + 1;
            int hi_len = Mb ? pat_char_len(hi) : 1;
            if (in_range<Mb>(m, m_len, hi, hi_len, c, len))
                return true;
            m = hi + hi_len;
        } else {
            if (m_len == len && memcmp(m, c, len) == 0)
                return true;
            m = next;
        }
    }
    return false;
}

// The matcher for the patterns that the single-"*" walk leaves undecided:
// 1 or 0.
int simulate_match(const uchar *pat, const uchar *name, bool path, bool mb);

// Bytes written by the compiler: up to limit, counted beyond it.
struct out_buf {
    uchar *data;
    size_t limit;
    size_t len;
};

// Compiles pattern after what out already holds; at_start tells whether a
// "..." at the pattern's start stands at a component's start.  0, or -1 for
// a malformed class; *has_wild is raised (never cleared).  out.len > limit
// afterwards means the form did not fit.
int compile_into(const char *pattern, out_buf *out, bool at_start, int *has_wild);
// Appends text as literal characters (0x01 doubled).
void compile_literal(const char *text, out_buf *out);

} // namespace ks::wild

#endif
