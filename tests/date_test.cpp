// Dates: both token styles against strftime in real zones, the product
// grammar and ISO 8601 under a fixed "now", a real German locale, and bad
// input in exact-size buffers.
#include "ks/date.h"

#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "date_internal.h"
#include "ks_internal.h"

namespace {

void use_tz(const char *tz)
{
    setenv("TZ", tz, 1);
    tzset();
}

time_t local_time(int y, int mo, int d, int h = 0, int mi = 0, int s = 0)
{
    struct tm tm = {};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    tm.tm_isdst = -1;
    return mktime(&tm);
}

time_t utc_time(int y, int mo, int d, int h = 0, int mi = 0, int s = 0)
{
    struct tm tm = {};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    return timegm(&tm);
}

std::string strftime_local(time_t t, const char *fmt)
{
    struct tm tm;
    localtime_r(&t, &tm);
    char buf[256];
    size_t n = strftime(buf, sizeof buf, fmt, &tm);
    return std::string(buf, n);
}

std::string strftime_utc(time_t t, const char *fmt)
{
    struct tm tm;
    gmtime_r(&t, &tm);
    char buf[256];
    size_t n = strftime(buf, sizeof buf, fmt, &tm);
    return std::string(buf, n);
}

// The ISO zone suffix derived independently from strftime's %z.
std::string zone_suffix(time_t t)
{
    std::string z = strftime_local(t, "%z");
    if (z == "+0000" || z == "-0000")
        return "Z";
    return z.substr(0, 3) + ":" + z.substr(3, 2);
}

// The coarse one-year rule written out again from its description.
time_t coarse_year_ago(time_t t)
{
    struct tm tm;
    localtime_r(&t, &tm);
    int y = tm.tm_year, m = tm.tm_mon;
    if (y % 4 == 0)
        return t - (m >= 3 ? 31622400 : 31536000);
    if (y % 4 == 1)
        return t - (m <= 2 ? 31622400 : 31536000);
    return t - 31536000;
}

std::string token(char *s)
{
    std::string r = s ? s : "(null)";
    free(s);
    return r;
}

int parse(const char *text, int direction, time_t *t)
{
    return date_str_to_time2(text, direction, t);
}

// Parses into an exact-size heap copy so that ASan sees any over-read.
int parse_exact(const std::string &text, int direction, time_t *t)
{
    std::vector<char> copy(text.begin(), text.end());
    copy.push_back('\0');
    return date_str_to_time2(copy.data(), direction, t);
}

const int kPast = DATE_DIRECTION_PAST;
const int kFuture = DATE_DIRECTION_FUTURE;

// ---- Formatting in real zones ----------------------------------------------

class DateZones : public ::testing::TestWithParam<const char *> {
protected:
    void SetUp() override { use_tz(GetParam()); }
};

TEST_P(DateZones, IsoTokensMatchStrftimeAcrossYears)
{
    std::mt19937 rng(42);
    for (time_t t = 946684800; t < 1900000000; t += 86400 * 3 + (time_t)(rng() % 7200)) {
        std::string want = strftime_local(t, "%Y-%m-%dT%H:%M:%S") + zone_suffix(t);
        ASSERT_EQ(token(date_fmt_token_general(t, DATE_TOKEN_DATE_TIME, DATE_STYLE_ISO, 0, 0)), want)
            << "t=" << t;
        ASSERT_EQ(token(date_fmt_token_general(t, DATE_TOKEN_DATE, DATE_STYLE_ISO, 0, 0)),
                  strftime_local(t, "%Y-%m-%d"));
        ASSERT_EQ(token(date_fmt_token_general(t, DATE_TOKEN_DATE_TIME, DATE_STYLE_ISO, 1, 0)),
                  strftime_utc(t, "%Y-%m-%dT%H:%M:%SZ"));
    }
}

TEST_P(DateZones, ZoneTextAroundMidnightAndTheWeekEnd)
{
    // Every quarter hour of a Saturday-to-Monday stretch: the local and UTC
    // days differ in one direction or the other, across the week's end too.
    time_t start = utc_time(2026, 11, 20, 0, 0, 0); // a Friday
    for (time_t t = start; t < start + 4 * 86400; t += 900) {
        std::string want = strftime_local(t, "%Y-%m-%dT%H:%M:%S") + zone_suffix(t);
        ASSERT_EQ(token(date_fmt_token_general(t, DATE_TOKEN_DATE_TIME, DATE_STYLE_ISO, 0, 0)), want)
            << "t=" << t;
    }
}

TEST_P(DateZones, IsoTokensMatchGnuDate)
{
    // One run of date(1) prints a list of times in this zone.
    std::string cmd = "date -f - +%Y-%m-%dT%H:%M:%S%:z <<'EOF'\n";
    std::vector<time_t> times;
    for (time_t t = 946684800; t < 1900000000; t += 86400 * 97 + 3 * 3600 + 1234) {
        times.push_back(t);
        cmd += "@" + std::to_string((long long)t) + "\n";
    }
    cmd += "EOF\n";
    FILE *p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    char line[128];
    size_t i = 0;
    while (fgets(line, sizeof line, p) != nullptr && i < times.size()) {
        std::string want(line, strcspn(line, "\n"));
        if (want.size() > 6 && want.compare(want.size() - 6, 6, "+00:00") == 0)
            want.replace(want.size() - 6, 6, "Z");
        EXPECT_EQ(token(date_fmt_token_general(times[i], DATE_TOKEN_DATE_TIME, DATE_STYLE_ISO, 0, 0)), want);
        i++;
    }
    EXPECT_EQ(pclose(p), 0);
    EXPECT_EQ(i, times.size());
}

TEST_P(DateZones, ProductTokensMatchStrftime)
{
    for (time_t t = 946684800; t < 1900000000; t += 86400 * 5 + 3599) {
        ASSERT_EQ(token(date_fmt_token_general(t, DATE_TOKEN_DATE_TIME, DATE_STYLE_PRODUCT, 0, 0)),
                  strftime_local(t, "%d-%b-%y.%H:%M:%S"));
        ASSERT_EQ(token(date_fmt_token_general(t, DATE_TOKEN_DATE, DATE_STYLE_PRODUCT, 0, 0)),
                  strftime_local(t, "%d-%b-%y"));
        ASSERT_EQ(token(date_fmt_token_general(t, DATE_TOKEN_DATE_TIME, DATE_STYLE_PRODUCT, 1, 0)),
                  strftime_utc(t, "%d-%b-%y.%H:%M:%SUTC"));
    }
}

TEST_P(DateZones, ShortFormsFollowThePastYear)
{
    time_t now = local_time(2026, 11, 15, 12, 0, 0);
    ks::clock_fix(now, 0);
    time_t year_ago = coarse_year_ago(now);
    for (time_t t = now - 800 * 86400L; t < now + 40 * 86400L; t += 17 * 3600 + 61) {
        bool recent = year_ago < t && t <= now;
        ASSERT_EQ(token(date_fmt_token_general(t, DATE_TOKEN_SHORT, DATE_STYLE_ISO, 0, 0)),
                  strftime_local(t, recent ? "--%m-%dT%H:%M" : "%Y-%m-%d"))
            << "t=" << t;
        ASSERT_EQ(token(date_fmt_token_general(t, DATE_TOKEN_SHORT, DATE_STYLE_PRODUCT, 0, 0)),
                  strftime_local(t, recent ? "%d-%b.%H:%M" : "%d-%b-%Y"));
        ASSERT_STREQ(date_fmt_ls_date_time(t),
                     strftime_local(t, recent ? "%b %d %H:%M" : "%b %d  %Y").c_str());
    }
    ks::clock_release();
}

TEST_P(DateZones, ProductTokensDropTheLocaleBlanks)
{
    // The Japanese abbreviated month names begin with a blank (" 3\x8c\x8e").
    ASSERT_NE(setlocale(LC_ALL, "ja_JP.SJIS"), nullptr) << "LOCPATH must hold ja_JP.SJIS";
    ks::clock_fix(local_time(2004, 3, 10, 12), 0);
    time_t t = local_time(2004, 3, 1, 14, 5, 9);
    auto without_blanks = [](std::string s) {
        s.erase(std::remove(s.begin(), s.end(), ' '), s.end());
        return s;
    };
    std::string month = strftime_local(t, "%b");
    ASSERT_EQ(month[0], ' ');
    std::string want = "01-" + month.substr(1) + "-04.14:05:09";
    EXPECT_EQ(token(date_fmt_token_general(t, DATE_TOKEN_DATE_TIME, DATE_STYLE_PRODUCT, 0, 0)), want);
    EXPECT_EQ(token(date_fmt_token_general(t, DATE_TOKEN_DATE, DATE_STYLE_PRODUCT, 0, 0)),
              without_blanks(strftime_local(t, "%d-%b-%y")));
    EXPECT_EQ(token(date_fmt_token_general(t, DATE_TOKEN_SHORT, DATE_STYLE_PRODUCT, 0, 0)),
              without_blanks(strftime_local(t, "%d-%b.%H:%M")));
    // The locale's name is stored without its blank, so the token reads back.
    time_t back = 0;
    ASSERT_EQ(date_str_to_time(want.c_str(), &back), 0) << want;
    EXPECT_EQ(back, t);
    // The ls form is no token: its blanks stay.
    EXPECT_STREQ(date_fmt_ls_date_time(t), strftime_local(t, "%b %d %H:%M").c_str());
    ks::clock_release();
}

TEST_P(DateZones, LocaleFormsMatchStrftime)
{
    time_t t = local_time(2004, 3, 1, 14, 5, 9);
    EXPECT_STREQ(date_fmt_long_date_time(t), strftime_local(t, "%c").c_str());
    EXPECT_STREQ(date_fmt_short_date_time(t), strftime_local(t, "%x %X").c_str());
    EXPECT_STREQ(date_fmt_short_date(t), strftime_local(t, "%x").c_str());
    EXPECT_STREQ(date_fmt_short_time(t), "14:05:09");
}

TEST_P(DateZones, IsoTextsParseAsTimegmAndMktimeOfTheirFields)
{
    std::mt19937 rng(7);
    static const int mdays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    for (int i = 0; i < 3000; i++) {
        int y = 1971 + (int)(rng() % 66), mo = 1 + (int)(rng() % 12);
        int d = 1 + (int)(rng() % (mo == 2 && y % 4 == 0 ? 29 : mdays[mo - 1]));
        int h = (int)(rng() % 24), mi = (int)(rng() % 60), s = (int)(rng() % 60);
        int zh = (int)(rng() % 14), zm = (int)(rng() % 4) * 15;
        char text[80];
        time_t got = -5;

        snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", y, mo, d, h, mi, s);
        ASSERT_EQ(date_str_to_time(text, &got), 0) << text;
        ASSERT_EQ(got, utc_time(y, mo, d, h, mi, s)) << text;

        snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d%02d", y, mo, d, h, mi, s);
        ASSERT_EQ(date_str_to_time(text, &got), 0) << text;
        ASSERT_EQ(got, local_time(y, mo, d, h, mi, s)) << text;

        snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d+%02d:%02d", y, mo, d, h, mi, s, zh, zm);
        ASSERT_EQ(date_str_to_time(text, &got), 0) << text;
        ASSERT_EQ(got, utc_time(y, mo, d, h, mi, s) - (zh * 3600 + zm * 60)) << text;

        snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d-%02d%02d", y, mo, d, h, mi, zh, zm);
        ASSERT_EQ(date_str_to_time(text, &got), 0) << text;
        ASSERT_EQ(got, utc_time(y, mo, d, h, mi, 0) + (zh * 3600 + zm * 60)) << text;
    }
}

TEST_P(DateZones, ProductTextsInUtcAndWithOffsets)
{
    time_t t = 0;
    ASSERT_EQ(parse("12-mar-04.14:05:09", kPast, &t), 0);
    EXPECT_EQ(t, local_time(2004, 3, 12, 14, 5, 9));
    ASSERT_EQ(parse("12-mar-04.14:05UTC", kPast, &t), 0);
    EXPECT_EQ(t, utc_time(2004, 3, 12, 14, 5, 0));
    ASSERT_EQ(parse("12-mar-04.14:05:30utc+01:30", kPast, &t), 0);
    EXPECT_EQ(t, utc_time(2004, 3, 12, 14, 5, 30) - 5400);
    ASSERT_EQ(parse("12-mar-2004.14:05UTC-2", kPast, &t), 0);
    EXPECT_EQ(t, utc_time(2004, 3, 12, 14, 5, 0) + 7200);
    // A token printed in either style reads back as the same time.
    time_t when = local_time(2011, 7, 4, 9, 8, 7);
    ASSERT_EQ(parse(token(date_fmt_token_general(when, 0, DATE_STYLE_PRODUCT, 0, 0)).c_str(), kPast, &t), 0);
    EXPECT_EQ(t, when);
    ASSERT_EQ(parse(token(date_fmt_token_general(when, 0, DATE_STYLE_PRODUCT, 1, 0)).c_str(), kPast, &t), 0);
    EXPECT_EQ(t, when);
    ASSERT_EQ(parse(token(date_fmt_token_general(when, 0, DATE_STYLE_ISO, 0, 0)).c_str(), kPast, &t), 0);
    EXPECT_EQ(t, when);
}

INSTANTIATE_TEST_SUITE_P(Zones, DateZones,
                         ::testing::Values("UTC", "Etc/GMT-3", "Etc/GMT+7", "Europe/Berlin",
                                           "America/New_York", "Asia/Kolkata", "Australia/Adelaide",
                                           "Pacific/Kiritimati", "Pacific/Pago_Pago"),
                         [](const ::testing::TestParamInfo<const char *> &info) {
                             std::string n = info.param;
                             for (char &c : n)
                                 if (!isalnum((unsigned char)c))
                                     c = '_';
                             return n;
                         });

// ---- Styles, buffers and small routines --------------------------------------

TEST(DateFormat, ProductStyleFromTheEnvironment)
{
    setenv("OTTER_ISO_DATE_FMT", "0", 1);
    use_tz("Europe/Berlin");
    time_t t = local_time(2004, 3, 1, 14, 5, 9);
    EXPECT_EQ(date_fmt_get_default_date_style(), DATE_STYLE_PRODUCT);
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

TEST(DateFormat, SetterReadsTheVariableFirst)
{
    setenv("OTTER_ISO_DATE_FMT", "0", 1);
    EXPECT_EQ(date_fmt_set_default_style(DATE_STYLE_ISO), DATE_STYLE_PRODUCT);
}

TEST(DateFormat, EveryRoutineKeepsItsOwnBuffer)
{
    use_tz("UTC");
    ks::clock_fix(utc_time(2026, 11, 15, 12), 0);
    time_t a = utc_time(2004, 3, 1, 14, 5, 9), b = utc_time(2010, 10, 10, 10, 10, 10);
    const char *r[] = {date_fmt_long_date_time(a),        date_fmt_short_date_time(a),
                       date_fmt_short_date(a),            date_fmt_short_time(a),
                       date_fmt_ls_date_time(a),          date_fmt_token_date_time(a),
                       date_fmt_token_date(a),            date_fmt_token_short_date_time(a),
                       date_fmt_token_utc(a),             date_fmt_token_date_time_pname(a),
                       date_fmt_token_numeric(a, DATE_NUMERIC_YYYYMMDD, nullptr)};
    std::vector<std::string> saved(r, r + sizeof r / sizeof r[0]);
    for (size_t i = 0; i < saved.size(); i++)
        for (size_t j = 0; j < i; j++)
            ASSERT_NE(r[i], r[j]) << i << " shares a buffer with " << j;
    // A call of one routine leaves the others' results alone.
    date_fmt_long_date_time(b);
    date_fmt_token_date_time(b);
    for (size_t i = 2; i < saved.size(); i++)
        if (i != 5) {
            EXPECT_EQ(saved[i], r[i]) << i;
        }
    EXPECT_EQ(saved[8], "2004-03-01T14:05:09Z");
    EXPECT_EQ(saved[7], "2004-03-01");
    EXPECT_EQ(saved[10], "20040301");
    EXPECT_EQ(saved[4], "Mar 01  2004");
    ks::clock_release();
}

TEST(DateFormat, NegativeTimesGiveNoToken)
{
    EXPECT_EQ(date_fmt_token_date_time(-1), nullptr);
    EXPECT_EQ(date_fmt_token_date(-1), nullptr);
    EXPECT_EQ(date_fmt_token_short_date_time(-1), nullptr);
    EXPECT_EQ(date_fmt_token_utc(-1), nullptr);
    EXPECT_EQ(date_fmt_token_date_time_pname(-1), nullptr);
    EXPECT_EQ(date_fmt_token_general(-1, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(date_fmt_token_numeric(-1, 0, "."), nullptr);
    EXPECT_EQ(date_fmt_token_general(0, 3, 0, 0, 0), nullptr);
    EXPECT_EQ(date_fmt_token_general(0, 0, 3, 0, 0), nullptr);
    EXPECT_STREQ(date_fmt_token_utc(0), "1970-01-01T00:00:00Z");
}

TEST(DateFormat, TheShortFormOfTwoDaysAndTwoYearsAgo)
{
    use_tz("America/New_York");
    time_t now = local_time(2026, 11, 15, 12, 0, 0);
    ks::clock_fix(now, 0);
    EXPECT_STREQ(date_fmt_token_short_date_time(now - 2 * 86400), "--11-13T12:00");
    EXPECT_STREQ(date_fmt_token_short_date_time(now - 2 * 366 * 86400L), "2024-11-13");
    // A future time never lies in the past year.
    EXPECT_STREQ(date_fmt_token_short_date_time(now + 60), "2026-11-15");
    EXPECT_STREQ(date_fmt_token_short_date_time(now), "--11-15T12:00");
    date_fmt_set_default_style(DATE_STYLE_PRODUCT);
    EXPECT_STREQ(date_fmt_token_short_date_time(now - 2 * 86400), "13-Nov.12:00");
    EXPECT_STREQ(date_fmt_token_short_date_time(now + 60), "15-Nov-2026");
    ks::clock_release();
}

TEST(DateFormat, OneYearAgoKeepsItsCoarseRule)
{
    use_tz("UTC");
    const long d365 = 31536000, d366 = 31622400;
    struct {
        int y, m;
        long back;
    } cases[] = {
        {2004, 4, d366},  {2004, 3, d365}, {2004, 12, d366}, {2005, 3, d366}, {2005, 1, d366},
        {2005, 4, d365},  {2006, 7, d365}, {2007, 2, d365},  {2100, 5, d366}, // no century rule
        {2101, 2, d366},
    };
    for (auto &c : cases) {
        time_t t = utc_time(c.y, c.m, 20, 10);
        EXPECT_EQ(date_one_year_ago(t), t - c.back) << c.y << "-" << c.m;
    }
}

TEST(DateFormat, TimevalCarriesMicroseconds)
{
    struct timeval tv;
    ks::clock_fix(1000, 2500000);
    date_get_timeval(&tv);
    EXPECT_EQ(tv.tv_sec, 1002);
    EXPECT_EQ(tv.tv_usec, 500000);
    ks::clock_fix(1000, -1);
    date_get_timeval(&tv);
    EXPECT_EQ(tv.tv_sec, 999);
    EXPECT_EQ(tv.tv_usec, 999999);
    ks::clock_fix(1000, 999999);
    date_get_timeval(&tv);
    EXPECT_EQ(tv.tv_sec, 1000);
    EXPECT_EQ(tv.tv_usec, 999999);
    ks::clock_release();
}

TEST(DateFormat, UsageIsMessage45)
{
    EXPECT_STREQ(date_usage_date_time(),
                 "<date-time> = <date>.<time> | <date> | <time> | \"now\" | \"none\"\n"
                 "<date>      = d[d]-<month>[-[yy]yy] | <day-of-week> | \"today\" | \"yesterday\"\n"
                 "<time>      = h[h]:m[m][:s[s]][UTC[+|-][h[h][:mm]]] (24-hour time)\n");
}

TEST(DateFormat, UsageFromTheInstalledCatalogue)
{
    setenv("NLSPATH", KS_CATALOG_DIR "/%N.cat", 1);
    EXPECT_NE(strstr(date_usage_date_time(), "(24-hour time)\n"), nullptr);
    time_t t;
    ASSERT_EQ(date_str_to_time_legacy("1-sep-05", kPast, &t), 0);
    EXPECT_EQ(t, 1125532800);
}

TEST(DateNumeric, EveryFormatReadsBack)
{
    use_tz("Europe/Berlin");
    time_t t = local_time(2004, 3, 1, 14, 5, 9);
    const char *want[DATE_NUMERIC_COUNT] = {"040301.140509", "20040301.140509", "040301.1405", "20040301.1405",
                                            "040301",        "20040301",        "040301.14.05"};
    for (int f = 0; f < DATE_NUMERIC_COUNT; f++) {
        const char *text = date_fmt_token_numeric(t, f, ".");
        ASSERT_STREQ(text, want[f]);
        time_t back = 0;
        ASSERT_EQ(date_numeric_str_to_time(text, f, ".", &back), 0) << text;
        time_t expect = f <= 1 ? t : f <= 3 || f == 6 ? t - 9 : local_time(2004, 3, 1);
        EXPECT_EQ(back, expect) << text;
    }
    EXPECT_STREQ(date_fmt_token_numeric(t, DATE_NUMERIC_YYMMDD_HH_MM, "%"), "040301%14%05");
    time_t back = 0;
    ASSERT_EQ(date_numeric_str_to_time("040301%14%05", DATE_NUMERIC_YYMMDD_HH_MM, "%", &back), 0);
    EXPECT_EQ(back, t - 9);
    ASSERT_EQ(date_numeric_str_to_time("20040301140509", DATE_NUMERIC_ANY, nullptr, &back), 0);
    EXPECT_EQ(back, t);
    ASSERT_EQ(date_numeric_str_to_time("680101", DATE_NUMERIC_YYMMDD, nullptr, &back), 0);
    EXPECT_EQ(back, local_time(2068, 1, 1));
}

TEST(DateNumeric, MalformedTextsFail)
{
    use_tz("UTC");
    time_t t = 77;
    const char *bad[] = {"", "0403", "040230", "041301", "040300", "040301.2400", "040301.1460",
                         "040301.14059", "040301.1405090", "04030a", "040301 1405", "040301.14:05"};
    for (const char *b : bad) {
        EXPECT_EQ(date_numeric_str_to_time(b, DATE_NUMERIC_ANY, ".", &t), 1) << b;
        EXPECT_EQ(t, 77);
    }
    EXPECT_EQ(date_numeric_str_to_time("040301", 9, ".", &t), 1);
    EXPECT_EQ(date_fmt_token_numeric(0, 9, "."), nullptr);
    EXPECT_EQ(date_fmt_token_numeric(0, 0, "12345678901234567"), nullptr);
}

// ---- The product grammar under a fixed now -----------------------------------

class DateGrammar : public ::testing::Test {
protected:
    void SetUp() override
    {
        use_tz("Europe/Berlin");
        fix(2026, 11, 15, 12, 0, 0); // a Sunday
    }
    void TearDown() override { ks::clock_release(); }
    void fix(int y, int mo, int d, int h = 12, int mi = 0, int s = 0)
    {
        now = local_time(y, mo, d, h, mi, s);
        ks::clock_fix(now, 0);
    }
    time_t at(const char *text, int direction = kPast)
    {
        time_t t = -77;
        EXPECT_EQ(parse(text, direction, &t), 0) << text;
        return t;
    }
    void refused(const char *text, int direction = kPast)
    {
        time_t t = -77;
        EXPECT_EQ(parse(text, direction, &t), 1) << text;
        EXPECT_EQ(t, -77) << text;
    }
    time_t now = 0;
};

TEST_F(DateGrammar, MissingYearFollowsTheDirection)
{
    EXPECT_EQ(at("1-jan"), local_time(2026, 1, 1));
    EXPECT_EQ(at("1-dec"), local_time(2025, 12, 1));
    EXPECT_EQ(at("1-jan", kFuture), local_time(2027, 1, 1));
    EXPECT_EQ(at("1-dec", kFuture), local_time(2026, 12, 1));
    EXPECT_EQ(at("15-nov"), local_time(2026, 11, 15));
    EXPECT_EQ(at("15-nov", kFuture), local_time(2026, 11, 15));
    EXPECT_EQ(at("16-NOV"), local_time(2025, 11, 16));
    EXPECT_EQ(at("14-November", kFuture), local_time(2027, 11, 14));
}

TEST_F(DateGrammar, AcrossTheYearEnd)
{
    fix(2026, 12, 31, 23, 30);
    EXPECT_EQ(at("1-jan", kFuture), local_time(2027, 1, 1));
    EXPECT_EQ(at("1-jan"), local_time(2026, 1, 1));
    EXPECT_EQ(at("31-dec.23:59"), local_time(2026, 12, 31, 23, 59));
    fix(2027, 1, 1, 0, 10);
    EXPECT_EQ(at("31-dec"), local_time(2026, 12, 31));
    EXPECT_EQ(at("31-dec", kFuture), local_time(2027, 12, 31));
    EXPECT_EQ(at("yesterday"), local_time(2026, 12, 31));
    EXPECT_EQ(at("thu"), local_time(2026, 12, 31));
    EXPECT_EQ(at("thu", kFuture), local_time(2027, 1, 7));
}

TEST_F(DateGrammar, LeapDays)
{
    fix(2028, 3, 15);
    EXPECT_EQ(at("29-feb"), local_time(2028, 2, 29));
    refused("29-feb", kFuture); // next year's, 2029
    fix(2028, 3, 1, 8);
    EXPECT_EQ(at("yesterday"), local_time(2028, 2, 29));
    fix(2027, 3, 15);
    refused("29-feb");
    EXPECT_EQ(at("29-feb", kFuture), local_time(2028, 2, 29));
    EXPECT_EQ(at("29-feb-04"), local_time(2004, 2, 29));
    refused("29-feb-01");
    refused("31-feb");
    refused("30-feb-04");
    refused("31-apr-04");
    EXPECT_EQ(at("31-mar-04"), local_time(2004, 3, 31));
}

TEST_F(DateGrammar, Years)
{
    EXPECT_EQ(at("1-jan-68"), local_time(2068, 1, 1));
    EXPECT_EQ(at("1-jan-00"), local_time(2000, 1, 1));
    EXPECT_EQ(at("1-jan-1999"), local_time(1999, 1, 1));
    EXPECT_EQ(at("1-jan-70.12:00"), local_time(1970, 1, 1, 12));
    refused("1-jan-1968");
    refused("1-jan-100");
    refused("1-jan--4");
    refused("1-jan-69"); // 1969, before the epoch in this zone
    use_tz("America/New_York");
    EXPECT_EQ(at("31-dec-69.20:00"), 3600);
}

TEST_F(DateGrammar, KeywordsAndBlanks)
{
    EXPECT_EQ(at("now"), now);
    EXPECT_EQ(at("NOW"), now);
    EXPECT_EQ(at("none"), 0);
    EXPECT_EQ(at("today"), local_time(2026, 11, 15));
    EXPECT_EQ(at("  today \t"), local_time(2026, 11, 15));
    EXPECT_EQ(at("Yesterday"), local_time(2026, 11, 14));
    EXPECT_EQ(at("yesterday.23:15"), local_time(2026, 11, 14, 23, 15));
    refused("to day");
    refused("12-mar-04. 14:05");
    refused("");
    refused("   ");
    time_t t = -77;
    EXPECT_EQ(date_str_to_time(nullptr, &t), 1);
    EXPECT_EQ(t, -77);
}

TEST_F(DateGrammar, WeekdaysAreWithinSixDays)
{
    // Now is Sunday 15 November 2026.
    EXPECT_EQ(at("sun"), local_time(2026, 11, 15));
    EXPECT_EQ(at("sunday", kFuture), local_time(2026, 11, 15));
    EXPECT_EQ(at("mon"), local_time(2026, 11, 9));
    EXPECT_EQ(at("mon", kFuture), local_time(2026, 11, 16));
    EXPECT_EQ(at("FRI"), local_time(2026, 11, 13));
    EXPECT_EQ(at("friday", kFuture), local_time(2026, 11, 20));
    EXPECT_EQ(at("sat"), local_time(2026, 11, 14));
    EXPECT_EQ(at("saturday.08:00", kFuture), local_time(2026, 11, 21, 8));
}

TEST_F(DateGrammar, Times)
{
    EXPECT_EQ(at("14:05"), local_time(2026, 11, 15, 14, 5));
    EXPECT_EQ(at("7:5:3"), local_time(2026, 11, 15, 7, 5, 3));
    EXPECT_EQ(at("12-mar-04.14:05:09"), local_time(2004, 3, 12, 14, 5, 9));
    EXPECT_EQ(at("14:05UTC"), utc_time(2026, 11, 15, 14, 5));
    EXPECT_EQ(at("14:05utc+5"), utc_time(2026, 11, 15, 9, 5));
    EXPECT_EQ(at("14:05UTC-03:30"), utc_time(2026, 11, 15, 17, 35));
    // Daylight saving is the system's: summer times are an hour nearer UTC.
    EXPECT_EQ(at("1-jul-26.12:00") , utc_time(2026, 7, 1, 10));
    EXPECT_EQ(at("1-jan-26.12:00"), utc_time(2026, 1, 1, 11));
    // A UTC time is exact also where the local clock jumps or repeats (Berlin
    // skips 02:00-03:00 on 29 March 2026 and repeats 02:00-03:00 on 25
    // October), and near the epoch although local time there is 1970's first
    // hour.
    EXPECT_EQ(at("29-mar-26.01:30UTC"), utc_time(2026, 3, 29, 1, 30));
    EXPECT_EQ(at("29-mar-26.02:30UTC"), utc_time(2026, 3, 29, 2, 30));
    EXPECT_EQ(at("25-oct-26.00:30UTC"), utc_time(2026, 10, 25, 0, 30));
    EXPECT_EQ(at("25-oct-26.01:30UTC"), utc_time(2026, 10, 25, 1, 30));
    EXPECT_EQ(at("1-jan-70.00:30UTC"), 1800);
    refused("31-dec-69.23:30UTC");
    refused("14");
    refused("14:");
    refused(":05");
    refused("14:05:");
    refused("14:-5");
    refused("14:05:09:01");
    refused("14:05UTC+");
    refused("14:05UTC+1:");
    refused("14:05UTC+123");
    refused("14:05X");
    refused("14UTC:05");
    refused("14UTC+1:30");
    refused("1a:05");
    refused("1-4:05");
}

TEST_F(DateGrammar, MalformedDatesChangeNothing)
{
    const char *bad[] = {"12-mar-04.",  ".14:05",     "12-foo-04",   "32-jan",    "0-jan",   "1-jan-04-05",
                         "1-jan-",      "-jan-04",    "x1-jan",      "1--jan",    "funday",  "1-jan-04.14:05.1",
                         "1-jan-4x",    "yesterdays", "1-jan-04abc", "12-mar-04.14:05UTC+1:3x"};
    for (const char *b : bad)
        refused(b);
}

TEST(DateLocale, CatalogueKeywordsSitAtTheirIndexes)
{
    // In the C locale the locale's names are the English ones too; the
    // catalogue's are checked one by one, so that an entry taken from the
    // neighbouring index shows.
    const ks::date_tables &t = ks::date_get_tables();
    const char *months[12][2] = {{"JANUARY", "JAN"}, {"FEBRUARY", "FEB"}, {"MARCH", "MAR"},
                                 {"APRIL", "APR"},   {"MAY", "MAY"},      {"JUNE", "JUN"},
                                 {"JULY", "JUL"},    {"AUGUST", "AUG"},   {"SEPTEMBER", "SEP"},
                                 {"OCTOBER", "OCT"}, {"NOVEMBER", "NOV"}, {"DECEMBER", "DEC"}};
    const int32_t last_day[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    for (int i = 0; i < 12; i++) {
        EXPECT_STREQ(t.months[i].cat_name, months[i][0]) << i;
        EXPECT_STREQ(t.months[i].cat_abbr, months[i][1]) << i;
        EXPECT_STREQ(t.months[i].loc_abbr, months[i][1]) << i;
        EXPECT_EQ(t.months[i].value, last_day[i]) << i;
    }
    const char *days[7][2] = {{"SUNDAY", "SUN"},    {"MONDAY", "MON"}, {"TUESDAY", "TUE"},
                              {"WEDNESDAY", "WED"}, {"THURSDAY", "THU"}, {"FRIDAY", "FRI"},
                              {"SATURDAY", "SAT"}};
    for (int i = 0; i < 7; i++) {
        EXPECT_STREQ(t.weekdays[i].cat_name, days[i][0]) << i;
        EXPECT_STREQ(t.weekdays[i].cat_abbr, days[i][1]) << i;
        EXPECT_STREQ(t.weekdays[i].loc_name, days[i][0]) << i;
        EXPECT_EQ(t.weekdays[i].value, i);
    }
    EXPECT_STREQ(t.special[0].cat_name, "TODAY");
    EXPECT_STREQ(t.special[0].cat_abbr, "TODAY");
    EXPECT_STREQ(t.special[0].loc_name, "");
    EXPECT_EQ(t.special[0].value, 0);
    EXPECT_STREQ(t.special[1].cat_name, "YESTERDAY");
    EXPECT_STREQ(t.special[1].cat_abbr, "YESTERDAY");
    EXPECT_EQ(t.special[1].value, -1);
    EXPECT_STREQ(t.now_word, "NOW");
    EXPECT_STREQ(t.none_word, "NONE");
    EXPECT_STREQ(t.date_sep, "-");
    EXPECT_STREQ(t.time_sep, ":");
    EXPECT_STREQ(t.field_sep, ".");
    EXPECT_STREQ(t.utc_word, "UTC");
}

TEST(DateLocale, GermanNamesParse)
{
    use_tz("UTC");
    ASSERT_NE(setlocale(LC_ALL, "de_DE.UTF-8"), nullptr) << "LOCPATH must hold de_DE.UTF-8";
    ks::clock_fix(utc_time(2026, 11, 15, 12), 0);
    time_t t = 0;
    ASSERT_EQ(date_str_to_time("24-Dezember-04", &t), 0);
    EXPECT_EQ(t, utc_time(2004, 12, 24));
    ASSERT_EQ(date_str_to_time("1-Mär-04", &t), 0);
    EXPECT_EQ(t, utc_time(2004, 3, 1));
    ASSERT_EQ(date_str_to_time("1-mär-04.10:00", &t), 0);
    EXPECT_EQ(t, utc_time(2004, 3, 1, 10));
    ASSERT_EQ(date_str_to_time("3-MÄRZ-04", &t), 0);
    EXPECT_EQ(t, utc_time(2004, 3, 3));
    ASSERT_EQ(date_str_to_time("1-okt-05", &t), 0);
    EXPECT_EQ(t, utc_time(2005, 10, 1));
    // The catalogue's English names stay valid beside the locale's.
    ASSERT_EQ(date_str_to_time("1-mar-04", &t), 0);
    EXPECT_EQ(t, utc_time(2004, 3, 1));
    ASSERT_EQ(date_str_to_time("freitag", &t), 0);
    EXPECT_EQ(t, utc_time(2026, 11, 13));
    ASSERT_EQ(date_str_to_time("Mi", &t), 0);
    EXPECT_EQ(t, utc_time(2026, 11, 11));
    ASSERT_EQ(date_str_to_time("wed", &t), 0);
    EXPECT_EQ(t, utc_time(2026, 11, 11));
    const ks::date_tables &tables = ks::date_get_tables();
    EXPECT_STREQ(tables.months[2].loc_name, "MÄRZ");
    EXPECT_STREQ(tables.months[2].cat_abbr, "MAR");
    EXPECT_STREQ(tables.weekdays[0].loc_name, "SONNTAG");
    EXPECT_STREQ(tables.weekdays[0].cat_name, "SUNDAY");
    EXPECT_STREQ(tables.special[1].cat_abbr, "YESTERDAY");
    ks::clock_release();
}

// ---- ISO 8601 ----------------------------------------------------------------

class DateIso : public DateGrammar {};

TEST_F(DateIso, TheDigitAndHyphenTable)
{
    EXPECT_EQ(at("20"), local_time(2000, 1, 1));
    EXPECT_EQ(at("2004"), local_time(2004, 1, 1));
    EXPECT_EQ(at("2004-06"), local_time(2004, 6, 1));
    EXPECT_EQ(at("2004-06-01"), local_time(2004, 6, 1));
    EXPECT_EQ(at("20040601"), local_time(2004, 6, 1));
    EXPECT_EQ(at("040601"), local_time(2004, 6, 1));
    EXPECT_EQ(at("04-06-01"), local_time(2004, 6, 1));
    EXPECT_EQ(at("-04-06"), local_time(2004, 6, 1));
    EXPECT_EQ(at("-0406"), local_time(2004, 6, 1));
    EXPECT_EQ(at("-04"), local_time(2004, 1, 1));
    EXPECT_EQ(at("2004-060"), local_time(2004, 2, 29));
    EXPECT_EQ(at("2004060"), local_time(2004, 2, 29));
    EXPECT_EQ(at("04060"), local_time(2004, 2, 29));
    EXPECT_EQ(at("04-366"), local_time(2004, 12, 31));
    EXPECT_EQ(at("--0601"), local_time(2026, 6, 1));
    EXPECT_EQ(at("--06-01"), local_time(2026, 6, 1));
    EXPECT_EQ(at("--06"), local_time(2026, 6, 1));
    EXPECT_EQ(at("---10"), local_time(2026, 11, 10));
    EXPECT_EQ(at("-100"), local_time(2026, 4, 10));
    for (const char *b : {"1", "123", "--123", "---1234", "12345-", "-12345", "--123456", "123456789",
                          "-", "----01", "2004-6", "2004-0601", "2004-06-1", "2004--06"})
        refused(b);
}

TEST_F(DateIso, TimesZonesAndTruncation)
{
    EXPECT_EQ(at("2004-06-01T14"), local_time(2004, 6, 1, 14));
    EXPECT_EQ(at("2004-06-01T1405"), local_time(2004, 6, 1, 14, 5));
    EXPECT_EQ(at("2004-06-01t140509"), local_time(2004, 6, 1, 14, 5, 9));
    EXPECT_EQ(at("2004-06-01T14:05"), local_time(2004, 6, 1, 14, 5));
    EXPECT_EQ(at("2004-06-01T14:05:09z"), utc_time(2004, 6, 1, 14, 5, 9));
    EXPECT_EQ(at("2004-06-01T14:05:09+05"), utc_time(2004, 6, 1, 9, 5, 9));
    EXPECT_EQ(at("2004-06-01T14:05:09-0130"), utc_time(2004, 6, 1, 15, 35, 9));
    EXPECT_EQ(at("2004-06-01T24:00"), local_time(2004, 6, 2));
    EXPECT_EQ(at("T10"), local_time(2026, 11, 15, 10));
    EXPECT_EQ(at("T13"), local_time(2026, 11, 14, 13));          // after now: a day back
    EXPECT_EQ(at("T13", kFuture), local_time(2026, 11, 15, 13));
    EXPECT_EQ(at("T10", kFuture), local_time(2026, 11, 16, 10));
    EXPECT_EQ(at("T-30"), local_time(2026, 11, 15, 11, 30));     // minute of an earlier hour
    EXPECT_EQ(at("T--15", kFuture), local_time(2026, 11, 15, 12, 0, 15));
    EXPECT_EQ(at("1405Z"), utc_time(2026, 11, 14, 14, 5));
    EXPECT_EQ(at("10:05:09Z"), utc_time(2026, 11, 15, 10, 5, 9));
    for (const char *b : {"T", "T1", "T145", "T14:5", "T14:05:0", "T---10", "T-1", "2004-06-01T",
                          "2004-06-01T14Z1", "2004-06-01T14+1", "2004-06-01T14+01:3", "2004-06-01T14+123",
                          "2004-06-01T14:05:09.5", "2004-06-01 14:05", "2004-06-01X", "2004-06-01Z"})
        refused(b);
}

TEST_F(DateIso, ValidationRefusesWeeksAndRanges)
{
    ks::iso_data d;
    ASSERT_EQ(ks::parse_iso_str("2004-W05-3", &d), 0);
    EXPECT_EQ(d.week, 5);
    EXPECT_EQ(d.wday, 3);
    EXPECT_EQ(ks::validate_iso_data(&d), 1);
    ASSERT_EQ(ks::parse_iso_str("2004-W05", &d), 0);
    EXPECT_EQ(ks::validate_iso_data(&d), 1);
    ASSERT_EQ(ks::parse_iso_str("2004-W053", &d), 0);
    EXPECT_EQ(ks::validate_iso_data(&d), 1);
    ASSERT_EQ(ks::parse_iso_str("-W05", &d), 0);
    EXPECT_EQ(ks::validate_iso_data(&d), 1);
    ASSERT_EQ(ks::parse_iso_str("2004-060", &d), 0);
    EXPECT_EQ(d.yday, 60);
    EXPECT_EQ(ks::validate_iso_data(&d), 0);
    ASSERT_EQ(ks::parse_iso_str("2004-06-01T24:00", &d), 0);
    EXPECT_EQ(ks::validate_iso_data(&d), 0);
    refused("2004-W05-3");
    refused("2004-W05");
    // A weekday without day or week is accepted: the nearest such day.
    EXPECT_EQ(at("-W-5"), local_time(2026, 11, 13));
    EXPECT_EQ(at("-W-5", kFuture), local_time(2026, 11, 20));
    EXPECT_EQ(at("-W-7"), local_time(2026, 11, 15));
    for (const char *b : {"1805", "2104-01-01", "2004-13-01", "2004-00-10", "2004-06-32", "2004-06-00",
                          "2004-367", "2004-000", "2004-06-01T25", "2004-06-01T1260", "2004-06-01T12:00:61",
                          "2004-06-01T12+24", "2004-06-01T12+0160", "-W-8", "-W-0", "2004-02-30",
                          "2005-02-29", "2005-366", "2004-06-01T24:01"})
        refused(b);
}

TEST_F(DateIso, AbsentFieldsFollowTheDirection)
{
    EXPECT_EQ(at("--01-01"), local_time(2026, 1, 1));
    EXPECT_EQ(at("--12-01"), local_time(2025, 12, 1));
    EXPECT_EQ(at("--01-01", kFuture), local_time(2027, 1, 1));
    EXPECT_EQ(at("--12-01", kFuture), local_time(2026, 12, 1));
    EXPECT_EQ(at("---20"), local_time(2026, 10, 20));
    EXPECT_EQ(at("---10", kFuture), local_time(2026, 12, 10));
    EXPECT_EQ(at("99-01-01"), local_time(1999, 1, 1));
    EXPECT_EQ(at("27-01-01", kFuture), local_time(2027, 1, 1));
    fix(2028, 3, 1, 8);
    EXPECT_EQ(at("--02-29"), local_time(2028, 2, 29));
    EXPECT_EQ(at("-365"), local_time(2027, 12, 31)); // 2028's day 365 lies ahead
}

TEST_F(DateIso, ADayTheMovedMonthOrYearLacksIsRefused)
{
    // Never carried into the following month: 31 November is no 1 December.
    fix(2026, 12, 15);
    refused("---31");                                    // 31 December lies ahead; November has 30
    EXPECT_EQ(at("---31", kFuture), local_time(2026, 12, 31));
    fix(2026, 11, 15);
    EXPECT_EQ(at("---31"), local_time(2026, 10, 31));    // November lacks it: a month back
    EXPECT_EQ(at("---31", kFuture), local_time(2026, 12, 31));
    // 29 February as the product grammar reads it.
    fix(2028, 1, 15);
    refused("--02-29");                                  // ahead, and 2027 has none
    refused("29-feb");
    EXPECT_EQ(at("--02-29", kFuture), local_time(2028, 2, 29));
    fix(2027, 3, 15);
    refused("--02-29");
    EXPECT_EQ(at("--02-29", kFuture), local_time(2028, 2, 29));
    EXPECT_EQ(at("29-feb", kFuture), local_time(2028, 2, 29));
    // Day 366 of a year that has 365.
    EXPECT_EQ(at("-366", kFuture), local_time(2028, 12, 31));
    refused("-366");
    fix(2028, 3, 1);
    refused("-366");                                     // ahead in 2028, and 2027 has 365
}

// ---- Bad input -----------------------------------------------------------------

TEST(DateBadInput, LongTextsFail)
{
    use_tz("UTC");
    time_t t = 5;
    for (size_t len : {1023u, 1024u, 1025u, 4096u, 100000u}) {
        for (char fill : {'1', 'a', ' ', '-', ':', '.'}) {
            std::string s(len, fill);
            EXPECT_EQ(parse_exact(s, kPast, &t), 1) << len << fill;
            std::vector<char> copy(s.begin(), s.end());
            copy.push_back('\0');
            EXPECT_EQ(date_numeric_str_to_time(copy.data(), DATE_NUMERIC_ANY, ".", &t), 1);
        }
    }
    EXPECT_EQ(t, 5);
    // Blanks around a keyword are removed as long as the text fits the buffer.
    std::string padded = std::string(500, ' ') + "none" + std::string(519, ' ');
    ASSERT_EQ(padded.size(), 1023u);
    EXPECT_EQ(parse_exact(padded, kPast, &t), 0);
    EXPECT_EQ(t, 0);
    t = 5;
    EXPECT_EQ(parse_exact(padded + " ", kPast, &t), 1);
    EXPECT_EQ(t, 5);
}

TEST(DateBadInput, EveryPrefixAndRandomBytes)
{
    use_tz("Asia/Kolkata");
    ks::clock_fix(1800000000, 0);
    time_t t;
    for (std::string full : {"2004-06-01T14:05:09+01:30", "12-mar-2004.14:05:09UTC+01:30",
                             "--06-01T14:05", "2004-W05-3", "20040601T1405-0130", "040301.14.05"}) {
        for (size_t n = 0; n <= full.size(); n++) {
            parse_exact(full.substr(0, n), kPast, &t);
            parse_exact(full.substr(0, n), kFuture, &t);
            std::vector<char> copy(full.begin(), full.begin() + (long)n);
            copy.push_back('\0');
            date_numeric_str_to_time(copy.data(), DATE_NUMERIC_ANY, ".", &t);
        }
    }
    std::mt19937 rng(1234);
    const char alphabet[] = "0123456789-:.TtWwZz+ UTCutc\xc3\xa4\xff\x80";
    for (int i = 0; i < 20000; i++) {
        size_t len = rng() % 40;
        std::string s;
        for (size_t j = 0; j < len; j++) {
            char c = i % 2 ? (char)(1 + rng() % 255) : alphabet[rng() % (sizeof alphabet - 1)];
            s.push_back(c);
        }
        time_t before = 99;
        t = before;
        int rc = parse_exact(s, i % 3 == 0 ? kFuture : kPast, &t);
        if (rc != 0) {
            ASSERT_EQ(t, before) << s;
        } else {
            ASSERT_GE(t, 0) << s;
        }
    }
    ks::clock_release();
}

} // namespace
