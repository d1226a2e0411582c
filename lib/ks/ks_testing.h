// Internal: included by tests only; never installed.
// Seams of the library's own clock: tests fix "now" instead of waiting.
#ifndef KS_TESTING_H
#define KS_TESTING_H

#include <time.h>

namespace ks {

// Fixes "now"; usec is the microsecond part.  clock_release_for_testing
// returns to the system's clock.
void clock_fix_for_testing(time_t sec, long usec);
void clock_release_for_testing();

} // namespace ks

#endif
