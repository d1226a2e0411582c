// Internal: included by any library source; never installed.
// Helpers shared between the library's modules: the clock and the signal
// hold around the C allocator.
#ifndef KS_INTERNAL_H
#define KS_INTERNAL_H

#include <sys/time.h>
#include <time.h>

namespace ks {

// The one clock of the library: every module that needs "now" asks here, so
// that tests can fix the time.
void clock_gettimeofday(struct timeval *tv);
time_t clock_time();

// Fixes "now" (tests); usec is the microsecond part.  clock_release undoes it.
void clock_fix(time_t sec, long usec);
void clock_release();

// Defined by the fault manager (pfm.cpp), for the layers above it.
// Inhibits signal delivery (as pfm_inhibit) when fault management is running
// and answers true; the caller then ends with pfm_enable.  Answers false,
// doing nothing, before pfm_init: no unwind can come then, and a plain
// allocation must not install the library's signal catchers.
bool pfm_hold();

} // namespace ks

#endif
