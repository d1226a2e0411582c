// The message layer's trace decisions: the desired verbosity (read from
// TRACE_VERBOSITY while it is 32767) and the traced subsystems (TRACE_SUBSYS,
// a ':'-separated list or "*").
#include "ks/imsg.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

constexpr int32_t kVerbosityUnread = 32767;

// Whether name occurs in a ':'-separated list where an element starts (the
// list's start or after a ':') and ends (the list's end or a ':').
bool list_has(const char *list, const char *name)
{
    size_t n = strlen(name);
    for (const char *p = list;;) {
        if (strncmp(p, name, n) == 0 && (p[n] == '\0' || p[n] == ':'))
            return true;
        p = strchr(p, ':');
        if (p == nullptr)
            return false;
        p++;
    }
}

} // namespace

int32_t imsg_desired_verbosity = kVerbosityUnread;
const char *imsg_desired_tsubsys = nullptr;

void imsg_set_trace_verbosity(int32_t level)
{
    imsg_initialize();
    imsg_desired_verbosity = level;
}

void imsg_reset_verbosity(void)
{
    imsg_initialize();
    imsg_desired_verbosity = kVerbosityUnread;
}

int32_t imsg_get_desired_verbosity(void)
{
    imsg_initialize();
    return imsg_desired_verbosity;
}

void imsg_set_trace_subsys(const char *list)
{
    imsg_initialize();
    imsg_desired_tsubsys = list;
}

int32_t imsg_get_verbosity_ev(void)
{
    const char *v = getenv("TRACE_VERBOSITY");
    int n = 0;
    if (v == nullptr || sscanf(v, "%d", &n) != 1)
        return 0;
    return n;
}

int imsg_should_trace(const char *subsystem, int level)
{
    if (imsg_desired_verbosity < level)
        return 0;
    if (imsg_desired_verbosity == kVerbosityUnread) {
        imsg_desired_verbosity = imsg_get_verbosity_ev();
        if (imsg_desired_tsubsys == nullptr)
            imsg_desired_tsubsys = getenv("TRACE_SUBSYS");
        if (imsg_desired_verbosity < level || imsg_desired_tsubsys == nullptr)
            return 0;
    } else if (imsg_desired_tsubsys == nullptr) {
        return 0;
    }
    const char *list = imsg_desired_tsubsys;
    if (*list == '\0')
        return 0;
    if (strcmp(list, "*") == 0)
        return 1;
    return subsystem != nullptr && list_has(list, subsystem) ? 1 : 0;
}

int imsg_should_trace_subsys(const char *subsystem)
{
    return imsg_should_trace(subsystem, 0);
}
