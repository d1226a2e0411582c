/*
 * The option scanner: single-letter options with mutually exclusive groups,
 * argument words fetched by the caller, and sub-commands matched against
 * abbreviation patterns.
 *
 * A scanning handle is made from an argument vector or from one line of text
 * split with shell-like quoting, and released with cl_destroy.  Option
 * strings are letters; ':' is ignored; "[xy]" makes x and y mutually
 * exclusive (each may then appear once).  An option's argument is always the
 * next word, fetched with cl_getarg.  Scanning errors are kept in the handle
 * (cl_errno, cl_estr, cl_eopt); nothing is printed.  A handle whose magic
 * word is wrong ends the process with a failed assertion.
 *
 *     int err, c;
 *     cl_handle_t *cl = cl_parse_argv(argc, argv, &err);
 *     while ((c = cl_getopt(cl, "vo:[xy]")) != 0) {
 *         if (c == '?') { report cl_strerror(cl_errno(cl)), cl_eopt(cl) }
 *         if (c == 'o') file = cl_getarg(cl);
 *     }
 *     while ((word = cl_getarg(cl)) != NULL) ...
 *     cl_destroy(&cl);
 */
#ifndef KS_CL_H
#define KS_CL_H

#include "ks/ks_common.h"

KS_BEGIN_DECLS

#define CL_MAGIC 0xDEADBEEFu

/* Error codes of the scanner (0: none). */
#define CL_ENOMEM  301 /* allocation failed */
#define CL_EBADOPT 302 /* option letter not in the option string */
#define CL_EDUPOPT 303 /* option repeats or conflicts within its group */
#define CL_EBADARG 304 /* argument requested inside an option cluster */

typedef struct cl_handle cl_handle_t;

/* Texts of the codes 0, 301, 302, 303 and 304, in that order; filled from the
 * message catalogue by the first cl_strerror call. */
KS_API extern const char *cl_errlist[5];
/* Allocations and frees made by the module (both constructors, cl_destroy). */
KS_API extern int32_t cl_mallocs;
KS_API extern int32_t cl_frees;
/* Failure injection: while nonzero each allocation decrements it, and the one
 * that brings it from 1 to 0 fails as if storage were exhausted. */
KS_API extern int32_t cl_brkit;

/* Handle over copies of the argc words of argv; scanning starts at word 1.
 * Null with *error = 301 when out of memory (nothing is left allocated);
 * otherwise *error = 0.  error may be null.  Release with cl_destroy. */
KS_API cl_handle_t *cl_parse_argv(int argc, char **argv, int *error);
/* Handle over the words of line (quotes, backslashes; ends at the NUL or the
 * first unescaped newline); scanning starts at word 0.  Null with 301. */
KS_API cl_handle_t *cl_parse_line(const char *line, int *error);
/* Releases the handle and sets *handle to null; a null *handle is ignored. */
KS_API void cl_destroy(cl_handle_t **handle);

/* Next option letter of optstring; 0 when options are over ("--" or a word not
 * starting with "-"), '?' on error (302 or 303, see cl_errno/cl_eopt). */
KS_API int cl_getopt(cl_handle_t *handle, const char *optstring);
/* As cl_getopt, but "--name" returns 0 with *longname a copy of "name"
 * (stg_strdup: release with stg_free; null when out of memory).  Set
 * *longname to null before the call to tell a long option from the end. */
KS_API int cl_getopt_long(cl_handle_t *handle, const char *optstring, char **longname);
/* The current word (inside the handle), moving on; null at the end, or null
 * with 304 while letters of an option cluster remain. */
KS_API char *cl_getarg(cl_handle_t *handle);
/* Same operation as cl_getarg. */
KS_API char *cl_getname(cl_handle_t *handle);
/* As cl_getarg, but null (no error, nothing consumed) for a word starting with "-". */
KS_API char *cl_getarg_noopt(cl_handle_t *handle);
/* Takes the next word as cl_getarg and returns the index of the first of the
 * n patterns it matches (cl_match); -1 at the end, on 304 or with no match. */
KS_API int cl_get_subcommand(cl_handle_t *handle, int n, const char *const *patterns);
/* 1 if word is an abbreviation allowed by pattern ("co[mment]": co, com,
 * ..., comment), ignoring case; else 0. */
KS_API int cl_match(const char *word, const char *pattern);

/* Scan position as an offset into the handle's words; clears the error. */
KS_API int32_t cl_getoffset(cl_handle_t *handle);
/* Moves the scan to offset (clamped to the words); clears the error. */
KS_API void cl_setoffset(cl_handle_t *handle, int32_t offset);

/* Error code of the last operation (0, 301 to 304). */
KS_API int cl_errno(const cl_handle_t *handle);
/* Word in which the error arose, or "" when none. */
KS_API const char *cl_estr(const cl_handle_t *handle);
/* One-letter string of the option that caused the error ("" when none). */
KS_API const char *cl_eopt(const cl_handle_t *handle);
/* Text of an error code ("Unknown error" for codes it does not know); static. */
KS_API const char *cl_strerror(int code);
/* Reserved; returns 0. */
KS_API int cl_strtotime(void);

KS_END_DECLS

#endif
