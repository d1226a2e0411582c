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
#include <vector>

#include "imsg_internal.h"
#include "ks/date.h"
#include "ks/imsg.h"
#include "ks_internal.h"
#include "ks_test_util.h"

#include <curses.h>
#include <term.h>

namespace {

const char nowhere[] = "/nonexistent/ks_imsg_test/%N.cat";
const char test_nls[] = KS_TEST_NLS "/%N.cat";
const char real_nls[] = KS_CATALOG_DIR "/%N.cat";

// Tables of two other catalogue names (tests/data/imsg_other.msg and
// imsg_third.msg).
const char *const other_texts[] = {"other text %d\n"};
const char *const third_texts[] = {"third text %d\n"};
const int16_t one_number[] = {1};
const imsg_msg_table_t other_table = {"imsg_other", "other", 1, 1, other_texts, one_number};
const imsg_msg_table_t third_table = {"imsg_third", "third", 1, 1, third_texts, one_number};

// Index 2 of the ks table: "Operation %s: %s\n" (catalogue number 4).
const int ks_operation = 2;

std::string addr(const void *p)
{
    return std::to_string(static_cast<long>(reinterpret_cast<intptr_t>(p)));
}

void clean_env()
{
    for (const char *v : {"PRINT_SUBSYS", "PRINT_SUBSYS_OK", "IMSG_IO_INTERLEAVE", "OTTERMERE_IMSG_CAPTURE_LOG",
                          "TRACE_VERBOSITY", "TRACE_SUBSYS", "IMSG_DUP_OUTPUT", "ORVIN_NO_BOLD",
                          "OTTERMERE_ENABLE_ATE_MESSAGES", "ORVIN_FORCE_GUI", "ORVIN_WEB_GUI"})
        unsetenv(v);
}

// imsg_set_app_name records the command line, which needs a host data
// directory: each case gets an empty one.
class Imsg : public ::testing::Test {
protected:
    void SetUp() override
    {
        clean_env();
        setenv("NLSPATH", nowhere, 1);
        setenv("OTTER_HOSTDATA_DIR", hostdata.path().c_str(), 1);
    }
    ks_test::temp_dir hostdata;
};

// ---- catalogue look-up ----

TEST_F(Imsg, DefaultTextsWithoutCatalogue)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("a/b/mytool");
        imsg_print(IMSG_ERROR, &_ks_ks_msg_table, ks_operation, "open", strerror(ENOENT));
        imsg_print(IMSG_WARNING, "careful %d\n", -1, 7);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.err, "mytool: Error: Operation open: No such file or directory\n"
                     "mytool: Warning: careful 7\n");
    EXPECT_EQ(r.out, "");
}

TEST_F(Imsg, FailedOpenIsKeptAndNotRetried)
{
    EXPECT_STREQ(cat_extractmsg(&_imsg_ks_msg_table, 16), "Error: ");
    EXPECT_STREQ(cat_extractmsg(&_stg_ks_msg_table, 0), _stg_ks_msg_table.texts[0]);
    EXPECT_EQ(ks::imsg_catalog_open_count(), 1u);
    // The catalogue appearing later changes nothing: the slot is not reopened.
    setenv("NLSPATH", test_nls, 1);
    EXPECT_STREQ(cat_extractmsg(&_ks_ks_msg_table, ks_operation), "Operation %s: %s\n");
    EXPECT_EQ(ks::imsg_catalog_open_count(), 1u);
}

TEST_F(Imsg, TranslatedCatalogueSuppliesTexts)
{
    setenv("NLSPATH", test_nls, 1);
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        imsg_print(IMSG_ERROR, &_ks_ks_msg_table, ks_operation, "open", "weg");
        imsg_print(IMSG_WARNING, &_imsg_ks_msg_table, 1);
        return 0;
    });
    EXPECT_EQ(r.err, "mytool: Fehler: Vorgang open: weg\n"
                     "mytool: Warnung: Logging internal error to log file\n");
    // A message missing from the catalogue falls back to its built-in text.
    EXPECT_STREQ(imsg_strerror_gethost(1), "Rechner nicht gefunden");
    EXPECT_STREQ(imsg_strerror_gethost(4), "Valid name, no data record of requested type");
}

TEST_F(Imsg, SeverityWordsAreFetchedOnce)
{
    setenv("NLSPATH", test_nls, 1);
    ks::clock_fix(1000, 0);
    EXPECT_STREQ(imsg_prefix_format(IMSG_ERROR, 0), "%s: Fehler: ");
    // Push ks_lib out of both slots, then reopen it where it does not exist.
    ks::clock_fix(1001, 0);
    cat_extractmsg(&other_table, 0);
    ks::clock_fix(1002, 0);
    cat_extractmsg(&third_table, 0);
    EXPECT_STRNE(ks::imsg_catalog_slot_name(0), "ks_lib");
    EXPECT_STRNE(ks::imsg_catalog_slot_name(1), "ks_lib");
    setenv("NLSPATH", nowhere, 1);
    ks::clock_fix(1003, 0);
    EXPECT_STREQ(cat_extractmsg(&_ks_ks_msg_table, ks_operation), "Operation %s: %s\n");
    EXPECT_EQ(ks::imsg_catalog_open_count(), 4u);
    // The texts are English again, the words are not.
    EXPECT_STREQ(imsg_prefix_format(IMSG_ERROR, 0), "%s: Fehler: ");
    EXPECT_STREQ(imsg_prefix_format(IMSG_WARNING, 1), "%s/%s: Warnung: ");
    ks::clock_release();
}

TEST_F(Imsg, TwoCataloguesShareTheSlotsWithoutReopening)
{
    setenv("NLSPATH", test_nls, 1);
    for (int i = 0; i < 10; i++) {
        EXPECT_STREQ(cat_extractmsg(&_ks_ks_msg_table, ks_operation), "Vorgang %s: %s\n");
        EXPECT_STREQ(cat_extractmsg(&other_table, 0), "anderer Text %d\n");
    }
    EXPECT_EQ(ks::imsg_catalog_open_count(), 2u);
    EXPECT_STREQ(ks::imsg_catalog_slot_name(0), "ks_lib");
    EXPECT_STREQ(ks::imsg_catalog_slot_name(1), "imsg_other");
    char buf[64];
    EXPECT_EQ(imsg_snprintf(buf, sizeof buf, &other_table, 0, 5), 15);
    EXPECT_STREQ(buf, "anderer Text 5\n");
    EXPECT_EQ(ks::imsg_catalog_open_count(), 2u);
}

TEST_F(Imsg, ThirdNameReplacesTheLeastRecentlyUsedSlot)
{
    setenv("NLSPATH", test_nls, 1);
    ks::clock_fix(5000, 100);
    cat_extractmsg(&_ks_ks_msg_table, ks_operation); // slot 0
    ks::clock_fix(5000, 200);
    cat_extractmsg(&other_table, 0); // slot 1
    ks::clock_fix(5000, 300);
    cat_extractmsg(&_ks_ks_msg_table, ks_operation); // slot 0 is now the newer
    ks::clock_fix(5000, 400);
    EXPECT_STREQ(cat_extractmsg(&third_table, 0), "dritter Text %d\n");
    EXPECT_STREQ(ks::imsg_catalog_slot_name(0), "ks_lib");
    EXPECT_STREQ(ks::imsg_catalog_slot_name(1), "imsg_third");
    EXPECT_EQ(ks::imsg_catalog_open_count(), 3u);
    // ks_lib is still open; imsg_other now takes the older slot, ks_lib's
    // (seconds compared before microseconds).
    ks::clock_fix(4999, 999999);
    cat_extractmsg(&_ks_ks_msg_table, ks_operation);
    EXPECT_EQ(ks::imsg_catalog_open_count(), 3u);
    ks::clock_fix(5001, 0);
    EXPECT_STREQ(cat_extractmsg(&other_table, 0), "anderer Text %d\n");
    EXPECT_STREQ(ks::imsg_catalog_slot_name(0), "imsg_other");
    EXPECT_STREQ(ks::imsg_catalog_slot_name(1), "imsg_third");
    EXPECT_EQ(ks::imsg_catalog_open_count(), 4u);
    ks::clock_release();
}

// With every open failing the slots are handed out by the round-robin
// counter, not by the first failed slot seen.
TEST_F(Imsg, FailedSlotsAreReusedInTurn)
{
    const imsg_msg_table_t *order[] = {&_ks_ks_msg_table, &other_table, &third_table, &_ks_ks_msg_table};
    const char *slot0[] = {"ks_lib", "ks_lib", "imsg_third", "imsg_third"};
    const char *slot1[] = {nullptr, "imsg_other", "imsg_other", "ks_lib"};
    for (int i = 0; i < 4; i++) {
        EXPECT_STREQ(cat_extractmsg(order[i], 0), order[i]->texts[0]) << i;
        EXPECT_STREQ(ks::imsg_catalog_slot_name(0), slot0[i]) << i;
        EXPECT_STREQ(ks::imsg_catalog_slot_name(1), slot1[i]) << i;
    }
    EXPECT_EQ(ks::imsg_catalog_open_count(), 4u);
}

TEST_F(Imsg, FailedSlotIsTakenBeforeAnOpenCatalogueIsClosed)
{
    setenv("NLSPATH", test_nls, 1);
    ks::clock_fix(7000, 0);
    EXPECT_STREQ(cat_extractmsg(&_ks_ks_msg_table, ks_operation), "Vorgang %s: %s\n");
    setenv("NLSPATH", nowhere, 1);
    EXPECT_STREQ(cat_extractmsg(&other_table, 0), "other text %d\n"); // fails, slot 1
    EXPECT_STREQ(cat_extractmsg(&third_table, 0), "third text %d\n"); // takes the failed slot
    EXPECT_STREQ(ks::imsg_catalog_slot_name(0), "ks_lib");
    EXPECT_STREQ(ks::imsg_catalog_slot_name(1), "imsg_third");
    // ks_lib was never closed: still translated although NLSPATH now leads nowhere.
    EXPECT_STREQ(cat_extractmsg(&_ks_ks_msg_table, ks_operation), "Vorgang %s: %s\n");
    EXPECT_EQ(ks::imsg_catalog_open_count(), 3u);
    ks::clock_release();
}

TEST_F(Imsg, LookupOutsideTheTableIsAnInternalError)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        const char *a = cat_extractmsg(&_pfm_ks_msg_table, _pfm_ks_msg_table.count);
        const char *b = cat_extractmsg(nullptr, 0);
        return *a == '\0' && *b == '\0' ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.err, "mytool: Error: IMSG Internal error (cat_extractmsg) - tbl " + addr(&_pfm_ks_msg_table) +
                         ", num " + std::to_string(_pfm_ks_msg_table.count) +
                         ".\nmytool: Error: IMSG Internal error (cat_extractmsg) - tbl 0, num 0.\n");
}

TEST_F(Imsg, RealCatalogueMatchesTheBuiltInTexts)
{
    setenv("NLSPATH", real_nls, 1);
    const imsg_msg_table_t *tables[] = {
        &_stg_ks_msg_table, &_list_ks_msg_table, &_strutl_ks_msg_table, &_ks_ks_msg_table,
        &_imsg_ks_msg_table, &_date_ks_msg_table, &_clp_ks_msg_table, &_sysutl_ks_msg_table,
        &_rt_ks_msg_table, &_rt_proc_ks_msg_table, &_server_id_ks_msg_table, &_credutl_ks_msg_table,
        &_pfm_ks_msg_table};
    int from_catalogue = 0;
    for (const imsg_msg_table_t *t : tables)
        for (int i = 0; i < t->count; i++) {
            const char *text = cat_extractmsg(t, i);
            EXPECT_STREQ(text, t->texts[i]) << t->subsys << " index " << i;
            from_catalogue += text != t->texts[i];
        }
    // Every text came out of the catalogue, not from the fallback.
    int total = 0;
    for (const imsg_msg_table_t *t : tables)
        total += t->count;
    EXPECT_EQ(from_catalogue, total);
    EXPECT_EQ(ks::imsg_catalog_open_count(), 1u);
}

// ---- prefixes ----

TEST_F(Imsg, OkAndInfoArePlainUnlessPrintSubsysOk)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        imsg_print(IMSG_OK, "done\n", -1);
        imsg_print(IMSG_INFO, "note\n", -1);
        imsg_print(IMSG_OK_CONT, "more\n", -1);
        return 0;
    });
    EXPECT_EQ(r.out, "done\nnote\nmore\n");
    EXPECT_EQ(r.err, "");
    setenv("PRINT_SUBSYS_OK", "1", 1);
    r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        imsg_print(IMSG_OK, "done\n", -1);
        imsg_print(IMSG_INFO, "note\n", -1);
        imsg_print(IMSG_INFO_CONT, "more\n", -1);
        return 0;
    });
    EXPECT_EQ(r.out, "mytool: Ok: done\nmytool: note\nmore\n");
}

TEST_F(Imsg, PrefixFormats)
{
    EXPECT_STREQ(imsg_prefix_format(IMSG_OK, 0), "");
    EXPECT_STREQ(imsg_prefix_format(IMSG_INFO, 1), "");
    EXPECT_STREQ(imsg_prefix_format(IMSG_WARNING, 0), "%s: Warning: ");
    EXPECT_STREQ(imsg_prefix_format(IMSG_ERROR, 1), "%s/%s: Error: ");
    EXPECT_STREQ(imsg_prefix_format(IMSG_TRACE, 0), ">>> %s (%s): ");
    EXPECT_STREQ(imsg_prefix_format(IMSG_TRACE, 1), ">>> %s (%s/%s): ");
    for (int t : {IMSG_OK_CONT, IMSG_INFO_CONT, IMSG_WARNING_CONT, IMSG_ERROR_CONT, IMSG_TRACE_CONT,
                  IMSG_NOTE_CONT})
        EXPECT_STREQ(imsg_prefix_format(t, 1), "") << t;
    EXPECT_EQ(imsg_suppress_prefix(1), 0);
    EXPECT_STREQ(imsg_prefix_format(IMSG_ERROR, 0), "");
    EXPECT_EQ(imsg_suppress_prefix(0), 1);
    EXPECT_STREQ(imsg_prefix_format(IMSG_ERROR, 0), "%s: Error: ");
}

TEST_F(Imsg, PrefixFormsWithPrintSubsysOk)
{
    setenv("PRINT_SUBSYS_OK", "x", 1);
    EXPECT_STREQ(imsg_prefix_format(IMSG_OK, 0), "%s: Ok: ");
    EXPECT_STREQ(imsg_prefix_format(IMSG_OK, 1), "%s/%s: Ok: ");
    EXPECT_STREQ(imsg_prefix_format(IMSG_INFO, 0), "%s: ");
    EXPECT_STREQ(imsg_prefix_format(IMSG_INFO, 1), "%s/%s: ");
    EXPECT_STREQ(imsg_prefix_format(IMSG_OK_CONT, 1), "");
    // PRINT_SUBSYS_OK also turns the subsystem form on.
    EXPECT_EQ(imsg_output_subsys(0), 1);
}

TEST_F(Imsg, SubsystemFormOfTheSharedPrinters)
{
    setenv("PRINT_SUBSYS", "yes", 1);
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("/usr/bin/mytool");
        imsg_print_shared(IMSG_WARNING, "mysub", "w %s\n", -1, "x");
        imsg_print(IMSG_WARNING, "plain\n", -1);
        imsg_output_subsys(0);
        imsg_print_shared(IMSG_ERROR, "mysub", &_ks_ks_msg_table, ks_operation, "a", "b");
        return 0;
    });
    EXPECT_EQ(r.err, "mytool/mysub: Warning: w x\nmytool: Warning: plain\nmytool: Error: Operation a: b\n");
}

TEST_F(Imsg, UnknownTypeUsesTheSystemMessagePrefix)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        return imsg_print(11, "odd %d\n", -1, 3) > 0 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "");
    ASSERT_EQ(r.err.rfind("mytool: Error: Unknown message type 11 in file ../imsg at line ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find("\nSystem message: odd 3\n"), std::string::npos) << r.err;
}

TEST_F(Imsg, TraceLineCarriesTheTimeStamp)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        ks::clock_fix(3723, 456789); // 01:02:03.456 UTC
        imsg_print(IMSG_TRACE, &_ks_ks_msg_table, ks_operation, "a", "b");
        imsg_print(IMSG_TRACE_CONT, "cont\n", -1);
        char buf[128];
        int n = imsg_snprintf_type(buf, sizeof buf, IMSG_TRACE, "x=%d\n", -1, 4);
        printf("%d %s", n, buf);
        n = imsg_snprintf_type(buf, 10, IMSG_WARNING, "x=%d\n", -1, 4);
        printf("%d [%s]\n", n, buf);
        return 0;
    });
    EXPECT_EQ(r.err, ">>> 01:02:03.456 (mytool): Operation a: b\ncont\n");
    EXPECT_EQ(r.out, "31 >>> 01:02:03.456 (mytool): x=4\n21 [mytool: W]\n");
}

TEST_F(Imsg, TypedLineCountsALongApplicationName)
{
    std::string name(3000, 'n');
    auto r = ks_test::run_in_child([&] {
        imsg_set_app_name(name.c_str());
        std::vector<char> buf(4000);
        int n = imsg_snprintf_type(buf.data(), 0, IMSG_ERROR, "x=%d\n", -1, 4);
        printf("%d %s", n, buf.data());
        char small[8];
        n = imsg_snprintf_type(small, sizeof small, IMSG_ERROR, "x=%d\n", -1, 4);
        printf("%d [%s]\n", n, small);
        return 0;
    });
    EXPECT_EQ(r.out, "3013 " + name + ": Error: x=4\n3013 [nnnnnnn]\n");
}

// ---- failures ----

TEST_F(Imsg, IndexEqualToCountIsAnInternalError)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        return imsg_print(IMSG_WARNING, &_stg_ks_msg_table, _stg_ks_msg_table.count) == -1 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.err, "mytool: Error: IMSG Internal error (vsprintf) - tbl " + addr(&_stg_ks_msg_table) + ", num " +
                         std::to_string(_stg_ks_msg_table.count) + ".\n");
}

TEST_F(Imsg, NullTableAndNullFormat)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        int a = imsg_print(IMSG_OK, nullptr, 3);
        int b = imsg_print(IMSG_OK, nullptr, -1);
        char buf[16];
        int c = imsg_snprintf(buf, sizeof buf, &_list_ks_msg_table, -2);
        return a == -1 && b == -1 && c == -1 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "mytool: Error: IMSG Internal error (print_sharedv) - tbl 0, num 3.\n"
                     "mytool: Error: IMSG Internal error (vsprintf/NOMSG) - NULL Message.\n"
                     "mytool: Error: IMSG Internal error (vsprintf) - tbl " +
                         addr(&_list_ks_msg_table) + ", num -2.\n");
}

TEST_F(Imsg, MessageLongerThanTheBufferIsPrintedWhole)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        std::string big(40000, 'x');
        big[20000] = 'y';
        int n = imsg_print(IMSG_ERROR, "%s|\n", -1, big.c_str());
        imsg_print(IMSG_ERROR, "%s|\n", -1, big.c_str()); // the grown buffer is kept
        imsg_print(IMSG_ERROR, "short\n", -1);
        return n == 15 + 40002 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    std::string big(40000, 'x');
    big[20000] = 'y';
    std::string line = "mytool: Error: " + big + "|\n";
    EXPECT_EQ(r.err, line + line + "mytool: Error: short\n");
}

TEST_F(Imsg, FormattingErrorIsReportedWhenTracing)
{
    setenv("TRACE_SUBSYS", "ks/imsg", 1);
    setenv("TRACE_VERBOSITY", "1", 1);
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        // A wide character the "C" locale cannot convert.
        return imsg_print(IMSG_ERROR, "%ls\n", -1, L"\x263a") == -1 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.err, "There was some kind of error in imsg_print_sharedv_util. (sz: 16384).\n");
    unsetenv("TRACE_SUBSYS");
    r = ks_test::run_in_child([] { return imsg_print(IMSG_ERROR, "%ls\n", -1, L"\x263a") == -1 ? 0 : 1; });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.err, "");
}

TEST_F(Imsg, PrefixFillingTheBufferIsReportedAndTheLinePrintedWhole)
{
    setenv("TRACE_SUBSYS", "ks/imsg", 1);
    setenv("TRACE_VERBOSITY", "1", 1);
    std::string name(17000, 'n');
    auto r = ks_test::run_in_child([&] {
        imsg_set_app_name(name.c_str());
        return imsg_print(IMSG_WARNING, "w %d\n", -1, 5) == 17000 + 11 + 4 ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.err, "prefix consumed entire buffer. (sz: 16384).\n" + name + ": Warning: w 5\n");
}

// ---- output procedures, logs and the capture file ----

std::vector<std::string> *seen;
void record_proc(int type, const char *text)
{
    seen->push_back(std::to_string(type) + ":" + text);
}

TEST_F(Imsg, InstalledProcedureTakesTheMessage)
{
    auto r = ks_test::run_in_child([] {
        std::vector<std::string> got;
        seen = &got;
        imsg_set_app_name("mytool");
        imsg_out_fns[IMSG_WARNING] = record_proc;
        imsg_out_fns[IMSG_OK] = record_proc;
        imsg_print(IMSG_WARNING, "w\n", -1);
        imsg_print(IMSG_INFO, "i\n", -1); // INFO borrows OK's procedure
        imsg_print(IMSG_ERROR, "e\n", -1);
        imsg_print(12, "big\n", -1); // above 10: the procedure of IMSG_ERROR
        for (auto &s : got)
            printf("[%s]", s.c_str());
        return 0;
    });
    EXPECT_EQ(r.out, "[4:mytool: Warning: w\n][2:i\n]");
    EXPECT_EQ(r.err.rfind("mytool: Error: e\nmytool: Error: Unknown message type 12", 0), 0u) << r.err;
}

std::vector<std::string> *seen_other;
void record_other_proc(int type, const char *text)
{
    seen_other->push_back(std::to_string(type) + ":" + text);
}

TEST_F(Imsg, InfoKeepsItsOwnProcedure)
{
    auto r = ks_test::run_in_child([] {
        std::vector<std::string> got, other;
        seen = &got;
        seen_other = &other;
        imsg_out_fns[IMSG_OK] = record_proc;
        imsg_out_fns[IMSG_OK_CONT] = record_proc;
        imsg_out_fns[IMSG_INFO] = record_other_proc;
        imsg_print(IMSG_INFO, "i\n", -1);
        imsg_print(IMSG_INFO_CONT, "c\n", -1); // own is the default: OK_CONT's
        imsg_print(IMSG_OK, "o\n", -1);
        printf("%d %d\n", ks::imsg_current_type(), static_cast<int>(got.size()));
        for (auto &s : got)
            printf("[%s]", s.c_str());
        for (auto &s : other)
            printf("{%s}", s.c_str());
        return 0;
    });
    EXPECT_EQ(r.out, "0 2\n[3:c\n][0:o\n]{2:i\n}");
}

TEST_F(Imsg, DupOutputPrintsToTheStreamAsWell)
{
    setenv("IMSG_DUP_OUTPUT", "1", 1);
    auto r = ks_test::run_in_child([] {
        std::vector<std::string> got;
        seen = &got;
        imsg_set_app_name("mytool");
        imsg_out_fns[IMSG_WARNING] = record_proc;
        imsg_print(IMSG_WARNING, "w\n", -1);
        setenv("IMSG_DUP_OUTPUT", "0", 1); // read once only
        imsg_print(IMSG_WARNING, "v\n", -1);
        for (auto &s : got)
            printf("[%s]", s.c_str());
        return 0;
    });
    EXPECT_EQ(r.err, "mytool: Warning: w\nmytool: Warning: v\n");
    EXPECT_EQ(r.out, "[4:mytool: Warning: w\n][4:mytool: Warning: v\n]");
}

TEST_F(Imsg, CommandLogTakesEveryMessage)
{
    ks_test::temp_dir dir;
    std::string path = dir.file("log");
    auto r = ks_test::run_in_child([&] {
        std::vector<std::string> got;
        seen = &got;
        imsg_set_app_name("mytool");
        imsg_out_fns[IMSG_ERROR] = record_proc;
        FILE *f = fopen(path.c_str(), "w");
        ks::imsg_log_info.stream = f;
        ks::imsg_log_info.ref_count = 1;
        imsg_print(IMSG_OK, "ok\n", -1);
        imsg_print(IMSG_ERROR, "bad\n", -1);
        ks::imsg_log_info.ref_count = 0;
        fclose(f);
        imsg_print(IMSG_OK, "after\n", -1);
        return static_cast<int>(got.size());
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "after\n");
    EXPECT_EQ(ks_test::read_file(path), "ok\nmytool: Error: bad\n");
}

int reopen_calls, drain_calls;
void count_reopen() { reopen_calls++; }
void count_drain() { drain_calls++; }

TEST_F(Imsg, DaemonStateDrivesReopenDrainAndTimeStamps)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        imsg_print(IMSG_OK, "plain\n", -1);
        static char name[] = "daemon.log";
        ks::imsg_daemon_log_name = name;
        ks::imsg_daemon_reopen_hook = count_reopen;
        ks::imsg_drain_pipes_hook = count_drain;
        ks::clock_fix(86400 + 3600, 0);
        imsg_print(IMSG_OK, "even\n", -1);
        imsg_print(IMSG_OK_CONT, "odd\n", -1);
        ks::imsg_daemon_suspended = true;
        imsg_print(IMSG_ERROR, "suspended\n", -1);
        fflush(stdout);
        char *stamp = date_fmt_token_general(86400 + 3600, 0, 0, 0, 0);
        fprintf(stderr, "%d %d|%s", reopen_calls, drain_calls, stamp);
        free(stamp);
        return 0;
    });
    size_t sp = r.err.find('|');
    ASSERT_NE(sp, std::string::npos) << r.err;
    std::string stamp = r.err.substr(sp + 1);
    EXPECT_EQ(r.err.substr(0, sp), "mytool: Error: suspended\n3 3");
    EXPECT_FALSE(stamp.empty());
    EXPECT_EQ(r.out, "plain\n" + stamp + " even\nodd\n");
}

TEST_F(Imsg, PrintTimeWritesTheGeneralTokenForEvenTypes)
{
    ks::clock_fix(1700000000, 0);
    FILE *f = tmpfile();
    ASSERT_NE(f, nullptr);
    for (int t = 0; t <= 11; t++)
        imsg_print_time(f, t);
    rewind(f);
    char buf[512] = "";
    size_t n = fread(buf, 1, sizeof buf - 1, f);
    fclose(f);
    char *token = date_fmt_token_general(1700000000, 0, 0, 0, 0);
    ASSERT_NE(token, nullptr);
    std::string stamp = std::string(token) + " ";
    free(token);
    std::string want;
    for (int i = 0; i < 6; i++)
        want += stamp;
    EXPECT_EQ(std::string(buf, n), want);
    ks::clock_release();
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
    std::string file = base + "." + std::to_string(getpid());
    EXPECT_EQ(ks_test::read_file(file), "## library : subsys : msg ID : msg text\n"
                                        "ks_lib : ks : 4 : Operation %s: %s\n\n"
                                        "ks_lib : ks/imsg : 6 : Unable to open file \"%s\":  %s\n\n");
}

TEST_F(Imsg, UnopenableCaptureLogIsIgnored)
{
    setenv("OTTERMERE_IMSG_CAPTURE_LOG", "/nonexistent/dir/capture", 1);
    char buf[64];
    EXPECT_EQ(imsg_snprintf(buf, sizeof buf, &_ks_ks_msg_table, ks_operation, "a", "b"), 15);
    EXPECT_STREQ(buf, "Operation a: b\n");
}

// ---- styled writing ----

const char styled[] = "\001\0011Bbold\001\0010B \001\0011Iso\001\0010I \001\0011Uul\001\0010U\n";

std::string cap(const char *name)
{
    const char *s = tigetstr(name);
    return s && s != reinterpret_cast<char *>(-1) ? s : "";
}

TEST_F(Imsg, StyledTextOnATerminalCarriesTheCapabilities)
{
    setenv("TERM", "xterm", 1);
    auto r = ks_test::run_in_pty([] {
        imsg_print(IMSG_OK, styled, -1);
        return 0;
    });
    EXPECT_EQ(r.exit_code(), 0);
    int err = 0;
    ASSERT_EQ(setupterm("xterm", 2, &err), OK);
    std::string want = cap("bold") + "bold" + cap("sgr0") + " " + cap("smso") + "so" + cap("rmso") + " " +
                       cap("smul") + "ul" + cap("rmul") + "\r\n";
    EXPECT_FALSE(cap("bold").empty());
    EXPECT_EQ(r.out, want);
}

TEST_F(Imsg, StyledTextToAPipeIsPlain)
{
    setenv("TERM", "xterm", 1);
    auto r = ks_test::run_in_child([] {
        imsg_print(IMSG_OK, styled, -1);
        return 0;
    });
    EXPECT_EQ(r.out, "bold so ul\n");
}

TEST_F(Imsg, NoBoldOrNoTermGivesPlainText)
{
    setenv("TERM", "xterm", 1);
    setenv("ORVIN_NO_BOLD", "1", 1);
    auto r = ks_test::run_in_pty([] {
        imsg_print(IMSG_OK, styled, -1);
        return 0;
    });
    EXPECT_EQ(r.out, "bold so ul\r\n");
    unsetenv("ORVIN_NO_BOLD");
    unsetenv("TERM");
    r = ks_test::run_in_pty([] {
        imsg_print(IMSG_OK, styled, -1);
        imsg_print(IMSG_OK, "\001\0011Xkeep\n", -1); // not a style sequence
        return 0;
    });
    EXPECT_EQ(r.out, "bold so ul\r\n\001\0011Xkeep\r\n");
}

TEST_F(Imsg, InterleaveMarkerFlushesAndIsDropped)
{
    auto r = ks_test::run_in_child([] {
        imsg_fputs("a||b\n", stdout);
        return 0;
    });
    EXPECT_EQ(r.out, "a||b\n");
    setenv("IMSG_IO_INTERLEAVE", "1", 1);
    r = ks_test::run_in_child([] {
        imsg_fputs("a||b|c\n", stdout);
        return 0;
    });
    EXPECT_EQ(r.out, "ab|c\n");
}

TEST_F(Imsg, MarkerInsideAShiftJisCharacterIsText)
{
    setenv("IMSG_IO_INTERLEAVE", "1", 1);
    auto r = ks_test::run_in_child([] {
        if (!setlocale(LC_ALL, "ja_JP.SJIS"))
            return 3;
        // 0x95 0x7C is one character whose second byte is '|'.
        imsg_fputs("\x95\x7C|x||y\n", stdout);
        return 0;
    });
    ASSERT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "\x95\x7C|xy\n");
}

// ---- tracing ----

TEST_F(Imsg, TraceAllSubsystemsUpToTheLevel)
{
    setenv("TRACE_SUBSYS", "*", 1);
    setenv("TRACE_VERBOSITY", "2", 1);
    EXPECT_EQ(imsg_get_desired_verbosity(), 32767);
    EXPECT_TRUE(imsg_should_trace("x", 2));
    EXPECT_EQ(imsg_get_desired_verbosity(), 2);
    EXPECT_FALSE(imsg_should_trace("x", 3));
    EXPECT_TRUE(imsg_should_trace_subsys("anything"));
}

TEST_F(Imsg, TraceMatchesWholeElementsOnly)
{
    setenv("TRACE_SUBSYS", "rt:ks/imsg", 1);
    setenv("TRACE_VERBOSITY", "1", 1);
    EXPECT_TRUE(imsg_should_trace("ks/imsg", 1));
    EXPECT_FALSE(imsg_should_trace("ks", 1));
    EXPECT_FALSE(imsg_should_trace("imsg", 1));
    EXPECT_TRUE(imsg_should_trace("rt", 1));
    EXPECT_FALSE(imsg_should_trace("r", 1));
    EXPECT_FALSE(imsg_should_trace("rt:ks", 1));
    EXPECT_TRUE(imsg_should_trace("rt:ks/imsg", 1)); // a run of elements
    imsg_set_trace_subsys("ks/imsg:ks");
    EXPECT_TRUE(imsg_should_trace("ks", 1)); // a later occurrence counts
    EXPECT_FALSE(imsg_should_trace("", 1));
}

TEST_F(Imsg, TraceSettingsFromCalls)
{
    setenv("TRACE_VERBOSITY", "junk", 1);
    EXPECT_EQ(imsg_get_verbosity_ev(), 0);
    EXPECT_FALSE(imsg_should_trace("x", 0)); // no list at all
    imsg_set_trace_verbosity(5);
    EXPECT_FALSE(imsg_should_trace("x", 1)); // TRACE_SUBSYS is read only with 32767
    imsg_set_trace_subsys("a:b");
    EXPECT_TRUE(imsg_should_trace("b", 5));
    EXPECT_FALSE(imsg_should_trace("b", 6));
    imsg_set_trace_subsys("");
    EXPECT_FALSE(imsg_should_trace("b", 1));
    imsg_reset_verbosity();
    EXPECT_EQ(imsg_get_desired_verbosity(), 32767);
    setenv("TRACE_VERBOSITY", "7", 1);
    imsg_set_trace_subsys("*");
    EXPECT_TRUE(imsg_should_trace("x", 7));
    EXPECT_EQ(imsg_get_desired_verbosity(), 7);
}

// ---- formatting into memory ----

TEST_F(Imsg, SnprintfFamily)
{
    char buf[64];
    EXPECT_EQ(imsg_snprintf(buf, 10, &_ks_ks_msg_table, ks_operation, "open", "gone"), 21);
    EXPECT_STREQ(buf, "Operation");
    EXPECT_EQ(imsg_snprintf(buf, 0, &_ks_ks_msg_table, ks_operation, "open", "gone"), 21);
    EXPECT_STREQ(buf, "Operation open: gone\n");
    EXPECT_EQ(imsg_sprintf(buf, "%d-%s", -1, 12, "z"), 4);
    EXPECT_STREQ(buf, "12-z");
    EXPECT_EQ(imsg_snprintf_taggable(buf, sizeof buf, &_imsg_ks_msg_table, 16), 7);
    EXPECT_STREQ(buf, "Error: ");
}

TEST_F(Imsg, DynamicLengthGrowsToFit)
{
    char *s = nullptr;
    std::string arg(300, 'q');
    int n = imsg_dynamic_len_snprintf(&s, 8, 1000, &_ks_ks_msg_table, ks_operation, "op", arg.c_str());
    ASSERT_EQ(n, 315);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(std::string(s), "Operation op: " + arg + "\n");
    free(s);
    // A text exactly as long as the buffer needs one byte more for its end.
    ASSERT_EQ(imsg_dynamic_len_snprintf(&s, 15, 15, &_ks_ks_msg_table, ks_operation, "a", "b"), -1);
    ASSERT_EQ(imsg_dynamic_len_snprintf(&s, 15, 16, &_ks_ks_msg_table, ks_operation, "a", "b"), 15);
    EXPECT_STREQ(s, "Operation a: b\n");
    free(s);
    s = reinterpret_cast<char *>(1);
    EXPECT_EQ(imsg_dynamic_len_snprintf(&s, 8, 100, &_ks_ks_msg_table, ks_operation, "op", arg.c_str()), -1);
    EXPECT_EQ(s, nullptr);
}

TEST_F(Imsg, DynamicLengthReportsABadMessageOnce)
{
    auto r = ks_test::run_in_child([] {
        imsg_set_app_name("mytool");
        char *s = reinterpret_cast<char *>(1);
        int n = imsg_dynamic_len_snprintf(&s, 10, 100, &_rt_ks_msg_table, _rt_ks_msg_table.count);
        return n == -1 && s == nullptr ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.err, "mytool: Error: IMSG Internal error (vsprintf) - tbl " + addr(&_rt_ks_msg_table) + ", num " +
                         std::to_string(_rt_ks_msg_table.count) + ".\n");
}

TEST_F(Imsg, DynamicLengthGivesUpOnAFormattingError)
{
    setenv("TRACE_SUBSYS", "ks/imsg", 1);
    setenv("TRACE_VERBOSITY", "1", 1);
    auto r = ks_test::run_in_child([] {
        char *s = reinterpret_cast<char *>(1);
        // The result stays negative at every size: the buffer grows by
        // fractional steps until it passes the maximum; with no room to grow
        // (start equal to max) it gives up at once.
        int a = imsg_dynamic_len_snprintf(&s, 10, 13, "%ls", -1, L"\x263a");
        int b = imsg_dynamic_len_snprintf(&s, 20, 20, "%ls", -1, L"\x263a");
        return a == -1 && b == -1 && s == nullptr ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.err, "Error, max buffer size 13 passed to imsg_dynamic_len_vsnprintf() is not sufficient to hold "
                     "the string.\n"
                     "Error, max buffer size 20 passed to imsg_dynamic_len_vsnprintf() is not sufficient to hold "
                     "the string.\n");
}

TEST_F(Imsg, DynamicLengthRejectsBadSizes)
{
    setenv("TRACE_SUBSYS", "ks/imsg", 1);
    setenv("TRACE_VERBOSITY", "1", 1);
    auto r = ks_test::run_in_child([] {
        char *s = nullptr;
        int a = imsg_dynamic_len_snprintf(&s, 10, 5, "x", -1);
        int b = imsg_dynamic_len_snprintf(&s, 0, 5, "x", -1);
        return a == -1 && b == -1 && s == nullptr ? 0 : 1;
    });
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_NE(r.err.find("max_size = 5,\tstart_size = 10\n"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("max_size = 5,\tstart_size = 0\n"), std::string::npos) << r.err;
}

// ---- error texts and settings ----

TEST_F(Imsg, ErrorNumberTexts)
{
    EXPECT_STREQ(imsg_strerror(0), "0");
    EXPECT_STREQ(imsg_strerror(-5), "-5");
    EXPECT_STREQ(imsg_strerror(ENOENT), strerror(ENOENT));
    EXPECT_STREQ(imsg_strerror(99999), "99999");
    EXPECT_STREQ(imsg_strerror_gethost(1), "Host not found");
    EXPECT_STREQ(imsg_strerror_gethost(2), "Non-authoritative host not found");
    EXPECT_STREQ(imsg_strerror_gethost(3), "This is a non-recoverable error");
    EXPECT_STREQ(imsg_strerror_gethost(4), "Valid name, no data record of requested type");
    EXPECT_STREQ(imsg_strerror_gethost(EACCES), strerror(EACCES));
    EXPECT_STREQ(imsg_strerror_gethost(0), "0");
}

uint32_t fake_clock(void *arg)
{
    return *static_cast<uint32_t *>(arg) + 1;
}

TEST_F(Imsg, NamesHomeErrnumFileAndClock)
{
    EXPECT_STREQ(imsg_get_app_name(), "noname");
    imsg_set_app_name("/x/y/tool");
    EXPECT_STREQ(imsg_get_app_name(), "tool");
    imsg_set_app_name("plain");
    EXPECT_STREQ(imsg_get_app_name(), "plain");
    imsg_set_app_name(nullptr);
    EXPECT_STREQ(imsg_get_app_name(), "noname");

    EXPECT_STREQ(imsg_set_message_home("/srv/msgs"), "/srv/msgs");
    EXPECT_STREQ(imsg_set_message_home(nullptr), "/opt/tamarack/ottermere");

    EXPECT_STREQ(ks::imsg_errnum_file(), "errnum.imsg");
    imsg_set_errnum_file(KS_SOURCE_DIR "/lib/ks/imsg.msg");
    EXPECT_STREQ(ks::imsg_errnum_file(), KS_SOURCE_DIR "/lib/ks/imsg.msg");
    imsg_set_errnum_file("/nonexistent/errnum"); // unreadable: nothing changes
    EXPECT_STREQ(ks::imsg_errnum_file(), KS_SOURCE_DIR "/lib/ks/imsg.msg");
    imsg_set_errnum_file(nullptr);
    EXPECT_STREQ(ks::imsg_errnum_file(), "errnum.imsg");

    EXPECT_EQ(imsg_clock(), 0u);
    uint32_t base = 41;
    imsg_set_clock_callback(fake_clock, &base);
    EXPECT_EQ(imsg_clock(), 42u);
}

TEST_F(Imsg, GuiFollowsTheFrontEndSwitches)
{
    // The switches are read once per process: each answer in a fresh child.
    auto r = ks_test::run_in_child([] { return imsg_in_gui(); });
    EXPECT_EQ(r.exit_code(), 0);
    r = ks_test::run_in_child([] {
        setenv("ORVIN_WEB_GUI", "1", 1);
        return imsg_in_gui();
    });
    EXPECT_EQ(r.exit_code(), 1);
    r = ks_test::run_in_child([] {
        setenv("ORVIN_FORCE_GUI", "1", 1);
        return imsg_in_gui();
    });
    EXPECT_EQ(r.exit_code(), 1);
}

TEST_F(Imsg, PromptProceedWithoutATerminalDoesNotRead)
{
    auto r = ks_test::run_in_child([] { return imsg_prompt_proceed(IMSG_OK, "Go on?\n", 0, 3); }, "abort\n");
    EXPECT_EQ(r.exit_code(), 0);
    EXPECT_EQ(r.out, "Go on?\n");
}

// Answers typed on a real terminal: the child's standard input is the slave
// side of a pseudo-terminal whose master already holds the lines.
int prompt_with_answers(const char *answers, int default_choice, int choices, int prompts)
{
    int master, slave;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0)
        return 100;
    if (write(master, answers, strlen(answers)) < 0)
        return 101;
    dup2(slave, 0);
    int code = 0;
    for (int i = 0; i < prompts; i++)
        code = code * 2 + imsg_prompt_proceed(IMSG_WARNING, "Go on?\n", default_choice, choices);
    return code;
}

TEST_F(Imsg, PromptProceedReadsAnswersOnATerminal)
{
    // abort, proceed, empty (default proceed), "ABO" (a prefix of the word)
    auto r = ks_test::run_in_child([] { return prompt_with_answers("abort\nproceed\n\nABO\n", 0, 3, 4); });
    EXPECT_EQ(r.exit_code(), 0b1001);
    EXPECT_EQ(r.err, "noname: Warning: Go on?\nnoname: Warning: Go on?\n"
                     "noname: Warning: Go on?\nnoname: Warning: Go on?\n");
    // An empty answer takes the default; abort is refused when not allowed.
    r = ks_test::run_in_child([] { return prompt_with_answers("\nabort\n", 1, 3, 1); });
    EXPECT_EQ(r.exit_code(), 1);
    r = ks_test::run_in_child([] { return prompt_with_answers("abort\n\n", 1, 2, 2); });
    EXPECT_EQ(r.exit_code(), 0);
}

} // namespace
