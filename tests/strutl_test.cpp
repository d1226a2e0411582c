// String utilities: number and size parsing, expansion, UTF conversion
// (against iconv), flags, the tokenizer and the searches in real Shift_JIS and
// UTF-8 locales, bounded copies against a guard region, the scrambling round
// trip, messages and assertions.

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

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ks/imsg.h"
#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks_internal.h"
#include "ks_test_util.h"
#include "stg_internal.h"

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

// ---------------------------------------------------------------------------
// Numbers

TEST(StrutlNumbers, WholeStringRules)
{
    long l = -1;
    EXPECT_EQ(strutl_strtol("12x", 10, &l), 1u);
    EXPECT_EQ(l, 12);
    EXPECT_EQ(strutl_strtol("x", 10, &l), 1u);
    EXPECT_EQ(l, 0);
    EXPECT_EQ(strutl_strtol("-42", 10, &l), 0u);
    EXPECT_EQ(l, -42);
    EXPECT_EQ(strutl_strtol("0", 10, &l), 0u);
    EXPECT_EQ(l, 0);
    EXPECT_EQ(strutl_strtol("0x1f", 0, &l), 0u);
    EXPECT_EQ(l, 31);
    EXPECT_EQ(strutl_strtol("99999999999999999999", 10, &l), 1u);
    EXPECT_EQ(l, 0);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(strutl_strtol("", 10, &l), 1u);

    char *end = nullptr;
    EXPECT_EQ(strutl_strtol_extended("12x", 10, &l, &end), 0u);
    EXPECT_EQ(l, 12);
    EXPECT_STREQ(end, "x");
    EXPECT_EQ(strutl_strtol_extended("x", 10, &l, &end), 1u);
    EXPECT_EQ(strutl_strtol_extended("0", 10, &l, &end), 0u);
    EXPECT_EQ(*end, '\0');

    unsigned long ul = 7;
    EXPECT_EQ(strutl_strtoul("ff", 16, &ul), 0u);
    EXPECT_EQ(ul, 255u);
    EXPECT_EQ(strutl_strtoul("12 ", 10, &ul), 1u);
    EXPECT_EQ(ul, 12u);
    EXPECT_EQ(strutl_strtoul_extended("12 ", 10, &ul, &end), 0u);
    EXPECT_STREQ(end, " ");

    double d = -1;
    EXPECT_EQ(strutl_strtod("2.5", &d), 0u);
    EXPECT_EQ(d, 2.5);
    EXPECT_EQ(strutl_strtod("2.5e", &d), 1u);
    EXPECT_EQ(d, 2.5);
    EXPECT_EQ(strutl_strtod("e", &d), 1u);
    EXPECT_EQ(d, 0);
    EXPECT_EQ(strutl_strtod("1e999", &d), 1u);
    EXPECT_EQ(d, 0);
    EXPECT_EQ(strutl_strtod_extended("3.25kg", &d, &end), 0u);
    EXPECT_EQ(d, 3.25);
    EXPECT_STREQ(end, "kg");
}

// Random texts: wherever the C library consumed the whole string without an
// error, the results agree; wherever it stopped early, ours reports 1.
TEST(StrutlNumbers, AgreeWithTheCLibrary)
{
    std::mt19937 rng(12345);
    const char alphabet[] = "0123456789-+ xXaAfF.eE";
    for (int i = 0; i < 20000; i++) {
        std::string s;
        int len = static_cast<int>(rng() % 12);
        for (int k = 0; k < len; k++)
            s += alphabet[rng() % (sizeof alphabet - 1)];
        int base = (i % 3 == 0) ? 0 : (i % 3 == 1) ? 10 : 16;

        char *end;
        errno = 0;
        long ref = strtol(s.c_str(), &end, base);
        bool ref_err = errno != 0 || (ref == 0 && end == s.c_str());
        long ours = 99;
        uint32_t rc = strutl_strtol(s.c_str(), base, &ours);
        if (ref_err) {
            EXPECT_EQ(rc, 1u) << s;
            EXPECT_EQ(ours, 0) << s;
        } else {
            EXPECT_EQ(ours, ref) << s;
            EXPECT_EQ(rc, *end ? 1u : 0u) << s;
        }

        errno = 0;
        double dref = strtod(s.c_str(), &end);
        ref_err = errno != 0 || (dref == 0 && end == s.c_str());
        double dours = 99;
        rc = strutl_strtod(s.c_str(), &dours);
        if (ref_err) {
            EXPECT_EQ(rc, 1u) << s;
        } else {
            EXPECT_EQ(dours, dref) << s;
            EXPECT_EQ(rc, *end ? 1u : 0u) << s;
        }
    }
}

TEST(StrutlNumbers, SizesWithSuffixes)
{
    long v = -1;
    EXPECT_EQ(strutl_kstr_to_long("100", &v), 0u);
    EXPECT_EQ(v, 1);           // 0.09765625 K, raised to 1
    EXPECT_EQ(strutl_kstr_to_long("2M", &v), 0u);
    EXPECT_EQ(v, 2048);
    EXPECT_EQ(strutl_kstr_to_long("2048", &v), 0u);
    EXPECT_EQ(v, 2);
    EXPECT_EQ(strutl_kstr_to_long("3k", &v), 0u);
    EXPECT_EQ(v, 3);
    EXPECT_EQ(strutl_kstr_to_long("1g", &v), 0u);
    EXPECT_EQ(v, 1048576);
    EXPECT_EQ(strutl_kstr_to_long("0", &v), 0u);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(strutl_kstr_to_long("-2048", &v), 0u);
    EXPECT_EQ(v, -2);
    EXPECT_EQ(strutl_kstr_to_long("1kb", &v), 1u);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(strutl_kstr_to_long("5Z", &v), 1u);
    EXPECT_EQ(strutl_kstr_to_long("5B", &v), 1u);  // below 'G'
    EXPECT_EQ(strutl_kstr_to_long("5x", &v), 1u);  // above 'm'
    EXPECT_EQ(strutl_kstr_to_long("K", &v), 1u);
    EXPECT_EQ(strutl_kstr_to_long("1e400", &v), 1u);

    EXPECT_EQ(strutl_kstr_or_str_to_long("1g", &v), 0u);
    EXPECT_EQ(v, 1073741824);
    EXPECT_EQ(strutl_kstr_or_str_to_long("1.5K", &v), 0u);
    EXPECT_EQ(v, 1536);
    EXPECT_EQ(strutl_kstr_or_str_to_long("2m", &v), 0u);
    EXPECT_EQ(v, 2097152);
    EXPECT_EQ(strutl_kstr_or_str_to_long("0.25", &v), 0u);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(strutl_kstr_or_str_to_long("77", &v), 0u);
    EXPECT_EQ(v, 77);
    EXPECT_EQ(strutl_kstr_or_str_to_long("-0.5", &v), 0u);
    EXPECT_EQ(v, 1);           // not 0: the raise to 1 looks only at "not 0"
    EXPECT_EQ(strutl_kstr_or_str_to_long("1T", &v), 1u);
    EXPECT_EQ(strutl_kstr_or_str_to_long("1e30G", &v), 1u);
}

TEST(StrutlNumbers, ProcessLongParam)
{
    EXPECT_EQ(strutl_process_long_param("7", 3, 5, 6), 6);
    EXPECT_EQ(strutl_process_long_param("4x", 3, 5, 6), 3);
    EXPECT_EQ(strutl_process_long_param("1", 3, 5, 6), 5);
    EXPECT_EQ(strutl_process_long_param(nullptr, 3, 5, 6), 3);
    EXPECT_EQ(strutl_process_long_param("5", 3, 5, 6), 5);
    EXPECT_EQ(strutl_process_long_param("", 3, 5, 6), 3);
}

TEST(StrutlNumbers, U32ToStrWidths)
{
    EXPECT_STREQ(strutl_u32tostr(255, 16, 4), "00ff");
    EXPECT_STREQ(strutl_u32tostr(255, 16, 1), "f");
    EXPECT_STREQ(strutl_u32tostr(255, 16, 0), "");
    EXPECT_STREQ(strutl_u32tostr(255, 16, -1), "ff");
    EXPECT_STREQ(strutl_u32tostr(0, 10, -5), "0");
    EXPECT_STREQ(strutl_u32tostr(5, 2, 33), "00000000000000000000000000000101");
    EXPECT_STREQ(strutl_u32tostr(5, 2, 32), "00000000000000000000000000000101");
    EXPECT_STREQ(strutl_u32tostr(0xFFFFFFFFu, 2, -1), "11111111111111111111111111111111");
    EXPECT_STREQ(strutl_u32tostr(0xFFFFFFFFu, 36, -1), "1z141z3");
    EXPECT_STREQ(strutl_u32tostr(123456, 10, 3), "456");
    EXPECT_EQ(strutl_u32tostr(1, 1, 4), nullptr);
    EXPECT_EQ(strutl_u32tostr(1, 37, 4), nullptr);
    // One buffer for all callers.
    char *a = strutl_u32tostr(1, 10, -1);
    char *b = strutl_u32tostr(2, 10, -1);
    EXPECT_EQ(a, b);
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
    setenv("KS_1", "one", 1);
    unsetenv("KS_UNSET");
    int flag = -1;
    EXPECT_EQ(expand("x$KS_A.y", &flag), "xalpha.y");
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(expand("${KS_A}beta", &flag), "alphabeta");
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(expand("${KS_UNSET}a", &flag), "a");
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(expand("$KS_UNSET", &flag), "");
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(expand("cost $", &flag), "cost $");
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(expand("$-x", &flag), "$-x");
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(expand("${KS_A", &flag), "alpha");
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(expand("\\$KS_A", &flag), "$KS_A");
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(expand("a\\\\b"), "a\\b");
    EXPECT_EQ(expand("a\\xb"), "axb");
    EXPECT_EQ(expand("end\\"), "end\\");
    EXPECT_EQ(expand("$1x"), "");        // a name may begin with a digit
    setenv("1x", "digits", 1);
    EXPECT_EQ(expand("$1x"), "digits");
    EXPECT_EQ(expand("$KS_A$KS_A"), "alphaalpha");
    // A value is not scanned again in the same pass.
    setenv("KS_REF", "$KS_A", 1);
    EXPECT_EQ(expand("$KS_REF"), "$KS_A");
    char *plain = strutl_expand_evs("no refs");
    EXPECT_STREQ(plain, "no refs");
    stg_free(plain);
}

TEST(StrutlExpand, IteratePassesAndErrors)
{
    setenv("A", "$B", 1);
    setenv("B", "x", 1);
    EXPECT_EQ(expand("$A"), "$B");
    char *r = strutl_expand_evs_iterate("$A", 0);
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r, "x");
    stg_free(r);
    // Two expanding passes: max 2 succeeds, max 1 fails.
    r = strutl_expand_evs_iterate("<$A>", 2);
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r, "<x>");
    stg_free(r);
    errno = 0;
    EXPECT_EQ(strutl_expand_evs_iterate("<$A>", 1), nullptr);
    EXPECT_EQ(errno, EINVAL);

    setenv("A", "$A", 1);
    errno = 0;
    EXPECT_EQ(strutl_expand_evs_iterate("$A", 0), nullptr);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(strutl_expand_evs_iterate("plain", -1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    r = strutl_expand_evs_iterate("plain", 1);
    EXPECT_STREQ(r, "plain");
    stg_free(r);
}

size_t area_count()
{
    size_t n = 0;
    for (stg_area_rec *a = ks::stg_area_list_head(); a; a = a->next_area)
        n++;
    return n;
}

TEST(StrutlExpand, TemporaryAreaReleased)
{
    setenv("KS_LONG", std::string(5000, 'v').c_str(), 1);
    size_t before = area_count();
    std::string big;
    for (int i = 0; i < 50; i++)
        big += "$KS_LONG/";
    std::string r = expand(big.c_str());
    EXPECT_EQ(r.size(), 50u * 5001u);
    EXPECT_EQ(area_count(), before);
    EXPECT_EQ(pfm_inhibit_count(), 0);
}

// A timer keeps unwinding the process; whenever the unwind lands while an
// expansion was under way, its temporary area must be gone.
volatile sig_atomic_t inside_expand = 0;
void unwind_handler(int) { pfm_raise(55); }

// One round: expand (one pass, or iterated) until the timer unwinds;
// returns the unwind's value.
__attribute__((noinline)) int expand_until_unwound(const char *text, bool iterate = false)
{
    static pfm_cleanup_t rec;
    static struct itimerval it = {{0, 2000}, {0, 2000}};
    if (PFM_CLEANUP_START(&rec, 0) == 0) {
        setitimer(ITIMER_REAL, &it, nullptr);
        for (;;) {
            inside_expand = 1;
            char *r = iterate ? strutl_expand_evs_iterate(text, 0) : strutl_expand_evs(text);
            inside_expand = 0;
            stg_free(r);
        }
    }
    static struct itimerval off = {{0, 0}, {0, 0}};
    setitimer(ITIMER_REAL, &off, nullptr);
    int value = rec.value;
    pfm_cleanup_reset(&rec);
    pfm_cleanup_rls(&rec);
    return value;
}

TEST(StrutlExpand, AreaReleasedOnUnwind)
{
    auto res = run_in_child([] {
        pfm_init();
        setenv("KS_V", "value", 1);
        std::string big;
        for (int i = 0; i < 20000; i++)
            big += "$KS_V\\x";
        size_t before = area_count();
        pfm_signal(SIGALRM, unwind_handler);
        int caught_inside = 0;
        for (int round = 0; round < 200 && caught_inside < 5; round++) {
            if (expand_until_unwound(big.c_str()) != 55)
                return 10;
            if (inside_expand)
                caught_inside++;
            inside_expand = 0;
            if (area_count() != before)
                return 11;
            if (pfm_inhibit_count() != 0)
                return 12;
        }
        return caught_inside >= 5 ? 0 : 13;
    });
    EXPECT_EQ(res.exit_code(), 0) << res.err;
}

// Unwinds landing between the passes of the iterating form: neither the
// temporary areas nor the intermediate results stay behind.
TEST(StrutlExpand, IterateReleasesEverythingOnUnwind)
{
    auto res = run_in_child([] {
        pfm_init();
        setenv("KS_P", "$KS_Q", 1);
        setenv("KS_Q", "done", 1);
        std::string big;
        for (int i = 0; i < 20000; i++)
            big += "$KS_P\\x";
        size_t areas = area_count();
        // Warm up the allocator before taking its measure.
        for (int i = 0; i < 3; i++)
            stg_free(strutl_expand_evs_iterate(big.c_str(), 0));
        size_t heap = mallinfo2().uordblks;
        pfm_signal(SIGALRM, unwind_handler);
        int caught_inside = 0;
        for (int round = 0; round < 100; round++) {
            if (expand_until_unwound(big.c_str(), true) != 55)
                return 10;
            if (inside_expand)
                caught_inside++;
            inside_expand = 0;
            if (area_count() != areas)
                return 11;
            if (pfm_inhibit_count() != 0)
                return 12;
        }
        if (caught_inside < 20)
            return 13;
        // Each intermediate result is over 100 KB: a leak of them shows.
        size_t grown = mallinfo2().uordblks - heap;
        if (mallinfo2().uordblks > heap && grown > (1u << 20)) {
            fprintf(stderr, "heap grew by %zu\n", grown);
            return 14;
        }
        return 0;
    });
    EXPECT_EQ(res.exit_code(), 0) << res.err;
}

TEST(StrutlExpand, ShiftJisEscapesAndNames)
{
    use_locale("ja_JP.SJIS");
    setenv("KS_J", "ok", 1);
    // The second byte of SO is a backslash: it must not escape the '$'.
    std::string in = std::string(SO) + "$KS_J" + HYO + "\\$KS_J";
    int flag = 0;
    EXPECT_EQ(expand(in.c_str(), &flag), std::string(SO) + "ok" + HYO + "$KS_J");
    EXPECT_EQ(flag, 1);
    // An escaped double-byte character is copied whole.
    in = std::string("\\") + SO + "$KS_J";
    EXPECT_EQ(expand(in.c_str()), std::string(SO) + "ok");
    // A brace name runs to the first real '}'.
    setenv((std::string("N") + PO).c_str(), "po", 1);
    in = std::string("${N") + PO + "}!";
    EXPECT_EQ(expand(in.c_str()), "po!");
}

// ---------------------------------------------------------------------------
// UTF-8 and UTF-16

std::vector<uint16_t> iconv_to_utf16(const std::string &utf8)
{
    iconv_t cd = iconv_open("UTF-16LE", "UTF-8");
    EXPECT_NE(cd, (iconv_t)-1);
    std::vector<char> out(utf8.size() * 2 + 8);
    char *in = const_cast<char *>(utf8.data());
    size_t inleft = utf8.size();
    char *o = out.data();
    size_t oleft = out.size();
    size_t rc = iconv(cd, &in, &inleft, &o, &oleft);
    EXPECT_NE(rc, (size_t)-1);
    iconv_close(cd);
    size_t bytes = out.size() - oleft;
    std::vector<uint16_t> units(bytes / 2);
    if (bytes)
        memcpy(units.data(), out.data(), bytes);
    return units;
}

std::string iconv_to_utf8(const std::vector<uint16_t> &units)
{
    iconv_t cd = iconv_open("UTF-8", "UTF-16LE");
    EXPECT_NE(cd, (iconv_t)-1);
    std::vector<char> out(units.size() * 3 + 8);
    char *in = reinterpret_cast<char *>(const_cast<uint16_t *>(units.data()));
    size_t inleft = units.size() * 2;
    char *o = out.data();
    size_t oleft = out.size();
    size_t rc = iconv(cd, &in, &inleft, &o, &oleft);
    EXPECT_NE(rc, (size_t)-1);
    iconv_close(cd);
    return std::string(out.data(), out.size() - oleft);
}

void append_utf8(std::string &s, uint32_t cp)
{
    if (cp < 0x80) {
        s += static_cast<char>(cp);
    } else if (cp < 0x800) {
        s += static_cast<char>(0xC0 | (cp >> 6));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        s += static_cast<char>(0xE0 | (cp >> 12));
        s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        s += static_cast<char>(0xF0 | (cp >> 18));
        s += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

std::vector<uint16_t> ours_to_utf16(const std::string &utf8)
{
    std::vector<wchar_t> w(utf8.size() + 1, L'\x7777');
    size_t consumed = 0;
    int rc = strutl_utf8to16(w.data(), utf8.data(), utf8.size(), utf8.size(), &consumed);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(consumed, utf8.size());
    std::vector<uint16_t> units;
    for (size_t i = 0; w[i] != 0 || i < units.size(); i++) {
        if (w[i] == 0)
            break;
        EXPECT_LT(static_cast<uint32_t>(w[i]), 0x10000u);
        units.push_back(static_cast<uint16_t>(w[i]));
    }
    return units;
}

std::string ours_to_utf8(const std::vector<uint16_t> &units)
{
    std::vector<wchar_t> w(units.begin(), units.end());
    std::string out(units.size() * 3 + 1, '\x77');
    int rc = strutl_utf16to8(&out[0], w.data(), w.size(), units.size() * 3);
    EXPECT_EQ(rc, 0);
    return std::string(out.c_str());
}

TEST(StrutlUtf, AllCodePointsAgainstIconv)
{
    std::string all;
    for (uint32_t cp = 1; cp <= 0x10FFFF; cp++)
        if (cp < 0xD800 || cp > 0xDFFF)
            append_utf8(all, cp);
    std::vector<uint16_t> ref = iconv_to_utf16(all);
    std::vector<uint16_t> ours = ours_to_utf16(all);
    ASSERT_EQ(ours.size(), ref.size());
    EXPECT_TRUE(ours == ref);
    EXPECT_EQ(ours_to_utf8(ref), iconv_to_utf8(ref));
    EXPECT_EQ(ours_to_utf8(ref), all);
}

TEST(StrutlUtf, RandomStringsAgainstIconv)
{
    std::mt19937 rng(777);
    for (int i = 0; i < 2000; i++) {
        std::string s;
        int n = static_cast<int>(rng() % 40);
        for (int k = 0; k < n; k++) {
            uint32_t cp;
            switch (rng() % 4) {
            case 0: cp = 1 + rng() % 0x7F; break;
            case 1: cp = 0x80 + rng() % 0x780; break;
            case 2: cp = 0x800 + rng() % 0xF800; break;
            default: cp = 0x10000 + rng() % 0x100000; break;
            }
            if (cp >= 0xD800 && cp <= 0xDFFF)
                cp = 0xE000;
            append_utf8(s, cp);
        }
        std::vector<uint16_t> ref = iconv_to_utf16(s);
        ASSERT_TRUE(ours_to_utf16(s) == ref) << i;
        ASSERT_EQ(ours_to_utf8(ref), s) << i;
    }
}

TEST(StrutlUtf, Utf16MalformedAndLimits)
{
    unsigned char out[16];
    // The kept two-byte quirk for values of 0x200000 and above.
    wchar_t big[] = {0x200000};
    EXPECT_EQ(strutl_utf16to8(reinterpret_cast<char *>(out), big, 1, 8), 0);
    EXPECT_EQ(out[0], 0xFF);
    EXPECT_EQ(out[1], 0xBD);
    EXPECT_EQ(out[2], 0);
    // A high surrogate as the last unit: three bytes as it stands.
    wchar_t hi[] = {'a', 0xD800};
    EXPECT_EQ(strutl_utf16to8(reinterpret_cast<char *>(out), hi, 2, 8), 0);
    EXPECT_STREQ(reinterpret_cast<char *>(out), "a\xED\xA0\x80");
    // A high surrogate followed by something else, a lone low surrogate.
    wchar_t lone[] = {0xD800, 'b', 0xDC00};
    EXPECT_EQ(strutl_utf16to8(reinterpret_cast<char *>(out), lone, 3, 15), 0);
    EXPECT_STREQ(reinterpret_cast<char *>(out), "\xED\xA0\x80" "b" "\xED\xB0\x80");
    // Target exhausted: the output stops before the character that does not
    // fit, the NUL may fall at dst[capacity], and nothing is written beyond.
    wchar_t text[] = {'a', 0xE9, 0x20AC};  // 1 + 2 + 3 bytes
    for (size_t cap = 0; cap <= 6; cap++) {
        memset(out, 0xAA, sizeof out);
        int rc = strutl_utf16to8(reinterpret_cast<char *>(out), text, 3, cap);
        size_t fit = cap >= 6 ? 6 : cap >= 3 ? 3 : cap >= 1 ? 1 : 0;
        EXPECT_EQ(rc, cap >= 6 ? 0 : 3) << cap;
        EXPECT_EQ(strlen(reinterpret_cast<char *>(out)), fit) << cap;
        for (size_t k = cap + 1; k < sizeof out; k++)
            EXPECT_EQ(out[k], 0xAA) << cap << " " << k;
    }
}

// The conversion rules written out plainly, one character at a time (the
// pieces are the bytes of each character).
std::vector<std::string> utf16to8_by_rule(const std::vector<wchar_t> &u)
{
    std::vector<std::string> chars;
    for (size_t i = 0; i < u.size();) {
        uint32_t ch = static_cast<uint32_t>(u[i++]);
        if (ch >= 0xD800 && ch <= 0xDBFF && i < u.size()) {
            uint32_t c2 = static_cast<uint32_t>(u[i]);
            if (c2 >= 0xDC00 && c2 <= 0xDFFF) {
                ch = ((ch - 0xD800) << 10) + (c2 - 0xDC00) + 0x10000;
                i++;
            }
        }
        std::string c;
        if (ch >= 0x200000)
            c = "\xFF\xBD";
        else
            append_utf8(c, ch);
        chars.push_back(c);
    }
    return chars;
}

// Random units, lone and paired surrogates, values past the last plane and
// negative ones, with ASCII runs long enough for the block paths: at every
// kind of capacity the output is the longest run of whole characters that
// fits, terminated, with nothing written past dst[capacity].
TEST(StrutlUtf, Utf16RandomUnitsFollowTheRules)
{
    std::mt19937 rng(4242);
    for (int iter = 0; iter < 3000; iter++) {
        std::vector<wchar_t> u;
        int n = static_cast<int>(rng() % 50);
        for (int k = 0; k < n; k++) {
            uint32_t r = rng() % 100;
            if (r < 10) {
                for (uint32_t run = rng() % 24; run > 0; run--)
                    u.push_back(static_cast<wchar_t>(0x20 + rng() % 0x5F));
            } else if (r < 30) {
                u.push_back(static_cast<wchar_t>(rng() % 0x80));
            } else if (r < 45) {
                u.push_back(static_cast<wchar_t>(0x80 + rng() % 0x780));
            } else if (r < 60) {
                u.push_back(static_cast<wchar_t>(0x800 + rng() % 0xF800));
            } else if (r < 72) {
                u.push_back(static_cast<wchar_t>(0xD800 + rng() % 0x400));
            } else if (r < 84) {
                u.push_back(static_cast<wchar_t>(0xDC00 + rng() % 0x400));
            } else if (r < 92) {
                u.push_back(static_cast<wchar_t>(0x10000 + rng() % 0x1F0000));
            } else if (r < 97) {
                u.push_back(static_cast<wchar_t>(0x200000 + rng() % 0x7FE00000));
            } else {
                u.push_back(static_cast<wchar_t>(-1 - static_cast<int>(rng() % 1000)));
            }
        }
        std::vector<std::string> chars = utf16to8_by_rule(u);
        std::string whole;
        for (const std::string &c : chars)
            whole += c;
        size_t caps[] = {whole.size(), whole.size() + 3, rng() % (whole.size() + 1),
                         whole.size() ? whole.size() - 1 : 0};
        for (size_t cap : caps) {
            std::string fit;
            for (const std::string &c : chars) {
                if (fit.size() + c.size() > cap)
                    break;
                fit += c;
            }
            std::vector<unsigned char> out(cap + 24, 0x5A);
            int rc = strutl_utf16to8(reinterpret_cast<char *>(out.data()), u.data(), u.size(), cap);
            ASSERT_EQ(rc, fit.size() == whole.size() ? 0 : 3) << iter << " cap " << cap;
            ASSERT_EQ(std::string(reinterpret_cast<char *>(out.data()), fit.size()), fit) << iter;
            ASSERT_EQ(out[fit.size()], 0) << iter;
            for (size_t k = cap + 1; k < out.size(); k++)
                ASSERT_EQ(out[k], 0x5A) << iter << " cap " << cap << " at " << k;
        }
    }
}

TEST(StrutlUtf, Utf8MalformedAndLimits)
{
    wchar_t w[8];
    size_t used = 99;
    // Source exhausted inside a sequence.
    EXPECT_EQ(strutl_utf8to16(w, "a\xE2\x82", 3, 7, &used), 1);
    EXPECT_EQ(used, 1u);
    EXPECT_EQ(w[0], L'a');
    EXPECT_EQ(w[1], 0);
    // Continuation bytes are not checked.
    EXPECT_EQ(strutl_utf8to16(w, "\xC3\x41", 2, 7, &used), 0);
    EXPECT_EQ(w[0], 0x81);
    // Surrogate values pass through; beyond 0x10FFFF becomes 0xFFFD.
    EXPECT_EQ(strutl_utf8to16(w, "\xED\xA0\x80" "\xF4\x90\x80\x80" "\xF8\x88\x80\x80\x80", 12, 7, &used), 0);
    EXPECT_EQ(w[0], 0xD800);
    EXPECT_EQ(w[1], 0xFFFD);
    EXPECT_EQ(w[2], 0xFFFD);
    EXPECT_EQ(w[3], 0);
    EXPECT_EQ(used, 12u);
    // A six-byte sequence, and a lone continuation byte (0 trailing bytes).
    EXPECT_EQ(strutl_utf8to16(w, "\xFC\x84\x80\x80\x80\x80" "\x80", 7, 7, &used), 0);
    EXPECT_EQ(w[0], 0xFFFD);
    EXPECT_EQ(w[1], 0x80 - 0);
    // Target exhausted: no unit left, or one unit for a pair.
    EXPECT_EQ(strutl_utf8to16(w, "ab", 2, 1, &used), 3);
    EXPECT_EQ(used, 1u);
    EXPECT_EQ(w[1], 0);
    EXPECT_EQ(strutl_utf8to16(w, "a\xF0\x9F\x98\x80", 5, 2, &used), 3);
    EXPECT_EQ(used, 1u);
    EXPECT_EQ(w[0], L'a');
    EXPECT_EQ(w[1], 0);
    EXPECT_EQ(strutl_utf8to16(w, "\xF0\x9F\x98\x80", 4, 2, &used), 0);
    EXPECT_EQ(w[0], 0xD83D);
    EXPECT_EQ(w[1], 0xDE00);
    EXPECT_EQ(w[2], 0);
    EXPECT_EQ(strutl_utf8to16(w, "x", 1, 0, &used), 3);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(w[0], 0);
}

// Every capacity, on text that mixes ASCII runs (long enough for the block
// paths) with characters of every length: the output is a prefix of the
// whole conversion ending on a character, and nothing lands past dst[capacity].
TEST(StrutlUtf, EveryCapacityOnMixedText)
{
    std::string text;
    const uint32_t mix[] = {'a', 0xE9, 0x3042, 0x1F600, 0x10FFFF, 0x7FF, 0x800, 0xFFFF, 0x10000};
    for (int r = 0; r < 4; r++) {
        text += std::string(static_cast<size_t>(17 + r * 5), 'x');
        for (uint32_t cp : mix)
            append_utf8(text, cp);
    }
    std::vector<uint16_t> all16 = iconv_to_utf16(text);
    for (size_t cap = 0; cap <= all16.size(); cap++) {
        std::vector<wchar_t> w(cap + 40, L'\x5A5A');
        size_t used = 0;
        int rc = strutl_utf8to16(w.data(), text.data(), text.size(), cap, &used);
        size_t n = wcslen(w.data());
        ASSERT_EQ(rc, n == all16.size() ? 0 : 3) << cap;
        ASSERT_LE(n, cap);
        for (size_t k = 0; k < n; k++)
            ASSERT_EQ(static_cast<uint32_t>(w[k]), all16[k]) << cap << " " << k;
        ASSERT_EQ(iconv_to_utf16(text.substr(0, used)).size(), n) << cap;
        for (size_t k = cap + 1; k < w.size(); k++)
            ASSERT_EQ(w[k], L'\x5A5A') << cap << " " << k;
    }
    std::vector<wchar_t> units(all16.begin(), all16.end());
    for (size_t cap = 0; cap <= text.size(); cap++) {
        std::string out(cap + 40, '\x5A');
        int rc = strutl_utf16to8(&out[0], units.data(), units.size(), cap);
        size_t n = strlen(out.c_str());
        ASSERT_EQ(rc, n == text.size() ? 0 : 3) << cap;
        ASSERT_LE(n, cap);
        ASSERT_EQ(text.compare(0, n, out.c_str()), 0) << cap;
        ASSERT_TRUE(n == text.size() || (static_cast<unsigned char>(text[n]) & 0xC0) != 0x80) << cap;
        for (size_t k = cap + 1; k < out.size(); k++)
            ASSERT_EQ(out[k], '\x5A') << cap << " " << k;
    }
}

// ---------------------------------------------------------------------------
// Hash, flags, SJIS to EUC

TEST(StrutlHash, RotateAndAdd)
{
    EXPECT_EQ(strutl_str_to_hash32(0, "ab"), 0xC82u);
    EXPECT_EQ(strutl_str_to_hash32(1234, ""), 1234u);
    EXPECT_EQ(strutl_str_to_hash32(0x80000000u, "\xff"), 0x10u + 0xFFu);
}

const strutl_flag_entry_t flag_table[] = {{"A", 1}, {"B", 2}, {"AB", 3}, {"Long", 8}};

TEST(StrutlFlags, ToText)
{
    EXPECT_STREQ(strutl_flags_to_str(5, nullptr, flag_table, 2), "A UNKNOWN(0x4)");
    EXPECT_STREQ(strutl_flags_to_str(3, "|", flag_table, 4), "A|B");
    EXPECT_STREQ(strutl_flags_to_str(0x18, ",", flag_table, 4), "Long UNKNOWN(0x10)");
    EXPECT_STREQ(strutl_flags_to_str(0, "", flag_table, 4), "");
    EXPECT_STREQ(strutl_flags_to_str(2, "", flag_table, 4), "B");
    // Cut at 1023 characters.
    std::vector<std::string> names(200, std::string(10, 'n'));
    std::vector<strutl_flag_entry_t> many;
    for (int i = 0; i < 200; i++)
        many.push_back({names[i].c_str(), 1u << (i % 32)});
    const char *r = strutl_flags_to_str(0xFFFFFFFFu, "--", many.data(), 200);
    EXPECT_LE(strlen(r), 1023u);
    // Same buffer each time.
    EXPECT_EQ(strutl_flags_to_str(1, nullptr, flag_table, 1), r);
}

TEST(StrutlFlags, FromText)
{
    const char *bad = "x";
    EXPECT_EQ(strutl_flags_from_str("A Long", 1, nullptr, flag_table, 4, &bad), 9u);
    EXPECT_EQ(bad, nullptr);
    const char *in = "a,LONG,zz";
    EXPECT_EQ(strutl_flags_from_str(in, 0, ",", flag_table, 4, &bad), 0u);
    EXPECT_EQ(bad, in + 7);
    EXPECT_EQ(strutl_flags_from_str("a,LONG", 0, ",", flag_table, 4, &bad), 9u);
    EXPECT_EQ(bad, nullptr);
    EXPECT_EQ(strutl_flags_from_str("a", 1, nullptr, flag_table, 4, &bad), 0u);
    EXPECT_STREQ(bad, "a");
    EXPECT_EQ(strutl_flags_from_str("", 1, nullptr, flag_table, 4, &bad), 0u);
    EXPECT_EQ(bad, nullptr);
    EXPECT_EQ(strutl_flags_from_str("AB::B", 1, "::", flag_table, 4, &bad), 3u);
}

TEST(StrutlSjis, ToEucAgainstIconv)
{
    iconv_t cd = iconv_open("EUC-JP", "SHIFT_JIS");
    ASSERT_NE(cd, (iconv_t)-1);
    int checked = 0;
    for (unsigned b1 = 0x81; b1 <= 0xEF; b1++) {
        if (b1 >= 0xA0 && b1 <= 0xDF)
            continue;
        for (unsigned b2 = 0x40; b2 <= 0xFC; b2++) {
            if (b2 == 0x7F)
                continue;
            char in[2] = {static_cast<char>(b1), static_cast<char>(b2)};
            unsigned char out[4];
            char *ip = in;
            char *op = reinterpret_cast<char *>(out);
            size_t il = 2, ol = sizeof out;
            iconv(cd, nullptr, nullptr, nullptr, nullptr);
            if (iconv(cd, &ip, &il, &op, &ol) == (size_t)-1 || sizeof out - ol != 2)
                continue;  // unassigned, or not in JIS X 0208
            unsigned char hi = 0, lo = 0;
            uint32_t code = strutl_cvt_sjis_to_euc(b1, b2, &hi, &lo);
            ASSERT_EQ(hi, out[0]) << std::hex << b1 << " " << b2;
            ASSERT_EQ(lo, out[1]) << std::hex << b1 << " " << b2;
            ASSERT_EQ(code, (uint32_t)(out[0] << 8 | out[1]));
            checked++;
        }
    }
    iconv_close(cd);
    EXPECT_GT(checked, 6000);
    // The second byte 0x9F moves to the next (even) row: the row is one
    // higher than below it, not one lower.
    EXPECT_EQ(strutl_cvt_sjis_to_euc(0x88, 0x9F, nullptr, nullptr), 0xB0A1u);
    EXPECT_EQ(strutl_cvt_sjis_to_euc(0x88, 0x9E, nullptr, nullptr), 0xAFFEu);
    EXPECT_EQ(strutl_cvt_sjis_to_euc(0xE0, 0x9F, nullptr, nullptr), 0xE0A1u);
    EXPECT_EQ(strutl_cvt_sjis_to_euc(0xE0, 0x40, nullptr, nullptr), 0xDFA1u);
}

TEST(StrutlLocale, SystemCharType)
{
    EXPECT_EQ(strutl_get_sys_char_type(), 1);
    use_locale("ja_JP.SJIS");
    EXPECT_EQ(strutl_get_sys_char_type(), 0);
    use_locale("C.UTF-8");
    EXPECT_EQ(strutl_get_sys_char_type(), 0);
}

// ---------------------------------------------------------------------------
// Tokenizer, delimiters, searches in multibyte locales

TEST(StrutlWalk, TokenizerInShiftJis)
{
    use_locale("ja_JP.SJIS");
    std::string s = std::string("  a") + SO + "b\\c " + PO + "|" + HYO;
    std::vector<char> buf(s.begin(), s.end());
    buf.push_back('\0');
    EXPECT_EQ(strutl_tokenize(buf.data(), " \\|"), std::string("a") + SO + "b");
    EXPECT_STREQ(strutl_tokenize(nullptr, " \\|"), "c");
    EXPECT_EQ(strutl_tokenize(nullptr, " \\|"), std::string(PO));
    EXPECT_EQ(strutl_tokenize(nullptr, " \\|"), std::string(HYO));
    EXPECT_EQ(strutl_tokenize(nullptr, " \\|"), nullptr);
    EXPECT_EQ(strutl_tokenize(nullptr, " \\|"), nullptr);
    char plain[] = ",,x,,y";
    EXPECT_STREQ(strutl_tokenize(plain, ","), "x");
    EXPECT_STREQ(strutl_tokenize(nullptr, ","), "y");
    EXPECT_EQ(strutl_tokenize(nullptr, ","), nullptr);
}

TEST(StrutlWalk, FindEndDelim)
{
    int pos = -1;
    EXPECT_EQ(strutl_find_end_delim("(a(b)c)d)", 1, '(', ')', &pos), 1);
    EXPECT_EQ(pos, 6);
    EXPECT_EQ(strutl_find_end_delim("(a(b", 1, '(', ')', &pos), 0);
    EXPECT_EQ(pos, 4);
    EXPECT_EQ(strutl_find_end_delim("x)", 1, '(', ')', &pos), 1);
    EXPECT_EQ(pos, 1);
    use_locale("ja_JP.SJIS");
    // The second bytes of PO ('|') and SO ('\\') are not delimiters.
    std::string s = std::string("[") + PO + SO + "|x\\";
    EXPECT_EQ(strutl_find_end_delim(s.c_str(), 1, '|', '\\', &pos), 0);
    EXPECT_EQ(pos, static_cast<int>(s.size()));
    s = std::string("[") + PO + "|" + SO + "\\\\";
    EXPECT_EQ(strutl_find_end_delim(s.c_str(), 1, '|', '\\', &pos), 1);
    EXPECT_EQ(pos, static_cast<int>(s.size()) - 1);
}

TEST(StrutlWalk, SearchesInShiftJis)
{
    use_locale("ja_JP.SJIS");
    // a SO b PO c \\ d | e HYO: the real '\\' is at 7 and the real '|' at 9.
    std::string s = std::string("a") + SO + "b" + PO + "c\\d|e" + HYO;
    const char *p = s.c_str();
    EXPECT_EQ(strutl_find_char(p, '\\'), p + 7);
    EXPECT_EQ(strutl_find_char(p, '|'), p + 9);
    EXPECT_EQ(strutl_find_char(p, 'z'), nullptr);
    EXPECT_EQ(strutl_find_char(p, 0), p + s.size());
    EXPECT_EQ(strutl_find_char_from(p, 8, '\\'), nullptr);
    EXPECT_EQ(strutl_find_char_from(p, 3, 'b'), p + 3);
    EXPECT_EQ(strutl_find_last_char(p, '\\'), p + 7);
    EXPECT_EQ(strutl_find_last_char(p, '|'), p + 9);
    EXPECT_EQ(strutl_find_last_char(SO, '\\'), nullptr);
    EXPECT_EQ(strutl_strrpbrk(p, "\\|"), p + 9);
    EXPECT_EQ(strutl_strrpbrk(SO, "\\"), nullptr);
    EXPECT_EQ(strutl_strrpbrk(p, SO), p + 1);
    EXPECT_EQ(strutl_right_char(p), p + 11);
    EXPECT_EQ(strutl_match_last_char(p, '\\'), 0);
    EXPECT_EQ(strutl_match_last_char("ab\\", '\\'), 1);
    EXPECT_EQ(strutl_find_str(p, "\\d"), p + 7);
    EXPECT_EQ(strutl_find_str(p, "\\b"), nullptr);   // inside SO + "b"
    EXPECT_EQ(strutl_find_str(p, "|c"), nullptr);    // inside PO + "c"
    EXPECT_EQ(strutl_find_str_range(p, 8, "\\d"), nullptr);
    EXPECT_EQ(strutl_find_str_range(p, 9, "\\d"), p + 7);
    EXPECT_EQ(strutl_match_prefix(p, "a"), 1u);
    EXPECT_EQ(strutl_match_prefix(p, "b"), 0u);
    EXPECT_EQ(strutl_mb_strlen(p), 10u);
    EXPECT_EQ(strutl_mblen(p + 1), 2);
    EXPECT_EQ(strutl_mblen(p + 2), 1);  // the trailing byte seen alone
    EXPECT_EQ(strutl_mblen(""), 0);
    char pn[64];
    std::string path = std::string("d") + SO + "\\e/f";
    strutl_cpy_buf(pn, sizeof pn, path.c_str());
    EXPECT_EQ(strutl_xlate_pname_sep(pn, "\\", '/', nullptr, 0), pn);
    EXPECT_EQ(std::string(pn), std::string("d") + SO + "/e/f");
}

TEST(StrutlWalk, SearchesInUtf8)
{
    use_locale("C.UTF-8");
    const char *p = "\xC3\xA9t\xC3\xA9|x";   // e-acute t e-acute | x
    EXPECT_EQ(strutl_mb_strlen(p), 5u);
    EXPECT_EQ(strutl_right_char(p), p + 6);
    EXPECT_EQ(strutl_strrpbrk(p, "\xC3\xA9"), p + 3);
    EXPECT_EQ(strutl_find_char(p, '|'), p + 5);
    EXPECT_EQ(strutl_find_char(p, 0xA9), nullptr);
    EXPECT_EQ(strutl_find_str(p, "t\xC3\xA9"), p + 2);
    EXPECT_EQ(strutl_find_str(p, "\xA9t"), nullptr);
    char tok[] = "\xC3\xA9|x||";
    EXPECT_STREQ(strutl_tokenize(tok, "|"), "\xC3\xA9");
    EXPECT_STREQ(strutl_tokenize(nullptr, "|"), "x");
    EXPECT_EQ(strutl_tokenize(nullptr, "|"), nullptr);
    // An invalid byte is a character of its own.
    EXPECT_EQ(strutl_mb_strlen("a\xFF" "b"), 3u);
    EXPECT_EQ(strutl_mblen("\xE2\x82"), 1);
}

TEST(StrutlWalk, TestCharClasses)
{
    int len = -1;
    EXPECT_EQ(strutl_test_char("a", STRUTL_CT_ALPHA | STRUTL_CT_LOWER, &len), 1);
    EXPECT_EQ(len, 1);
    EXPECT_EQ(strutl_test_char("a", STRUTL_CT_ALPHA | STRUTL_CT_UPPER, &len), 0);
    EXPECT_EQ(strutl_test_char("7", STRUTL_CT_DIGIT | STRUTL_CT_XDIGIT | STRUTL_CT_ALNUM, &len), 1);
    EXPECT_EQ(strutl_test_char(" ", STRUTL_CT_SPACE, &len), 1);
    EXPECT_EQ(strutl_test_char(" ", STRUTL_CT_GRAPH, &len), 0);
    EXPECT_EQ(strutl_test_char("!", STRUTL_CT_PUNCT | STRUTL_CT_PRINT, &len), 1);
    EXPECT_EQ(strutl_test_char("", STRUTL_CT_PRINT, &len), 0);
    EXPECT_EQ(len, 0);
    use_locale("de_DE.UTF-8");
    EXPECT_EQ(strutl_test_char("\xC3\x84x", STRUTL_CT_ALPHA | STRUTL_CT_UPPER, &len), 1);
    EXPECT_EQ(len, 2);
    EXPECT_EQ(strutl_test_char("\xC3", STRUTL_CT_ALPHA, &len), 0);
    EXPECT_EQ(len, 1);
    EXPECT_EQ(strutl_test_char("\xE2\x80\x83", STRUTL_CT_SPACE, &len), 1);  // em space
    EXPECT_EQ(len, 3);
}

TEST(StrutlWalk, CompareIgnoringWhiteSpaceInShiftJis)
{
    use_locale("ja_JP.SJIS");
    // Full-width a (0x82 0x81) then '@': its trailing byte and the '@' read
    // together would be the ideographic space 0x81 0x40.
    const char *a = "\x82\x81@";
    EXPECT_EQ(strutl_cmp_ignore_whitespace(a, "\x82\x81\x81\x40@"), 0);
    EXPECT_EQ(strutl_cmp_ignore_whitespace(" \x82\x81 @ ", a), 0);
    EXPECT_NE(strutl_cmp_ignore_whitespace(a, "\x82\x81"), 0);
    EXPECT_LT(strutl_cmp_ignore_whitespace("\x82\x81", a), 0);
}

TEST(StrutlCase, ShiftJisKeepsDoubleByteCharacters)
{
    use_locale("ja_JP.SJIS");
    // Second bytes 0x5C, 0x7C and the letters a..z range (0x83 0x61 is a
    // katakana): none of them may be case-converted as a byte.
    std::string s = std::string("ab") + SO + PO + "\x83\x61" + "z|\\";
    char out[64];
    EXPECT_EQ(strutl_cvt_case_string(out, sizeof out, s.c_str(), STRUTL_CASE_UPPER), 0);
    EXPECT_EQ(std::string(out), std::string("AB") + SO + PO + "\x83\x61" + "Z|\\");
    EXPECT_EQ(strutl_cvt_case_string(out, sizeof out, out, STRUTL_CASE_LOWER), 0);
    EXPECT_EQ(std::string(out), s);
    char ch[16];
    EXPECT_EQ(strutl_cvt_case_char("\x83\x61", ch, STRUTL_CASE_UPPER), 2);
    EXPECT_STREQ(ch, "\x83\x61");
    // Full-width Latin a (0x82 0x81) becomes full-width A (0x82 0x60).
    EXPECT_EQ(strutl_cvt_case_char("\x82\x81", ch, STRUTL_CASE_UPPER), 2);
    EXPECT_STREQ(ch, "\x82\x60");
    EXPECT_EQ(strutl_cvt_case_char("", ch, STRUTL_CASE_UPPER), 0);
    EXPECT_STREQ(ch, "");
}

TEST(StrutlCase, Utf8AndCollation)
{
    use_locale("de_DE.UTF-8");
    char out[32];
    EXPECT_EQ(strutl_cvt_case_string(out, sizeof out, "\xC3\xA4pfel \xC3\x9F", STRUTL_CASE_UPPER), 0);
    EXPECT_STREQ(out, "\xC3\x84PFEL \xC3\x9F");  // sharp s has no single upper case
    // U+0130 (2 bytes) lowers to 'i' (1 byte): kept when converting in place.
    strcpy(out, "\xC4\xB0X");
    EXPECT_EQ(strutl_cvt_case_string(out, sizeof out, out, STRUTL_CASE_LOWER), 0);
    EXPECT_STREQ(out, "\xC4\xB0x");
    char small[3];
    EXPECT_EQ(strutl_cvt_case_string(small, sizeof small, "a\xC3\xA4", STRUTL_CASE_UPPER), 1);
    EXPECT_STREQ(small, "A");
    EXPECT_EQ(strutl_stricoll("\xC3\x84PFEL", "\xC3\xA4pfel"), 0);
    EXPECT_LT(strutl_stricoll("apple", "BANANA"), 0);
    EXPECT_GT(strutl_stricoll("Zebra", "apple"), 0);
    std::string long_a(1000, 'A'), long_b(1000, 'a');
    EXPECT_EQ(strutl_stricoll(long_a.c_str(), long_b.c_str()), 0);
}

// ---------------------------------------------------------------------------
// Bounded copies: never past the size, against a guard region

struct guarded {
    std::vector<char> mem;
    size_t size;
    explicit guarded(size_t n) : mem(n + 32, '\x5A'), size(n) {}
    char *buf() { return mem.data(); }
    bool intact() const
    {
        for (size_t i = size; i < mem.size(); i++)
            if (mem[i] != '\x5A')
                return false;
        return true;
    }
};

TEST(StrutlCopy, NeverPastTheSize)
{
    for (const char *loc : {"C", "ja_JP.SJIS"}) {
        use_locale(loc);
        std::string src = std::string("ab") + SO + "c" + HYO + "de";  // 9 bytes
        for (size_t size = 0; size <= src.size() + 2; size++) {
            SCOPED_TRACE(std::string(loc) + " size " + std::to_string(size));
            guarded g(size);
            int cut = strutl_cpy_buf(g.buf(), size, src.c_str());
            EXPECT_TRUE(g.intact());
            EXPECT_EQ(cut, size <= src.size() ? 1 : 0);
            if (size > 0) {
                std::string got = g.buf();
                EXPECT_EQ(src.compare(0, got.size(), got), 0);
                EXPECT_LT(got.size(), size);
                if (strcmp(loc, "C") != 0) {
                    EXPECT_NE(got.size(), 3u);  // never half of SO
                }
            }

            guarded g2(size);
            cut = strutl_ncpy_buf(g2.buf(), size, src.c_str(), 5);
            EXPECT_TRUE(g2.intact());
            if (size > 0) {
                EXPECT_LE(strlen(g2.buf()), 5u);
            }

            guarded g3(size);
            cut = strutl_concat(g3.buf(), size, 3, "12", src.c_str(), "xyz");
            EXPECT_TRUE(g3.intact());
            EXPECT_EQ(cut, size <= 2 + src.size() + 3 ? 1 : 0);

            guarded g4(size);
            char *pos = g4.buf();
            strutl_cpy_and_advance(&pos, g4.buf() + size, "hello");
            strutl_cpy_and_advance(&pos, g4.buf() + size, src.c_str());
            EXPECT_TRUE(g4.intact());
            if (size > 0) {
                EXPECT_EQ(*pos, '\0');
            }

            guarded g5(size);
            if (size > 0)
                strutl_cpy_buf(g5.buf(), size, "tail");
            strutl_prepend(g5.buf(), size, src.c_str());
            EXPECT_TRUE(g5.intact());

            guarded g6(size);
            const char *stop = nullptr;
            strutl_ccpy_buf(g6.buf(), size, src.c_str(), 'd', &stop);
            EXPECT_TRUE(g6.intact());
        }
    }
}

TEST(StrutlCopy, Results)
{
    char buf[16];
    EXPECT_EQ(strutl_concat(buf, sizeof buf, 3, "ab", nullptr, "cd"), 0);
    EXPECT_STREQ(buf, "abcd");
    EXPECT_EQ(strutl_concat(buf, sizeof buf, 2, buf, "ef"), 0);
    EXPECT_STREQ(buf, "abcdef");
    EXPECT_EQ(strutl_concat(buf, sizeof buf, 2, buf, "0123456789"), 1);
    EXPECT_STREQ(buf, "abcdef012345678");
    EXPECT_EQ(strutl_concat(buf, 5, 1, "abcd"), 0);
    EXPECT_EQ(strutl_concat(buf, 5, 1, "abcde"), 1);
    EXPECT_STREQ(buf, "abcd");

    char *h = strutl_concat_heap(3, "x", "-", "y");
    EXPECT_STREQ(h, "x-y");
    stg_free(h);
    stg_area_t area = stg_create_area(256);
    char *a = strutl_concat_area(area, 2, "left", "right");
    EXPECT_STREQ(a, "leftright");
    stg_delete_area(&area);

    EXPECT_EQ(strutl_ncpy(buf, "abcdef", 3), 1);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(strutl_ncpy(buf, "ab", 3), 0);
    EXPECT_STREQ(buf, "ab");

    const char *stop = nullptr;
    EXPECT_EQ(strutl_ccpy_buf(buf, sizeof buf, "key=value", '=', &stop), 0);
    EXPECT_STREQ(buf, "key");
    EXPECT_STREQ(stop, "=value");
    EXPECT_EQ(strutl_ccpy_buf(buf, 3, "key=value", '=', &stop), 1);
    EXPECT_STREQ(buf, "ke");
    EXPECT_STREQ(stop, "y=value");

    strcpy(buf, "world");
    EXPECT_EQ(strutl_prepend(buf, sizeof buf, "hello "), 0);
    EXPECT_STREQ(buf, "hello world");
    EXPECT_EQ(strutl_prepend(buf, 14, ">> "), 1);
    EXPECT_STREQ(buf, ">> hello worl");

    char pos_buf[8];
    char *pos = pos_buf;
    EXPECT_EQ(strutl_cpy_and_advance(&pos, pos_buf + 8, "abc"), 0);
    EXPECT_EQ(strutl_cpy_and_advance(&pos, pos_buf + 8, "defgh"), 1);
    EXPECT_STREQ(pos_buf, "abcdefg");
    EXPECT_EQ(pos, pos_buf + 7);
    EXPECT_EQ(strutl_cpy_and_advance(&pos, pos_buf + 8, "x"), 1);
    EXPECT_EQ(strutl_cpy_and_advance(&pos, pos_buf + 8, ""), 0);
}

TEST(StrutlCopy, ConcatInShiftJisCutsWholeCharacters)
{
    use_locale("ja_JP.SJIS");
    char buf[5];
    EXPECT_EQ(strutl_concat(buf, sizeof buf, 2, "abc", SO), 1);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(strutl_concat(buf, sizeof buf, 2, "ab", SO), 0);
    EXPECT_EQ(std::string(buf), std::string("ab") + SO);
}

// ---------------------------------------------------------------------------
// Other rewriting routines

TEST(StrutlEdit, ReplaceStripSlide)
{
    char buf[16] = "hello world";
    EXPECT_EQ(strutl_replace_substr(buf, sizeof buf, 6, 5, "there"), 0);
    EXPECT_STREQ(buf, "hello there");
    EXPECT_EQ(strutl_replace_substr(buf, sizeof buf, 0, 5, "hi"), 0);
    EXPECT_STREQ(buf, "hi there");
    EXPECT_EQ(strutl_find_replace_substr(buf, sizeof buf, "a-b-c", "-", "+="), 2);
    EXPECT_STREQ(buf, "a+=b+=c");
    EXPECT_EQ(strutl_find_replace_substr(buf, sizeof buf, "aaa", "aa", "b"), 1);
    EXPECT_STREQ(buf, "ba");

    char ws[] = " \t in the middle \n ";
    EXPECT_STREQ(strutl_strip_whitespace(ws), "in the middle");
    char none[] = "   ";
    EXPECT_STREQ(strutl_strip_whitespace(none), "");

    char slide[16] = "abcdef";
    EXPECT_STREQ(strutl_slide_tail(slide + 3, 2), "def");
    memcpy(slide + 3, "XY", 2);
    EXPECT_STREQ(slide, "abcXYdef");
    EXPECT_STREQ(strutl_slide_tail(slide + 5, -2), "def");
    EXPECT_STREQ(slide, "abcdef");

    const char *list[] = {"one", "two", nullptr};
    EXPECT_EQ(strutl_str_in_list("two", list), 1);
    EXPECT_EQ(strutl_str_in_list("three", list), 0);

    EXPECT_EQ(strutl_cmp_ignore_whitespace("a b\tc", "abc"), 0);
    EXPECT_LT(strutl_cmp_ignore_whitespace("a b", "a c"), 0);
    EXPECT_GT(strutl_cmp_ignore_whitespace("ab c", " a b"), 0);

    const char *strings[] = {"&lt;", "&gt;", nullptr};
    char *x = strutl_xlate_chars_to_strings("<a>-b", "<>-", strings);
    EXPECT_STREQ(x, "&lt;a&gt;b");
    stg_free(x);

    char pn[] = "a\\b/c";
    char copy[6];
    EXPECT_STREQ(strutl_xlate_pname_sep(pn, "\\/", ':', copy, sizeof copy), "a:b:c");
    EXPECT_STREQ(pn, "a\\b/c");
}

TEST(StrutlEdit, NamesAndCStrings)
{
    EXPECT_EQ(strutl_is_ok_name("abc_1", nullptr, nullptr), 1);
    EXPECT_EQ(strutl_is_ok_name("_x", nullptr, nullptr), 1);
    EXPECT_EQ(strutl_is_ok_name("1abc", nullptr, nullptr), 0);
    EXPECT_EQ(strutl_is_ok_name("", nullptr, nullptr), 0);
    EXPECT_EQ(strutl_is_ok_name("a-b", nullptr, nullptr), 0);
    EXPECT_EQ(strutl_is_ok_name("a-b.c", nullptr, "-."), 1);
    EXPECT_EQ(strutl_is_ok_name("1abc", "0123456789", nullptr), 1);
    use_locale("C.UTF-8");
    EXPECT_EQ(strutl_is_ok_name("\xC3\xA9t\xC3\xA9", nullptr, nullptr), 1);
    EXPECT_EQ(strutl_is_ok_name("ab\xC3", nullptr, nullptr), 0);

    char s1[] = "\"a\\tb\\n\\\\\\\"\\x41\\101\"";
    EXPECT_EQ(strutl_cstr_to_str(s1), 0);
    EXPECT_STREQ(s1, "a\tb\n\\\"AA");
    char s2[] = "plain\\?";
    EXPECT_EQ(strutl_cstr_to_str(s2), 0);
    EXPECT_STREQ(s2, "plain?");
}

TEST(StrutlFormat, PrintfDirectives)
{
    size_t len = 0;
    char conv = 0;
    const char *fmt = "100%% of %-08.3lld and %*.*s%c";
    const char *p = strutl_find_printf_directive(fmt, &len, &conv);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p, fmt + 9);
    EXPECT_EQ(len, 9u);
    EXPECT_EQ(conv, 'd');
    p = strutl_find_printf_directive(p + len, &len, &conv);
    EXPECT_EQ(std::string(p, len), "%*.*s");
    p = strutl_find_printf_directive(p + len, &len, &conv);
    EXPECT_EQ(conv, 'c');
    EXPECT_EQ(strutl_find_printf_directive(p + len, &len, &conv), nullptr);

    char buf[8];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(strutl_snprintf(buf, 5, "%s-%d", "abc", 42), 6);
    EXPECT_STREQ(buf, "abc-");
    EXPECT_EQ(buf[5], 'x');
    EXPECT_EQ(strutl_snprintf(buf, sizeof buf, "%d", 7), 1);
    EXPECT_STREQ(buf, "7");
}

// ---------------------------------------------------------------------------
// Wide strings

TEST(StrutlWide, Conversions)
{
    use_locale("C.UTF-8");
    stg_area_t area = stg_create_area(512);
    wchar_t *w = strutl_cvt_str_to_wide_str(area, "a\xC3\xA9\xE2\x82\xAC");
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(strutl_wide_strlen(w), 3u);
    EXPECT_EQ(w[1], 0xE9);
    EXPECT_EQ(w[2], 0x20AC);
    char *s = strutl_cvt_wide_str_to_str(area, w);
    EXPECT_STREQ(s, "a\xC3\xA9\xE2\x82\xAC");
    stg_delete_area(&area);

    wchar_t *hw = strutl_cvt_str_to_wide_str(STG_AREA_HEAP, "xy");
    EXPECT_EQ(strutl_wide_strlen(hw), 2u);
    stg_free(hw);

    const char *tail = "\xC3\xA9z";
    wchar_t wc = 0;
    EXPECT_EQ(strutl_wide_char_from_str(&wc, &tail), 2);
    EXPECT_EQ(wc, 0xE9);
    EXPECT_EQ(strutl_wide_char_from_str(&wc, &tail), 1);
    EXPECT_EQ(wc, L'z');
    EXPECT_EQ(strutl_wide_char_from_str(&wc, &tail), 0);

    char ch[8];
    const char *t2 = "\xE2\x82\xAC!";
    EXPECT_EQ(strutl_mb_char_from_str(ch, &t2), 3);
    EXPECT_STREQ(ch, "\xE2\x82\xAC");
    EXPECT_STREQ(t2, "!");
}

TEST(StrutlMessages, ReportedTexts)
{
    auto res = run_in_child([] {
        char buf[4] = "ab";
        strutl_replace_substr(buf, sizeof buf, 0, 0, "xyz");
        char s[] = "bad \\q escape";
        strutl_cstr_to_str(s);
        strutl_cvt_str_to_wide_str(STG_AREA_HEAP, nullptr);
        strutl_cvt_str_to_wide_str(STG_AREA_HEAP, "a\xFF");   // not a character in C
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
    EXPECT_NE(res.err.find("Supplied buffer too small.\n"), std::string::npos) << res.err;
    EXPECT_NE(res.err.find("Bad format in control string at or near \"\\q escape\".\n"), std::string::npos)
        << res.err;
    EXPECT_NE(res.err.find("The string to be converted is null.\n"), std::string::npos);
    EXPECT_NE(res.err.find("Invalid multibyte character: \xFFrest\n"), std::string::npos);
    EXPECT_NE(res.err.find("Error converting string to wide char string: "), std::string::npos);
    EXPECT_NE(res.err.find("Error converting wide char string to string.\n"), std::string::npos);
    EXPECT_NE(res.err.find("at or near \"%5\""), std::string::npos);
}

TEST(StrutlFiles, ReadAndWrite)
{
    ks_test::temp_dir dir;
    std::string path = dir.file("f");
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    std::string big(100000, 'q');
    EXPECT_EQ(strutl_write(fd, big.c_str()), 0);
    close(fd);
    fd = open(path.c_str(), O_RDONLY);
    size_t len = 0;
    char *r = strutl_read(fd, &len);
    close(fd);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(len, big.size());
    EXPECT_EQ(std::string(r), big);
    stg_free(r);

    FILE *fp = fopen(path.c_str(), "r");
    r = strutl_read_fp(fp, &len);
    fclose(fp);
    EXPECT_EQ(len, big.size());
    stg_free(r);

    int p[2];
    ASSERT_EQ(pipe(p), 0);
    EXPECT_EQ(strutl_write(p[1], "through a pipe"), 0);
    close(p[1]);
    r = strutl_read(p[0], nullptr);
    close(p[0]);
    EXPECT_STREQ(r, "through a pipe");
    stg_free(r);

    auto res = run_in_child([&] {
        int dfd = open(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
        char *x = strutl_read(dfd, nullptr);
        int rfd = open(path.c_str(), O_RDONLY);
        int w = strutl_write(rfd, "x");
        FILE *dfp = fopen(dir.path().c_str(), "r");
        char *y = dfp ? strutl_read_fp(dfp, nullptr) : nullptr;
        return (x == nullptr && w == 1 && dfp && y == nullptr) ? 0 : 1;
    });
    EXPECT_EQ(res.exit_code(), 0);
    size_t first = res.err.find("Operation read: Is a directory");
    EXPECT_NE(first, std::string::npos) << res.err;
    EXPECT_NE(res.err.find("Operation read: Is a directory", first + 1), std::string::npos) << res.err;
    EXPECT_NE(res.err.find("Operation write: Bad file descriptor"), std::string::npos) << res.err;
}

TEST(StrutlLists, PrintedThroughTheMessageLayer)
{
    auto res = run_in_child([] {
        const char *list[] = {"first", "second", nullptr};
        strutl_list_print(list);
        strutl_list_trace_print("ks/strutl", 1, list);  // not traced
        return 0;
    });
    EXPECT_NE(res.out.find("first\n"), std::string::npos) << res.out;
    EXPECT_NE(res.out.find("second\n"), std::string::npos) << res.out;
    EXPECT_EQ(res.err.find("first"), std::string::npos) << res.err;

    res = run_in_child([] {
        imsg_set_trace_verbosity(2);
        imsg_set_trace_subsys("ks/strutl");
        const char *list[] = {"traced one", "traced two", nullptr};
        strutl_list_trace_print("ks/strutl", 2, list);
        strutl_list_trace_print("ks/strutl", 3, list);  // above the level
        return 0;
    });
    EXPECT_NE(res.err.find("traced one\n"), std::string::npos) << res.err;
    EXPECT_NE(res.err.find("traced two\n"), std::string::npos) << res.err;
    EXPECT_EQ(res.err.find("traced one"), res.err.rfind("traced one")) << res.err;
    EXPECT_EQ(res.out, "");
}

// ---------------------------------------------------------------------------
// Scrambling

std::string scramble(const std::string &plain)
{
    std::vector<char> out(plain.size() * 2 + 8);
    EXPECT_EQ(strutl_extract_head(plain.c_str(), out.data(), out.size()), 0);
    return out.data();
}

TEST(StrutlScramble, RoundTripEveryLengthAndStart)
{
    std::mt19937 rng(99);
    for (time_t t = 0; t < 64; t++) {
        ks::clock_fix(1700000000 - 1700000000 % 64 + t, 0);
        for (size_t len = 0; len <= 40; len++) {
            std::string plain;
            for (size_t k = 0; k < len; k++)
                plain += static_cast<char>(1 + rng() % 255);
            std::string coded = scramble(plain);
            size_t expect = len == 0 ? 0 : len / 3 * 4 + (len % 3 ? len % 3 + 1 : 0) + 1;
            ASSERT_EQ(coded.size(), expect);
            for (char c : coded)
                ASSERT_TRUE(isprint(static_cast<unsigned char>(c)));
            std::vector<char> back(len + 1, 'x');
            ASSERT_EQ(strutl_extract_tail(coded.c_str(), back.data(), back.size()), 0) << t << " " << len;
            ASSERT_EQ(std::string(back.data()), plain);
            // One byte short of room fails.
            if (len > 0) {
                ASSERT_EQ(strutl_extract_tail(coded.c_str(), back.data(), len), 1);
                char small[64];
                ASSERT_EQ(strutl_extract_head(plain.c_str(), small, expect), 1);
            }
        }
    }
    ks::clock_release();
    char none[1];
    EXPECT_EQ(strutl_extract_head("", none, 0), 1);
    EXPECT_EQ(strutl_extract_head("", none, 1), 0);
    EXPECT_STREQ(none, "");
}

TEST(StrutlScramble, StartIndexChangesTheText)
{
    ks::clock_fix(6400, 0);
    std::string a = scramble("secret");
    ks::clock_fix(6401, 0);
    std::string b = scramble("secret");
    ks::clock_release();
    EXPECT_NE(a, b);
}

TEST(StrutlScramble, TamperingDetected)
{
    ks::clock_fix(1234567, 0);
    char out[64];
    // Foreign symbols and impossible lengths are refused outright.
    std::string coded = scramble("password");
    for (const char *bad : {"!", "~", " ", "\x80"}) {
        std::string t = coded;
        t[2] = bad[0];
        EXPECT_EQ(strutl_extract_tail(t.c_str(), out, sizeof out), 1);
    }
    // 5 or 1 data symbols (plus the final one) cannot come from any text.
    EXPECT_EQ(strutl_extract_tail(coded.substr(0, 6).c_str(), out, sizeof out), 1);
    EXPECT_EQ(strutl_extract_tail(coded.substr(0, 2).c_str(), out, sizeof out), 1);
    EXPECT_EQ(strutl_extract_tail(coded.substr(0, 1).c_str(), out, sizeof out), 1);

    // Every substitution of one symbol by another: never the original
    // plaintext, and (where the text carries filler) almost always refused.
    const char alphabet[] = "pkceEK+8jbCiYudR9ISqnNoZ42g0fGl6hyPAUM1vLF5xWaDHmT-sOBV73wtXJzQr";
    for (const char *plain : {"a", "pass", "secret", "passwords!", "abcdefghijklmnopq"}) {
        std::string c = scramble(plain);
        int tries = 0, refused = 0;
        for (size_t i = 0; i < c.size(); i++) {
            for (size_t k = 0; k < 64; k++) {
                if (alphabet[k] == c[i])
                    continue;
                std::string t = c;
                t[i] = alphabet[k];
                tries++;
                int rc = strutl_extract_tail(t.c_str(), out, sizeof out);
                if (rc != 0) {
                    refused++;
                } else {
                    EXPECT_STRNE(out, plain) << plain << " " << i;
                }
            }
        }
        if (strlen(plain) % 3 == 1) {
            EXPECT_GT(refused * 100 / tries, 85) << plain;
        } else if (strlen(plain) % 3 == 2) {
            EXPECT_GT(refused * 100 / tries, 65) << plain;
        }
    }
    ks::clock_release();
}

// ---------------------------------------------------------------------------
// Assertions

TEST(StrutlDeathTest, NullArgumentsAbort)
{
    EXPECT_DEATH(strutl_mb_strlen(nullptr), "s != NULL");
    EXPECT_DEATH(strutl_strip_whitespace(nullptr), "s != NULL");
    char ch[8];
    EXPECT_DEATH(strutl_mb_char_from_str(ch, nullptr), "s_tail != NULL");
    wchar_t wc;
    EXPECT_DEATH(strutl_wide_char_from_str(&wc, nullptr), "s_tail != NULL");
    EXPECT_DEATH(strutl_wide_strlen(nullptr), "ws != NULL");
    EXPECT_DEATH(strutl_cvt_str_to_wide_str(STG_AREA_NULL, "x"), "area != STG_AREA_NULL");
    EXPECT_DEATH(strutl_cvt_wide_str_to_str(STG_AREA_NULL, L"x"), "area != STG_AREA_NULL");
    EXPECT_DEATH(strutl_concat_area(STG_AREA_NULL, 1, "x"), "area != STG_AREA_NULL");
    EXPECT_DEATH(strutl_expand_evs(nullptr), "s != NULL");
}

} // namespace
