// Wildcards: the compiled form byte for byte with its error results and
// exact-size buffers, matching against glibc's fnmatch where the two agree,
// the rules fnmatch does not have ("..." levels, runs of "/", the end of the
// name), the adversarial family, multibyte locales, and globbing over a real
// directory tree.
#include "ks/wild.h"

#include <dirent.h>
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <random>
#include <string>
#include <vector>

#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks_test_util.h"

namespace {

void use_locale(const char *name) { ASSERT_NE(setlocale(LC_ALL, name), nullptr) << name; }

// The compiled form of pattern as a string (its NUL left off); "<rc>" on failure.
std::string compiled(const std::string &pattern, int *has_wild = nullptr)
{
    char out[512];
    int rc = wild_compile_pattern(pattern.c_str(), sizeof out, out, has_wild);
    return rc < 0 ? "<" + std::to_string(rc) + ">" : std::string(out, rc - 1);
}

int match(const std::string &pattern, const std::string &name, int path)
{
    std::string c = compiled(pattern);
    EXPECT_NE(c[0], '<') << pattern;
    return wild_match(c.c_str(), name.c_str(), path);
}

const std::string kStar = "\x01\x02", kAny = "\x01\x03", kClass = "\x01\x04", kDots = "\x01\x05";

TEST(WildCompile, FormsAndResults)
{
    const struct { const char *pattern; std::string form; int wild; } cases[] = {
        {"a[bc]d", "a" + kClass + "bc\x01" "d", 1},
        {"a\\[b", "a[b", 0},
        {"*.c", kStar + ".c", 1},
        {"a?", "a" + kAny, 1},
        {".../x", kDots + "/x", 1},
        {"a/.../b", "a/" + kDots + "/b", 1},
        {"a/...", "a/" + kDots, 1},
        {"a...", "a...", 0},         // not a whole component
        {".../...", kDots + "/" + kDots, 1},
        {"..../x", "..../x", 0},
        {"\\.../x", ".../x", 0},     // escaped: plain text
        {"\x01" "b", "\x01\x01" "b", 0},
        {"\\\x01", "\x01\x01", 0},
        {"\\*\\?", "*?", 0},
        {"ab\\", "ab\\", 0},         // a backslash at the very end is literal
        {"[*?/]", kClass + "*?/\x01", 1},
        {"[]", kClass + "\x01", 1},  // empty: matches nothing
        {"[\\]\\[]", kClass + "][\x01", 1},
        {"[-a]", kClass + "-a\x01", 1},
        {"[a\\-z]", kClass + "-az\x01", 1}, // "\-" is ordinary: it goes first
        {"[\\--]", kClass + "--\x01", 1},
        {"~a", "~a", 0},
        {"", "", 0},
    };
    for (const auto &c : cases) {
        int wild = -7;
        EXPECT_EQ(compiled(c.pattern, &wild), c.form) << c.pattern;
        EXPECT_EQ(wild, c.wild) << c.pattern;
    }
    for (const char *bad : {"a]b", "a[b", "[[]", "[a[b]", "[a\\", "[\x01]", "[\\\x01]", "*]"})
        EXPECT_EQ(compiled(bad), "<-1>") << bad;
    EXPECT_EQ(wild_compile_pattern(nullptr, 64, nullptr, nullptr), WILD_BAD_CLASS);
}

// The length plus four bytes of reserve must fit; nothing is written from
// out[size - 4] on; a bad class is reported whatever the size.
TEST(WildCompile, ExactSizesAndReserve)
{
    const std::string pattern = "a*[bc]d"; // 1 + 2 + 5 + 1 bytes and the NUL: 10
    for (size_t size = 0; size <= 16; size++) {
        std::string out(32, '#');
        int rc = wild_compile_pattern(pattern.c_str(), size, &out[0], nullptr);
        EXPECT_EQ(rc, size >= 14 ? 10 : WILD_NO_ROOM) << size;
        size_t untouched = size >= 4 ? size - 4 : 0;
        EXPECT_EQ(out.substr(untouched), std::string(32 - untouched, '#')) << size;
    }
    EXPECT_EQ(wild_compile_pattern("abc", 0, nullptr, nullptr), WILD_NO_ROOM);
    EXPECT_EQ(wild_compile_pattern("abc]", 0, nullptr, nullptr), WILD_BAD_CLASS);
    std::string big(300, '\x01'); // each byte doubles
    char out[605];
    EXPECT_EQ(wild_compile_pattern(big.c_str(), 604, out, nullptr), WILD_NO_ROOM);
    EXPECT_EQ(wild_compile_pattern(big.c_str(), 605, out, nullptr), 601);
}

TEST(WildCompile, QuickTests)
{
    EXPECT_EQ(wild_is_any_pat(compiled("*").c_str()), 1);
    for (const char *p : {"**", "a*", "?", ""})
        EXPECT_EQ(wild_is_any_pat(compiled(p).c_str()), 0) << p;
    EXPECT_EQ(wild_is_any_pat(nullptr), 0);
    for (const char *t : {"a[", "?", "x*", "~", "a...b", "..."})
        EXPECT_EQ(wild_contains_wildcard_symbols(t), 1) << t;
    for (const char *t : {"abc", "a..b", "a]b", "\\", ""})
        EXPECT_EQ(wild_contains_wildcard_symbols(t), 0) << t;
    EXPECT_EQ(wild_contains_wildcard_symbols(nullptr), 0);
    // Shift_JIS: the second byte of "\x83\x5b" is '[' but not a character.
    EXPECT_EQ(wild_contains_wildcard_symbols("\x83\x5b"), 1);
    use_locale("ja_JP.SJIS");
    EXPECT_EQ(wild_contains_wildcard_symbols("\x83\x5b"), 0);
    EXPECT_EQ(wild_contains_wildcard_symbols("\x83\x5b?"), 1);
}

// Pattern, name, result in plain mode, result in pathname mode.
struct match_case { const char *pattern, *name; int plain, path; };

TEST(WildMatch, Rules)
{
    const match_case cases[] = {
        {".../x", "x", 1, 1}, {".../x", "d/x", 1, 1}, {".../x", "d/e/x", 1, 1}, {".../x", "dx", 0, 0},
        {"a/.../b", "a/b", 1, 1}, {"a/.../b", "a/c/d/b", 1, 1}, {"a/.../b", "a/cb", 0, 0},
        {"*", "a/b", 1, 0}, {"*/b", "a/b", 1, 1}, {"a*", "a/", 1, 1}, {"*c", "a/c", 1, 0},
        {"a?b", "a/b", 1, 1},                               // "?" still takes a "/"
        {"a//b", "a/b", 0, 1}, {"a/b", "a///b", 0, 1}, {"a/?", "a//b", 0, 1},
        {"a", "a/", 0, 1}, {"a", "a//", 0, 1}, {"a/*", "a/b/", 1, 1},
        // The end of the name: "*", then in pathname mode "/" and "...".
        {"a*", "a", 1, 1}, {"a/", "a", 0, 1}, {"a/...", "a", 0, 1}, {"a*/...", "a", 0, 1},
        {"a/*", "a", 0, 0}, {"a?", "a", 0, 0}, {"a/b", "a", 0, 0}, {"*/", "", 0, 1},
        {"a/...", "a/b", 0, 0}, {"a/...", "a/b/", 1, 1}, {"...", "x/", 1, 1}, {"...", "", 0, 1},
        {"[a-c]", "b", 1, 1}, {"[a-c]", "d", 0, 0}, {"[-a]", "-", 1, 1}, {"[-a]", "a", 1, 1},
        {"[a-]", "-", 1, 1}, {"[a\\-c]", "b", 0, 0}, {"[a\\-c]", "-", 1, 1}, {"[]", "", 0, 0},
        {"[]*", "a", 0, 0}, {"[/]", "/", 1, 1}, {"[c-a]", "b", 0, 0}, {"[\\]]", "]", 1, 1},
        {"a\\*", "a*", 1, 1}, {"a\\*", "ab", 0, 0}, {"\x01", "\x01", 1, 1}, {"ab\\", "ab\\", 1, 1},
        {"", "", 1, 1}, {"", "a", 0, 0}, {"**", "", 1, 1}, {"*a*", "bab", 1, 1},
        {"a*?*c", "ax/yc", 1, 1}, {"*?[ab]*", "ca/abac/", 1, 1}, // an earlier "*" must give way
        {"*.c", "x.c/", 0, 1}, {"*.c", "a/x.c", 1, 0}, {"x*y", "x/y", 1, 0},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(match(c.pattern, c.name, 0), c.plain) << c.pattern << " ~ " << c.name;
        EXPECT_EQ(match(c.pattern, c.name, 1), c.path) << c.pattern << " ~ " << c.name << " (path)";
    }
    EXPECT_EQ(wild_match(nullptr, "a", 0) + wild_match("a", nullptr, 0), 0);
}

// Compiled forms that no pattern makes are still read safely.
TEST(WildMatch, ForeignForms)
{
    const struct { std::string form; const char *name; int want; } cases[] = {
        {"\x01", "", 0}, {"\x01", "\x01", 0}, {"a\x01\x09", "a", 0}, {"\x01\x04" "ab", "b", 1},
        {"\x01\x04" "a-", "-", 1}, {"\x01\x01", "\x01", 1}, {"*\x01\x02\x01", "*", 0}};
    for (const auto &c : cases)
        for (int path : {0, 1})
            EXPECT_EQ(wild_match(c.form.c_str(), c.name, path), c.want) << c.form;
}

// Random patterns and names against fnmatch where the two define the same
// thing: no "..."; in pathname mode no "?", no "/" in a class, and no run of
// "/" or trailing "/" on either side.
TEST(WildMatch, AgreesWithFnmatch)
{
    std::mt19937 rng(20261121);
    const std::vector<std::string> plain = {"a", "b", "/", "*", "?", "[ab]", "[a-c]", "[/b]", "\\*", ".", "**"};
    const std::vector<std::string> path = {"a", "b", "/", "*", "[ab]", "[b-c]", "\\a", ".", "**"};
    const std::string letters = "abc/.*";
    int compared = 0, matched = 0;
    for (int i = 0; i < 40000; i++) {
        const int mode = i % 2;
        const auto &tokens = mode ? path : plain;
        std::string p, n;
        for (int k = rng() % 8; k > 0; k--)
            p += tokens[rng() % tokens.size()];
        for (int k = rng() % 10; k > 0; k--)
            n += letters[rng() % letters.size()];
        if (mode && (p.find("//") != p.npos || n.find("//") != n.npos || (!p.empty() && p.back() == '/') ||
                     (!n.empty() && n.back() == '/')))
            continue;
        int want = fnmatch(p.c_str(), n.c_str(), mode ? FNM_PATHNAME : 0) == 0;
        ASSERT_EQ(match(p, n, mode), want) << p << " ~ " << n << " mode " << mode;
        compared++, matched += want;
    }
    EXPECT_GT(compared, 30000);
    EXPECT_GT(matched, 1500);
}

// (a*)^k b against a^100, and the same behind "..." and across levels: the
// answers come back at once (a recursive search would take years).
TEST(WildMatch, AdversarialFamily)
{
    const std::string as(100, 'a');
    std::string levels;
    for (int i = 0; i < 50; i++)
        levels += "a/";
    for (int k = 2; k <= 8; k++) {
        std::string stars;
        for (int i = 0; i < k; i++)
            stars += "a*";
        for (int path : {0, 1}) {
            EXPECT_EQ(match(stars + "b", as, path), 0) << k;
            EXPECT_EQ(match(stars, as, path), 1) << k;
            EXPECT_EQ(match(".../" + stars + "b", levels + as, path), 0) << k;
            EXPECT_EQ(match(".../" + stars + "?", levels + as, path), 1) << k;
            EXPECT_EQ(match("*?" + stars + "/b", levels + as, path), 0) << k;
        }
    }
    std::string many_dots, many_stars(1000, '*');
    for (int i = 0; i < 100; i++)
        many_dots += ".../";
    EXPECT_EQ(match(many_dots + "b", levels + as, 1), 0);
    std::vector<char> big(2 * many_stars.size() + 16);
    ASSERT_GT(wild_compile_pattern((".../" + many_stars + "b").c_str(), big.size(), big.data(), nullptr), 0);
    EXPECT_EQ(wild_match(big.data(), ("x/" + std::string(5000, 'a')).c_str(), 1), 0);
}

TEST(WildMatch, Multibyte)
{
    const std::string so = "\x83\x5c", po = "\x83\x7c", e = "\xc3\xa9"; // second bytes '\\' and '|'
    use_locale("ja_JP.SJIS");
    int wild = 0;
    EXPECT_EQ(compiled(so + "*", &wild), so + kStar);
    EXPECT_EQ(wild, 1);
    EXPECT_EQ(compiled("[" + so + po + "]"), kClass + so + po + "\x01");
    EXPECT_EQ(match("?", so, 0), 1);
    EXPECT_EQ(match("??", so, 0), 0);
    EXPECT_EQ(match("[" + so + po + "]x", po + "x", 1), 1);
    EXPECT_EQ(match(so + "*", so + "abc", 1), 1);
    EXPECT_EQ(match("*" + po, "a" + po, 0), 1);
    EXPECT_EQ(match("*|", "a" + po, 0), 0); // '|' inside a character is not one
    use_locale("en_US.UTF-8");
    EXPECT_EQ(match("a?c", "a" + e + "c", 1), 1);
    EXPECT_EQ(match("[a-z]", e, 0), 1);        // collates between a and z
    EXPECT_EQ(match("[a-c]", "B", 0), 1);      // a A b B c in this locale
    EXPECT_EQ(match("[" + e + "]", e, 0), 1);
    EXPECT_EQ(match("?", "\xff", 0), 1);       // an invalid byte is a character of its own
    EXPECT_EQ(match("\xe2*", "\xe2\x82\xac", 0), 0);
    use_locale("C.UTF-8");
    EXPECT_EQ(match("[a-z]", e, 0), 0);        // code point order
    use_locale("C");
    EXPECT_EQ(match("a?c", "a" + e + "c", 0), 0);
    EXPECT_EQ(match("a??c", "a" + e + "c", 0), 1);
    EXPECT_EQ(match("[a-c]", "B", 0), 0);
    EXPECT_EQ(match("\xe2*", "\xe2\x82\xac", 0), 1);
}

// ---- Globbing over a tree made here ----------------------------------------

class WildGlob : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char *d : {"sub", "sub/deep", "sub/.hid", "empty"})
            ASSERT_EQ(mkdir(dir.file(d).c_str(), 0755), 0);
        for (const char *f : {"a.c", "b.c", "b.h", ".hidden.c", "my file.c", "q\"uote.c", "sub/x.c",
                              "sub/deep/y.c", "sub/deep/z.h", "sub/.hid/w.c"})
            ks_test::write_file(dir.file(f), "");
        ASSERT_EQ(symlink("sub", dir.file("link").c_str()), 0);
        ASSERT_EQ(chdir(dir.path().c_str()), 0);
        area = stg_create_area(1024);
    }
    void TearDown() override { stg_delete_area(&area); }

    // The names, or the result when it is not a count.
    std::vector<std::string> glob(const char *text, int mode = WILD_GLOB_WHOLE)
    {
        char **names = reinterpret_cast<char **>(1);
        int n = wild_glob_ext(text, mode, area, &names);
        if (n <= 0)
            return {n == 0 && names == nullptr ? "(none)" : "<" + std::to_string(n) + ">"};
        std::vector<std::string> v(names, names + n);
        EXPECT_EQ(names[n], nullptr);
        return v;
    }

    ks_test::temp_dir dir;
    stg_area_t area = STG_AREA_NULL;
};

using names = std::vector<std::string>;

TEST_F(WildGlob, ExpandsSortedWithHiddenRule)
{
    EXPECT_EQ(glob("*.c"), (names{"a.c", "b.c", "my file.c", "q\"uote.c"}));
    EXPECT_EQ(glob(".*.c"), (names{".hidden.c"}));
    EXPECT_EQ(glob("?.[ch]"), (names{"a.c", "b.c", "b.h"}));
    EXPECT_EQ(glob("*/"), (names{"empty/", "link/", "sub/"}));
    EXPECT_EQ(glob("link/*.c"), (names{"link/x.c"}));
    EXPECT_EQ(glob("sub/*/*"), (names{"sub/deep/y.c", "sub/deep/z.h"}));
    EXPECT_EQ(glob("sub//deep/z.*"), (names{"sub/deep/z.h"}));
    EXPECT_EQ(glob("a.c"), (names{"a.c"}));
    EXPECT_EQ(glob(dir.file("b.*").c_str()), (names{dir.file("b.c"), dir.file("b.h")}));
    for (const char *none : {"nope.c", "*.x", "a.c/*", "empty/*"})
        EXPECT_EQ(glob(none), (names{"(none)"})) << none;
    EXPECT_EQ(glob("[ab.c"), (names{"<-1>"}));
}

// "..." descends through real directories (not links, not hidden ones).
TEST_F(WildGlob, DotsLevels)
{
    EXPECT_EQ(glob(".../*.h"), (names{"b.h", "sub/deep/z.h"}));
    EXPECT_EQ(glob("sub/.../y.c"), (names{"sub/deep/y.c"}));
    EXPECT_EQ(glob("sub/..."), (names{"sub/", "sub/deep/"}));
    EXPECT_EQ(glob(".../.../z.h"), (names{"sub/deep/z.h", "sub/deep/z.h", "sub/deep/z.h"}));
}

TEST_F(WildGlob, WordsQuotesAndHome)
{
    EXPECT_EQ(glob("  *.h sub/*.c", WILD_GLOB_SPLIT), (names{"b.h", "sub/x.c"}));
    EXPECT_EQ(glob("  *.h sub/*.c", WILD_GLOB_WHOLE), (names{"(none)"}));
    EXPECT_EQ(glob("my file.c", 7), (names{"my file.c"}));
    EXPECT_EQ(glob("'my file.c'\tb.c\n\"my\"' 'f*", WILD_GLOB_SPLIT), (names{"b.c", "my file.c", "my file.c"}));
    EXPECT_EQ(glob("my\\ file.c q\\\"uote.c", WILD_GLOB_SPLIT), (names{"my file.c", "q\"uote.c"}));
    EXPECT_EQ(glob("\"my file", WILD_GLOB_SPLIT), (names{"(none)"})); // an open quote runs to the end
    setenv("HOME", dir.path().c_str(), 1);
    EXPECT_EQ(glob("~/sub/*.c '~/a.c'", WILD_GLOB_SPLIT), (names{dir.file("sub/x.c")}));
    EXPECT_EQ(glob("~root", WILD_GLOB_SPLIT), (names{"/root"}));
    EXPECT_EQ(glob("~no-such-user-here/x"), (names{"(none)"}));
}

TEST_F(WildGlob, OtherEntryPoints)
{
    char **list = nullptr;
    int n = wild_glob_r("sub/*/*", area, &list);
    ASSERT_EQ(n, 2);
    names depth_first(list, list + n);
    std::sort(depth_first.begin(), depth_first.end());
    EXPECT_EQ(depth_first, (names{"sub/deep/y.c", "sub/deep/z.h"}));
    EXPECT_EQ(wild_glob_r("'a.c'", area, &list), 0); // no quotes in a raw pattern
    EXPECT_EQ(wild_glob_ext("b.*", WILD_GLOB_WHOLE, STG_AREA_HEAP, &list), 2);
    EXPECT_STREQ(list[1], "b.h");
    stg_free(list); // one block
    char *text = nullptr;
    EXPECT_EQ(wild_glob("*.c", &text), 4);
    EXPECT_STREQ(text, "a.c b.c \"my file.c\" q\\\"uote.c");
    stg_free(text);
    EXPECT_EQ(wild_glob("*.none", &text), 0);
    EXPECT_STREQ(text, "");
    stg_free(text);
    char buf[16] = "keep";
    EXPECT_EQ(wild_glob_single("b.?", buf, sizeof buf), 2);
    EXPECT_STREQ(buf, "keep");
    EXPECT_EQ(wild_glob_single("*.h", buf, sizeof buf), 1);
    EXPECT_STREQ(buf, "b.h");
    EXPECT_EQ(wild_glob_single("my*", buf, sizeof buf), 1);
    EXPECT_EQ(wild_glob_single("my*", buf, 4), -3);
    EXPECT_EQ(wild_glob_single("a]", buf, sizeof buf), -1);
}

int open_descriptors()
{
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (readdir(d) != nullptr)
        n++;
    closedir(d);
    return n;
}

// One glob with an interrupt due after delay_ns: 1 when it unwound.
int glob_interrupted(timer_t timer, long delay_ns, stg_area_t area)
{
    struct itimerspec at = {}, off = {};
    at.it_value.tv_nsec = delay_ns;
    char **names = nullptr;
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) != 0) {
        timer_settime(timer, 0, &off, nullptr);
        pfm_enable(); // the level the unwind entered
        return 1;
    }
    timer_settime(timer, 0, &at, nullptr);
    wild_glob_ext(".../f*", WILD_GLOB_WHOLE, area, &names);
    timer_settime(timer, 0, &off, nullptr);
    pfm_cleanup_rls(&rec);
    return 0;
}

// Interrupts unwind out of globs at any point: each leaves no directory open
// and no storage behind (the sanitizer build checks the memory), and the
// next glob finds everything.
TEST(WildGlobUnwind, InterruptsLeaveNothingBehind)
{
    ks_test::temp_dir dir;
    for (int i = 0; i < 400; i++) {
        std::string d = dir.file("d" + std::to_string(i / 20)), e = d + "/e" + std::to_string(i % 20);
        ASSERT_TRUE((i % 20 != 0 || mkdir(d.c_str(), 0755) == 0) && mkdir(e.c_str(), 0755) == 0);
        ks_test::write_file(e + "/f", "");
    }
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    pfm_init(); // SIGINT unwinds
    const int fds = open_descriptors();
    timer_t timer;
    struct sigevent ev = {};
    ev.sigev_notify = SIGEV_SIGNAL;
    ev.sigev_signo = SIGINT;
    ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &ev, &timer), 0);
    stg_area_t area = stg_create_area(4096);
    int unwound = 0;
    for (int i = 0; i < 60; i++)
        unwound += glob_interrupted(timer, 1000 + (i % 20) * 250000, area); // 1 us to 5 ms
    EXPECT_GT(unwound, 0);
    EXPECT_EQ(open_descriptors(), fds);
    char **names = nullptr;
    EXPECT_EQ(wild_glob_ext(".../f*", WILD_GLOB_WHOLE, area, &names), 400);
    timer_delete(timer);
    stg_delete_area(&area);
}

} // namespace
