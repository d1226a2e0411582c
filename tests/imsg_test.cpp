// The message layer: catalogue look-up and its two-slot cache, prefixes,
// printing and its failure paths, styled writing on real terminals, trace
// decisions and the formatters into memory.
#include <errno.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <pty.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "imsg_testing.h"
#include "ks/date.h"
#include "ks/imsg.h"
#include "ks_internal.h"
#include "ks_test_util.h"

#include <curses.h>
#include <term.h>

namespace {

const char nowhere[] = "/nonexistent/ks_imsg_test/%N.cat";
const char test_nls[] = KS_TEST_NLS "/%N.cat";

// Tables of two other catalogue names (tests/data/imsg_other.msg and
// imsg_third.msg).
const char *const other_texts[] = {"other text %d\n"};
const char *const third_texts[] = {"third text %d\n"};
const int16_t one_number[] = {1};
const imsg_msg_table_t other_table = {"imsg_other", "other", 1, 1, other_texts, one_number};
const imsg_msg_table_t third_table = {"imsg_third", "third", 1, 1, third_texts, one_number};

// Index 2 of the ks table: "Operation %s: %s\n" (catalogue number 4).
const int ks_operation = 2;

std::string internal_error(const char *where, const imsg_msg_table_t *t, int num)
{
    return "mytool: Error: IMSG Internal error (" + std::string(where) + ") - tbl " +
           std::to_string(reinterpret_cast<intptr_t>(t)) + ", num " + std::to_string(num) + ".\n";
}

// imsg_set_app_name records the command line, which needs a host data
// directory: each case gets an empty one.
class Imsg : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char *v : {"PRINT_SUBSYS", "PRINT_SUBSYS_OK", "IMSG_IO_INTERLEAVE", "OTTERMERE_IMSG_CAPTURE_LOG",
                              "TRACE_VERBOSITY", "TRACE_SUBSYS", "IMSG_DUP_OUTPUT", "ORVIN_NO_BOLD",
                              "OTTERMERE_ENABLE_ATE_MESSAGES", "ORVIN_FORCE_GUI", "ORVIN_WEB_GUI"})
            unsetenv(v);
        setenv("NLSPATH", nowhere, 1);
        setenv("OTTER_HOSTDATA_DIR", hostdata.path().c_str(), 1);
    }
    ks_test::temp_dir hostdata;
};

// ---- catalogue look-up ----

// One look-up of a scripted cache run (where the catalogues are, the time),
// whether the text came translated, and what the two slots ("-": empty) and
// the open count are afterwards.
struct lookup {
    const imsg_msg_table_t *table; const char *nlspath; long sec, usec; bool translated; const char *slots; int opens;
};

void play(std::initializer_list<lookup> steps)
{
    int step = 0;
    for (const lookup &s : steps) {
        setenv("NLSPATH", s.nlspath, 1);
        ks::clock_fix(s.sec, s.usec);
        int index = s.table == &_ks_ks_msg_table ? ks_operation : 0;
        bool translated = cat_extractmsg(s.table, index) != s.table->texts[index];
        const char *n0 = ks::imsg_catalog_slot_name_for_testing(0), *n1 = ks::imsg_catalog_slot_name_for_testing(1);
        EXPECT_EQ(std::to_string(translated) + " " + (n0 ? n0 : "-") + " " + (n1 ? n1 : "-") + " " +
                      std::to_string(ks::imsg_catalog_open_count_for_testing()),
                  std::to_string(s.translated) + " " + s.slots + " " + std::to_string(s.opens))
            << "step " << step++;
    }
}

TEST_F(Imsg, DefaultTextsWithoutCatalogueAndTheFailedOpenIsKept)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("a/b/mytool");
        imsg_print(IMSG_ERROR, &_ks_ks_msg_table, ks_operation, "open", strerror(ENOENT));
        return imsg_print(IMSG_WARNING, "careful %d\n", -1, 7) < 0;
    });
    EXPECT_EQ(r.err, "mytool: Error: Operation open: No such file or directory\nmytool: Warning: careful 7\n");
    EXPECT_EQ(r.out, "");
    // Tables of one catalogue name share the slot; the catalogue appearing
    // later changes nothing: the failed slot is not reopened.
    play({{&_stg_ks_msg_table, nowhere, 1, 0, false, "ks_lib -", 1},
          {&_ks_ks_msg_table, test_nls, 2, 0, false, "ks_lib -", 1}});
}

TEST_F(Imsg, TranslatedCatalogueSuppliesTextsAndTheSeverityWordsOnce)
{
    setenv("NLSPATH", test_nls, 1);
    ks::clock_fix(1000, 0);
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        imsg_print(IMSG_ERROR, &_ks_ks_msg_table, ks_operation, "open", "weg");
        return imsg_print(IMSG_WARNING, &_imsg_ks_msg_table, 1) < 0;
    });
    EXPECT_EQ(r.err, "mytool: Fehler: Vorgang open: weg\nmytool: Warnung: Logging internal error to log file\n");
    // A message missing from the catalogue falls back to its built-in text.
    EXPECT_STREQ(imsg_strerror_gethost(1), "Rechner nicht gefunden");
    EXPECT_STREQ(imsg_strerror_gethost(4), "Valid name, no data record of requested type");
    EXPECT_STREQ(imsg_prefix_format(IMSG_ERROR, 0), "%s: Fehler: ");
    // Push ks_lib out of both slots, then reopen it where it does not exist:
    // the texts are English again, the words are not.
    play({{&other_table, test_nls, 1001, 0, true, "ks_lib imsg_other", 2},
          {&third_table, test_nls, 1002, 0, true, "imsg_third imsg_other", 3},
          {&_ks_ks_msg_table, nowhere, 1003, 0, false, "imsg_third ks_lib", 4}});
    EXPECT_STREQ(imsg_prefix_format(IMSG_WARNING, 1), "%s/%s: Warnung: ");
}

TEST_F(Imsg, TwoCataloguesShareTheSlotsWithoutReopening)
{
    setenv("NLSPATH", test_nls, 1);
    char buf[64];
    for (int i = 0; i < 10; i++) {
        EXPECT_STREQ(cat_extractmsg(&_ks_ks_msg_table, ks_operation), "Vorgang %s: %s\n");
        EXPECT_EQ(imsg_snprintf(buf, sizeof buf, &other_table, 0, i), 15);
        EXPECT_EQ(std::string(buf), "anderer Text " + std::to_string(i) + "\n");
    }
    play({{&_ks_ks_msg_table, test_nls, 1, 0, true, "ks_lib imsg_other", 2}});
}

TEST_F(Imsg, ThirdNameReplacesTheLeastRecentlyUsedSlot)
{
    // ks_lib is used last before imsg_third arrives, so imsg_other goes; then
    // imsg_other takes ks_lib's slot, older by its seconds although newer by
    // its microseconds.
    play({{&_ks_ks_msg_table, test_nls, 5000, 100, true, "ks_lib -", 1},
          {&other_table, test_nls, 5000, 200, true, "ks_lib imsg_other", 2},
          {&_ks_ks_msg_table, test_nls, 5000, 300, true, "ks_lib imsg_other", 2},
          {&third_table, test_nls, 5000, 400, true, "ks_lib imsg_third", 3},
          {&_ks_ks_msg_table, test_nls, 4999, 999999, true, "ks_lib imsg_third", 3},
          {&other_table, test_nls, 5001, 0, true, "imsg_other imsg_third", 4}});
}

TEST_F(Imsg, FailedSlotsAreReusedInTurn)
{
    // With every open failing the round-robin counter hands out the slots.
    play({{&_ks_ks_msg_table, nowhere, 1, 0, false, "ks_lib -", 1},
          {&other_table, nowhere, 2, 0, false, "ks_lib imsg_other", 2},
          {&third_table, nowhere, 3, 0, false, "imsg_third imsg_other", 3},
          {&_ks_ks_msg_table, nowhere, 4, 0, false, "imsg_third ks_lib", 4}});
}

TEST_F(Imsg, FailedSlotIsTakenBeforeAnOpenCatalogueIsClosed)
{
    // ks_lib stays open (and translated) although NLSPATH now leads nowhere.
    play({{&_ks_ks_msg_table, test_nls, 7000, 0, true, "ks_lib -", 1},
          {&other_table, nowhere, 7001, 0, false, "ks_lib imsg_other", 2},
          {&third_table, nowhere, 7002, 0, false, "ks_lib imsg_third", 3},
          {&_ks_ks_msg_table, nowhere, 7003, 0, true, "ks_lib imsg_third", 3}});
}

TEST_F(Imsg, BadIndexNullTableOrNullFormatIsAnInternalError)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        char buf[16], *s = buf;
        bool ok = *cat_extractmsg(&_pfm_ks_msg_table, _pfm_ks_msg_table.count) == '\0' &&
                  *cat_extractmsg(nullptr, 0) == '\0' &&
                  imsg_print(IMSG_WARNING, &_stg_ks_msg_table, _stg_ks_msg_table.count) == -1 &&
                  imsg_print(IMSG_OK, nullptr, 3) == -1 && imsg_print(IMSG_OK, nullptr, -1) == -1 &&
                  imsg_snprintf(buf, sizeof buf, &_list_ks_msg_table, -2) == -1 &&
                  imsg_dynamic_len_snprintf(&s, 10, 100, &_rt_ks_msg_table, _rt_ks_msg_table.count) == -1 &&
                  s == nullptr;
        return ok ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, internal_error("cat_extractmsg", &_pfm_ks_msg_table, _pfm_ks_msg_table.count) +
                         internal_error("cat_extractmsg", nullptr, 0) +
                         internal_error("vsprintf", &_stg_ks_msg_table, _stg_ks_msg_table.count) +
                         internal_error("print_sharedv", nullptr, 3) +
                         "mytool: Error: IMSG Internal error (vsprintf/NOMSG) - NULL Message.\n" +
                         internal_error("vsprintf", &_list_ks_msg_table, -2) +
                         internal_error("vsprintf", &_rt_ks_msg_table, _rt_ks_msg_table.count));
}

TEST_F(Imsg, RealCatalogueMatchesTheBuiltInTexts)
{
    setenv("NLSPATH", KS_CATALOG_DIR "/%N.cat", 1);
    for (const imsg_msg_table_t *t :
         {&_stg_ks_msg_table, &_list_ks_msg_table, &_strutl_ks_msg_table, &_ks_ks_msg_table, &_imsg_ks_msg_table,
          &_date_ks_msg_table, &_clp_ks_msg_table, &_sysutl_ks_msg_table, &_rt_ks_msg_table, &_rt_proc_ks_msg_table,
          &_server_id_ks_msg_table, &_credutl_ks_msg_table, &_pfm_ks_msg_table})
        for (int i = 0; i < t->count; i++) {
            const char *text = cat_extractmsg(t, i);
            EXPECT_STREQ(text, t->texts[i]) << t->subsys << " index " << i;
            EXPECT_NE(text, t->texts[i]) << t->subsys << " index " << i << " is not from the catalogue";
        }
    EXPECT_EQ(ks::imsg_catalog_open_count_for_testing(), 1u);
}

// ---- prefixes ----

TEST_F(Imsg, PrefixFormatsAndSuppression)
{
    // Types 0 to 10, each without and with the subsystem.
    std::string all;
    for (int i = 0; i < 22; i++) // one static buffer: copy each before the next call
        all += std::string(imsg_prefix_format(i / 2, i % 2)) + "|";
    EXPECT_EQ(all, "||||||||%s: Warning: |%s/%s: Warning: |||%s: Error: |%s/%s: Error: |||"
                   ">>> %s (%s): |>>> %s (%s/%s): |||||");
    EXPECT_EQ(imsg_suppress_prefix(1), 0);
    EXPECT_STREQ(imsg_prefix_format(IMSG_ERROR, 0), "");
    EXPECT_EQ(imsg_suppress_prefix(0), 1);
    EXPECT_STREQ(imsg_prefix_format(IMSG_ERROR, 0), "%s: Error: ");
}

TEST_F(Imsg, PrintSubsysAndPrintSubsysOkSwitches)
{
    const char *plain_out = "done\nnote\nmore\no\n", *sub_err = "mytool/sub: Warning: w\nmytool: Warning: plain\n";
    struct { const char *var, *out, *err; } cases[] = {
        {"NONE", plain_out, "mytool: Warning: w\nmytool: Warning: plain\n"},
        {"PRINT_SUBSYS", plain_out, sub_err},
        // PRINT_SUBSYS_OK also turns the subsystem form on.
        {"PRINT_SUBSYS_OK", "mytool: Ok: done\nmytool: note\nmore\nmytool/sub: Ok: o\n", sub_err}};
    for (auto &c : cases) {
        auto r = ks_test::run_in_child([&] {
            setenv(c.var, "yes", 1);
            imsg_set_app_name("/usr/bin/mytool");
            for (auto [type, text] : {std::pair(IMSG_OK, "done\n"), {IMSG_INFO, "note\n"}, {IMSG_OK_CONT, "more\n"}})
                imsg_print(type, text, -1);
            imsg_print_shared(IMSG_WARNING, "sub", "w\n", -1);
            imsg_print_shared(IMSG_OK, "sub", "o\n", -1);
            imsg_print(IMSG_WARNING, "plain\n", -1);
            imsg_output_subsys(0);
            return imsg_print_shared(IMSG_ERROR, "sub", &_ks_ks_msg_table, ks_operation, "a", "b") < 0;
        });
        EXPECT_EQ(r.out, c.out) << c.var;
        EXPECT_EQ(r.err, std::string(c.err) + "mytool: Error: Operation a: b\n") << c.var;
    }
}

TEST_F(Imsg, TraceAndTypedLinesCarryTheTimeStampAndCount)
{
    std::string name(3000, 'n');
    auto r = ks_test::run_in_child([&] {
        imsg_set_app_name("mytool");
        ks::clock_fix(3723, 456789); // 01:02:03.456 UTC
        imsg_print(IMSG_TRACE, &_ks_ks_msg_table, ks_operation, "a", "b");
        imsg_print(IMSG_TRACE_CONT, "cont\n", -1);
        char buf[128];
        printf("%d %s", imsg_snprintf_type(buf, sizeof buf, IMSG_TRACE, "x=%d\n", -1, 4), buf);
        printf("%d [%s]\n", imsg_snprintf_type(buf, 10, IMSG_WARNING, "x=%d\n", -1, 4), buf);
        // The count covers a prefix longer than any internal buffer.
        imsg_set_app_name(name.c_str());
        printf("%d [%s]\n", imsg_snprintf_type(buf, 8, IMSG_ERROR, "x=%d\n", -1, 4), buf);
        return 0;
    });
    EXPECT_EQ(r.err, ">>> 01:02:03.456 (mytool): Operation a: b\ncont\n");
    EXPECT_EQ(r.out, "31 >>> 01:02:03.456 (mytool): x=4\n21 [mytool: W]\n3013 [nnnnnnn]\n");
}

// ---- buffer growth and formatting failures ----

// The output buffer (16384 bytes at first) grows to fit a long prefix or
// text and is kept; formatting failures (a wide character the "C" locale
// cannot convert) are reported only when tracing.
TEST_F(Imsg, OutputBufferGrowsAndFormattingFailuresAreReportedWhenTracing)
{
    std::string name(17000, 'n'), big(40000, 'x'), warning = name + ": Warning: w 5\n";
    big[20000] = 'y';
    warning += name + ": Error: " + big + "|\n" + name + ": Error: " + big + "|\n";
    std::string traced = "There was some kind of error in imsg_print_sharedv_util. (sz: 16384).\n"
                         "prefix consumed entire buffer. (sz: 16384).\n" + warning;
    for (const char *size : {"13", "20"})
        traced += "Error, max buffer size " + std::string(size) +
                  " passed to imsg_dynamic_len_vsnprintf() is not sufficient to hold the string.\n";
    for (const char *sizes : {"5,\tstart_size = 10\n", "5,\tstart_size = 0\n"})
        traced += "ERROR im imsg_dynamic_len_vsnprintf(): passed max_size argument is greater than passed "
                  "start_size argument, or start_size argument is less or equal to 0.\nmax_size = " +
                  std::string(sizes);
    for (bool trace : {true, false}) {
        setenv("TRACE_SUBSYS", trace ? "ks/imsg" : "other", 1);
        setenv("TRACE_VERBOSITY", "1", 1);
        auto r = ks_test::run_in_child([&] {
            bool ok = imsg_print(IMSG_ERROR, "%ls\n", -1, L"\x263a") == -1;
            imsg_set_app_name(name.c_str());
            ok = ok && imsg_print(IMSG_WARNING, "w %d\n", -1, 5) == 17000 + 11 + 4;
            ok = ok && imsg_print(IMSG_ERROR, "%s|\n", -1, big.c_str()) == 17000 + 9 + 40002;
            ok = ok && imsg_print(IMSG_ERROR, "%s|\n", -1, big.c_str()) == 17000 + 9 + 40002;
            // The buffer grows by fractional steps until it passes the maximum;
            // with no room to grow (start equal to max) it gives up at once.
            char *s = reinterpret_cast<char *>(1);
            ok = ok && imsg_dynamic_len_snprintf(&s, 10, 13, "%ls", -1, L"\x263a") == -1 && s == nullptr;
            ok = ok && imsg_dynamic_len_snprintf(&s, 20, 20, "%ls", -1, L"\x263a") == -1;
            ok = ok && imsg_dynamic_len_snprintf(&s, 10, 5, "x", -1) == -1;
            return ok && imsg_dynamic_len_snprintf(&s, 0, 5, "x", -1) == -1 && s == nullptr ? 0 : 1;
        });
        EXPECT_EQ(r.exit_code(), 0) << trace;
        EXPECT_EQ(r.err, trace ? traced : warning);
    }
}

TEST_F(Imsg, FormattersIntoMemory)
{
    char buf[64], *s = nullptr;
    EXPECT_EQ(imsg_snprintf(buf, 10, &_ks_ks_msg_table, ks_operation, "open", "gone"), 21);
    EXPECT_STREQ(buf, "Operation");
    EXPECT_EQ(imsg_snprintf(buf, 0, &_ks_ks_msg_table, ks_operation, "open", "gone"), 21); // 0: unbounded
    EXPECT_STREQ(buf, "Operation open: gone\n");
    EXPECT_EQ(imsg_sprintf(buf, "%d-%s", -1, 12, "z"), 4);
    EXPECT_STREQ(buf, "12-z");
    EXPECT_EQ(imsg_snprintf_taggable(buf, sizeof buf, &_imsg_ks_msg_table, 16), 7);
    EXPECT_STREQ(buf, "Error: ");
    std::string arg(300, 'q');
    ASSERT_EQ(imsg_dynamic_len_snprintf(&s, 8, 1000, &_ks_ks_msg_table, ks_operation, "op", arg.c_str()), 315);
    EXPECT_EQ(std::string(s), "Operation op: " + arg + "\n");
    free(s);
    // A text exactly as long as the buffer needs one byte more for its end.
    EXPECT_EQ(imsg_dynamic_len_snprintf(&s, 15, 15, &_ks_ks_msg_table, ks_operation, "a", "b"), -1);
    ASSERT_EQ(imsg_dynamic_len_snprintf(&s, 15, 16, &_ks_ks_msg_table, ks_operation, "a", "b"), 15);
    EXPECT_STREQ(s, "Operation a: b\n");
    free(s);
    EXPECT_EQ(imsg_dynamic_len_snprintf(&s, 8, 100, &_ks_ks_msg_table, ks_operation, "op", arg.c_str()), -1);
    EXPECT_EQ(s, nullptr);
}

// ---- output procedures, logs and the capture file ----

std::string seen;
void record_proc(int type, const char *text)
{
    seen += "[" + std::to_string(type) + ":" + text + "]";
}

TEST_F(Imsg, InstalledProceduresTakeTheMessage)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        imsg_out_fns[IMSG_WARNING] = imsg_out_fns[IMSG_OK] = imsg_out_fns[IMSG_OK_CONT] = record_proc;
        imsg_print(IMSG_WARNING, "w\n", -1);
        imsg_print(IMSG_INFO, "i\n", -1);      // INFO borrows OK's procedure while its own is the default
        imsg_print(IMSG_INFO_CONT, "c\n", -1); // and INFO_CONT OK_CONT's
        imsg_print(IMSG_ERROR, "e\n", -1);
        imsg_out_fns[IMSG_INFO] = [](int type, const char *text) { seen += "{" + std::to_string(type) + text + "}"; };
        imsg_print(IMSG_INFO, "j\n", -1);
        imsg_out_fns[IMSG_ERROR] = record_proc;
        imsg_print(12, "big %d\n", -1, 3); // unknown, above 10: the procedure of IMSG_ERROR
        printf("%d %s", ks::imsg_current_type_for_testing(), seen.c_str());
        return 0;
    });
    EXPECT_EQ(r.err, "mytool: Error: e\n");
    std::string head = "12 [4:mytool: Warning: w\n][2:i\n][3:c\n]{2j\n}"
                       "[6:mytool: Error: Unknown message type 12 in file ../imsg at line ";
    EXPECT_EQ(r.out.substr(0, head.size()), head);
    EXPECT_EQ(r.out.substr(r.out.size() - 27), "[12:System message: big 3\n]");
}

TEST_F(Imsg, DupOutputPrintsToTheStreamAsWell)
{
    setenv("IMSG_DUP_OUTPUT", "1", 1);
    auto r = ks_test::run_in_child([] {
        imsg_out_fns[IMSG_WARNING] = record_proc;
        imsg_print(IMSG_WARNING, "w\n", -1);
        setenv("IMSG_DUP_OUTPUT", "0", 1); // read once only
        imsg_print(IMSG_WARNING, "v\n", -1);
        return printf("%s", seen.c_str()) < 0;
    });
    EXPECT_EQ(r.err, "noname: Warning: w\nnoname: Warning: v\n");
    EXPECT_EQ(r.out, "[4:noname: Warning: w\n][4:noname: Warning: v\n]");
}

// The log layer's seams: an open command log takes every message, ahead of
// any procedure; a daemon log is reopened and drained before each message and
// its time stamp goes before the even types unless output is suspended.
int reopen_calls, drain_calls;

TEST_F(Imsg, CommandAndDaemonLogsDrivePrinting)
{
    ks_test::temp_dir dir;
    std::string path = dir.file("log");
    auto r = ks_test::run_in_child([&] {
        imsg_set_app_name("mytool");
        imsg_out_fns[IMSG_ERROR] = record_proc;
        FILE *log = fopen(path.c_str(), "w");
        ks::imsg_set_log_info({1, 0, log, 0});
        imsg_print(IMSG_OK, "ok\n", -1);
        imsg_print(IMSG_ERROR, "bad\n", -1);
        ks::imsg_set_log_info({0, 0, log, 0});
        fclose(log);
        ks::imsg_set_daemon_log_name("daemon.log");
        ks::imsg_services s = ks::imsg_services_in_use();
        s.reopen_daemon_log = [] { reopen_calls++; };
        s.drain_daemon_pipes = [] { drain_calls++; };
        ks::imsg_set_services_for_testing(s);
        ks::clock_fix(90000, 0);
        imsg_print(IMSG_OK, "even\n", -1);
        imsg_print(IMSG_OK_CONT, "odd\n", -1);
        imsg_print_time(stdout, 10);
        imsg_print_time(stdout, 11);
        ks::imsg_set_daemon_suspended(true);
        imsg_print(IMSG_INFO, "suspended\n", -1);
        return printf("%d %d %s", reopen_calls, drain_calls, seen.c_str()) < 0;
    });
    EXPECT_EQ(ks_test::read_file(path), "ok\nmytool: Error: bad\n");
    char *stamp = date_fmt_token_general(90000, 0, 0, 0, 0);
    ASSERT_NE(stamp, nullptr);
    EXPECT_EQ(r.out, std::string(stamp) + " even\nodd\n" + stamp + " suspended\n3 3 ");
    free(stamp);
}

TEST_F(Imsg, CaptureLogRecordsCataloguedMessages)
{
    ks_test::temp_dir dir;
    std::string base = dir.file("capture");
    setenv("OTTERMERE_IMSG_CAPTURE_LOG", base.c_str(), 1);
    char buf[128];
    imsg_snprintf(buf, sizeof buf, &_ks_ks_msg_table, ks_operation, "a", "b");
    imsg_snprintf(buf, sizeof buf, "literal %d", -1, 1); // not catalogued: not recorded
    imsg_sprintf(buf, &_imsg_ks_msg_table, 3, "f", "g");
    EXPECT_EQ(ks_test::read_file(base + "." + std::to_string(getpid())),
              "## library : subsys : msg ID : msg text\nks_lib : ks : 4 : Operation %s: %s\n\n"
              "ks_lib : ks/imsg : 6 : Unable to open file \"%s\":  %s\n\n");
    auto r = ks_test::run_in_child([&] { // an unopenable capture file is ignored
        setenv("OTTERMERE_IMSG_CAPTURE_LOG", "/nonexistent/dir/capture", 1);
        return imsg_snprintf(buf, sizeof buf, &_ks_ks_msg_table, ks_operation, "a", "b") == 15 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
}

// ---- styled writing ----

std::string cap(const char *name)
{
    const char *s = tigetstr(name);
    return s && s != reinterpret_cast<char *>(-1) ? s : "";
}

TEST_F(Imsg, StyledTextCarriesTheCapabilitiesOnlyOnATerminalWithTerm)
{
    int err = 0;
    ASSERT_EQ(setupterm("xterm", 2, &err), OK);
    ASSERT_FALSE(cap("bold").empty());
    std::string styled = cap("bold") + "bold" + cap("sgr0") + " " + cap("smso") + "so" + cap("rmso") + " " +
                         cap("smul") + "ul" + cap("rmul");
    struct { const char *term, *no_bold; bool pty; } cases[] = {
        {"xterm", nullptr, true}, {"xterm", nullptr, false}, {"xterm", "1", true}, {nullptr, nullptr, true}};
    for (auto &c : cases) {
        c.term ? setenv("TERM", c.term, 1) : unsetenv("TERM");
        c.no_bold ? setenv("ORVIN_NO_BOLD", c.no_bold, 1) : unsetenv("ORVIN_NO_BOLD");
        auto print = [] {
            imsg_print(IMSG_OK, "\001\0011Bbold\001\0010B \001\0011Iso\001\0010I \001\0011Uul\001\0010U\n", -1);
            return imsg_print(IMSG_OK, "\001\0011Xkeep\n", -1) < 0; // not a style sequence
        };
        auto r = c.pty ? ks_test::run_in_pty(print) : ks_test::run_in_child(print);
        std::string nl = c.pty ? "\r\n" : "\n";
        EXPECT_EQ(r.out, (c.pty && c.term && !c.no_bold ? styled : "bold so ul") + nl + "\001\0011Xkeep" + nl)
            << "case " << &c - cases;
    }
}

TEST_F(Imsg, InterleaveMarkerFlushesAndIsDropped)
{
    auto r = ks_test::run_in_child([] { return imsg_fputs("a||b\n", stdout) < 0; });
    EXPECT_EQ(r.out, "a||b\n");
    setenv("IMSG_IO_INTERLEAVE", "1", 1);
    r = ks_test::run_in_child([] {
        imsg_fputs("a||b|c\n", stdout);
        if (!setlocale(LC_ALL, "ja_JP.SJIS"))
            return 3;
        return imsg_fputs("\x95\x7C|x||y\n", stdout) < 0 ? 1 : 0; // 0x95 0x7C: one character ending in '|'
    });
    ASSERT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "ab|c\n\x95\x7C|xy\n");
}

// ---- tracing ----

TEST_F(Imsg, TraceMatchesWholeElementsOnly)
{
    struct { const char *list, *subsys; bool want; } cases[] = {
        {"rt:ks/imsg", "ks/imsg", true}, {"rt:ks/imsg", "ks", false}, {"rt:ks/imsg", "imsg", false},
        {"rt:ks/imsg", "rt", true}, {"rt:ks/imsg", "r", false}, {"rt:ks/imsg", "rt:ks", false},
        {"rt:ks/imsg", "rt:ks/imsg", true}, {"ks/imsg:ks", "ks", true}, {"ks/imsg:ks", "", false},
        {"*", "anything", true}, {"", "x", false}};
    imsg_set_trace_verbosity(1);
    for (auto &c : cases) {
        imsg_set_trace_subsys(c.list);
        EXPECT_EQ(imsg_should_trace(c.subsys, 1), c.want) << c.list << " / " << c.subsys;
        EXPECT_EQ(imsg_should_trace_subsys(c.subsys), c.want) << c.list << " / " << c.subsys;
        EXPECT_FALSE(imsg_should_trace(c.subsys, 2)) << c.list << " / " << c.subsys;
    }
}

TEST_F(Imsg, TraceSettingsFromTheEnvironmentAndCalls)
{
    setenv("TRACE_SUBSYS", "*", 1);
    setenv("TRACE_VERBOSITY", "2", 1);
    EXPECT_EQ(imsg_get_desired_verbosity(), 32767);
    EXPECT_TRUE(imsg_should_trace("x", 2));
    EXPECT_EQ(imsg_get_desired_verbosity(), 2);
    EXPECT_FALSE(imsg_should_trace("x", 3));
    imsg_reset_verbosity();
    imsg_set_trace_subsys(nullptr);
    setenv("TRACE_VERBOSITY", "junk", 1);
    unsetenv("TRACE_SUBSYS");
    EXPECT_EQ(imsg_get_verbosity_ev(), 0);
    EXPECT_FALSE(imsg_should_trace("x", 0)); // no list at all
    setenv("TRACE_SUBSYS", "*", 1); // read only while the verbosity is 32767
    imsg_set_trace_verbosity(5);
    EXPECT_FALSE(imsg_should_trace("x", 1));
    imsg_set_trace_subsys("*");
    EXPECT_TRUE(imsg_should_trace("x", 5));
}

// ---- error texts, settings and the terminal prompt ----

TEST_F(Imsg, ErrorNumberTexts)
{
    struct { int n; const char *err, *host; } cases[] = {
        {0, "0", "0"}, {-5, "-5", "-5"}, {99999, "99999", "99999"}, {EACCES, strerror(EACCES), strerror(EACCES)},
        {1, strerror(1), "Host not found"}, {2, strerror(2), "Non-authoritative host not found"},
        {3, strerror(3), "This is a non-recoverable error"},
        {4, strerror(4), "Valid name, no data record of requested type"}};
    for (auto &c : cases) {
        EXPECT_EQ(std::string(imsg_strerror(c.n)), c.err) << c.n;
        EXPECT_EQ(std::string(imsg_strerror_gethost(c.n)), c.host) << c.n;
    }
}

TEST_F(Imsg, AppNameErrnumFileAndClock)
{
    imsg_set_app_name("/x/y/tool");
    imsg_set_app_name(nullptr);
    EXPECT_STREQ(imsg_get_app_name(), "noname");
    imsg_set_errnum_file(KS_SOURCE_DIR "/lib/ks/imsg.msg");
    imsg_set_errnum_file("/nonexistent/errnum"); // unreadable: nothing changes
    EXPECT_STREQ(ks::imsg_errnum_file_for_testing(), KS_SOURCE_DIR "/lib/ks/imsg.msg");
    imsg_set_errnum_file(nullptr);
    EXPECT_STREQ(ks::imsg_errnum_file_for_testing(), "errnum.imsg");
    EXPECT_EQ(imsg_clock(), 0u);
    uint32_t base = 41;
    imsg_set_clock_callback([](void *arg) { return *static_cast<uint32_t *>(arg) + 1; }, &base);
    EXPECT_EQ(imsg_clock(), 42u);
}

TEST_F(Imsg, GuiFollowsEitherFrontEndSwitch)
{
    for (const char *var : {"NONE", "ORVIN_WEB_GUI", "ORVIN_FORCE_GUI"}) // read once: a fresh child each
        EXPECT_EQ(ks_test::run_in_child([&] { return setenv(var, "1", 1) + imsg_in_gui(); }).exit_code(),
                  strcmp(var, "NONE") != 0)
            << var;
}

// Answers typed on a real terminal: the child's standard input is the slave
// side of a pseudo-terminal whose master already holds the lines.
int prompt_with_answers(const char *answers, int default_choice, int choices, int prompts)
{
    int master, slave, code = 0;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0 || write(master, answers, strlen(answers)) < 0)
        return 100;
    dup2(slave, 0);
    for (int i = 0; i < prompts; i++)
        code = code * 2 + imsg_prompt_proceed(IMSG_WARNING, "Go on?\n", default_choice, choices);
    return code;
}

TEST_F(Imsg, PromptProceedReadsAnswersOnlyOnATerminal)
{
    auto r = ks_test::run_in_child([] { return imsg_prompt_proceed(IMSG_OK, "Go on?\n", 0, 3); }, "abort\n");
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "Go on?\n");
    // abort, proceed, empty (default proceed), "ABO" (a prefix of the word)
    r = ks_test::run_in_child([] { return prompt_with_answers("abort\nproceed\n\nABO\n", 0, 3, 4); });
    EXPECT_EQ(r.exit_code(), 0b1001);
    std::string line = "noname: Warning: Go on?\n";
    EXPECT_EQ(r.err, line + line + line + line);
    // An empty answer takes the default; abort is refused when not allowed.
    EXPECT_EQ(ks_test::run_in_child([] { return prompt_with_answers("\nabort\n", 1, 3, 1); }).exit_code(), 1);
    EXPECT_EQ(ks_test::run_in_child([] { return prompt_with_answers("abort\n\n", 1, 2, 2); }).exit_code(), 0);
}

} // namespace
