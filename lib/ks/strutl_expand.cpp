// Environment expansion: $NAME and ${NAME} replaced by their values, with
// backslash escapes, in one pass or repeated.  Each pass works in a storage
// area of its own that no unwind leaves behind, and nothing here holds an
// object with a destructor, since a fault may unwind through any of it.
#include "ks/strutl.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks_assert.h"
#include "strutl_internal.h"

using ks::strutl::char_len;

namespace {

// Output that grows inside the temporary area (old blocks go with the area).
struct area_buf {
    stg_area_t area;
    char *data;
    size_t len;
    size_t cap;
};

bool ab_reserve(area_buf *b, size_t extra)
{
    if (b->len + extra + 1 <= b->cap)
        return true;
    size_t cap = b->cap ? b->cap : 64;
    while (cap < b->len + extra + 1)
        cap *= 2;
    char *d = static_cast<char *>(stg_alloc(b->area, cap));
    if (d == nullptr)
        return false;
    if (b->len)
        memcpy(d, b->data, b->len);
    b->data = d;
    b->cap = cap;
    return true;
}

bool ab_append(area_buf *b, const char *s, size_t n)
{
    if (!ab_reserve(b, n))
        return false;
    memcpy(b->data + b->len, s, n);
    b->len += n;
    b->data[b->len] = '\0';
    return true;
}

inline bool name_char(const char *p)
{
    auto c = static_cast<unsigned char>(*p);
    return c < 0x80 && (isalnum(c) || c == '_');
}

inline bool starts_reference(const char *p)
{
    return *p == '$' && (p[1] == '{' || name_char(p + 1));
}

// A reference in the text: its name, and where the text goes on after it.
struct reference {
    char *name;
    char *name_end;
    char *next;
};

// The reference at p: "${" runs to the first real '}' (or the end), "$" to
// the end of the letters, digits and underscores.
reference read_reference(char *p)
{
    char *end;
    if (p[1] == '{') {
        for (end = p + 2; *end && *end != '}';)
            end += char_len(end);
        return {p + 2, end, *end ? end + 1 : end};
    }
    for (end = p + 1; name_char(end);)
        end++;
    return {p + 1, end, end};
}

// Appends the value of the variable that ref names (nothing when unset).
bool append_value(area_buf *out, const reference &ref)
{
    // The string is cut in place for the look-up: a handler must not see it
    // cut.
    pfm_inhibit();
    char saved = *ref.name_end;
    *ref.name_end = '\0';
    const char *value = getenv(ref.name);
    *ref.name_end = saved;
    pfm_enable();
    return value == nullptr || ab_append(out, value, strlen(value));
}

// One pass over work (a copy of the caller's string held in the area).
char *expand_pass(stg_area_t area, char *work, int *found)
{
    area_buf out = {area, nullptr, 0, 0};
    if (!ab_reserve(&out, strlen(work)))
        return nullptr;
    out.data[0] = '\0';
    for (char *p = work; *p;) {
        if (starts_reference(p)) {
            *found = 1;
            reference ref = read_reference(p);
            if (!append_value(&out, ref))
                return nullptr;
            p = ref.next;
            continue;
        }
        // A character as it stands; after a backslash (not the last
        // character) the next one, whatever it is.
        char *piece = *p == '\\' && p[1] != '\0' ? p + 1 : p;
        auto n = static_cast<size_t>(char_len(piece));
        if (!ab_append(&out, piece, n))
            return nullptr;
        p = piece + n;
    }
    return out.data;
}

// One expansion pass into *slot.  The area, and the result while it has no
// owner yet, are never left behind by an unwind: the record is armed before
// the area exists, and the result changes hands with signals held.
void expand_into(const char *str, int *flag, char *volatile *slot)
{
    stg_area_t volatile area = STG_AREA_NULL;
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) != 0) {
        // Unwound from inside: the area goes, the fault goes on outwards.
        stg_area_t doomed = area;
        stg_delete_area(&doomed);
        pfm_raise(rec.value);
    }
    pfm_inhibit();
    area = stg_create_area(1024);
    pfm_enable();
    int found = 0;
    char *work = area != STG_AREA_NULL ? stg_area_strdup(area, str) : nullptr;
    char *expanded = work ? expand_pass(area, work, &found) : nullptr;
    pfm_inhibit();
    *slot = expanded ? stg_strdup(expanded) : nullptr;
    pfm_cleanup_rls(&rec);
    stg_area_t done = area;
    stg_delete_area(&done);
    pfm_enable();
    if (flag)
        *flag = found;
}

// Passes of strutl_expand_evs_iterate.  *cur holds the latest result and
// *next the one being made, both for the caller's clean-up frame.
char *expand_passes(const char *str, int limit, char *volatile *cur, char *volatile *next)
{
    int passes = 0;
    const char *in = str;
    for (;;) {
        int flag = 0;
        expand_into(in, &flag, next);
        pfm_inhibit();
        stg_free(*cur);
        *cur = *next;
        *next = nullptr;
        pfm_enable();
        if (*cur == nullptr) {
            errno = ENOMEM;
            return nullptr;
        }
        if (!flag)
            return *cur;
        if (++passes > limit) {
            pfm_inhibit();
            stg_free(*cur);
            *cur = nullptr;
            pfm_enable();
            errno = EINVAL;
            return nullptr;
        }
        in = *cur;
    }
}

} // namespace

char *strutl_expand_evs_status(const char *str, int *flag)
{
    if (flag)
        *flag = 0;
    KS_ASSERT(str != nullptr, "s != NULL");
    char *volatile result = nullptr;
    expand_into(str, flag, &result);
    return result;
}

char *strutl_expand_evs(const char *str)
{
    return strutl_expand_evs_status(str, nullptr);
}

char *strutl_expand_evs_iterate(const char *str, int max)
{
    if (max < 0) {
        errno = EINVAL;
        return nullptr;
    }
    // The intermediate results go with an unwind as well.
    char *volatile cur = nullptr;
    char *volatile next = nullptr;
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) != 0) {
        stg_free(cur);
        stg_free(next);
        pfm_raise(rec.value);
    }
    char *result = expand_passes(str, max == 0 ? 8 : max, &cur, &next);
    pfm_cleanup_rls(&rec);
    return result;
}
