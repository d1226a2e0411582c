// Multibyte walking: character classes, taking one character at a time,
// lengths in characters, whole-string conversion to and from wide
// characters, and one Shift_JIS character as EUC-JP.
#include "ks/strutl.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <cwchar>
#include <cwctype>

#include "ks/imsg.h"
#include "ks/stg.h"
#include "ks_assert.h"
#include "strutl_internal.h"
#include "strutl_msg.h"

using ks::strutl::char_len;
using ks::strutl::char_len_checked;
using ks::strutl::decode_char;
using ks::strutl::multibyte_locale;

namespace {

// The classes of strutl_test_char with their tests for a byte and for a
// wide character.
struct char_class {
    uint32_t bit;
    int (*byte_test)(int);
    int (*wide_test)(wint_t);
};
constexpr char_class kCharClasses[] = {
    {STRUTL_CT_ALPHA, isalpha, iswalpha},    {STRUTL_CT_UPPER, isupper, iswupper},
    {STRUTL_CT_LOWER, islower, iswlower},    {STRUTL_CT_DIGIT, isdigit, iswdigit},
    {STRUTL_CT_XDIGIT, isxdigit, iswxdigit}, {STRUTL_CT_ALNUM, isalnum, iswalnum},
    {STRUTL_CT_SPACE, isspace, iswspace},    {STRUTL_CT_PUNCT, ispunct, iswpunct},
    {STRUTL_CT_PRINT, isprint, iswprint},    {STRUTL_CT_GRAPH, isgraph, iswgraph}};

} // namespace

int strutl_test_char(const char *s, uint32_t classes, int *len)
{
    if (len)
        *len = 0;
    if (s == nullptr || *s == '\0')
        return 0;
    wchar_t wc = L'\0';
    int n = decode_char(s, strnlen(s, MB_CUR_MAX), &wc);
    if (len)
        *len = n > 0 ? n : 1;
    // A sequence that is no character has its first byte tested alone.
    for (const char_class &cc : kCharClasses) {
        if ((classes & cc.bit) == 0)
            continue;
        if ((n > 0 ? cc.wide_test(static_cast<wint_t>(wc))
                   : cc.byte_test(static_cast<unsigned char>(*s))) == 0)
            return 0;
    }
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
    KS_ASSERT(s_tail != nullptr, "s_tail != NULL");
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
    KS_ASSERT(s_tail != nullptr, "s_tail != NULL");
    const char *s = *s_tail;
    if (s == nullptr || *s == '\0') {
        *wc = L'\0';
        return 0;
    }
    int n = decode_char(s, strnlen(s, MB_CUR_MAX), wc);
    if (n < 0) {
        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, STRUTL_MSG_BAD_MULTIBYTE, s);
        return -1;
    }
    *s_tail = s + n;
    return n;
}

size_t strutl_mb_strlen(const char *s)
{
    KS_ASSERT(s != nullptr, "s != NULL");
    if (!multibyte_locale())
        return strlen(s);
    size_t count = 0;
    for (; *s; s += char_len(s))
        count++;
    return count;
}

size_t strutl_wide_strlen(const wchar_t *ws)
{
    KS_ASSERT(ws != nullptr, "ws != NULL");
    return wcslen(ws);
}

wchar_t *strutl_cvt_str_to_wide_str(stg_area_t area, const char *s)
{
    KS_ASSERT(area != STG_AREA_NULL, "area != STG_AREA_NULL");
    if (s == nullptr) {
        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, STRUTL_MSG_NULL_STRING);
        return nullptr;
    }
    // The first invalid character is named; the C library cannot say where.
    for (const char *p = s; *p;) {
        int n = char_len_checked(p);
        if (n < 0) {
            imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, STRUTL_MSG_BAD_MULTIBYTE, p);
            return nullptr;
        }
        p += n;
    }
    mbstate_t st{};
    const char *src = s;
    size_t count = mbsrtowcs(nullptr, &src, 0, &st);
    if (count == static_cast<size_t>(-1)) {
        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, STRUTL_MSG_TO_WIDE_FAILED, strerror(errno));
        return nullptr;
    }
    auto *ws = static_cast<wchar_t *>(stg_alloc(area, (count + 1) * sizeof(wchar_t)));
    if (ws == nullptr)
        return nullptr;
    st = mbstate_t{};
    src = s;
    mbsrtowcs(ws, &src, count + 1, &st);
    ws[count] = L'\0';
    return ws;
}

char *strutl_cvt_wide_str_to_str(stg_area_t area, const wchar_t *ws)
{
    KS_ASSERT(area != STG_AREA_NULL, "area != STG_AREA_NULL");
    if (ws == nullptr) {
        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, STRUTL_MSG_NULL_STRING);
        return nullptr;
    }
    mbstate_t st{};
    const wchar_t *src = ws;
    size_t count = wcsrtombs(nullptr, &src, 0, &st);
    if (count == static_cast<size_t>(-1)) {
        imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, STRUTL_MSG_FROM_WIDE_FAILED);
        return nullptr;
    }
    char *s = static_cast<char *>(stg_alloc(area, count + 1));
    if (s == nullptr)
        return nullptr;
    st = mbstate_t{};
    src = ws;
    wcsrtombs(s, &src, count + 1, &st);
    s[count] = '\0';
    return s;
}

int strutl_get_sys_char_type(void)
{
    return MB_CUR_MAX < 2 ? 1 : 0;
}

uint32_t strutl_cvt_sjis_to_euc(uint32_t b1, uint32_t b2, unsigned char *hi, unsigned char *lo)
{
    uint32_t high = b1 * 2 - (b1 < 0xA0 ? 0xE1 : 0x161);
    uint32_t low;
    if (b2 >= 0x9F) {
        high += 1; // the second row of the pair
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
