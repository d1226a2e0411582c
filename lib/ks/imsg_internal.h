// State of the message layer that the log layer (command and daemon logs)
// drives.  Printing consults it at three points: before formatting (daemon log
// reopening and pipe draining), before choosing a stream (an open command log
// takes every message) and before writing (the daemon time stamp).  Nothing
// here is exported from the library.
#ifndef KS_IMSG_INTERNAL_H
#define KS_IMSG_INTERNAL_H

#include <stdint.h>
#include <stdio.h>

namespace ks {

// The command log (imsg_start_log): four words in this order.  While
// ref_count is above 0 every printed message goes to stream.
struct imsg_log_info_t {
    int32_t ref_count;
    int32_t is_tty;   // 1: the log is a terminal and was not locked
    FILE *stream;
    int32_t extra_nls;
};
extern imsg_log_info_t imsg_log_info;

// The daemon log.  daemon_log_name is non-null exactly when the process is
// an imsg daemon; daemon_suspended is set while output goes back to the real
// standard streams.  The hooks are installed by the log layer when it makes
// the process a daemon; printing calls them (when set) before each message.
extern char *imsg_daemon_log_name;
extern bool imsg_daemon_suspended;
extern void (*imsg_daemon_reopen_hook)();  // reopens the log when it is due
extern void (*imsg_drain_pipes_hook)();    // copies pipe text into the log

// Current output and error streams (standard output and error until a daemon
// log replaces them).  Valid once imsg_initialize has run.
extern FILE *imsg_out_stream;
extern FILE *imsg_err_stream;

// The output-ok flag ("Ok: " on IMSG_OK, prefix on IMSG_INFO); a daemon turns
// it on.  Returns the previous value.
bool imsg_set_output_ok(bool on);
bool imsg_output_ok();
// The type of the message printed last (print step 10).
int imsg_current_type();

// Catalogue cache inspection for tests: how many times a catalogue was
// opened with catopen, and the name held by a slot (0 or 1; null if none).
unsigned imsg_catalog_open_count();
const char *imsg_catalog_slot_name(int slot);
// The error-number file name in force (imsg_set_errnum_file).
const char *imsg_errnum_file();
// Whether message tagging was switched on by OTTERMERE_ENABLE_ATE_MESSAGES.
bool imsg_tagging_enabled();

} // namespace ks

#endif
