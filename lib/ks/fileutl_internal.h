// Internal: included by fileutl*.cpp only.
// The character step with which every pathname routine walks a name, and the
// small searches built on it.
#ifndef KS_FILEUTL_INTERNAL_H
#define KS_FILEUTL_INTERNAL_H

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace ks::fileutl {

constexpr char kSep = '/';

// Whether the locale has characters of more than one byte; asked once per
// call, since MB_CUR_MAX is a function call.
inline bool multibyte_locale()
{
    return MB_CUR_MAX > 1;
}

// Length of the character at s (not the NUL).  An ASCII byte is always a
// character of its own; in a multibyte locale a byte that does not start a
// valid character counts as one, so that a walk always advances, and the
// second byte of a Shift_JIS character (0x5C, 0x7C) is stepped over.
inline size_t char_len(const char *s, bool mb)
{
    if (!mb || static_cast<unsigned char>(*s) < 0x80)
        return 1;
    mbstate_t st{};
    size_t n = mbrtowc(nullptr, s, strnlen(s, MB_CUR_MAX), &st);
    return n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2) || n == 0 ? 1 : n;
}

// The first separator of s at a character boundary, or the terminating NUL.
inline const char *next_sep(const char *s, bool mb)
{
    if (!mb)
        return strchrnul(s, kSep);
    while (*s != '\0' && *s != kSep)
        s += char_len(s, mb);
    return s;
}

// Offset of the last separator among the first len bytes of s, or -1.
inline ptrdiff_t last_sep(const char *s, size_t len, bool mb)
{
    if (!mb) {
        const void *p = memrchr(s, kSep, len);
        return p == nullptr ? -1 : static_cast<const char *>(p) - s;
    }
    ptrdiff_t found = -1;
    for (size_t i = 0; i < len; i += char_len(s + i, mb))
        if (s[i] == kSep)
            found = static_cast<ptrdiff_t>(i);
    return found;
}

// Offset of the start of the trailing run of separators of s (len bytes),
// or len when s does not end in one.  The run may start at 0.
inline size_t trailing_run(const char *s, size_t len, bool mb)
{
    if (!mb) {
        size_t start = len;
        while (start > 0 && s[start - 1] == kSep)
            start--;
        return start;
    }
    size_t start = len;
    for (size_t i = 0; i < len; i += char_len(s + i, mb)) {
        if (s[i] != kSep)
            start = len;
        else if (start == len)
            start = i;
    }
    return start;
}

// Number of bytes of whole characters of s that fit in max bytes.
inline size_t cut_at_char(const char *s, size_t max, bool mb)
{
    size_t i = 0;
    while (s[i] != '\0') {
        size_t n = char_len(s + i, mb);
        if (i + n > max)
            break;
        i += n;
    }
    return i;
}

// Length of the host of a "host:path" name (a ":" that is not the first
// character and comes before any separator), or 0 when it has none.
inline size_t host_len(const char *s, bool mb)
{
    size_t i = 0;
    while (s[i] != '\0' && s[i] != ':' && s[i] != kSep)
        i += char_len(s + i, mb);
    return s[i] == ':' ? i : 0;
}

} // namespace ks::fileutl

#endif
