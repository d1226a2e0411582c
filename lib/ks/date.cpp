// Dates: the default style, the calendar rules the other date sources share,
// the library's time of day and the parser that tries both grammars.
#include "ks/date.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <array>

#include "date_internal.h"
#include "ks_internal.h"

namespace {

// Seconds in the years of date_one_year_ago.
constexpr time_t kYear = 31536000;     // 365 days
constexpr time_t kLeapYear = 31622400; // 366 days

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

} // namespace

namespace ks {

bool date_is_leap_year(long year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int date_days_in_month(long year, int month)
{
    constexpr std::array<int, 12> kDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && date_is_leap_year(year) ? 29 : kDays[month - 1];
}

bool date_in_past_year(time_t t, time_t now)
{
    return date_one_year_ago(now) < t && t <= now;
}

} // namespace ks

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
        return t - kYear;
    // Only the month and the year's remainder by 4 count: kept that coarse.
    int y = tm.tm_year;
    int m = tm.tm_mon;
    bool leap_span = (y % 4 == 0 && m >= 3) || (y % 4 == 1 && m <= 2);
    return t - (leap_span ? kLeapYear : kYear);
}

void date_get_timeval(struct timeval *tv)
{
    constexpr long kMicros = 1000000;
    ks::clock_gettimeofday(tv);
    if (tv->tv_usec >= kMicros || tv->tv_usec < 0) {
        long carry = tv->tv_usec / kMicros;
        tv->tv_usec -= carry * kMicros;
        if (tv->tv_usec < 0) {
            tv->tv_usec += kMicros;
            carry--;
        }
        tv->tv_sec += carry;
    }
}

int date_str_to_time2(const char *str, int direction, time_t *t)
{
    if (str == nullptr || t == nullptr)
        return 1;
    date_init();
    if (ks::date_product_to_time(str, direction, t) == 0)
        return 0;
    return ks::date_iso_to_time(str, direction, t);
}

int date_str_to_time(const char *str, time_t *t)
{
    return date_str_to_time2(str, DATE_DIRECTION_PAST, t);
}
