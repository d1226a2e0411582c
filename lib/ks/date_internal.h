// Internal: included by date*.cpp only.
// What the date module's sources share: the text limit, the calendar rules
// and the two grammars behind date_str_to_time2.
#ifndef KS_DATE_INTERNAL_H
#define KS_DATE_INTERNAL_H

#include <stddef.h>
#include <time.h>

namespace ks {

// Texts longer than this never parse: the product grammar works on a copy in
// a buffer of 1024 bytes, and the other parsers keep to the same limit.
constexpr size_t kMaxDateText = 1023;

// The Gregorian rules (the coarse one-year rule of date_one_year_ago is not
// one of them).
bool date_is_leap_year(long year);
int date_days_in_month(long year, int month); // month 1..12

// Whether t lies within the year before now (after date_one_year_ago(now)
// and not after now).
bool date_in_past_year(time_t t, time_t now);

// The product grammar and ISO 8601 on a text of any length: 0 with the time
// in *t, 1 (nothing changed) when the text does not parse.  The product
// grammar needs the keyword tables filled (date_init).
int date_product_to_time(const char *str, int direction, time_t *t);
int date_iso_to_time(const char *str, int direction, time_t *t);

} // namespace ks

#endif
