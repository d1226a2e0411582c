// Flags and the tokenizer, with the other readers of structured text: flag
// words to masks and back, tokens, matching delimiters, printf directives
// and C string literals.
#include "ks/strutl.h"

#include <cctype>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "ks/imsg.h"
#include "ks/stg.h"
#include "ks_assert.h"
#include "strutl_internal.h"
#include "strutl_msg.h"

using ks::strutl::char_len;
using ks::strutl::lower_copy;

namespace {

// ---- Flag words ------------------------------------------------------------

constexpr size_t kFlagsBufSize = 1024;
char *flags_buf = nullptr; // strutl_flags_to_str's result, made on first use

// Whether word names an entry of table (by strcmp, or by strcoll of the
// lower-case forms); the first such entry's mask then goes into *mask.
bool match_flag(const char *word, bool case_sensitive, const strutl_flag_entry_t *table, int count,
                uint32_t *mask)
{
    if (case_sensitive) {
        for (int i = 0; i < count; i++) {
            if (table[i].name != nullptr && strcmp(word, table[i].name) == 0) {
                *mask |= table[i].mask;
                return true;
            }
        }
        return false;
    }
    char lw_small[256];
    char *lw = lower_copy(word, lw_small, sizeof lw_small);
    bool hit = false;
    for (int i = 0; lw && i < count && !hit; i++) {
        if (table[i].name == nullptr)
            continue;
        char ln_small[256];
        char *ln = lower_copy(table[i].name, ln_small, sizeof ln_small);
        hit = ln && strcoll(lw, ln) == 0;
        if (ln != ln_small)
            stg_free(ln);
        if (hit)
            *mask |= table[i].mask;
    }
    if (lw != lw_small)
        stg_free(lw);
    return hit;
}

// ---- Tokens and delimiters -------------------------------------------------

char *token_pos = nullptr; // where strutl_tokenize goes on

// ---- printf directives and C string literals -------------------------------

void report_bad_format(const char *where)
{
    imsg_print(IMSG_ERROR, &_strutl_ks_msg_table, STRUTL_MSG_BAD_FORMAT, where);
}

// Past a field width or precision: '*' or decimal digits.
const char *skip_count(const char *q)
{
    if (*q == '*')
        return q + 1;
    while (isdigit(static_cast<unsigned char>(*q)))
        q++;
    return q;
}

// Escapes of one letter and the bytes they stand for.
constexpr std::string_view kEscapeLetters = "ntrabfv\\\"'?";
constexpr std::string_view kEscapeBytes = "\n\t\r\a\b\f\v\\\"'?";
static_assert(kEscapeLetters.size() == kEscapeBytes.size(), "one byte per letter");

int digit_value(char c, unsigned base)
{
    if (c >= '0' && c <= '9')
        return static_cast<unsigned>(c - '0') < base ? c - '0' : -1;
    if (base == 16 && c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (base == 16 && c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The value of up to max digits of base at *p, before end; *p moves past
// them and *count gets their number.
unsigned read_number(const char **p, const char *end, unsigned base, int max, int *count)
{
    unsigned v = 0;
    int k = 0;
    for (int d; k < max && *p < end && (d = digit_value(**p, base)) >= 0; k++, (*p)++)
        v = v * base + static_cast<unsigned>(d);
    *count = k;
    return v;
}

// The byte that the escape at esc stands for (a backslash followed by
// something before end), or -1 when it is none or a NUL; *next gets the
// position after it.
int read_escape(const char *esc, const char *end, const char **next)
{
    const char *p = esc + 1;
    size_t k = kEscapeLetters.find(*p);
    if (k != std::string_view::npos) {
        *next = p + 1;
        return static_cast<unsigned char>(kEscapeBytes[k]);
    }
    int count = 0;
    unsigned v = 0;
    if (*p == 'x') {
        p++;
        v = read_number(&p, end, 16, 2, &count);
    } else if (*p >= '0' && *p <= '7') {
        v = read_number(&p, end, 8, 3, &count);
    }
    *next = p;
    return count == 0 || v == 0 || v > 0xFF ? -1 : static_cast<int>(v);
}

// Writes the value of the body [p, end) of a literal to out and its length
// to *len; returns null, or where a bad escape (or an inner quote of a
// quoted literal) starts.
const char *unescape(const char *p, const char *end, bool quoted, char *out, size_t *len)
{
    size_t o = 0;
    while (p < end) {
        int n = char_len(p);
        if (n == 1 && *p == '\\') {
            const char *next = nullptr;
            int v = p + 1 < end ? read_escape(p, end, &next) : -1;
            if (v < 0)
                return p;
            out[o++] = static_cast<char>(v);
            p = next;
            continue;
        }
        if (quoted && n == 1 && *p == '"')
            return p;
        memcpy(out + o, p, static_cast<size_t>(n));
        o += static_cast<size_t>(n);
        p += n;
    }
    *len = o;
    return nullptr;
}

} // namespace

const char *strutl_flags_to_str(uint32_t flags, const char *sep, const strutl_flag_entry_t *table,
                                int count)
{
    if (flags_buf == nullptr) {
        flags_buf = static_cast<char *>(stg_malloc(kFlagsBufSize));
        if (flags_buf == nullptr)
            return nullptr;
    }
    if (sep == nullptr || *sep == '\0')
        sep = " ";
    char *pos = flags_buf;
    char *const end = flags_buf + kFlagsBufSize;
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
        rest &= ~table[i].mask; // of overlapping entries only the first prints
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
    char buf[kFlagsBufSize];
    strutl_cpy_buf(buf, sizeof buf, str);
    size_t seplen = strlen(sep);
    uint32_t result = 0;
    for (char *word = buf;;) {
        char *next = strutl_find_str(word, sep);
        if (next)
            *next = '\0';
        if (*word && !match_flag(word, case_sensitive != 0, table, count, &result)) {
            if (bad)
                *bad = str + (word - buf);
            return 0;
        }
        if (next == nullptr)
            return result;
        word = next + seplen;
    }
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
    for (int n; (n = char_len(p)) > 0; p += n) {
        if (n > 1)
            continue; // trailing bytes are neither
        auto c = static_cast<unsigned char>(*p);
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
    *pos = static_cast<int>(p - str);
    return 0;
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
        q = skip_count(q);
        if (*q == '.')
            q = skip_count(q + 1);
        if ((q[0] == 'l' && q[1] == 'l') || (q[0] == 'h' && q[1] == 'h'))
            q += 2;
        else if (*q && strchr("hlLqjzt", *q))
            q++;
        if (*q == '\0' || !strchr("diouxXeEfFgGaAcspnCS", *q)) {
            report_bad_format(p);
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

int strutl_cstr_to_str(char *s)
{
    KS_ASSERT(s != nullptr, "s != NULL");
    size_t len = strlen(s);
    bool quoted = *s == '"';
    if (quoted && (len < 2 || s[len - 1] != '"')) {
        report_bad_format(s); // the closing quote must be the last character
        return 1;
    }
    // The result is never longer than the input, but it is built aside so
    // that a bad escape leaves s as it was.
    char small[256];
    char *out = len < sizeof small ? small : static_cast<char *>(stg_malloc(len + 1));
    if (out == nullptr)
        return 1;
    size_t o = 0;
    const char *bad =
        quoted ? unescape(s + 1, s + len - 1, true, out, &o) : unescape(s, s + len, false, out, &o);
    if (bad == nullptr) {
        memcpy(s, out, o);
        s[o] = '\0';
    }
    if (out != small)
        stg_free(out);
    if (bad != nullptr)
        report_bad_format(bad);
    return bad != nullptr ? 1 : 0;
}
