// Internal: included by pfm*.cpp, the storage heap (stg_heap.cpp), the event
// loop and child processes (rt*), and tests; never installed.
// The fault manager's handler table and deferred set, for the code that
// dispatches signals on the library's behalf.  The state itself stays
// private to pfm.cpp; these functions are the only way to it.
#ifndef KS_PFM_INTERNAL_H
#define KS_PFM_INTERNAL_H

#include "ks/pfm.h"

namespace ks {

// The library-level handler of sig (1 to 48): SIG_DFL, SIG_IGN or a
// procedure; SIG_ERR for a signal outside the table.
pfm_signal_t pfm_library_handler(int sig);

// Replaces the library-level handler of sig and returns the previous one.
// A procedure taking over from a procedure already routed to the common
// handler only changes the table (safe inside a handler); any other change
// goes through pfm_signal, OS disposition included.
pfm_signal_t pfm_replace_library_handler(int sig, pfm_signal_t handler);

// Whether sig arrived while inhibited and waits for delivery.
bool pfm_signal_pending(int sig);

// Takes sig out of the deferred set (with the asynchronous signals blocked);
// true when it was waiting, which lowers the pending count by one.
bool pfm_clear_pending(int sig);

// How many deferred signals wait (pfm_blocked_count).
int pfm_pending_signal_count();

// Inhibits signal delivery (as pfm_inhibit) when fault management is running
// and answers true; the caller then ends with pfm_enable.  Answers false,
// doing nothing, before pfm_init: no unwind can come then, and a plain
// allocation must not install the library's signal catchers.
bool pfm_hold();

} // namespace ks

#endif
