// Matching a compiled pattern against a name.
//
// The walk goes through pattern and name together and remembers only the
// last "*": when a later item fails, that "*" takes one more character and
// the rest starts over.  This is exact as long as an earlier "*" could gain
// nothing a later one cannot take.  That fails only around "...", and in
// pathname mode, where "*" stops at "/" but "?" and classes may take one;
// such patterns go to the simulation of wild_sim.cpp.
//
// The walk first runs without asking the locale: as long as the name holds
// ASCII only and no class has a range, characters are bytes in every
// locale.  At the first byte or class where the locale matters it stops,
// and a walk that knows the locale goes on from there.

#include "ks/wild.h"

#include <cstdint>

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

// What the walk knows of the locale: characters of one byte, characters of
// more than one, or not asked yet (ASCII only).
enum class chars {
    BYTES,
    MULTI,
    UNKNOWN
};

// A walk's answer: no match, a match, go on walking, leave it to the
// simulation, or ask the locale and go on.
enum class verdict {
    NO,
    YES,
    GO_ON,
    NEEDS_ALL,
    ASK_LOCALE
};

constexpr uchar kSlash[] = "/";

bool high(uchar c)
{
    return c >= 0x80;
}

template <chars C>
int name_char_len(const uchar *s)
{
    return C == chars::MULTI ? mb_char_len(s) : 1;
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

// Whether a class reads the same in every locale: no byte above ASCII and
// no range.
bool plain_class(const uchar *m, const uchar *end)
{
    for (const uchar *c = m; c < end; c++)
        if (high(*c) || (*c == '-' && c > m && c + 1 < end))
            return false;
    return true;
}

enum class step {
    ON,
    FAIL,
    NEEDS_ALL,
    ASK_LOCALE
};

// "?" or a class at p against the name's character at n.
template <chars C>
step take_one(const uchar **pp, const uchar **np, bool path, bool *could_slash)
{
    const uchar *p = *pp;
    const uchar *n = *np;
    const uchar *end = p[1] == kOpAny ? p + 2 : class_end(p + 2);
    if (C == chars::UNKNOWN && (high(*n) || (p[1] == kOpClass && !plain_class(p + 2, end))))
        return step::ASK_LOCALE;
    constexpr bool kMb = C == chars::MULTI;
    int len = name_char_len<C>(n);
    if (p[1] == kOpClass && !class_has<kMb>(p + 2, end, n, len))
        return step::FAIL;
    if (path && *n == '/')
        return step::NEEDS_ALL;
    if (path && !*could_slash)
        *could_slash = p[1] == kOpAny || class_has<kMb>(p + 2, end, kSlash, 1);
    *pp = *end == kEsc && p[1] == kOpClass ? end + 1 : end;
    *np = n + len;
    return step::ON;
}

// One item other than "*" at *pp against the name at *np, moving both past
// it.  *could_slash is raised when the item could have taken a "/".
template <chars C>
step take_item(const uchar **pp, const uchar **np, bool path, bool *could_slash)
{
    const uchar *p = *pp;
    const uchar *n = *np;
    int len = 1;
    if (*p == kEsc) {
        if (p[1] == kOpAny || p[1] == kOpClass)
            return take_one<C>(pp, np, path, could_slash);
        if (p[1] == kOpDots)
            return step::NEEDS_ALL;
        if (p[1] != kOpLit || *n != kEsc)
            return step::FAIL; // an unknown operator code matches nothing
        *pp = p + 2;
        *np = n + 1;
        return step::ON;
    }
    if (path && *p == '/') {
        if (*n != '/')
            return step::FAIL;
        for (len = 1; p[len] == '/'; len++) {
        }
        *pp = p + len;
        for (len = 1; n[len] == '/'; len++) {
        }
        *np = n + len;
        return step::ON;
    }
    if (C == chars::UNKNOWN && high(*p) && high(*n))
        return step::ASK_LOCALE;
    if (C == chars::MULTI && high(*p)) {
        len = pat_char_len(p);
        if (mb_char_len(n) != len || memcmp(p, n, len) != 0)
            return step::FAIL;
    } else if (*n != *p) {
        return step::FAIL; // an ASCII character never equals part of another
    }
    *pp = p + len;
    *np = n + len;
    return step::ON;
}

// Whether the len bytes at s hold one above ASCII, eight at a time.
bool any_high(const uchar *s, size_t len)
{
    size_t i = 0;
    for (; i + 8 <= len; i += 8) {
        uint64_t w;
        memcpy(&w, s + i, 8);
        if ((w & 0x8080808080808080u) != 0)
            return true;
    }
    for (; i < len; i++)
        if (high(s[i]))
            return true;
    return false;
}

// A "*" followed by plain text only (without "/" in pathname mode): that
// text must end the name (before a trailing run of "/" in pathname mode),
// and in pathname mode what the "*" spans must hold no "/".
template <chars C>
verdict tail_matches(const uchar *tail, size_t tail_len, const uchar *n, bool path)
{
    const char *name = reinterpret_cast<const char *>(n);
    if (tail_len == 0) {
        // "/" is never part of another character, so bytes will do.
        const char *slash = path ? strchr(name, '/') : nullptr;
        bool ok = slash == nullptr || only_slashes(reinterpret_cast<const uchar *>(slash));
        return ok ? verdict::YES : verdict::NO;
    }
    size_t len = strlen(name);
    if (C == chars::UNKNOWN && any_high(n, len))
        return verdict::ASK_LOCALE;
    const uchar *end = n + len;
    while (path && end > n && end[-1] == '/')
        end--;
    if (static_cast<size_t>(end - n) < tail_len)
        return verdict::NO;
    for (const uchar *t = tail + tail_len, *e = end; t > tail;)
        if (*--t != *--e)
            return verdict::NO;
    return !path || memchr(n, '/', end - tail_len - n) == nullptr ? verdict::YES : verdict::NO;
}

// Where characters are bytes, the next place from n where the plain byte c
// that follows a "*" occurs, never past a "/" in pathname mode (a "/" after
// the "*" can only be the next one, or the end).  Null for NO; *ask is set
// when a byte on the way needs the locale.
template <chars C>
__attribute__((always_inline)) inline const uchar *seek(const uchar *n, uchar c, bool path,
                                                        bool *ask)
{
    if (C == chars::MULTI || c == kEsc || c == '\0')
        return n;
    const char *s = reinterpret_cast<const char *>(n);
    size_t k;
    if (path) {
        const char *slash = strchrnul(s, '/');
        const void *found = c == '/' ? nullptr : memchr(s, c, slash - s);
        k = static_cast<size_t>((found != nullptr ? static_cast<const char *>(found) : slash) - s);
    } else {
        const char *found = strchr(s, c);
        if (found == nullptr)
            return nullptr; // not even as a byte
        k = static_cast<size_t>(found - s);
    }
    if (C == chars::UNKNOWN && any_high(n, k)) {
        *ask = true;
        return nullptr;
    }
    return n[k] == c || (path && c == '/') ? n + k : nullptr;
}

// Where the walk stands: the item and the name's character it is at, the
// last "*" met (the rest of the pattern after it, and the place of the name
// where that rest is being tried), and whether an item since that "*"
// could have taken a "/".  A walk that must ask the locale leaves a state
// from which the walk that knows it goes on.
struct walk_state {
    const uchar *p;
    const uchar *n;
    const uchar *star_p;
    const uchar *star_n;
    bool could_slash;
};

// At a "*": the walk's next position, or the verdict when the rest is plain
// text or its first byte never comes.
template <chars C>
verdict place_star(walk_state *w, bool path)
{
    const uchar *p = w->p;
    while (p[0] == kEsc && p[1] == kOpStar)
        p += 2;
    const uchar *q = p;
    while (C != chars::MULTI && *q != '\0' && *q != kEsc && !(path && *q == '/'))
        q++;
    if (C != chars::MULTI && *q == '\0')
        return tail_matches<C>(p, q - p, w->n, path);
    bool ask = false;
    const uchar *n = seek<C>(w->n, *p, path, &ask);
    if (n == nullptr)
        return ask ? verdict::ASK_LOCALE : verdict::NO;
    *w = walk_state{p, n, p, n, false};
    return verdict::GO_ON;
}

// After a failed item: the last "*" takes one more character, if it can.
template <chars C>
verdict widen_star(walk_state *w, bool path)
{
    const uchar *n = w->star_n;
    if (w->star_p == nullptr || *n == '\0' || (path && *n == '/'))
        return verdict::NO;
    if (C == chars::UNKNOWN && high(*n))
        return verdict::ASK_LOCALE;
    bool ask = false;
    n = seek<C>(n + name_char_len<C>(n), *w->star_p, path, &ask);
    if (n == nullptr)
        return ask ? verdict::ASK_LOCALE : verdict::NO;
    *w = walk_state{w->star_p, n, w->star_p, n, false};
    return verdict::GO_ON;
}

// The single-"*" walk from *state.  NEEDS_ALL when the pattern needs the
// simulation: a "...", or in pathname mode a "?" or class taking a "/", or
// one that could between two "*" (an earlier "*" could then let it).
template <chars C>
verdict walk(walk_state *state, bool path)
{
    walk_state w = *state; // in registers while it runs
    verdict v = verdict::GO_ON;
    while (v == verdict::GO_ON) {
        // Plain bytes that agree, in one stretch.
        for (uchar c = *w.p;
             c == *w.n && c > kEsc && !(path && c == '/') && (C == chars::BYTES || !high(c));
             c = *w.p) {
            w.p++;
            w.n++;
        }
        if (*w.n == '\0') {
            if (rest_matches_empty(w.p, path))
                v = verdict::YES;
        } else if (*w.p == '\0') {
            if (path && only_slashes(w.n))
                v = verdict::YES;
        } else if (w.p[0] == kEsc && w.p[1] == kOpStar) {
            if (path && w.could_slash && w.star_p != nullptr)
                v = verdict::NEEDS_ALL;
            else
                v = place_star<C>(&w, path);
            continue;
        } else {
            step st = take_item<C>(&w.p, &w.n, path, &w.could_slash);
            if (st == step::ON)
                continue;
            if (st != step::FAIL) {
                v = st == step::NEEDS_ALL ? verdict::NEEDS_ALL : verdict::ASK_LOCALE;
                continue;
            }
        }
        if (v == verdict::GO_ON)
            v = widen_star<C>(&w, path);
    }
    *state = w;
    return v;
}

} // namespace

int wild_match(const char *compiled, const char *name, int pathname_mode)
{
    if (compiled == nullptr || name == nullptr)
        return 0;
    const auto *p = reinterpret_cast<const uchar *>(compiled);
    const auto *n = reinterpret_cast<const uchar *>(name);
    const bool path = pathname_mode != 0;
    walk_state w{p, n, nullptr, nullptr, false};
    verdict v = walk<chars::UNKNOWN>(&w, path);
    if (v == verdict::YES || v == verdict::NO)
        return v == verdict::YES ? 1 : 0;
    const bool mb = ks::wild::multibyte_locale();
    if (v == verdict::ASK_LOCALE)
        v = mb ? walk<chars::MULTI>(&w, path) : walk<chars::BYTES>(&w, path);
    if (v == verdict::NEEDS_ALL)
        return ks::wild::simulate_match(p, n, path, mb);
    return v == verdict::YES ? 1 : 0;
}
