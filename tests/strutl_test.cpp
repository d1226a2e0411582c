// String utilities: number and size parsing (against the C library),
// expansion (its temporary area on every path, unwinds included), UTF
// conversion (against iconv), flags, the walkers in real Shift_JIS and UTF-8
// locales, bounded copies against a guard region, the scrambling round trip,
// messages and assertions.

#include "ks/strutl.h"

#include <errno.h>
#include <fcntl.h>
#include <iconv.h>
#include <locale.h>
#include <malloc.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ks/imsg.h"
#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks_internal.h"
#include "ks_test_util.h"
#include "stg_testing.h"

namespace {

using ks_test::run_in_child;

void use_locale(const char *name)
{
    ASSERT_NE(setlocale(LC_ALL, name), nullptr) << name;
}

// Shift_JIS characters whose second byte is '\\' (0x5C) or '|' (0x7C).
const char SO[] = "\x83\x5c";    // katakana SO
const char HYO[] = "\x95\x5c";   // "table"
const char PO[] = "\x83\x7c";    // katakana PO

std::string cat(std::initializer_list<std::string> parts)
{
    std::string s;
    for (const std::string &p : parts)
        s += p;
    return s;
}

// ---------------------------------------------------------------------------
// Numbers

// Wherever the C library consumed the whole string without an error the
// results agree; where it stopped early the whole-string form reports 1 (and
// keeps the value) and the extended form returns the same end.
template <typename T, typename Ref, typename Whole, typename Ext>
void agree(const std::string &s, Ref ref, Whole whole, Ext ext)
{
    char *end, *our_end = nullptr;
    errno = 0;
    T want = ref(s.c_str(), &end);
    bool bad = errno != 0 || (want == 0 && end == s.c_str());
    T got = 99, got_ext = 99;
    EXPECT_EQ(whole(s.c_str(), &got), bad || *end ? 1u : 0u) << s;
    EXPECT_EQ(got, bad ? 0 : want) << s;
    EXPECT_EQ(ext(s.c_str(), &got_ext, &our_end), bad ? 1u : 0u) << s;
    EXPECT_TRUE(bad || (got_ext == want && our_end == end)) << s;
}

// The fixed cases (12x: 12 with 1; x: 0 with 1; overflow) then random texts.
TEST(StrutlNumbers, WholeStringRulesAgreeWithTheCLibrary)
{
    std::mt19937 rng(12345);
    const char alphabet[] = "0123456789-+ xXaAfF.eE";
    std::vector<std::string> texts = {"12x", "x", "", "0", "-42", "0x1f", "99999999999999999999", "1e999", "2.5e"};
    for (int i = 0; i < 20000; i++) {
        std::string s;
        for (int len = static_cast<int>(rng() % 24); len > 0; len--)
            s += alphabet[rng() % (sizeof alphabet - 1)];
        texts.push_back(s);
    }
    for (size_t i = 0; i < texts.size(); i++) {
        const std::string &s = texts[i];
        int base = (i % 3 == 0) ? 0 : (i % 3 == 1) ? 10 : 16;
        agree<long>(s, [&](const char *p, char **e) { return strtol(p, e, base); },
                    [&](const char *p, long *v) { return strutl_strtol(p, base, v); },
                    [&](const char *p, long *v, char **e) { return strutl_strtol_extended(p, base, v, e); });
        agree<unsigned long>(
            s, [&](const char *p, char **e) { return strtoul(p, e, base); },
            [&](const char *p, unsigned long *v) { return strutl_strtoul(p, base, v); },
            [&](const char *p, unsigned long *v, char **e) { return strutl_strtoul_extended(p, base, v, e); });
        agree<double>(s, [](const char *p, char **e) { return strtod(p, e); }, strutl_strtod,
                      strutl_strtod_extended);
    }
}

TEST(StrutlNumbers, SizesWithSuffixes)
{
    // In K a non-zero size below 1K is raised to 1 (in bytes -0.5 too: the
    // raise looks only at "not 0"); 1kb has two characters after the number;
    // B lies below 'G' and x above 'm'.
    const auto k = strutl_kstr_to_long, b = strutl_kstr_or_str_to_long;
    const struct { uint32_t (*fn)(const char *, long *); const char *in; uint32_t rc; long v; } cases[] = {
        {k, "100", 0, 1}, {k, "2M", 0, 2048}, {k, "2048", 0, 2}, {k, "3k", 0, 3}, {k, "1g", 0, 1048576},
        {k, "0", 0, 0}, {k, "-2048", 0, -2}, {k, "1kb", 1, 0}, {k, "5Z", 1, 0}, {k, "5B", 1, 0},
        {k, "5x", 1, 0}, {k, "K", 1, 0}, {k, "1e400", 1, 0}, {b, "1g", 0, 1073741824}, {b, "1.5K", 0, 1536},
        {b, "2m", 0, 2097152}, {b, "0.25", 0, 1}, {b, "77", 0, 77}, {b, "-0.5", 0, 1}, {b, "1T", 1, 0},
        {b, "1e30G", 1, 0}};
    for (const auto &c : cases) {
        long v = -1;
        EXPECT_EQ(c.fn(c.in, &v), c.rc) << c.in;
        EXPECT_EQ(v, c.v) << c.in << (c.fn == k ? " in K" : " in bytes");
    }
}

TEST(StrutlNumbers, ProcessLongParamClamps)
{
    const struct { const char *in; long want; } cases[] = {{"7", 6}, {"4x", 3}, {"1", 5}, {nullptr, 3}, {"", 3}};
    for (const auto &c : cases)
        EXPECT_EQ(strutl_process_long_param(c.in, 3, 5, 6), c.want) << (c.in ? c.in : "null");
}

TEST(StrutlNumbers, U32ToStrWidths)
{
    const std::string b5 = std::string(29, '0') + "101";
    const struct { uint32_t v; int base, width; std::string want; } cases[] = {
        {255, 16, 4, "00ff"}, {255, 16, 1, "f"}, {255, 16, 0, ""}, {255, 16, -1, "ff"},
        {0, 10, -5, "0"}, {5, 2, 33, b5}, {5, 2, 32, b5}, {0xFFFFFFFFu, 2, -1, std::string(32, '1')},
        {0xFFFFFFFFu, 36, -1, "1z141z3"}, {123456, 10, 3, "456"}};
    for (const auto &c : cases)
        EXPECT_EQ(strutl_u32tostr(c.v, c.base, c.width), c.want) << c.v << " " << c.base << " " << c.width;
    EXPECT_EQ(strutl_u32tostr(1, 1, 4), nullptr);
    EXPECT_EQ(strutl_u32tostr(1, 37, 4), nullptr);
    EXPECT_EQ(strutl_u32tostr(1, 10, -1), strutl_u32tostr(2, 10, -1));  // one shared buffer
}

// ---------------------------------------------------------------------------
// Environment expansion

std::string expand(const char *s, int *flag = nullptr)
{
    char *r = strutl_expand_evs_status(s, flag);
    EXPECT_NE(r, nullptr);
    std::string out = r ? r : "";
    stg_free(r);
    return out;
}

TEST(StrutlExpand, ReferencesAndEscapes)
{
    setenv("KS_A", "alpha", 1);
    setenv("1x", "digits", 1);           // a name may begin with a digit
    setenv("KS_REF", "$KS_A", 1);        // not scanned again in the same pass
    unsetenv("KS_UNSET");
    const struct { const char *in, *out; int flag; } cases[] = {
        {"x$KS_A.y", "xalpha.y", 1}, {"${KS_A}beta", "alphabeta", 1}, {"${KS_UNSET}a", "a", 1},
        {"$KS_UNSET", "", 1}, {"cost $", "cost $", 0}, {"$-x", "$-x", 0}, {"${KS_A", "alpha", 1},
        {"\\$KS_A", "$KS_A", 0}, {"a\\\\b", "a\\b", 0}, {"a\\xb", "axb", 0}, {"end\\", "end\\", 0},
        {"$1x", "digits", 1}, {"$KS_A$KS_A", "alphaalpha", 1}, {"$KS_REF", "$KS_A", 1}, {"no refs", "no refs", 0}};
    for (const auto &c : cases) {
        int flag = -1;
        EXPECT_EQ(expand(c.in, &flag), c.out) << c.in;
        EXPECT_EQ(flag, c.flag) << c.in;
    }
}

TEST(StrutlExpand, IteratePassesAndErrors)
{
    setenv("B", "x", 1);
    // "<$A>" needs two expanding passes: max 0 (8) and 2 succeed, 1 fails;
    // "plain" needs none, but a negative max is refused; "$A" as itself
    // never ends.
    const struct { const char *in, *env_a; int max; const char *want; } cases[] = {
        {"<$A>", "$B", 0, "<x>"}, {"<$A>", "$B", 2, "<x>"}, {"<$A>", "$B", 1, nullptr},
        {"plain", "$B", 1, "plain"}, {"plain", "$B", -1, nullptr}, {"$A", "$A", 0, nullptr}};
    for (const auto &c : cases) {
        setenv("A", c.env_a, 1);
        errno = 0;
        char *r = strutl_expand_evs_iterate(c.in, c.max);
        EXPECT_STREQ(r, c.want) << c.in << " " << c.max;
        EXPECT_EQ(errno, c.want ? 0 : EINVAL) << c.in << " " << c.max;
        stg_free(r);
    }
}

size_t area_count() { return ks::stg_area_count_for_testing(); }

// A timer keeps unwinding the process; whenever the unwind lands while an
// expansion was under way, its temporary area must be gone.
volatile sig_atomic_t inside_expand = 0;
void unwind_handler(int) { pfm_raise(55); }

// Expands (one pass, or iterated) until the timer unwinds; returns the
// unwind's value.
__attribute__((noinline)) int expand_until_unwound(const char *text, bool iterate)
{
    static pfm_cleanup_t rec;
    static struct itimerval it = {{0, 2000}, {0, 2000}}, off = {{0, 0}, {0, 0}};
    if (PFM_CLEANUP_START(&rec, 0) == 0) {
        setitimer(ITIMER_REAL, &it, nullptr);
        for (;;) {
            inside_expand = 1;
            char *r = iterate ? strutl_expand_evs_iterate(text, 0) : strutl_expand_evs(text);
            inside_expand = 0;
            stg_free(r);
        }
    }
    setitimer(ITIMER_REAL, &off, nullptr);
    int value = rec.value;
    pfm_cleanup_reset(&rec);
    pfm_cleanup_rls(&rec);
    return value;
}

// Neither the temporary areas nor the intermediate results of the iterating
// form stay behind, on the normal path or when an unwind crosses them.
TEST(StrutlExpand, ReleasesEverythingOnEveryPathAndUnwind)
{
    auto res = run_in_child([] {
        pfm_init();
        setenv("KS_P", "$KS_Q", 1);
        setenv("KS_Q", "done", 1);
        std::string big, want;
        for (int i = 0; i < 20000; i++) {
            big += "$KS_P\\-";
            want += "done-";
        }
        size_t areas = area_count();
        // Warm up the allocator before taking its measure.
        for (int i = 0; i < 3; i++) {
            char *r = strutl_expand_evs_iterate(big.c_str(), 0);
            if (!r || r != want || area_count() != areas || pfm_inhibit_count() != 0)
                return 9;
            stg_free(r);
        }
        size_t heap = mallinfo2().uordblks;
        pfm_signal(SIGALRM, unwind_handler);
        for (bool iterate : {false, true}) {
            int caught_inside = 0;
            for (int round = 0; round < 100; round++) {
                int value = expand_until_unwound(big.c_str(), iterate);
                caught_inside += inside_expand;
                inside_expand = 0;
                if (value != 55 || area_count() != areas || pfm_inhibit_count() != 0)
                    return 11;
            }
            if (caught_inside < 20)
                return 13;
        }
        // Each intermediate result is over 100 KB: a leak of them shows.
        return mallinfo2().uordblks > heap + (1u << 20) ? 14 : 0;
    });
    EXPECT_EQ(res.exit_code(), 0) << res.err;
}

TEST(StrutlExpand, ShiftJisEscapesAndNames)
{
    use_locale("ja_JP.SJIS");
    setenv("KS_J", "ok", 1);
    setenv(cat({"N", PO}).c_str(), "po", 1);
    int flag = 0;
    // The second byte of SO is a backslash: it must not escape the '$'.
    EXPECT_EQ(expand(cat({SO, "$KS_J", HYO, "\\$KS_J"}).c_str(), &flag), cat({SO, "ok", HYO, "$KS_J"}));
    EXPECT_EQ(flag, 1);
    // An escaped double-byte character is copied whole.
    EXPECT_EQ(expand(cat({"\\", SO, "$KS_J"}).c_str()), cat({SO, "ok"}));
    // A brace name runs to the first real '}'.
    EXPECT_EQ(expand(cat({"${N", PO, "}!"}).c_str()), "po!");
}

// ---------------------------------------------------------------------------
// UTF-8 and UTF-16

std::vector<wchar_t> iconv_to_utf16(const std::string &utf8)
{
    iconv_t cd = iconv_open("UTF-16LE", "UTF-8");
    std::string out(utf8.size() * 2 + 8, '\0');
    char *in = const_cast<char *>(utf8.data()), *o = &out[0];
    size_t inleft = utf8.size(), oleft = out.size();
    EXPECT_NE(iconv(cd, &in, &inleft, &o, &oleft), (size_t)-1);
    iconv_close(cd);
    std::vector<wchar_t> units;
    for (size_t i = 0; i + 1 < out.size() - oleft; i += 2)
        units.push_back(static_cast<unsigned char>(out[i]) | static_cast<unsigned char>(out[i + 1]) << 8);
    return units;
}

void append_utf8(std::string &s, uint32_t cp)
{
    static const unsigned char mark[] = {0, 0, 0xC0, 0xE0, 0xF0};
    int n = cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
    s += static_cast<char>(mark[n] | (cp >> (6 * (n - 1))));
    for (int k = n - 2; k >= 0; k--)
        s += static_cast<char>(0x80 | ((cp >> (6 * k)) & 0x3F));
}

std::vector<wchar_t> ours_to_utf16(const std::string &utf8)
{
    std::vector<wchar_t> w(utf8.size() + 1, L'\x7777');
    size_t consumed = 0;
    EXPECT_EQ(strutl_utf8to16(w.data(), utf8.data(), utf8.size(), utf8.size(), &consumed), 0);
    EXPECT_EQ(consumed, utf8.size());
    w.resize(wcslen(w.data()));
    return w;
}

std::string ours_to_utf8(const std::vector<wchar_t> &units)
{
    std::string out(units.size() * 3 + 1, '\x77');
    EXPECT_EQ(strutl_utf16to8(&out[0], units.data(), units.size(), units.size() * 3), 0);
    return out.c_str();
}

TEST(StrutlUtf, AllCodePointsAgainstIconv)
{
    std::string all;
    for (uint32_t cp = 1; cp <= 0x10FFFF; cp++)
        if (cp < 0xD800 || cp > 0xDFFF)
            append_utf8(all, cp);
    std::vector<wchar_t> ref = iconv_to_utf16(all);
    EXPECT_TRUE(ours_to_utf16(all) == ref);
    EXPECT_TRUE(ours_to_utf8(ref) == all);
}

// Random valid text with ASCII runs long enough for the block paths, both
// ways; and at a random capacity each way the output is a prefix of the whole
// that ends on a character, with nothing written past dst[capacity].
TEST(StrutlUtf, RandomStringsAgainstIconv)
{
    std::mt19937 rng(777);
    const uint32_t lo[] = {1, 0x80, 0x800, 0x10000}, span[] = {0x7F, 0x780, 0xF800, 0x100000};
    for (int i = 0; i < 3000; i++) {
        std::string s;
        for (int n = static_cast<int>(rng() % 40); n > 0; n--) {
            uint32_t kind = rng() % 5, cp = kind < 4 ? lo[kind] + rng() % span[kind] : 0;
            if (kind == 4)
                s += std::string(rng() % 24, 'a' + static_cast<char>(rng() % 26));
            else
                append_utf8(s, cp >= 0xD800 && cp <= 0xDFFF ? 0xE000 : cp);
        }
        std::vector<wchar_t> ref = iconv_to_utf16(s);
        ASSERT_TRUE(ours_to_utf16(s) == ref) << i;
        ASSERT_EQ(ours_to_utf8(ref), s) << i;
        size_t cap = rng() % (ref.size() + 1), used = 0;
        std::vector<wchar_t> w(cap + 24, L'\x5A5A');
        int rc = strutl_utf8to16(w.data(), s.data(), s.size(), cap, &used);
        size_t n = wcslen(w.data());
        ASSERT_EQ(rc, n == ref.size() ? 0 : 3) << i;
        ASSERT_TRUE(n <= cap && std::equal(w.begin(), w.begin() + n, ref.begin())) << i;
        ASSERT_EQ(iconv_to_utf16(s.substr(0, used)).size(), n) << i;
        ASSERT_TRUE(std::all_of(w.begin() + cap + 1, w.end(), [](wchar_t x) { return x == L'\x5A5A'; })) << i;
        cap = rng() % (s.size() + 1);
        std::string out(cap + 24, '\x5A');
        rc = strutl_utf16to8(&out[0], ref.data(), ref.size(), cap);
        n = strlen(out.c_str());
        ASSERT_EQ(rc, n == s.size() ? 0 : 3) << i;
        ASSERT_TRUE(n <= cap && s.compare(0, n, out.c_str()) == 0 && (n == s.size() || (s[n] & 0xC0) != 0x80)) << i;
        ASSERT_EQ(out.find_first_not_of('\x5A', cap + 1), std::string::npos) << i;
    }
}

// Surrogates, values past the last plane and negative ones, and the kept
// two-byte quirk, also where they meet the end of the room.
TEST(StrutlUtf, Utf16MalformedUnits)
{
    const struct { std::vector<wchar_t> in; size_t cap; int rc; std::string out; } cases[] = {
        {{0x200000}, 8, 0, "\xFF\xBD"}, {{-1}, 8, 0, "\xFF\xBD"}, {{'a', 0x200000}, 2, 3, "a"},
        {{0x110000}, 8, 0, "\xF4\x90\x80\x80"}, {{0xD83D, 0xDE00}, 4, 0, "\xF0\x9F\x98\x80"},
        {{0xD83D, 0xDE00}, 3, 3, ""}, {{'a', 0xD800}, 8, 0, "a\xED\xA0\x80"},
        {{0xD800, 'b', 0xDC00}, 9, 0, "\xED\xA0\x80" "b" "\xED\xB0\x80"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.out);
        std::string out(32, '\x5A');
        EXPECT_EQ(strutl_utf16to8(&out[0], c.in.data(), c.in.size(), c.cap), c.rc);
        EXPECT_EQ(out.substr(0, c.out.size() + 1), c.out + '\0');
        EXPECT_EQ(out.find_first_not_of('\x5A', c.cap + 1), std::string::npos);
    }
}

TEST(StrutlUtf, Utf8MalformedAndLimits)
{
    const struct { const char *src; size_t n, cap; int rc; size_t used; std::vector<wchar_t> out; } cases[] = {
        // Source exhausted inside a sequence; continuation bytes are not checked.
        {"a\xE2\x82", 3, 7, 1, 1, {'a', 0}}, {"\xC3\x41", 2, 7, 0, 2, {0x81, 0}},
        // Surrogate values pass through; beyond 0x10FFFF becomes 0xFFFD.
        {"\xED\xA0\x80" "\xF4\x90\x80\x80" "\xF8\x88\x80\x80\x80", 12, 7, 0, 12, {0xD800, 0xFFFD, 0xFFFD, 0}},
        // A six-byte sequence, and a lone continuation byte (0 trailing bytes).
        {"\xFC\x84\x80\x80\x80\x80" "\x80", 7, 7, 0, 7, {0xFFFD, 0x80, 0}},
        // Target exhausted: no unit left, or one unit for a pair.
        {"ab", 2, 1, 3, 1, {'a', 0}}, {"a\xF0\x9F\x98\x80", 5, 2, 3, 1, {'a', 0}},
        {"\xF0\x9F\x98\x80", 4, 2, 0, 4, {0xD83D, 0xDE00, 0}}, {"x", 1, 0, 3, 0, {0}}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.src);
        std::vector<wchar_t> w(c.cap + 8, L'\x5A5A');
        size_t used = 99;
        EXPECT_EQ(strutl_utf8to16(w.data(), c.src, c.n, c.cap, &used), c.rc);
        EXPECT_EQ(used, c.used);
        EXPECT_TRUE(std::equal(c.out.begin(), c.out.end(), w.begin()));
        EXPECT_TRUE(std::all_of(w.begin() + c.cap + 1, w.end(), [](wchar_t x) { return x == L'\x5A5A'; }));
    }
}

// ---------------------------------------------------------------------------
// Hash, flags, Shift_JIS to EUC

TEST(StrutlHash, RotateAndAdd)
{
    EXPECT_EQ(strutl_str_to_hash32(0, "ab"), 0xC82u);
    EXPECT_EQ(strutl_str_to_hash32(1234, ""), 1234u);
    EXPECT_EQ(strutl_str_to_hash32(0x80000000u, "\xff"), 0x10u + 0xFFu);  // rotates, bytes unsigned
}

const strutl_flag_entry_t flag_table[] = {{"A", 1}, {"B", 2}, {"AB", 3}, {"Long", 8}};

TEST(StrutlFlags, ToText)
{
    EXPECT_STREQ(strutl_flags_to_str(5, nullptr, flag_table, 2), "A UNKNOWN(0x4)");
    EXPECT_STREQ(strutl_flags_to_str(3, "|", flag_table, 4), "A|B");  // AB overlaps: not printed
    EXPECT_STREQ(strutl_flags_to_str(0x18, ",", flag_table, 4), "Long UNKNOWN(0x10)");
    EXPECT_STREQ(strutl_flags_to_str(0, "", flag_table, 4), "");
    // Cut at 1023 characters, in the same buffer each time.
    std::string name(40, 'n');
    std::vector<strutl_flag_entry_t> many(32, {name.c_str(), 0});
    for (int i = 0; i < 32; i++)
        many[i].mask = 1u << i;
    const char *r = strutl_flags_to_str(0xFFFFFFFFu, "--", many.data(), 32);
    EXPECT_EQ(strlen(r), 1023u);
    EXPECT_EQ(strutl_flags_to_str(1, nullptr, flag_table, 1), r);
}

TEST(StrutlFlags, FromText)
{
    const char *unknown = "a,LONG,zz", *lower = "a";
    const struct { const char *in; int cs; const char *sep; uint32_t want; const char *bad; } cases[] = {
        {"A Long", 1, nullptr, 9, nullptr}, {unknown, 0, ",", 0, unknown + 7}, {"a,LONG", 0, ",", 9, nullptr},
        {"", 1, nullptr, 0, nullptr}, {"AB::B", 1, "::", 3, nullptr}, {lower, 1, nullptr, 0, lower}};
    for (const auto &c : cases) {
        const char *bad = "x";
        EXPECT_EQ(strutl_flags_from_str(c.in, c.cs, c.sep, flag_table, 4, &bad), c.want) << c.in;
        EXPECT_EQ(bad, c.bad) << c.in;
    }
}

// One character for each branch of the conversion: second byte below 0x7F,
// from 0x7F, from 0x9F (the next, even row), and a first byte from 0xE0.
TEST(StrutlSjis, ToEuc)
{
    const struct { uint32_t b1, b2, euc; } cases[] = {
        {0x81, 0x40, 0xA1A1}, {0x81, 0x80, 0xA1E0}, {0x88, 0x9E, 0xAFFE}, {0x88, 0x9F, 0xB0A1}, {0xE0, 0x40, 0xDFA1}};
    for (const auto &c : cases) {
        unsigned char hi = 0, lo = 0;
        EXPECT_EQ(strutl_cvt_sjis_to_euc(c.b1, c.b2, &hi, &lo), c.euc) << std::hex << c.b1 << " " << c.b2;
        EXPECT_EQ(hi << 8 | lo, c.euc) << std::hex << c.b1 << " " << c.b2;
    }
}

// ---------------------------------------------------------------------------
// Tokenizer, delimiters, searches, classes and case in multibyte locales

TEST(StrutlWalk, TokenizerInShiftJisAndUtf8)
{
    const struct { const char *loc; std::string in; const char *delims; std::vector<std::string> tokens; } cases[] = {
        {"ja_JP.SJIS", cat({"  a", SO, "b\\c ", PO, "|", HYO}), " \\|", {cat({"a", SO, "b"}), "c", PO, HYO}},
        {"C", ",,x,,y", ",", {"x", "y"}},
        {"C.UTF-8", "\xC3\xA9|x||", "|", {"\xC3\xA9", "x"}}};
    for (auto c : cases) {
        use_locale(c.loc);
        char *p = &c.in[0];
        for (const std::string &want : c.tokens) {
            const char *got = strutl_tokenize(p, c.delims);
            p = nullptr;
            EXPECT_EQ(got ? got : "(null)", want) << c.loc;
        }
        EXPECT_EQ(strutl_tokenize(nullptr, c.delims), nullptr) << c.loc;
        EXPECT_EQ(strutl_tokenize(nullptr, c.delims), nullptr) << c.loc;
    }
}

TEST(StrutlWalk, FindEndDelim)
{
    use_locale("ja_JP.SJIS");
    int pos = -1;
    // The second bytes of PO ('|') and SO ('\\') are neither opening nor
    // closing; a real '|' nests one level.
    std::string s = cat({"[", PO, SO, "|x\\"});
    EXPECT_EQ(strutl_find_end_delim(s.c_str(), 1, '|', '\\', &pos), 0);
    EXPECT_EQ(pos, static_cast<int>(s.size()));
    s = cat({"[", PO, "|", SO, "\\\\"});
    EXPECT_EQ(strutl_find_end_delim(s.c_str(), 1, '|', '\\', &pos), 1);
    EXPECT_EQ(pos, static_cast<int>(s.size()) - 1);
}

TEST(StrutlWalk, SearchesInShiftJis)
{
    use_locale("ja_JP.SJIS");
    // a SO b PO c \\ d | e HYO: the real '\\' is at 7 and the real '|' at 9.
    std::string s = cat({"a", SO, "b", PO, "c\\d|e", HYO});
    const char *p = s.c_str();
    EXPECT_EQ(strutl_find_char(p, '\\'), p + 7);
    EXPECT_EQ(strutl_find_char(p, '|'), p + 9);
    EXPECT_EQ(strutl_find_char_from(p, 8, '\\'), nullptr);
    EXPECT_EQ(strutl_find_last_char(p, '\\'), p + 7);
    EXPECT_EQ(strutl_strrpbrk(p, "\\|"), p + 9);
    EXPECT_EQ(strutl_strrpbrk(p, SO), p + 1);
    EXPECT_EQ(strutl_right_char(p), p + 11);
    EXPECT_EQ(strutl_match_last_char(p, '\\'), 0);
    EXPECT_EQ(strutl_match_last_char("ab\\", '\\'), 1);
    EXPECT_EQ(strutl_find_str(p, "\\d"), p + 7);
    EXPECT_EQ(strutl_find_str(p, "\\b"), nullptr);   // inside SO + "b"
    EXPECT_EQ(strutl_find_str(p, "|c"), nullptr);    // inside PO + "c"
    EXPECT_EQ(strutl_find_str_range(p, 8, "\\d"), nullptr);
    EXPECT_EQ(strutl_find_str_range(p, 9, "\\d"), p + 7);
    EXPECT_EQ(strutl_match_prefix(p, "a") * 10 + strutl_match_prefix(p, "b"), 10u);
    EXPECT_EQ(strutl_mb_strlen(p), 10u);
    EXPECT_EQ(strutl_mblen(p + 2), 1);  // the trailing byte seen alone
    EXPECT_EQ(strutl_mb_strlen("a\xFF" "b"), 3u);  // an invalid byte is a character of its own
    std::string path = cat({"d", SO, "\\e/f"});
    EXPECT_EQ(strutl_xlate_pname_sep(&path[0], "\\", '/', nullptr, 0), path.c_str());
    EXPECT_EQ(path, cat({"d", SO, "/e/f"}));
}


TEST(StrutlLocale, CharTypeAndClasses)
{
    for (const char *loc : {"C", "ja_JP.SJIS", "C.UTF-8"}) {
        use_locale(loc);
        EXPECT_EQ(strutl_get_sys_char_type(), loc[1] == 0 ? 1 : 0) << loc;
    }
    const struct { const char *loc, *s; uint32_t classes; int want, len; } cases[] = {
        {"C", "a", STRUTL_CT_ALPHA | STRUTL_CT_LOWER, 1, 1}, {"C", "a", STRUTL_CT_ALPHA | STRUTL_CT_UPPER, 0, 1},
        {"C", "7", STRUTL_CT_DIGIT | STRUTL_CT_XDIGIT | STRUTL_CT_ALNUM, 1, 1}, {"C", " ", STRUTL_CT_SPACE, 1, 1},
        {"C", " ", STRUTL_CT_GRAPH, 0, 1}, {"C", "!", STRUTL_CT_PUNCT | STRUTL_CT_PRINT, 1, 1},
        {"C", "", STRUTL_CT_PRINT, 0, 0}, {"de_DE.UTF-8", "\xC3\x84x", STRUTL_CT_ALPHA | STRUTL_CT_UPPER, 1, 2},
        {"de_DE.UTF-8", "\xC3", STRUTL_CT_ALPHA, 0, 1},
        {"de_DE.UTF-8", "\xE2\x80\x83", STRUTL_CT_SPACE, 1, 3}};  // em space
    for (const auto &c : cases) {
        use_locale(c.loc);
        int len = -1;
        EXPECT_EQ(strutl_test_char(c.s, c.classes, &len), c.want) << c.s << " " << c.classes;
        EXPECT_EQ(len, c.len) << c.s;
    }
}

TEST(StrutlWalk, CompareIgnoringWhiteSpace)
{
    EXPECT_EQ(strutl_cmp_ignore_whitespace("a b\tc", "abc"), 0);
    EXPECT_LT(strutl_cmp_ignore_whitespace("a b", "a c"), 0);
    use_locale("ja_JP.SJIS");
    // Full-width a (0x82 0x81) then '@': its trailing byte and the '@' read
    // together would be the ideographic space 0x81 0x40.
    EXPECT_EQ(strutl_cmp_ignore_whitespace(" \x82\x81 @ ", "\x82\x81\x81\x40@"), 0);
    EXPECT_LT(strutl_cmp_ignore_whitespace("\x82\x81", "\x82\x81@"), 0);
}

TEST(StrutlCase, ConvertsWholeCharactersOnly)
{
    use_locale("ja_JP.SJIS");
    // Second bytes 0x5C, 0x7C and the letters a..z range (0x83 0x61 is a
    // katakana) are not case-converted as bytes; full-width a (0x82 0x81)
    // becomes full-width A (0x82 0x60).
    std::string s = cat({"ab", SO, PO, "\x83\x61\x82\x81", "z|\\"});
    char out[64];
    EXPECT_EQ(strutl_cvt_case_string(out, sizeof out, s.c_str(), STRUTL_CASE_UPPER), 0);
    EXPECT_EQ(std::string(out), cat({"AB", SO, PO, "\x83\x61\x82\x60", "Z|\\"}));
    EXPECT_EQ(strutl_cvt_case_string(out, sizeof out, out, STRUTL_CASE_LOWER), 0);
    EXPECT_EQ(std::string(out), s);
    EXPECT_EQ(strutl_cvt_case_char("\x82\x81", out, STRUTL_CASE_UPPER), 2);
    EXPECT_STREQ(out, "\x82\x60");
    use_locale("de_DE.UTF-8");
    EXPECT_EQ(strutl_cvt_case_string(out, sizeof out, "\xC3\xA4pfel \xC3\x9F", STRUTL_CASE_UPPER), 0);
    EXPECT_STREQ(out, "\xC3\x84PFEL \xC3\x9F");  // sharp s has no single upper case
    // U+0130 (2 bytes) lowers to 'i' (1 byte): kept when converting in place.
    strcpy(out, "\xC4\xB0X");
    EXPECT_EQ(strutl_cvt_case_string(out, sizeof out, out, STRUTL_CASE_LOWER), 0);
    EXPECT_STREQ(out, "\xC4\xB0x");
    EXPECT_EQ(strutl_cvt_case_string(out, 3, "a\xC3\xA4", STRUTL_CASE_UPPER), 1);
    EXPECT_STREQ(out, "A");
}

TEST(StrutlCase, CaseBlindCollation)
{
    use_locale("de_DE.UTF-8");
    EXPECT_EQ(strutl_stricoll("\xC3\x84PFEL", "\xC3\xA4pfel"), 0);
    EXPECT_LT(strutl_stricoll("apple", "BANANA"), 0);
    EXPECT_EQ(strutl_stricoll(std::string(1000, 'A').c_str(), std::string(1000, 'a').c_str()), 0);
}

// ---------------------------------------------------------------------------
// Bounded copies: never past the size, against a guard region

// Each copy at every size from 0 up: nothing lands past the size, the result
// is terminated, is a prefix of the uncut result ending on a whole
// character, and is reported cut exactly when it is shorter.
TEST(StrutlCopy, NeverPastTheSize)
{
    const std::string src = cat({"ab", SO, "c", HYO, "de"});  // 9 bytes
    const std::pair<const char *, std::function<int(char *, size_t)>> ops[] = {
        {"cpy_buf", [&](char *b, size_t n) { return strutl_cpy_buf(b, n, src.c_str()); }},
        {"ncpy_buf", [&](char *b, size_t n) { return strutl_ncpy_buf(b, n, src.c_str(), 5); }},
        {"ccpy_buf", [&](char *b, size_t n) { return strutl_ccpy_buf(b, n, src.c_str(), 'd', nullptr); }},
        {"concat", [&](char *b, size_t n) { return strutl_concat(b, n, 3, "12", src.c_str(), "xyz"); }},
        {"cpy_and_advance", [&](char *b, size_t n) {
             char *pos = b;
             return strutl_cpy_and_advance(&pos, b + n, "hello"), strutl_cpy_and_advance(&pos, b + n, src.c_str());
         }},
        {"prepend", [&](char *b, size_t n) { return strutl_cpy_buf(b, n, "tail"), strutl_prepend(b, n, src.c_str()); }}};
    for (const char *loc : {"C", "ja_JP.SJIS"}) {
        use_locale(loc);
        for (const auto &op : ops) {
            std::string full(64, '\0');
            op.second(&full[0], full.size());
            full.resize(strlen(full.c_str()));
            std::set<size_t> ends;  // where a whole character ends
            for (size_t k = 0; k <= full.size(); k += std::max(1, mblen(&full[k], MB_CUR_MAX)))
                ends.insert(k);
            for (size_t size = 0; size <= full.size() + 2; size++) {
                SCOPED_TRACE(std::string(loc) + " " + op.first + " size " + std::to_string(size));
                std::string mem(size + 32, '\x5A');
                int cut = op.second(&mem[0], size);
                EXPECT_EQ(mem.find_first_not_of('\x5A', size), std::string::npos);
                ASSERT_TRUE(size == 0 ? cut == 1 : memchr(mem.data(), 0, size) != nullptr);
                std::string got = size ? mem.c_str() : "";
                EXPECT_EQ(full.compare(0, got.size(), got), 0);
                EXPECT_EQ(cut, got.size() < full.size() ? 1 : 0);  // size 0: nothing, so cut
                EXPECT_EQ(ends.count(got.size()), 1u);
            }
        }
    }
}

TEST(StrutlCopy, Results)
{
    char buf[16];
    EXPECT_EQ(strutl_concat(buf, sizeof buf, 3, "ab", nullptr, "cd"), 0);
    EXPECT_EQ(strutl_concat(buf, sizeof buf, 2, buf, "ef"), 0);  // kept in place
    EXPECT_STREQ(buf, "abcdef");
    char *h = strutl_concat_heap(3, "x", "-", "y");
    EXPECT_STREQ(h, "x-y");
    stg_free(h);
    stg_area_t area = stg_create_area(256);
    EXPECT_STREQ(strutl_concat_area(area, 2, "left", "right"), "leftright");
    stg_delete_area(&area);
    char *none = static_cast<char *>(malloc(1)) + 1; // no byte of it may be read
    EXPECT_EQ(strutl_prepend(none, 0, ""), 0);
    EXPECT_EQ(strutl_prepend(none, 0, "x"), 1);
    free(none - 1);
    EXPECT_EQ(strutl_ncpy(buf, "abcdef", 3), 1);   // buf holds n + 1 bytes
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(strutl_ncpy(buf, "ab", 3), 0);
    const char *stop = nullptr;
    EXPECT_EQ(strutl_ccpy_buf(buf, 3, "key=value", '=', &stop), 1);
    EXPECT_STREQ(stop, "y=value");
    char *pos = buf;
    strutl_cpy_and_advance(&pos, buf + 8, "abc");
    EXPECT_EQ(strutl_cpy_and_advance(&pos, buf + 8, "defgh"), 1);
    EXPECT_EQ(pos, buf + 7);
}

// ---------------------------------------------------------------------------
// Other rewriting routines

TEST(StrutlEdit, ReplaceStripSlideTranslate)
{
    char buf[16] = "hello world";
    EXPECT_EQ(strutl_replace_substr(buf, sizeof buf, 0, 5, "hi"), 0);
    EXPECT_STREQ(buf, "hi world");
    EXPECT_EQ(strutl_find_replace_substr(buf, sizeof buf, "a-b-c", "-", "+="), 2);
    EXPECT_STREQ(buf, "a+=b+=c");
    EXPECT_EQ(strutl_find_replace_substr(buf, sizeof buf, "aaa", "aa", "b"), 1);
    EXPECT_STREQ(buf, "ba");
    char ws[] = " \t in the middle \n ", none[] = "   ";
    EXPECT_STREQ(strutl_strip_whitespace(ws), "in the middle");
    EXPECT_STREQ(strutl_strip_whitespace(none), "");
    char slide[16] = "abcdef";
    EXPECT_STREQ(strutl_slide_tail(slide + 3, 2), "def");
    EXPECT_STREQ(strutl_slide_tail(slide + 5, -2), "def");
    EXPECT_STREQ(slide, "abcdef");
    const char *list[] = {"one", "two", nullptr}, *strings[] = {"&lt;", "&gt;", nullptr};
    EXPECT_EQ(strutl_str_in_list("two", list) * 2 + strutl_str_in_list("three", list), 2);
    char *x = strutl_xlate_chars_to_strings("<a>-b", "<>-", strings);
    EXPECT_STREQ(x, "&lt;a&gt;b");
    stg_free(x);
    char pn[] = "a\\b/c", copy[6];
    EXPECT_STREQ(strutl_xlate_pname_sep(pn, "\\/", ':', copy, sizeof copy), "a:b:c");
    EXPECT_STREQ(pn, "a\\b/c");
}

TEST(StrutlEdit, NamesAndCStrings)
{
    const struct { const char *loc, *name, *first, *other; int want; } names[] = {
        {"C", "abc_1", nullptr, nullptr, 1}, {"C", "_x", nullptr, nullptr, 1}, {"C", "1abc", nullptr, nullptr, 0},
        {"C", "", nullptr, nullptr, 0}, {"C", "a-b", nullptr, nullptr, 0}, {"C", "a-b.c", nullptr, "-.", 1},
        {"C", "1abc", "0123456789", nullptr, 1}, {"C.UTF-8", "\xC3\xA9t\xC3\xA9", nullptr, nullptr, 1},
        {"C.UTF-8", "ab\xC3", nullptr, nullptr, 0}};
    for (const auto &c : names) {
        use_locale(c.loc);
        EXPECT_EQ(strutl_is_ok_name(c.name, c.first, c.other), c.want) << c.name;
    }
    char s1[] = "\"a\\tb\\n\\\\\\\"\\x41\\101\\?\"";
    EXPECT_EQ(strutl_cstr_to_str(s1), 0);
    EXPECT_STREQ(s1, "a\tb\n\\\"AA?");
}

TEST(StrutlFormat, PrintfDirectivesAndSnprintf)
{
    size_t len = 0;
    char conv = 0;
    const char *fmt = "100%% of %-08.3lld and %*.*s", *p = strutl_find_printf_directive(fmt, &len, &conv);
    EXPECT_TRUE(p == fmt + 9 && len == 9 && conv == 'd');
    p = strutl_find_printf_directive(p + len, &len, &conv);
    EXPECT_EQ(std::string(p, len), "%*.*s");
    EXPECT_EQ(strutl_find_printf_directive(p + len, &len, &conv), nullptr);
    char buf[8] = "xxxxxxx";
    EXPECT_EQ(strutl_snprintf(buf, 5, "%s-%d", "abc", 42), 6);
    EXPECT_STREQ(buf, "abc-");
    EXPECT_EQ(buf[5], 'x');
}

TEST(StrutlWide, Conversions)
{
    use_locale("C.UTF-8");
    stg_area_t area = stg_create_area(512);
    wchar_t *w = strutl_cvt_str_to_wide_str(area, "a\xC3\xA9\xE2\x82\xAC");
    EXPECT_TRUE(w && strutl_wide_strlen(w) == 3 && w[1] == 0xE9 && w[2] == 0x20AC);
    EXPECT_STREQ(strutl_cvt_wide_str_to_str(area, w), "a\xC3\xA9\xE2\x82\xAC");
    stg_delete_area(&area);
    wchar_t *hw = strutl_cvt_str_to_wide_str(STG_AREA_HEAP, "xy");
    EXPECT_EQ(strutl_wide_strlen(hw), 2u);
    stg_free(hw);
    const char *tail = "\xC3\xA9z";
    wchar_t wc = 0;
    EXPECT_EQ(strutl_wide_char_from_str(&wc, &tail), 2);
    EXPECT_EQ(wc, 0xE9);
    EXPECT_EQ(strutl_wide_char_from_str(&wc, &tail), 1);
    EXPECT_EQ(strutl_wide_char_from_str(&wc, &tail), 0);
    char ch[8];
    EXPECT_EQ(strutl_mb_char_from_str(ch, &tail), 0);
    tail = "\xE2\x82\xAC!";
    EXPECT_EQ(strutl_mb_char_from_str(ch, &tail), 3);
    EXPECT_TRUE(strcmp(ch, "\xE2\x82\xAC") == 0 && strcmp(tail, "!") == 0);
}

TEST(StrutlMessages, ReportedTexts)
{
    auto res = run_in_child([] {
        char buf[4] = "ab";
        strutl_replace_substr(buf, sizeof buf, 0, 0, "xyz");
        char s[] = "bad \\q escape";
        strutl_cstr_to_str(s);
        strutl_cvt_str_to_wide_str(STG_AREA_HEAP, nullptr);
        strutl_cvt_str_to_wide_str(STG_AREA_HEAP, "a\xFF");   // not a character in C: message 6
        setlocale(LC_ALL, "C.UTF-8");
        strutl_cvt_str_to_wide_str(STG_AREA_HEAP, "ok\xFFrest");
        setlocale(LC_ALL, "C");
        wchar_t w[] = {0x3042, 0};
        strutl_cvt_wide_str_to_str(STG_AREA_HEAP, w);
        char out[4];
        strutl_find_replace_substr(out, sizeof out, "aaaa", "a", "bb");
        strutl_find_printf_directive("%5", nullptr, nullptr);
        return 0;
    });
    EXPECT_EQ(res.exit_code(), 0);
    for (const char *text : {"Supplied buffer too small.\n",
                             "Bad format in control string at or near \"\\q escape\".\n",
                             "The string to be converted is null.\n", "Invalid multibyte character: \xFFrest\n",
                             "Error converting string to wide char string: ",
                             "Error converting wide char string to string.\n", "at or near \"%5\""})
        EXPECT_NE(res.err.find(text), std::string::npos) << text << "\n" << res.err;
}

// A regular file by stream and a pipe, whose size is not known beforehand;
// errors name the operation.
TEST(StrutlFiles, ReadAndWrite)
{
    ks_test::temp_dir dir;
    std::string path = dir.file("f"), big(100000, 'q');
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600), p[2];
    EXPECT_EQ(strutl_write(fd, big.c_str()), 0);
    close(fd);
    size_t len = 0;
    FILE *fp = fopen(path.c_str(), "r");
    char *r = strutl_read_fp(fp, &len);
    fclose(fp);
    EXPECT_TRUE(r && len == big.size() && r == big);
    stg_free(r);
    ASSERT_EQ(pipe(p), 0);
    EXPECT_EQ(strutl_write(p[1], big.c_str() + 40000), 0);  // within the pipe's buffer
    close(p[1]);
    r = strutl_read(p[0], &len);
    close(p[0]);
    EXPECT_TRUE(r && len == 60000 && r == big.substr(40000));
    stg_free(r);
    auto res = run_in_child([&] {
        char *x = strutl_read(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY), nullptr);
        int w = strutl_write(open(path.c_str(), O_RDONLY), "x");
        FILE *dfp = fopen(dir.path().c_str(), "r");
        return (x == nullptr && w == 1 && dfp && strutl_read_fp(dfp, nullptr) == nullptr) ? 0 : 1;
    });
    EXPECT_EQ(res.exit_code(), 0);
    size_t first = res.err.find("Operation read: Is a directory");
    EXPECT_NE(res.err.find("Operation read: Is a directory", first + 1), std::string::npos) << res.err;
    EXPECT_NE(res.err.find("Operation write: Bad file descriptor"), std::string::npos) << res.err;
}

// Normal output always; trace output only for a traced subsystem at or
// below the verbosity.
TEST(StrutlLists, PrintedThroughTheMessageLayer)
{
    auto res = run_in_child([] {
        const char *list[] = {"first", "second", nullptr}, *traced[] = {"traced one", "traced two", nullptr};
        strutl_list_print(list);
        strutl_list_trace_print("ks/strutl", 1, list);  // not traced
        imsg_set_trace_verbosity(2);
        imsg_set_trace_subsys("ks/strutl");
        strutl_list_trace_print("ks/strutl", 2, traced);
        strutl_list_trace_print("ks/strutl", 3, traced);  // above the level
        return 0;
    });
    EXPECT_EQ(res.out, "first\nsecond\n");
    EXPECT_NE(res.err.find("traced one\ntraced two\n"), std::string::npos) << res.err;
    EXPECT_EQ(res.err.find("traced one"), res.err.rfind("traced one")) << res.err;
    EXPECT_EQ(res.err.find("first"), std::string::npos) << res.err;
}

// ---------------------------------------------------------------------------
// Scrambling

std::string scramble(const std::string &plain)
{
    std::vector<char> out(plain.size() * 2 + 8);
    EXPECT_EQ(strutl_extract_head(plain.c_str(), out.data(), out.size()), 0);
    return out.data();
}

// Every start index (the clock's low bits) and every length: printable, of
// the expected length, different for each start, and back to the plain text;
// one byte short of room fails both ways.
TEST(StrutlScramble, RoundTripEveryLengthAndStart)
{
    std::mt19937 rng(99);
    std::string plain[41], previous[41];
    for (size_t len = 1; len <= 40; len++)
        while (plain[len].size() < len)
            plain[len] += static_cast<char>(1 + rng() % 255);
    for (time_t t = 0; t < 64; t++) {
        ks::clock_fix(1700000000 - 1700000000 % 64 + t, 0);
        for (size_t len = 0; len <= 40; len++) {
            std::string coded = scramble(plain[len]);
            ASSERT_EQ(coded.size(), len == 0 ? 0 : len / 3 * 4 + (len % 3 ? len % 3 + 1 : 0) + 1);
            ASSERT_TRUE(std::all_of(coded.begin(), coded.end(), [](char c) { return isprint(c & 0xFF); }));
            ASSERT_TRUE(len == 0 || coded != previous[len]) << t << " " << len;
            previous[len] = coded;
            std::vector<char> back(len + 1, 'x'), small(coded.size());
            ASSERT_EQ(strutl_extract_tail(coded.c_str(), back.data(), back.size()), 0) << t << " " << len;
            ASSERT_EQ(std::string(back.data()), plain[len]);
            ASSERT_EQ(strutl_extract_tail(coded.c_str(), back.data(), len), 1);
            ASSERT_EQ(strutl_extract_head(plain[len].c_str(), small.data(), small.size()), 1);
        }
    }
    ks::clock_release();
}

// Foreign symbols and impossible lengths (5 or 1 data symbols plus the final
// one, or the final one alone) are refused outright.  Every substitution of
// one symbol by another printable character: never the original plain text,
// and (where the text carries filler) almost always refused, well beyond
// the third or so that are foreign symbols.
TEST(StrutlScramble, TamperingDetected)
{
    ks::clock_fix(1234567, 0);
    char out[64];
    std::string coded = scramble("password");
    for (std::string t : {coded.substr(0, 2) + "\x80" + coded.substr(3), coded.substr(0, 6), coded.substr(0, 2),
                          coded.substr(0, 1)})
        EXPECT_EQ(strutl_extract_tail(t.c_str(), out, sizeof out), 1) << t;
    for (const char *plain : {"a", "pass", "secret", "passwords!", "abcdefghijklmnopq"}) {
        std::string c = scramble(plain);
        int tries = 0, refused = 0;
        for (size_t i = 0; i < c.size(); i++) {
            for (char sym = ' '; sym <= '~'; sym++) {
                std::string t = c;
                t[i] = sym;
                int rc = sym == c[i] ? -1 : strutl_extract_tail(t.c_str(), out, sizeof out);
                tries += rc != -1;
                refused += rc == 1;
                EXPECT_TRUE(rc != 0 || strcmp(out, plain) != 0) << plain << " " << i;
            }
        }
        size_t rest = strlen(plain) % 3;
        EXPECT_GT(refused * 100 / tries, rest == 1 ? 89 : rest == 2 ? 75 : 0) << plain;
    }
    ks::clock_release();
}

// ---------------------------------------------------------------------------
// Assertions

TEST(StrutlDeathTest, NullArgumentsAbort)
{
    char ch[8];
    wchar_t wc = 0;
    EXPECT_DEATH(strutl_mb_strlen(nullptr), "s != NULL");
    EXPECT_DEATH(strutl_strip_whitespace(nullptr), "s != NULL");
    EXPECT_DEATH(strutl_expand_evs(nullptr), "s != NULL");
    EXPECT_DEATH(strutl_mb_char_from_str(ch, nullptr), "s_tail != NULL");
    EXPECT_DEATH(strutl_wide_char_from_str(&wc, nullptr), "s_tail != NULL");
    EXPECT_DEATH(strutl_wide_strlen(nullptr), "ws != NULL");
    EXPECT_DEATH(strutl_cvt_str_to_wide_str(STG_AREA_NULL, "x"), "area != STG_AREA_NULL");
    EXPECT_DEATH(strutl_cvt_wide_str_to_str(STG_AREA_NULL, L"x"), "area != STG_AREA_NULL");
    EXPECT_DEATH(strutl_concat_area(STG_AREA_NULL, 1, "x"), "area != STG_AREA_NULL");
}

} // namespace
