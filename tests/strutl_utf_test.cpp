// UTF-16 to UTF-8 and back: every code point and random text against iconv
// (both ways, whole and cut at a capacity), malformed units and sequences,
// and the kept two-byte form of values past the last plane.

#include <iconv.h>

#include <random>

#include "strutl_test_util.h"

// iconv's form of code points in to ("UTF-8" or "UTF-16LE").
static std::string via_iconv(const char *to, const std::vector<uint32_t> &cps)
{
    iconv_t cd = iconv_open(to, "UTF-32LE");
    std::string out(cps.size() * 4 + 8, '\0');
    char *in = const_cast<char *>(reinterpret_cast<const char *>(cps.data())), *o = &out[0];
    size_t inleft = cps.size() * 4, oleft = out.size();
    EXPECT_NE(iconv(cd, &in, &inleft, &o, &oleft), static_cast<size_t>(-1));
    iconv_close(cd);
    out.resize(out.size() - oleft);
    return out;
}

// Both conversions of cps at a capacity each way (the whole when it is large
// enough): the output is a prefix of the whole that ends on a character,
// nothing is written past dst[capacity], and the bytes used are those of the
// units written.
static void check_both_ways(const std::vector<uint32_t> &cps, size_t cap16, size_t cap8)
{
    std::string utf8 = via_iconv("UTF-8", cps), bytes = via_iconv("UTF-16LE", cps);
    std::vector<wchar_t> units;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        units.push_back(static_cast<unsigned char>(bytes[i]) | static_cast<unsigned char>(bytes[i + 1]) << 8);
    std::vector<wchar_t> w(std::max(units.size(), cap16) + 24, L'\x5A5A');
    std::string out(std::max(utf8.size(), cap8) + 24, '\x5A');
    size_t used = 0;
    int rc = strutl_utf8to16(w.data(), utf8.data(), utf8.size(), cap16, &used);
    size_t n = wcslen(w.data());
    ASSERT_TRUE(rc == (n == units.size() ? 0 : 3) && n <= cap16 && std::equal(w.begin(), w.begin() + n, units.begin()));
    ASSERT_TRUE(n == 0 || n == units.size() || (units[n] & 0xFC00) != 0xDC00); // whole pairs only
    ASSERT_TRUE(std::all_of(w.begin() + cap16 + 1, w.end(), [](wchar_t x) { return x == L'\x5A5A'; }));
    ASSERT_EQ(strutl_utf16to8(&out[0], units.data(), n, utf8.size()), 0);
    ASSERT_EQ(utf8.substr(0, used), out.c_str());
    std::fill(out.begin(), out.end(), '\x5A');
    rc = strutl_utf16to8(&out[0], units.data(), units.size(), cap8);
    n = strlen(out.c_str());
    ASSERT_TRUE(rc == (n == utf8.size() ? 0 : 3) && n <= cap8 && utf8.compare(0, n, out.c_str()) == 0);
    ASSERT_TRUE(n == utf8.size() || (utf8[n] & 0xC0) != 0x80);
    ASSERT_EQ(out.find_first_not_of('\x5A', cap8 + 1), std::string::npos);
}

// Every code point in one text, whole and cut; then random text with ASCII
// runs long enough for the block paths, at random capacities.
TEST(StrutlUtf, AgainstIconv)
{
    std::vector<uint32_t> cps;
    for (uint32_t cp = 1; cp <= 0x10FFFF; cp++)
        if (cp < 0xD800 || cp > 0xDFFF)
            cps.push_back(cp);
    check_both_ways(cps, cps.size() * 2, cps.size() * 4);
    check_both_ways(cps, 600000, 2000000);
    std::mt19937 rng(777);
    const uint32_t lo[] = {1, 0x80, 0x800, 0x10000}, span[] = {0x7F, 0x780, 0xF800, 0x100000};
    for (int i = 0; i < 3000 && !HasFailure(); i++) {
        cps.clear();
        for (int n = static_cast<int>(rng() % 40); n > 0; n--) {
            uint32_t kind = rng() % 5, cp = kind < 4 ? lo[kind] + rng() % span[kind] : 'a' + rng() % 26;
            cps.insert(cps.end(), kind < 4 ? 1 : rng() % 24, cp >= 0xD800 && cp <= 0xDFFF ? 0xE000 : cp);
        }
        SCOPED_TRACE(i);
        check_both_ways(cps, rng() % (cps.size() * 2 + 1), rng() % (cps.size() * 4 + 1));
    }
}

// UTF-16: surrogates, values past the last plane and negative ones, and the
// kept two-byte quirk, also where they meet the end of the room.  UTF-8: cut
// and six-byte sequences, values past the last plane, too little room.
TEST(StrutlUtf, MalformedAndLimits)
{
    const struct { std::vector<wchar_t> in; size_t cap; int rc; std::string out; } utf16[] = {
        {{0x200000}, 8, 0, "\xFF\xBD"}, {{-1}, 8, 0, "\xFF\xBD"}, {{'a', 0x200000}, 2, 3, "a"},
        {{0x110000}, 8, 0, "\xF4\x90\x80\x80"}, {{0xD83D, 0xDE00}, 3, 3, ""}, {{'a', 0xD800}, 8, 0, "a\xED\xA0\x80"},
        {{0xD800, 'b', 0xDC00}, 9, 0, "\xED\xA0\x80" "b" "\xED\xB0\x80"}};
    for (const auto &c : utf16) {
        std::string out(32, '\x5A');
        EXPECT_EQ(strutl_utf16to8(&out[0], c.in.data(), c.in.size(), c.cap), c.rc) << c.out;
        EXPECT_TRUE(out.substr(0, c.out.size() + 1) == c.out + '\0' &&
                    out.find_first_not_of('\x5A', c.cap + 1) == std::string::npos) << c.out;
    }
    const struct { const char *src; size_t n, cap; int rc; size_t used; std::vector<wchar_t> out; } utf8[] = {
        // Source exhausted inside a sequence; continuation bytes are not checked.
        {"a\xE2\x82", 3, 7, 1, 1, {'a', 0}}, {"\xC3\x41", 2, 7, 0, 2, {0x81, 0}},
        // Surrogate values pass through; beyond 0x10FFFF becomes 0xFFFD.
        {"\xED\xA0\x80" "\xF4\x90\x80\x80" "\xF8\x88\x80\x80\x80", 12, 7, 0, 12, {0xD800, 0xFFFD, 0xFFFD, 0}},
        // A six-byte sequence, and a lone continuation byte (0 trailing bytes).
        {"\xFC\x84\x80\x80\x80\x80" "\x80", 7, 7, 0, 7, {0xFFFD, 0x80, 0}},
        // Target exhausted: no unit left, or one unit for a pair.
        {"ab", 2, 1, 3, 1, {'a', 0}}, {"a\xF0\x9F\x98\x80", 5, 2, 3, 1, {'a', 0}},
        {"\xF0\x9F\x98\x80", 4, 2, 0, 4, {0xD83D, 0xDE00, 0}}, {"x", 1, 0, 3, 0, {0}}};
    for (const auto &c : utf8) {
        std::vector<wchar_t> w(c.cap + 8, L'\x5A5A');
        size_t used = 99;
        EXPECT_TRUE(strutl_utf8to16(w.data(), c.src, c.n, c.cap, &used) == c.rc && used == c.used) << c.src;
        EXPECT_TRUE(std::equal(c.out.begin(), c.out.end(), w.begin()) &&
                    std::all_of(w.begin() + c.cap + 1, w.end(), [](wchar_t x) { return x == L'\x5A5A'; })) << c.src;
    }
}
