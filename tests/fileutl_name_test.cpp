// Pathname routines: names taken apart and put together, temporary and
// unique names, directories, locks, links, searches and pattern lists.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <stdint.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "ks/fileutl.h"
#include "ks_test_util.h"
#include "ks_testing.h"

namespace {

using ks_test::run_in_child;
using ks_test::temp_dir;

// Heap buffers of exactly the size given, so that the sanitizer sees any byte past them.
using exact = std::unique_ptr<char[]>;

const std::string kLong(1023, 'x'); // the longest name there is
const std::string kTooLong = "null:" + std::to_string(ENAMETOOLONG), kTooLong2 = "fail:" + std::to_string(ENAMETOOLONG);

// A pointer result, or "null:errno".
std::string show(const char *r)
{
    return r != nullptr ? std::string(r) : "null:" + std::to_string(errno);
}

// out after a status result of 0, else "fail:errno".
std::string got(int rc, const char *out)
{
    return rc == 0 ? std::string(out) : "fail:" + std::to_string(errno);
}

std::string dots(const std::string &in, size_t size = KS_PATH_BUF)
{
    exact out(new char[size]);
    return show(fileutl_remove_embedded_dots(in.c_str(), out.get(), size));
}

std::string rel(const char *path, const char *base, int dot_ok, int fold, int max_up, size_t size = KS_PATH_BUF)
{
    exact out(new char[size]);
    return fileutl_make_rel_pn(out.get(), size, path, base, dot_ok, fold, max_up);
}

// "dir|leaf", "base|sfx" or "host|rest" from one of the splitting routines.
template <typename Split>
std::string split(Split fn, const std::string &path, size_t a_size = KS_PATH_BUF, size_t b_size = KS_PATH_BUF)
{
    exact a(new char[a_size]), b(new char[b_size]);
    if (fn(path.c_str(), a_size, a.get(), b_size, b.get()) != 0)
        return "fail:" + std::to_string(errno) + (a[0] || b[0] ? "+junk" : "");
    return std::string(a.get()) + "|" + b.get();
}

} // namespace

TEST(RemoveDots, DropsDotsAndPairsButNeverALeadingRelativeDotDot)
{
    // clang-format off
    const char *cases[][2] = {
        {"/..", "/"}, {"/a/b/..", "/a"}, {"a/b/../../c", "a/../c"}, {"/a/.../b", "/a/.../b"}, {"", "/"},
        {"x/./y", "x/y"}, {"a/.", "a"}, {"/a/b/../c", "/a/c"}, {"/a/..", "/"}, {"a/..", "a/.."}, {"../..", "../.."},
        {"./a/.", "./a"}, {"a//b", "a//b"}, {"/../../b", "/b"}, {".", "."}, {"///", "///"}, {"....", "...."},
        {"/./.", "/"}, {"a/..b/./c", "a/..b/c"}, {"a/../../b", "a/../../b"}};
    // clang-format on
    for (auto &c : cases)
        EXPECT_EQ(dots(c[0]), c[1]) << c[0];
    char in_place[] = "/u/./v/../w";
    EXPECT_STREQ(fileutl_remove_embedded_dots(in_place, in_place, sizeof in_place), "/u/w");
    EXPECT_EQ(dots(kLong), kLong);
    EXPECT_EQ(dots(kLong + "y"), kTooLong);
    EXPECT_EQ(dots("/a/b", 5), "/a/b");
    EXPECT_EQ(dots("/a/b", 4), kTooLong);
    EXPECT_EQ(dots("", 1), kTooLong);
}

TEST(MakeAbs, AppliesComponentsToTheDirectoryButNeverClimbsAboveItsRoot)
{
    const char *cases[][3] = {{"../x", "/", "/x"},    {"a//./b", "/u", "/u/a/b"}, {"/z/../y", "/u", "/z/../y"},
                              {"..", "/u/a", "/u"},   {"../../..", "/u", "/"},    {"b", "/u/", "/u/b"},
                              {"x/..", "r/d", "r/d"}, {"a", nullptr, "a"},        {"", "/u", "/u"}};
    for (auto &c : cases) {
        exact out(new char[KS_PATH_BUF]);
        EXPECT_STREQ(fileutl_make_abs_pn(out.get(), KS_PATH_BUF, c[0], c[1]), c[2]) << c[0];
    }
    exact out(new char[KS_PATH_BUF]);
    const std::string cwd = "/" + kLong.substr(3);
    EXPECT_EQ(show(fileutl_make_abs_pn(out.get(), KS_PATH_BUF, "x", cwd.c_str())), cwd + "/x"); // 1023 bytes
    EXPECT_EQ(show(fileutl_make_abs_pn(out.get(), KS_PATH_BUF, "xy", cwd.c_str())), kTooLong);
    EXPECT_EQ(show(fileutl_make_abs_pn(out.get(), 3, "/ab", "/")), kTooLong);
}

TEST(MakeRel, PrefixThenClimbingThenThePathItself)
{
    struct { const char *path, *base; int dot_ok, fold, max_up; const char *want; } cases[] = {
        {"/u/a/b", "/u/a", 0, 0, 0, "b"},     {"/u/a", "/u/a", 1, 0, 0, "."},      {"/u/a/", "/u/./a//", 0, 0, 0, "/u/a/"},
        {"/u/c", "/u/a", 0, 0, 1, "../c"},    {"/u/c", "/u/a/b", 0, 0, 1, "/u/c"}, {"/u/c", "/u/a/b", 0, 0, 2, "../../c"},
        {"/u", "/u/a", 0, 0, 1, ".."},        {"/u//a/b", "/u/a", 0, 0, 0, "b"},   {"/x/y", "/", 0, 0, 0, "x/y"},
        {"/u/ab", "/u/a", 0, 0, 0, "/u/ab"},  {"a\\b\\c", "a", 0, 1, 0, "b/c"},    {"a\\b\\c\\\\", "x", 0, 1, 0, "a/b/c"},
        {"a\\b\\c", "a", 0, 0, 0, "a\\b\\c"}, {"b", "a", 0, 0, 1, "../b"},         {"/a/b", "../x", 0, 0, 3, "/a/b"},
        {"/a/b", "/a/b/..", 0, 0, 0, "b"}};
    for (auto &c : cases)
        EXPECT_EQ(rel(c.path, c.base, c.dot_ok, c.fold, c.max_up), c.want) << c.path << " " << c.base;
    EXPECT_EQ(rel("/u/a/bcd", "/u/a", 0, 0, 0, 4), "bcd");
    errno = 0;
    EXPECT_EQ(rel("/u/a/bcd", "/u/a", 0, 0, 0, 3), "/u");
    EXPECT_EQ(errno, ENAMETOOLONG);
    std::string huge = "/" + kLong;
    EXPECT_EQ(rel(huge.c_str(), "/", 0, 0, 0, huge.size() + 1), huge); // no working room: path itself
    EXPECT_EQ(rel(("/" + kLong.substr(1)).c_str(), "/", 0, 0, 0), kLong.substr(1));
}

TEST(Split, LeafSuffixAndHost)
{
    const char *leaves[][2] = {{"/a/b/", "/a|b"}, {"/a", "/|a"},  {"a", "|a"},       {"", "|"},
                               {"///", "/|"},     {"//a", "/|a"}, {"/a//b", "/a|b"}, {"a/", "|a"}};
    for (auto &c : leaves)
        EXPECT_EQ(split(fileutl_strip_leaf, c[0]), c[1]) << c[0];
    const char *suffixes[][2] = {
        {"/x.d/file", "/x.d/file|"}, {"f.tar.gz", "f.tar|.gz"}, {".profile", "|.profile"}, {"a.c/", "a.c/|"}};
    for (auto &c : suffixes)
        EXPECT_EQ(split(fileutl_strip_suffix, c[0]), c[1]) << c[0];
    const char *hosts[][2] = {{"h:/p", "h|/p"}, {":x", "|:x"}, {"/a:b", "|/a:b"}, {"a/b:c", "|a/b:c"}, {"h:", "h|"}};
    for (auto &c : hosts)
        EXPECT_EQ(split(fileutl_strip_hostname, c[0]), c[1]) << c[0];
    EXPECT_EQ(split(fileutl_strip_leaf, "/ab/c", 4, 2), "/ab|c");
    EXPECT_EQ(split(fileutl_strip_leaf, "/ab/c", 3, 2), kTooLong2);
    EXPECT_EQ(split(fileutl_strip_suffix, "a.bc", 2, 3), kTooLong2);
    EXPECT_EQ(split(fileutl_strip_hostname, "host:/p", 5, 3), "host|/p");
    EXPECT_EQ(split(fileutl_strip_hostname, "host:/p", 4, 3), kTooLong2);
    EXPECT_EQ(split(fileutl_strip_leaf, "/" + kLong + "/" + kLong), kTooLong2);
    char dir[3];
    EXPECT_EQ(got(fileutl_strip_leaf("/a/b", sizeof dir, dir, 0, nullptr), dir), "/a");
}

TEST(Names, PredicatesSeparatorsRootAndSize)
{
    EXPECT_EQ(fileutl_pname_equal("/a", "/a") + fileutl_pname_equal("/a", "/a/"), 1);
    const char *parents[][3] = {
        {"/a", "/a/b", "1"}, {"/a", "/a", "1"}, {"/a", "/ab", "0"}, {"/a/", "/a/b", "0"}, {"/", "/a", "0"}};
    for (auto &c : parents)
        EXPECT_EQ(fileutl_pname_equal_or_parent(c[0], c[1]), c[2][0] - '0') << c[0] << " " << c[1];
    const char *list[] = {"/x", "/a/b", "/a"};
    EXPECT_EQ(fileutl_pname_scoped_by_list(list, 3, "/a/b/c") * 10 + fileutl_pname_scoped_by_list(list, 3, "/a/c"), 12);
    EXPECT_EQ(fileutl_pname_scoped_by_list(list, 0, "/x"), -1);
    const char *name = "ab/c/";
    EXPECT_EQ(fileutl_find_pname_sep_left(name), name + 2);
    EXPECT_EQ(fileutl_match_trailing_sep(name), name + 4);
    EXPECT_TRUE(fileutl_find_pname_sep_left("abc") == nullptr && fileutl_match_trailing_sep("/a") == nullptr);
    const char *strips[][2] = {{"a//", "a"}, {"///", "///"}, {"/a/", "/a"}, {"", ""}, {"a", "a"}};
    for (auto &c : strips) {
        std::string s = c[0];
        EXPECT_STREQ(fileutl_strip_pname_sep(&s[0]), c[1]);
    }
    EXPECT_EQ(fileutl_ends_with_slash_dot("a/.", SIZE_MAX) + fileutl_ends_with_slash_dot("a/.x", 3), 2);
    EXPECT_EQ(fileutl_ends_with_slash_dot("/.", SIZE_MAX) + fileutl_ends_with_slash_dot("a/..", SIZE_MAX), 0);
    char root[2], rel_part[4];
    EXPECT_EQ(got(fileutl_root_split("/abc", root, sizeof root, rel_part, sizeof rel_part), root) + rel_part, "/abc");
    EXPECT_EQ(got(fileutl_root_split("abc", root, sizeof root, rel_part, sizeof rel_part), root) + rel_part,
              "fail:" + std::to_string(EINVAL));
    EXPECT_DEATH(fileutl_root_split("/abc", root, 1, rel_part, 4), "root_path_size >= 1 \\+ 1");
    EXPECT_DEATH(fileutl_root_split("/abcd", root, 2, rel_part, 4), "rel_path_size >= \\(path_len - 1\\) \\+ 1");
    EXPECT_EQ(fileutl_chk_large_file_overflow(2147483647, "f"), 0);
    auto r = run_in_child([] {
        return fileutl_chk_large_file_overflow(2147483648LL, "big") * 10 + fileutl_chk_large_file_overflow(INT64_MAX, nullptr);
    });
    EXPECT_EQ(r.exit_code(), 11);
    EXPECT_EQ(r.err, "noname: Error: File \"big\" is larger than 2GB and cannot be handled by Ottermere.\n");
}

TEST(Names, ShiftJisSecondBytesAreNeverSeparatorsNorEscapes)
{
    // 0x95 0x5C is one character whose second byte is "\"; 0x95 before "/" starts none.
    const char *path = "a\\\x95\x5C\\b";
    const char *patt[] = {"\x95\x5C*"};
    EXPECT_EQ(rel(path, "a", 0, 1, 0), "\x95//b"); // "C": every 0x5C folds
    EXPECT_EQ(fileutl_patt_list_match(patt, 1, "\x95\x5Cx", nullptr), 0);
    ASSERT_NE(setlocale(LC_ALL, "ja_JP.SJIS"), nullptr);
    EXPECT_EQ(rel(path, "a", 0, 1, 0), "\x95\x5C/b");
    EXPECT_EQ(fileutl_patt_list_match(patt, 1, "\x95\x5Cx", nullptr), 1);
    EXPECT_EQ(split(fileutl_strip_leaf, "\x95/x"), "\x95|x");
    temp_dir t;
    char out[KS_PATH_BUF];
    const size_t dlen = t.path().size(); // room for the prefix: 9 bytes, four whole characters
    ASSERT_EQ(fileutl_tmpdir(t.path().c_str(), "\x95\x5C\x95\x5C\x95\x5C\x95\x5C\x95\x5C", out, dlen + 16, 0700), 0);
    EXPECT_EQ(std::string(out).substr(dlen, 9), "/\x95\x5C\x95\x5C\x95\x5C\x95\x5C");
    EXPECT_EQ(strlen(out), dlen + 14);
    ASSERT_NE(setlocale(LC_ALL, "en_US.UTF-8"), nullptr);
    EXPECT_EQ(split(fileutl_strip_leaf, "\xff/\xc3"), "\xff|\xc3"); // invalid sequences
    EXPECT_EQ(dots("\xe2/../\xe2\x82/."), "\xe2/../\xe2\x82");
}

TEST(TmpDir, ChosenOncePerProcessPreferredWhenUsable)
{
    temp_dir a, b;
    char out[KS_PATH_BUF];
    size_t len = 0;
    auto tmp = [&](const char *preferred, size_t size) { return got(fileutl_get_tmpdir(preferred, out, size, &len), out); };
    setenv("TMPDIR", (a.path() + "//").c_str(), 1);
    EXPECT_EQ(tmp(nullptr, KS_PATH_BUF), a.path());
    EXPECT_EQ(len, a.path().size());
    setenv("TMPDIR", b.path().c_str(), 1); // the choice is kept
    EXPECT_EQ(tmp(nullptr, KS_PATH_BUF), a.path());
    EXPECT_EQ(tmp((b.path() + "/").c_str(), KS_PATH_BUF), b.path());
    EXPECT_EQ(tmp("/no/such/dir", KS_PATH_BUF), a.path());
    EXPECT_EQ(tmp(nullptr, a.path().size() + 16), a.path());
    EXPECT_EQ(fileutl_get_tmpdir(b.path().c_str(), out, a.path().size() + 15, nullptr), 2);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(TmpDir, CounterSkipsNamesInUseAndFilesTakeTheExtension)
{
    temp_dir t;
    char out[KS_PATH_BUF];
    ASSERT_EQ(fileutl_tmpdir(t.path().c_str(), nullptr, out, sizeof out, 0700), 0);
    const int n = atoi(out + t.path().size() + 4);
    auto name = [&](const char *prefix, int k, const char *ext) {
        return t.path() + "/" + prefix + std::to_string(100000 + (n + k) % 100000).substr(1) + ext;
    };
    EXPECT_EQ(out, name("tmp", 0, ""));
    struct stat st;
    EXPECT_EQ(stat(out, &st) == 0 ? st.st_mode & 07777 : 0, 0700u);
    mkdir(name("p", 1, "").c_str(), 0700); // the next two numbers are taken
    mkdir(name("p", 2, "").c_str(), 0700);
    EXPECT_EQ(got(fileutl_tmpdir(t.path().c_str(), "p", out, sizeof out, -1), out), name("p", 3, ""));
    FILE *fp = fileutl_tmpfile_ext(t.path().c_str(), "f", ".txt", out, sizeof out);
    ASSERT_NE(fp, nullptr);
    EXPECT_EQ(out, name("f", 4, ".txt"));
    EXPECT_EQ(fputs("kept", fp) >= 0 && fclose(fp) == 0 && ks_test::read_file(out) == "kept", true);
    fp = fileutl_tmpfile_ext_binary("", "g", "bin", out, sizeof out);
    ASSERT_NE(fp, nullptr);
    fclose(fp);
    EXPECT_EQ(std::string(out).substr(std::string(out).size() - 9), name("", 5, ".bin").substr(t.path().size() + 1));
    unlink(out);
}

TEST(UniqueNames, NumberedOrStampedAndRenamed)
{
    temp_dir t;
    const std::string f = t.file("f");
    char out[KS_PATH_BUF];
    EXPECT_EQ(show(fileutl_make_unique_pn(f.c_str(), nullptr, 1, sizeof out, out)), f);
    ks_test::write_file(f, "");
    ks_test::write_file(f + ".1", "");
    EXPECT_EQ(show(fileutl_make_unique_pn(f.c_str(), "", 1, sizeof out, out)), f + ".2");
    for (int i = 2; i <= 999; i++)
        ks_test::write_file(f + "." + std::to_string(i), "");
    EXPECT_EQ(show(fileutl_make_unique_pn(f.c_str(), nullptr, 1, sizeof out, out)), "null:" + std::to_string(EEXIST));
    setenv("TZ", "UTC", 1);
    ks::clock_fix_for_testing(1078149909, 0);
    EXPECT_EQ(show(fileutl_make_unique_pn(f.c_str(), ".s", 0, sizeof out, out)), f + ".s.2004-03-01T14:05:09Z");
    EXPECT_EQ(show(fileutl_make_unique_pn(f.c_str(), ".s", 0, f.size() + 22, out)), kTooLong);
    auto r = run_in_child([&] { return fileutl_make_unique_pn("x", nullptr, 2, sizeof out, out) == nullptr; });
    EXPECT_EQ(r.exit_code(), 1);
    EXPECT_EQ(r.err, "noname: Error: Internal error: fileutl_make_unique_pn: bad suffix control value '2'\n");

    ks_test::write_file(t.file("g"), "1");
    ASSERT_EQ(symlink("missing", t.file("g.bak").c_str()), 0); // dangling, still in use
    errno = EINVAL;
    EXPECT_EQ(show(fileutl_rename_unique(t.file("g").c_str(), ".bak", sizeof out, out)), t.file("g.bak.1"));
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(ks_test::read_file(t.file("g.bak.1")), "1");
    EXPECT_EQ(show(fileutl_rename_unique(t.file("g.bak.1").c_str(), nullptr, t.file("g.bak.1.1").size(), out)), kTooLong);
    EXPECT_EQ(show(fileutl_rename_unique(kLong.c_str(), "x", sizeof out, out)), kTooLong);
}

TEST(Files, MakePathLockAndFollowLinks)
{
    temp_dir t;
    ks_test::write_file(t.file("f"), "");
    auto mkpath = [](const std::string &p, int mode) { return fileutl_mkpath(p.c_str(), mode) == 0 ? 0 : errno; };
    EXPECT_EQ(mkpath(t.file("a//b/c/"), 0700) + mkpath(t.file("a/b/c"), -1), 0);
    EXPECT_EQ(mkpath(t.file("f/x"), -1), ENOTDIR);
    EXPECT_EQ(mkpath(t.file("f"), -1), ENOTDIR);

    int fd = open(t.file("f").c_str(), O_RDWR);
    ASSERT_EQ(fileutl_lockfd(fd, 1, 0), 0);
    auto held = run_in_child([&] { return fileutl_lockfd(fd, 0, 0) == -1 && (errno == EAGAIN || errno == EACCES); });
    EXPECT_EQ(held.exit_code(), 1);
    ASSERT_EQ(fileutl_unlockfd(fd), 0);
    EXPECT_EQ(run_in_child([&] { return fileutl_lockfd(fd, 1, 1) == 0; }).exit_code(), 1);
    close(fd);

    for (const std::string &l : std::vector<std::string>{"l1>f", "l2>a/../l1", "a/l3>" + t.file("l2"), "loop>loop", "dangling>none"})
        ASSERT_EQ(symlink(l.substr(l.find('>') + 1).c_str(), t.file(l.substr(0, l.find('>'))).c_str()), 0);
    char out[KS_PATH_BUF];
    auto follow = [&](const std::string &p, size_t size) { return got(fileutl_resolve_symlink(p.c_str(), out, size), out); };
    EXPECT_EQ(follow(t.file("a/l3"), KS_PATH_BUF),
              t.file("a/../f")); // relative to each link's directory
    EXPECT_EQ(follow(t.file("f"), KS_PATH_BUF), t.file("f"));
    EXPECT_EQ(follow(t.file("dangling"), KS_PATH_BUF), t.file("none"));
    EXPECT_EQ(follow(t.file("loop"), KS_PATH_BUF), "fail:" + std::to_string(ELOOP));
    EXPECT_EQ(follow(t.file("nothing"), KS_PATH_BUF), "fail:" + std::to_string(ENOENT));
    EXPECT_EQ(follow(t.file("l1"), t.file("f").size()), "fail:" + std::to_string(ENAMETOOLONG));
}

TEST(Search, DirectoriesInOrderNameBeforeExtensionsAndPatterns)
{
    temp_dir t;
    fileutl_mkpath(t.file("d1").c_str(), -1);
    fileutl_mkpath(t.file("d2").c_str(), -1);
    for (auto f : {"d1/prog.sh", "d1/b.c", "d1/a.c", "d1/.h.c", "d2/prog", "d2/z.c", "d2/tool"})
        ks_test::write_file(t.file(f), "");
    chmod(t.file("d2/tool").c_str(), 0755);
    const std::string d1 = t.file("d1"), d2 = t.file("d2") + "/";
    const char *dirs[] = {d1.c_str(), d2.c_str()}, *exts[] = {".py", ".sh"};
    char out[KS_PATH_BUF];
    int di = 9, ei = 9;
    int rc = fileutl_resolve_pathname_index("prog", dirs, 2, F_OK, out, sizeof out, &di);
    EXPECT_EQ(got(rc, out) + std::to_string(di), t.file("d2/prog1"));
    rc = fileutl_resolve_pathname_index_with_ext("prog", dirs, 2, exts, 2, F_OK, out, sizeof out, &di, &ei);
    EXPECT_EQ(got(rc, out) + std::to_string(di) + std::to_string(ei), t.file("d1/prog.sh01"));
    EXPECT_EQ(got(fileutl_resolve_pathname_by_ext("tool", dirs, 2, exts, 2, X_OK, out, sizeof out), out), t.file("d2/tool"));
    EXPECT_EQ(got(fileutl_resolve_pathname(t.file("d1/a.c").c_str(), dirs, 2, R_OK, out, sizeof out), out), t.file("d1/a.c"));
    EXPECT_EQ(got(fileutl_resolve_pathname("nothing", dirs, 2, F_OK, out, sizeof out), out), "fail:" + std::to_string(ENOENT));
    EXPECT_EQ(got(fileutl_resolve_pathname("prog", dirs, 2, F_OK, out, t.file("d2/prog").size()), out), kTooLong2);

    auto pattern = [&](const char *p, int from) {
        char **m = nullptr;
        int n = 0, d = fileutl_resolve_pattern_index(p, dirs + from, 2 - from, &m, &n);
        std::string all = std::to_string(d);
        for (int i = 0; i < n; i++)
            all += " " + std::string(m[i]).substr(t.path().size() + 1);
        fileutl_resolve_pattern_free(m, n);
        return all + (m == nullptr && n == 0 ? "" : "!");
    };
    EXPECT_EQ(pattern("*.c", 0), "0 d1/a.c d1/b.c!");
    EXPECT_EQ(pattern("?.c", 1), "0 d2/z.c!");
    EXPECT_EQ(pattern(".*", 0), "0 d1/.h.c!");
    EXPECT_EQ(pattern("*.x", 0), "-1");
}

TEST(PatternLists, ExactMatchBeatsAnEarlierScopingOne)
{
    const char *patts[] = {"/usr/*/bin", "/opt", "/o?t/x", "/s\\*"};
    struct { const char *name; int cell, exact; } cases[] = {{"/usr/local/bin", 0, 1}, {"/opt/x/y", 1, 0},     {"/opt/x", 2, 1}, {"/usr/local/bin2", -1, 0},
                 {"/usr/a/b/bin", -1, 0},  {"/usr/a/bin/c", 0, 0}, {"/s*", 3, 1},    {"/sx", -1, 0}};
    for (auto &c : cases) {
        int exact = 7;
        EXPECT_EQ(fileutl_patt_list_matched_cell(patts, 4, c.name, &exact), c.cell) << c.name;
        EXPECT_EQ(exact, c.exact) << c.name;
        EXPECT_EQ(fileutl_patt_list_match(patts, 4, c.name, nullptr), c.cell >= 0);
    }
}
