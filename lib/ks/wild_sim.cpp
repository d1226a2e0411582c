// The matcher for the patterns that the single-"*" walk of wild_match leaves
// undecided ("...", and in pathname mode a "?" or class that could take a
// "/").  Every position of the pattern that is still alive is carried over
// the name at once, a bit per pattern item, so the cost is the pattern's
// length times the name's at worst, whatever the pattern.

#include <cstdint>
#include <utility>

#include "ks/pfm.h"
#include "ks/stg.h"
#include "wild_internal.h"

namespace {

using ks::wild::class_end;
using ks::wild::class_has;
using ks::wild::kEsc;
using ks::wild::kOpAny;
using ks::wild::kOpClass;
using ks::wild::kOpDots;
using ks::wild::kOpLit;
using ks::wild::kOpStar;
using ks::wild::mb_char_len;
using ks::wild::pat_char_len;
using ks::wild::uchar;

template <bool Mb>
int name_char_len(const uchar *s)
{
    return Mb ? mb_char_len(s) : 1;
}

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
bool run(const item *items, size_t n, const uchar *name, bool path, uint64_t *mem, size_t words)
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

// The simulation in mem, which holds the items and the live sets.
template <bool Mb>
bool run_in(void *mem, const uchar *pat, size_t n, const uchar *name, bool path)
{
    auto *items = static_cast<item *>(mem);
    read_items(pat, path, Mb, items, n);
    auto *bits = reinterpret_cast<uint64_t *>(items + n + 1);
    return run<Mb>(items, n, name, path, bits, (n + 1 + 63) / 64);
}

// A pattern too long for the stack: its block from the heap goes back even
// when an interrupt unwinds the match.
template <bool Mb>
bool run_on_heap(size_t bytes, const uchar *pat, size_t n, const uchar *name, bool path)
{
    void *volatile mem = nullptr;
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) != 0) {
        stg_free(mem);
        pfm_raise(rec.value);
    }
    pfm_inhibit();
    mem = stg_malloc(bytes);
    pfm_enable();
    bool ok = mem != nullptr && run_in<Mb>(mem, pat, n, name, path);
    pfm_inhibit();
    pfm_cleanup_rls(&rec);
    stg_free(mem);
    pfm_enable();
    return ok;
}

// Counts the items and runs the simulation, on the stack when small.
template <bool Mb>
int simulate(const uchar *pat, const uchar *name, bool path)
{
    size_t n = 0;
    for (const uchar *p = pat; *p != '\0'; n++)
        p = read_item(p, path, Mb, nullptr);
    const size_t bytes = (n + 1) * sizeof(item) + 6 * ((n + 1 + 63) / 64) * sizeof(uint64_t);
    alignas(item) alignas(uint64_t) unsigned char local[2048];
    if (bytes <= sizeof local)
        return run_in<Mb>(local, pat, n, name, path) ? 1 : 0;
    return run_on_heap<Mb>(bytes, pat, n, name, path) ? 1 : 0;
}

} // namespace

namespace ks::wild {

int simulate_match(const uchar *pat, const uchar *name, bool path, bool mb)
{
    return mb ? simulate<true>(pat, name, path) : simulate<false>(pat, name, path);
}

} // namespace ks::wild
