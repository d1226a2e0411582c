// The library's clock: a fixed time when a test asked for one, else the system's.
#include "ks_internal.h"
#include "ks_testing.h"

#include <sys/time.h>

namespace {
bool fixed;
struct timeval fixed_tv;
} // namespace

namespace ks {

void clock_gettimeofday(struct timeval *tv)
{
    if (fixed) {
        *tv = fixed_tv;
        return;
    }
    gettimeofday(tv, nullptr);
}

time_t clock_time()
{
    struct timeval tv;
    clock_gettimeofday(&tv);
    return tv.tv_sec;
}

void clock_fix_for_testing(time_t sec, long usec)
{
    fixed = true;
    fixed_tv.tv_sec = sec;
    fixed_tv.tv_usec = usec;
}

void clock_release_for_testing()
{
    fixed = false;
}

} // namespace ks
