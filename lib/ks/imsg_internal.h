// Internal: included by imsg*.cpp, ks_wiring.cpp and the log layer; never installed.
// The message layer's internal interface, in three parts: the table of
// services it takes from the layers above it, the state the log layer
// (command and daemon logs) drives, and the steps its own sources share.
#ifndef KS_IMSG_INTERNAL_H
#define KS_IMSG_INTERNAL_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

namespace ks {

// ---- Services of the layers above ------------------------------------------

// What the message layer needs from higher layers.  The layer formats, looks
// up, decides on traces and writes; everything else reaches it through this
// table.  A procedure left null makes the layer do the plain thing, said at
// each entry.
struct imsg_services {
    // Records the command line when the application is named (the history
    // log).  Null: nothing is recorded.
    void (*log_command)(const char *app_name);
    // The daemon line's time stamp for now, a heap string released with free;
    // null when it cannot be made.  Null: lines carry no time stamp.
    char *(*time_stamp)(time_t now);
    // The product's front-end switches, 0 or 1.  Null: the switch reads 0.
    int32_t (*no_bold)();
    int32_t (*force_gui)();
    int32_t (*web_gui)();
    // Ends the process on a failed check (the fault manager's assertion).
    // Null: the same line goes to standard error, then abort().
    void (*assert_fail)(const char *expr, const char *source, int line);
    // Registers an exit handler (the terminal reset).  Null: it is registered
    // with the C library's atexit, called with status 0.
    void (*on_exit)(void (*handler)(int status, void *arg), void *arg);
    // Unwinds as a fault (SIGTTOU during the terminal set-up).  Null: SIGTTOU
    // keeps its own disposition during the set-up.
    void (*raise)(int value);
    // Runs work(arg) under a clean-up record; an unwind that crosses it runs
    // undo(arg) and is passed on.  Null: work(arg) runs alone.
    void (*run_guarded)(void (*work)(void *arg), void (*undo)(void *arg), void *arg);
    // The log layer's steps before each message of a daemon: reopen the
    // daemon log when it is due, copy what waits in its pipes into the log.
    // Null: nothing is done.
    void (*reopen_daemon_log)();
    void (*drain_daemon_pipes)();
};

// Fills the table with the procedures of the layers above.  Defined in
// ks_wiring.cpp, the one source that knows every layer; the message layer
// calls it on the first use of the table, so every program is wired, also
// one linked with the static library that never calls ks_system_init.
void imsg_wire_services(imsg_services *services);

// The table in force, wired on first use.
const imsg_services &imsg_services_in_use();

// Fails a check of the message layer: the fault manager's assertion through
// the table ("PFM_ASSERT:(text) failed: 'source':line"); never returns.
[[noreturn]] void imsg_assert_fail(const char *text, const char *source, int line);

// ---- State the log layer drives ---------------------------------------------

// The command log (imsg_start_log): four words in this order.  While
// ref_count is above 0 every printed message goes to stream.
struct imsg_log_info_t {
    int32_t ref_count;
    int32_t is_tty; // 1: the log is a terminal and was not locked
    FILE *stream;
    int32_t extra_nls;
};
imsg_log_info_t imsg_log_info();
void imsg_set_log_info(const imsg_log_info_t &info);

// The daemon log's name: non-null exactly when the process is an imsg daemon
// (not copied: the log layer owns it).  While suspended, output goes back to
// the real standard streams and lines carry no time stamp.
const char *imsg_daemon_log_name();
void imsg_set_daemon_log_name(const char *name);
bool imsg_daemon_suspended();
void imsg_set_daemon_suspended(bool suspended);

// Current output and error streams: standard output and error until a daemon
// log replaces them.  Reading them initialises the layer.
FILE *imsg_out_stream();
FILE *imsg_err_stream();
void imsg_set_streams(FILE *out, FILE *err);

// The output-ok flag ("Ok: " on IMSG_OK, prefix on IMSG_INFO); a daemon turns
// it on.  The setter returns the previous value.
bool imsg_set_output_ok(bool on);
bool imsg_output_ok();

// ---- Shared by the message layer's sources ----------------------------------

// Room for a prefix format and for a trace time stamp ("%H:%M:%S.mmm").
constexpr size_t kImsgPrefixSize = 512;
constexpr size_t kImsgStampSize = 32;

// The flags read at initialisation: the subsystem form of the shared
// printers' prefix (PRINT_SUBSYS) and interleaved streams (IMSG_IO_INTERLEAVE).
bool imsg_subsys_form();
bool imsg_io_interleave();

// Starts the capture log when OTTERMERE_IMSG_CAPTURE_LOG asks for one
// (initialisation only).
void imsg_start_capture_log();

// The text of (table, index) as printing and the memory formatters find it:
// index -1 takes table as the format; a null format or a bad index prints the
// internal-error message (what names the caller) and gives null.  A catalogued
// message goes to the capture log.
const char *imsg_find_text(const void *table, int index, const char *what);

// Message "IMSG Internal error": a null table or an index outside it.
void imsg_report_bad_table(const char *what, const void *table, int index);

// The subsystem a message carries: its table's, "" for a literal format.
const char *imsg_table_subsys(const void *table, int index);

// "%H:%M:%S.mmm" of now, for the trace prefix.
void imsg_trace_time_stamp(char *ts, size_t size);

// Formats the prefix format pfx of type with its arguments (time stamp for
// IMSG_TRACE, application name, subsystem in the subsystem form); snprintf's count.
int imsg_format_prefix(char *buf, size_t size, const char *pfx, int type, bool with_subsys,
                       const char *subsys, const char *ts);

// Formats a found text into memory; size 0 is unbounded.  snprintf's count,
// the buffer terminated also when cut.
int imsg_format_text(char *buf, size_t size, const char *fmt, va_list ap);

} // namespace ks

#endif
