// Dates: ISO 8601 texts in their basic, extended and truncated forms, taken
// apart (parse_iso_str), checked (validate_iso_data), completed from now
// (default_iso_data) and turned into a time (encode_iso_data).
#include "ks/date.h"

#include <stdint.h>
#include <string.h>
#include <time.h>

#include <array>

#include "date_internal.h"
#include "ks_internal.h"

namespace {

// An ISO 8601 text taken apart; every field is -1 when absent (zone: 0).
struct iso_data {
    int32_t century;
    int32_t year; // within the century
    int32_t yday;
    int32_t month;
    int32_t mday;
    int32_t week;
    int32_t wday; // 1 (Monday) to 7 (Sunday)
    int32_t hour;
    int32_t minute;
    int32_t second;
    int32_t zone; // '+', '-', 'Z', 'z' or 0
    int32_t zone_hours;
    int32_t zone_minutes;
};

constexpr iso_data kNoFields = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, -1, -1};

// ---- Taking the text apart -----------------------------------------------

int count_digits(const char *p)
{
    int n = 0;
    while (p[n] >= '0' && p[n] <= '9')
        n++;
    return n;
}

int count_hyphens(const char *p)
{
    int n = 0;
    while (p[n] == '-')
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

bool is_time_marker(char c)
{
    return c == 'T' || c == 't';
}

// Fields of fixed width read from consecutive digits; a run ends at its
// first null field.
struct iso_field {
    int32_t iso_data::*field;
    int width;
};
using field_run = std::array<iso_field, 4>;

constexpr iso_field kCentury = {&iso_data::century, 2};
constexpr iso_field kYear = {&iso_data::year, 2};
constexpr iso_field kYearDay = {&iso_data::yday, 3};
constexpr iso_field kMonth = {&iso_data::month, 2};
constexpr iso_field kDay = {&iso_data::mday, 2};
constexpr iso_field kHour = {&iso_data::hour, 2};
constexpr iso_field kMinute = {&iso_data::minute, 2};
constexpr iso_field kSecond = {&iso_data::second, 2};

const char *take_fields(const char *q, const field_run &run, iso_data *d)
{
    for (const iso_field &f : run) {
        if (f.field == nullptr)
            break;
        // Spelt out for the two widths, so that each read unrolls.
        d->*f.field = f.width == 3 ? take(q, 3) : take(q, 2);
        q += f.width;
    }
    return q;
}

// ":" and exactly two digits into field; q itself when no ":" follows, null
// when the digits are wrong.
const char *take_after_colon(const char *q, int32_t iso_data::*field, iso_data *d)
{
    if (*q != ':')
        return q;
    if (count_digits(q + 1) != 2)
        return nullptr;
    d->*field = take(q + 1, 2);
    return q + 3;
}

// What a "-" after the leading digits of a date may add.
enum class date_next {
    NOTHING,
    MONTH_OR_WEEK,
    DAY
};

// The fields that the leading digits of a date or a time stand for, by the
// hyphens before them and their count.
struct layout {
    int hyphens, digits;
    field_run fields;
    date_next next;
};

constexpr std::array<layout, 12> kDateLayouts = {{
    {0, 2, {kYear}, date_next::MONTH_OR_WEEK},                  // YY (CC when alone)
    {1, 2, {kYear}, date_next::MONTH_OR_WEEK},                  // -YY
    {2, 2, {kMonth}, date_next::DAY},                           // --MM
    {3, 2, {kDay}, date_next::NOTHING},                         // ---DD
    {1, 3, {kYearDay}, date_next::NOTHING},                     // -DDD
    {0, 4, {kCentury, kYear}, date_next::MONTH_OR_WEEK},        // CCYY
    {1, 4, {kYear, kMonth}, date_next::NOTHING},                // -YYMM
    {2, 4, {kMonth, kDay}, date_next::NOTHING},                 // --MMDD
    {0, 5, {kYear, kYearDay}, date_next::NOTHING},              // YYDDD
    {0, 6, {kYear, kMonth, kDay}, date_next::NOTHING},          // YYMMDD
    {0, 7, {kCentury, kYear, kYearDay}, date_next::NOTHING},    // CCYYDDD
    {0, 8, {kCentury, kYear, kMonth, kDay}, date_next::NOTHING} // CCYYMMDD
}};

constexpr std::array<layout, 6> kTimeLayouts = {{
    {0, 2, {kHour}, date_next::NOTHING},                   // hh, or hh:mm[:ss]
    {0, 4, {kHour, kMinute}, date_next::NOTHING},          // hhmm
    {0, 6, {kHour, kMinute, kSecond}, date_next::NOTHING}, // hhmmss
    {1, 2, {kMinute}, date_next::NOTHING},                 // -mm
    {1, 4, {kMinute, kSecond}, date_next::NOTHING},        // -mmss
    {2, 2, {kSecond}, date_next::NOTHING},                 // --ss
}};

// The hyphens and the run of digits that open a date or a time.
struct lead {
    int hyphens;
    const char *digits;
    int count;
};

lead read_lead(const char *p)
{
    int hyphens = count_hyphens(p);
    return {hyphens, p + hyphens, count_digits(p + hyphens)};
}

template <size_t N>
const layout *find_layout(const std::array<layout, N> &table, const lead &l)
{
    for (const layout &entry : table)
        if (entry.hyphens == l.hyphens && entry.digits == l.count)
            return &entry;
    return nullptr;
}

// After "W": week, week and weekday, or "-" and a weekday alone.
const char *parse_week(const char *q, iso_data *d)
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

// An optional "-" and exactly two digits of day, after a month.
const char *parse_day(const char *q, iso_data *d)
{
    if (*q != '-')
        return q;
    if (count_digits(q + 1) != 2)
        return nullptr;
    d->mday = take(q + 1, 2);
    return q + 3;
}

// After a year and "-": a week, two digits of month (and optionally a day),
// or three digits of day of year.
const char *parse_after_year(const char *q, iso_data *d)
{
    if (is_week_marker(*q))
        return parse_week(q + 1, d);
    int n = count_digits(q);
    if (n == 2) {
        d->month = take(q, 2);
        return parse_day(q + 2, d);
    }
    if (n == 3) {
        d->yday = take(q, 3);
        return q + 3;
    }
    return nullptr;
}

// The date part: the leading digits as the table lays them out, then what a
// "-" may add.  The text after the date, or null when it has no date form.
const char *parse_iso_date(const lead &l, iso_data *d)
{
    const char *q = l.digits;
    if (l.count == 0) // "-W": a week of the current year
        return l.hyphens == 1 && is_week_marker(*q) ? parse_week(q + 1, d) : nullptr;
    if (l.count == 2 && l.hyphens == 0 && q[2] == '\0') {
        d->century = take(q, 2);
        return q + 2;
    }
    const layout *form = find_layout(kDateLayouts, l);
    if (form == nullptr)
        return nullptr;
    q = take_fields(q, form->fields, d);
    if (form->next == date_next::DAY)
        return parse_day(q, d);
    if (form->next == date_next::MONTH_OR_WEEK && *q == '-')
        return parse_after_year(q + 1, d);
    return q;
}

// The zone after a time: "Z", or a sign with two digits of hours (optionally
// ":" and two of minutes) or four digits.  0 when the text ends there.
int parse_iso_zone(const char *q, iso_data *d)
{
    if (*q == 'Z' || *q == 'z') {
        d->zone = static_cast<unsigned char>(*q);
        q++;
    } else if (*q == '+' || *q == '-') {
        d->zone = static_cast<unsigned char>(*q);
        q++;
        int n = count_digits(q);
        if (n == 2) {
            d->zone_hours = take(q, 2);
            q = take_after_colon(q + 2, &iso_data::zone_minutes, d);
        } else if (n == 4) {
            d->zone_hours = take(q, 2);
            d->zone_minutes = take(q + 2, 2);
            q += 4;
        } else {
            return 1;
        }
    }
    return q == nullptr || *q != '\0';
}

// The time part (after "T", or the whole text) and the zone.
int parse_iso_time(const lead &l, iso_data *d)
{
    const layout *form = find_layout(kTimeLayouts, l);
    if (form == nullptr)
        return 1;
    const char *q = take_fields(l.digits, form->fields, d);
    if (form == &kTimeLayouts[0]) { // hh: the extended form may follow
        q = take_after_colon(q, &iso_data::minute, d);
        if (q != nullptr)
            q = take_after_colon(q, &iso_data::second, d);
    }
    return q == nullptr ? 1 : parse_iso_zone(q, d);
}

// Takes str apart into *d; 0 when the text has the form of an ISO 8601
// date, time or date-time, 1 otherwise.
int parse_iso_str(const char *str, iso_data *d)
{
    *d = kNoFields;
    if (str == nullptr || *str == '\0' || strnlen(str, ks::kMaxDateText + 1) > ks::kMaxDateText)
        return 1;
    if (is_time_marker(*str))
        return parse_iso_time(read_lead(str + 1), d);
    lead l = read_lead(str);
    char after = l.digits[l.count];
    if (l.count > 0 && (after == ':' || after == 'Z' || after == 'z')) // a time alone
        return parse_iso_time(l, d);
    const char *q = parse_iso_date(l, d);
    if (q == nullptr)
        return 1;
    if (*q == '\0')
        return 0;
    return is_time_marker(*q) ? parse_iso_time(read_lead(q + 1), d) : 1;
}

// ---- Checking ------------------------------------------------------------

// 0 when the fields are within range and combine as accepted, else 1.
int validate_iso_data(const iso_data *d)
{
    struct range {
        int32_t value, low, high;
    };
    const range ranges[] = {
        {d->century, 19, 20}, {d->month, 1, 12},      {d->mday, 1, 31},         {d->week, 1, 53},
        {d->wday, 1, 7},      {d->yday, 1, 366},      {d->hour, 0, 24},         {d->minute, 0, 59},
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

// ---- Filling and encoding ------------------------------------------------

// Significance levels of the fields, most significant first.
enum level {
    L_CENTURY,
    L_YEAR,
    L_MONTH,
    L_DAY,
    L_HOUR,
    L_MINUTE,
    L_SECOND,
    L_COUNT
};
using levels = std::array<bool, L_COUNT>;

levels given_levels(const iso_data *d)
{
    levels given;
    given[L_CENTURY] = d->century >= 0;
    given[L_YEAR] = d->year >= 0;
    given[L_MONTH] = d->month >= 0 || d->yday >= 0;
    given[L_DAY] = d->mday >= 0 || d->yday >= 0;
    given[L_HOUR] = d->hour >= 0;
    given[L_MINUTE] = d->minute >= 0;
    given[L_SECOND] = d->second >= 0;
    return given;
}

long zone_offset(const iso_data *d)
{
    if (d->zone != '+' && d->zone != '-')
        return 0;
    long off = (d->zone_hours > 0 ? d->zone_hours : 0) * 3600L +
               (d->zone_minutes > 0 ? d->zone_minutes : 0) * 60L;
    return d->zone == '-' ? -off : off;
}

// "Now" as the record's zone sees it.
bool now_in_zone(const iso_data *d, struct tm *tm)
{
    time_t now = ks::clock_time();
    if (d->zone == 0)
        return localtime_r(&now, tm) != nullptr;
    now += zone_offset(d);
    return gmtime_r(&now, tm) != nullptr;
}

time_t fields_to_time(const iso_data *d, struct tm *tm)
{
    if (d->zone == 0) {
        tm->tm_isdst = -1;
        return mktime(tm);
    }
    time_t t = timegm(tm);
    if (t == static_cast<time_t>(-1))
        return t;
    return t - zone_offset(d);
}

// Whether the day of b exists: a day of year within its year, or a day of
// month within its month (a month moved by one may lie just outside 0..11).
bool day_exists(const struct tm &b, bool by_yday)
{
    long year = b.tm_year + 1900L;
    if (by_yday)
        return b.tm_mday <= (ks::date_is_leap_year(year) ? 366 : 365);
    int mon = b.tm_mon;
    if (mon < 0) {
        mon += 12;
        year--;
    } else if (mon > 11) {
        mon -= 12;
        year++;
    }
    return b.tm_mday <= ks::date_days_in_month(year, mon + 1);
}

// Fills the absent fields from now (see date_str_to_time2 in ks/date.h): those
// above the most significant field given and in gaps take the current value,
// those below the least significant one their first value.  The direction
// moves the encoded time, not the fields.
void default_iso_data(iso_data *d)
{
    levels given = given_levels(d);
    int high = L_COUNT;
    int low = -1;
    for (int l = 0; l < L_COUNT; l++) {
        if (given[l]) {
            if (high == L_COUNT)
                high = l;
            low = l;
        }
    }
    if (high == L_COUNT) // nothing but a weekday: a day near today, at midnight
        low = L_HOUR;
    struct tm now;
    memset(&now, 0, sizeof now);
    bool need_now = false;
    for (int l = 0; l < low; l++)
        need_now = need_now || !given[l];
    if (need_now && !now_in_zone(d, &now))
        memset(&now, 0, sizeof now);
    long year = now.tm_year + 1900L;
    for (int l = 0; l < L_COUNT; l++) {
        if (given[l])
            continue;
        bool current = l < low;
        switch (l) {
        case L_CENTURY: d->century = static_cast<int32_t>(year / 100); break;
        case L_YEAR: d->year = current ? static_cast<int32_t>(year % 100) : 0; break;
        case L_MONTH: d->month = current ? now.tm_mon + 1 : 1; break;
        case L_DAY: d->mday = current ? now.tm_mday : 1; break;
        case L_HOUR: d->hour = current ? now.tm_hour : 0; break;
        case L_MINUTE: d->minute = current ? now.tm_min : 0; break;
        case L_SECOND: d->second = current ? now.tm_sec : 0; break;
        }
    }
    if (d->zone != 0) {
        if (d->zone_hours < 0)
            d->zone_hours = 0;
        if (d->zone_minutes < 0)
            d->zone_minutes = 0;
    }
}

// Moves the broken-down time by step units of the field at level l.
void move_field(struct tm *b, int l, int step)
{
    switch (l) {
    case L_CENTURY: b->tm_year += 100 * step; break;
    case L_YEAR: b->tm_year += step; break;
    case L_MONTH: b->tm_mon += step; break;
    case L_DAY: b->tm_mday += step; break;
    case L_HOUR: b->tm_hour += step; break;
    default: b->tm_min += step; break;
    }
}

// The time of a filled record, moved into the direction as documented;
// 0 on success, 1 when the fields name no time (or a negative one).
int encode_iso_data(const iso_data *given, const iso_data *f, int direction, time_t *result)
{
    if (f->hour == 24 && (f->minute > 0 || f->second > 0))
        return 1;
    bool by_yday = f->yday >= 0;
    // Only a day the text names can be missing from its month or year; a
    // filled-in day is always there.
    bool day_given = given->mday >= 0 || given->yday >= 0;
    int step = direction == DATE_DIRECTION_PAST ? -1 : 1;
    // tm first, then its copy: built the other way round, the copy reads the
    // cleared record back across two stores, and the parse slows by a tenth.
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    tm.tm_year = static_cast<int>(f->century * 100L + f->year - 1900);
    tm.tm_mon = by_yday ? 0 : f->month - 1;
    tm.tm_mday = by_yday ? f->yday : f->mday;
    tm.tm_hour = f->hour;
    tm.tm_min = f->minute;
    tm.tm_sec = f->second;
    struct tm base = tm;
    time_t t = fields_to_time(f, &tm);
    if (t == static_cast<time_t>(-1))
        return 1;

    if (given->wday > 0) {
        // The nearest such weekday in the direction; today's own counts.
        int want = given->wday % 7;
        base.tm_mday += step < 0 ? -((tm.tm_wday - want + 7) % 7) : (want - tm.tm_wday + 7) % 7;
        tm = base;
        t = fields_to_time(f, &tm);
    } else {
        levels given_level = given_levels(given);
        int high = 0;
        while (high < L_COUNT && !given_level[high])
            high++;
        // Fields above the given ones came from now: when that lands on the
        // wrong side of now, or on a day the current month or year lacks
        // (--02-29 in 2027), move by one unit of the field just above.
        if (high > 0 && high < L_COUNT &&
            ((day_given && !day_exists(base, by_yday)) ||
             (step < 0 ? t > ks::clock_time() : t < ks::clock_time()))) {
            move_field(&base, high - 1, step);
            tm = base;
            t = fields_to_time(f, &tm);
        }
        // A day past the end of its month or year is refused, never carried
        // into the next one.
        if (day_given && !day_exists(base, by_yday))
            return 1;
    }
    if (t == static_cast<time_t>(-1) || t < 0)
        return 1;
    *result = t;
    return 0;
}

} // namespace

namespace ks {

int date_iso_to_time(const char *str, int direction, time_t *result)
{
    iso_data given;
    if (parse_iso_str(str, &given) != 0 || validate_iso_data(&given) != 0)
        return 1;
    iso_data filled = given;
    default_iso_data(&filled);
    return encode_iso_data(&given, &filled, direction, result);
}

} // namespace ks
