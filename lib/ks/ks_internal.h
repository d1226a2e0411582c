// Internal: included by any library source; never installed.
// The library's clock, shared by every module that needs "now".
#ifndef KS_INTERNAL_H
#define KS_INTERNAL_H

#include <sys/time.h>
#include <time.h>

namespace ks {

// The one clock of the library: every module that needs "now" asks here, so
// that tests can fix the time.
void clock_gettimeofday(struct timeval *tv);
time_t clock_time();
} // namespace ks

#endif
