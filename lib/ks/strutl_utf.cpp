// UTF-16 (one unit per wchar_t) to UTF-8 and back.  Each direction takes
// runs of ASCII a block at a time, then other characters without branches on
// their length while the room allows, and the rest (the end of the source or
// of the room) one character at a time with exact bounds.
#include "ks/strutl.h"

#include <array>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// ---- UTF-16 to UTF-8 ----------------------------------------------------

// A unit's value, unsigned (a negative one is past every plane).
inline uint32_t unit(wchar_t u)
{
    return static_cast<uint32_t>(u);
}

// Converts the leading ASCII units of the next 8 (to bytes) and returns how
// many there were; the destination needs room for 8 bytes, of which those
// past the count are scratch.
inline size_t ascii_units8(const wchar_t *src, unsigned char *dst)
{
#if defined(__SSE2__)
    static_assert(sizeof(wchar_t) == 4, "32-bit units");
    __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src));
    __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 4));
    __m128i m = _mm_set1_epi32(~0x7F);
    __m128i z = _mm_setzero_si128();
    __m128i ok = _mm_packs_epi32(_mm_cmpeq_epi32(_mm_and_si128(a, m), z),
                                 _mm_cmpeq_epi32(_mm_and_si128(b, m), z));
    unsigned bad = ~static_cast<unsigned>(_mm_movemask_epi8(ok)) & 0xFFFFu;
    __m128i w = _mm_packs_epi32(a, b);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(dst), _mm_packus_epi16(w, w));
    return bad == 0 ? 8 : static_cast<size_t>(__builtin_ctz(bad)) / 2;
#else
    size_t k = 0;
    while (k < 8 && unit(src[k]) < 0x80) {
        dst[k] = static_cast<unsigned char>(src[k]);
        k++;
    }
    return k;
#endif
}

// First-byte marks by length, and the shifts of the first three bytes by
// length (for short characters the later bytes are scratch).
constexpr unsigned char kFirstByteMark[5] = {0x00, 0x00, 0xC0, 0xE0, 0xF0};
constexpr unsigned char kShift0[5] = {0, 0, 6, 12, 18};
constexpr unsigned char kShift1[5] = {0, 0, 0, 6, 12};
constexpr unsigned char kShift2[5] = {0, 0, 0, 0, 6};

// A character and the length of its UTF-8 form.
struct utf8_char {
    uint32_t ch;
    uint32_t len;
};

// The character at src[*i] (a high surrogate followed by a low one makes a
// pair; any other surrogate stands as it is), advancing *i past it.
inline uint32_t take_unit(const wchar_t *src, size_t *i, size_t units)
{
    // A branch, not a select, for the pair: the position of the next unit
    // then does not wait for this one's load.
    uint32_t ch = unit(src[*i]);
    if (ch - 0xD800 < 0x400 && *i + 1 < units) {
        uint32_t low = unit(src[*i + 1]);
        if (low - 0xDC00 < 0x400) {
            *i += 2;
            return ((ch - 0xD800) << 10) + (low - 0xDC00) + 0x10000;
        }
    }
    *i += 1;
    return ch;
}

// What is written for ch and the length of its form, without branches.  A
// value of 0x200000 or more is written as 0xFFFD in two bytes, kept as it
// always was: they come out as 0xFF 0xBD, the value's high bits spilling
// into the mark.
inline utf8_char utf8_form(uint32_t ch)
{
    uint32_t quirk = ch >= 0x200000;
    return {quirk ? 0xFFFDu : ch, quirk ? 2u : 1u + (ch >= 0x80) + (ch >= 0x800) + (ch >= 0x10000)};
}

// Writes four bytes at d, of which the first c.len are c's form: the first
// byte with the mark of the length, continuation bytes of six bits marked
// 0x80.
inline void put_utf8(unsigned char *d, utf8_char c)
{
    uint32_t b0 = ((c.ch >> kShift0[c.len]) | kFirstByteMark[c.len]) & 0xFF;
    uint32_t b1 = 0x80 | ((c.ch >> kShift1[c.len]) & 0x3F);
    uint32_t b2 = 0x80 | ((c.ch >> kShift2[c.len]) & 0x3F);
    uint32_t b3 = 0x80 | (c.ch & 0x3F);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    uint32_t word = b0 | b1 << 8 | b2 << 16 | b3 << 24; // one store for the four
    memcpy(d, &word, 4);
#else
    d[0] = static_cast<unsigned char>(b0);
    d[1] = static_cast<unsigned char>(b1);
    d[2] = static_cast<unsigned char>(b2);
    d[3] = static_cast<unsigned char>(b3);
#endif
}

// Copies ASCII units: a block at a time while both sides have room, then one
// by one.
inline void copy_ascii_units(const wchar_t *src, size_t *i, size_t units, unsigned char **d,
                             unsigned char *end)
{
    while (units - *i >= 8 && end - *d >= 8) {
        size_t k = ascii_units8(src + *i, *d);
        *i += k;
        *d += k;
        if (k < 8)
            break;
    }
    while (*i < units && *d < end && unit(src[*i]) < 0x80)
        *(*d)++ = static_cast<unsigned char>(src[(*i)++]);
}

// Converts other characters without branches on their length (real text
// mixes lengths unpredictably) while a following unit and four bytes of room
// exist.  Bytes past a character's length are scratch that the next
// character or the terminator overwrites.
inline void convert_units(const wchar_t *src, size_t *i, size_t units, unsigned char **d,
                          const unsigned char *end)
{
    while (units - *i >= 2 && end - *d >= 4 && unit(src[*i]) >= 0x80) {
        utf8_char c = utf8_form(take_unit(src, i, units));
        put_utf8(*d, c);
        *d += c.len;
    }
}

// ---- UTF-8 to UTF-16 ----------------------------------------------------

// Converts the leading ASCII bytes of the next 16 (to units) and returns how
// many there were; the destination needs room for 16 units, of which those
// past the count are scratch.
inline size_t ascii_bytes16(const unsigned char *src, wchar_t *dst)
{
#if defined(__SSE2__)
    __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src));
    auto bad = static_cast<unsigned>(_mm_movemask_epi8(v));
    __m128i z = _mm_setzero_si128();
    __m128i lo = _mm_unpacklo_epi8(v, z);
    __m128i hi = _mm_unpackhi_epi8(v, z);
    auto *out = reinterpret_cast<__m128i *>(dst);
    _mm_storeu_si128(out, _mm_unpacklo_epi16(lo, z));
    _mm_storeu_si128(out + 1, _mm_unpackhi_epi16(lo, z));
    _mm_storeu_si128(out + 2, _mm_unpacklo_epi16(hi, z));
    _mm_storeu_si128(out + 3, _mm_unpackhi_epi16(hi, z));
    return bad == 0 ? 16 : static_cast<size_t>(__builtin_ctz(bad));
#else
    size_t k = 0;
    while (k < 16 && src[k] < 0x80) {
        dst[k] = static_cast<wchar_t>(src[k]);
        k++;
    }
    return k;
#endif
}

// Trailing bytes by lead byte (continuation bytes count as leads of none),
// and what the accumulated bytes of a sequence carry beyond its value.
constexpr std::array<unsigned char, 256> kTrailingBytes = [] {
    std::array<unsigned char, 256> t{};
    for (int c = 0; c < 256; c++)
        t[c] = c < 0xC0 ? 0 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : c < 0xF8 ? 3 : c < 0xFC ? 4 : 5;
    return t;
}();
constexpr uint32_t kOffsetsFromUtf8[6] = {0x00000000u, 0x00003080u, 0x000E2080u,
                                          0x03C82080u, 0xFA082080u, 0x82082080u};

// The units of ch: one (surrogate values pass through), a pair, or 0xFFFD
// for a value past 0x10FFFF.  With one unit, second is scratch.
struct utf16_units {
    uint32_t first;
    uint32_t second;
    uint32_t count;
};

inline utf16_units utf16_form(uint32_t ch)
{
    uint32_t over = ch > 0x10FFFF;
    uint32_t pair = (ch >= 0x10000) & !over;
    uint32_t c = ch - 0x10000;
    return {pair ? 0xD800 + (c >> 10) : over ? 0xFFFD : ch, 0xDC00 + (c & 0x3FF), 1 + pair};
}

// Copies ASCII bytes: a block at a time while both sides have room, then one
// by one.
inline void copy_ascii_bytes(const unsigned char **s, const unsigned char *send, wchar_t **d,
                             wchar_t *dend)
{
    while (send - *s >= 16 && dend - *d >= 16) {
        size_t k = ascii_bytes16(*s, *d);
        *s += k;
        *d += k;
        if (k < 16)
            break;
    }
    while (*s < send && *d < dend && **s < 0x80)
        *(*d)++ = static_cast<wchar_t>(*(*s)++);
}

// Converts sequences of two to four bytes while four source bytes and two
// units of room exist, without branches on the length.  Continuation bytes
// are not checked.
inline void convert_sequences(const unsigned char **s, const unsigned char *send, wchar_t **d,
                              const wchar_t *dend)
{
    while (send - *s >= 4 && dend - *d >= 2 && **s >= 0x80) {
        const unsigned char *p = *s;
        uint32_t extra = kTrailingBytes[p[0]];
        if (extra > 3)
            break;
        uint32_t v0 = p[0];
        uint32_t v1 = (v0 << 6) + p[1];
        uint32_t v2 = (v1 << 6) + p[2];
        uint32_t v3 = (v2 << 6) + p[3];
        uint32_t acc = extra == 1 ? v1 : extra == 2 ? v2 : extra == 3 ? v3 : v0;
        utf16_units u = utf16_form(acc - kOffsetsFromUtf8[extra]);
        (*d)[0] = static_cast<wchar_t>(u.first);
        (*d)[1] = static_cast<wchar_t>(u.second);
        *d += u.count;
        *s += extra + 1;
    }
}

// Converts the one sequence at *s with exact bounds: 0 done, 1 when the
// source ends inside it, 3 when its units do not fit (*s then stays).
inline int convert_last_sequence(const unsigned char **s, const unsigned char *send, wchar_t **d,
                                 const wchar_t *dend)
{
    unsigned extra = kTrailingBytes[**s];
    if (extra >= static_cast<size_t>(send - *s))
        return 1;
    if (*d >= dend)
        return 3;
    uint32_t acc = 0;
    for (unsigned k = 0; k <= extra; k++)
        acc = (acc << 6) + (*s)[k];
    utf16_units u = utf16_form(acc - kOffsetsFromUtf8[extra]);
    if (u.count > static_cast<size_t>(dend - *d))
        return 3;
    *(*d)++ = static_cast<wchar_t>(u.first);
    if (u.count == 2)
        *(*d)++ = static_cast<wchar_t>(u.second);
    *s += extra + 1;
    return 0;
}

} // namespace

int strutl_utf16to8(char *dst, const wchar_t *src, size_t src_units, size_t dst_capacity)
{
    auto *d = reinterpret_cast<unsigned char *>(dst);
    unsigned char *const end = d + dst_capacity;
    size_t i = 0;
    while (i < src_units) {
        copy_ascii_units(src, &i, src_units, &d, end);
        if (i < src_units)
            convert_units(src, &i, src_units, &d, end);
        if (i == src_units)
            break;
        // ASCII after a word goes back to the run loops; only what they
        // cannot take (the last unit, or too little room) is done here.
        if (unit(src[i]) < 0x80 && d < end)
            continue;
        utf8_char c = utf8_form(take_unit(src, &i, src_units));
        if (c.len > static_cast<size_t>(end - d)) {
            *d = '\0';
            return 3;
        }
        unsigned char form[4];
        put_utf8(form, c);
        memcpy(d, form, c.len);
        d += c.len;
    }
    *d = '\0';
    return 0;
}

int strutl_utf8to16(wchar_t *dst, const char *src, size_t src_bytes, size_t dst_capacity_units,
                    size_t *consumed)
{
    const auto *s = reinterpret_cast<const unsigned char *>(src);
    const unsigned char *const send = s + src_bytes;
    wchar_t *d = dst;
    wchar_t *const dend = dst + dst_capacity_units;
    int result = 0;
    while (s < send) {
        copy_ascii_bytes(&s, send, &d, dend);
        if (s < send)
            convert_sequences(&s, send, &d, dend);
        if (s == send)
            break;
        // ASCII after a word goes back to the run loops; only what they
        // cannot take (the end of the source or of the room, or a sequence
        // of five or six bytes) is done here.
        if (*s < 0x80 && d < dend)
            continue;
        result = convert_last_sequence(&s, send, &d, dend);
        if (result != 0)
            break;
    }
    *d = 0;
    if (consumed)
        *consumed = static_cast<size_t>(s - reinterpret_cast<const unsigned char *>(src));
    return result;
}
