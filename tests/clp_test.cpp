// The flag-descriptor parser: table checks, abbreviations, aliases, groups,
// repeats, the obsolete policy, sub-arguments, the command-string splitter
// and builder, save/restore and switching, the command stack and the
// command-history log.
#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ks/clp.h"
#include "ks/stg.h"
#include "ks_testing.h"
#include "ks_test_util.h"

namespace {

using words = std::vector<std::string>;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// A null-terminated argv over w, kept to the end of the test: handles keep
// the caller's argv, and sub-arguments cut its words in place.
char **argv_of(const words &w)
{
    static std::list<std::pair<words, std::vector<char *>>> kept;
    kept.push_back({w, {}});
    for (auto &s : kept.back().first)
        kept.back().second.push_back(&s[0]);
    kept.back().second.push_back(nullptr);
    return kept.back().second.data();
}

// Values: -c 1, -a 2, -n 3, -v 4, -o 5, -f 6, -q 104.
const clp_flag_desc_t kFlags[] = {
    {"-c[omment]", 1, 0}, {"-v[erbose]", 4, CLP_REPEATABLE}, {"-f[orce]", 6, 0},
    {"-fo[rget]", 6, CLP_ALIAS_FLAG | CLP_OBSOLETE},
    CLP_START_MUTUAL_EXCLUSION, {"-a[ll]", 2, 0}, {"-n[one]", 3, 0}, {"-e[mpty]", 3, CLP_ALIAS_FLAG},
    {"-q", 104, CLP_REPEATABLE}, CLP_END_MUTUAL_EXCLUSION,
    {"-o[ld]", 5, CLP_OBSOLETE}, CLP_END_OF_FLAGS,
};

// Two groups, one with an alias.
const clp_flag_desc_t kGroups[] = {
    CLP_START_MUTUAL_EXCLUSION, {"-a", 1, 0}, {"-b", 2, 0}, CLP_END_MUTUAL_EXCLUSION, CLP_START_MUTUAL_EXCLUSION,
    {"-x", 3, 0}, {"-y", 4, 0}, {"-yy", 4, CLP_ALIAS_FLAG}, CLP_END_MUTUAL_EXCLUSION, CLP_END_OF_FLAGS,
};

// What a handle yields after its command name, until the words run out: flag
// values, "E" for an error followed by the word left in place, "." where
// flags end, and each argument word in quotes.  Destroys the handle.
std::string trace(clp_hdl_t *h, int quiet = 0)
{
    std::string out;
    char *arg;
    uint32_t v;
    clp_get_next_arg(h, &arg);
    for (int rc = 0; rc != 1;) {
        rc = clp_get_next_flag_value(h, quiet, &v);
        out += rc == 0 ? " " + std::to_string(v) : rc == 1 ? " E" : " .";
        EXPECT_TRUE(rc == 0 || v == 0xFFFFFFFFu);
        if (rc != 0 && clp_get_next_arg(h, &arg) == 0)
            out += " '" + std::string(arg) + "'";
        else if (rc != 0)
            break;
    }
    clp_destroy_hdl(&h);
    return out.substr(1);
}

// A handle in its own area over "cmd" and w.
clp_hdl_t *handle(words w, const clp_flag_desc_t *table = kFlags)
{
    w.insert(w.begin(), "cmd");
    return clp_create_hdl_using_argv((int)w.size(), argv_of(w), table, nullptr);
}

// The words of text split on the heap, or {"<failed>"} when refused.
words split(const char *text)
{
    int argc = -1;
    char **argv = reinterpret_cast<char **>(1);
    words out(clp_parse_string(text, nullptr, &argc, &argv) != 0, "<failed>");
    EXPECT_TRUE(argc != 0 || argv == nullptr);
    for (int i = 0; i < argc; stg_free(argv[i++]))
        out.push_back(argv[i]);
    stg_free(argv);
    return out;
}

size_t count(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

} // namespace

// ---- flags, aliases, groups and the obsolete policy ----

TEST(ClpFlags, TableOfCommandLines)
{
    // message: expected on standard error, "" for nothing; obso: OTTERMERE_OBSO_SYN, unset when null.
    const struct { words argv; const char *want, *message, *obso = nullptr; int quiet = 0;
                   const clp_flag_desc_t *table = kFlags; } cases[] = {
        {{"-c"}, "1 .", ""}, {{"-comment"}, "1 .", ""}, {{"--", "-c"}, ". '-c' .", ""},
        {{"-v", "-verb", "-v", "file", "-co"}, "4 4 4 . 'file' 1 .", ""},
        {{"-comment", "-co"}, "1 E '-co'", "Illegal duplicate use of flag \"-c[omment]\""},
        // Matching is case-sensitive and the name must hold the whole word.
        {{"-cx"}, "E '-cx'", "Unrecognized option \"-cx\""}, {{"-C"}, "E '-C'", "Unrecognized option \"-C\""},
        {{"-commentx"}, "E '-commentx'", "", nullptr, 1},
        // An alias stands for its partner.
        {{"-empty"}, "3 .", ""}, {{"-n", "-e"}, "3 E '-e'", "Illegal duplicate use of flag \"-n[one]\""},
        // Group members exclude each other; a repeatable member may repeat.
        {{"-a", "-n"}, "2 E '-n'", "Illegal use of mutually exclusive flags \"-n[one]\" and \"-a[ll]\""},
        {{"-q", "-a"}, "104 E '-a'", "\"-a[ll]\" and \"-q\""}, {{"-a", "-q"}, "2 E '-q'", "\"-q\" and \"-a[ll]\""},
        {{"-q", "-q", "-q", "-c"}, "104 104 104 1 .", ""}, {{"-a", "-y"}, "1 4 .", "", nullptr, 0, kGroups},
        {{"-b", "-x", "-yy"}, "2 3 E '-yy'", "\"-y\" and \"-x\"", nullptr, 0, kGroups},
        // Obsolete flags: "fail" in any case refuses, unset or "warn" warns,
        // anything else is silent; an alias's own bit counts.
        {{"-old"}, "E '-old'", "Obsolete command or flag: \"-o[ld]\"", "fAiL"},
        {{"-o", "-c"}, "5 1 .", "Obsolete command or flag: \"-o[ld]\""},
        {{"-o"}, "5 .", "Obsolete command or flag", "warn"}, {{"-o"}, "5 .", "", "quiet"}, {{"-f"}, "6 .", ""},
        {{"-forget"}, "6 .", "Obsolete command or flag: \"-f[orce]\""},
    };
    for (const auto &c : cases) {
        c.obso ? setenv("OTTERMERE_OBSO_SYN", c.obso, 1) : unsetenv("OTTERMERE_OBSO_SYN");
        CaptureStderr();
        EXPECT_EQ(trace(handle(c.argv, c.table), c.quiet), c.want);
        std::string err = GetCapturedStderr();
        EXPECT_TRUE(*c.message ? err.find(c.message) != std::string::npos : err.empty()) << c.want << err;
    }
    EXPECT_EQ(clp_match("-ab", "-a[[b]") + clp_match("", "[a]") + clp_match("-xy", "-x"), 2);
}

TEST(ClpObsolete, CheckFollowsTheMode)
{
    // The mode, then 1: refused with the notice, 0: the notice only, -1: silent.
    const std::pair<const char *, int> cases[] = {{"FAIL", 1}, {nullptr, 0}, {"Warn", 0}, {"other", -1}};
    for (const auto &c : cases) {
        c.first ? setenv("OTTERMERE_OBSO_SYN", c.first, 1) : unsetenv("OTTERMERE_OBSO_SYN");
        CaptureStderr();
        EXPECT_EQ(clp_check_obsolete(), c.second > 0);
        EXPECT_EQ(count(GetCapturedStderr(), "Obsolete syntax was used."), c.second >= 0 ? 1u : 0u);
    }
}

TEST(ClpHandle, ArgumentWordsAndSubArguments)
{
    char **argv = argv_of({"cmd", "-c", "x,,y", "z"}), *arg = nullptr;
    clp_hdl_t *h = clp_create_hdl_using_argv(4, argv, kFlags, nullptr);
    uint32_t v;
    EXPECT_EQ(clp_unget_arg(h), 2); // already at the start
    EXPECT_EQ(clp_get_command_name(h, &arg) + clp_get_argc(h), 4);
    EXPECT_STREQ(arg, "cmd");
    EXPECT_EQ(clp_get_next_arg(h, &arg) + clp_get_next_flag_value(h, 0, &v), 0);
    // A comma list ends with one 2 ("|": sub null); the next call starts on
    // the next word.  The commas are cut in the caller's argv.
    std::string got;
    for (int i = 0; i < 7; i++)
        got += clp_get_next_subarg(h, &arg) == 0 ? "[" + std::string(arg) + "]" : arg ? "?" : "|";
    EXPECT_EQ(got + argv[2], "[x][][y]|[z]||x");
    EXPECT_TRUE(clp_get_next_arg(h, &arg) == 2 && arg == nullptr);
    EXPECT_EQ(clp_unget_arg(h) + clp_get_next_arg(h, &arg), 0);
    EXPECT_STREQ(arg, "z");
    clp_destroy_hdl(&h);
    EXPECT_EQ(trace(clp_create_hdl_using_string("list -c 'my file' -v", kFlags, nullptr)), "1 . 'my file' 4 .");
    h = clp_create_hdl_using_string("", kFlags, nullptr);
    EXPECT_TRUE(clp_get_command_name(h, &arg) == 0 && arg == nullptr && clp_get_argc(h) == 0);
    EXPECT_EQ(trace(h), ".");
}

// ---- the seen flags across save, restore and switch ----

TEST(ClpSeenFlags, SharedBySaveAndRestoreFreshAfterSwitch)
{
    static const clp_flag_desc_t sub[] = {{"-a[ll]", 42, 0}, CLP_END_OF_FLAGS};
    clp_hdl_t *h = handle({"-a", "-c", "arg"}), *saved;
    char buf[16] = "untouched", *arg;
    uint32_t v;
    clp_get_next_arg(h, &arg);
    ASSERT_NE(saved = clp_save_hdl(h), nullptr);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v) + clp_get_next_flag_value(h, 0, &v), 0);
    clp_restore_hdl(h, saved);
    // Back at -a (trace steps over it as over a command name); -c stays seen.
    EXPECT_EQ(trace(h, 1), "E '-c'");
    // The last flag's name, for each size with and without the brackets;
    // nothing is written for size 0.
    stg_area_t area = stg_create_area(4096);
    h = clp_create_hdl_using_argv(5, argv_of({"cmd", "-al", "y", "-a", "x"}), kFlags, area);
    std::string got = std::to_string(clp_get_last_flag_name(h, 0, buf, 0)) + buf + " ";
    clp_get_next_arg(h, &arg);
    clp_get_next_flag_value(h, 0, &v);
    for (int size : {16, 4, 1})
        for (int strip : {0, 1})
            got += std::to_string(clp_get_last_flag_name(h, strip, buf, size)) + buf + " ";
    EXPECT_EQ(got, "2untouched 0-a[ll] 0-all 0-a[ 0-al 0 0 ");
    // The handle lives in the caller's area: switching needs one, and then
    // forgets the last flag; -a is new again.
    CaptureStderr();
    EXPECT_EQ(clp_switch_flags(h, sub, STG_AREA_NULL), 1);
    EXPECT_EQ(count(GetCapturedStderr(), "NULL STORAGE AREA: Cannot switch parsing flags"), 1u);
    EXPECT_EQ(clp_switch_flags(h, sub, area) + clp_get_last_flag_name(h, 0, buf, sizeof buf), 2);
    EXPECT_EQ(trace(h), "42 . 'x' ."); // trace steps over "y"
    stg_delete_area(&area);             // the handle left the caller's area alone
    h = handle({"-a", "-a"});
    EXPECT_EQ(clp_switch_flags(h, sub, STG_AREA_NULL), 0); // into the handle's own area
    EXPECT_EQ(trace(h, 1), "42 E '-a'");
}

// ---- descriptor tables and handles that end the process ----

TEST(ClpDeathTest, BadTablesAndHandlesAbortWithTheirMessage)
{
    const clp_flag_desc_t S = start_mutex_list, E = end_mutex_list, Z = CLP_END_OF_FLAGS;
    const clp_flag_desc_t nested[] = {S, {"-a", 1, 0}, S, Z}, stray[] = {{"-a", 1, 0}, E, Z};
    const clp_flag_desc_t lone[] = {{"-c[omment]", 1, 0}, {"-nc", 7, CLP_ALIAS_FLAG}, Z};
    const clp_flag_desc_t dup[] = {{"-a", 1, 0}, {"-b", 2, 0}, {"-c", 1, 0}, Z};
    // -z finds -p ahead; -w finds nothing back to its group start, and -p lies beyond the group end.
    const clp_flag_desc_t fenced[] = {{"-z", 9, CLP_ALIAS_FLAG}, {"-p", 9, 0}, S, {"-w", 9, CLP_ALIAS_FLAG}, E, Z};
    clp_hdl_t *h = handle({});
    EXPECT_DEATH(handle({}, nested), "cannot have nested CLP_START_MUTUAL_EXCLUSIONs");
    EXPECT_DEATH(clp_switch_flags(h, stray, nullptr),
                 "CLP_END_MUTUAL_EXCLUSION without matching CLP_START_MUTUAL_EXCLUSION");
    EXPECT_DEATH(handle({}, lone), "alias flag \"-nc\" defined without a non-alias flag with the same value");
    EXPECT_DEATH(handle({}, fenced), "alias flag \"-w\" defined without a non-alias flag");
    // Two flags with one value only fail.
    CaptureStderr();
    EXPECT_EQ(handle({}, dup), nullptr);
    EXPECT_EQ(clp_create_hdl_using_string("cmd", dup, nullptr), nullptr);
    EXPECT_EQ(clp_switch_flags(h, dup, nullptr), 1);
    EXPECT_EQ(count(GetCapturedStderr(), "Bad flag descriptors: \"-a\" and \"-c\" have the same value. "
                                         "Define one as CLP_ALIAS_FLAG"), 3u);
    // Bad handles: null, a wrong magic, and handles without a table, argv or word.
    uint32_t fake[32] = {0}, v;
    clp_hdl_t *bad = reinterpret_cast<clp_hdl_t *>(fake), *none = nullptr;
    char c0[] = "cmd", *holes[] = {c0, nullptr, nullptr}, *arg;
    clp_destroy_hdl(&none); // ignored
    EXPECT_DEATH(clp_get_next_arg(nullptr, &arg), "NULL HANDLE: Command line parsing handle");
    EXPECT_DEATH(clp_get_next_flag_value(bad, 0, &v), "BAD MAGIC: Command line parsing handle");
    EXPECT_DEATH(clp_destroy_hdl(&bad), "BAD MAGIC: Command line parsing handle");
    clp_hdl_t *nodesc = clp_create_hdl_using_argv(1, holes, nullptr, nullptr);
    clp_hdl_t *noargv = clp_create_hdl_using_argv(0, nullptr, kFlags, nullptr);
    clp_hdl_t *hole = clp_create_hdl_using_argv(2, holes, kFlags, nullptr);
    clp_get_next_arg(hole, &arg);
    EXPECT_DEATH(clp_get_next_flag_value(nodesc, 0, &v), "BAD FLAGS PTR: Command line parsing handle");
    EXPECT_DEATH(clp_get_next_flag_value(noargv, 0, &v), "BAD ARGV PTR: Command line parsing handle");
    EXPECT_DEATH(clp_get_next_flag_value(hole, 0, &v), "BAD ARGV ARRAY: Command line parsing handle");
    for (clp_hdl_t *d : {h, nodesc, noargv, hole})
        clp_destroy_hdl(&d);
}

// ---- splitting and rebuilding command strings ----

TEST(ClpParseString, QuotingTableAndLongWords)
{
    ASSERT_NE(setlocale(LC_ALL, "ja_JP.SJIS"), nullptr);
    const words fail{"<failed>"};
    const std::string longest(CLP_MAX_TOKEN, 'w'), too_long(CLP_MAX_TOKEN + 1, 'w');
    std::string many; // many tokens in one run (each closing quote ends one) outgrow the estimate
    for (int i = 0; i < 5000; i++)
        many += "'t'";
    const struct { std::string text; words want; } cases[] = {
        // A closing quote ends the token at once.
        {"", {}}, {"  \t\n ", {}}, {"  a \t b\n", {"a", "b"}}, {"\"ab\"cd", {"ab", "cd"}},
        {"ab\"cd ef\"gh", {"abcd ef", "gh"}}, {"'a b' c", {"a b", "c"}}, {"\"it's\"", {"it's"}},
        {"'a''b''c'", {"a", "b", "c"}}, {many, words(5000, "t")},
        // Outside quotes a backslash takes a quote or a backslash literally,
        // inside quotes it keeps both characters.
        {"a\\\"b", {"a\"b"}}, {"a\\'b", {"a'b"}}, {"a\\\\b", {"a\\b"}}, {"a\\xb \\", {"a\\xb", "\\"}},
        {"\"a\\\"b\"", {"a\\\"b"}}, {"'a\\\\b'", {"a\\\\b"}}, {"\"a\\nb\"", {"a\\nb"}},
        // An empty token ends the list; unterminated quotes fail.
        {"a \"\" b", {"a"}}, {"\"\"", {}}, {"\"abc", fail}, {"a 'b c", fail}, {"'a\\'", fail}, {"x \"a\\\"", fail},
        // The second byte of 0x95 0x5C is a backslash: it must not escape a quote.
        {"\"\x95\x5C\" x", {"\x95\x5C", "x"}}, {"\x95\x5C\" x", fail}, {"a\x95\x5C'b", fail},
        // A word of CLP_MAX_TOKEN bytes fits; one byte more is refused, quoted or not.
        {"cmd " + longest + " '" + longest + "'", {"cmd", longest, longest}}, {too_long, fail},
        {"\"" + too_long + "\"", fail}, {"a " + too_long + "\\\"", fail},
    };
    CaptureStderr();
    for (const auto &c : cases)
        EXPECT_EQ(split(c.text.c_str()), c.want) << "text: " << c.text.substr(0, 40);
    EXPECT_EQ(clp_create_hdl_using_string("a 'b c", kFlags, nullptr), nullptr);
    std::string err = GetCapturedStderr();
    EXPECT_EQ(count(err, "Bad command line: unterminated quoted string"), 7u);
    EXPECT_EQ(count(err, "Bad command line: a word is longer than 65535 bytes"), 3u);
    setlocale(LC_ALL, "C");
}

// Words that open no quote of their own come back from the splitter as they were.
TEST(ClpArgvToString, QuotesEscapesAndTheWayBack)
{
    // In Shift_JIS, 0x81 0x5B and 0x83 0x7E are whole characters whose second
    // bytes are "[" and "~": they are not special.
    ASSERT_NE(setlocale(LC_ALL, "ja_JP.SJIS"), nullptr);
    const struct { words argv; int escape; const char *want; } cases[] = { // want null: refused
        {{"a", "b c", "?x", "'q r'", "\"d\"", "tab\there", "plain-word"}, '\\',
         "a \"b c\" \"?x\" \\'q r\\' \\\"d\\\" \"tab\there\" plain-word"},
        {{"a", "b c", "'q r'", "\"d\""}, 0, "a \"b c\" 'q r' \"d\""},
        {{"x~", "x*", "x[", "x]", "x\r", "x\n"}, 0, "\"x~\" \"x*\" \"x[\" \"x]\" \"x\r\" \"x\n\""},
        {{"-_=.,/:;+%@!#$^&()<>{}|", "a\tb\rc", "?*~[]"}, 0, "-_=.,/:;+%@!#$^&()<>{}| \"a\tb\rc\" \"?*~[]\""},
        {{"\x81\x5B", "a\x83\x7E", "\x81\x5B x"}, 0, "\x81\x5B a\x83\x7E \"\x81\x5B x\""},
        {{}, 0, ""}, {{"ok", "'abc"}, '\\', nullptr}, {{"ok", "\""}, 0, nullptr}, {{"'abc\""}, 0, nullptr},
    };
    CaptureStderr();
    for (const auto &c : cases) {
        char *text = reinterpret_cast<char *>(1);
        EXPECT_EQ(clp_argv_to_string((int)c.argv.size(), argv_of(c.argv), nullptr, c.escape, &text), c.want ? 0 : 1);
        EXPECT_STREQ(text, c.want);
        bool plain = std::none_of(c.argv.begin(), c.argv.end(), [](auto &w) { return w[0] == '"' || w[0] == '\''; });
        EXPECT_TRUE(text == nullptr || !plain || split(text) == c.argv) << "back from: " << text;
        stg_free(text);
    }
    EXPECT_EQ(count(GetCapturedStderr(), "Bad command line: unterminated quoted string"), 3u);
    setlocale(LC_ALL, "C");
}

// ---- the command stack ----

TEST(ClpCmdStackDeathTest, NamesGenerationsDepthAndLength)
{
    uint32_t gen = 0;
    EXPECT_STREQ(clp_get_cmd_stack(&gen), "");
    EXPECT_EQ(clp_get_cmd_stack(&gen), nullptr); // nothing changed
    for (const char *name : {"db", "list"})
        clp_push_cmd(name);
    EXPECT_STREQ(clp_get_cmd_stack(&gen), "db:list:");
    clp_pop_cmd();
    for (int i = 1; i < 11; i++)
        clp_push_cmd(std::to_string(i).c_str());
    EXPECT_STREQ(clp_get_cmd_stack(&gen), "db:1:2:3:4:5:6:7:8:9:");
    clp_pop_cmd(); // the 11th was not stored: the ten stay
    EXPECT_EQ(clp_get_cmd_stack(&gen), nullptr);
    for (int i = 0; i < 9; i++)
        clp_pop_cmd();
    EXPECT_STREQ(clp_get_cmd_stack(&gen), "db:");
    // "db:", 123 characters and ":", then 121 and ":": 249 fit, 250 do not.
    for (int len : {123, 121})
        clp_push_cmd(std::string(len, 'n').c_str());
    EXPECT_EQ(strlen(clp_get_cmd_stack(&gen)), 249u);
    clp_pop_cmd();
    clp_push_cmd(std::string(122, 'n').c_str());
    EXPECT_DEATH(clp_get_cmd_stack(&gen), "PFM_ASSERT:\\(ptr < CLP_MAX_STACK_STRING\\) failed: 'clp_history':");
}

// ---- the current command and the history log ----

namespace {

// A host data directory with a log directory, collect_history on request;
// the clock stands at 2021-03-04 05:06:07.089 UTC.
struct HostData {
    ks_test::temp_dir dir;
    explicit HostData(bool collect)
    {
        mkdir(dir.file("config").c_str(), 0755);
        mkdir(dir.file("log").c_str(), 0755);
        if (collect)
            ks_test::write_file(dir.file("config/collect_history"), "");
        setenv("OTTER_HOSTDATA_DIR", dir.path().c_str(), 1);
        ks::clock_fix_for_testing(1614834367, 89123);
    }
    std::string history() const { return ks_test::read_file(dir.file("log/ottermere_history")); }
};

const std::string kStamp = "2021:03:04:05:06:07.089 ";

} // namespace

TEST(ClpHistory, LinesAndTheirLayout)
{
    HostData host(true);
    char cwd[1024];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    std::string pid = "(" + std::to_string(getpid()) + ") ";
    clp_log_cl_args("ktool", 2, argv_of({"-c", "x y"}));
    clp_hdl_t *hdl = clp_create_hdl_using_argv(2, argv_of({"log", "-v"}), kFlags, nullptr);
    clp_log_command("ktool log", hdl);
    clp_destroy_hdl(&hdl);
    EXPECT_STREQ(clp_get_command(), "ktool log '-v'");
    clp_collectdatai("count", 42);
    clp_collectdatai("plain", 0);
    clp_collectdatas("tag", "some text");
    clp_collectdata_cleanup();
    const std::string data = "count" + std::string(19, ' ') + "42"; // "%.1000s %20d"
    ks_test::temp_dir gone;  // without a working directory the "in" part is left out
    ASSERT_EQ(chdir(gone.path().c_str()) + rmdir(gone.path().c_str()), 0);
    clp_log_cl_args("ktool", 0, nullptr);
    EXPECT_EQ(host.history(), kStamp + pid + "ktool '-c' 'x y' in " + cwd + " \n" + kStamp + pid +
                                  "ktool log '-v' in " + cwd + " \n" + kStamp + "count '" + data + "': \n" + kStamp +
                                  "plain 'plain': \n" + kStamp + "tag 'some text': \n" + kStamp + pid + "ktool \n");
}

TEST(ClpHistory, CommandTextAndWhenLinesAreWritten)
{
    HostData host(false);
    std::string arg(100, 'a'), fits(256 - 3 - 3, 'f');
    EXPECT_STREQ(clp_get_command(), "No command");
    clp_log_cl_args("cmd", 3, argv_of({arg, arg, arg}));  // a third argument would reach 312
    EXPECT_EQ(std::string(clp_get_command()), "cmd '" + arg + "' '" + arg + "'");
    clp_log_cl_args("cmd", 2, argv_of({fits, "x"}));  // exactly 256 characters in all
    EXPECT_EQ(strlen(clp_get_command()), 256u);
    clp_log_cl_args(std::string(5000, 'h').c_str(), 0, nullptr);
    EXPECT_EQ(std::string(clp_get_command()), std::string(256, 'h'));
    // Data lines decide once per process; the command log looks every time,
    // and skips a log directory that is missing.
    clp_collectdatai("before", 1);
    clp_collectdatas("before", "x");
    ks_test::write_file(host.dir.file("config/collect_history"), "");
    ASSERT_EQ(rmdir(host.dir.file("log").c_str()), 0);
    clp_log_cl_args("cmd", 0, nullptr);
    EXPECT_EQ(access(host.dir.file("log").c_str(), F_OK), -1);
    mkdir(host.dir.file("log").c_str(), 0755);
    clp_collectdatai("after", 1);
    clp_collectdatas("after", "x");
    EXPECT_EQ(host.history(), "");
    clp_log_cl_args("cmd", 0, nullptr);
    EXPECT_EQ(count(host.history(), ") cmd in "), 1u) << host.history();
}
