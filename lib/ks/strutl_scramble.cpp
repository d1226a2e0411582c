// Codes made from a string's bytes: the string hash, and the reversible
// scrambling of short strings into printable symbols (three bytes to four
// symbols, keyed from the clock, with a check symbol at the end).
#include "ks/strutl.h"

#include <array>
#include <cstring>
#include <string_view>

#include "ks_internal.h"

namespace {

// Phase 0 keeps the top six bits and carries two; phase 1 keeps four and
// carries four; phase 2 keeps two and carries six, which make the fourth
// symbol.
constexpr uint32_t kStoreShift[3] = {2, 4, 6};
constexpr uint32_t kStoreMask[3] = {0xFC, 0xF0, 0xC0};
constexpr uint32_t kCarryShift[3] = {4, 2, 0};
constexpr uint32_t kCarryMask[3] = {0x03, 0x0F, 0x3F};

// Key material: the key sequence and the symbol alphabet.
constexpr std::array<unsigned char, 64> kKeyTable = {
    52, 30, 54, 46, 40, 12, 9,  62, 47, 63, 22, 6,  51, 16, 5,  10, 55, 32, 60, 26, 14, 19,
    41, 25, 29, 8,  39, 31, 4,  24, 17, 2,  27, 48, 35, 23, 37, 15, 1,  34, 59, 0,  33, 13,
    44, 20, 61, 18, 49, 42, 57, 43, 11, 38, 36, 7,  3,  56, 50, 21, 28, 45, 58, 53};
constexpr std::string_view kEncodeTable =
    "pkceEK+8jbCiYudR9ISqnNoZ42g0fGl6hyPAUM1vLF5xWaDHmT-sOBV73wtXJzQr";

// Inverse of kEncodeTable: the symbol's value, -1 for a byte that is none.
constexpr std::array<int16_t, 256> kDecodeTable = [] {
    std::array<int16_t, 256> t{};
    for (size_t b = 0; b < t.size(); b++)
        t[b] = -1;
    for (size_t v = 0; v < kEncodeTable.size(); v++)
        t[static_cast<unsigned char>(kEncodeTable[v])] = static_cast<int16_t>(v);
    return t;
}();
static_assert(sizeof kDecodeTable == 512, "decode table size");

// The alphabet is 64 distinct printable symbols and the keys are symbol
// values.
constexpr bool tables_agree()
{
    if (kEncodeTable.size() != 64)
        return false;
    for (size_t v = 0; v < 64; v++) {
        auto c = static_cast<unsigned char>(kEncodeTable[v]);
        if (c <= ' ' || c > '~' || kDecodeTable[c] != static_cast<int16_t>(v) || kKeyTable[v] > 63)
            return false;
    }
    return true;
}
static_assert(tables_agree(), "scrambling tables");

size_t scrambled_len(size_t plain_len)
{
    size_t r = plain_len % 3;
    return plain_len / 3 * 4 + (r ? r + 1 : 0) + 1;
}

inline int symbol_value(char c)
{
    return kDecodeTable[static_cast<unsigned char>(c)];
}

// The bits of the last symbol below the carried ones when the text ends in a
// group of rest bytes (1 or 2); they are filled from the start index.
inline uint32_t filler_mask(size_t rest)
{
    return (1u << kCarryShift[rest - 1]) - 1;
}

// The key sequence from a start index, with the check of what it coded.
struct keyed {
    uint32_t key;
    uint32_t check;

    // The symbol for v (six bits): keyed, counted in the check.
    char encode(uint32_t v)
    {
        v = (v ^ kKeyTable[key]) & 63;
        key = (key + 1) & 63;
        check ^= v;
        return kEncodeTable[v];
    }
    uint32_t decode(char symbol)
    {
        uint32_t v = (static_cast<uint32_t>(symbol_value(symbol)) ^ kKeyTable[key]) & 63;
        key = (key + 1) & 63;
        return v;
    }
};

// Reassembles the bytes of one group of m symbols (2 to 4, values without
// the key) into out; the number of bytes, or -1 for a NUL byte or filler
// that disagrees with the start index.
int unscramble_group(const uint32_t *sym, size_t m, uint32_t start, char *out)
{
    for (size_t ph = 0; ph + 1 < m; ph++) {
        uint32_t b = ((sym[ph] << kStoreShift[ph]) & kStoreMask[ph]) |
                     ((sym[ph + 1] >> kCarryShift[ph]) & kCarryMask[ph]);
        if (b == 0)
            return -1;
        out[ph] = static_cast<char>(b);
    }
    if (m < 4 && (sym[m - 1] & filler_mask(m - 1)) != (start & filler_mask(m - 1)))
        return -1;
    return static_cast<int>(m - 1);
}

} // namespace

uint32_t strutl_str_to_hash32(uint32_t seed, const char *str)
{
    uint32_t h = seed;
    for (const auto *p = reinterpret_cast<const unsigned char *>(str); *p; p++)
        h = ((h << 5) | (h >> 27)) + *p;
    return h;
}

int strutl_extract_head(const char *plain, char *out, size_t out_size)
{
    if (plain == nullptr || out == nullptr || out_size == 0)
        return 1;
    size_t len = strlen(plain);
    if (len == 0 || out_size < scrambled_len(len) + 1) {
        out[0] = '\0';
        return len == 0 ? 0 : 1;
    }
    uint32_t start = static_cast<uint32_t>(ks::clock_time()) & 63;
    keyed k = {start, 0};
    size_t o = 0;
    uint32_t carry = 0;
    for (size_t i = 0; i < len; i++) {
        uint32_t b = static_cast<unsigned char>(plain[i]);
        size_t ph = i % 3;
        out[o++] = k.encode(carry | ((b & kStoreMask[ph]) >> kStoreShift[ph]));
        carry = (b & kCarryMask[ph]) << kCarryShift[ph];
        if (ph == 2) {
            out[o++] = k.encode(carry);
            carry = 0;
        }
    }
    // A last group of one or two bytes: the bits below the carried ones are
    // filled from the clock (the same bits that chose the start), which the
    // reader checks.
    if (size_t rest = len % 3)
        out[o++] = k.encode(carry | (start & filler_mask(rest)));
    out[o++] = kEncodeTable[(start ^ k.check) & 63];
    out[o] = '\0';
    return 0;
}

int strutl_extract_tail(const char *coded, char *out, size_t out_size)
{
    if (coded == nullptr || out == nullptr || out_size == 0)
        return 1;
    out[0] = '\0';
    size_t n = strlen(coded);
    if (n == 0)
        return 0;
    size_t data = n - 1; // the symbols before the final one
    if (data < 2 || data % 4 == 1)
        return 1;
    size_t plain_len = data / 4 * 3 + (data % 4 ? data % 4 - 1 : 0);
    if (out_size < plain_len + 1)
        return 1;
    uint32_t check = 0;
    for (size_t i = 0; i < n; i++) {
        int v = symbol_value(coded[i]);
        if (v < 0)
            return 1;
        if (i < data)
            check ^= static_cast<uint32_t>(v);
    }
    uint32_t start = (static_cast<uint32_t>(symbol_value(coded[data])) ^ check) & 63;
    keyed k = {start, 0};
    size_t o = 0;
    for (size_t g = 0; g < data; g += 4) {
        uint32_t sym[4] = {0, 0, 0, 0};
        size_t m = data - g < 4 ? data - g : 4;
        for (size_t j = 0; j < m; j++)
            sym[j] = k.decode(coded[g + j]);
        int got = unscramble_group(sym, m, start, out + o);
        if (got < 0) {
            out[0] = '\0';
            return 1;
        }
        o += static_cast<size_t>(got);
    }
    out[o] = '\0';
    return 0;
}
