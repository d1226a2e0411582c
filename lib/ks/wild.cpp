// Wildcard patterns: the compiler, which turns a pattern into the escaped
// byte form the matcher walks, and the two quick tests on patterns.

#include "ks/wild.h"

#include <climits>

#include "wild_internal.h"

namespace ks::wild {

namespace {

void put(out_buf *out, uchar b)
{
    if (out->len < out->limit)
        out->data[out->len] = b;
    out->len++;
}

void put_op(out_buf *out, uchar op)
{
    put(out, kEsc);
    put(out, op);
}

void put_bytes(out_buf *out, const uchar *s, int n)
{
    for (int i = 0; i < n; i++)
        put(out, s[i]);
}

// Puts an ordinary "-" first among the members written from start on, where
// it cannot join two members into a range.
void put_dash_first(out_buf *out, size_t start)
{
    if (out->len < out->limit) {
        memmove(out->data + start + 1, out->data + start, out->len - start);
        out->data[start] = '-';
    }
    out->len++;
}

bool is_dots_component(const uchar *s)
{
    return s[0] == '.' && s[1] == '.' && s[2] == '.' && (s[3] == '/' || s[3] == '\0');
}

int char_len(const uchar *s, bool mb)
{
    return mb ? pat_char_len(s) : 1;
}

// State of the class being compiled.
struct class_state {
    bool open = false;
    size_t start = 0;      // offset of its first member
    bool has_dash = false; // an ordinary "-" already stands first
};

// One character inside a class; -1 when it cannot be there.
int class_member(const uchar *s, int n, bool escaped, class_state *cls, out_buf *out)
{
    if (!escaped && *s == '[')
        return -1;
    if (*s == kEsc)
        return -1; // the class ends at the first escape byte
    if (*s == '-' && (escaped || out->len == cls->start)) {
        if (!cls->has_dash)
            put_dash_first(out, cls->start);
        cls->has_dash = true;
        return 0;
    }
    put_bytes(out, s, n);
    return 0;
}

} // namespace

int compile_into(const char *pattern, out_buf *out, bool at_start, int *has_wild)
{
    const bool mb = multibyte_locale();
    const auto *s = reinterpret_cast<const uchar *>(pattern);
    bool component_start = at_start;
    class_state cls;
    while (*s != '\0') {
        bool escaped = false;
        if (*s == '\\' && s[1] != '\0') {
            s++;
            escaped = true;
        }
        int n = char_len(s, mb);
        if (cls.open) {
            if (!escaped && *s == ']') {
                put(out, kEsc);
                cls.open = false;
            } else if (class_member(s, n, escaped, &cls, out) != 0) {
                return -1;
            }
            s += n;
            continue;
        }
        uchar op = 0;
        if (!escaped) {
            switch (*s) {
            case '*': op = kOpStar; break;
            case '?': op = kOpAny; break;
            case '[': op = kOpClass; break;
            case ']': return -1;
            case '.':
                if (component_start && is_dots_component(s)) {
                    op = kOpDots;
                    n = 3;
                }
                break;
            default: break;
            }
        }
        if (op != 0) {
            put_op(out, op);
            *has_wild = 1;
            cls = class_state{op == kOpClass, out->len, false};
        } else if (*s == kEsc) {
            put_op(out, kOpLit);
        } else {
            put_bytes(out, s, n);
        }
        component_start = op == 0 && *s == '/';
        s += n;
    }
    return cls.open ? -1 : 0;
}

void compile_literal(const char *text, out_buf *out)
{
    for (const auto *s = reinterpret_cast<const uchar *>(text); *s != '\0'; s++) {
        if (*s == kEsc)
            put(out, kEsc);
        put(out, *s);
    }
}

} // namespace ks::wild

using ks::wild::kEsc;
using ks::wild::uchar;

int wild_compile_pattern(const char *pattern, size_t size, char *out, int *has_wild)
{
    int wild = 0;
    ks::wild::out_buf buf{reinterpret_cast<uchar *>(out), out != nullptr && size > 4 ? size - 4 : 0,
                          0};
    int rc = pattern != nullptr ? ks::wild::compile_into(pattern, &buf, true, &wild) : -1;
    if (rc == 0)
        ks::wild::put(&buf, '\0');
    if (has_wild)
        *has_wild = wild;
    if (rc != 0)
        return WILD_BAD_CLASS;
    if (buf.len > buf.limit || buf.len > INT_MAX)
        return WILD_NO_ROOM;
    return static_cast<int>(buf.len);
}

int wild_is_any_pat(const char *compiled)
{
    return compiled != nullptr && compiled[0] == kEsc && compiled[1] == ks::wild::kOpStar &&
           compiled[2] == '\0';
}

int wild_contains_wildcard_symbols(const char *text)
{
    if (text == nullptr)
        return 0;
    const bool mb = ks::wild::multibyte_locale();
    for (const auto *s = reinterpret_cast<const uchar *>(text); *s != '\0';) {
        if (*s == '[' || *s == '?' || *s == '*' || *s == '~' ||
            (s[0] == '.' && s[1] == '.' && s[2] == '.'))
            return 1;
        s += mb ? ks::wild::mb_char_len(s) : 1;
    }
    return 0;
}
