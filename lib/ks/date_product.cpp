// Dates: the product grammar (day-month-year, weekday and day keywords, a
// 24-hour time with an optional UTC offset) and the keyword tables behind it,
// filled from the locale and the catalogue.
#include "ks/date.h"

#include <ctype.h>
#include <langinfo.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <wchar.h>

#include <array>

#include "date_internal.h"
#include "date_msg.h"
#include "ks/imsg.h"
#include "ks/strutl.h"
#include "ks_internal.h"

namespace {

// ---- Keyword tables ------------------------------------------------------

// One month, weekday or special day.  Names are upper case without white
// space; a name the locale does not supply stays empty.
struct keyword {
    int32_t value;
    char loc_name[41];
    char loc_abbr[21];
    char cat_name[41];
    char cat_abbr[21];
};

struct keyword_tables {
    std::array<keyword, 12> months;  // January first; value: the month's largest day
    std::array<keyword, 7> weekdays; // Sunday first; value: 0..6
    std::array<keyword, 2> special;  // TODAY (0), YESTERDAY (-1): offset in days
    char now_word[41];
    char none_word[41];
    char date_sep[8];
    char time_sep[8];
    char field_sep[8];
    char utc_word[41];
};

keyword_tables tables;
bool tables_ready;

// Where an entry's names come from: the locale's items (kNoItem: none) and
// the catalogue's entries.
constexpr nl_item kNoItem = -1;
struct name_source {
    int32_t value;
    nl_item loc_name, loc_abbr;
    int cat_name, cat_abbr;
};

// February allows 29 here; the year decides later.
constexpr std::array<name_source, 12> kMonthNames = {{
    {31, MON_1, ABMON_1, DATE_MSG_JANUARY, DATE_MSG_JAN},
    {29, MON_2, ABMON_2, DATE_MSG_FEBRUARY, DATE_MSG_FEB},
    {31, MON_3, ABMON_3, DATE_MSG_MARCH, DATE_MSG_MAR},
    {30, MON_4, ABMON_4, DATE_MSG_APRIL, DATE_MSG_APR},
    {31, MON_5, ABMON_5, DATE_MSG_MAY, DATE_MSG_MAY_ABBR},
    {30, MON_6, ABMON_6, DATE_MSG_JUNE, DATE_MSG_JUN},
    {31, MON_7, ABMON_7, DATE_MSG_JULY, DATE_MSG_JUL},
    {31, MON_8, ABMON_8, DATE_MSG_AUGUST, DATE_MSG_AUG},
    {30, MON_9, ABMON_9, DATE_MSG_SEPTEMBER, DATE_MSG_SEP},
    {31, MON_10, ABMON_10, DATE_MSG_OCTOBER, DATE_MSG_OCT},
    {30, MON_11, ABMON_11, DATE_MSG_NOVEMBER, DATE_MSG_NOV},
    {31, MON_12, ABMON_12, DATE_MSG_DECEMBER, DATE_MSG_DEC},
}};

// Sunday first as the locale counts; the catalogue lists the week from Monday.
constexpr std::array<name_source, 7> kWeekdayNames = {{
    {0, DAY_1, ABDAY_1, DATE_MSG_SUNDAY, DATE_MSG_SUN},
    {1, DAY_2, ABDAY_2, DATE_MSG_MONDAY, DATE_MSG_MON},
    {2, DAY_3, ABDAY_3, DATE_MSG_TUESDAY, DATE_MSG_TUE},
    {3, DAY_4, ABDAY_4, DATE_MSG_WEDNESDAY, DATE_MSG_WED},
    {4, DAY_5, ABDAY_5, DATE_MSG_THURSDAY, DATE_MSG_THU},
    {5, DAY_6, ABDAY_6, DATE_MSG_FRIDAY, DATE_MSG_FRI},
    {6, DAY_7, ABDAY_7, DATE_MSG_SATURDAY, DATE_MSG_SAT},
}};

// The catalogue's words alone.
constexpr std::array<name_source, 2> kSpecialDayNames = {{
    {0, kNoItem, kNoItem, DATE_MSG_TODAY, DATE_MSG_TODAY_FUTURE},
    {-1, kNoItem, kNoItem, DATE_MSG_YESTERDAY, DATE_MSG_YESTERDAY_PAST},
}};

// White space of the portable character set (what isspace gives for these
// bytes in every locale); other bytes may belong to multibyte characters.
bool is_ascii_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Upper-cases src into dst without its white space, cutting only between
// whole characters when it does not fit.
template <size_t N>
void store_name(char (&dst)[N], const char *src)
{
    dst[0] = '\0';
    if (src == nullptr || *src == '\0')
        return;
    char upper[256];
    strutl_cvt_case_string(upper, sizeof upper, src, STRUTL_CASE_UPPER);
    size_t out = 0;
    mbstate_t st;
    memset(&st, 0, sizeof st);
    const char *p = upper;
    size_t left = strlen(upper);
    while (left > 0) {
        size_t n = mbrlen(p, left, &st);
        if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2)) {
            n = 1; // not a character of this locale: keep the byte
            memset(&st, 0, sizeof st);
        } else if (n == 0) {
            break;
        }
        if (!(n == 1 && is_ascii_space(*p))) {
            if (out + n >= N)
                break;
            memcpy(dst + out, p, n);
            out += n;
        }
        p += n;
        left -= n;
    }
    dst[out] = '\0';
}

const char *catalogue_text(int index)
{
    return cat_extractmsg(&_date_ks_msg_table, index);
}

template <size_t N>
void fill_keywords(std::array<keyword, N> &entries, const std::array<name_source, N> &sources)
{
    for (size_t i = 0; i < N; i++) {
        keyword &k = entries[i];
        const name_source &s = sources[i];
        k.value = s.value;
        store_name(k.loc_name, s.loc_name == kNoItem ? nullptr : nl_langinfo(s.loc_name));
        store_name(k.loc_abbr, s.loc_abbr == kNoItem ? nullptr : nl_langinfo(s.loc_abbr));
        store_name(k.cat_name, catalogue_text(s.cat_name));
        store_name(k.cat_abbr, catalogue_text(s.cat_abbr));
    }
}

// A separator or word that must never be empty (or every text would split at
// once) falls back to the built-in one.
template <size_t N>
void store_word(char (&dst)[N], int index, const char *fallback)
{
    store_name(dst, catalogue_text(index));
    if (dst[0] == '\0')
        snprintf(dst, N, "%s", fallback);
}

void fill_tables()
{
    fill_keywords(tables.months, kMonthNames);
    fill_keywords(tables.weekdays, kWeekdayNames);
    fill_keywords(tables.special, kSpecialDayNames);
    store_name(tables.now_word, catalogue_text(DATE_MSG_NOW));
    store_name(tables.none_word, catalogue_text(DATE_MSG_NONE));
    store_word(tables.date_sep, DATE_MSG_DATE_SEP, "-");
    store_word(tables.time_sep, DATE_MSG_TIME_SEP, ":");
    store_word(tables.field_sep, DATE_MSG_DATE_TIME_SEP, ".");
    store_word(tables.utc_word, DATE_MSG_UTC, "UTC");
}

// Index of the entry that carries name in any of its four forms, or -1.
template <size_t N>
int match_keyword(const std::array<keyword, N> &entries, const char *name)
{
    char first = *name;
    if (first == '\0')
        return -1;
    // Most names differ in their first byte: look at it before comparing.
    for (size_t i = 0; i < N; i++) {
        const keyword &k = entries[i];
        if ((k.loc_name[0] == first && strcmp(k.loc_name, name) == 0) ||
            (k.loc_abbr[0] == first && strcmp(k.loc_abbr, name) == 0) ||
            (k.cat_name[0] == first && strcmp(k.cat_name, name) == 0) ||
            (k.cat_abbr[0] == first && strcmp(k.cat_abbr, name) == 0))
            return static_cast<int>(i);
    }
    return -1;
}

// ---- Reading the text ----------------------------------------------------

// Field values larger than this are refused: mktime would only overflow.
constexpr long kMaxField = 1000000;

// Upper-cases src into dst as strutl_cvt_case_string does; in a locale of
// single-byte characters that is toupper byte by byte, done here directly.
// Returns 1 when src does not fit.
int upper_copy(char *dst, size_t size, const char *src)
{
    if (MB_CUR_MAX > 1)
        return strutl_cvt_case_string(dst, size, src, STRUTL_CASE_UPPER);
    size_t i = 0;
    for (; src[i] != '\0'; i++) {
        if (i + 1 >= size) {
            dst[i] = '\0';
            return 1;
        }
        dst[i] = static_cast<char>(toupper(static_cast<unsigned char>(src[i])));
    }
    dst[i] = '\0';
    return 0;
}

// The text upper-cased into buf without the white space around it; null for
// an empty text, one that does not fit, or white space inside.
char *normalise(const char *str, char (&buf)[ks::kMaxDateText + 1])
{
    if (str == nullptr || *str == '\0')
        return nullptr;
    if (upper_copy(buf, sizeof buf, str) != 0)
        return nullptr;
    char *text = buf;
    while (is_ascii_space(*text))
        text++;
    size_t len = strlen(text);
    while (len > 0 && is_ascii_space(text[len - 1]))
        text[--len] = '\0';
    if (len == 0)
        return nullptr;
    for (size_t i = 0; i < len; i++)
        if (is_ascii_space(text[i]))
            return nullptr;
    return text;
}

// A whole, non-negative decimal field read with strutl_strtol.
bool read_field(const char *text, long *out)
{
    long v;
    if (*text == '\0' || strutl_strtol(text, 10, &v) != 0)
        return false;
    if (v < 0 || v > kMaxField)
        return false;
    *out = v;
    return true;
}

// One or two digits of a number; the count read goes to *used.
bool read_short_number(const char *p, long *out, int *used)
{
    int n = 0;
    long v = 0;
    while (n < 2 && p[n] >= '0' && p[n] <= '9') {
        v = v * 10 + (p[n] - '0');
        n++;
    }
    if (n == 0)
        return false;
    *out = v;
    *used = n;
    return true;
}

// Splits s at the first occurrence of sep: s keeps the text before it and
// the result points after it; null (s untouched) when sep is absent.
char *split_at(char *s, const char *sep)
{
    char *p = strstr(s, sep);
    if (p == nullptr)
        return nullptr;
    *p = '\0';
    return p + strlen(sep);
}

// The local "now", broken down only when a text turns out to need it.
struct lazy_now {
    bool ready;
    bool ok;
    struct tm tm;
    const struct tm *get()
    {
        if (!ready) {
            ready = true;
            time_t now = ks::clock_time();
            ok = localtime_r(&now, &tm) != nullptr;
        }
        return ok ? &tm : nullptr;
    }
};

// ---- The date ------------------------------------------------------------

struct product_date {
    long year; // full year
    int month; // 0..11
    long day;  // may step out of the month; mktime brings it back
};

// A year as typed: two digits are 20yy below 69, else 19yy; four digits from
// 1969.
bool read_year(const char *text, long *year)
{
    long v;
    if (*text == '\0' || strutl_strtol(text, 10, &v) != 0 || v < 0)
        return false;
    if (v > 99) {
        if (v < 1969 || v > kMaxField)
            return false;
        *year = v;
    } else {
        *year = v < 69 ? 2000 + v : 1900 + v;
    }
    return true;
}

// Day, month name and optional year (text holds the day, month_text the rest).
// Without a year, the month and day move into the year the direction asks.
bool parse_day_month_year(const char *text, char *month_text, int direction, lazy_now &clock,
                          product_date *out)
{
    char *year_text = split_at(month_text, tables.date_sep);
    long day;
    if (!read_field(text, &day))
        return false;
    int m = match_keyword(tables.months, month_text);
    if (m < 0 || day < 1 || day > tables.months[m].value)
        return false;
    long year;
    const struct tm *now = clock.get();
    if (now == nullptr)
        return false;
    if (year_text != nullptr) {
        if (!read_year(year_text, &year))
            return false;
    } else {
        year = now->tm_year + 1900L;
        bool after = m > now->tm_mon || (m == now->tm_mon && day > now->tm_mday);
        bool before = m < now->tm_mon || (m == now->tm_mon && day < now->tm_mday);
        if (direction == DATE_DIRECTION_PAST && after)
            year--;
        else if (direction != DATE_DIRECTION_PAST && before)
            year++;
    }
    if (m == 1 && day == 29 && year % 4 != 0)
        return false;
    *out = {year, m, day};
    return true;
}

// A special day (its offset from today) or a weekday, the nearest such day
// in the direction (today's own weekday is today).
bool parse_day_word(const char *text, int direction, lazy_now &clock, product_date *out)
{
    int s = match_keyword(tables.special, text);
    int w = s >= 0 ? -1 : match_keyword(tables.weekdays, text);
    if (s < 0 && w < 0)
        return false;
    const struct tm *now = clock.get();
    if (now == nullptr)
        return false;
    *out = {now->tm_year + 1900L, now->tm_mon, now->tm_mday};
    if (s >= 0)
        out->day += tables.special[s].value;
    else if (direction == DATE_DIRECTION_PAST)
        out->day -= (now->tm_wday - w + 7) % 7;
    else
        out->day += (w - now->tm_wday + 7) % 7;
    return true;
}

bool parse_date(char *text, int direction, lazy_now &clock, product_date *out)
{
    char *month_text = split_at(text, tables.date_sep);
    if (month_text != nullptr)
        return parse_day_month_year(text, month_text, direction, clock, out);
    return parse_day_word(text, direction, clock, out);
}

// ---- The time ------------------------------------------------------------

struct product_time {
    long hour, minute, second;
    bool utc;
    long offset; // seconds east of UTC
};

// After the zone word: nothing, or a sign, hours and optional minutes.
bool parse_zone(const char *z, long *offset)
{
    *offset = 0;
    if (*z == '\0')
        return true;
    int sign = 1;
    if (*z == '+' || *z == '-') {
        sign = *z == '-' ? -1 : 1;
        z++;
    }
    long hours;
    long minutes = 0;
    int used;
    if (!read_short_number(z, &hours, &used))
        return false;
    z += used;
    size_t seplen = strlen(tables.time_sep);
    if (strncmp(z, tables.time_sep, seplen) == 0) {
        z += seplen;
        if (!read_short_number(z, &minutes, &used))
            return false;
        z += used;
    }
    if (*z != '\0')
        return false;
    *offset = sign * (hours * 3600 + minutes * 60);
    return true;
}

bool parse_time(char *text, product_time *out)
{
    // In every text that parses, the hours before the first separator are a
    // plain number (the zone word comes after the minutes): looking at them
    // first turns texts of other forms, ISO 8601 above all, away cheaply.
    const char *colon = strstr(text, tables.time_sep);
    if (colon == nullptr)
        return false;
    const char *p = text + (*text == '+' || *text == '-');
    if (p == colon)
        return false;
    for (; p < colon; p++)
        if (*p < '0' || *p > '9')
            return false;

    out->utc = false;
    out->offset = 0;
    char *zone = strstr(text, tables.utc_word);
    if (zone != nullptr) {
        *zone = '\0';
        out->utc = true;
        if (!parse_zone(zone + strlen(tables.utc_word), &out->offset))
            return false;
    }
    char *minute = split_at(text, tables.time_sep);
    if (minute == nullptr)
        return false;
    char *second = split_at(minute, tables.time_sep);
    out->second = 0;
    if (!read_field(text, &out->hour) || !read_field(minute, &out->minute))
        return false;
    if (second != nullptr && !read_field(second, &out->second))
        return false;
    return true;
}

// ---- The whole text ------------------------------------------------------

// Splits text at the field separator into date and time; without it, a text
// holding the time separator is a time alone, anything else a date alone.
// The part that is absent is null.
bool split_date_time(char *text, char **date_text, char **time_text)
{
    *date_text = *time_text = nullptr;
    char *rest = split_at(text, tables.field_sep);
    if (rest != nullptr) {
        *date_text = text;
        *time_text = rest;
        return *text != '\0' && *rest != '\0';
    }
    if (strstr(text, tables.time_sep) != nullptr)
        *time_text = text;
    else
        *date_text = text;
    return true;
}

// The time of the fields: local time through mktime (daylight saving is the
// system's), or UTC moved by the offset.  -1 when there is none.
time_t fields_to_time(const product_date &date, const product_time &clock)
{
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    tm.tm_year = static_cast<int>(date.year - 1900);
    tm.tm_mon = date.month;
    tm.tm_mday = static_cast<int>(date.day);
    tm.tm_hour = static_cast<int>(clock.hour);
    tm.tm_min = static_cast<int>(clock.minute);
    tm.tm_sec = static_cast<int>(clock.second);
    tm.tm_isdst = -1;
    if (!clock.utc)
        return mktime(&tm);
    // Local time and UTC differ by the zone at that moment; timegm reads the
    // fields as UTC directly, and the offset names the user's zone.
    time_t t = timegm(&tm);
    return t == static_cast<time_t>(-1) ? t : t - clock.offset;
}

} // namespace

namespace ks {

int date_product_to_time(const char *str, int direction, time_t *result)
{
    char buf[kMaxDateText + 1]; // a longer text does not fit and fails here
    char *text = normalise(str, buf);
    if (text == nullptr)
        return 1;
    if (text[0] == tables.none_word[0] && strcmp(text, tables.none_word) == 0) {
        *result = 0;
        return 0;
    }
    if (text[0] == tables.now_word[0] && strcmp(text, tables.now_word) == 0) {
        *result = ks::clock_time();
        return 0;
    }
    char *date_text;
    char *time_text;
    if (!split_date_time(text, &date_text, &time_text))
        return 1;

    // The time first: it needs no "now", and most texts of other forms fail there.
    product_time clock = {0, 0, 0, false, 0};
    if (time_text != nullptr && !parse_time(time_text, &clock))
        return 1;
    lazy_now now = {false, false, {}};
    product_date date;
    if (date_text != nullptr) {
        if (!parse_date(date_text, direction, now, &date))
            return 1;
    } else {
        const struct tm *today = now.get();
        if (today == nullptr)
            return 1;
        date = {today->tm_year + 1900L, today->tm_mon, today->tm_mday};
    }
    time_t t = fields_to_time(date, clock);
    if (t < 0)
        return 1;
    *result = t;
    return 0;
}

} // namespace ks

void date_init(void)
{
    if (tables_ready)
        return;
    tables_ready = true;
    fill_tables();
}

const char *date_usage_date_time(void)
{
    static char buf[1024];
    const char *text = catalogue_text(DATE_MSG_GRAMMAR);
    snprintf(buf, sizeof buf, "%s", text != nullptr ? text : "");
    return buf;
}

int date_str_to_time_legacy(const char *str, int direction, time_t *t)
{
    if (t == nullptr)
        return 1;
    date_init();
    return ks::date_product_to_time(str, direction, t);
}
