// Shared by the date module's two sources (and its tests): the keyword tables
// and the steps of ISO 8601 parsing.
#ifndef KS_DATE_INTERNAL_H
#define KS_DATE_INTERNAL_H

#include <stdint.h>
#include <time.h>

namespace ks {

// One month, weekday or special day.  Names are upper case without white
// space; a name the locale does not supply stays empty.
struct date_keyword {
    int32_t value;
    char loc_name[41];
    char loc_abbr[21];
    char cat_name[41];
    char cat_abbr[21];
};

// The tables behind the product grammar, filled once by date_init.
struct date_tables {
    date_keyword months[12];   // January first; value: the month's largest day
    date_keyword weekdays[7];  // Sunday first; value: 0..6
    date_keyword special[2];   // TODAY (0), YESTERDAY (-1): offset in days
    char now_word[41];
    char none_word[41];
    char date_sep[8];
    char time_sep[8];
    char field_sep[8];
    char utc_word[41];
};
const date_tables &date_get_tables();

// An ISO 8601 text taken apart; every field is -1 when absent (zone: 0).
struct iso_data {
    int32_t century;
    int32_t year;        // within the century
    int32_t yday;
    int32_t month;
    int32_t mday;
    int32_t week;
    int32_t wday;        // 1 (Monday) to 7 (Sunday)
    int32_t hour;
    int32_t minute;
    int32_t second;
    int32_t zone;        // '+', '-', 'Z', 'z' or 0
    int32_t zone_hours;
    int32_t zone_minutes;
};

// Takes str apart into *d; 0 when the text has the form of an ISO 8601
// date, time or date-time, 1 otherwise.
int parse_iso_str(const char *str, iso_data *d);
// 0 when the fields are within range and combine as accepted, else 1.
int validate_iso_data(const iso_data *d);
// Fills the absent fields from now (see date_str_to_time2 in ks/date.h);
// needs the direction again at encoding time, so it only fills and records.
void default_iso_data(iso_data *d, int direction);
// The time of a filled record, moved into the direction as documented;
// 0 on success, 1 when the fields name no time (or a negative one).
int encode_iso_data(const iso_data *given, const iso_data *filled, int direction, time_t *t);

// Whether t lies within the year before now (after date_one_year_ago(now)
// and not after now).
bool date_in_past_year(time_t t, time_t now);

} // namespace ks

#endif
