// Dates: the keyword tables, the default style, the parsers of user dates
// (the product grammar and ISO 8601) and the digits-only forms.
#include "ks/date.h"

#include <ctype.h>
#include <langinfo.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <wchar.h>

#include "date_internal.h"
#include "ks/imsg.h"
#include "ks/strutl.h"
#include "ks_internal.h"

namespace {

// Texts longer than this never parse: the product grammar works on a copy in
// a buffer of 1024 bytes, and the other parsers keep to the same limit.
constexpr size_t kMaxText = 1023;

// Field values larger than this are refused: mktime would only overflow.
constexpr long kMaxField = 1000000;

// ---- Default style -------------------------------------------------------

int default_style = DATE_STYLE_ISO;
bool style_env_read;

void read_style_env()
{
    if (style_env_read)
        return;
    style_env_read = true;
    const char *v = getenv("OTTER_ISO_DATE_FMT");
    if (v != nullptr && strcmp(v, "0") == 0)
        default_style = DATE_STYLE_PRODUCT;
}

// ---- Keyword tables ------------------------------------------------------

ks::date_tables tables;
bool tables_ready;

// White space of the portable character set (what isspace gives for these
// bytes in every locale); other bytes may belong to multibyte characters.
bool is_ascii_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Upper-cases src into dst without its white space, cutting only between
// whole characters when it does not fit.
void store_name(char *dst, size_t size, const char *src)
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
        if (n == (size_t)-1 || n == (size_t)-2) {
            n = 1; // not a character of this locale: keep the byte
            memset(&st, 0, sizeof st);
        } else if (n == 0) {
            break;
        }
        if (!(n == 1 && is_ascii_space(*p))) {
            if (out + n >= size)
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

void fill_tables()
{
    static const nl_item mon[12] = {MON_1, MON_2, MON_3, MON_4, MON_5, MON_6,
                                    MON_7, MON_8, MON_9, MON_10, MON_11, MON_12};
    static const nl_item abmon[12] = {ABMON_1, ABMON_2, ABMON_3, ABMON_4, ABMON_5, ABMON_6,
                                      ABMON_7, ABMON_8, ABMON_9, ABMON_10, ABMON_11, ABMON_12};
    static const nl_item day[7] = {DAY_1, DAY_2, DAY_3, DAY_4, DAY_5, DAY_6, DAY_7};
    static const nl_item abday[7] = {ABDAY_1, ABDAY_2, ABDAY_3, ABDAY_4, ABDAY_5, ABDAY_6, ABDAY_7};
    // February allows 29 here; the year decides later.
    static const int32_t month_days[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

    for (int i = 0; i < 12; i++) {
        ks::date_keyword &k = tables.months[i];
        k.value = month_days[i];
        store_name(k.loc_name, sizeof k.loc_name, nl_langinfo(mon[i]));
        store_name(k.loc_abbr, sizeof k.loc_abbr, nl_langinfo(abmon[i]));
        store_name(k.cat_name, sizeof k.cat_name, catalogue_text(3 + 2 * i));
        store_name(k.cat_abbr, sizeof k.cat_abbr, catalogue_text(4 + 2 * i));
    }
    for (int w = 0; w < 7; w++) {
        ks::date_keyword &k = tables.weekdays[w];
        k.value = w;
        store_name(k.loc_name, sizeof k.loc_name, nl_langinfo(day[w]));
        store_name(k.loc_abbr, sizeof k.loc_abbr, nl_langinfo(abday[w]));
        // The catalogue lists the week from Monday.
        int pos = (w + 6) % 7;
        store_name(k.cat_name, sizeof k.cat_name, catalogue_text(27 + 2 * pos));
        store_name(k.cat_abbr, sizeof k.cat_abbr, catalogue_text(28 + 2 * pos));
    }
    ks::date_keyword &today = tables.special[0];
    today.value = 0;
    today.loc_name[0] = today.loc_abbr[0] = '\0';
    store_name(today.cat_name, sizeof today.cat_name, catalogue_text(0));
    store_name(today.cat_abbr, sizeof today.cat_abbr, catalogue_text(2));
    ks::date_keyword &yesterday = tables.special[1];
    yesterday.value = -1;
    yesterday.loc_name[0] = yesterday.loc_abbr[0] = '\0';
    store_name(yesterday.cat_name, sizeof yesterday.cat_name, catalogue_text(1));
    store_name(yesterday.cat_abbr, sizeof yesterday.cat_abbr, catalogue_text(45));

    store_name(tables.now_word, sizeof tables.now_word, catalogue_text(46));
    store_name(tables.none_word, sizeof tables.none_word, catalogue_text(47));
    store_name(tables.date_sep, sizeof tables.date_sep, catalogue_text(41));
    store_name(tables.time_sep, sizeof tables.time_sep, catalogue_text(42));
    store_name(tables.field_sep, sizeof tables.field_sep, catalogue_text(43));
    store_name(tables.utc_word, sizeof tables.utc_word, catalogue_text(48));
    // A separator must never be empty, or every text would split at once.
    if (tables.date_sep[0] == '\0')
        strcpy(tables.date_sep, "-");
    if (tables.time_sep[0] == '\0')
        strcpy(tables.time_sep, ":");
    if (tables.field_sep[0] == '\0')
        strcpy(tables.field_sep, ".");
    if (tables.utc_word[0] == '\0')
        strcpy(tables.utc_word, "UTC");
}

// Index of the entry among count that carries name in any of its four forms.
int match_keyword(const ks::date_keyword *entries, int count, const char *name)
{
    char first = *name;
    if (first == '\0')
        return -1;
    // Most names differ in their first byte: look at it before comparing.
    for (int i = 0; i < count; i++) {
        const ks::date_keyword &k = entries[i];
        if ((k.loc_name[0] == first && strcmp(k.loc_name, name) == 0) ||
            (k.loc_abbr[0] == first && strcmp(k.loc_abbr, name) == 0) ||
            (k.cat_name[0] == first && strcmp(k.cat_name, name) == 0) ||
            (k.cat_abbr[0] == first && strcmp(k.cat_abbr, name) == 0))
            return i;
    }
    return -1;
}

// ---- Small helpers -------------------------------------------------------

bool is_leap(long year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int days_in_month(long year, int month) // month 1..12
{
    static const int days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && is_leap(year) ? 29 : days[month - 1];
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

// Upper-cases src into dst as strutl_cvt_case_string does; in a locale of
// single-byte characters that is toupper byte by byte, done here directly.
// Returns 1 when src does not fit.
int upper_copy(char *dst, size_t size, const char *src)
{
    if (MB_CUR_MAX > 1)
        return strutl_cvt_case_string(dst, size, src, STRUTL_CASE_UPPER);
    const int32_t *upper = *__ctype_toupper_loc(); // toupper's own table
    size_t i = 0;
    for (; src[i] != '\0'; i++) {
        if (i + 1 >= size) {
            dst[i] = '\0';
            return 1;
        }
        dst[i] = (char)upper[(unsigned char)src[i]];
    }
    dst[i] = '\0';
    return 0;
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

// ---- The product grammar -------------------------------------------------

struct legacy_date {
    long year; // full year
    int month; // 0..11
    long day;  // may step out of the month; mktime brings it back
};

bool legacy_parse_date(char *text, int direction, lazy_now &clock, legacy_date *out)
{
    char *month_text = split_at(text, tables.date_sep);
    if (month_text != nullptr) {
        char *year_text = split_at(month_text, tables.date_sep);
        long day;
        if (!read_field(text, &day))
            return false;
        int m = match_keyword(tables.months, 12, month_text);
        if (m < 0 || day < 1 || day > tables.months[m].value)
            return false;
        long year;
        const struct tm *now = clock.get();
        if (now == nullptr)
            return false;
        if (year_text != nullptr) {
            long v;
            if (*year_text == '\0' || strutl_strtol(year_text, 10, &v) != 0 || v < 0)
                return false;
            if (v > 99) {
                if (v < 1969 || v > kMaxField)
                    return false;
                year = v;
            } else {
                year = v < 69 ? 2000 + v : 1900 + v;
            }
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
        out->year = year;
        out->month = m;
        out->day = day;
        return true;
    }

    int s = match_keyword(tables.special, 2, text);
    int w = s >= 0 ? -1 : match_keyword(tables.weekdays, 7, text);
    if (s < 0 && w < 0)
        return false;
    const struct tm *now = clock.get();
    if (now == nullptr)
        return false;
    out->year = now->tm_year + 1900L;
    out->month = now->tm_mon;
    out->day = now->tm_mday;
    if (s >= 0)
        out->day += tables.special[s].value;
    else if (direction == DATE_DIRECTION_PAST)
        out->day -= (now->tm_wday - w + 7) % 7;
    else
        out->day += (w - now->tm_wday + 7) % 7;
    return true;
}

struct legacy_time {
    long hour, minute, second;
    bool utc;
    long offset; // seconds east of UTC
};

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

bool legacy_parse_zone(const char *z, long *offset)
{
    *offset = 0;
    if (*z == '\0')
        return true;
    int sign = 1;
    if (*z == '+' || *z == '-') {
        sign = *z == '-' ? -1 : 1;
        z++;
    }
    long hours, minutes = 0;
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

bool legacy_parse_time(char *text, legacy_time *out)
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
        if (!legacy_parse_zone(zone + strlen(tables.utc_word), &out->offset))
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

int legacy_to_time(const char *str, int direction, time_t *result)
{
    if (str == nullptr || *str == '\0')
        return 1;
    char buf[kMaxText + 1]; // a longer text does not fit and fails here
    if (upper_copy(buf, sizeof buf, str) != 0)
        return 1;
    char *text = buf;
    while (is_ascii_space(*text))
        text++;
    size_t len = strlen(text);
    while (len > 0 && is_ascii_space(text[len - 1]))
        text[--len] = '\0';
    if (len == 0)
        return 1;
    for (size_t i = 0; i < len; i++)
        if (is_ascii_space(text[i]))
            return 1;

    if (text[0] == tables.none_word[0] && strcmp(text, tables.none_word) == 0) {
        *result = 0;
        return 0;
    }
    if (text[0] == tables.now_word[0] && strcmp(text, tables.now_word) == 0) {
        *result = ks::clock_time();
        return 0;
    }

    char *date_text = nullptr;
    char *time_text = nullptr;
    char *rest = split_at(text, tables.field_sep);
    if (rest != nullptr) {
        date_text = text;
        time_text = rest;
        if (*date_text == '\0' || *time_text == '\0')
            return 1;
    } else if (strstr(text, tables.time_sep) != nullptr) {
        time_text = text;
    } else {
        date_text = text;
    }

    // The time first: it needs no "now", and most texts of other forms fail there.
    legacy_time clock = {0, 0, 0, false, 0};
    if (time_text != nullptr && !legacy_parse_time(time_text, &clock))
        return 1;
    lazy_now now = {false, false, {}};
    legacy_date date;
    if (date_text != nullptr) {
        if (!legacy_parse_date(date_text, direction, now, &date))
            return 1;
    } else {
        const struct tm *today = now.get();
        if (today == nullptr)
            return 1;
        date = {today->tm_year + 1900L, today->tm_mon, today->tm_mday};
    }

    struct tm tm;
    memset(&tm, 0, sizeof tm);
    tm.tm_year = (int)(date.year - 1900);
    tm.tm_mon = date.month;
    tm.tm_mday = (int)date.day;
    tm.tm_hour = (int)clock.hour;
    tm.tm_min = (int)clock.minute;
    tm.tm_sec = (int)clock.second;
    tm.tm_isdst = -1;
    time_t t;
    if (clock.utc) {
        // Local time and UTC differ by the zone at that moment; timegm reads
        // the fields as UTC directly, and the offset names the user's zone.
        t = timegm(&tm);
        if (t == (time_t)-1)
            return 1;
        t -= clock.offset;
    } else {
        t = mktime(&tm);
    }
    if (t < 0)
        return 1;
    *result = t;
    return 0;
}

// ---- ISO 8601 ------------------------------------------------------------

int count_digits(const char *p)
{
    int n = 0;
    while (p[n] >= '0' && p[n] <= '9')
        n++;
    return n;
}

// The value of n digits at p (the caller has checked that they are digits,
// so this is what strtoul gives for a copy of them, without the copy).
int32_t take(const char *p, int n)
{
    int32_t v = 0;
    for (int i = 0; i < n; i++)
        v = v * 10 + (p[i] - '0');
    return v;
}

bool is_week_marker(char c)
{
    return c == 'W' || c == 'w';
}

// After "W": week, week and weekday, or "-" and a weekday alone.
const char *parse_week(const char *q, ks::iso_data *d)
{
    int n = count_digits(q);
    if (n == 2) {
        d->week = take(q, 2);
        q += 2;
        if (*q == '-') {
            if (count_digits(q + 1) < 1)
                return nullptr;
            d->wday = take(q + 1, 1);
            q += 2;
        }
        return q;
    }
    if (n == 3) {
        d->week = take(q, 2);
        d->wday = take(q + 2, 1);
        return q + 3;
    }
    if (n == 0 && *q == '-' && count_digits(q + 1) >= 1) {
        d->wday = take(q + 1, 1);
        return q + 2;
    }
    return nullptr;
}

// The time part (after "T", or the whole text) and the zone.
int parse_iso_time(const char *p, ks::iso_data *d)
{
    int hyphens = 0;
    while (p[hyphens] == '-')
        hyphens++;
    const char *q = p + hyphens;
    int n = count_digits(q);
    if (hyphens == 0) {
        if (n == 2) {
            d->hour = take(q, 2);
            q += 2;
            if (*q == ':') {
                if (count_digits(q + 1) != 2)
                    return 1;
                d->minute = take(q + 1, 2);
                q += 3;
                if (*q == ':') {
                    if (count_digits(q + 1) != 2)
                        return 1;
                    d->second = take(q + 1, 2);
                    q += 3;
                }
            }
        } else if (n == 4) {
            d->hour = take(q, 2);
            d->minute = take(q + 2, 2);
            q += 4;
        } else if (n == 6) {
            d->hour = take(q, 2);
            d->minute = take(q + 2, 2);
            d->second = take(q + 4, 2);
            q += 6;
        } else {
            return 1;
        }
    } else if (hyphens == 1) {
        if (n == 2) {
            d->minute = take(q, 2);
        } else if (n == 4) {
            d->minute = take(q, 2);
            d->second = take(q + 2, 2);
        } else {
            return 1;
        }
        q += n;
    } else if (hyphens == 2 && n == 2) {
        d->second = take(q, 2);
        q += 2;
    } else {
        return 1;
    }

    if (*q == 'Z' || *q == 'z') {
        d->zone = *q;
        q++;
    } else if (*q == '+' || *q == '-') {
        d->zone = *q;
        q++;
        int zn = count_digits(q);
        if (zn == 2) {
            d->zone_hours = take(q, 2);
            q += 2;
            if (*q == ':') {
                if (count_digits(q + 1) != 2)
                    return 1;
                d->zone_minutes = take(q + 1, 2);
                q += 3;
            }
        } else if (zn == 4) {
            d->zone_hours = take(q, 2);
            d->zone_minutes = take(q + 2, 2);
            q += 4;
        } else {
            return 1;
        }
    }
    return *q != '\0';
}

// ---- Filling and encoding ------------------------------------------------

// Significance levels of the fields, most significant first.
enum { L_CENTURY, L_YEAR, L_MONTH, L_DAY, L_HOUR, L_MINUTE, L_SECOND, L_COUNT };

void given_levels(const ks::iso_data *d, bool given[L_COUNT])
{
    given[L_CENTURY] = d->century >= 0;
    given[L_YEAR] = d->year >= 0;
    given[L_MONTH] = d->month >= 0 || d->yday >= 0;
    given[L_DAY] = d->mday >= 0 || d->yday >= 0;
    given[L_HOUR] = d->hour >= 0;
    given[L_MINUTE] = d->minute >= 0;
    given[L_SECOND] = d->second >= 0;
}

long zone_offset(const ks::iso_data *d)
{
    if (d->zone != '+' && d->zone != '-')
        return 0;
    long off = (d->zone_hours > 0 ? d->zone_hours : 0) * 3600L +
               (d->zone_minutes > 0 ? d->zone_minutes : 0) * 60L;
    return d->zone == '-' ? -off : off;
}

// "Now" as the record's zone sees it.
bool now_in_zone(const ks::iso_data *d, struct tm *tm)
{
    time_t now = ks::clock_time();
    if (d->zone == 0)
        return localtime_r(&now, tm) != nullptr;
    now += zone_offset(d);
    return gmtime_r(&now, tm) != nullptr;
}

time_t fields_to_time(const ks::iso_data *d, struct tm *tm)
{
    if (d->zone == 0) {
        tm->tm_isdst = -1;
        return mktime(tm);
    }
    time_t t = timegm(tm);
    if (t == (time_t)-1)
        return t;
    return t - zone_offset(d);
}

// Whether the day of b exists: a day of year within its year, or a day of
// month within its month (a month moved by one may lie just outside 0..11).
bool day_exists(const struct tm &b, bool by_yday)
{
    long year = b.tm_year + 1900L;
    if (by_yday)
        return b.tm_mday <= (is_leap(year) ? 366 : 365);
    int mon = b.tm_mon;
    if (mon < 0) {
        mon += 12;
        year--;
    } else if (mon > 11) {
        mon -= 12;
        year++;
    }
    return b.tm_mday <= days_in_month(year, mon + 1);
}

} // namespace

namespace ks {

const date_tables &date_get_tables()
{
    date_init();
    return tables;
}

bool date_in_past_year(time_t t, time_t now)
{
    return date_one_year_ago(now) < t && t <= now;
}

int parse_iso_str(const char *str, iso_data *d)
{
    d->century = d->year = d->yday = d->month = d->mday = d->week = d->wday = -1;
    d->hour = d->minute = d->second = -1;
    d->zone = 0;
    d->zone_hours = d->zone_minutes = -1;
    if (str == nullptr || *str == '\0' || strnlen(str, kMaxText + 1) > kMaxText)
        return 1;

    const char *p = str;
    if (*p != 'T' && *p != 't') {
        int hyphens = 0;
        while (p[hyphens] == '-')
            hyphens++;
        if (hyphens > 3)
            return 1;
        const char *q = p + hyphens;
        int n = count_digits(q);
        char after = q[n];
        if (n > 0 && (after == ':' || after == 'Z' || after == 'z'))
            return parse_iso_time(p, d);
        if (n > 8)
            return 1;
        bool year_follows = false; // a year that "-" may continue
        bool month_follows = false;
        switch (n) {
        case 0:
            if (hyphens != 1 || !is_week_marker(*q))
                return 1;
            q = parse_week(q + 1, d);
            if (q == nullptr)
                return 1;
            break;
        case 2:
            if (hyphens == 0) {
                if (q[2] == '\0') {
                    d->century = take(q, 2);
                    return 0;
                }
                d->year = take(q, 2);
                year_follows = true;
            } else if (hyphens == 1) {
                d->year = take(q, 2);
                year_follows = true;
            } else if (hyphens == 2) {
                d->month = take(q, 2);
                month_follows = true;
            } else {
                d->mday = take(q, 2);
            }
            q += 2;
            break;
        case 3:
            if (hyphens != 1)
                return 1;
            d->yday = take(q, 3);
            q += 3;
            break;
        case 4:
            if (hyphens == 0) {
                d->century = take(q, 2);
                d->year = take(q + 2, 2);
                year_follows = true;
            } else if (hyphens == 1) {
                d->year = take(q, 2);
                d->month = take(q + 2, 2);
            } else if (hyphens == 2) {
                d->month = take(q, 2);
                d->mday = take(q + 2, 2);
            } else {
                return 1;
            }
            q += 4;
            break;
        case 5:
        case 6:
        case 7:
        case 8:
            if (hyphens != 0)
                return 1;
            if (n >= 7) {
                d->century = take(q, 2);
                q += 2;
            }
            d->year = take(q, 2);
            q += 2;
            if (n == 5 || n == 7) {
                d->yday = take(q, 3);
                q += 3;
            } else {
                d->month = take(q, 2);
                d->mday = take(q + 2, 2);
                q += 4;
            }
            break;
        default:
            return 1;
        }
        if (year_follows && *q == '-') {
            q++;
            if (is_week_marker(*q)) {
                q = parse_week(q + 1, d);
                if (q == nullptr)
                    return 1;
            } else {
                int m = count_digits(q);
                if (m == 2) {
                    d->month = take(q, 2);
                    q += 2;
                    if (*q == '-') {
                        if (count_digits(q + 1) != 2)
                            return 1;
                        d->mday = take(q + 1, 2);
                        q += 3;
                    }
                } else if (m == 3) {
                    d->yday = take(q, 3);
                    q += 3;
                } else {
                    return 1;
                }
            }
        } else if (month_follows && *q == '-') {
            // "--MM-DD", the extended form of "--MMDD" (the short token).
            if (count_digits(q + 1) != 2)
                return 1;
            d->mday = take(q + 1, 2);
            q += 3;
        }
        if (*q == '\0')
            return 0;
        if (*q != 'T' && *q != 't')
            return 1;
        p = q;
    }
    return parse_iso_time(p + 1, d);
}

int validate_iso_data(const iso_data *d)
{
    struct range {
        int32_t value, low, high;
    };
    const range ranges[] = {
        {d->century, 19, 20}, {d->month, 1, 12}, {d->mday, 1, 31},        {d->week, 1, 53},
        {d->wday, 1, 7},      {d->yday, 1, 366}, {d->hour, 0, 24},        {d->minute, 0, 59},
        {d->second, 0, 60},   {d->zone_hours, 0, 23}, {d->zone_minutes, 0, 59},
    };
    for (const range &r : ranges)
        if (r.value != -1 && (r.value < r.low || r.value > r.high))
            return 1;
    if (d->year != -1 && (d->year < 0 || d->year > 99))
        return 1;
    if (d->yday != -1 && (d->month != -1 || d->mday != -1 || d->week != -1 || d->wday != -1))
        return 1;
    if (d->mday == -1 && d->week == -1)
        return 0;
    // A day or a week is there: a weekday beside it is refused, and so is a
    // week without one -- so no week number is ever accepted.
    if (d->wday != -1)
        return 1;
    if (d->week != -1)
        return 1;
    return 0;
}

void default_iso_data(iso_data *d, int direction)
{
    (void)direction; // the direction moves the encoded time, not the fields
    bool given[L_COUNT];
    given_levels(d, given);
    int high = L_COUNT, low = -1;
    for (int l = 0; l < L_COUNT; l++) {
        if (given[l]) {
            if (high == L_COUNT)
                high = l;
            low = l;
        }
    }
    if (high == L_COUNT) {
        // Nothing but a weekday: a day near today, at midnight.
        high = L_HOUR;
        low = L_HOUR;
    }
    struct tm now;
    memset(&now, 0, sizeof now);
    bool need_now = false;
    for (int l = 0; l < low; l++)
        need_now = need_now || !given[l];
    if (need_now && !now_in_zone(d, &now))
        memset(&now, 0, sizeof now);
    long year = now.tm_year + 1900L;
    // Above the most significant field given and in gaps: the current value;
    // below the least significant one: the field's first value.
    for (int l = 0; l < L_COUNT; l++) {
        if (given[l])
            continue;
        bool current = l < low;
        switch (l) {
        case L_CENTURY:
            d->century = (int32_t)(year / 100);
            break;
        case L_YEAR:
            d->year = current ? (int32_t)(year % 100) : 0;
            break;
        case L_MONTH:
            d->month = current ? now.tm_mon + 1 : 1;
            break;
        case L_DAY:
            d->mday = current ? now.tm_mday : 1;
            break;
        case L_HOUR:
            d->hour = current ? now.tm_hour : 0;
            break;
        case L_MINUTE:
            d->minute = current ? now.tm_min : 0;
            break;
        case L_SECOND:
            d->second = current ? now.tm_sec : 0;
            break;
        }
    }
    if (d->zone != 0) {
        if (d->zone_hours < 0)
            d->zone_hours = 0;
        if (d->zone_minutes < 0)
            d->zone_minutes = 0;
    }
}

int encode_iso_data(const iso_data *given, const iso_data *f, int direction, time_t *result)
{
    if (f->hour == 24 && (f->minute > 0 || f->second > 0))
        return 1;

    bool by_yday = f->yday >= 0;
    // Only a day the text names can be missing from its month or year; a
    // filled-in day is always there.
    bool day_given = given->mday >= 0 || given->yday >= 0;
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    tm.tm_year = (int)(f->century * 100L + f->year - 1900);
    tm.tm_mon = by_yday ? 0 : f->month - 1;
    tm.tm_mday = by_yday ? f->yday : f->mday;
    tm.tm_hour = f->hour;
    tm.tm_min = f->minute;
    tm.tm_sec = f->second;
    struct tm base = tm;
    time_t t = fields_to_time(f, &tm);
    if (t == (time_t)-1)
        return 1;

    if (given->wday > 0) {
        // The nearest such weekday in the direction; today's own counts.
        int want = given->wday % 7;
        int step = direction == DATE_DIRECTION_PAST ? -((tm.tm_wday - want + 7) % 7)
                                                    : (want - tm.tm_wday + 7) % 7;
        base.tm_mday += step;
        tm = base;
        t = fields_to_time(f, &tm);
    } else {
        bool given_level[L_COUNT];
        given_levels(given, given_level);
        int high = 0;
        while (high < L_COUNT && !given_level[high])
            high++;
        // Fields above the given ones came from now: when that lands on the
        // wrong side of now, or on a day the current month or year lacks
        // (--02-29 in 2027), move by one unit of the field just above.
        bool move = false;
        if (high > 0 && high < L_COUNT) {
            time_t now = ks::clock_time();
            move = (day_given && !day_exists(base, by_yday)) ||
                   (direction == DATE_DIRECTION_PAST ? t > now : t < now);
        }
        if (move) {
            int step = direction == DATE_DIRECTION_PAST ? -1 : 1;
            switch (high - 1) {
            case L_CENTURY: base.tm_year += 100 * step; break;
            case L_YEAR: base.tm_year += step; break;
            case L_MONTH: base.tm_mon += step; break;
            case L_DAY: base.tm_mday += step; break;
            case L_HOUR: base.tm_hour += step; break;
            default: base.tm_min += step; break;
            }
            tm = base;
            t = fields_to_time(f, &tm);
        }
        // A day past the end of its month or year is refused, never carried
        // into the next one.
        if (day_given && !day_exists(base, by_yday))
            return 1;
    }
    if (t == (time_t)-1 || t < 0)
        return 1;
    *result = t;
    return 0;
}

} // namespace ks

namespace {

int iso_to_time(const char *str, int direction, time_t *result)
{
    ks::iso_data given;
    if (ks::parse_iso_str(str, &given) != 0 || ks::validate_iso_data(&given) != 0)
        return 1;
    ks::iso_data filled = given;
    ks::default_iso_data(&filled, direction);
    return ks::encode_iso_data(&given, &filled, direction, result);
}

// ---- Digits-only forms ---------------------------------------------------

const char *const numeric_templates[DATE_NUMERIC_COUNT] = {
    "%%y%%m%%d%s%%H%%M%%S", "%%Y%%m%%d%s%%H%%M%%S", "%%y%%m%%d%s%%H%%M", "%%Y%%m%%d%s%%H%%M",
    "%%y%%m%%d",            "%%Y%%m%%d",            "%%y%%m%%d%s%%H%s%%M",
};

// The strftime format of a digits-only form; false for an unknown format or
// a separator longer than 16 bytes.  A '%' in the separator stays literal.
bool numeric_format(int format, const char *sep, char *out, size_t size)
{
    if (format < 0 || format >= DATE_NUMERIC_COUNT)
        return false;
    if (sep == nullptr)
        sep = "";
    if (strlen(sep) > 16)
        return false;
    char escaped[40];
    size_t n = 0;
    for (const char *s = sep; *s != '\0'; s++) {
        if (*s == '%')
            escaped[n++] = '%';
        escaped[n++] = *s;
    }
    escaped[n] = '\0';
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    snprintf(out, size, numeric_templates[format], escaped, escaped);
#pragma GCC diagnostic pop
    return true;
}

// Reads str back against the strftime format fmt, one character at a time.
int numeric_parse(const char *str, const char *fmt, time_t *result)
{
    int year = -1, month = -1, day = -1, hour = 0, minute = 0, second = 0;
    const char *s = str;
    for (const char *f = fmt; *f != '\0'; f++) {
        if (*f != '%') {
            if (*s != *f)
                return 1;
            s++;
            continue;
        }
        f++;
        if (*f == '%') {
            if (*s != '%')
                return 1;
            s++;
            continue;
        }
        int width = *f == 'Y' ? 4 : 2;
        int v = 0;
        for (int i = 0; i < width; i++) {
            if (s[i] < '0' || s[i] > '9')
                return 1;
            v = v * 10 + (s[i] - '0');
        }
        s += width;
        switch (*f) {
        case 'y': year = v < 69 ? 2000 + v : 1900 + v; break;
        case 'Y': year = v; break;
        case 'm': month = v; break;
        case 'd': day = v; break;
        case 'H': hour = v; break;
        case 'M': minute = v; break;
        case 'S': second = v; break;
        default: return 1;
        }
    }
    if (*s != '\0')
        return 1;
    if (year < 0 || month < 1 || month > 12 || day < 1 || day > days_in_month(year, month) ||
        hour > 23 || minute > 59 || second > 59)
        return 1;
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1;
    time_t t = mktime(&tm);
    if (t < 0)
        return 1;
    *result = t;
    return 0;
}

} // namespace

extern "C" {

void date_init(void)
{
    if (tables_ready)
        return;
    tables_ready = true;
    fill_tables();
}

int date_fmt_set_default_style(int style)
{
    read_style_env();
    int previous = default_style;
    if (style == DATE_STYLE_PRODUCT || style == DATE_STYLE_ISO)
        default_style = style;
    return previous;
}

int date_fmt_get_default_date_style(void)
{
    read_style_env();
    return default_style;
}

time_t date_one_year_ago(time_t t)
{
    struct tm tm;
    if (localtime_r(&t, &tm) == nullptr)
        return t - 31536000;
    int y = tm.tm_year;
    int m = tm.tm_mon;
    bool leap_span = (y % 4 == 0 && m >= 3) || (y % 4 == 1 && m <= 2);
    return t - (leap_span ? 31622400 : 31536000);
}

void date_get_timeval(struct timeval *tv)
{
    ks::clock_gettimeofday(tv);
    if (tv->tv_usec >= 1000000 || tv->tv_usec < 0) {
        long carry = tv->tv_usec / 1000000;
        tv->tv_usec -= carry * 1000000;
        if (tv->tv_usec < 0) {
            tv->tv_usec += 1000000;
            carry--;
        }
        tv->tv_sec += carry;
    }
}

const char *date_usage_date_time(void)
{
    static char buf[1024];
    const char *text = catalogue_text(44);
    snprintf(buf, sizeof buf, "%s", text != nullptr ? text : "");
    return buf;
}

const char *date_fmt_token_numeric(time_t t, int format, const char *sep)
{
    static char buf[64];
    char fmt[96];
    struct tm tm;
    if (t < 0 || !numeric_format(format, sep, fmt, sizeof fmt) || localtime_r(&t, &tm) == nullptr)
        return nullptr;
    if (strftime(buf, sizeof buf, fmt, &tm) == 0)
        return nullptr;
    return buf;
}

int date_numeric_str_to_time(const char *str, int format, const char *sep, time_t *t)
{
    if (str == nullptr || t == nullptr || strnlen(str, kMaxText + 1) > kMaxText)
        return 1;
    date_init();
    char fmt[96];
    if (format == DATE_NUMERIC_ANY) {
        for (int f = 0; f < DATE_NUMERIC_COUNT; f++)
            if (numeric_format(f, sep, fmt, sizeof fmt) && numeric_parse(str, fmt, t) == 0)
                return 0;
        return 1;
    }
    if (!numeric_format(format, sep, fmt, sizeof fmt))
        return 1;
    return numeric_parse(str, fmt, t);
}

int date_str_to_time_legacy(const char *str, int direction, time_t *t)
{
    if (t == nullptr)
        return 1;
    date_init();
    return legacy_to_time(str, direction, t);
}

int date_str_to_time2(const char *str, int direction, time_t *t)
{
    if (str == nullptr || t == nullptr)
        return 1;
    date_init();
    if (legacy_to_time(str, direction, t) == 0)
        return 0;
    return iso_to_time(str, direction, t);
}

int date_str_to_time(const char *str, time_t *t)
{
    return date_str_to_time2(str, DATE_DIRECTION_PAST, t);
}

} // extern "C"
