// Internal: included by cl.cpp and clp*.cpp only; never installed.
// Shared by the option scanner and the flag-descriptor parser: the byte
// classes their splitters walk by, and the word estimate both size from.
#ifndef KS_CMDLINE_INTERNAL_H
#define KS_CMDLINE_INTERNAL_H

#include <stdint.h>
#include <stdlib.h>

#include <array>
#include <string_view>

#include "ks/strutl.h"

namespace ks {

// Bytes below 0x80 are single characters in every locale we run under, and
// their white space is the ASCII set; other bytes go through the locale.
enum : unsigned char {
    CMDLINE_PLAIN = 0, // copied without a decision
    CMDLINE_SPACE = 1,
    CMDLINE_SPECIAL = 2, // NUL, backslash and the two quotes
    CMDLINE_HIGH = 3     // may start a multibyte character
};

using cmdline_byte_kinds = std::array<unsigned char, 256>;

constexpr cmdline_byte_kinds make_cmdline_kinds()
{
    cmdline_byte_kinds k{};
    for (int c = 0x80; c < 256; c++)
        k[c] = CMDLINE_HIGH;
    for (char c : std::string_view(" \t\n\v\f\r"))
        k[static_cast<unsigned char>(c)] = CMDLINE_SPACE;
    for (char c : std::string_view("\0\\\"'", 4))
        k[static_cast<unsigned char>(c)] = CMDLINE_SPECIAL;
    return k;
}
inline constexpr cmdline_byte_kinds kCmdlineKinds = make_cmdline_kinds();

inline unsigned char cmdline_kind(const char *s)
{
    return kCmdlineKinds[static_cast<unsigned char>(*s)];
}

// Whether the character at s is white space; *len gets its length (at least 1).
inline bool cmdline_is_space(const char *s, int *len)
{
    unsigned char k = cmdline_kind(s);
    if (k != CMDLINE_HIGH) {
        *len = 1;
        return k == CMDLINE_SPACE;
    }
    bool sp = strutl_test_char(s, STRUTL_CT_SPACE, len) != 0;
    if (*len < 1)
        *len = 1;
    return sp;
}

// Length of the character at s: 0 at the NUL, otherwise at least 1 and never
// past the NUL.
inline int cmdline_char_len(const char *s)
{
    if (cmdline_kind(s) != CMDLINE_HIGH || MB_CUR_MAX == 1)
        return *s != '\0' ? 1 : 0;
    int n = strutl_mblen(s);
    return n < 1 ? 1 : n;
}

// Number of runs of non-space characters in text.  Walked run by run, so
// that the common bytes cost one table look-up each.
inline int32_t cmdline_count_runs(const char *text)
{
    int32_t runs = 0;
    const char *p = text;
    int len = 1;
    for (;;) {
        while (*p != '\0' && cmdline_is_space(p, &len))
            p += len;
        if (*p == '\0')
            return runs;
        runs++;
        for (;;) {
            while (cmdline_kind(p) == CMDLINE_PLAIN)
                p++;
            if (*p == '\0' || cmdline_is_space(p, &len))
                break;
            p += len;
        }
    }
}

} // namespace ks

#endif
