// The option scanner: option groups and their errors, "--", argument words,
// the line splitter's quoting rules, abbreviation patterns, offsets, failure
// injection and the magic check.
#include <locale.h>
#include <stdlib.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ks/cl.h"
#include "ks/stg.h"

namespace {

using words = std::vector<std::string>;

// One scan: steps of script (blank-separated) run in turn against a handle
// over argv with option string opts:
//   letter or ?  cl_getopt returns it       0          cl_getopt returns 0
//   =word, =     cl_getarg gives word/null  ~word, ~   the same for cl_getarg_noopt
//   %n           cl_get_subcommand over {"li[st]", "co[mment]", "c[reate]"} gives n
//   @n           cl_setoffset(n)            #n         cl_getoffset gives n
//   +name, +     cl_getopt_long returns 0 with a copy of name / without a name
//   !            no error is pending (code, text and option all clear)
// The last error any step left must be error: "code option text", or "".
struct Scan {
    const char *opts;
    words argv;
    std::string script;
    const char *error;
};

void run(const Scan &c)
{
    static const char *const pats[] = {"li[st]", "co[mment]", "c[reate]"};
    SCOPED_TRACE(c.script.substr(0, 100));
    std::vector<char *> argv{const_cast<char *>("prog")};  // the words are copied
    for (const auto &w : c.argv)
        argv.push_back(const_cast<char *>(w.c_str()));
    int err = -1;
    cl_handle_t *h = cl_parse_argv((int)argv.size(), argv.data(), &err);
    ASSERT_EQ(err, 0);
    std::string last;
    std::istringstream in(c.script);
    for (std::string st; in >> st;) {
        const char *rest = st.c_str() + 1, *want = *rest ? rest : nullptr;
        switch (st[0]) {
        case '=': EXPECT_STREQ(cl_getarg(h), want) << st; break;
        case '~': EXPECT_STREQ(cl_getarg_noopt(h), want) << st; break;
        case '%': EXPECT_EQ(cl_get_subcommand(h, 3, pats), atoi(rest)) << st; break;
        case '+': {
            char *name = nullptr;
            EXPECT_EQ(cl_getopt_long(h, c.opts, &name), 0) << st;
            EXPECT_STREQ(name, want) << st;
            stg_free(name);
            break;
        }
        case '@': cl_setoffset(h, atoi(rest)); break;
        case '#': EXPECT_EQ(cl_getoffset(h), atoi(rest)) << st; break;
        case '!': EXPECT_TRUE(!cl_errno(h) && !*cl_estr(h) && !*cl_eopt(h)) << "error pending"; break;
        default: EXPECT_EQ(cl_getopt(h, c.opts), st == "0" ? 0 : st[0]) << st;
        }
        if (cl_errno(h) != 0)
            last = std::to_string(cl_errno(h)) + " " + cl_eopt(h) + " " + cl_estr(h);
    }
    cl_destroy(&h);
    EXPECT_EQ(last, c.error);
}

words split_line(const char *line)
{
    int err = -1;
    cl_handle_t *h = cl_parse_line(line, &err);
    EXPECT_EQ(err, 0);
    words out;
    while (char *w = h ? cl_getname(h) : nullptr) // the same step as cl_getarg
        out.push_back(w);
    cl_destroy(&h);
    return out;
}

} // namespace

TEST(ClGetopt, GroupsEndOfOptionsAndArgumentWords)
{
    Scan cases[] = {
        // Rescans of "prog\0-a\0-x\0-x\0" must not outgrow the seen letters.
        {"a[xy]", {"-a", "-x", "-x"}, "a x", "303 x -x"},
        // Letters outside groups repeat freely; a good letter clears an error.
        {"ab[xy]", {"-a", "-a", "-ba"}, "a a b a 0 !", ""}, {"ab[xy]", {"-q", "-a"}, "? a !", "302 q -q"},
        {"a:[b]", {"-:", "-["}, "? ?", "302 [ -["},
        // A group letter excludes the others and itself; groups are separate.
        {"ab[xy]", {"-x", "-y"}, "x ? 0", "303 y -y"}, {"a:b[x:y]", {"-xx"}, "x ?", "303 x -xx"},
        {"[xy][pq]", {"-x", "-p", "-q"}, "x p ?", "303 q -q"},
        {"o:v", {"-o", "file", "-v"}, "o =file v 0 = !", ""}, {"o:", {"-ofile"}, "o = %-1", "304  -ofile"},
        {"ab", {"-a", "--", "-b", "x"}, "a 0 0 =-b 0 =x =", ""},
        {"a", {"--", "-a"}, "@6 0 0 =-a", ""}, // on the second dash of "--"
        {"a", {"file", "-a"}, "0 =file a", ""},
        // Dashes are skipped; a lone "-" is consumed, not an argument.
        {"xy", {"--x", "---y"}, "x y 0", ""}, {"xy", {"-", "word"}, "0 =word", ""}, {"xy", {"-", "-x"}, "x", ""},
        {"ab", {"x", "-y"}, "~x ~ ! =-y ~", ""}, {"ab", {"-ab", "x"}, "a ~ ! b ~x", ""},
        {"a", {"-a", "--name", "--", "--later"}, "a +name + + =--later", ""},
        {"", {"LIST", "com", "c", "cx", "l"}, "%0 %1 %2 %-1 %-1 %-1 !", ""},
        // "prog\0-ab\0file\0" is 14 bytes.
        {"ab", {"-ab", "file"}, "#5 a #7 @6 a b =file @8 =file @10 = @9 ! =file @-7 #0 =prog @100000 #14 = !",
         "304  file"},
    };
    for (int i = 0; i < 2000; i++)
        cases[0].script += " ? @5 a";
    for (const auto &c : cases)
        run(c);
}

TEST(ClMatch, AbbreviationPatterns)
{
    struct { const char *word, *pattern; int want; } cases[] = {
        {"co", "co[mment]", 1}, {"com", "co[mment]", 1}, {"comment", "co[mment]", 1}, {"CoMmEnT", "co[mment]", 1},
        {"c", "co[mment]", 0}, {"commentx", "co[mment]", 0}, {"cox", "co[mment]", 0}, {"", "[x]", 1}, {"", "", 1},
        {"", "a", 0}, {"a", "", 0}, {"a", "ab", 0}, {"a]", "a]", 1}, {"ab", "a[b[c]", 1}, {"abc", "a[b[c]", 1},
        {"ac", "a[b[c]", 0}, {"comment]", "co[mment]", 1}};
    for (const auto &c : cases)
        EXPECT_EQ(cl_match(c.word, c.pattern), c.want) << c.word << " ~ " << c.pattern;
}

TEST(ClParseLine, QuotingTable)
{
    ASSERT_NE(setlocale(LC_ALL, "ja_JP.SJIS"), nullptr);
    struct { const char *line; words want; } cases[] = {
        // The backslash before the blank does not hold a and b together.
        {"one \"two words\" 'it''s' a\\ b", {"one", "two words", "its", "a", "b"}},
        {"", {}}, {" \t ", {}}, {"  a\tb  ", {"a", "b"}}, {"\"\"", {""}}, {"a \"\" b", {"a", "", "b"}},
        {"''x", {"x"}}, {"\"a'b\"", {"a'b"}}, {"'a\"b'", {"a\"b"}}, {"ab\"c d\"e", {"abc de"}},
        {"a\\\"b", {"a\"b"}}, {"\"a\\\"b\"", {"a\"b"}}, {"a\\\\b", {"a\\b"}}, {"'a\\'b'", {"a'b"}},
        // The escape waits past a blank for the next character.
        {"a\\ \"b\"", {"a", "\"b"}}, {"\\ x", {"", "x"}},
        // An unescaped newline ends the line, even inside quotes; an escaped one
        // separates words outside quotes and is kept inside them.
        {"a b\nc d", {"a", "b"}}, {"a\\\nb", {"a", "b"}}, {"\"a\nb\" c", {"a"}}, {"\"a\\\nb\"", {"a\nb"}},
        // An unterminated quote runs to the end of the line.
        {"\"a b", {"a b"}}, {"a\\", {"a"}},
        // 0x95 0x5C is one character whose second byte is a backslash: it
        // neither escapes the closing quote nor vanishes.  0x81 0x40 is a blank.
        {"'\x95\x5C' x", {"\x95\x5C", "x"}}, {"a\x95\x5C b", {"a\x95\x5C", "b"}}, {"a\x81\x40" "b", {"a", "b"}},
    };
    for (const auto &c : cases)
        EXPECT_EQ(split_line(c.line), c.want) << "line: " << c.line;
}

// Escapes and quotes make words shorter than their input; words and pairs
// are sized from the line itself.
TEST(ClParseLine, VeryLongLinesFit)
{
    std::string line, last(300000, 'z');
    for (int i = 0; i < 20000; i++)
        line += i % 3 != 0 ? "\\w " : "'q u o t e d' ";
    words got = split_line((line + last).c_str());
    ASSERT_EQ(got.size(), 20001u);
    EXPECT_EQ(got[19999] + got[20000], "w" + last);
}

TEST(ClStrerror, TextsOfEveryCode)
{
    setenv("NLSPATH", KS_CATALOG_DIR "/%N.cat", 1);
    const std::pair<int, const char *> cases[] = {
        {0, ""}, {301, "Out of memory"}, {302, "Bad option"}, {303, "Duplicate or conflicting option"},
        {304, "Bad argument"}, {305, "Unknown error"}, {300, "Unknown error"}, {-1, "Unknown error"},
    };
    for (const auto &c : cases)
        EXPECT_STREQ(cl_strerror(c.first), c.second) << c.first;
    EXPECT_STREQ(cl_errlist[2], "Bad option");
    EXPECT_EQ(cl_strtotime(), 0);
}

TEST(ClBrkit, EveryAllocationOfBothConstructorsMayFail)
{
    char a0[] = "prog", a1[] = "one", a2[] = "two three";
    char *argv[] = {a0, a1, a2};
    for (bool line : {false, true}) {
        for (int k = 1, made = 0; !made; k++) {
            int m0 = cl_mallocs, f0 = cl_frees, err = -1;
            cl_brkit = k;
            cl_handle_t *h = line ? cl_parse_line("one 'two three'", &err) : cl_parse_argv(3, argv, &err);
            cl_brkit = 0;
            made = h != nullptr;
            EXPECT_EQ(err, made ? 0 : CL_ENOMEM);
            EXPECT_TRUE(!made || k > 3) << "fewer allocations than the words, seen letters, pairs and handle";
            cl_destroy(&h);
            cl_destroy(&h);  // a null handle is ignored
            ASSERT_EQ(cl_mallocs - m0, cl_frees - f0) << "leak when allocation " << k << " fails";
        }
    }
}

TEST(ClMagicDeathTest, BadOrNullHandleEndsTheProcess)
{
    // The message names the source by its short name, never a build path.
    uint32_t fake[64] = {0};
    const char *text = "PFM_ASSERT:\\(clh->cl_magic == CL_MAGIC\\) failed: 'cl':";
    EXPECT_DEATH(cl_getopt(reinterpret_cast<cl_handle_t *>(fake), "a"), text);
    EXPECT_DEATH(cl_setoffset(nullptr, 0), text);
}
