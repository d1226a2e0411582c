// The message layer: catalogue look-up and its two-slot cache, prefixes,
// printing and its failure paths, styled writing on real terminals, trace
// decisions, the formatters into memory, and the service table through which
// the layers above serve it.
#include <errno.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <pty.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include "imsg_msg.h"
#include "imsg_testing.h"
#include "ks/clp.h"
#include "ks/imsg.h"
#include "ks_testing.h"
#include "ks_msg.h"
#include "ks_test_util.h"

#include <curses.h>
#include <term.h>

namespace {

const char kNowhere[] = "/nonexistent/ks_imsg_test/%N.cat";
const char kTestNls[] = KS_TEST_NLS "/%N.cat";
const int kOperation = KS_MSG_OPERATION; // "Operation %s: %s\n", number 4
// 1970-01-02 01:00:00 UTC in the date module's general form: the daemon stamp.
const std::string kStamp = "1970-01-02T01:00:00Z ";

// Tables of two other catalogue names (tests/data/imsg_other.msg and imsg_third.msg).
const char *const kOtherTexts[] = {"other text %d\n"};
const char *const kThirdTexts[] = {"third text %d\n"};
const int16_t kOneNumber[] = {1};
const imsg_msg_table_t kOther = {"imsg_other", "other", 1, 1, kOtherTexts, kOneNumber};
const imsg_msg_table_t kThird = {"imsg_third", "third", 1, 1, kThirdTexts, kOneNumber};

// What a child wrote to standard output, "|", what it wrote to standard error.
std::string said(const std::function<int()> &fn)
{
    auto r = ks_test::run_in_child(fn);
    return r.out + "|" + r.err;
}

// imsg_set_app_name records the command line, which needs a host data
// directory: each case gets an empty one.
class Imsg : public ::testing::Test {
    void SetUp() override
    {
        for (const char *v : {"PRINT_SUBSYS", "PRINT_SUBSYS_OK", "IMSG_IO_INTERLEAVE", "TRACE_VERBOSITY", "TRACE_SUBSYS",
                              "IMSG_DUP_OUTPUT", "ORVIN_NO_BOLD", "ORVIN_FORCE_GUI", "ORVIN_WEB_GUI"})
            unsetenv(v);
        setenv("NLSPATH", kNowhere, 1);
        setenv("OTTER_HOSTDATA_DIR", hostdata.path().c_str(), 1);
    }
    ks_test::temp_dir hostdata;
};

// ---- catalogue look-up ----

// One look-up of a scripted cache run (where the catalogues are, the time),
// then what it gave ("de": translated, "en": built in), the two slots ("-":
// empty) and the number of opens.
struct lookup {
    const imsg_msg_table_t *table; const char *nlspath; long sec, usec; const char *after;
};

void play(std::initializer_list<lookup> steps)
{
    for (const lookup &s : steps) {
        setenv("NLSPATH", s.nlspath, 1);
        ks::clock_fix_for_testing(s.sec, s.usec);
        int index = s.table == &_ks_ks_msg_table ? kOperation : 0;
        std::string got = cat_extractmsg(s.table, index) != s.table->texts[index] ? "de" : "en";
        for (int slot : {0, 1})
            got += std::string(" ") + (ks::imsg_catalog_slot_name_for_testing(slot) ?: "-");
        EXPECT_EQ(got + " " + std::to_string(ks::imsg_catalog_open_count_for_testing()), s.after) << s.sec;
    }
}

TEST_F(Imsg, TranslatedCatalogueSuppliesTextsAndTheSeverityWordsOnce)
{
    setenv("NLSPATH", kTestNls, 1);
    ks::clock_fix_for_testing(1000, 0);
    EXPECT_EQ(said([] {
                  imsg_set_app_name("mytool");
                  imsg_print(IMSG_ERROR, &_ks_ks_msg_table, kOperation, "open", "weg");
                  return imsg_print(IMSG_WARNING, &_imsg_ks_msg_table, IMSG_MSG_LOG_INTERNAL_ERROR) < 0;
              }),
              "|mytool: Fehler: Vorgang open: weg\nmytool: Warnung: Logging internal error to log file\n");
    // A message missing from the catalogue falls back to its built-in text.
    EXPECT_EQ(std::string(imsg_strerror_gethost(1)) + "|" + imsg_strerror_gethost(4),
              "Rechner nicht gefunden|Valid name, no data record of requested type");
    EXPECT_STREQ(imsg_prefix_format(IMSG_ERROR, 0), "%s: Fehler: ");
    // Push ks_lib out of both slots, then reopen it where it does not exist:
    // the texts are English again, the words are not.
    play({{&kOther, kTestNls, 1001, 0, "de ks_lib imsg_other 2"}, {&kThird, kTestNls, 1002, 0, "de imsg_third imsg_other 3"},
          {&_ks_ks_msg_table, kNowhere, 1003, 0, "en imsg_third ks_lib 4"}});
    EXPECT_STREQ(imsg_prefix_format(IMSG_WARNING, 1), "%s/%s: Warnung: ");
}

TEST_F(Imsg, AlternatingNamesKeepTheirSlotsAndAThirdTakesTheLeastRecentlyUsed)
{
    // imsg_other goes when ks_lib was used last; then imsg_other takes
    // ks_lib's slot, older by its seconds although newer by its microseconds.
    play({{&_ks_ks_msg_table, kTestNls, 5000, 100, "de ks_lib - 1"}, {&kOther, kTestNls, 5000, 200, "de ks_lib imsg_other 2"},
          {&_ks_ks_msg_table, kTestNls, 5000, 300, "de ks_lib imsg_other 2"},
          {&kThird, kTestNls, 5000, 400, "de ks_lib imsg_third 3"},
          {&_ks_ks_msg_table, kTestNls, 4999, 999999, "de ks_lib imsg_third 3"},
          {&kOther, kTestNls, 5001, 0, "de imsg_other imsg_third 4"}});
}

TEST_F(Imsg, FailedSlotsAreKeptAndReusedInTurnButBeforeAnOpenCatalogueIsClosed)
{
    // Tables of one catalogue name share a slot; a catalogue appearing later
    // changes nothing: the failed slot is not reopened until chosen again.
    play({{&_stg_ks_msg_table, kNowhere, 1, 0, "en ks_lib - 1"}, {&_ks_ks_msg_table, kTestNls, 1, 0, "en ks_lib - 1"},
          {&kOther, kNowhere, 2, 0, "en ks_lib imsg_other 2"}, {&kThird, kNowhere, 3, 0, "en imsg_third imsg_other 3"},
          {&_ks_ks_msg_table, kNowhere, 4, 0, "en imsg_third ks_lib 4"},
          // The failed slot is taken although the turn is the open one's, and
          // imsg_other stays open (and translated) where NLSPATH leads nowhere.
          {&kOther, kTestNls, 5, 0, "de imsg_other ks_lib 5"}, {&kThird, kNowhere, 6, 0, "en imsg_other imsg_third 6"},
          {&_ks_ks_msg_table, kNowhere, 7, 0, "en imsg_other ks_lib 7"}, {&kOther, kNowhere, 8, 0, "de imsg_other ks_lib 7"}});
}

TEST_F(Imsg, RealCatalogueMatchesTheBuiltInTexts)
{
    setenv("NLSPATH", KS_CATALOG_DIR "/%N.cat", 1);
    for (const imsg_msg_table_t *t :
         {&_stg_ks_msg_table, &_list_ks_msg_table, &_strutl_ks_msg_table, &_ks_ks_msg_table, &_imsg_ks_msg_table,
          &_date_ks_msg_table, &_clp_ks_msg_table, &_sysutl_ks_msg_table, &_rt_ks_msg_table, &_rt_proc_ks_msg_table,
          &_server_id_ks_msg_table, &_credutl_ks_msg_table, &_pfm_ks_msg_table})
        for (int i = 0; i < t->count; i++)
            EXPECT_TRUE(cat_extractmsg(t, i) != t->texts[i] && strcmp(cat_extractmsg(t, i), t->texts[i]) == 0)
                << t->subsys << " index " << i;
    EXPECT_EQ(ks::imsg_catalog_open_count_for_testing(), 1u);
}

// ---- prefixes and printing ----

// Built-in texts without a catalogue, the base name of the application, the
// prefixes of each type in both forms, the trace line's time stamp, and none
// while suppressed.
TEST_F(Imsg, PrintsWithThePrefixesOfPrintSubsysAndPrintSubsysOk)
{
    const char *plain = "done\nnote\nmore\no\n", *sub = "mytool/sub: Warning: w\n>>> 01:02:03.456 (mytool/sub): t\n";
    struct { const char *var, *out, *err; } cases[] = {
        {"NONE", plain, "mytool: Warning: w\n>>> 01:02:03.456 (mytool): t\n"}, {"PRINT_SUBSYS", plain, sub},
        // PRINT_SUBSYS_OK also turns the subsystem form on.
        {"PRINT_SUBSYS_OK", "mytool: Ok: done\nmytool: note\nmore\nmytool/sub: Ok: o\n", sub}};
    for (auto &c : cases) {
        EXPECT_EQ(said([&] {
                      setenv(c.var, "yes", 1);
                      imsg_set_app_name("a/b/mytool");
                      ks::clock_fix_for_testing(3723, 456789); // 01:02:03.456 UTC
                      for (auto [type, text] : {std::pair(IMSG_OK, "done\n"), {IMSG_INFO, "note\n"}, {IMSG_OK_CONT, "more\n"}})
                          imsg_print(type, text, -1);
                      imsg_print_shared(IMSG_WARNING, "sub", "w\n", -1);
                      imsg_print_shared(IMSG_OK, "sub", "o\n", -1);
                      imsg_print_shared(IMSG_TRACE, "sub", "t\n", -1);
                      imsg_output_subsys(0);
                      imsg_print_shared(IMSG_ERROR, "sub", &_ks_ks_msg_table, kOperation, "open", strerror(ENOENT));
                      imsg_print(IMSG_TRACE, &_ks_ks_msg_table, kOperation, "a", "b");
                      for (int type : {IMSG_WARNING_CONT, IMSG_ERROR_CONT, IMSG_TRACE_CONT, IMSG_NOTE_CONT})
                          imsg_print(type, "%d\n", -1, type);
                      imsg_suppress_prefix(1);
                      return imsg_print(IMSG_ERROR, "bare\n", -1) < 0 || imsg_suppress_prefix(0) != 1;
                  }),
                  std::string(c.out) + "|" + c.err + "mytool: Error: Operation open: No such file or directory\n" +
                      ">>> 01:02:03.456 (mytool): Operation a: b\n5\n7\n9\n10\nbare\n")
            << c.var;
    }
}

TEST_F(Imsg, BadIndexNullTableOrNullFormatIsAnInternalError)
{
    auto tbl = [](const char *where, const imsg_msg_table_t *t, int num) {
        return "mytool: Error: IMSG Internal error (" + std::string(where) + ") - tbl " +
               std::to_string(reinterpret_cast<intptr_t>(t)) + ", num " + std::to_string(num) + ".\n";
    };
    EXPECT_EQ(said([] {
                  imsg_set_app_name("mytool");
                  char buf[16], *s = buf;
                  for (int v : {int{*cat_extractmsg(&_pfm_ks_msg_table, _pfm_ks_msg_table.count)}, int{*cat_extractmsg(nullptr, 0)},
                                imsg_print(IMSG_WARNING, &_stg_ks_msg_table, _stg_ks_msg_table.count), imsg_print(IMSG_OK, nullptr, 3),
                                imsg_print(IMSG_OK, nullptr, -1), imsg_snprintf(buf, sizeof buf, &_list_ks_msg_table, -2),
                                imsg_dynamic_len_snprintf(&s, 10, 100, &_rt_ks_msg_table, _rt_ks_msg_table.count)})
                      printf("%d", v);
                  return printf("%d", s == nullptr) < 0;
              }),
              "00-1-1-1-1-11|" + tbl("cat_extractmsg", &_pfm_ks_msg_table, _pfm_ks_msg_table.count) + tbl("cat_extractmsg", nullptr, 0) +
                  tbl("vsprintf", &_stg_ks_msg_table, _stg_ks_msg_table.count) + tbl("print_sharedv", nullptr, 3) +
                  "mytool: Error: IMSG Internal error (vsprintf/NOMSG) - NULL Message.\n" +
                  tbl("vsprintf", &_list_ks_msg_table, -2) + tbl("vsprintf", &_rt_ks_msg_table, _rt_ks_msg_table.count));
}

// The output buffer (16384 bytes at first) grows to fit a long prefix or
// text and is kept; formatting failures (a wide character the "C" locale
// cannot convert) are reported only when tracing, as are the growing
// formatter's: too long for the maximum (10 to 13 by fractional steps), and
// sizes refused.
TEST_F(Imsg, OutputBufferGrowsAndFormattingFailuresAreReportedWhenTracing)
{
    std::string name(17000, 'n'), big(40000, 'x'), err = name + ": Warning: w 5\n";
    err += name + ": Error: " + big + "|\n" + name + ": Error: " + big + "|\n";
    std::string traced = "There was some kind of error in imsg_print_sharedv_util. (sz: 16384).\n"
                         "prefix consumed entire buffer. (sz: 16384).\n" + err +
                         "Error, max buffer size 13 passed to imsg_dynamic_len_vsnprintf() is not sufficient to hold "
                         "the string.\nERROR im imsg_dynamic_len_vsnprintf(): passed max_size argument is greater "
                         "than passed start_size argument, or start_size argument is less or equal to 0.\n"
                         "max_size = 5,\tstart_size = 10\n";
    for (bool trace : {true, false}) {
        setenv("TRACE_SUBSYS", trace ? "ks/imsg" : "other", 1);
        setenv("TRACE_VERBOSITY", "1", 1);
        EXPECT_EQ(said([&] {
                      char *s = reinterpret_cast<char *>(1), *t = s;
                      printf("%d ", imsg_print(IMSG_ERROR, "%ls\n", -1, L"\x263a"));
                      imsg_set_app_name(name.c_str());
                      for (int v : {imsg_print(IMSG_WARNING, "w %d\n", -1, 5), imsg_print(IMSG_ERROR, "%s|\n", -1, big.c_str()),
                                    imsg_print(IMSG_ERROR, "%s|\n", -1, big.c_str()),
                                    imsg_dynamic_len_snprintf(&s, 10, 13, "%ls", -1, L"\x263a"),
                                    imsg_dynamic_len_snprintf(&t, 10, 5, "x", -1)})
                          printf("%d ", v);
                      return printf("%d", s == nullptr) < 0;
                  }),
                  "-1 17015 57011 57011 -1 -1 1|" + (trace ? traced : err));
    }
}

TEST_F(Imsg, FormattersIntoMemory)
{
    char buf[128], *s = nullptr;
    std::string arg(300, 'q'), got;
    got += std::to_string(imsg_snprintf(buf, 10, &_ks_ks_msg_table, kOperation, "open", "gone")) + buf + "|";
    got += std::to_string(imsg_snprintf(buf, 0, &_ks_ks_msg_table, kOperation, "open", "gone")) + buf + "|";
    got += std::to_string(imsg_sprintf(buf, "%d-%s", -1, 12, "z")) + buf + "|";
    got += std::to_string(imsg_snprintf_taggable(buf, sizeof buf, &_imsg_ks_msg_table, IMSG_MSG_WORD_ERROR)) + buf;
    ks::clock_fix_for_testing(3723, 456789);
    got += std::to_string(imsg_snprintf_type(buf, sizeof buf, IMSG_TRACE, "x=%d\n", -1, 4)) + buf;
    got += std::to_string(imsg_snprintf_type(buf, 10, IMSG_WARNING, "x=%d\n", -1, 4)) + buf + "|";
    imsg_set_app_name(std::string(3000, 'n').c_str()); // the count covers a prefix longer than any buffer
    got += std::to_string(imsg_snprintf_type(buf, 8, IMSG_ERROR, "x=%d\n", -1, 4)) + buf;
    EXPECT_EQ(got, "21Operation|21Operation open: gone\n|412-z|7Error: 31>>> 01:02:03.456 (noname): x=4\n"
                   "21noname: W|3013nnnnnnn");
    ASSERT_EQ(imsg_dynamic_len_snprintf(&s, 8, 1000, &_ks_ks_msg_table, kOperation, "op", arg.c_str()), 315);
    EXPECT_EQ(std::string(s), "Operation op: " + arg + "\n");
    free(s);
    // A text exactly as long as the buffer needs one byte more for its end; a
    // failing format with no room to grow, or a start below 1, gives up.
    EXPECT_EQ(imsg_dynamic_len_snprintf(&s, 15, 15, &_ks_ks_msg_table, kOperation, "a", "b") +
                  imsg_dynamic_len_snprintf(&s, 20, 20, "%ls", -1, L"\x263a") + imsg_dynamic_len_snprintf(&s, 0, 5, "x", -1),
              -3);
    ASSERT_EQ(imsg_dynamic_len_snprintf(&s, 15, 16, &_ks_ks_msg_table, kOperation, "a", "b"), 15);
    EXPECT_STREQ(s, "Operation a: b\n");
    free(s);
}

// ---- output procedures, logs and the capture file ----

std::string seen;
void record_proc(int type, const char *text) { seen += "[" + std::to_string(type) + ":" + text + "]"; }

TEST_F(Imsg, InstalledProceduresTakeTheMessageAndDupOutputPrintsToo)
{
    std::string got = said([] {
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
        return printf("%d %s", ks::imsg_current_type_for_testing(), seen.c_str()) < 0;
    });
    std::string head = "12 [4:mytool: Warning: w\n][2:i\n][3:c\n]{2j\n}"
                       "[6:mytool: Error: Unknown message type 12 in file ../imsg at line ";
    EXPECT_EQ(got.substr(0, head.size()) + got.substr(got.size() - 45), head + "[12:System message: big 3\n]|mytool: Error: e\n");
    setenv("IMSG_DUP_OUTPUT", "1", 1);
    EXPECT_EQ(said([] {
                  imsg_out_fns[IMSG_WARNING] = record_proc;
                  imsg_print(IMSG_WARNING, "w\n", -1);
                  setenv("IMSG_DUP_OUTPUT", "0", 1); // read once only
                  imsg_print(IMSG_WARNING, "v\n", -1);
                  return printf("%s", seen.c_str()) < 0;
              }),
              "[4:noname: Warning: w\n][4:noname: Warning: v\n]|noname: Warning: w\nnoname: Warning: v\n");
}

// The log layer's seams: an open command log takes every message, ahead of
// any procedure; a daemon log is reopened and drained before each message and
// its time stamp goes before the even types unless output is suspended.
int reopen_calls, drain_calls;

TEST_F(Imsg, CommandAndDaemonLogsDrivePrinting)
{
    ks_test::temp_dir dir;
    std::string path = dir.file("log");
    EXPECT_EQ(said([&] {
                  imsg_set_app_name("mytool");
                  imsg_out_fns[IMSG_ERROR] = record_proc;
                  FILE *log = fopen(path.c_str(), "w");
                  ks::imsg_set_log_info({1, 0, log, 0});
                  imsg_print(IMSG_OK, "ok\n", -1);
                  imsg_print(IMSG_ERROR, "bad\n", -1);
                  ks::imsg_set_log_info({0, 0, nullptr, 0});
                  fclose(log);
                  ks::imsg_services s = ks::imsg_services_in_use();
                  s.reopen_daemon_log = [] { reopen_calls++; };
                  s.drain_daemon_pipes = [] { drain_calls++; };
                  ks::imsg_set_services_for_testing(s);
                  ks::imsg_set_daemon_log_name("daemon.log");
                  ks::clock_fix_for_testing(90000, 0);
                  imsg_print(IMSG_OK, "even\n", -1);
                  imsg_print(IMSG_OK_CONT, "odd\n", -1);
                  imsg_print_time(stdout, 10);
                  imsg_print_time(stdout, 11);
                  ks::imsg_set_daemon_suspended(true);
                  imsg_print(IMSG_INFO, "suspended\n", -1);
                  return printf("%d %d %s", reopen_calls, drain_calls, seen.c_str()) < 0;
              }),
              kStamp + "even\nodd\n" + kStamp + "suspended\n3 3 |");
    EXPECT_EQ(ks_test::read_file(path), "ok\nmytool: Error: bad\n");
}

TEST_F(Imsg, CaptureLogRecordsCataloguedMessages)
{
    ks_test::temp_dir dir;
    for (std::string where : {dir.file("capture"), std::string("/nonexistent/dir/capture")}) { // unopenable: ignored
        setenv("OTTERMERE_IMSG_CAPTURE_LOG", where.c_str(), 1);
        EXPECT_EQ(said([&] {
                      char buf[128];
                      imsg_snprintf(buf, sizeof buf, "literal %d", -1, 1); // not catalogued: not recorded
                      imsg_sprintf(buf, &_imsg_ks_msg_table, IMSG_MSG_CANNOT_OPEN_FILE, "f", "g");
                      printf("%d|", imsg_snprintf(buf, sizeof buf, &_ks_ks_msg_table, kOperation, "a", "b"));
                      return printf("%s", ks_test::read_file(where + "." + std::to_string(getpid())).c_str()) < 0;
                  }),
                  where[1] == 'n' ? "15||" : "15|## library : subsys : msg ID : msg text\n"
                                             "ks_lib : ks/imsg : 6 : Unable to open file \"%s\":  %s\n\n"
                                             "ks_lib : ks : 4 : Operation %s: %s\n\n|");
    }
}

// ---- styled writing ----

TEST_F(Imsg, StyledTextCarriesTheCapabilitiesOnlyOnATerminalWithTerm)
{
    int err = 0;
    ASSERT_EQ(setupterm("xterm", 2, &err), OK);
    auto cap = [](const char *name) { return std::string(tigetstr(name)); }; // xterm has all six
    std::string styled = cap("bold") + "bold" + cap("sgr0") + " " + cap("smso") + "so" + cap("rmso") + " " +
                         cap("smul") + "ul" + cap("rmul");
    ASSERT_NE(styled, "bold so ul");
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
    EXPECT_EQ(said([] { return imsg_fputs("a||b\n", stdout) < 0; }), "a||b\n|");
    setenv("IMSG_IO_INTERLEAVE", "1", 1);
    EXPECT_EQ(said([] {
                  imsg_fputs("a||b|c\n", stdout);
                  if (!setlocale(LC_ALL, "ja_JP.SJIS"))
                      return 3;
                  return imsg_fputs("\x95\x7C|x||y\n", stdout) < 0 ? 1 : 0; // 0x95 0x7C: one character ending in '|'
              }),
              "ab|c\n\x95\x7C|xy\n|");
}

// ---- tracing ----

TEST_F(Imsg, TraceMatchesWholeElementsOnlyAndReadsTheEnvironmentOnce)
{
    setenv("TRACE_SUBSYS", "*", 1);
    setenv("TRACE_VERBOSITY", "2", 1);
    EXPECT_EQ(imsg_get_desired_verbosity(), 32767);
    EXPECT_EQ(imsg_should_trace("x", 2) * 10 + imsg_should_trace("x", 3), 10);
    EXPECT_EQ(imsg_get_desired_verbosity(), 2);
    for (auto [list, subsys, want] : {std::tuple("rt:ks/imsg", "ks/imsg", 1), {"rt:ks/imsg", "ks", 0}, {"rt:ks/imsg", "imsg", 0},
                                      {"rt:ks/imsg", "rt", 1}, {"rt:ks/imsg", "r", 0}, {"rt:ks/imsg", "rt:ks", 0},
                                      {"ks/imsg:ks", "ks", 1}, {"*", "any", 1}, {"", "x", 0}}) {
        imsg_set_trace_subsys(list);
        EXPECT_EQ(imsg_should_trace(subsys, 2) + imsg_should_trace_subsys(subsys) + imsg_should_trace(subsys, 3), 2 * want)
            << list << " / " << subsys;
    }
    imsg_reset_verbosity(); // read again; a list already set stays: "" from the table
    setenv("TRACE_VERBOSITY", "junk", 1);
    EXPECT_EQ(imsg_get_verbosity_ev() + imsg_should_trace("x", 0), 0);
    imsg_set_trace_subsys(nullptr);
    imsg_set_trace_verbosity(5);
    EXPECT_FALSE(imsg_should_trace("x", 1)); // no list, and TRACE_SUBSYS is read only while unread
}

// ---- settings, error texts and the front end ----

TEST_F(Imsg, ErrorTextsAppNameAndClock)
{
    std::string got;
    for (int n : {0, -5, 99999, EACCES, 1, 2, 3, 4})
        got += std::string(imsg_strerror(n)) + "|" + imsg_strerror_gethost(n) + "|";
    EXPECT_EQ(got, "0|0|-5|-5|99999|99999|Permission denied|Permission denied|Operation not permitted|Host not found|"
                   "No such file or directory|Non-authoritative host not found|No such process|This is a "
                   "non-recoverable error|Interrupted system call|Valid name, no data record of requested type|");
    imsg_set_app_name(nullptr);
    EXPECT_STREQ(imsg_get_app_name(), "noname");
    EXPECT_EQ(imsg_clock(), 0u);
    uint32_t base = 41;
    imsg_set_clock_callback([](void *arg) { return *static_cast<uint32_t *>(arg) + 1; }, &base);
    EXPECT_EQ(imsg_clock(), 42u);
}

TEST_F(Imsg, TaggingIsOnOnlyForTheWordTrueInAnyCase)
{
    std::string got;
    for (const char *value : {"tRuE", "TRUE", "True ", "yes", "Trüe"})
        got += said([=] {
            setlocale(LC_ALL, "de_DE.UTF-8");
            setenv("OTTERMERE_ENABLE_ATE_MESSAGES", value, 1);
            return printf("%d", (imsg_initialize(), ks::imsg_tagging_enabled_for_testing())) < 0;
        });
    EXPECT_EQ(got, "1|1|0|0|0|");
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
    return printf("%d", code) < 0;
}

TEST_F(Imsg, PromptProceedReadsAnswersOnlyOnATerminal)
{
    // No terminal: proceed.  Then abort, proceed, empty (the default: abort)
    // and "ABO" (a prefix of the word); abort refused when not allowed, and
    // then the empty default proceeds too.
    EXPECT_EQ(said([] { return printf("%d", imsg_prompt_proceed(IMSG_OK, "Go on?\n", 1, 3)) < 0; }), "Go on?\n0|");
    std::string line = "noname: Warning: Go on?\n";
    EXPECT_EQ(said([] { return prompt_with_answers("abort\nproceed\n\nABO\n", 1, 3, 4); }), "11|" + line + line + line + line);
    EXPECT_EQ(said([] { return prompt_with_answers("abort\n\n", 1, 2, 2); }), "0|" + line + line);
}

// ---- the service table ----

// Wired, the layers above serve the message layer: naming the tool records
// its command line, either front-end switch counts, a daemon line carries the
// date module's stamp, a failed check is the fault manager's message.  Unset,
// each procedure gives way to the plain thing.
TEST_F(Imsg, ServicesOfTheLayersAboveAndThePlainThingWithoutThem)
{
    for (const char *gui : {"ORVIN_FORCE_GUI", "ORVIN_WEB_GUI"})
        for (bool wired : {true, false}) {
            auto r = ks_test::run_in_child([=] {
                struct rlimit no_core = {0, 0};
                setrlimit(RLIMIT_CORE, &no_core);
                setenv(gui, "1", 1);
                if (!wired)
                    ks::imsg_set_services_for_testing({});
                imsg_set_app_name("a/b/mytool");
                printf("%s %d|", clp_get_command(), imsg_in_gui());
                ks::clock_fix_for_testing(90000, 0);
                ks::imsg_set_daemon_log_name("daemon.log");
                imsg_print(IMSG_OK, "line\n", -1);
                ks::imsg_set_daemon_log_name(nullptr);
                fflush(stdout);
                ks::imsg_assert_fail("x > 0", "imsg", 12);
                return 0;
            });
            EXPECT_EQ(r.term_signal(), SIGABRT) << wired;
            EXPECT_EQ(r.out + r.err, wired ? "mytool 1|" + kStamp + "line\nmytool: Error: PFM_ASSERT:(x > 0) failed: 'imsg':12\n"
                                           : "No command 0|line\nPFM_ASSERT:(x > 0) failed: 'imsg':12\n");
        }
    EXPECT_EQ(ks_test::run_in_child([] { return imsg_in_gui(); }).exit_code(), 0);
}

} // namespace
