// Dates as text: the locale's forms, the ls form and the tokens in the product
// style and ISO 8601.
#include "ks/date.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "date_internal.h"
#include "ks_internal.h"

namespace {

// strftime of local time into buf; null when t cannot be broken down or the
// text does not fit.
const char *format_local(time_t t, const char *fmt, char *buf, size_t size)
{
    struct tm tm;
    if (localtime_r(&t, &tm) == nullptr)
        return nullptr;
    if (strftime(buf, size, fmt, &tm) == 0 && fmt[0] != '\0')
        return nullptr;
    return buf;
}

void remove_blanks(char *s)
{
    char *out = s;
    for (; *s != '\0'; s++)
        if (*s != ' ' && *s != '\t')
            *out++ = *s;
    *out = '\0';
}

char *put2(char *p, int v)
{
    p[0] = static_cast<char>('0' + v / 10 % 10);
    p[1] = static_cast<char>('0' + v % 10);
    return p + 2;
}

// Offset of local time from UTC as the ISO suffix.  Computed from the two
// broken-down forms of t; when they fall on different days the earlier one's
// hour is lifted by 24 (weekdays compared round the week, so that Saturday
// to Sunday counts as one day).
void zone_text(time_t t, const struct tm *local, char *buf, size_t size)
{
    struct tm utc;
    if (gmtime_r(&t, &utc) == nullptr) {
        snprintf(buf, size, "Z");
        return;
    }
    int local_hour = local->tm_hour;
    int utc_hour = utc.tm_hour;
    int days = (utc.tm_wday - local->tm_wday + 7) % 7;
    if (days == 1)
        utc_hour += 24;
    else if (days == 6)
        local_hour += 24;
    long offset = (local->tm_min - utc.tm_min) * 60L + (local_hour - utc_hour) * 3600L +
                  (local->tm_sec - utc.tm_sec);
    if (offset == 0) {
        snprintf(buf, size, "Z");
        return;
    }
    char sign = offset < 0 ? '-' : '+';
    if (offset < 0)
        offset = -offset;
    int hours = static_cast<int>(offset / 3600);
    int minutes = static_cast<int>(offset % 3600 / 60);
    if (hours > 99 || size < 7) {
        snprintf(buf, size, "%c%02d%s%02d", sign, hours, ":", minutes);
        return;
    }
    buf[0] = sign;
    put2(buf + 1, hours);
    buf[3] = ':';
    put2(buf + 4, minutes);
    buf[6] = '\0';
}

bool product_token(const struct tm *tm, int kind, bool utc, bool recent, char *out, size_t size)
{
    char fmt[64];
    switch (kind) {
    case DATE_TOKEN_DATE_TIME:
        snprintf(fmt, sizeof fmt, "%%d-%%b-%%y.%%H%s%%M%s%%S%s", ":", ":", utc ? "UTC" : "");
        break;
    case DATE_TOKEN_DATE: snprintf(fmt, sizeof fmt, "%%d-%%b-%%y"); break;
    default:
        if (recent)
            snprintf(fmt, sizeof fmt, "%%d-%%b.%%H%s%%M%s", ":", utc ? "UTC" : "");
        else
            snprintf(fmt, sizeof fmt, "%%d-%%b-%%Y");
        break;
    }
    if (strftime(out, size, fmt, tm) == 0)
        return false;
    remove_blanks(out);
    return true;
}

// The ISO date-time text, written digit by digit: the daemon log stamps every
// line with it, and it is the same text as
// "%04d-%02d-%02dT%02d%s%02d%s%02d%s" with ":" and the zone.
void iso_date_time(int year, const struct tm *tm, const char *zone, char *out, size_t size)
{
    size_t zlen = strlen(zone);
    if (year < 0 || year > 9999 || zlen + 20 > size) {
        snprintf(out, size, "%04d-%02d-%02dT%02d%s%02d%s%02d%s", year, tm->tm_mon + 1, tm->tm_mday,
                 tm->tm_hour, ":", tm->tm_min, ":", tm->tm_sec, zone);
        return;
    }
    char *p = put2(out, year / 100);
    p = put2(p, year % 100);
    *p++ = '-';
    p = put2(p, tm->tm_mon + 1);
    *p++ = '-';
    p = put2(p, tm->tm_mday);
    *p++ = 'T';
    p = put2(p, tm->tm_hour);
    *p++ = ':';
    p = put2(p, tm->tm_min);
    *p++ = ':';
    p = put2(p, tm->tm_sec);
    memcpy(p, zone, zlen + 1);
}

void iso_token(time_t t, const struct tm *tm, int kind, bool utc, bool recent, char *out,
               size_t size)
{
    int year = tm->tm_year + 1900;
    if (kind == DATE_TOKEN_DATE_TIME) {
        char zone[32];
        if (utc)
            snprintf(zone, sizeof zone, "Z");
        else
            zone_text(t, tm, zone, sizeof zone);
        iso_date_time(year, tm, zone, out, size);
    } else if (kind == DATE_TOKEN_SHORT && recent) {
        snprintf(out, size, "--%02d-%02dT%02d%s%02d", tm->tm_mon + 1, tm->tm_mday, tm->tm_hour, ":",
                 tm->tm_min);
    } else {
        snprintf(out, size, "%04d-%02d-%02d", year, tm->tm_mon + 1, tm->tm_mday);
    }
}

// The token routines keep their last result until their next call.
const char *keep_token(char **slot, time_t t, int kind, int utc, int pname = 0)
{
    free(*slot);
    *slot = date_fmt_token_general(t, kind, DATE_STYLE_DEFAULT, utc, pname);
    return *slot;
}

} // namespace

const char *date_fmt_long_date_time(time_t t)
{
    static char buf[128];
    return format_local(t, "%c", buf, sizeof buf);
}

const char *date_fmt_short_date_time(time_t t)
{
    static char buf[128];
    return format_local(t, "%x %X", buf, sizeof buf);
}

const char *date_fmt_short_date(time_t t)
{
    static char buf[32];
    return format_local(t, "%x", buf, sizeof buf);
}

const char *date_fmt_short_time(time_t t)
{
    static char buf[128];
    return format_local(t, "%H:%M:%S", buf, sizeof buf);
}

const char *date_fmt_ls_date_time(time_t t)
{
    static char buf[128];
    const char *fmt = ks::date_in_past_year(t, ks::clock_time()) ? "%b %d %H:%M" : "%b %d  %Y";
    return format_local(t, fmt, buf, sizeof buf);
}

char *date_fmt_token_general(time_t t, int kind, int style, int utc, int pname)
{
    (void)pname; // the text holds ':' either way
    if (t < 0 || kind < DATE_TOKEN_DATE_TIME || kind > DATE_TOKEN_SHORT)
        return nullptr;
    if (style == DATE_STYLE_DEFAULT)
        style = date_fmt_get_default_date_style();
    if (style != DATE_STYLE_PRODUCT && style != DATE_STYLE_ISO)
        return nullptr;
    struct tm tm;
    if ((utc ? gmtime_r(&t, &tm) : localtime_r(&t, &tm)) == nullptr)
        return nullptr;
    bool recent = kind == DATE_TOKEN_SHORT && ks::date_in_past_year(t, ks::clock_time());
    char out[160];
    if (style == DATE_STYLE_PRODUCT) {
        if (!product_token(&tm, kind, utc != 0, recent, out, sizeof out))
            return nullptr;
    } else {
        iso_token(t, &tm, kind, utc != 0, recent, out, sizeof out);
    }
    return strdup(out);
}

const char *date_fmt_token_date_time(time_t t)
{
    static char *last;
    return keep_token(&last, t, DATE_TOKEN_DATE_TIME, 0);
}

const char *date_fmt_token_date(time_t t)
{
    static char *last;
    return keep_token(&last, t, DATE_TOKEN_DATE, 0);
}

const char *date_fmt_token_short_date_time(time_t t)
{
    static char *last;
    return keep_token(&last, t, DATE_TOKEN_SHORT, 0);
}

const char *date_fmt_token_utc(time_t t)
{
    static char *last;
    return keep_token(&last, t, DATE_TOKEN_DATE_TIME, 1);
}

const char *date_fmt_token_date_time_pname(time_t t)
{
    static char *last;
    return keep_token(&last, t, DATE_TOKEN_DATE_TIME, 0, 1);
}
