/*
 * String utilities: strict number parsing, size strings, environment
 * expansion, multibyte and wide-character walking, UTF-8/UTF-16 conversion,
 * flag words, the tokenizer, bracket matching, the string hash, bounded
 * copying and joining, and the scrambling of short strings.
 *
 *  1. The number and size routines return 0 for success and 1 for failure
 *     (uint32_t), with the value through an out parameter that is set to 0
 *     before converting.
 *  2. Routines that walk text step by whole characters when the locale has
 *     characters of more than one byte (MB_CUR_MAX > 1): a byte inside a
 *     character is never taken for a separator.  A byte that does not start
 *     a valid character is taken as a character of its own.
 *  3. Bounded copies never write past the size given, always terminate the
 *     result when the size is at least 1, never split a character, and
 *     return 1 when the text was cut.
 *  4. Not thread-safe: strutl_tokenize, strutl_u32tostr and
 *     strutl_flags_to_str keep process-wide state.
 */
#ifndef KS_STRUTL_H
#define KS_STRUTL_H

#include <stdarg.h>
#include <stdio.h>

#include "ks/ks_common.h"
#include "ks/stg.h"

KS_BEGIN_DECLS

/* ---- Numbers ---------------------------------------------------------- */

/* strtol over the whole string: 1 when errno is set or nothing was consumed;
 * otherwise *out holds the value and the result is 1 if text follows it,
 * 0 when the whole string was the number. */
KS_API uint32_t strutl_strtol(const char *str, int base, long *out);
/* strutl_strtol with strtoul. */
KS_API uint32_t strutl_strtoul(const char *str, int base, unsigned long *out);
/* strutl_strtol with strtod. */
KS_API uint32_t strutl_strtod(const char *str, double *out);
/* strtol allowing trailing text; *end (optional) gets the end pointer.
 * 1 only when errno is set or the result is 0 with nothing consumed. */
KS_API uint32_t strutl_strtol_extended(const char *str, int base, long *out, char **end);
/* strutl_strtol_extended with strtoul. */
KS_API uint32_t strutl_strtoul_extended(const char *str, int base, unsigned long *out, char **end);
/* strutl_strtol_extended with strtod. */
KS_API uint32_t strutl_strtod_extended(const char *str, double *out, char **end);
/* Size in kilobytes of "number[KkMmGg]" (no suffix: bytes); a non-zero size
 * below 1K gives 1.  1 on a bad number or suffix, *out then 0. */
KS_API uint32_t strutl_kstr_to_long(const char *str, long *out);
/* Size in bytes of "number[KkMmGg]"; a non-zero size below 1 gives 1.
 * 1 on a bad number or suffix. */
KS_API uint32_t strutl_kstr_or_str_to_long(const char *str, long *out);
/* The base-10 long in str clamped to min..max; def when str is null or is
 * not a number consumed whole. */
KS_API long strutl_process_long_param(const char *str, long def, long min, long max);
/* value in base 2..36 as text in a static 33-byte buffer shared by all
 * callers (null for another base).  width 0..32: the last width digits,
 * zero-padded; above 32: all 32; negative: without leading zeros. */
KS_API char *strutl_u32tostr(uint32_t value, int base, int width);

/* ---- Character classes and multibyte walking -------------------------- */

#define STRUTL_CT_ALPHA  0x001u
#define STRUTL_CT_UPPER  0x002u
#define STRUTL_CT_LOWER  0x004u
#define STRUTL_CT_DIGIT  0x008u
#define STRUTL_CT_XDIGIT 0x010u
#define STRUTL_CT_ALNUM  0x020u
#define STRUTL_CT_SPACE  0x040u
#define STRUTL_CT_PUNCT  0x080u
#define STRUTL_CT_PRINT  0x100u
#define STRUTL_CT_GRAPH  0x200u

/* 1 when the character at s belongs to every class set in classes, else 0;
 * *len (optional) gets its length in bytes (1 for an invalid sequence, whose
 * first byte alone is tested; 0 at the terminating NUL, which never passes). */
KS_API int strutl_test_char(const char *s, uint32_t classes, int *len);
/* Length of the character at s: 0 at the NUL, 1 for a byte that does not
 * start a valid character (so that a walker always advances). */
KS_API int strutl_mblen(const char *s);
/* Copies the character at *s_tail into ch (MB_LEN_MAX + 1 bytes), NUL-
 * terminated, and advances *s_tail past it; returns its length, 0 at the end.
 * An invalid byte is taken alone.  Asserts "s_tail != NULL". */
KS_API int strutl_mb_char_from_str(char *ch, const char **s_tail);
/* Converts the character at *s_tail into *wc and advances past it; returns
 * its length, 0 at the end.  An invalid sequence prints message 5 and
 * returns -1 without advancing.  Asserts "s_tail != NULL". */
KS_API int strutl_wide_char_from_str(wchar_t *wc, const char **s_tail);
/* Number of characters of s (an invalid byte counts as one).  Asserts "s != NULL". */
KS_API size_t strutl_mb_strlen(const char *s);
/* Number of wide characters of ws.  Asserts "ws != NULL". */
KS_API size_t strutl_wide_strlen(const wchar_t *ws);
/* Wide copy of s allocated in area (STG_AREA_HEAP: release with stg_free).
 * Null after message 4 (s null), 5 (invalid character) or a storage failure.
 * Asserts "area != STG_AREA_NULL". */
KS_API wchar_t *strutl_cvt_str_to_wide_str(stg_area_t area, const char *s);
/* Multibyte copy of ws allocated in area.  Null after message 4 (ws null),
 * 7 (a character the locale cannot represent) or a storage failure.
 * Asserts "area != STG_AREA_NULL". */
KS_API char *strutl_cvt_wide_str_to_str(stg_area_t area, const wchar_t *ws);
/* 1 when the locale is single-byte (MB_CUR_MAX below 2), else 0. */
KS_API int strutl_get_sys_char_type(void);

/* ---- Environment expansion -------------------------------------------- */

/* Copy of str with $NAME and ${NAME} replaced by their values (unset: empty)
 * and backslash escapes removed; *flag (optional) is 1 if a reference was
 * seen.  Release with stg_free; null when storage runs out. */
KS_API char *strutl_expand_evs_status(const char *str, int *flag);
/* strutl_expand_evs_status without the flag. */
KS_API char *strutl_expand_evs(const char *str);
/* Expands repeatedly until a pass finds no reference, at most max passes
 * (0: 8).  Release with stg_free.  Null with errno EINVAL (negative max, or
 * more passes needed) or ENOMEM. */
KS_API char *strutl_expand_evs_iterate(const char *str, int max);

/* ---- UTF-8 and UTF-16 (one unit per wchar_t) --------------------------- */

/* Converts src_units units to UTF-8 in dst, which must hold dst_capacity + 1
 * bytes; always terminates.  0 when all was converted, 3 when dst filled
 * up (the output stops before the character that did not fit). */
KS_API int strutl_utf16to8(char *dst, const wchar_t *src, size_t src_units, size_t dst_capacity);
/* Converts src_bytes of UTF-8 to UTF-16 in dst, which must hold
 * dst_capacity_units + 1 units; always terminates.  *consumed (optional) gets
 * the bytes used.  0 done, 1 source ends inside a sequence, 3 dst full. */
KS_API int strutl_utf8to16(wchar_t *dst, const char *src, size_t src_bytes,
                           size_t dst_capacity_units, size_t *consumed);

/* ---- Flags, tokens, delimiters, hash ----------------------------------- */

typedef struct strutl_flag_entry {
    const char *name;
    uint32_t mask;
} strutl_flag_entry_t;

/* Names of the flags set in flags, joined by sep (null or empty: " "),
 * then " UNKNOWN(0x..)" for bits no entry names.  Static 1024-byte buffer
 * overwritten by each call; null only if it cannot be allocated. */
KS_API const char *strutl_flags_to_str(uint32_t flags, const char *sep,
                                       const strutl_flag_entry_t *table, int count);
/* Or of the masks of the sep-separated words of str (sep null or empty: " ";
 * empty words are skipped; only the first 1023 bytes are read).  An unknown
 * word gives 0 with *bad (optional) pointing at it in str; otherwise *bad is
 * null.  Case-blind (lower case, strcoll) unless case_sensitive. */
KS_API uint32_t strutl_flags_from_str(const char *str, int case_sensitive, const char *sep,
                                      const strutl_flag_entry_t *table, int count,
                                      const char **bad);
/* strtok-like: str non-null starts a scan (str is modified), null continues
 * the last one (one position shared by all callers).  Next token, or null. */
KS_API char *strutl_tokenize(char *str, const char *delims);
/* From str[start], finds the close that matches depth 0 (each open nests):
 * 1 with *pos its index; 0 with *pos the length when none. */
KS_API int strutl_find_end_delim(const char *str, int start, int open, int close, int *pos);
/* h = seed, then h = rotl(h, 5) + byte for each byte of str. */
KS_API uint32_t strutl_str_to_hash32(uint32_t seed, const char *str);
/* EUC-JP code of the Shift_JIS character b1 b2; its bytes also go to *hi
 * and *lo when these are given. */
KS_API uint32_t strutl_cvt_sjis_to_euc(uint32_t b1, uint32_t b2, unsigned char *hi,
                                       unsigned char *lo);

/* ---- Scrambling of short strings --------------------------------------- */

/* Scrambles plain into printable symbols in out (4 per 3 bytes, plus one and
 * the NUL).  0 on success, 1 when out_size is too small. */
KS_API int strutl_extract_head(const char *plain, char *out, size_t out_size);
/* Inverse of strutl_extract_head.  0 on success; 1 when out_size is too
 * small or coded is not a text it made (foreign symbol, impossible length,
 * a NUL byte, or filler bits that disagree with the start index). */
KS_API int strutl_extract_tail(const char *coded, char *out, size_t out_size);

/* ---- Lists and white space --------------------------------------------- */

/* Prints each string of the null-terminated list on a line of its own, as
 * normal output (IMSG_OK, then IMSG_OK_CONT). */
KS_API void strutl_list_print(const char *const *list);
/* As strutl_list_print as trace output, when subsys is traced at level. */
KS_API void strutl_list_trace_print(const char *subsys, int level, const char *const *list);
/* 1 when s equals one of the strings of the null-terminated list, else 0. */
KS_API int strutl_str_in_list(const char *s, const char *const *list);
/* Removes leading and trailing white space of s in place; returns s.
 * Asserts "s != NULL". */
KS_API char *strutl_strip_whitespace(char *s);
/* Moves the string at tail (with its NUL) by shift bytes, left when negative;
 * the caller provides the room.  Returns its new start. */
KS_API char *strutl_slide_tail(char *tail, ptrdiff_t shift);
/* Replaces the len bytes at start of the string in buf (size bytes) by repl.
 * 0 done; 1 after message 2 when it does not fit (buf unchanged). */
KS_API int strutl_replace_substr(char *buf, size_t size, size_t start, size_t len,
                                 const char *repl);
/* Copies s into buf (size bytes, not overlapping s) with every occurrence of
 * find replaced by repl; returns the number of replacements, or -1 after
 * message 2 when buf is too small (buf then holds the cut text). */
KS_API int strutl_find_replace_substr(char *buf, size_t size, const char *s, const char *find,
                                      const char *repl);

/* ---- Searches (matches only at character boundaries) ------------------ */

/* First byte c at or after s + start (start on a character boundary). */
KS_API char *strutl_find_char_from(const char *s, size_t start, int c);
/* First byte c in s (c 0: the terminating NUL); null when absent. */
KS_API char *strutl_find_char(const char *s, int c);
/* First occurrence of sub in s (empty sub: s); null when absent. */
KS_API char *strutl_find_str(const char *s, const char *sub);
/* strutl_find_str within the first len bytes of s. */
KS_API char *strutl_find_str_range(const char *s, size_t len, const char *sub);
/* Start of the last character of s; null when s is empty. */
KS_API char *strutl_right_char(const char *s);
/* Last byte c in s; null when absent. */
KS_API char *strutl_find_last_char(const char *s, int c);
/* 1 when the last character of s is the byte c, else 0. */
KS_API int strutl_match_last_char(const char *s, int c);
/* Last character of s that is one of the characters of set; null when none. */
KS_API char *strutl_strrpbrk(const char *s, const char *set);
/* Length of prefix when s begins with it, else 0 (an empty prefix gives 0). */
KS_API size_t strutl_match_prefix(const char *s, const char *prefix);

/* ---- Bounded copies and joins (1: cut, 0: whole) ----------------------- */

/* Copies at most n bytes of src into dst, which holds n + 1 bytes. */
KS_API int strutl_ncpy(char *dst, const char *src, size_t n);
/* Copies at most n bytes of src into buf of size bytes. */
KS_API int strutl_ncpy_buf(char *buf, size_t size, const char *src, size_t n);
/* Copies src into buf of size bytes. */
KS_API int strutl_cpy_buf(char *buf, size_t size, const char *src);
/* Copies src up to the first character c (not included) into buf of size
 * bytes; *stop (optional) gets where the copy stopped in src. */
KS_API int strutl_ccpy_buf(char *buf, size_t size, const char *src, int c, const char **stop);
/* Copies src at *pos, never at or past end (one past the last usable byte,
 * the NUL included) and moves *pos to the new terminating NUL. */
KS_API int strutl_cpy_and_advance(char **pos, char *end, const char *src);
/* Puts prefix in front of the string in buf of size bytes; the end of the
 * string is cut when the whole does not fit. */
KS_API int strutl_prepend(char *buf, size_t size, const char *prefix);
/* Joins count strings (null: empty) into buf of size bytes; a first string
 * that is buf itself stays in place.  1 when cut at size - 1 bytes. */
KS_API int strutl_concat(char *buf, size_t size, int count, ...);
/* Joined count strings in a block of stg_malloc (release with stg_free);
 * null when out of memory. */
KS_API char *strutl_concat_heap(int count, ...);
/* Joined count strings allocated in area; null when out of memory.
 * Asserts "area != STG_AREA_NULL". */
KS_API char *strutl_concat_area(stg_area_t area, int count, ...);

/* ---- Conversions and comparisons --------------------------------------- */

/* Turns s, a C string literal optionally in double quotes, into its value
 * in place (\n \t \r \a \b \f \v \\ \" \' \? \ooo \xhh).  0 done; 1 after
 * message 1 on a bad escape or quote (s then unchanged). */
KS_API int strutl_cstr_to_str(char *s);
/* strcmp-like comparison of a and b with all white space left out. */
KS_API int strutl_cmp_ignore_whitespace(const char *a, const char *b);

/* Case modes: 0 to upper case, 1 to lower case. */
#define STRUTL_CASE_UPPER 0
#define STRUTL_CASE_LOWER 1

/* Converts the character at src into dst (MB_LEN_MAX + 1 bytes, NUL-
 * terminated); returns the bytes of src used (0 at the NUL).  A character
 * without a conversion, or an invalid byte, is copied unchanged. */
KS_API int strutl_cvt_case_char(const char *src, char *dst, int mode);
/* Converts src into dst of size bytes; returns 1 when cut.  dst may be src:
 * a character whose converted form has another length then stays as it is. */
KS_API int strutl_cvt_case_string(char *dst, size_t size, const char *src, int mode);
/* strcoll of the lower-case forms of a and b. */
KS_API int strutl_stricoll(const char *a, const char *b);
/* 1 when name is not empty, starts with a letter, '_' or a character of
 * first_ok, and goes on with letters, digits, '_' or characters of other_ok
 * (both optional); 0 otherwise, also for an invalid multibyte character. */
KS_API int strutl_is_ok_name(const char *name, const char *first_ok, const char *other_ok);
/* Rewrites every character of seps in pname to to_sep: in place when buf is
 * null, else into buf of size bytes (null after message 2 when too small).
 * Returns the rewritten string. */
KS_API char *strutl_xlate_pname_sep(char *pname, const char *seps, int to_sep, char *buf,
                                    size_t size);
/* Copy of s in which each character chars[i] becomes strings[i]; release
 * with stg_free; null when out of memory. */
KS_API char *strutl_xlate_chars_to_strings(const char *s, const char *chars,
                                           const char *const *strings);
/* Next conversion of fmt ("%%" is skipped): returns its '%' and sets *len
 * (optional) to the directive's length and *conv (optional) to its
 * conversion letter; null when none is left, or after message 1 when bad. */
KS_API const char *strutl_find_printf_directive(const char *fmt, size_t *len, char *conv);
/* vsnprintf that terminates buf even when cut; returns the full length. */
KS_API int strutl_vsnprintf(char *buf, size_t size, const char *fmt, va_list ap);
KS_API int strutl_snprintf(char *buf, size_t size, const char *fmt, ...) KS_PRINTF(3, 4);

/* ---- Files ------------------------------------------------------------- */

/* Whole contents of fd (from its current position) in a block of stg_malloc,
 * NUL-terminated; *len (optional) gets the byte count.  Null after the
 * message "Operation read: ..." on a system error. */
KS_API char *strutl_read(int fd, size_t *len);
/* strutl_read on a stream. */
KS_API char *strutl_read_fp(FILE *fp, size_t *len);
/* Writes all of s to fd; 0 done, 1 after "Operation write: ...". */
KS_API int strutl_write(int fd, const char *s);

KS_END_DECLS

#endif
