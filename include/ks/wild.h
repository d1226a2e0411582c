/*
 * Wildcard patterns for pathnames: compiling, matching and globbing.
 *
 *  1. Patterns: "*" any run of characters, "?" one character, "[...]" one
 *     character of a class (members, and ranges written a-z; no negation; an
 *     empty class "[]" matches nothing), "\" makes the next character literal
 *     (a backslash at the very end is itself literal), and "..." as a whole
 *     component (at the start or after a "/", followed by "/" or the end)
 *     stands for any number of whole directory levels, none included.
 *  2. The compiled form is a NUL-terminated byte string: characters as they
 *     are, and each operator the byte WILD_ESC followed by its code.  A class
 *     is WILD_ESC WILD_OP_CLASS, its members as plain characters, then a
 *     single WILD_ESC.  The form is stable: it may be stored and compared.
 *  3. Matching steps by whole characters where the locale has characters of
 *     more than one byte, and takes time proportional to the product of the
 *     pattern's and the name's lengths at worst, whatever the pattern.
 *  4. The glob routines return the number of names found, -1 for a malformed
 *     pattern or -3 when their working storage cannot be allocated.  Their
 *     lists are one block: count name pointers, a null, then the names.
 */
#ifndef KS_WILD_H
#define KS_WILD_H

#include "ks/ks_common.h"
#include "ks/stg.h"

KS_BEGIN_DECLS

/* The compiled form's escape byte and the operator codes that follow it. */
#define WILD_ESC      0x01
#define WILD_OP_LIT   0x01 /* a literal 0x01 byte */
#define WILD_OP_STAR  0x02 /* "*" */
#define WILD_OP_ANY   0x03 /* "?" */
#define WILD_OP_CLASS 0x04 /* "[", members up to a single WILD_ESC */
#define WILD_OP_DOTS  0x05 /* "..." */

/* Results of wild_compile_pattern besides the length. */
#define WILD_BAD_CLASS (-1)
#define WILD_NO_ROOM   (-3)

/* Modes of wild_glob_ext: the whole text is one word, or blanks outside
 * quotes separate words.  Any mode other than WILD_GLOB_SPLIT is whole. */
#define WILD_GLOB_WHOLE 0
#define WILD_GLOB_SPLIT 1

/* Compiles pattern into out of size bytes.  Returns the compiled length, its
 * NUL included; -1 for a malformed class ("[" inside a class, "]" outside
 * one, a class left open, a 0x01 byte in a class), else -3 unless the length
 * plus four bytes of reserve fits in size.  Nothing is written at or past
 * out[size - 4].  *has_wild (optional) is 1 when an operator other than the
 * literal 0x01 was produced, else 0.  A "\-" in a class is an ordinary "-". */
KS_API int wild_compile_pattern(const char *pattern, size_t size, char *out, int *has_wild);
/* 1 when name matches the compiled pattern, else 0 (also for a null
 * argument).  In pathname mode a "/" matches a run of "/", "*" never crosses
 * a "/" and trailing "/" of the name are ignored.  At the end of the name
 * the rest of the pattern must be "*" operators, followed, in pathname mode
 * only, by separators and "..." items.  Any byte string is a valid argument. */
KS_API int wild_match(const char *compiled, const char *name, int pathname_mode);
/* 1 when the compiled pattern is exactly one "*", else 0 (null: 0). */
KS_API int wild_is_any_pat(const char *compiled);
/* 1 when text holds "[", "?", "*", "~" or "...", else 0 (null: 0). */
KS_API int wild_contains_wildcard_symbols(const char *text);

/* Expands the words of text against the file system: quotes group (and are
 * removed), a backslash keeps the next character literal, an unquoted "~" or
 * "~user" starting a word names a home directory.  mode WILD_GLOB_SPLIT
 * splits at blanks, tabs and newlines outside quotes.  A name whose last
 * component starts with "." is found only by a pattern component that does;
 * "." and ".." never are.  *names gets the matches of every word sorted by
 * strcmp, in one block from area (STG_AREA_HEAP: release with stg_free), or
 * null when there are none.  A word without wildcards gives the existing
 * file it names.  Returns the count, -1 or -3. */
KS_API int wild_glob_ext(const char *text, int mode, stg_area_t area, char ***names);
/* Expands one pattern (backslash escapes only: no quotes, "~" or splitting),
 * directory level by directory level, as wild_glob_ext does.  *names gets
 * the matches depth first, each directory's entries in the order it lists
 * them.  Returns the count, -1 or -3. */
KS_API int wild_glob_r(const char *pattern, stg_area_t area, char ***names);
/* wild_glob_ext of text in WILD_GLOB_SPLIT mode for display: *text_out gets
 * the sorted names joined by single blanks, each in double quotes when it
 * holds white space and each '"' preceded by a backslash ("" when none
 * matched; release with stg_free).  Returns the count, -1 or -3. */
KS_API int wild_glob(const char *text, char **text_out);
/* Expands word (WILD_GLOB_WHOLE) and, when exactly one name matches, copies
 * it into buf of size bytes.  Returns the count, -1 or -3 (also when the one
 * name does not fit in buf).  buf is left alone unless the count is 1. */
KS_API int wild_glob_single(const char *word, char *buf, size_t size);

KS_END_DECLS

#endif
