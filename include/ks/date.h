/*
 * Dates: the product's two textual styles and the parsing of what users type.
 *
 * Times are time_t counts of seconds since the epoch.  The stored and wire
 * forms of the product hold them as signed 32-bit counts; here the API keeps
 * time_t (64 bits on this platform) so that times after 2038 (a two-digit year
 * such as 68 means 2068) survive.  Negative times are never produced by the
 * parsers and give a null token.
 *
 * Styles: 1 is the product style (01-Mar-04.14:05:09), 2 is ISO 8601
 * (2004-03-01T14:05:09+01:00).  The process default is 2; when
 * OTTER_ISO_DATE_FMT is exactly "0" on first use, it is 1.
 *
 * "Now" is the library's clock, so that everything below follows a fixed time
 * in tests.  Nothing here is thread-safe: result buffers are shared.
 */
#ifndef KS_DATE_H
#define KS_DATE_H

#include <sys/time.h>
#include <time.h>

#include "ks/ks_common.h"

KS_BEGIN_DECLS

/* Token kinds of date_fmt_token_general. */
#define DATE_TOKEN_DATE_TIME 0
#define DATE_TOKEN_DATE      1
#define DATE_TOKEN_SHORT     2

/* Date styles. */
#define DATE_STYLE_DEFAULT 0
#define DATE_STYLE_PRODUCT 1
#define DATE_STYLE_ISO     2

/* Directions for incomplete dates. */
#define DATE_DIRECTION_PAST   0
#define DATE_DIRECTION_FUTURE 1

/* Digits-only formats of date_fmt_token_numeric / date_numeric_str_to_time
 * ("sep" is the caller's separator between date and time). */
#define DATE_NUMERIC_YYMMDD_HHMMSS   0 /* %y%m%d<sep>%H%M%S */
#define DATE_NUMERIC_YYYYMMDD_HHMMSS 1 /* %Y%m%d<sep>%H%M%S */
#define DATE_NUMERIC_YYMMDD_HHMM     2 /* %y%m%d<sep>%H%M */
#define DATE_NUMERIC_YYYYMMDD_HHMM   3 /* %Y%m%d<sep>%H%M */
#define DATE_NUMERIC_YYMMDD          4 /* %y%m%d */
#define DATE_NUMERIC_YYYYMMDD        5 /* %Y%m%d */
#define DATE_NUMERIC_YYMMDD_HH_MM    6 /* %y%m%d<sep>%H<sep>%M */
#define DATE_NUMERIC_COUNT           7
/* date_numeric_str_to_time: try every format in the order above. */
#define DATE_NUMERIC_ANY (-1)

/*
 * Formatting.  Each routine has a result buffer of its own, overwritten by its
 * next call; the caller never frees it.  Null when the time cannot be broken
 * down (or, for the token routines, is negative).
 */

/* strftime "%c" of local time. */
KS_API const char *date_fmt_long_date_time(time_t t);
/* "%x %X" of local time. */
KS_API const char *date_fmt_short_date_time(time_t t);
/* "%x" of local time. */
KS_API const char *date_fmt_short_date(time_t t);
/* "%H:%M:%S" of local time. */
KS_API const char *date_fmt_short_time(time_t t);
/* ls style: "%b %d %H:%M" for a time in the past year (after
 * date_one_year_ago(now), not after now), else "%b %d  %Y" (two blanks). */
KS_API const char *date_fmt_ls_date_time(time_t t);

/* Date and time of local time in the default style. */
KS_API const char *date_fmt_token_date_time(time_t t);
/* Date only, default style. */
KS_API const char *date_fmt_token_date(time_t t);
/* Short form, default style: day and time within the past year, else the
 * date with a four-digit year.  A future time never counts as the past year. */
KS_API const char *date_fmt_token_short_date_time(time_t t);
/* Date and time in UTC, default style ("UTC" suffix or "Z"). */
KS_API const char *date_fmt_token_utc(time_t t);
/* As date_fmt_token_date_time: the pathname-safe request does not change the
 * text (it still holds ':'). */
KS_API const char *date_fmt_token_date_time_pname(time_t t);
/* The routine behind the token routines: kind DATE_TOKEN_*, style 0 for the
 * default, utc non-zero for UTC, pname accepted and ignored.  Returns a string
 * made with malloc that the caller releases with free; null for a negative
 * time, an unknown kind or style, or no memory. */
KS_API char *date_fmt_token_general(time_t t, int kind, int style, int utc, int pname);
/* Digits-only form of local time in format DATE_NUMERIC_* with sep (null:
 * none) between date and time.  Own buffer; null for a negative time, an
 * unknown format or a separator longer than 16 bytes. */
KS_API const char *date_fmt_token_numeric(time_t t, int format, const char *sep);

/* The grammar of user dates (message 45) in a 1024-byte buffer of its own. */
KS_API const char *date_usage_date_time(void);
/* t minus one year by the deliberately coarse rule: 366 days when the local
 * year is divisible by 4 and the month is April or later, or the year mod 4 is
 * 1 and the month is March or earlier; else 365 days. */
KS_API time_t date_one_year_ago(time_t t);
/* The library's current time with tv_usec carried into 0..999999. */
KS_API void date_get_timeval(struct timeval *tv);

/* Replaces the default style (1 or 2; other values change nothing) and
 * returns the previous one. */
KS_API int date_fmt_set_default_style(int style);
/* The default style (1 or 2). */
KS_API int date_fmt_get_default_date_style(void);

/* Fills the keyword tables (locale and catalogue names) once per process;
 * every parser calls it. */
KS_API void date_init(void);

/*
 * Parsing.  0 on success with the time in *t; 1 on failure with *t unchanged
 * and nothing printed (callers show date_usage_date_time()).  The texts are
 * NUL-terminated; one longer than 1023 bytes fails without being read to its
 * end.
 */

/* The product grammar, then ISO 8601; incomplete dates resolve to the past. */
KS_API int date_str_to_time(const char *str, time_t *t);
/* As date_str_to_time; direction 0 resolves incomplete dates to the past,
 * any other value to the future.
 *
 * ISO 8601 fields that the text leaves out: those above the most significant
 * field given take the current value (in the text's zone), those below the
 * least significant one their first value (a date alone is midnight, "2004"
 * is 1 January).  When the result lies on the wrong side of now (after it for
 * the past, before it for the future) it moves by one unit of the field just
 * above the given ones: "--12-01" on 15 November 2026 gives 1 December 2025
 * in the past direction, "T14:00" at 13:00 gives yesterday's 14:00, "99-01-01"
 * gives 1999.  A day that the current month or year lacks moves the same way
 * ("--02-29" on 15 March 2027: 29 February 2028 for the future, refused for
 * the past).  A weekday alone ("-W-3") is the nearest such day, 0 to 6 days
 * back or ahead.  A day past the end of its final month or year, and 24:00
 * with minutes or seconds, are refused.  A zone designator makes
 * the fields UTC plus its offset; without one they are local time. */
KS_API int date_str_to_time2(const char *str, int direction, time_t *t);
/* The product grammar alone (no ISO 8601), direction as date_str_to_time2. */
KS_API int date_str_to_time_legacy(const char *str, int direction, time_t *t);
/* Reads a digits-only form of local time in format DATE_NUMERIC_* (or
 * DATE_NUMERIC_ANY) with separator sep (null: none); two-digit years below 69
 * are 20yy, others 19yy.  Fields are range-checked. */
KS_API int date_numeric_str_to_time(const char *str, int format, const char *sep, time_t *t);

KS_END_DECLS

#endif
