/*
 * The flag-descriptor command-line parser, the command-string splitter and
 * builder, the stack of nested command names and the command-history log.
 *
 * A sub-command describes its flags in a table of descriptors ended by one
 * whose name is null.  A "[" in a name marks the shortest abbreviation
 * ("-c[omment]" accepts -c, -co, ..., -comment).  Entries between
 * CLP_START_MUTUAL_EXCLUSION and CLP_END_MUTUAL_EXCLUSION exclude one another.
 *
 *     static const clp_flag_desc_t flags[] = {
 *         { "-v[erbose]", 1, CLP_REPEATABLE },
 *         CLP_START_MUTUAL_EXCLUSION,
 *         { "-a[ll]", 2, 0 },
 *         { "-n[one]", 3, 0 },
 *         { "-e[mpty]", 3, CLP_ALIAS_FLAG },
 *         CLP_END_MUTUAL_EXCLUSION,
 *         CLP_END_OF_FLAGS
 *     };
 *     clp_hdl_t *h = clp_create_hdl_using_argv(argc, argv, flags, NULL);
 *     char *arg; uint32_t v; int rc;
 *     clp_get_next_arg(h, &arg);                     (the command name)
 *     while ((rc = clp_get_next_flag_value(h, 0, &v)) == 0) ...
 *     if (rc == 1) usage error (already reported)
 *     while (clp_get_next_arg(h, &arg) == 0) ...
 *     clp_destroy_hdl(&h);
 *
 * Status results: 0 success, 1 failure (message printed), 2 "nothing more".
 * Errors in a descriptor table (nested groups, stray group end, alias without
 * a partner) and bad handles print their message and abort the process.
 */
#ifndef KS_CLP_H
#define KS_CLP_H

#include "ks/ks_common.h"
#include "ks/stg.h"

KS_BEGIN_DECLS

/* Bits of clp_flag_desc_t.flags. */
#define CLP_REPEATABLE 0x1 /* may appear more than once */
#define CLP_ALIAS_FLAG 0x2 /* another spelling of the non-alias with the same value */
#define CLP_OBSOLETE   0x4 /* reported according to OTTERMERE_OBSO_SYN */

/* One flag descriptor of a caller's table. */
typedef struct clp_flag_desc {
    const char *name; /* as typed, with its "-"; "[" marks the optional tail */
    uint32_t value;   /* returned when the flag is found */
    uint16_t flags;   /* CLP_REPEATABLE, CLP_ALIAS_FLAG, CLP_OBSOLETE */
} clp_flag_desc_t;

#define CLP_START_MUTEX_NAME  "Start Mutual Exclusion"
#define CLP_END_MUTEX_NAME    "End Mutual Exclusion"
#define CLP_START_MUTEX_VALUE 0xFFFFFFFEu
#define CLP_END_MUTEX_VALUE   0xFFFFFFFDu

/* The group markers, as objects and as initialisers for static tables. */
KS_API extern const clp_flag_desc_t start_mutex_list;
KS_API extern const clp_flag_desc_t end_mutex_list;
/* clang-format off: the initialisers read best on one line each */
#define CLP_START_MUTUAL_EXCLUSION                                                                 \
    {                                                                                              \
        CLP_START_MUTEX_NAME, CLP_START_MUTEX_VALUE, 0                                             \
    }
#define CLP_END_MUTUAL_EXCLUSION                                                                   \
    {                                                                                              \
        CLP_END_MUTEX_NAME, CLP_END_MUTEX_VALUE, 0                                                 \
    }
#define CLP_END_OF_FLAGS                                                                           \
    {                                                                                              \
        0, 0, 0                                                                                    \
    }
/* clang-format on */

/* Longest command stack string (names, each followed by ':'). */
#define CLP_MAX_STACK_STRING 250
/* Longest word the command-string splitter accepts. */
#define CLP_MAX_TOKEN 65535

typedef struct clp_hdl clp_hdl_t;

/* Checks the table and makes a handle over argv (not copied: sub-arguments
 * are cut in place).  With area null the handle owns a new area; otherwise it
 * lives in area.  Null when the table has two flags of one value (message
 * printed) or out of memory.  Release with clp_destroy_hdl. */
KS_API clp_hdl_t *clp_create_hdl_using_argv(int argc, char **argv,
                                            const clp_flag_desc_t *descriptors, stg_area_t area);
/* As clp_create_hdl_using_argv over the words of text (clp_parse_string, the
 * words in the handle's area); the first word is the command name.  Null on an
 * unterminated quote, an over-long word or out of memory. */
KS_API clp_hdl_t *clp_create_hdl_using_string(const char *text, const clp_flag_desc_t *descriptors,
                                              stg_area_t area);
/* Splits text into *argc words; *argv (null-terminated) and the words are
 * allocated in area (area null: each from the heap, released with stg_free).
 * No words: *argc 0, *argv null.  0, or 1 on an unterminated quote (message
 * 4), a word of more than CLP_MAX_TOKEN bytes or out of memory. */
KS_API int clp_parse_string(const char *text, stg_area_t area, int *argc, char ***argv);
/* Deletes the handle's own area (if any) and sets *handle to null. */
KS_API void clp_destroy_hdl(clp_hdl_t **handle);
/* Copy of the handle's position and state (in the handle's area), for
 * clp_restore_hdl; null when out of memory.  Seen flags are shared, not saved. */
KS_API clp_hdl_t *clp_save_hdl(clp_hdl_t *handle);
/* Puts the state saved by clp_save_hdl back into handle. */
KS_API void clp_restore_hdl(clp_hdl_t *handle, const clp_hdl_t *saved);
/* Installs another descriptor table, keeping the position; the new seen-flag
 * table comes from area (null: the handle's own area).  0, or 1 (message 13
 * when there is no area, message 2 for a duplicate value). */
KS_API int clp_switch_flags(clp_hdl_t *handle, const clp_flag_desc_t *descriptors, stg_area_t area);

/* Next flag: 0 with *value set; 1 on an error (printed, unless quiet for an
 * unknown flag), *value = 0xFFFFFFFF; 2 when flags are over ("--" or a word not
 * starting with "-", left in place), *value = 0xFFFFFFFF. */
KS_API int clp_get_next_flag_value(clp_hdl_t *handle, int quiet, uint32_t *value);
/* Next word (flags are not recognised) and move on: 0; at the end *arg null and 2. */
KS_API int clp_get_next_arg(clp_hdl_t *handle, char **arg);
/* Steps back one word: 0; 2 at the first word. */
KS_API int clp_unget_arg(clp_hdl_t *handle);
/* Next comma-separated piece of the next word (the comma is overwritten in
 * the caller's argv): 0; 2 with *sub null after the last piece of a word, or
 * at the end of the words. */
KS_API int clp_get_next_subarg(clp_hdl_t *handle, char **sub);
/* Name of the last matched descriptor into buf (at most size-1 characters;
 * strip nonzero leaves out "[" and "]"): 0, or 2 when no flag matched yet. */
KS_API int clp_get_last_flag_name(clp_hdl_t *handle, int strip, char *buf, int size);
/* *name = the command name (word 0, null without words); returns 0. */
KS_API int clp_get_command_name(clp_hdl_t *handle, char **name);
/* Number of words, the command name included. */
KS_API int clp_get_argc(clp_hdl_t *handle);
/* 1 if word matches the descriptor name name (case-sensitive, "[" abbreviations), else 0. */
KS_API int clp_match(const char *word, const char *name);

/* Joins the words with blanks into *text (from area; null: the heap, release
 * with stg_free), quoting words with white space or any of "?*~[]"; a word in
 * quotes keeps them, with escape (0: none) before each.  0, or 1 (message 4
 * for a word that opens a quote it does not close; or out of memory). */
KS_API int clp_argv_to_string(int argc, char **argv, stg_area_t area, int escape, char **text);
/* Reports obsolete syntax per OTTERMERE_OBSO_SYN: 1 in "FAIL" mode, else 0. */
KS_API int clp_check_obsolete(void);

/* Sets the current command text to command and its quoted arguments (at
 * most 256 characters) and, if "collect_history" exists in the host
 * configuration directory, appends it to log/ottermere_history. */
KS_API void clp_log_cl_args(const char *command, int argc, char **argv);
/* clp_log_cl_args with the words after the command name of handle. */
KS_API void clp_log_command(const char *command, clp_hdl_t *handle);
/* The current command text ("No command" until one is logged); static. */
KS_API const char *clp_get_command(void);
/* Appends a data line "text" (with number when nonzero) to the history log
 * when the host collects history. */
KS_API void clp_collectdatai(const char *text, int number);
/* Appends a data line of tag and text to the history log when collected. */
KS_API void clp_collectdatas(const char *tag, const char *text);
/* Does nothing (kept for callers). */
KS_API void clp_collectdata_cleanup(void);

/* Enters a nested command: name (copied) is stacked up to a depth of 10. */
KS_API void clp_push_cmd(const char *name);
/* Leaves the innermost nested command. */
KS_API void clp_pop_cmd(void);
/* "name1:name2:" of the stacked names when the stack changed since
 * *generation (which is updated); null when unchanged.  Static string. */
KS_API const char *clp_get_cmd_stack(uint32_t *generation);

KS_END_DECLS

#endif
