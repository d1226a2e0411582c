// The flag-descriptor parser: table checks, abbreviations, aliases, groups,
// repeats, the obsolete policy, sub-arguments, the command-string splitter
// and builder, save/restore and switching, the command stack and the
// command-history log.
#include <locale.h>
#include <malloc.h>
#include <regex.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ks/clp.h"
#include "ks/stg.h"
#include "ks_internal.h"
#include "ks_test_util.h"

using ks_test::child_result;
using ks_test::run_in_child;

namespace {

using words = std::vector<std::string>;

// Mutable argv over a list of words (clp_get_next_subarg writes into it).
class Argv {
public:
    explicit Argv(words w) : words_(std::move(w))
    {
        for (auto &s : words_)
            ptrs_.push_back(&s[0]);
        ptrs_.push_back(nullptr);
    }
    int argc() const { return (int)words_.size(); }
    char **argv() { return ptrs_.data(); }

private:
    words words_;
    std::vector<char *> ptrs_;
};

enum { V_COMMENT = 1, V_ALL, V_NONE, V_VERBOSE, V_OLD, V_FORCE };

const clp_flag_desc_t kFlags[] = {
    {"-c[omment]", V_COMMENT, 0},
    {"-v[erbose]", V_VERBOSE, CLP_REPEATABLE},
    {"-f[orce]", V_FORCE, 0},
    {"-fo[rget]", V_FORCE, CLP_ALIAS_FLAG | CLP_OBSOLETE},
    CLP_START_MUTUAL_EXCLUSION,
    {"-a[ll]", V_ALL, 0},
    {"-n[one]", V_NONE, 0},
    {"-e[mpty]", V_NONE, CLP_ALIAS_FLAG},
    {"-q", V_VERBOSE + 100, CLP_REPEATABLE},
    CLP_END_MUTUAL_EXCLUSION,
    {"-o[ld]", V_OLD, CLP_OBSOLETE},
    CLP_END_OF_FLAGS,
};

// Parses every flag of "cmd words..." and returns the values (or -1 for a
// failure, -2 for "no more flags"), stopping at the first result other than 0.
std::vector<long> flags_of(words w, const clp_flag_desc_t *table = kFlags, int quiet = 0)
{
    w.insert(w.begin(), "cmd");
    Argv a(w);
    clp_hdl_t *h = clp_create_hdl_using_argv(a.argc(), a.argv(), table, nullptr);
    EXPECT_NE(h, nullptr);
    std::vector<long> out;
    if (!h)
        return out;
    char *arg;
    EXPECT_EQ(clp_get_next_arg(h, &arg), 0);
    EXPECT_STREQ(arg, "cmd");
    for (;;) {
        uint32_t v = 0;
        int rc = clp_get_next_flag_value(h, quiet, &v);
        if (rc == 0) {
            out.push_back((long)v);
            continue;
        }
        EXPECT_EQ(v, 0xFFFFFFFFu);
        out.push_back(rc == 1 ? -1 : -2);
        break;
    }
    clp_destroy_hdl(&h);
    EXPECT_EQ(h, nullptr);
    return out;
}

// Runs fn in a child and returns what it wrote on standard error.
std::string stderr_of(const std::function<void()> &fn)
{
    child_result r = run_in_child([&] {
        fn();
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0) << r.err;
    return r.err;
}

std::vector<std::string> split(const char *text, int *rc_out = nullptr)
{
    stg_area_t area = stg_create_area(1000);
    int argc = -1;
    char **argv = reinterpret_cast<char **>(1);
    int rc = clp_parse_string(text, area, &argc, &argv);
    if (rc_out)
        *rc_out = rc;
    std::vector<std::string> out;
    if (rc == 0) {
        if (argc == 0)
            EXPECT_EQ(argv, nullptr);
        else
            EXPECT_EQ(argv[argc], nullptr);
        for (int i = 0; i < argc; i++)
            out.push_back(argv[i]);
    }
    stg_delete_area(&area);
    return out;
}

} // namespace

// ---- matching, abbreviations and aliases ----

TEST(ClpMatch, AbbreviationsOfAName)
{
    EXPECT_EQ(clp_match("-c", "-c[omment]"), 1);
    EXPECT_EQ(clp_match("-co", "-c[omment]"), 1);
    EXPECT_EQ(clp_match("-comment", "-c[omment]"), 1);
    EXPECT_EQ(clp_match("-cx", "-c[omment]"), 0);
    EXPECT_EQ(clp_match("-", "-c[omment]"), 0);
    EXPECT_EQ(clp_match("-C", "-c[omment]"), 0);  // case matters here
    EXPECT_EQ(clp_match("-ab", "-a[[b]"), 1);
    EXPECT_EQ(clp_match("-x", "-x"), 1);
    EXPECT_EQ(clp_match("-xy", "-x"), 0);
    EXPECT_EQ(clp_match("", "[a]"), 1);
}

TEST(ClpFlags, AbbreviationsAndRepeats)
{
    EXPECT_EQ(flags_of({"-c"}), (std::vector<long>{V_COMMENT, -2}));
    EXPECT_EQ(flags_of({"-co"}), (std::vector<long>{V_COMMENT, -2}));
    EXPECT_EQ(flags_of({"-comment"}), (std::vector<long>{V_COMMENT, -2}));
    EXPECT_EQ(flags_of({"-v", "-verb", "-v"}), (std::vector<long>{V_VERBOSE, V_VERBOSE, V_VERBOSE, -2}));
}

TEST(ClpFlags, SingleUseFlagTwiceIsAnError)
{
    std::string err = stderr_of([] {
        EXPECT_EQ(flags_of({"-comment", "-co"}), (std::vector<long>{V_COMMENT, -1}));
    });
    EXPECT_NE(err.find("Illegal duplicate use of flag \"-c[omment]\""), std::string::npos) << err;
}

TEST(ClpFlags, UnknownFlagIsReportedUnlessQuiet)
{
    std::string err = stderr_of([] { EXPECT_EQ(flags_of({"-cx"}), (std::vector<long>{-1})); });
    EXPECT_NE(err.find("Unrecognized option \"-cx\""), std::string::npos) << err;
    err = stderr_of([] { EXPECT_EQ(flags_of({"-cx"}, kFlags, 1), (std::vector<long>{-1})); });
    EXPECT_EQ(err, "");
}

TEST(ClpFlags, ErrorLeavesTheWordInPlace)
{
    Argv a({"cmd", "-zz", "rest"});
    clp_hdl_t *h = clp_create_hdl_using_argv(a.argc(), a.argv(), kFlags, nullptr);
    char *arg;
    uint32_t v;
    clp_get_next_arg(h, &arg);
    EXPECT_EQ(clp_get_next_flag_value(h, 1, &v), 1);
    EXPECT_EQ(clp_get_next_arg(h, &arg), 0);
    EXPECT_STREQ(arg, "-zz");
    clp_destroy_hdl(&h);
}

TEST(ClpFlags, WordWithoutDashEndsFlags)
{
    Argv a({"cmd", "-c", "file", "-a"});
    clp_hdl_t *h = clp_create_hdl_using_argv(a.argc(), a.argv(), kFlags, nullptr);
    char *arg;
    uint32_t v;
    EXPECT_EQ(clp_get_next_arg(h, &arg), 0);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 0);
    EXPECT_EQ(v, (uint32_t)V_COMMENT);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 2);
    EXPECT_EQ(clp_get_next_arg(h, &arg), 0);
    EXPECT_STREQ(arg, "file");
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 0);
    EXPECT_EQ(v, (uint32_t)V_ALL);
    EXPECT_EQ(clp_get_next_arg(h, &arg), 2);
    EXPECT_EQ(arg, nullptr);
    EXPECT_EQ(clp_unget_arg(h), 0);
    EXPECT_EQ(clp_get_next_arg(h, &arg), 0);
    EXPECT_STREQ(arg, "-a");
    EXPECT_EQ(clp_get_argc(h), 4);
    char *name = nullptr;
    EXPECT_EQ(clp_get_command_name(h, &name), 0);
    EXPECT_STREQ(name, "cmd");
    for (int i = 0; i < 4; i++)
        clp_unget_arg(h);
    EXPECT_EQ(clp_unget_arg(h), 2);
    clp_destroy_hdl(&h);
}

TEST(ClpFlags, DoubleDashEndsFlags)
{
    Argv a({"cmd", "--", "-c"});
    clp_hdl_t *h = clp_create_hdl_using_argv(a.argc(), a.argv(), kFlags, nullptr);
    char *arg;
    uint32_t v;
    clp_get_next_arg(h, &arg);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 2);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 2);
    EXPECT_EQ(clp_get_next_arg(h, &arg), 0);
    EXPECT_STREQ(arg, "-c");
    clp_destroy_hdl(&h);
}

TEST(ClpFlags, AliasesStandForTheirPartner)
{
    // -e is an alias of -n: after -n it is a duplicate.
    std::string err = stderr_of([] {
        EXPECT_EQ(flags_of({"-empty"}), (std::vector<long>{V_NONE, -2}));
        EXPECT_EQ(flags_of({"-n", "-e"}), (std::vector<long>{V_NONE, -1}));
    });
    EXPECT_NE(err.find("Illegal duplicate use of flag \"-n[one]\""), std::string::npos) << err;
}

TEST(ClpGroups, MembersExcludeEachOther)
{
    std::string err = stderr_of([] { EXPECT_EQ(flags_of({"-a", "-n"}), (std::vector<long>{V_ALL, -1})); });
    EXPECT_NE(err.find("Illegal use of mutually exclusive flags \"-n[one]\" and \"-a[ll]\""), std::string::npos)
        << err;
    err = stderr_of([] { EXPECT_EQ(flags_of({"-q", "-a"}), (std::vector<long>{V_VERBOSE + 100, -1})); });
    EXPECT_NE(err.find("\"-a[ll]\" and \"-q\""), std::string::npos) << err;
    err = stderr_of([] { EXPECT_EQ(flags_of({"-a", "-q"}), (std::vector<long>{V_ALL, -1})); });
    EXPECT_NE(err.find("\"-q\" and \"-a[ll]\""), std::string::npos) << err;
}

TEST(ClpGroups, RepeatableMemberMayRepeat)
{
    EXPECT_EQ(flags_of({"-q", "-q", "-q", "-c"}), (std::vector<long>{V_VERBOSE + 100, V_VERBOSE + 100,
                                                                      V_VERBOSE + 100, V_COMMENT, -2}));
}

TEST(ClpGroups, SeveralGroupsInOneTable)
{
    static const clp_flag_desc_t t[] = {
        CLP_START_MUTUAL_EXCLUSION, {"-a", 1, 0}, {"-b", 2, 0}, CLP_END_MUTUAL_EXCLUSION,
        CLP_START_MUTUAL_EXCLUSION, {"-x", 3, 0}, {"-y", 4, 0}, {"-yy", 4, CLP_ALIAS_FLAG},
        CLP_END_MUTUAL_EXCLUSION,   CLP_END_OF_FLAGS,
    };
    EXPECT_EQ(flags_of({"-a", "-y"}, t), (std::vector<long>{1, 4, -2}));
    std::string err = stderr_of([] { EXPECT_EQ(flags_of({"-b", "-x", "-yy"}, t), (std::vector<long>{2, 3, -1})); });
    EXPECT_NE(err.find("\"-y\" and \"-x\""), std::string::npos) << err;
}

TEST(ClpGroups, AliasResolvesWithinItsGroup)
{
    // Two flags of one value may live in different groups; each alias takes
    // the partner of its own group.
    static const clp_flag_desc_t t[] = {
        {"-z", 9, CLP_ALIAS_FLAG}, {"-p", 9, 0},
        CLP_START_MUTUAL_EXCLUSION, {"-w", 9, CLP_ALIAS_FLAG}, {"-k", 5, 0}, CLP_END_MUTUAL_EXCLUSION,
        CLP_END_OF_FLAGS,
    };
    // -z has no partner behind it and finds -p ahead; -w finds nothing back to
    // its group start, then -p lies beyond the group end: no partner.
    EXPECT_DEATH(flags_of({"-z"}, t), "alias flag \"-w\" defined without a non-alias flag");
    static const clp_flag_desc_t ok[] = {
        {"-p", 9, 0}, {"-z", 9, CLP_ALIAS_FLAG},
        CLP_START_MUTUAL_EXCLUSION, {"-k", 5, 0}, {"-w", 5, CLP_ALIAS_FLAG}, {"-j", 6, 0}, CLP_END_MUTUAL_EXCLUSION,
        CLP_END_OF_FLAGS,
    };
    std::string err = stderr_of([] { EXPECT_EQ(flags_of({"-z", "-w", "-j"}, ok), (std::vector<long>{9, 5, -1})); });
    EXPECT_NE(err.find("\"-j\" and \"-k\""), std::string::npos) << err;
}

// ---- the obsolete policy ----

TEST(ClpObsolete, FailModeMakesObsoleteFlagsErrors)
{
    setenv("OTTERMERE_OBSO_SYN", "fAiL", 1);
    std::string err = stderr_of([] {
        EXPECT_EQ(flags_of({"-old"}), (std::vector<long>{-1}));
        EXPECT_EQ(clp_check_obsolete(), 1);
    });
    EXPECT_NE(err.find("Obsolete command or flag: \"-o[ld]\""), std::string::npos) << err;
    EXPECT_NE(err.find("Obsolete syntax was used."), std::string::npos) << err;
}

TEST(ClpObsolete, UnsetWarnsAndGoesOn)
{
    unsetenv("OTTERMERE_OBSO_SYN");
    std::string err = stderr_of([] {
        EXPECT_EQ(flags_of({"-o", "-c"}), (std::vector<long>{V_OLD, V_COMMENT, -2}));
        // The alias's own bit counts: -fo is obsolete, -f is not.
        EXPECT_EQ(flags_of({"-f"}), (std::vector<long>{V_FORCE, -2}));
        EXPECT_EQ(clp_check_obsolete(), 0);
    });
    EXPECT_NE(err.find("Obsolete command or flag: \"-o[ld]\""), std::string::npos) << err;
    EXPECT_EQ(err.find("-f[orce]"), std::string::npos) << err;
    EXPECT_NE(err.find("Obsolete syntax was used."), std::string::npos) << err;

    err = stderr_of([] { EXPECT_EQ(flags_of({"-forget"}), (std::vector<long>{V_FORCE, -2})); });
    EXPECT_NE(err.find("Obsolete command or flag: \"-f[orce]\""), std::string::npos) << err;
}

TEST(ClpObsolete, WarnAndOtherValues)
{
    setenv("OTTERMERE_OBSO_SYN", "warn", 1);
    std::string err = stderr_of([] { EXPECT_EQ(flags_of({"-o"}), (std::vector<long>{V_OLD, -2})); });
    EXPECT_NE(err.find("Obsolete command or flag"), std::string::npos) << err;
    setenv("OTTERMERE_OBSO_SYN", "quiet", 1);
    err = stderr_of([] {
        EXPECT_EQ(flags_of({"-o"}), (std::vector<long>{V_OLD, -2}));
        EXPECT_EQ(clp_check_obsolete(), 0);
    });
    EXPECT_EQ(err, "");
}

// ---- sub-arguments, last flag name ----

TEST(ClpSubarg, CommaListsOfWords)
{
    Argv a({"cmd", "x,y", "z"});
    clp_hdl_t *h = clp_create_hdl_using_argv(a.argc(), a.argv(), kFlags, nullptr);
    char *arg, *sub;
    clp_get_next_arg(h, &arg);
    EXPECT_EQ(clp_get_next_subarg(h, &sub), 0);
    EXPECT_STREQ(sub, "x");
    EXPECT_EQ(clp_get_next_subarg(h, &sub), 0);
    EXPECT_STREQ(sub, "y");
    EXPECT_EQ(clp_get_next_subarg(h, &sub), 2);
    EXPECT_EQ(sub, nullptr);
    EXPECT_EQ(clp_get_next_subarg(h, &sub), 0);
    EXPECT_STREQ(sub, "z");
    EXPECT_EQ(clp_get_next_subarg(h, &sub), 2);
    EXPECT_EQ(clp_get_next_subarg(h, &sub), 2);
    EXPECT_STREQ(a.argv()[1], "x");  // the caller's word was cut in place
    clp_destroy_hdl(&h);
}

TEST(ClpSubarg, AfterAFlag)
{
    Argv a({"cmd", "-c", "a,,b", "next"});
    clp_hdl_t *h = clp_create_hdl_using_argv(a.argc(), a.argv(), kFlags, nullptr);
    char *arg, *sub;
    uint32_t v;
    clp_get_next_arg(h, &arg);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 0);
    std::vector<std::string> got;
    while (clp_get_next_subarg(h, &sub) == 0)
        got.push_back(sub);
    EXPECT_EQ(got, (words{"a", "", "b"}));
    EXPECT_EQ(clp_get_next_arg(h, &arg), 0);
    EXPECT_STREQ(arg, "next");
    clp_destroy_hdl(&h);
}

TEST(ClpLastFlag, NameStrippedAndCut)
{
    Argv a({"cmd", "-comm"});
    clp_hdl_t *h = clp_create_hdl_using_argv(a.argc(), a.argv(), kFlags, nullptr);
    char buf[64] = "untouched";
    char *arg;
    uint32_t v;
    EXPECT_EQ(clp_get_last_flag_name(h, 0, buf, 0), 2);
    EXPECT_STREQ(buf, "untouched");
    EXPECT_EQ(clp_get_last_flag_name(h, 0, buf, sizeof buf), 2);
    clp_get_next_arg(h, &arg);
    clp_get_next_flag_value(h, 0, &v);
    EXPECT_EQ(clp_get_last_flag_name(h, 0, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "-c[omment]");
    EXPECT_EQ(clp_get_last_flag_name(h, 1, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "-comment");
    EXPECT_EQ(clp_get_last_flag_name(h, 1, buf, 4), 0);
    EXPECT_STREQ(buf, "-co");
    EXPECT_EQ(clp_get_last_flag_name(h, 0, buf, 1), 0);
    EXPECT_STREQ(buf, "");
    clp_destroy_hdl(&h);
}

// ---- save, restore, switch ----

TEST(ClpSave, RestoreKeepsSeenFlags)
{
    Argv a({"cmd", "-a", "-c", "arg"});
    clp_hdl_t *h = clp_create_hdl_using_argv(a.argc(), a.argv(), kFlags, nullptr);
    char *arg;
    uint32_t v;
    clp_get_next_arg(h, &arg);
    clp_hdl_t *saved = clp_save_hdl(h);
    ASSERT_NE(saved, nullptr);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 0);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 0);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 2);
    clp_restore_hdl(h, saved);
    // Back at -a, but -a stays marked seen.
    std::string err = stderr_of([&] { EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 1); });
    EXPECT_NE(err.find("Illegal duplicate use of flag \"-a[ll]\""), std::string::npos) << err;
    EXPECT_EQ(clp_get_next_arg(h, &arg), 0);
    EXPECT_STREQ(arg, "-a");
    clp_destroy_hdl(&h);
}

TEST(ClpSwitch, NewTableKeepsThePosition)
{
    static const clp_flag_desc_t sub[] = {{"-a[ll]", 42, 0}, CLP_END_OF_FLAGS};
    Argv a({"cmd", "-a", "-a", "x"});
    clp_hdl_t *h = clp_create_hdl_using_argv(a.argc(), a.argv(), kFlags, nullptr);
    char *arg;
    uint32_t v;
    char buf[32];
    clp_get_next_arg(h, &arg);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 0);
    EXPECT_EQ(v, (uint32_t)V_ALL);
    EXPECT_EQ(clp_switch_flags(h, sub, STG_AREA_NULL), 0);
    EXPECT_EQ(clp_get_last_flag_name(h, 0, buf, sizeof buf), 2);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 0);  // fresh seen table
    EXPECT_EQ(v, 42u);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 2);
    clp_destroy_hdl(&h);
}

TEST(ClpSwitch, NeedsAnArea)
{
    static const clp_flag_desc_t sub[] = {{"-a", 1, 0}, CLP_END_OF_FLAGS};
    static const clp_flag_desc_t dup[] = {{"-a", 1, 0}, {"-b", 1, 0}, CLP_END_OF_FLAGS};
    stg_area_t area = stg_create_area(4096);
    Argv a({"cmd", "-a"});
    clp_hdl_t *h = clp_create_hdl_using_argv(a.argc(), a.argv(), kFlags, area);
    ASSERT_NE(h, nullptr);
    std::string err = stderr_of([&] { EXPECT_EQ(clp_switch_flags(h, sub, STG_AREA_NULL), 1); });
    EXPECT_NE(err.find("NULL STORAGE AREA: Cannot switch parsing flags"), std::string::npos) << err;
    EXPECT_EQ(clp_switch_flags(h, sub, area), 0);
    err = stderr_of([&] { EXPECT_EQ(clp_switch_flags(h, dup, area), 1); });
    EXPECT_NE(err.find("Bad flag descriptors: \"-a\" and \"-b\" have the same value"), std::string::npos) << err;
    clp_destroy_hdl(&h);  // the area is the caller's: it stays
    EXPECT_EQ(h, nullptr);
    stg_delete_area(&area);
}

// ---- descriptor tables and handles that end the process ----

TEST(ClpTableDeathTest, StructuralErrorsAbort)
{
    static const clp_flag_desc_t nested[] = {
        CLP_START_MUTUAL_EXCLUSION, {"-a", 1, 0}, CLP_START_MUTUAL_EXCLUSION, CLP_END_OF_FLAGS};
    static const clp_flag_desc_t stray[] = {{"-a", 1, 0}, CLP_END_MUTUAL_EXCLUSION, CLP_END_OF_FLAGS};
    static const clp_flag_desc_t lone[] = {{"-c[omment]", 1, 0}, {"-nc", 7, CLP_ALIAS_FLAG}, CLP_END_OF_FLAGS};
    Argv a({"cmd"});
    EXPECT_DEATH(clp_create_hdl_using_argv(a.argc(), a.argv(), nested, nullptr),
                 "cannot have nested CLP_START_MUTUAL_EXCLUSIONs");
    EXPECT_DEATH(clp_create_hdl_using_argv(a.argc(), a.argv(), stray, nullptr),
                 "CLP_END_MUTUAL_EXCLUSION without matching CLP_START_MUTUAL_EXCLUSION");
    EXPECT_DEATH(clp_create_hdl_using_argv(a.argc(), a.argv(), lone, nullptr),
                 "alias flag \"-nc\" defined without a non-alias flag with the same value");
    EXPECT_DEATH(clp_create_hdl_using_string("cmd -x", lone, nullptr), "alias flag \"-nc\"");
}

TEST(ClpTable, SameValueFailsWithoutAborting)
{
    static const clp_flag_desc_t dup[] = {{"-a", 1, 0}, {"-b", 2, 0}, {"-c", 1, 0}, CLP_END_OF_FLAGS};
    Argv a({"cmd"});
    std::string err = stderr_of([&] {
        EXPECT_EQ(clp_create_hdl_using_argv(a.argc(), a.argv(), dup, nullptr), nullptr);
        stg_area_t area = stg_create_area(100);
        EXPECT_EQ(clp_create_hdl_using_string("cmd", dup, area), nullptr);
        stg_delete_area(&area);
    });
    EXPECT_NE(err.find("Bad flag descriptors: \"-a\" and \"-c\" have the same value. Define one as CLP_ALIAS_FLAG"),
              std::string::npos)
        << err;
}

TEST(ClpHandleDeathTest, BadHandlesAbortWithTheirMessage)
{
    uint32_t fake[32] = {0};
    clp_hdl_t *bad = reinterpret_cast<clp_hdl_t *>(fake);
    uint32_t v;
    char *arg;
    EXPECT_DEATH(clp_get_next_flag_value(nullptr, 0, &v), "NULL HANDLE: Command line parsing handle");
    EXPECT_DEATH(clp_get_next_arg(nullptr, &arg), "NULL HANDLE: Command line parsing handle");
    EXPECT_DEATH(clp_get_next_flag_value(bad, 0, &v), "BAD MAGIC: Command line parsing handle");
    EXPECT_DEATH(clp_get_argc(bad), "BAD MAGIC: Command line parsing handle");
    EXPECT_DEATH(clp_destroy_hdl(&bad), "BAD MAGIC: Command line parsing handle");

    Argv a({"cmd", "-a"});
    clp_hdl_t *nodesc = clp_create_hdl_using_argv(a.argc(), a.argv(), nullptr, nullptr);
    ASSERT_NE(nodesc, nullptr);
    EXPECT_DEATH(clp_get_next_flag_value(nodesc, 0, &v), "BAD FLAGS PTR: Command line parsing handle");
    clp_destroy_hdl(&nodesc);

    clp_hdl_t *noargv = clp_create_hdl_using_argv(0, nullptr, kFlags, nullptr);
    ASSERT_NE(noargv, nullptr);
    EXPECT_DEATH(clp_get_next_flag_value(noargv, 0, &v), "BAD ARGV PTR: Command line parsing handle");
    clp_destroy_hdl(&noargv);

    char c0[] = "cmd";
    char *holes[] = {c0, nullptr, nullptr};
    clp_hdl_t *hole = clp_create_hdl_using_argv(2, holes, kFlags, nullptr);
    clp_get_next_arg(hole, &arg);
    EXPECT_DEATH(clp_get_next_flag_value(hole, 0, &v), "BAD ARGV ARRAY: Command line parsing handle");
    clp_destroy_hdl(&hole);

    clp_hdl_t *none = nullptr;
    clp_destroy_hdl(&none);  // ignored
}

// ---- splitting command strings ----

TEST(ClpParseString, QuotingTable)
{
    struct {
        const char *text;
        words want;
    } cases[] = {
        {"", {}},
        {"  \t\n ", {}},
        {"a b", {"a", "b"}},
        {"  a \t b\n", {"a", "b"}},
        // A closing quote ends the token at once.
        {"\"ab\"cd", {"ab", "cd"}},
        {"ab\"cd ef\"gh", {"abcd ef", "gh"}},
        {"'a b' c", {"a b", "c"}},
        {"\"it's\"", {"it's"}},
        // Outside quotes a backslash takes a quote or a backslash literally.
        {"a\\\"b", {"a\"b"}},
        {"a\\'b", {"a'b"}},
        {"a\\\\b", {"a\\b"}},
        {"a\\xb \\", {"a\\xb", "\\"}},
        // Inside quotes it keeps both characters.
        {"\"a\\\"b\"", {"a\\\"b"}},
        {"'a\\\\b'", {"a\\\\b"}},
        {"\"a\\nb\"", {"a\\nb"}},
        // An empty token ends the list.
        {"a \"\" b", {"a"}},
        {"\"\"", {}},
    };
    for (const auto &c : cases) {
        int rc = -1;
        EXPECT_EQ(split(c.text, &rc), c.want) << "text: " << c.text;
        EXPECT_EQ(rc, 0) << "text: " << c.text;
    }
}

TEST(ClpParseString, UnterminatedQuoteFails)
{
    const char *bad[] = {"\"abc", "a 'b c", "'a\\'", "x \"a\\\""};
    for (const char *t : bad) {
        std::string err = stderr_of([t] {
            int rc = -1;
            EXPECT_EQ(split(t, &rc), words{});
            EXPECT_EQ(rc, 1);
            EXPECT_EQ(clp_create_hdl_using_string(t, kFlags, nullptr), nullptr);
        });
        EXPECT_NE(err.find("Bad command line: unterminated quoted string"), std::string::npos) << t << err;
    }
}

TEST(ClpParseString, MultibyteCharactersAreCopiedWhole)
{
    ASSERT_NE(setlocale(LC_ALL, "ja_JP.SJIS"), nullptr);
    // The second byte of 0x95 0x5C is a backslash: it must not escape the quote.
    EXPECT_EQ(split("\x95\x5C\" x"), (words{}));  // the lone quote is unterminated
    EXPECT_EQ(split("\"\x95\x5C\" x"), (words{"\x95\x5C", "x"}));
    EXPECT_EQ(split("a\x95\x5C'b"), (words{}));
    setlocale(LC_ALL, "C");
}

TEST(ClpParseString, HeapWhenNoArea)
{
    int argc = 0;
    char **argv = nullptr;
    ASSERT_EQ(clp_parse_string("one 'two three'", nullptr, &argc, &argv), 0);
    ASSERT_EQ(argc, 2);
    EXPECT_STREQ(argv[1], "two three");
    for (int i = 0; i < argc; i++)
        stg_free(argv[i]);
    stg_free(argv);
    EXPECT_EQ(clp_parse_string("a 'b", nullptr, &argc, &argv), 1);
}

TEST(ClpParseString, HeapPseudoAreaLosesNothing)
{
    // Three tokens in one run make the vector grow; the unterminated text
    // fails after two words; the rebuilt string fails on an open quote.  None
    // may leave a block behind (also checked by the leak sanitizer).
    auto once = [] {
        int argc = 0;
        char **argv = nullptr;
        ASSERT_EQ(clp_parse_string("'a''b''c'", STG_AREA_HEAP, &argc, &argv), 0);
        ASSERT_EQ(argc, 3);
        EXPECT_STREQ(argv[2], "c");
        for (int k = 0; k < argc; k++)
            stg_free(argv[k]);
        stg_free(argv);
        testing::internal::CaptureStderr();
        EXPECT_EQ(clp_parse_string("a b 'c", STG_AREA_HEAP, &argc, &argv), 1);
        EXPECT_EQ(argc, 0);
        EXPECT_EQ(argv, nullptr);
        Argv bad({"ok", "'open"});
        char *text = nullptr;
        EXPECT_EQ(clp_argv_to_string(bad.argc(), bad.argv(), STG_AREA_HEAP, 0, &text), 1);
        EXPECT_NE(testing::internal::GetCapturedStderr().find("unterminated quoted string"), std::string::npos);
    };
    once();
    once();
    struct mallinfo2 before = mallinfo2();
    for (int i = 0; i < 50; i++)
        once();
    EXPECT_EQ(mallinfo2().uordblks, before.uordblks);
}

TEST(ClpParseString, LongWordsAndLines)
{
    // Many tokens in one run (each closing quote ends one) outgrow the estimate.
    std::string many;
    for (int i = 0; i < 5000; i++)
        many += "'t'";
    EXPECT_EQ(split(many.c_str()).size(), 5000u);

    std::string longest(CLP_MAX_TOKEN, 'w');
    std::string text = "cmd " + longest + " '" + longest + "'";
    words got = split(text.c_str());
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[2], longest);

    // One byte more is refused, with a message, quoted or not.
    std::string too_long(CLP_MAX_TOKEN + 1, 'w');
    for (std::string t : {too_long, "\"" + too_long + "\"", "a " + too_long + "\\\""}) {
        std::string err = stderr_of([&] {
            int rc = -1;
            EXPECT_EQ(split(t.c_str(), &rc), words{});
            EXPECT_EQ(rc, 1);
        });
        EXPECT_NE(err.find("longer than"), std::string::npos) << err;
    }
}

TEST(ClpParseString, HandleOverAString)
{
    clp_hdl_t *h = clp_create_hdl_using_string("list -c 'my file' -v", kFlags, nullptr);
    ASSERT_NE(h, nullptr);
    char *arg;
    uint32_t v;
    EXPECT_EQ(clp_get_argc(h), 4);
    EXPECT_EQ(clp_get_command_name(h, &arg), 0);
    EXPECT_STREQ(arg, "list");
    clp_get_next_arg(h, &arg);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 0);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 2);
    EXPECT_EQ(clp_get_next_arg(h, &arg), 0);
    EXPECT_STREQ(arg, "my file");
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 0);
    EXPECT_EQ(v, (uint32_t)V_VERBOSE);
    clp_destroy_hdl(&h);

    h = clp_create_hdl_using_string("", kFlags, nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(clp_get_argc(h), 0);
    EXPECT_EQ(clp_get_command_name(h, &arg), 0);
    EXPECT_EQ(arg, nullptr);
    EXPECT_EQ(clp_get_next_flag_value(h, 0, &v), 2);
    EXPECT_EQ(clp_get_next_arg(h, &arg), 2);
    clp_destroy_hdl(&h);
}

// ---- rebuilding command strings ----

TEST(ClpArgvToString, QuotesAndEscapes)
{
    Argv a({"a", "b c", "?x", "'q r'", "\"d\"", "tab\there", "plain-word"});
    stg_area_t area = stg_create_area(100);
    char *text = nullptr;
    ASSERT_EQ(clp_argv_to_string(a.argc(), a.argv(), area, '\\', &text), 0);
    EXPECT_STREQ(text, "a \"b c\" \"?x\" \\'q r\\' \\\"d\\\" \"tab\there\" plain-word");
    ASSERT_EQ(clp_argv_to_string(a.argc(), a.argv(), area, 0, &text), 0);
    EXPECT_STREQ(text, "a \"b c\" \"?x\" 'q r' \"d\" \"tab\there\" plain-word");
    ASSERT_EQ(clp_argv_to_string(0, nullptr, area, 0, &text), 0);
    EXPECT_STREQ(text, "");
    for (const char *special : {"~", "*", "[", "]", "\r", "\n"}) {
        Argv one({std::string("x") + special});
        ASSERT_EQ(clp_argv_to_string(1, one.argv(), area, 0, &text), 0);
        EXPECT_EQ(std::string(text), "\"x" + std::string(special) + "\"");
    }
    stg_delete_area(&area);
}

TEST(ClpArgvToString, TrailBytesAreNotSpecial)
{
    ASSERT_NE(setlocale(LC_ALL, "ja_JP.SJIS"), nullptr);
    // 0x81 0x5B and 0x83 0x7E are whole characters whose second bytes are "[" and "~".
    Argv a({"\x81\x5B", "a\x83\x7E", "\x81\x5B x"});
    stg_area_t area = stg_create_area(100);
    char *text = nullptr;
    ASSERT_EQ(clp_argv_to_string(a.argc(), a.argv(), area, 0, &text), 0);
    EXPECT_STREQ(text, "\x81\x5B a\x83\x7E \"\x81\x5B x\"");
    EXPECT_EQ(split(text), (words{"\x81\x5B", "a\x83\x7E", "\x81\x5B x"}));
    stg_delete_area(&area);
    setlocale(LC_ALL, "C");
}

TEST(ClpArgvToString, UnclosedQuoteFails)
{
    std::string err = stderr_of([] {
        for (const char *w : {"'abc", "\"", "'abc\""}) {
            Argv a({"ok", w});
            char *text = reinterpret_cast<char *>(1);
            EXPECT_EQ(clp_argv_to_string(a.argc(), a.argv(), nullptr, '\\', &text), 1);
            EXPECT_EQ(text, nullptr);
        }
    });
    EXPECT_NE(err.find("Bad command line: unterminated quoted string"), std::string::npos) << err;
}

TEST(ClpArgvToString, RoundTripOfRandomWords)
{
    static const char alphabet[] = "abcXYZ019-_=.,/:;+%@!#$^&()<>{}| \t\r\n?*~[]";
    std::mt19937 rng(20240917);
    stg_area_t area = stg_create_area(4096);
    for (int round = 0; round < 2000; round++) {
        words w(1 + rng() % 12);
        for (auto &s : w) {
            size_t len = 1 + rng() % 10;
            for (size_t i = 0; i < len; i++)
                s += alphabet[rng() % (sizeof alphabet - 1)];
        }
        Argv a(w);
        char *text = nullptr;
        ASSERT_EQ(clp_argv_to_string(a.argc(), a.argv(), area, 0, &text), 0);
        int argc = 0;
        char **argv = nullptr;
        ASSERT_EQ(clp_parse_string(text, area, &argc, &argv), 0) << text;
        words back(argv, argv + argc);
        ASSERT_EQ(back, w) << "text: " << text;
        stg_free_area(area, 1);
    }
    stg_delete_area(&area);
}

// ---- the command stack ----

TEST(ClpCmdStack, NamesAndGenerations)
{
    uint32_t gen = 0;
    const char *s = clp_get_cmd_stack(&gen);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "");
    EXPECT_EQ(clp_get_cmd_stack(&gen), nullptr);  // nothing changed
    clp_push_cmd("db");
    clp_push_cmd("list");
    s = clp_get_cmd_stack(&gen);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "db:list:");
    EXPECT_EQ(clp_get_cmd_stack(&gen), nullptr);
    uint32_t other = gen - 1;
    EXPECT_STREQ(clp_get_cmd_stack(&other), "db:list:");
    EXPECT_EQ(other, gen);
    clp_pop_cmd();
    EXPECT_STREQ(clp_get_cmd_stack(&gen), "db:");
    clp_pop_cmd();
    EXPECT_STREQ(clp_get_cmd_stack(&gen), "");
}

TEST(ClpCmdStack, DepthOfTen)
{
    uint32_t gen = 0;
    for (int i = 0; i < 11; i++)
        clp_push_cmd(std::to_string(i).c_str());
    EXPECT_STREQ(clp_get_cmd_stack(&gen), "0:1:2:3:4:5:6:7:8:9:");
    clp_pop_cmd();  // the 11th was not stored: the ten stay
    EXPECT_EQ(clp_get_cmd_stack(&gen), nullptr);
    clp_pop_cmd();
    EXPECT_STREQ(clp_get_cmd_stack(&gen), "0:1:2:3:4:5:6:7:8:");
    for (int i = 0; i < 9; i++)
        clp_pop_cmd();
    EXPECT_STREQ(clp_get_cmd_stack(&gen), "");
}

TEST(ClpCmdStackDeathTest, LongStackFailsTheAssertion)
{
    std::string name(124, 'n');
    clp_push_cmd(name.c_str());
    clp_push_cmd(name.c_str());  // 2 * 125 = 250 characters
    uint32_t gen = 0;
    EXPECT_DEATH(clp_get_cmd_stack(&gen), "ptr < CLP_MAX_STACK_STRING");
    clp_pop_cmd();
    clp_push_cmd(std::string(123, 'm').c_str());  // 249: fits
    const char *s = clp_get_cmd_stack(&gen);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(strlen(s), 249u);
    clp_push_cmd(std::string(1000, 'x').c_str());
    EXPECT_DEATH(clp_get_cmd_stack(&gen), "ptr < CLP_MAX_STACK_STRING");
}

// ---- the current command and the history log ----

namespace {

// A host data directory with a log directory; collect_history on request.
class HostData {
public:
    explicit HostData(bool collect)
    {
        mkdir(dir_.file("config").c_str(), 0755);
        mkdir(dir_.file("log").c_str(), 0755);
        if (collect)
            ks_test::write_file(dir_.file("config/collect_history"), "");
        setenv("OTTER_HOSTDATA_DIR", dir_.path().c_str(), 1);
    }
    std::string history() const
    {
        std::string p = dir_.file("log/ottermere_history");
        return access(p.c_str(), F_OK) == 0 ? ks_test::read_file(p) : std::string("<none>");
    }
    const ks_test::temp_dir &dir() const { return dir_; }

private:
    ks_test::temp_dir dir_;
};

// 2021-03-04 05:06:07.089 UTC
constexpr time_t kNow = 1614834367;
constexpr long kNowUsec = 89123;

} // namespace

TEST(ClpHistory, CommandTextIsKeptWithoutCollecting)
{
    HostData host(false);
    EXPECT_STREQ(clp_get_command(), "No command");
    Argv a({"-c", "two words"});
    clp_log_cl_args("ktool", a.argc(), a.argv());
    EXPECT_STREQ(clp_get_command(), "ktool '-c' 'two words'");
    EXPECT_EQ(host.history(), "<none>");
}

TEST(ClpHistory, LineLayout)
{
    HostData host(true);
    ks::clock_fix(kNow, kNowUsec);
    Argv a({"-c", "x y"});
    clp_log_cl_args("ktool", a.argc(), a.argv());
    char cwd[1024];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    std::string want = "2021:03:04:05:06:07.089 (" + std::to_string(getpid()) + ") ktool '-c' 'x y' in " + cwd + " \n";
    EXPECT_EQ(host.history(), want);

    Argv h({"log", "-v"});
    clp_hdl_t *hdl = clp_create_hdl_using_argv(h.argc(), h.argv(), kFlags, nullptr);
    clp_log_command("ktool log", hdl);
    clp_destroy_hdl(&hdl);
    EXPECT_STREQ(clp_get_command(), "ktool log '-v'");
    std::string all = host.history();
    regex_t line;
    ASSERT_EQ(regcomp(&line, "^[0-9]{4}(:[0-9]{2}){5}\\.[0-9]{3} \\([0-9]+\\) [^\n]* in /[^\n]* \n$", REG_EXTENDED), 0);
    EXPECT_EQ(regexec(&line, all.substr(want.size()).c_str(), 0, nullptr, 0), 0) << all;
    EXPECT_NE(regexec(&line, ("x" + all.substr(want.size())).c_str(), 0, nullptr, 0), 0);
    regfree(&line);
    EXPECT_NE(all.find("ktool log '-v' in "), std::string::npos);
    ks::clock_release();
}

TEST(ClpHistory, LineWithoutAWorkingDirectory)
{
    HostData host(true);
    ks::clock_fix(kNow, kNowUsec);
    ks_test::temp_dir gone;
    std::string sub = gone.file("sub");
    ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
    ASSERT_EQ(chdir(sub.c_str()), 0);
    ASSERT_EQ(rmdir(sub.c_str()), 0);
    char cwd[1024];
    ASSERT_EQ(getcwd(cwd, sizeof cwd), nullptr);
    clp_log_cl_args("ktool", 0, nullptr);
    EXPECT_EQ(host.history(), "2021:03:04:05:06:07.089 (" + std::to_string(getpid()) + ") ktool \n");
    ks::clock_release();
}

TEST(ClpHistory, CutAt256Characters)
{
    HostData host(false);
    std::string arg(100, 'a');
    Argv a({arg, arg, arg});
    clp_log_cl_args("cmd", a.argc(), a.argv());
    // "cmd" + 2 * 103 = 209; a third argument would reach 312.
    EXPECT_EQ(std::string(clp_get_command()), "cmd '" + arg + "' '" + arg + "'");

    std::string fits(256 - 3 - 3, 'f');  // exactly 256 characters in all
    Argv b({fits, "x"});
    clp_log_cl_args("cmd", b.argc(), b.argv());
    EXPECT_EQ(strlen(clp_get_command()), 256u);

    std::string huge(5000, 'h');
    clp_log_cl_args(huge.c_str(), b.argc(), b.argv());
    EXPECT_EQ(std::string(clp_get_command()), std::string(256, 'h'));
}

TEST(ClpHistory, DataLines)
{
    HostData host(true);
    ks::clock_fix(kNow, kNowUsec);
    clp_collectdatai("count", 42);
    clp_collectdatai("plain", 0);
    clp_collectdatas("tag", "some text");
    clp_collectdata_cleanup();
    char data[64];
    snprintf(data, sizeof data, "%s %20d", "count", 42);
    std::string want = std::string("2021:03:04:05:06:07.089 count '") + data + "': \n" +
                       "2021:03:04:05:06:07.089 plain 'plain': \n" +
                       "2021:03:04:05:06:07.089 tag 'some text': \n";
    EXPECT_EQ(host.history(), want);
    ks::clock_release();
}

TEST(ClpHistory, CollectingIsDecidedOncePerProcess)
{
    HostData host(false);
    clp_collectdatai("before", 1);
    clp_collectdatas("before", "x");
    ks_test::write_file(host.dir().file("config/collect_history"), "");
    clp_collectdatai("after", 1);
    clp_collectdatas("after", "x");
    EXPECT_EQ(host.history(), "<none>");
    // The command log looks again every time.
    clp_log_cl_args("cmd", 0, nullptr);
    EXPECT_NE(host.history().find(") cmd in "), std::string::npos) << host.history();
}

TEST(ClpHistory, MissingLogDirectoryIsSkipped)
{
    ks_test::temp_dir dir;
    mkdir(dir.file("config").c_str(), 0755);
    ks_test::write_file(dir.file("config/collect_history"), "");
    setenv("OTTER_HOSTDATA_DIR", dir.path().c_str(), 1);
    clp_log_cl_args("cmd", 0, nullptr);
    clp_collectdatas("t", "x");
    EXPECT_STREQ(clp_get_command(), "cmd");
    EXPECT_NE(access(dir.file("config").c_str(), F_OK), -1);
    EXPECT_EQ(access(dir.file("log").c_str(), F_OK), -1);
}
