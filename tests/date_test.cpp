// Dates: both token styles against strftime in real zones and read back, the
// product grammar and ISO 8601 under a fixed "now", a real German locale, and
// bad input in exact-size buffers.
#include "ks/date.h"

#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>
#include <time.h>

#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "ks_testing.h"

namespace {

const int kPast = DATE_DIRECTION_PAST, kFuture = DATE_DIRECTION_FUTURE;
const time_t kNo = -1; // in a table of texts: the text is refused

void use_tz(const char *tz) { setenv("TZ", tz, 1), tzset(); }

time_t make_time(bool utc, int y, int mo, int d, int h, int mi, int s)
{
    struct tm tm = {s, mi, h, d, mo - 1, y - 1900, 0, 0, -1, 0, nullptr};
    return utc ? timegm(&tm) : mktime(&tm);
}
time_t L(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) { return make_time(false, y, mo, d, h, mi, s); }
time_t U(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) { return make_time(true, y, mo, d, h, mi, s); }

std::string fmt_tm(time_t t, const char *fmt, bool utc = false)
{
    struct tm tm;
    utc ? gmtime_r(&t, &tm) : localtime_r(&t, &tm);
    char buf[256];
    return std::string(buf, strftime(buf, sizeof buf, fmt, &tm));
}

// The ISO zone suffix derived independently from strftime's %z.
std::string zone_suffix(time_t t)
{
    std::string z = fmt_tm(t, "%z");
    return z == "+0000" || z == "-0000" ? "Z" : z.substr(0, 3) + ":" + z.substr(3, 2);
}

std::string tok(time_t t, int kind, int style, int utc = 0)
{
    std::unique_ptr<char, void (*)(void *)> s(date_fmt_token_general(t, kind, style, utc, 0), free);
    return s ? s.get() : "(null)";
}

// The time a text gives, or kNo when it is refused (then *t must be untouched).
time_t parsed(const char *text, int direction = kPast)
{
    time_t t = -77;
    return date_str_to_time2(text, direction, &t) == 0 ? t : t == -77 ? kNo : -88;
}

struct Want { const char *text; time_t t; int direction = kPast; }; // t kNo: refused, *t untouched

void check(std::initializer_list<Want> cases)
{
    for (const Want &c : cases)
        EXPECT_EQ(parsed(c.text, c.direction), c.t) << '"' << c.text << "\" direction " << c.direction;
}
void refused(std::initializer_list<const char *> texts)
{
    for (const char *text : texts)
        EXPECT_EQ(parsed(text), kNo) << '"' << text << '"';
}

// An exact-size heap copy, so that ASan sees any read past the end.
std::vector<char> exact(const std::string &s) { return std::vector<char>(s.c_str(), s.c_str() + s.size() + 1); }

// ---- Formatting in real zones ----------------------------------------------

struct DateZones : ::testing::TestWithParam<const char *> {
    void SetUp() override { use_tz(GetParam()); }
};

TEST_P(DateZones, TokensMatchStrftimeAndReadBack)
{
    // Four decades, plus every quarter hour of a Friday-to-Monday stretch where
    // local and UTC days differ either way, across the week's end too.
    std::vector<time_t> times;
    std::mt19937 rng(42);
    for (time_t t = 946684800; t < 1900000000; t += 86400 * 3 + (time_t)(rng() % 7200))
        times.push_back(t);
    for (time_t t = U(2026, 11, 20); t < U(2026, 11, 24); t += 900)
        times.push_back(t);
    for (time_t t : times) {
        SCOPED_TRACE(t);
        std::string iso = tok(t, DATE_TOKEN_DATE_TIME, DATE_STYLE_ISO);
        std::string utc = tok(t, DATE_TOKEN_DATE_TIME, DATE_STYLE_PRODUCT, 1);
        ASSERT_EQ(iso, fmt_tm(t, "%Y-%m-%dT%H:%M:%S") + zone_suffix(t));
        ASSERT_EQ(tok(t, DATE_TOKEN_DATE, DATE_STYLE_ISO), fmt_tm(t, "%Y-%m-%d"));
        ASSERT_EQ(tok(t, DATE_TOKEN_DATE_TIME, DATE_STYLE_ISO, 1), fmt_tm(t, "%Y-%m-%dT%H:%M:%SZ", true));
        ASSERT_EQ(tok(t, DATE_TOKEN_DATE_TIME, DATE_STYLE_PRODUCT), fmt_tm(t, "%d-%b-%y.%H:%M:%S"));
        ASSERT_EQ(tok(t, DATE_TOKEN_DATE, DATE_STYLE_PRODUCT), fmt_tm(t, "%d-%b-%y"));
        ASSERT_EQ(utc, fmt_tm(t, "%d-%b-%y.%H:%M:%SUTC", true));
        ASSERT_EQ(std::string(date_fmt_long_date_time(t)) + "|" + date_fmt_short_date_time(t) + "|" +
                      date_fmt_short_date(t) + "|" + date_fmt_short_time(t),
                  fmt_tm(t, "%c|%x %X|%x|%H:%M:%S"));
        // Texts with a zone read back as t; a local one as the same local time.
        ASSERT_EQ(parsed(iso.c_str()), t);
        ASSERT_EQ(parsed(utc.c_str()), t);
        std::string basic = fmt_tm(t, "%Y%m%dT%H%M%S");
        ASSERT_EQ(fmt_tm(parsed(basic.c_str()), "%Y%m%dT%H%M%S"), basic);
    }
}

TEST_P(DateZones, ShortFormsFollowThePastYear)
{
    // 2026 is neither a multiple of 4 nor one after it: 365 days back.
    time_t now = L(2026, 11, 15, 12), year_ago = L(2025, 11, 15, 12);
    ks::clock_fix_for_testing(now, 0);
    ASSERT_EQ(date_one_year_ago(now), year_ago);
    std::vector<time_t> times = {now, now + 1, year_ago, year_ago + 1};
    for (time_t t = now - 800 * 86400L; t < now + 40 * 86400L; t += 17 * 3600 + 61)
        times.push_back(t);
    for (time_t t : times) {
        SCOPED_TRACE(t);
        bool recent = year_ago < t && t <= now; // a future time never counts
        ASSERT_STREQ(date_fmt_token_short_date_time(t), fmt_tm(t, recent ? "--%m-%dT%H:%M" : "%Y-%m-%d").c_str());
        ASSERT_EQ(tok(t, DATE_TOKEN_SHORT, DATE_STYLE_PRODUCT), fmt_tm(t, recent ? "%d-%b.%H:%M" : "%d-%b-%Y"));
        ASSERT_STREQ(date_fmt_ls_date_time(t), fmt_tm(t, recent ? "%b %d %H:%M" : "%b %d  %Y").c_str());
    }
    ks::clock_release_for_testing();
}

TEST_P(DateZones, ProductTokensDropTheLocaleBlanks)
{
    // The Japanese abbreviated month names begin with a blank (" 3\x8c\x8e").
    ASSERT_NE(setlocale(LC_ALL, "ja_JP.SJIS"), nullptr) << "LOCPATH must hold ja_JP.SJIS";
    ks::clock_fix_for_testing(L(2004, 3, 10, 12), 0);
    time_t t = L(2004, 3, 1, 14, 5, 9);
    std::string month = fmt_tm(t, "%b");
    ASSERT_EQ(month[0], ' ');
    std::string want = "01-" + month.substr(1) + "-04.14:05:09";
    EXPECT_EQ(tok(t, DATE_TOKEN_DATE_TIME, DATE_STYLE_PRODUCT), want);
    EXPECT_EQ(tok(t, DATE_TOKEN_SHORT, DATE_STYLE_PRODUCT), "01-" + month.substr(1) + ".14:05");
    // The locale's name is stored without its blank, so the token reads back.
    EXPECT_EQ(parsed(want.c_str()), t) << want;
    // The ls form is no token: its blanks stay.
    EXPECT_STREQ(date_fmt_ls_date_time(t), fmt_tm(t, "%b %d %H:%M").c_str());
    ks::clock_release_for_testing();
}

INSTANTIATE_TEST_SUITE_P(Zones, DateZones,
                         ::testing::Values("UTC", "Etc/GMT-3", "Etc/GMT+7", "Europe/Berlin", "America/New_York",
                                           "Asia/Kolkata", "Australia/Adelaide", "Pacific/Kiritimati",
                                           "Pacific/Pago_Pago"));

// ---- Styles, buffers and small routines --------------------------------------

TEST(DateFormat, ProductStyleFromTheEnvironment)
{
    setenv("OTTER_ISO_DATE_FMT", "0", 1);
    use_tz("Europe/Berlin");
    time_t t = L(2004, 3, 1, 14, 5, 9);
    // The setter looks at the variable before it replaces the default.
    EXPECT_EQ(date_fmt_set_default_style(DATE_STYLE_ISO), DATE_STYLE_PRODUCT);
    EXPECT_EQ(date_fmt_set_default_style(DATE_STYLE_PRODUCT), DATE_STYLE_ISO);
    EXPECT_STREQ(date_fmt_token_date_time(t), "01-Mar-04.14:05:09");
    EXPECT_STREQ(date_fmt_token_date(t), "01-Mar-04");
    EXPECT_STREQ(date_fmt_token_utc(t), "01-Mar-04.13:05:09UTC");
    EXPECT_STREQ(date_fmt_token_date_time_pname(t), "01-Mar-04.14:05:09");
    // Read once: a later change of the variable is not seen.
    setenv("OTTER_ISO_DATE_FMT", "1", 1);
    EXPECT_EQ(date_fmt_get_default_date_style(), DATE_STYLE_PRODUCT);
    EXPECT_EQ(date_fmt_set_default_style(DATE_STYLE_ISO), DATE_STYLE_PRODUCT);
    EXPECT_STREQ(date_fmt_token_date_time(t), "2004-03-01T14:05:09+01:00");
    EXPECT_STREQ(date_fmt_token_utc(t), "2004-03-01T13:05:09Z");
}

TEST(DateFormat, OtherValuesOfTheVariableKeepIso)
{
    setenv("OTTER_ISO_DATE_FMT", "00", 1);
    EXPECT_EQ(date_fmt_get_default_date_style(), DATE_STYLE_ISO);
    EXPECT_EQ(date_fmt_set_default_style(7), DATE_STYLE_ISO);
    EXPECT_EQ(date_fmt_set_default_style(DATE_STYLE_PRODUCT), DATE_STYLE_ISO);
    EXPECT_EQ(date_fmt_get_default_date_style(), DATE_STYLE_PRODUCT);
}

TEST(DateFormat, EveryRoutineKeepsItsOwnBuffer)
{
    use_tz("UTC");
    ks::clock_fix_for_testing(U(2026, 11, 15, 12), 0);
    time_t a = U(2004, 3, 1, 14, 5, 9), b = U(2010, 10, 10, 10, 10, 10);
    const char *r[] = {date_fmt_long_date_time(a),   date_fmt_short_date_time(a),       date_fmt_short_date(a),
                       date_fmt_short_time(a),       date_fmt_ls_date_time(a),          date_fmt_token_date_time(a),
                       date_fmt_token_date(a),       date_fmt_token_short_date_time(a), date_fmt_token_utc(a),
                       date_fmt_token_date_time_pname(a), date_fmt_token_numeric(a, DATE_NUMERIC_YYYYMMDD, nullptr)};
    EXPECT_EQ(std::set<const char *>(std::begin(r), std::end(r)).size(), sizeof r / sizeof r[0]) << "a shared buffer";
    // A call of one routine with another time leaves the others' results alone.
    date_fmt_token_date_time(b);
    EXPECT_EQ(std::string(r[4]) + "|" + r[7] + "|" + r[8] + "|" + r[9] + "|" + r[10],
              "Mar 01  2004|2004-03-01|2004-03-01T14:05:09Z|2004-03-01T14:05:09Z|20040301");
    ks::clock_release_for_testing();
}

TEST(DateFormat, NegativeTimesAndUnknownKindsGiveNoToken)
{
    for (auto f : {date_fmt_token_date_time, date_fmt_token_date, date_fmt_token_short_date_time, date_fmt_token_utc,
                   date_fmt_token_date_time_pname})
        EXPECT_EQ(f(-1), nullptr);
    EXPECT_EQ(date_fmt_token_numeric(-1, 0, "."), nullptr);
    EXPECT_EQ(tok(-1, 0, 0) + tok(0, 3, 0) + tok(0, 0, 3), "(null)(null)(null)"); // or an unknown kind or style
    EXPECT_STREQ(date_fmt_token_utc(0), "1970-01-01T00:00:00Z");
}

TEST(DateFormat, OneYearAgoKeepsItsCoarseRule)
{
    use_tz("UTC");
    const long d365 = 31536000, d366 = 31622400;
    struct { int y, m; long back; } cases[] = {{2004, 4, d366}, {2004, 3, d365}, {2004, 12, d366}, {2005, 3, d366},
                                              {2005, 1, d366}, {2005, 4, d365}, {2006, 7, d365},  {2007, 2, d365},
                                              {2100, 5, d366}, {2101, 2, d366}};
    for (auto &c : cases) // 2100 and 2101: no century rule
        EXPECT_EQ(date_one_year_ago(U(c.y, c.m, 20, 10)), U(c.y, c.m, 20, 10) - c.back) << c.y << "-" << c.m;
}

TEST(DateFormat, TimevalCarriesMicroseconds)
{
    for (long usec : {2500000L, -1L, 999999L, 0L, -2500000L}) {
        struct timeval tv;
        ks::clock_fix_for_testing(1000, usec);
        date_get_timeval(&tv);
        EXPECT_TRUE(tv.tv_usec >= 0 && tv.tv_usec <= 999999 && tv.tv_sec * 1000000L + tv.tv_usec == 1000000000L + usec)
            << usec << ": " << tv.tv_sec << " s " << tv.tv_usec << " us";
    }
    ks::clock_release_for_testing();
}

const char kUsage[] = "<date-time> = <date>.<time> | <date> | <time> | \"now\" | \"none\"\n"
                      "<date>      = d[d]-<month>[-[yy]yy] | <day-of-week> | \"today\" | \"yesterday\"\n"
                      "<time>      = h[h]:m[m][:s[s]][UTC[+|-][h[h][:mm]]] (24-hour time)\n";

TEST(DateFormat, UsageIsMessage45) { EXPECT_STREQ(date_usage_date_time(), kUsage); }

TEST(DateNumeric, EveryFormatReadsBack)
{
    use_tz("Europe/Berlin");
    time_t t = L(2004, 3, 1, 14, 5, 9), back = 0;
    const char *want[DATE_NUMERIC_COUNT] = {"040301.140509", "20040301.140509", "040301.1405", "20040301.1405",
                                            "040301",        "20040301",        "040301.14.05"};
    for (int f = 0; f < DATE_NUMERIC_COUNT; f++) {
        ASSERT_STREQ(date_fmt_token_numeric(t, f, "."), want[f]);
        EXPECT_TRUE(date_numeric_str_to_time(want[f], f, ".", &back) == 0 &&
                    back == (f <= 1 ? t : f <= 3 || f == 6 ? t - 9 : L(2004, 3, 1))) << want[f];
    }
    EXPECT_STREQ(date_fmt_token_numeric(t, DATE_NUMERIC_YYMMDD_HH_MM, "%"), "040301%14%05");
    struct { const char *text; int format; const char *sep; time_t want; } reads[] = {
        {"040301%14%05", DATE_NUMERIC_YYMMDD_HH_MM, "%", t - 9}, {"20040301140509", DATE_NUMERIC_ANY, nullptr, t},
        {"680101", DATE_NUMERIC_YYMMDD, nullptr, L(2068, 1, 1)}, {"040301.1405", DATE_NUMERIC_ANY, ".", t - 9}};
    for (auto &r : reads)
        EXPECT_TRUE(date_numeric_str_to_time(r.text, r.format, r.sep, &back) == 0 && back == r.want) << r.text;
}

TEST(DateNumeric, MalformedTextsFail)
{
    time_t t = 77;
    for (const char *b : {"", "0403", "040230", "041301", "040300", "040301.2400", "040301.1460", "040301.14059",
                          "040301.1405090", "04030a", "040301 1405", "040301.14:05"})
        EXPECT_EQ(date_numeric_str_to_time(b, DATE_NUMERIC_ANY, ".", &t), 1) << b;
    EXPECT_EQ(t, 77);
    EXPECT_EQ(date_numeric_str_to_time("040301", 9, ".", &t), 1);
    EXPECT_EQ(date_fmt_token_numeric(0, 9, "."), nullptr);
    EXPECT_EQ(date_fmt_token_numeric(0, 0, "12345678901234567"), nullptr);
}

// ---- The product grammar and ISO 8601 under a fixed now ----------------------

struct DateGrammar : ::testing::Test {
    void SetUp() override { use_tz("Europe/Berlin"), fix(2026, 11, 15); } // a Sunday, 12:00
    void TearDown() override { ks::clock_release_for_testing(); }
    static void fix(int y, int mo, int d, int h = 12, int mi = 0) { ks::clock_fix_for_testing(L(y, mo, d, h, mi), 0); }
};

TEST_F(DateGrammar, MissingYearFollowsTheDirection)
{
    check({{"1-jan", L(2026, 1, 1)}, {"1-dec", L(2025, 12, 1)}, {"1-jan", L(2027, 1, 1), kFuture},
           {"1-dec", L(2026, 12, 1), kFuture}, {"15-nov", L(2026, 11, 15)}, {"15-nov", L(2026, 11, 15), kFuture},
           {"16-NOV", L(2025, 11, 16)}, {"14-November", L(2027, 11, 14), kFuture}});
    // Across the year's end, for day words too.
    fix(2026, 12, 31, 23, 30);
    check({{"1-jan", L(2027, 1, 1), kFuture}, {"1-jan", L(2026, 1, 1)}, {"31-dec.23:59", L(2026, 12, 31, 23, 59)}});
    fix(2027, 1, 1, 0, 10);
    check({{"31-dec", L(2026, 12, 31)}, {"31-dec", L(2027, 12, 31), kFuture}, {"yesterday", L(2026, 12, 31)},
           {"thu", L(2026, 12, 31)}, {"thu", L(2027, 1, 7), kFuture}});
}

TEST_F(DateGrammar, LeapDays)
{
    fix(2028, 3, 15);
    check({{"29-feb", L(2028, 2, 29)}, {"29-feb", kNo, kFuture}, // next year's, 2029
           {"29-feb-04", L(2004, 2, 29)}, {"31-mar-04", L(2004, 3, 31)}});
    fix(2028, 3, 1, 8);
    check({{"yesterday", L(2028, 2, 29)}});
    refused({"29-feb-01", "31-feb", "30-feb-04", "31-apr-04"});
}

TEST_F(DateGrammar, Years)
{
    check({{"1-jan-68", L(2068, 1, 1)}, {"1-jan-00", L(2000, 1, 1)}, {"1-jan-1999", L(1999, 1, 1)},
           {"1-jan-70.12:00", L(1970, 1, 1, 12)}});
    refused({"1-jan-1968", "1-jan-100", "1-jan--4", "1-jan-69"}); // 1969: before the epoch in this zone
    use_tz("America/New_York");
    check({{"31-dec-69.20:00", 3600}});
}

TEST_F(DateGrammar, KeywordsBlanksAndMalformedTexts)
{
    check({{"now", L(2026, 11, 15, 12)}, {"NOW", L(2026, 11, 15, 12)}, {"none", 0}, {"today", L(2026, 11, 15)},
           {"  today \t", L(2026, 11, 15)}, {"Yesterday", L(2026, 11, 14)},
           {"yesterday.23:15", L(2026, 11, 14, 23, 15)}});
    refused({"to day", "12-mar-04. 14:05", "", "   ", "12-mar-04.", ".14:05", "12-foo-04", "32-jan", "0-jan",
             "1-jan-04-05", "1-jan-", "-jan-04", "x1-jan", "1--jan", "funday", "1-jan-04.14:05.1", "1-jan-4x",
             "yesterdays", "1-jan-04abc", "12-mar-04.14:05UTC+1:3x"});
    EXPECT_EQ(parsed(nullptr), kNo);
}

TEST_F(DateGrammar, WeekdaysAreWithinSixDays)
{
    check({{"sun", L(2026, 11, 15)}, {"sunday", L(2026, 11, 15), kFuture}, {"mon", L(2026, 11, 9)},
           {"mon", L(2026, 11, 16), kFuture}, {"FRI", L(2026, 11, 13)}, {"friday", L(2026, 11, 20), kFuture},
           {"sat", L(2026, 11, 14)}, {"saturday.08:00", L(2026, 11, 21, 8), kFuture}});
}

TEST_F(DateGrammar, Times)
{
    check({{"14:05", L(2026, 11, 15, 14, 5)}, {"7:5:3", L(2026, 11, 15, 7, 5, 3)},
           {"14:05UTC", U(2026, 11, 15, 14, 5)}, {"14:05utc+5", U(2026, 11, 15, 9, 5)},
           {"14:05UTC-03:30", U(2026, 11, 15, 17, 35)}, {"12-mar-2004.14:05UTC-2", U(2004, 3, 12, 16, 5)},
           {"12-mar-04.14:05:30utc+01:30", U(2004, 3, 12, 12, 35, 30)},
           // Daylight saving is the system's: summer times are an hour nearer UTC.
           {"1-jul-26.12:00", U(2026, 7, 1, 10)}, {"1-jan-26.12:00", U(2026, 1, 1, 11)},
           // A UTC time is exact also where Berlin's clock skips (29 March) or
           // repeats (25 October) an hour, and in 1970's first local hour.
           {"29-mar-26.01:30UTC", U(2026, 3, 29, 1, 30)}, {"29-mar-26.02:30UTC", U(2026, 3, 29, 2, 30)},
           {"25-oct-26.00:30UTC", U(2026, 10, 25, 0, 30)}, {"25-oct-26.01:30UTC", U(2026, 10, 25, 1, 30)},
           {"1-jan-70.00:30UTC", 1800}});
    refused({"31-dec-69.23:30UTC", "14", "14:", ":05", "14:05:", "14:-5", "14:05:09:01", "14:05UTC+", "14:05UTC+1:",
             "14:05UTC+123", "14:05X", "14UTC:05", "14UTC+1:30", "1a:05", "1-4:05"});
}

struct DateGerman : ::testing::Test {
    void SetUp() override
    {
        use_tz("UTC"), ks::clock_fix_for_testing(U(2026, 11, 15, 12), 0); // a Sunday
        ASSERT_NE(setlocale(LC_ALL, "de_DE.UTF-8"), nullptr) << "LOCPATH must hold de_DE.UTF-8";
    }
    void TearDown() override { ks::clock_release_for_testing(); }
};

TEST_F(DateGerman, LocaleNamesParse)
{
    // The built-in English names stay valid beside the locale's.
    check({{"24-Dezember-04", U(2004, 12, 24)}, {"1-Mär-04", U(2004, 3, 1)}, {"1-mär-04.10:00", U(2004, 3, 1, 10)},
           {"3-MÄRZ-04", U(2004, 3, 3)}, {"1-okt-05", U(2005, 10, 1)}, {"freitag", U(2026, 11, 13)},
           {"Mi", U(2026, 11, 11)}, {"1-mar-04", U(2004, 3, 1)}, {"wed", U(2026, 11, 11)}});
}

TEST_F(DateGerman, InstalledCatalogueEntriesSitAtTheirIndexes)
{
    // Under German names every English one comes from the catalogue alone, so
    // an entry read from the neighbouring index shows.
    setenv("NLSPATH", KS_CATALOG_DIR "/%N.cat", 1);
    EXPECT_STREQ(date_usage_date_time(), kUsage);
    // Each month's name and abbreviation, with its largest day (February: 29).
    const char *months[24] = {"JANUARY", "JAN",   "FEBRUARY", "FEB", "MARCH",     "MAR", "APRIL",   "APR",
                              "MAY",     "MAY",   "JUNE",     "JUN", "JULY",      "JUL", "AUGUST",  "AUG",
                              "SEPTEMBER", "SEP", "OCTOBER",  "OCT", "NOVEMBER",  "NOV", "DECEMBER", "DEC"};
    const int last[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    for (int i = 0; i < 24; i++)
        for (int day : {29, 30, 31}) {
            std::string text = std::to_string(day) + "-" + months[i] + "-04";
            EXPECT_EQ(parsed(text.c_str()), day <= last[i / 2] ? U(2004, i / 2 + 1, day) : kNo) << text;
        }
    const char *days[14] = {"SUNDAY",   "SUN", "MONDAY", "MON", "TUESDAY",  "TUE", "WEDNESDAY",
                            "WED",      "THURSDAY", "THU", "FRIDAY", "FRI", "SATURDAY", "SAT"};
    for (int i = 0; i < 14; i++)
        EXPECT_EQ(parsed(days[i]), U(2026, 11, 15 - (7 - i / 2) % 7)) << days[i];
    check({{"today.10:05", U(2026, 11, 15, 10, 5)}, {"yesterday.10:05:09UTC", U(2026, 11, 14, 10, 5, 9)},
           {"NONE", 0}, {"now", U(2026, 11, 15, 12)}});
}

struct DateIso : DateGrammar {};

TEST_F(DateIso, TheDigitAndHyphenTable)
{
    check({{"20", L(2000, 1, 1)},          {"2004", L(2004, 1, 1)},      {"2004-06", L(2004, 6, 1)},
           {"2004-06-01", L(2004, 6, 1)},  {"20040601", L(2004, 6, 1)},  {"040601", L(2004, 6, 1)},
           {"04-06-01", L(2004, 6, 1)},    {"-04-06", L(2004, 6, 1)},    {"-0406", L(2004, 6, 1)},
           {"-04", L(2004, 1, 1)},         {"2004-060", L(2004, 2, 29)}, {"2004060", L(2004, 2, 29)},
           {"04060", L(2004, 2, 29)},      {"04-366", L(2004, 12, 31)},  {"--0601", L(2026, 6, 1)},
           {"--06-01", L(2026, 6, 1)},     {"--06", L(2026, 6, 1)},      {"---10", L(2026, 11, 10)},
           {"-100", L(2026, 4, 10)}});
    refused({"1", "123", "--123", "---1234", "12345-", "-12345", "--123456", "123456789", "-", "----01", "2004-6",
             "2004-0601", "2004-06-1", "2004--06"});
}

TEST_F(DateIso, TimesZonesAndTruncation)
{
    check({{"2004-06-01T14", L(2004, 6, 1, 14)}, {"2004-06-01T1405", L(2004, 6, 1, 14, 5)},
           {"2004-06-01t140509", L(2004, 6, 1, 14, 5, 9)}, {"2004-06-01T14:05", L(2004, 6, 1, 14, 5)},
           {"2004-06-01T14:05:09z", U(2004, 6, 1, 14, 5, 9)}, {"2004-06-01T14:05:09+05", U(2004, 6, 1, 9, 5, 9)},
           {"2004-06-01T14:05:09-0130", U(2004, 6, 1, 15, 35, 9)}, {"2004-06-01T24:00", L(2004, 6, 2)},
           {"T10", L(2026, 11, 15, 10)}, {"T13", L(2026, 11, 14, 13)}, // after now: a day back
           {"T13", L(2026, 11, 15, 13), kFuture}, {"T10", L(2026, 11, 16, 10), kFuture},
           {"T-30", L(2026, 11, 15, 11, 30)}, // minute of an earlier hour
           {"T--15", L(2026, 11, 15, 12, 0, 15), kFuture}, {"1405Z", U(2026, 11, 14, 14, 5)},
           {"10:05:09Z", U(2026, 11, 15, 10, 5, 9)}});
    refused({"T", "T1", "T145", "T14:5", "T14:05:0", "T---10", "T-1", "2004-06-01T", "2004-06-01T14Z1",
             "2004-06-01T14+1", "2004-06-01T14+01:3", "2004-06-01T14+123", "2004-06-01T14:05:09.5",
             "2004-06-01 14:05", "2004-06-01X", "2004-06-01Z"});
}

TEST_F(DateIso, ValidationRefusesWeeksAndRanges)
{
    // Every week number is refused; a weekday without day or week is the
    // nearest such day.
    check({{"-W-5", L(2026, 11, 13)}, {"-W-5", L(2026, 11, 20), kFuture}, {"-W-7", L(2026, 11, 15)}});
    refused({"2004-W05-3", "2004-W05", "2004-W053", "-W05", "1805", "2104-01-01", "2004-13-01", "2004-00-10",
             "2004-06-32", "2004-06-00", "2004-367", "2004-000", "2004-06-01T25", "2004-06-01T1260",
             "2004-06-01T12:00:61", "2004-06-01T12+24", "2004-06-01T12+0160", "-W-8", "-W-0", "2004-02-30",
             "2005-02-29", "2005-366", "2004-06-01T24:01"});
}

TEST_F(DateIso, AbsentFieldsFollowTheDirection)
{
    check({{"--01-01", L(2026, 1, 1)}, {"--12-01", L(2025, 12, 1)}, {"--01-01", L(2027, 1, 1), kFuture},
           {"--12-01", L(2026, 12, 1), kFuture}, {"---20", L(2026, 10, 20)}, {"---10", L(2026, 12, 10), kFuture},
           {"99-01-01", L(1999, 1, 1)}, {"27-01-01", L(2027, 1, 1), kFuture}});
    fix(2028, 3, 1, 8);
    check({{"--02-29", L(2028, 2, 29)}, {"-365", L(2027, 12, 31)}}); // 2028's day 365 lies ahead
}

TEST_F(DateIso, ADayTheMovedMonthOrYearLacksIsRefused)
{
    // Never carried into the following month: 31 November is no 1 December.
    fix(2026, 12, 15);
    check({{"---31", kNo}, {"---31", L(2026, 12, 31), kFuture}}); // November has 30
    fix(2026, 11, 15);
    check({{"---31", L(2026, 10, 31)}, {"---31", L(2026, 12, 31), kFuture}});
    // 29 February as the product grammar reads it.
    fix(2028, 1, 15);
    check({{"--02-29", kNo}, {"29-feb", kNo}, {"--02-29", L(2028, 2, 29), kFuture}}); // 2027 has none
    fix(2027, 3, 15);
    check({{"--02-29", kNo}, {"--02-29", L(2028, 2, 29), kFuture}, {"29-feb", L(2028, 2, 29), kFuture},
           {"-366", L(2028, 12, 31), kFuture}, {"-366", kNo}}); // day 366 of a year that has 365
    fix(2028, 3, 1);
    check({{"-366", kNo}}); // ahead in 2028, and 2027 has 365
}

// ---- Bad input -----------------------------------------------------------------

TEST(DateBadInput, LongTextsFail)
{
    time_t t = 5;
    for (size_t len : {1023u, 1024u, 1025u, 4096u, 100000u})
        for (char fill : {'1', 'a', ' ', '-', ':', '.'}) {
            std::vector<char> s = exact(std::string(len, fill));
            EXPECT_EQ(date_str_to_time2(s.data(), kPast, &t), 1) << len << fill;
            EXPECT_EQ(date_numeric_str_to_time(s.data(), DATE_NUMERIC_ANY, ".", &t), 1) << len << fill;
        }
    EXPECT_EQ(t, 5);
    // Blanks around a keyword are removed as long as the text fits the buffer.
    std::string padded = std::string(500, ' ') + "none" + std::string(519, ' ');
    EXPECT_EQ(date_str_to_time2(exact(padded + " ").data(), kPast, &t), 1);
    EXPECT_EQ(t, 5);
    EXPECT_EQ(date_str_to_time2(exact(padded).data(), kPast, &t), 0);
    EXPECT_EQ(t, 0);
}

TEST(DateBadInput, EveryPrefixAndRandomBytes)
{
    use_tz("Asia/Kolkata");
    ks::clock_fix_for_testing(1800000000, 0);
    std::vector<std::string> texts;
    for (std::string full : {"2004-06-01T14:05:09+01:30", "12-mar-2004.14:05:09UTC+01:30", "--06-01T14:05",
                             "2004-W05-3", "20040601T1405-0130", "040301.14.05"})
        for (size_t n = 0; n <= full.size(); n++)
            texts.push_back(full.substr(0, n));
    std::mt19937 rng(1234);
    const char alphabet[] = "0123456789-:.TtWwZz+ UTCutc\xc3\xa4\xff\x80";
    for (int i = 0; i < 20000; i++)
        for (char &c : texts.emplace_back(rng() % 40, ' '))
            c = i % 2 ? (char)(1 + rng() % 255) : alphabet[rng() % (sizeof alphabet - 1)];
    // A time is only ever stored on success, and is never negative.
    for (size_t i = 0; i < texts.size(); i++) {
        std::vector<char> s = exact(texts[i]);
        time_t t = 99, n = 99;
        int rc = date_str_to_time2(s.data(), i % 3 == 0 ? kFuture : kPast, &t);
        int nrc = date_numeric_str_to_time(s.data(), DATE_NUMERIC_ANY, ".", &n);
        ASSERT_TRUE((rc == 0 ? t >= 0 : t == 99) && (nrc == 0 ? n >= 0 : n == 99)) << '"' << texts[i] << '"';
    }
    ks::clock_release_for_testing();
}

} // namespace
