// Environment expansion: references and escapes, repeated passes, Shift_JIS
// text, and its temporary area and results on every path, unwinds included.

#include <malloc.h>
#include <sys/time.h>

#include "ks/pfm.h"
#include "stg_testing.h"
#include "strutl_test_util.h"

static std::string expand(const std::string &s, int *flag = nullptr)
{
    char *r = strutl_expand_evs_status(s.c_str(), flag);
    std::string out = r ? r : "(null)";
    stg_free(r);
    return out;
}

TEST(StrutlExpand, ReferencesAndEscapes)
{
    setenv("KS_A", "alpha", 1);
    setenv("1x", "digits", 1);    // a name may begin with a digit
    setenv("KS_REF", "$KS_A", 1); // not scanned again in the same pass
    unsetenv("KS_UNSET");
    const struct { const char *in, *out; int flag; } cases[] = {
        {"x$KS_A.y", "xalpha.y", 1}, {"${KS_A}beta", "alphabeta", 1}, {"${KS_UNSET}a", "a", 1}, {"$KS_UNSET", "", 1},
        {"cost $", "cost $", 0}, {"$-x", "$-x", 0}, {"${KS_A", "alpha", 1}, {"\\$KS_A", "$KS_A", 0},
        {"a\\\\b", "a\\b", 0}, {"a\\xb", "axb", 0}, {"end\\", "end\\", 0}, {"$1x", "digits", 1},
        {"$KS_A$KS_A", "alphaalpha", 1}, {"$KS_REF", "$KS_A", 1}, {"no refs", "no refs", 0}};
    int flag = -1; // set by every call
    for (const auto &c : cases)
        EXPECT_TRUE(expand(c.in, &flag) == c.out && flag == c.flag) << c.in << " gives " << expand(c.in);
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

TEST(StrutlExpand, ShiftJisEscapesAndNames)
{
    use_locale("ja_JP.SJIS");
    setenv("KS_J", "ok", 1);
    setenv("N\x83\x7d", "ma", 1); // MA, whose second byte is '}'
    // The second byte of SO is a backslash: it must not escape the '$'.
    EXPECT_EQ(expand(kSo + "$KS_J" + kHyo + "\\$KS_J"), kSo + "ok" + kHyo + "$KS_J");
    // An escaped double-byte character is copied whole.
    EXPECT_EQ(expand("\\" + kSo + "$KS_J"), kSo + "ok");
    // A brace name runs to the first real '}'.
    EXPECT_EQ(expand("${N\x83\x7d}!"), "ma!");
}

// A timer keeps unwinding the process; whenever the unwind lands while an
// expansion was under way, its temporary area must be gone.
static volatile sig_atomic_t inside_expand = 0;

// Expands (one pass, or iterated) until the timer unwinds; returns the
// unwind's value.
__attribute__((noinline)) static int expand_until_unwound(const char *text, bool iterate)
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
    auto res = ks_test::run_in_child([] {
        pfm_init();
        setenv("KS_P", "$KS_Q", 1);
        setenv("KS_Q", "done", 1);
        auto area_count = [] { return ks::stg_area_count_for_testing(); };
        std::string big;
        for (int i = 0; i < 20000; i++)
            big += "$KS_P\\-";
        size_t areas = area_count();
        for (int i = 0; i < 3; i++) // warms up the allocator before taking its measure
            stg_free(strutl_expand_evs_iterate(big.c_str(), 0));
        size_t heap = mallinfo2().uordblks;
        pfm_signal(SIGALRM, [](int) { pfm_raise(55); });
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
