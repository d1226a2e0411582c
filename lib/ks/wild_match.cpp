// Matching a compiled pattern against a name.
//
// The first try walks pattern and name together and remembers only the last
// "*": when a later item fails, that "*" takes one more character and the
// rest starts over.  This is exact as long as an earlier "*" could gain
// nothing a later one cannot take, which fails only in pathname mode, where
// "*" stops at "/" but "?" and classes do not, and around "...".  Those
// patterns go to a simulation that carries every pattern position that is
// still alive over the name at once: its cost is the pattern's length times
// the name's, never more, whatever the pattern.

#include "ks/wild.h"

#include <climits>
#include <cstdint>
#include <utility>

#include "ks/stg.h"
#include "wild_internal.h"

namespace {

using ks::wild::kEsc;
using ks::wild::kOpAny;
using ks::wild::kOpClass;
using ks::wild::kOpDots;
using ks::wild::kOpLit;
using ks::wild::kOpStar;
using ks::wild::mb_char_len;
using ks::wild::pat_char_len;
using ks::wild::uchar;

enum class verdict {
    NO,
    YES,
    UNDECIDED
};

template <bool Mb>
int name_char_len(const uchar *s)
{
    return Mb ? mb_char_len(s) : 1;
}

template <bool Mb>
int member_len(const uchar *s)
{
    return Mb ? pat_char_len(s) : 1;
}

// The end-of-name rule: what is left of the pattern at p must be "*"
// operators, then in pathname mode separators and "..." items.
bool rest_matches_empty(const uchar *p, bool path)
{
    while (p[0] == kEsc && p[1] == kOpStar)
        p += 2;
    if (path)
        while (*p == '/' || (p[0] == kEsc && p[1] == kOpDots))
            p += *p == '/' ? 1 : 2;
    return *p == '\0';
}

bool only_slashes(const uchar *s)
{
    while (*s == '/')
        s++;
    return *s == '\0';
}

// The byte that ends the class whose members start at m: its closing escape,
// or the NUL of a form that lacks one.
const uchar *class_end(const uchar *m)
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
        int m_len = member_len<Mb>(m);
        const uchar *next = m + m_len;
        if (*next == '-' && next + 1 < end) {
            const uchar *hi = next + 1;
            int hi_len = member_len<Mb>(hi);
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

// The single-"*" walk.  UNDECIDED when the pattern needs the simulation: a
// "...", or in pathname mode a "?" or class taking a "/", or a "?" or class
// between two "*" (an earlier "*" could then let it take a "/").
template <bool Mb>
verdict walk(const uchar *p, const uchar *n, bool path)
{
    const uchar *star_p = nullptr;
    const uchar *star_n = nullptr;
    bool chose = false; // a "?" or class since the last "*"
    for (;;) {
        if (*n == '\0') {
            if (rest_matches_empty(p, path))
                return verdict::YES;
        } else if (*p == '\0') {
            if (path && only_slashes(n))
                return verdict::YES;
        } else if (*p != kEsc) {
            if (path && *p == '/') {
                if (*n == '/') {
                    while (*++p == '/') {
                    }
                    while (*++n == '/') {
                    }
                    continue;
                }
            } else if (!Mb || *p < 0x80) {
                if (*n == *p) {
                    p++;
                    n++;
                    continue;
                }
            } else {
                int len = pat_char_len(p);
                if (mb_char_len(n) == len && memcmp(p, n, len) == 0) {
                    p += len;
                    n += len;
                    continue;
                }
            }
        } else if (p[1] == kOpStar) {
            if (path && chose && star_p != nullptr)
                return verdict::UNDECIDED;
            do
                p += 2;
            while (p[0] == kEsc && p[1] == kOpStar);
            star_p = p;
            star_n = n;
            chose = false;
            continue;
        } else if (p[1] == kOpLit) {
            if (*n == kEsc) {
                p += 2;
                n++;
                continue;
            }
        } else if (p[1] == kOpAny || p[1] == kOpClass) {
            int len = name_char_len<Mb>(n);
            const uchar *end = p[1] == kOpAny ? p + 2 : class_end(p + 2);
            if (p[1] == kOpAny || class_has<Mb>(p + 2, end, n, len)) {
                if (path && *n == '/')
                    return verdict::UNDECIDED;
                p = *end == kEsc && p[1] == kOpClass ? end + 1 : end;
                n += len;
                chose = true;
                continue;
            }
        } else if (p[1] == kOpDots) {
            return verdict::UNDECIDED;
        } // an unknown operator code matches nothing

        // No match here: the last "*" takes one more character, if it can.
        if (star_p == nullptr || *star_n == '\0' || (path && *star_n == '/'))
            return verdict::NO;
        star_n += name_char_len<Mb>(star_n);
        p = star_p;
        n = star_n;
        chose = false;
    }
}

// ---- The simulation --------------------------------------------------------

enum class kind : uint8_t {
    LIT,
    SLASH,
    ANY,
    CLASS,
    STAR,
    DOTS,
    NONE
};

struct item {
    kind k;
    bool empty_ok;   // the end-of-name rule holds from here
    const uchar *at; // LIT: the character; CLASS: the first member
    size_t len;      // LIT: its bytes; CLASS: the members' bytes
    size_t next;     // DOTS: the first item after it and its separators
};

// Reads the item at p into *it (when given); returns where the next begins.
// In pathname mode a run of "/" is one item.
const uchar *read_item(const uchar *p, bool path, bool mb, item *it)
{
    item x{kind::NONE, false, p, 1, 0};
    const uchar *next = p + 2;
    if (*p != kEsc) {
        if (path && *p == '/') {
            x.k = kind::SLASH;
            for (next = p; *next == '/'; next++) {
            }
        } else {
            x.k = kind::LIT;
            x.len = mb ? pat_char_len(p) : 1;
            next = p + x.len;
        }
    } else if (p[1] == kOpLit) {
        x = item{kind::LIT, false, p + 1, 1, 0};
    } else if (p[1] == kOpStar || p[1] == kOpAny || p[1] == kOpDots) {
        x.k = p[1] == kOpStar ? kind::STAR : p[1] == kOpAny ? kind::ANY : kind::DOTS;
    } else if (p[1] == kOpClass) {
        const uchar *end = class_end(p + 2);
        x = item{kind::CLASS, false, p + 2, static_cast<size_t>(end - (p + 2)), 0};
        next = *end == kEsc ? end + 1 : end;
    } else if (p[1] == '\0') {
        next = p + 1; // an escape byte just before the NUL
    }
    if (it != nullptr)
        *it = x;
    return next;
}

bool is_separator(const item &x)
{
    return x.k == kind::SLASH || (x.k == kind::LIT && x.len == 1 && *x.at == '/');
}

// Fills items[0..n] (items[n] is the end of the pattern) with the end-of-name
// rule and the targets of "...".
void read_items(const uchar *pat, bool path, bool mb, item *items, size_t n)
{
    size_t i = 0;
    for (const uchar *p = pat; *p != '\0'; i++)
        p = read_item(p, path, mb, &items[i]);
    items[n] = item{kind::NONE, true, nullptr, 0, 0};
    bool separators = true;
    for (i = n; i-- > 0;) {
        item &x = items[i];
        separators = separators && path && (x.k == kind::SLASH || x.k == kind::DOTS);
        x.empty_ok = separators || (x.k == kind::STAR && items[i + 1].empty_ok);
        if (x.k == kind::DOTS)
            for (x.next = i + 1; x.next < n && is_separator(items[x.next]); x.next++) {
            }
    }
}

struct bitset {
    uint64_t *w;
    bool test(size_t i) const { return (w[i / 64] >> (i % 64)) & 1u; }
    void set(size_t i) { w[i / 64] |= uint64_t{1} << (i % 64); }
};

// The live positions of the pattern: a at an item, s inside "..." looking
// for the next "/", r inside a run of "/" that a separator took.
struct live {
    bitset a, s, r;
};

// Adds what is alive without taking a character: the rest after "*" and
// after "...", and the item after a run of "/" that has ended.  Every such
// step goes to a later item, so one pass in item order finds them all.
void close_over(const item *items, size_t words, live *l, bool at_slash)
{
    for (size_t wi = 0; wi < words; wi++) {
        uint64_t bits = l->a.w[wi] | l->r.w[wi];
        while (bits != 0) {
            unsigned b = static_cast<unsigned>(__builtin_ctzll(bits));
            size_t i = wi * 64 + b;
            if (l->r.test(i) && !at_slash)
                l->a.set(i + 1);
            if (l->a.test(i) && items[i].k == kind::STAR)
                l->a.set(i + 1);
            if (l->a.test(i) && items[i].k == kind::DOTS) {
                l->a.set(items[i].next);
                l->s.set(i);
            }
            bits = (l->a.w[wi] | l->r.w[wi]) & ~((uint64_t{2} << b) - 1);
        }
    }
}

// Takes the character c (len bytes) from every live position into next;
// false when nothing stays alive.
template <bool Mb>
bool take(const item *items, size_t n, size_t words, const live &l, live *next, const uchar *c,
          int len, bool path)
{
    const bool slash = *c == '/';
    for (size_t wi = 0; wi < words; wi++) {
        for (uint64_t bits = l.a.w[wi] | l.s.w[wi] | l.r.w[wi]; bits != 0; bits &= bits - 1) {
            size_t i = wi * 64 + static_cast<unsigned>(__builtin_ctzll(bits));
            if (l.s.test(i)) {
                next->s.set(i);
                if (slash)
                    next->a.set(items[i].next);
            }
            if (l.r.test(i) && slash)
                next->r.set(i);
            if (!l.a.test(i))
                continue;
            const item &x = items[i];
            if (i == n) {
                if (path && slash)
                    next->a.set(n); // trailing "/" of the name
            } else if (x.k == kind::LIT) {
                if (x.len == static_cast<size_t>(len) && memcmp(x.at, c, len) == 0)
                    next->a.set(i + 1);
            } else if (x.k == kind::ANY) {
                next->a.set(i + 1);
            } else if (x.k == kind::CLASS) {
                if (class_has<Mb>(x.at, x.at + x.len, c, len))
                    next->a.set(i + 1);
            } else if (x.k == kind::STAR) {
                if (!(path && slash))
                    next->a.set(i);
            } else if (x.k == kind::SLASH && slash) {
                next->r.set(i);
            }
        }
    }
    for (size_t wi = 0; wi < words; wi++)
        if ((next->a.w[wi] | next->s.w[wi] | next->r.w[wi]) != 0)
            return true;
    return false;
}

bool accepts_at_end(const item *items, size_t words, const live &l)
{
    for (size_t wi = 0; wi < words; wi++)
        for (uint64_t bits = l.a.w[wi] | l.r.w[wi]; bits != 0; bits &= bits - 1) {
            size_t i = wi * 64 + static_cast<unsigned>(__builtin_ctzll(bits));
            if ((l.a.test(i) && items[i].empty_ok) || (l.r.test(i) && items[i + 1].empty_ok))
                return true;
        }
    return false;
}

template <bool Mb>
bool simulate(const item *items, size_t n, const uchar *name, bool path, uint64_t *mem,
              size_t words)
{
    live cur{{mem}, {mem + words}, {mem + 2 * words}};
    live next{{mem + 3 * words}, {mem + 4 * words}, {mem + 5 * words}};
    memset(mem, 0, 6 * words * sizeof(uint64_t));
    cur.a.set(0);
    for (const uchar *c = name; *c != '\0';) {
        int len = name_char_len<Mb>(c);
        close_over(items, words, &cur, *c == '/');
        if (!take<Mb>(items, n, words, cur, &next, c, len, path))
            return false;
        std::swap(cur, next);
        memset(next.a.w, 0, words * sizeof(uint64_t));
        memset(next.s.w, 0, words * sizeof(uint64_t));
        memset(next.r.w, 0, words * sizeof(uint64_t));
        c += len;
    }
    return accepts_at_end(items, words, cur);
}

// Sets up the simulation's items and live sets, on the stack when small.
template <bool Mb>
int simulate_match(const uchar *pat, const uchar *name, bool path)
{
    size_t n = 0;
    for (const uchar *p = pat; *p != '\0'; n++)
        p = read_item(p, path, Mb, nullptr);
    const size_t words = (n + 1 + 63) / 64;
    const size_t bytes = (n + 1) * sizeof(item) + 6 * words * sizeof(uint64_t);
    alignas(item) alignas(uint64_t) unsigned char local[2048];
    void *mem = bytes <= sizeof local ? local : stg_malloc(bytes);
    if (mem == nullptr)
        return 0;
    auto *items = static_cast<item *>(mem);
    read_items(pat, path, Mb, items, n);
    auto *bits = reinterpret_cast<uint64_t *>(items + n + 1);
    bool ok = simulate<Mb>(items, n, name, path, bits, words);
    if (mem != local)
        stg_free(mem);
    return ok ? 1 : 0;
}

template <bool Mb>
int match(const uchar *pat, const uchar *name, bool path)
{
    verdict v = walk<Mb>(pat, name, path);
    if (v != verdict::UNDECIDED)
        return v == verdict::YES ? 1 : 0;
    return simulate_match<Mb>(pat, name, path);
}

} // namespace

int wild_match(const char *compiled, const char *name, int pathname_mode)
{
    if (compiled == nullptr || name == nullptr)
        return 0;
    const auto *p = reinterpret_cast<const uchar *>(compiled);
    const auto *n = reinterpret_cast<const uchar *>(name);
    if (ks::wild::multibyte_locale())
        return match<true>(p, n, pathname_mode != 0);
    return match<false>(p, n, pathname_mode != 0);
}
