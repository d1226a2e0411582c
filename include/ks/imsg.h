/*
 * The message layer: numbered, translatable messages, tracing and the
 * formatting of messages into memory.
 *
 * A message is named by its module's table and a 0-based index.  The text is
 * looked up in the catalogue "ks_lib" (found by catopen through NLSPATH and
 * the locale) under the table's set and the entry's catalogue number; without
 * a catalogue the built-in English text is used.  Printing puts the
 * application name and the type's word in front and writes to standard output
 * (types 0-3) or standard error (the rest).  With index -1 the table argument
 * is itself the format of a literal message.
 */
#ifndef KS_IMSG_H
#define KS_IMSG_H

#include <stdarg.h>
#include <stdio.h>

#include "ks/ks_common.h"

KS_BEGIN_DECLS

/* Message types: the odd ones continue the message of the type below them. */
enum {
    IMSG_OK = 0,
    IMSG_OK_CONT = 1,
    IMSG_INFO = 2,
    IMSG_INFO_CONT = 3,
    IMSG_WARNING = 4,
    IMSG_WARNING_CONT = 5,
    IMSG_ERROR = 6,
    IMSG_ERROR_CONT = 7,
    IMSG_TRACE = 8,
    IMSG_TRACE_CONT = 9,
    IMSG_NOTE_CONT = 10
};
#define IMSG_NTYPES 11

/* The index that makes the table argument itself the format of a literal
 * message. */
#define IMSG_LITERAL (-1)

/* One module's message table (built from its .msg file). */
typedef struct imsg_msg_table {
    const char *catalog;      /* "ks_lib" */
    const char *subsys;       /* name shown in traces and the capture log */
    int16_t set;              /* catalogue set */
    int16_t count;            /* number of messages */
    const char *const *texts; /* built-in texts, printf formats */
    const int16_t *numbers;   /* catalogue message number of each entry */
} imsg_msg_table_t;

KS_END_DECLS

/* The library's tables (catalogue sets 6 to 19), generated from its message
 * files. */
#include "ks/imsg_tables.h"

KS_BEGIN_DECLS

/* An output procedure receives the type and the finished line. */
typedef void (*imsg_out_fn)(int type, const char *text);
/* One output procedure per message type; all start as imsg_append_proc_default. */
KS_API extern imsg_out_fn imsg_out_fns[IMSG_NTYPES];
/* Writes the line with imsg_fputs to the stream of its type (the command log
 * while one is open; a daemon time stamp first for the even types). */
KS_API void imsg_append_proc_default(int type, const char *text);

/* Trace level wanted (32767: not yet read from TRACE_VERBOSITY). */
KS_API extern int32_t imsg_desired_verbosity;
/* ':'-separated traced subsystems or "*"; not copied; null: not yet read. */
KS_API extern const char *imsg_desired_tsubsys;

/* Prints message index of table (or the literal format table when index is -1).
 * Returns the length of the line; -1 after an internal-error message (null
 * table or format, index out of range), with nothing else printed. */
KS_API int32_t imsg_print(int type, const void *table, int index, ...);
/* imsg_print under a caller-chosen subsystem name (shown with PRINT_SUBSYS). */
KS_API int32_t imsg_print_shared(int type, const char *subsys, const void *table, int index, ...);
/* Argument-list form of imsg_print_shared. */
KS_API int32_t imsg_print_sharedv(int type, const char *subsys, const void *table, int index,
                                  va_list ap);
/* The formatter behind every print call; with_subsys picks the prefix form. */
KS_API int32_t imsg_print_sharedv_util(int type, int with_subsys, const char *subsys,
                                       const void *table, int index, va_list ap);

/* The prefix format of a type (static, valid until the next call). */
KS_API const char *imsg_prefix_format(int type, int with_subsystem);
/* While set every prefix is empty; returns the previous flag. */
KS_API int imsg_suppress_prefix(int flag);
/* Subsystem form of the prefix for the shared printers; returns the previous flag. */
KS_API int imsg_output_subsys(int flag);
/* Writes text, turning style sequences (0x01 0x01 digit letter) into terminal
 * attributes (dropped unless stream is a terminal with TERM set and no-bold
 * off).  With IMSG_IO_INTERLEAVE set, the other standard stream is flushed
 * first, stream is flushed after, and a "||" marker in text is a flush point
 * that is not written.  0, or EOF on a write error. */
KS_API int imsg_fputs(const char *text, FILE *stream);
/* The one-character writer handed to the terminal library. */
KS_API int imsg_putchar(int c);
/* Writes the daemon log's time stamp for the even types. */
KS_API void imsg_print_time(FILE *stream, int type);

/* Formats a message into buf (size 0: unbounded); count as snprintf, or -1. */
KS_API int imsg_snprintf(char *buf, size_t size, const void *table, int index, ...);
KS_API int imsg_vsnprintf(char *buf, size_t size, const void *table, int index, va_list ap);
/* Unbounded forms of imsg_snprintf. */
KS_API int imsg_sprintf(char *buf, const void *table, int index, ...);
KS_API int imsg_vsprintf(char *buf, const void *table, int index, va_list ap);
/* As imsg_snprintf with message tagging allowed (plain while tagging is off). */
KS_API int imsg_snprintf_taggable(char *buf, size_t size, const void *table, int index, ...);
KS_API int imsg_vsnprintf_taggable(char *buf, size_t size, const void *table, int index,
                                   va_list ap);
/* A message with the prefix of the given type (trace time stamp included,
 * no subsystem form) followed by its text, formatted into buf (size 0:
 * unbounded); count as snprintf, or -1. */
KS_API int imsg_snprintf_type(char *buf, size_t size, int type, const void *table, int index, ...);
/* Formats into a buffer grown from start_size up to max_size; *result is
 * freed with free.  Returns the count, or -1: bad sizes or no memory leave
 * *result alone; a bad message or a text longer than max_size set it null. */
KS_API int imsg_dynamic_len_snprintf(char **result, int start_size, int max_size, const void *table,
                                     int index, ...);
KS_API int imsg_dynamic_len_vsnprintf(char **result, int start_size, int max_size,
                                      const void *table, int index, va_list ap);

/* Sets up the module; every entry point calls it first. */
KS_API void imsg_initialize(void);
/* Names the program by the base name of path (null: "noname") and logs the command. */
KS_API void imsg_set_app_name(const char *path);
KS_API const char *imsg_get_app_name(void);
/* Stores the message home directory (null: the default); returns it. */
KS_API const char *imsg_set_message_home(const char *dir);
/* Names the error-number file if readable (null: "errnum.imsg"). */
KS_API void imsg_set_errnum_file(const char *path);
typedef uint32_t (*imsg_clock_fn)(void *arg);
KS_API void imsg_set_clock_callback(imsg_clock_fn fn, void *arg);
/* The clock callback's value, 0 when none is set. */
KS_API uint32_t imsg_clock(void);

/* System text of an error number, or the number itself (static buffer). */
KS_API const char *imsg_strerror(long error_number);
/* Text of a resolver error (h_errno), else as imsg_strerror. */
KS_API const char *imsg_strerror_gethost(int host_error_number);

KS_API void imsg_set_trace_verbosity(int32_t level);
/* Back to 32767, so that TRACE_VERBOSITY is read again. */
KS_API void imsg_reset_verbosity(void);
KS_API int32_t imsg_get_desired_verbosity(void);
/* Sets the traced subsystem list (not copied). */
KS_API void imsg_set_trace_subsys(const char *list);
/* TRACE_VERBOSITY as a number, 0 when absent. */
KS_API int32_t imsg_get_verbosity_ev(void);
/* Whether subsystem is traced at level. */
KS_API int imsg_should_trace(const char *subsystem, int level);
KS_API int imsg_should_trace_subsys(const char *subsystem);

/* The text to use for a message: the catalogue's, else the built-in one.
 * A null table or an index outside the table prints the internal-error
 * message and gives the empty string. */
KS_API const char *cat_extractmsg(const void *table, int index);

/* 1 when the process runs under a graphical or web front end
 * (ks_force_gui() or ks_web_gui()), else 0. */
KS_API int imsg_in_gui(void);
/* Shows text as a message of type, then reads one line from standard input
 * when it is a terminal.  choices: bit 1 allows abort, bit 2 proceed.
 * Returns 1 (abort) for an answer that starts the word "abort", for an empty
 * answer when default_choice is 1, or at end of input, all only when abort is
 * allowed; else 0 (proceed), also when there is no terminal to ask. */
KS_API int imsg_prompt_proceed(int type, const char *text, int default_choice, int choices);

/*
 * Command log.  While one is open every printed message goes into it instead
 * of the standard streams or an output procedure.  A path that is a symbolic
 * link ("Unable to open log file ...: pathname must not be a symbolic link.")
 * or cannot be opened (message "Unable to open file", e.g. a directory or no
 * permission), and a file whose exclusive record lock is refused 20 times in
 * a row, leave the log on the current error stream: the program goes on.
 */

/* imsg_start_log_file(path); the second argument is ignored. */
KS_API FILE *imsg_start_log(const char *path, int ignored);
/* Opens path (appending; made if missing) and locks it on the first start,
 * then writes a header: asterisks, then date, host, pid and login name.  A
 * later start only writes a header (the count stays 1).  Returns the log
 * stream (the error stream when the file cannot be used). */
KS_API FILE *imsg_start_log_file(const char *path);
/* Drop one reference (a start sets the count to 1, so one end closes); the
 * last unlocks and closes the file.  0, or -1 when closing the file failed. */
KS_API int32_t imsg_end_log(void);
KS_API int32_t imsg_end_log_file(void);
/* Sets the reference count, e.g. in a child that inherited the log.  Below 1
 * with a log open: closes it and returns imsg_end_log's status.  Otherwise the
 * count becomes count (a negative one 0) and is returned; nothing is opened. */
KS_API int32_t imsg_sync_log(int32_t count);
/* The command log's reference count, 0 when none is open. */
KS_API int32_t imsg_log_ref_count(void);
/* While the open log lasts, each message written into it is followed by one
 * extra line end (a blank line between messages); no log open: no effect. */
KS_API void imsg_set_log_nextra_nls(void);

/*
 * Daemon log.  imsg_init_daemon sends the process's messages to a log file
 * for the rest of its life, each even type with a time stamp, and catches what
 * any code writes to descriptors 1 and 2 through pipes.  Before each message
 * imsg_print reopens the log once an hour has passed since it was opened
 * (recreated with mode 0666 if it was moved away, so it can be rotated), then
 * copies the pipes' text in.  A symbolic link is refused with the command
 * log's message, a file that cannot be opened is reported with perror(path);
 * output then stays where it was and each message tries again.
 *
 * Pipe text is copied line by line, each line one message with its prefix
 * and time stamp: IMSG_INFO from descriptor 1, then IMSG_ERROR from
 * descriptor 2.  An unfinished line waits for its end (4096 bytes without one
 * are a line of their own); what is left at exit is copied then.
 */

/* Turns the process into an imsg daemon logging to path (separate_stderr: the
 * error stream opens the file a second time); output-ok on, a closed standard
 * input gets /dev/null.  0; -1 for a null path or a failed pipe set-up (perror;
 * 1 and 2 given back, the log kept).  A second call only changes the path. */
KS_API int32_t imsg_init_daemon(const char *path, int separate_stderr);
/* 1 once imsg_init_daemon has named a log, else 0. */
KS_API int imsg_am_daemon(void);
/* Prints to the process's own standard output and error (as they were before
 * the pipes), without time stamps or "Ok: ", until resumed; resuming turns
 * output-ok on.  Not a daemon: perror("Can't suspend daemon logging, process
 * not a daemon"), or "resume". */
KS_API void imsg_suspend_daemon_logging(void);
KS_API void imsg_resume_daemon_logging(void);
/* In a child of a daemon: lets go of the parent's pipes, catches descriptors
 * 1 and 2 through pipes of its own and reopens the log.  Not a daemon: nothing.
 * Flush stdio before fork: what the child's copy of stdout holds is copied in. */
KS_API void imsg_starting_process(void);
/* Copies what waits in the daemon's pipes into the log.  Not a daemon: message
 * 107 "Process not an imsg daemon, cannot drain pipes to daemon log file." */
KS_API void imsg_drain_pipes(void);

KS_END_DECLS

#endif
