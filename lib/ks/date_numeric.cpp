// Dates: the digits-only forms (040301.140509), written with strftime and
// read back against the same format one character at a time.
#include "ks/date.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include <array>

#include "date_internal.h"

namespace {

// One template per DATE_NUMERIC_* format; "%s" is the separator.
constexpr std::array<const char *, DATE_NUMERIC_COUNT> kNumericTemplates = {
    "%%y%%m%%d%s%%H%%M%%S",
    "%%Y%%m%%d%s%%H%%M%%S",
    "%%y%%m%%d%s%%H%%M",
    "%%Y%%m%%d%s%%H%%M",
    "%%y%%m%%d",
    "%%Y%%m%%d",
    "%%y%%m%%d%s%%H%s%%M",
};

// Separators longer than this are refused.
constexpr size_t kMaxSep = 16;

// The strftime format of a digits-only form; false for an unknown format or
// a separator longer than kMaxSep.  A '%' in the separator stays literal.
bool numeric_format(int format, const char *sep, char *out, size_t size)
{
    if (format < 0 || format >= DATE_NUMERIC_COUNT)
        return false;
    if (sep == nullptr)
        sep = "";
    if (strlen(sep) > kMaxSep)
        return false;
    char escaped[2 * kMaxSep + 1];
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
    snprintf(out, size, kNumericTemplates[format], escaped, escaped);
#pragma GCC diagnostic pop
    return true;
}

// The fields a digits-only text names; the time defaults to midnight.
struct numeric_fields {
    int year = -1, month = -1, day = -1, hour = 0, minute = 0, second = 0;
};

// Stores the value of one conversion; false for one no form uses.
bool store_field(char conversion, int v, numeric_fields *f)
{
    switch (conversion) {
    case 'y': f->year = v < 69 ? 2000 + v : 1900 + v; break;
    case 'Y': f->year = v; break;
    case 'm': f->month = v; break;
    case 'd': f->day = v; break;
    case 'H': f->hour = v; break;
    case 'M': f->minute = v; break;
    case 'S': f->second = v; break;
    default: return false;
    }
    return true;
}

// Reads str against the strftime format fmt: literal characters must match,
// each conversion takes two digits (four for %Y).
bool read_fields(const char *str, const char *fmt, numeric_fields *out)
{
    const char *s = str;
    for (const char *f = fmt; *f != '\0'; f++) {
        if (*f != '%' || f[1] == '%') {
            f += *f == '%'; // "%%" stands for '%'
            if (*s != *f)
                return false;
            s++;
            continue;
        }
        f++;
        int width = *f == 'Y' ? 4 : 2;
        int v = 0;
        for (int i = 0; i < width; i++) {
            if (s[i] < '0' || s[i] > '9')
                return false;
            v = v * 10 + (s[i] - '0');
        }
        s += width;
        if (!store_field(*f, v, out))
            return false;
    }
    return *s == '\0';
}

// Reads str back against fmt as local time; 0 with the time in *result.
int numeric_parse(const char *str, const char *fmt, time_t *result)
{
    numeric_fields v;
    if (!read_fields(str, fmt, &v))
        return 1;
    if (v.year < 0 || v.month < 1 || v.month > 12 || v.day < 1 ||
        v.day > ks::date_days_in_month(v.year, v.month) || v.hour > 23 || v.minute > 59 ||
        v.second > 59)
        return 1;
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    tm.tm_year = v.year - 1900;
    tm.tm_mon = v.month - 1;
    tm.tm_mday = v.day;
    tm.tm_hour = v.hour;
    tm.tm_min = v.minute;
    tm.tm_sec = v.second;
    tm.tm_isdst = -1;
    time_t t = mktime(&tm);
    if (t < 0)
        return 1;
    *result = t;
    return 0;
}

} // namespace

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
    if (str == nullptr || t == nullptr || strnlen(str, ks::kMaxDateText + 1) > ks::kMaxDateText)
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
