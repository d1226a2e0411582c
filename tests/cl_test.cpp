// The option scanner: option groups and their errors, "--", argument words,
// the line splitter's quoting rules, abbreviation patterns, offsets, failure
// injection and the magic check.
#include <locale.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ks/cl.h"
#include "ks/stg.h"

namespace {

// A handle over {"prog", words...}; destroyed with the fixture.
class Scanner {
public:
    explicit Scanner(std::vector<std::string> words) : words_(std::move(words))
    {
        words_.insert(words_.begin(), "prog");
        for (auto &w : words_)
            ptrs_.push_back(&w[0]);
        int err = -1;
        h_ = cl_parse_argv((int)ptrs_.size(), ptrs_.data(), &err);
        EXPECT_EQ(err, 0);
    }
    ~Scanner() { cl_destroy(&h_); }
    cl_handle_t *h() { return h_; }

private:
    std::vector<std::string> words_;
    std::vector<char *> ptrs_;
    cl_handle_t *h_ = nullptr;
};

std::vector<std::string> split_line(const char *line)
{
    int err = -1;
    cl_handle_t *h = cl_parse_line(line, &err);
    EXPECT_EQ(err, 0);
    std::vector<std::string> out;
    if (!h)
        return out;
    while (char *w = cl_getarg(h))
        out.push_back(w);
    cl_destroy(&h);
    EXPECT_EQ(h, nullptr);
    return out;
}

using words = std::vector<std::string>;

} // namespace

// ---- option letters and groups ----

TEST(ClGetopt, LettersOutsideGroupsRepeatFreely)
{
    Scanner s({"-a", "-a", "-ba"});
    EXPECT_EQ(cl_getopt(s.h(), "ab[xy]"), 'a');
    EXPECT_EQ(cl_getopt(s.h(), "ab[xy]"), 'a');
    EXPECT_EQ(cl_getopt(s.h(), "ab[xy]"), 'b');
    EXPECT_EQ(cl_getopt(s.h(), "ab[xy]"), 'a');
    EXPECT_EQ(cl_getopt(s.h(), "ab[xy]"), 0);
    EXPECT_EQ(cl_errno(s.h()), 0);
}

TEST(ClGetopt, GroupLettersExcludeEachOther)
{
    Scanner s({"-x", "-y"});
    EXPECT_EQ(cl_getopt(s.h(), "ab[xy]"), 'x');
    EXPECT_EQ(cl_getopt(s.h(), "ab[xy]"), '?');
    EXPECT_EQ(cl_errno(s.h()), CL_EDUPOPT);
    EXPECT_STREQ(cl_eopt(s.h()), "y");
    EXPECT_STREQ(cl_estr(s.h()), "-y");
    EXPECT_EQ(cl_getopt(s.h(), "ab[xy]"), 0);
}

TEST(ClGetopt, GroupLetterMayNotRepeat)
{
    Scanner s({"-xx"});
    EXPECT_EQ(cl_getopt(s.h(), "a:b[x:y]"), 'x');
    EXPECT_EQ(cl_getopt(s.h(), "a:b[x:y]"), '?');
    EXPECT_EQ(cl_errno(s.h()), CL_EDUPOPT);
    EXPECT_STREQ(cl_estr(s.h()), "-xx");
}

TEST(ClGetopt, SeparateGroupsDoNotInteract)
{
    Scanner s({"-x", "-p", "-q"});
    EXPECT_EQ(cl_getopt(s.h(), "[xy][pq]"), 'x');
    EXPECT_EQ(cl_getopt(s.h(), "[xy][pq]"), 'p');
    EXPECT_EQ(cl_getopt(s.h(), "[xy][pq]"), '?');
    EXPECT_EQ(cl_errno(s.h()), CL_EDUPOPT);
    EXPECT_STREQ(cl_eopt(s.h()), "q");
}

TEST(ClGetopt, UnknownLetterIsBadOption)
{
    Scanner s({"-q", "-a"});
    EXPECT_EQ(cl_getopt(s.h(), "ab[xy]"), '?');
    EXPECT_EQ(cl_errno(s.h()), CL_EBADOPT);
    EXPECT_STREQ(cl_eopt(s.h()), "q");
    EXPECT_STREQ(cl_estr(s.h()), "-q");
    // The refused letter is passed over and a good one clears the error.
    EXPECT_EQ(cl_getopt(s.h(), "ab[xy]"), 'a');
    EXPECT_EQ(cl_errno(s.h()), 0);
    EXPECT_STREQ(cl_eopt(s.h()), "");
    EXPECT_STREQ(cl_estr(s.h()), "");
}

TEST(ClGetopt, ColonAndBracketsAreNotLetters)
{
    Scanner s({"-:", "-["});
    EXPECT_EQ(cl_getopt(s.h(), "a:[b]"), '?');
    EXPECT_EQ(cl_errno(s.h()), CL_EBADOPT);
    EXPECT_EQ(cl_getopt(s.h(), "a:[b]"), '?');
    EXPECT_EQ(cl_errno(s.h()), CL_EBADOPT);
}

TEST(ClGetopt, RescansKeepTheGroupRules)
{
    // "prog\0-a\0-x\0-x\0": each rescan accepts -a again; the group letter
    // stays refused however often the words are read.
    Scanner s({"-a", "-x", "-x"});
    cl_handle_t *h = s.h();
    EXPECT_EQ(cl_getopt(h, "a[xy]"), 'a');
    EXPECT_EQ(cl_getopt(h, "a[xy]"), 'x');
    EXPECT_EQ(cl_getopt(h, "a[xy]"), '?');
    EXPECT_EQ(cl_errno(h), CL_EDUPOPT);
    EXPECT_STREQ(cl_estr(h), "-x");
    for (int i = 0; i < 5000; i++) {
        cl_setoffset(h, 5);
        ASSERT_EQ(cl_getopt(h, "a[xy]"), 'a');
        ASSERT_EQ(cl_getopt(h, "a[xy]"), '?');
        ASSERT_EQ(cl_errno(h), CL_EDUPOPT);
        ASSERT_EQ(cl_getopt(h, "a[xy]"), '?');
    }
    cl_setoffset(h, 5);
    EXPECT_EQ(cl_getopt(h, "a[y]"), 'a');
    EXPECT_EQ(cl_getopt(h, "a[y]"), '?');
    EXPECT_EQ(cl_errno(h), CL_EBADOPT);
}

TEST(ClGetopt, ArgumentIsTheNextWord)
{
    Scanner s({"-o", "file", "-v"});
    EXPECT_EQ(cl_getopt(s.h(), "o:v"), 'o');
    EXPECT_STREQ(cl_getarg(s.h()), "file");
    EXPECT_EQ(cl_getopt(s.h(), "o:v"), 'v');
    EXPECT_EQ(cl_getopt(s.h(), "o:v"), 0);
    EXPECT_EQ(cl_getarg(s.h()), nullptr);
    EXPECT_EQ(cl_errno(s.h()), 0);
}

TEST(ClGetopt, AttachedArgumentIsBadArgument)
{
    Scanner s({"-ofile"});
    EXPECT_EQ(cl_getopt(s.h(), "o:"), 'o');
    EXPECT_EQ(cl_getarg(s.h()), nullptr);
    EXPECT_EQ(cl_errno(s.h()), CL_EBADARG);
    EXPECT_STREQ(cl_estr(s.h()), "-ofile");
    EXPECT_EQ(cl_get_subcommand(s.h(), 0, nullptr), -1);
    EXPECT_EQ(cl_errno(s.h()), CL_EBADARG);
}

TEST(ClGetopt, DoubleDashEndsOptions)
{
    Scanner s({"-a", "--", "-b", "x"});
    EXPECT_EQ(cl_getopt(s.h(), "ab"), 'a');
    EXPECT_EQ(cl_getopt(s.h(), "ab"), 0);
    EXPECT_EQ(cl_getopt(s.h(), "ab"), 0);
    EXPECT_STREQ(cl_getarg(s.h()), "-b");
    EXPECT_EQ(cl_getopt(s.h(), "ab"), 0);
    EXPECT_STREQ(cl_getarg(s.h()), "x");
    EXPECT_EQ(cl_getarg(s.h()), nullptr);
}

TEST(ClGetopt, DoubleDashEndsOptionsFromAnyPosition)
{
    // "prog\0--\0-a\0": the scan moved onto the second dash of "--".
    Scanner s({"--", "-a"});
    cl_setoffset(s.h(), 6);
    EXPECT_EQ(cl_getopt(s.h(), "a"), 0);
    EXPECT_EQ(cl_getopt(s.h(), "a"), 0);
    EXPECT_STREQ(cl_getarg(s.h()), "-a");
}

TEST(ClGetopt, WordWithoutDashStopsOptions)
{
    Scanner s({"file", "-a"});
    EXPECT_EQ(cl_getopt(s.h(), "a"), 0);
    EXPECT_STREQ(cl_getarg(s.h()), "file");
    EXPECT_EQ(cl_getopt(s.h(), "a"), 'a');
}

TEST(ClGetopt, DashesAreSkipped)
{
    {
        Scanner s({"--x", "---y"});
        EXPECT_EQ(cl_getopt(s.h(), "xy"), 'x');
        EXPECT_EQ(cl_getopt(s.h(), "xy"), 'y');
        EXPECT_EQ(cl_getopt(s.h(), "xy"), 0);
    }
    {
        // A lone "-" is consumed, not handed out as an argument.
        Scanner s({"-", "word"});
        EXPECT_EQ(cl_getopt(s.h(), "xy"), 0);
        EXPECT_STREQ(cl_getarg(s.h()), "word");
    }
    {
        Scanner s({"-", "-x"});
        EXPECT_EQ(cl_getopt(s.h(), "xy"), 'x');
    }
}

TEST(ClGetopt, ProgramNameIsSkippedOnlyForArgv)
{
    char prog[] = "-a";
    char *argv[] = {prog, nullptr};
    int err = -1;
    cl_handle_t *h = cl_parse_argv(1, argv, &err);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(cl_getopt(h, "a"), 0);
    EXPECT_EQ(cl_getarg(h), nullptr);
    cl_destroy(&h);

    h = cl_parse_line("-a", &err);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(cl_getopt(h, "a"), 'a');
    cl_destroy(&h);
}

TEST(ClGetopt, LongNamesAreCopied)
{
    Scanner s({"-a", "--name", "--", "--later"});
    char *name = nullptr;
    EXPECT_EQ(cl_getopt_long(s.h(), "a", &name), 'a');
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(cl_getopt_long(s.h(), "a", &name), 0);
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name, "name");
    stg_free(name);
    name = nullptr;
    EXPECT_EQ(cl_getopt_long(s.h(), "a", &name), 0);  // "--": the end, no name
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(cl_getopt_long(s.h(), "a", &name), 0);
    EXPECT_EQ(name, nullptr);
    EXPECT_STREQ(cl_getarg(s.h()), "--later");
}

// ---- argument words and sub-commands ----

TEST(ClGetarg, NooptLeavesDashWords)
{
    Scanner s({"x", "-y"});
    EXPECT_STREQ(cl_getarg_noopt(s.h()), "x");
    EXPECT_EQ(cl_getarg_noopt(s.h()), nullptr);
    EXPECT_EQ(cl_errno(s.h()), 0);
    EXPECT_STREQ(cl_getname(s.h()), "-y");
    EXPECT_EQ(cl_getarg_noopt(s.h()), nullptr);
}

TEST(ClGetarg, NooptInsideAClusterIsNoArgument)
{
    Scanner s({"-ab", "x"});
    EXPECT_EQ(cl_getopt(s.h(), "ab"), 'a');
    EXPECT_EQ(cl_getarg_noopt(s.h()), nullptr);
    EXPECT_EQ(cl_errno(s.h()), 0);
    EXPECT_EQ(cl_getopt(s.h(), "ab"), 'b');
    EXPECT_STREQ(cl_getarg_noopt(s.h()), "x");
}

TEST(ClGetarg, SubcommandsMatchAbbreviations)
{
    static const char *const pats[] = {"li[st]", "co[mment]", "c[reate]"};
    Scanner s({"LIST", "com", "c", "cx", "l"});
    EXPECT_EQ(cl_get_subcommand(s.h(), 3, pats), 0);
    EXPECT_EQ(cl_get_subcommand(s.h(), 3, pats), 1);
    EXPECT_EQ(cl_get_subcommand(s.h(), 3, pats), 2);
    EXPECT_EQ(cl_get_subcommand(s.h(), 3, pats), -1);
    EXPECT_EQ(cl_get_subcommand(s.h(), 3, pats), -1);
    EXPECT_EQ(cl_get_subcommand(s.h(), 3, pats), -1);  // end of words
    EXPECT_EQ(cl_errno(s.h()), 0);
}

TEST(ClMatch, AbbreviationPatterns)
{
    struct {
        const char *word, *pattern;
        int want;
    } cases[] = {
        {"co", "co[mment]", 1},      {"com", "co[mment]", 1},     {"comment", "co[mment]", 1},
        {"CoMmEnT", "co[mment]", 1}, {"c", "co[mment]", 0},       {"commentx", "co[mment]", 0},
        {"cox", "co[mment]", 0},     {"", "[x]", 1},              {"", "", 1},
        {"", "a", 0},                {"a", "", 0},                {"ab", "ab", 1},
        {"a", "ab", 0},              {"a]", "a]", 1},             {"ab", "a[b[c]", 1},
        {"abc", "a[b[c]", 1},        {"ac", "a[b[c]", 0},         {"comment]", "co[mment]", 1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(cl_match(c.word, c.pattern), c.want) << c.word << " ~ " << c.pattern;
}

// ---- line splitting ----

TEST(ClParseLine, ExampleLine)
{
    // one; "two words"; it and s each in single quotes, nothing between; then
    // a, a backslash, a blank and b: the backslash does not hold a and b together.
    EXPECT_EQ(split_line("one \"two words\" 'it''s' a\\ b"),
              (words{"one", "two words", "its", "a", "b"}));
}

TEST(ClParseLine, QuotingTable)
{
    struct {
        const char *line;
        words want;
    } cases[] = {
        {"", {}},
        {" \t ", {}},
        {"a", {"a"}},
        {"  a\tb  ", {"a", "b"}},
        {"\"\"", {""}},
        {"a \"\" b", {"a", "", "b"}},
        {"''x", {"x"}},
        {"\"a'b\"", {"a'b"}},
        {"'a\"b'", {"a\"b"}},
        {"ab\"c d\"e", {"abc de"}},
        {"a\\\"b", {"a\"b"}},
        {"\"a\\\"b\"", {"a\"b"}},
        {"a\\\\b", {"a\\b"}},
        {"'a\\'b'", {"a'b"}},
        // The backslash does not protect a blank: its escape waits for the next character.
        {"a\\ \"b\"", {"a", "\"b"}},
        {"\\ x", {"", "x"}},
        // An unescaped newline ends the line, even inside quotes; an escaped one
        // separates words outside quotes and is kept inside them.
        {"a b\nc d", {"a", "b"}},
        {"a\\\nb", {"a", "b"}},
        {"\"a\nb\" c", {"a"}},
        {"\"a\\\nb\"", {"a\nb"}},
        // An unterminated quote runs to the end of the line.
        {"\"a b", {"a b"}},
        {"a\\", {"a"}},
    };
    for (const auto &c : cases)
        EXPECT_EQ(split_line(c.line), c.want) << "line: " << c.line;
}

TEST(ClParseLine, MultibyteCharactersAreCopiedWhole)
{
    ASSERT_NE(setlocale(LC_ALL, "ja_JP.SJIS"), nullptr);
    // 0x95 0x5C is one Shift_JIS character whose second byte is a backslash:
    // it must neither escape the closing quote nor vanish.
    EXPECT_EQ(split_line("'\x95\x5C' x"), (words{"\x95\x5C", "x"}));
    EXPECT_EQ(split_line("a\x95\x5C b"), (words{"a\x95\x5C", "b"}));
    // Ideographic space (0x81 0x40) separates words.
    EXPECT_EQ(split_line("a\x81\x40" "b"), (words{"a", "b"}));
    setlocale(LC_ALL, "C");
}

TEST(ClParseLine, VeryLongLinesFit)
{
    std::string line;
    for (int i = 0; i < 20000; i++)
        line += (i % 3 == 0) ? "'q u o t e d' " : "\\w" + std::to_string(i) + " ";
    line += std::string(300000, 'z');
    words got = split_line(line.c_str());
    ASSERT_EQ(got.size(), 20001u);
    EXPECT_EQ(got[0], "q u o t e d");
    EXPECT_EQ(got[1], "w1");
    EXPECT_EQ(got.back(), std::string(300000, 'z'));

    // Nothing but quotes: every pair is an empty word.
    std::string quotes;
    for (int i = 0; i < 1000; i++)
        quotes += "\"\" ";
    EXPECT_EQ(split_line(quotes.c_str()).size(), 1000u);
}

// ---- offsets ----

TEST(ClOffset, MovesWithinAndBetweenWords)
{
    Scanner s({"-ab", "file"});  // "prog\0-ab\0file\0": size 14
    cl_handle_t *h = s.h();
    EXPECT_EQ(cl_getoffset(h), 5);
    EXPECT_EQ(cl_getopt(h, "ab"), 'a');
    EXPECT_EQ(cl_getoffset(h), 7);

    cl_setoffset(h, 6);  // the 'a'
    EXPECT_EQ(cl_getopt(h, "ab"), 'a');
    EXPECT_EQ(cl_getopt(h, "ab"), 'b');
    EXPECT_STREQ(cl_getarg(h), "file");

    cl_setoffset(h, 8);  // the NUL after "-ab": past the word
    EXPECT_STREQ(cl_getarg(h), "file");

    cl_setoffset(h, 10);  // inside "file"
    EXPECT_EQ(cl_getarg(h), nullptr);
    EXPECT_EQ(cl_errno(h), CL_EBADARG);
    cl_setoffset(h, 9);
    EXPECT_EQ(cl_errno(h), 0);
    EXPECT_STREQ(cl_getarg(h), "file");

    cl_setoffset(h, -7);
    EXPECT_EQ(cl_getoffset(h), 0);
    EXPECT_STREQ(cl_getarg(h), "prog");

    cl_setoffset(h, 100000);
    EXPECT_EQ(cl_getoffset(h), 14);
    EXPECT_EQ(cl_getarg(h), nullptr);
    EXPECT_EQ(cl_errno(h), 0);
}

// ---- error texts ----

TEST(ClStrerror, TextsOfEveryCode)
{
    setenv("NLSPATH", KS_CATALOG_DIR "/%N.cat", 1);
    EXPECT_STREQ(cl_strerror(0), "");
    EXPECT_STREQ(cl_strerror(301), "Out of memory");
    EXPECT_STREQ(cl_strerror(302), "Bad option");
    EXPECT_STREQ(cl_strerror(303), "Duplicate or conflicting option");
    EXPECT_STREQ(cl_strerror(304), "Bad argument");
    EXPECT_STREQ(cl_strerror(305), "Unknown error");
    EXPECT_STREQ(cl_strerror(300), "Unknown error");
    EXPECT_STREQ(cl_strerror(-1), "Unknown error");
    EXPECT_STREQ(cl_errlist[2], "Bad option");
    EXPECT_STREQ(cl_errlist[4], "Bad argument");
    EXPECT_EQ(cl_strtotime(), 0);
}

// ---- failure injection ----

TEST(ClBrkit, EveryAllocationOfParseArgvMayFail)
{
    char a0[] = "prog", a1[] = "-ab", a2[] = "file";
    char *argv[] = {a0, a1, a2};
    int failures = 0;
    for (int k = 1;; k++) {
        int m0 = cl_mallocs, f0 = cl_frees;
        cl_brkit = k;
        int err = -1;
        cl_handle_t *h = cl_parse_argv(3, argv, &err);
        cl_brkit = 0;
        if (h == nullptr) {
            EXPECT_EQ(err, CL_ENOMEM);
            EXPECT_EQ(cl_mallocs - m0, cl_frees - f0) << "leak when allocation " << k << " fails";
            failures++;
            continue;
        }
        EXPECT_EQ(err, 0);
        EXPECT_EQ(cl_getopt(h, "ab"), 'a');
        cl_destroy(&h);
        EXPECT_EQ(cl_mallocs - m0, cl_frees - f0);
        break;
    }
    EXPECT_GE(failures, 3);
}

TEST(ClBrkit, EveryAllocationOfParseLineMayFail)
{
    int failures = 0;
    for (int k = 1;; k++) {
        int m0 = cl_mallocs, f0 = cl_frees;
        cl_brkit = k;
        int err = -1;
        cl_handle_t *h = cl_parse_line("one 'two three' four", &err);
        cl_brkit = 0;
        if (h == nullptr) {
            EXPECT_EQ(err, CL_ENOMEM);
            EXPECT_EQ(cl_mallocs - m0, cl_frees - f0) << "leak when allocation " << k << " fails";
            failures++;
            continue;
        }
        EXPECT_STREQ(cl_getarg(h), "one");
        EXPECT_STREQ(cl_getarg(h), "two three");
        cl_destroy(&h);
        EXPECT_EQ(cl_mallocs - m0, cl_frees - f0);
        break;
    }
    EXPECT_GE(failures, 3);
}

TEST(ClBrkit, ZeroNeverFails)
{
    cl_brkit = 0;
    int err = -1;
    cl_handle_t *h = cl_parse_line("x", &err);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(err, 0);
    cl_destroy(&h);
    cl_destroy(&h);  // a null handle is ignored
    EXPECT_EQ(cl_mallocs, cl_frees);
}

// ---- the magic check ----

TEST(ClMagicDeathTest, BadHandleEndsTheProcess)
{
    uint32_t fake[64] = {0};
    cl_handle_t *h = reinterpret_cast<cl_handle_t *>(fake);
    EXPECT_DEATH(cl_getopt(h, "a"), "clh->cl_magic == CL_MAGIC");
    EXPECT_DEATH(cl_getarg(h), "clh->cl_magic == CL_MAGIC");
    EXPECT_DEATH(cl_errno(h), "clh->cl_magic == CL_MAGIC");
}

TEST(ClMagicDeathTest, NullHandleEndsTheProcess)
{
    EXPECT_DEATH(cl_setoffset(nullptr, 0), "clh->cl_magic == CL_MAGIC");
}
