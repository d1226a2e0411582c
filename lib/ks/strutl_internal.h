// Internal: included by strutl_*.cpp only.
// The character steps with which every string utility walks text, and the
// lower-case copy that the flag words and the case-blind collation share.
#ifndef KS_STRUTL_INTERNAL_H
#define KS_STRUTL_INTERNAL_H

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace ks::strutl {

// Whether the locale has characters of more than one byte: walkers then step
// by whole characters, so that the second byte of a Shift_JIS character
// (which may be '\\' or '|') is never taken for a separator.
inline bool multibyte_locale()
{
    return MB_CUR_MAX > 1;
}

// Converts the character at s, of at most max bytes, into *wc (optional):
// its length, or -1 at the NUL or when the bytes form no whole character.
inline int decode_char(const char *s, size_t max, wchar_t *wc)
{
    mbstate_t st{};
    size_t n = mbrtowc(wc, s, max, &st);
    if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2) || n == 0)
        return -1;
    return static_cast<int>(n);
}

// Length of the character at s: 0 at the NUL, -1 for bytes that do not form
// a valid character.
inline int char_len_checked(const char *s)
{
    if (*s == '\0')
        return 0;
    if (!multibyte_locale())
        return 1;
    return decode_char(s, strnlen(s, MB_CUR_MAX), nullptr);
}

// As char_len_checked, but a byte that does not start a valid character
// counts as one, so that every walker advances.
inline int char_len(const char *s)
{
    if (static_cast<unsigned char>(*s) - 1u < 0x7Fu) // ASCII other than NUL
        return 1;
    int n = char_len_checked(s);
    return n < 0 ? 1 : n;
}

// Lower-case copy of s (strutl_cvt_case_string): into small, of size bytes,
// when it fits, else from stg_malloc.  Null when out of memory.
char *lower_copy(const char *s, char *small, size_t size);

} // namespace ks::strutl

#endif
