// The message layer's formatting into memory: caller buffers (bounded or
// not), a typed line with its prefix, and the growing formatter whose result
// the caller frees.
#include "ks/imsg.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "imsg_internal.h"

namespace {

void trace_sizes_refused(int max_size, int start_size)
{
    if (imsg_should_trace("ks/imsg", 1) != 0)
        fprintf(stderr,
                "ERROR im imsg_dynamic_len_vsnprintf(): passed max_size argument is greater than "
                "passed start_size argument, or start_size argument is less or equal to 0.\n"
                "max_size = %d,\tstart_size = %d\n",
                max_size, start_size);
}

void trace_no_memory(int size)
{
    if (imsg_should_trace("ks/imsg", 1) != 0)
        fprintf(stderr,
                "ERROR in imsg_dynamic_len_vsnprintf(): cannot allocate a string of size %d\n",
                size);
}

void trace_too_long(int max_size)
{
    if (imsg_should_trace("ks/imsg", 1) != 0)
        fprintf(stderr,
                "Error, max buffer size %d passed to imsg_dynamic_len_vsnprintf() is not "
                "sufficient to hold the string.\n",
                max_size);
}

} // namespace

namespace ks {

int imsg_format_text(char *buf, size_t size, const char *fmt, va_list ap)
{
    if (size == 0)
        return vsprintf(buf, fmt, ap);
    int n = vsnprintf(buf, size, fmt, ap);
    if (n >= 0 && static_cast<size_t>(n) >= size)
        buf[size - 1] = '\0';
    return n;
}

} // namespace ks

int imsg_vsnprintf(char *buf, size_t size, const void *table, int index, va_list ap)
{
    imsg_initialize();
    const char *fmt = ks::imsg_find_text(table, index, "vsprintf");
    if (fmt == nullptr)
        return -1;
    return ks::imsg_format_text(buf, size, fmt, ap);
}

int imsg_snprintf(char *buf, size_t size, const void *table, int index, ...)
{
    va_list ap;
    va_start(ap, index);
    int r = imsg_vsnprintf(buf, size, table, index, ap);
    va_end(ap);
    return r;
}

int imsg_vsprintf(char *buf, const void *table, int index, va_list ap)
{
    return imsg_vsnprintf(buf, 0, table, index, ap);
}

int imsg_sprintf(char *buf, const void *table, int index, ...)
{
    va_list ap;
    va_start(ap, index);
    int r = imsg_vsnprintf(buf, 0, table, index, ap);
    va_end(ap);
    return r;
}

int imsg_vsnprintf_taggable(char *buf, size_t size, const void *table, int index, va_list ap)
{
    return imsg_vsnprintf(buf, size, table, index, ap);
}

int imsg_snprintf_taggable(char *buf, size_t size, const void *table, int index, ...)
{
    va_list ap;
    va_start(ap, index);
    int r = imsg_vsnprintf(buf, size, table, index, ap);
    va_end(ap);
    return r;
}

int imsg_snprintf_type(char *buf, size_t size, int type, const void *table, int index, ...)
{
    char pfx[ks::kImsgPrefixSize];
    snprintf(pfx, sizeof pfx, "%s", imsg_prefix_format(type, 0));
    const char *subsys = ks::imsg_table_subsys(table, index);
    char ts[ks::kImsgStampSize] = "";
    if (type == IMSG_TRACE)
        ks::imsg_trace_time_stamp(ts, sizeof ts);
    // The prefix is measured first so that a short buffer (or a long
    // application name) still yields the full count, as snprintf does.
    int plen = ks::imsg_format_prefix(nullptr, 0, pfx, type, false, subsys, ts);
    if (plen < 0)
        return -1;
    auto pl = static_cast<size_t>(plen);
    ks::imsg_format_prefix(buf, size == 0 ? pl + 1 : size, pfx, type, false, subsys, ts);
    va_list ap;
    va_start(ap, index);
    int r = 0;
    if (size == 0) {
        r = imsg_vsnprintf(buf + pl, 0, table, index, ap);
    } else if (pl < size - 1) {
        r = imsg_vsnprintf(buf + pl, size - pl, table, index, ap);
    } else {
        char scratch[1];
        r = imsg_vsnprintf(scratch, 1, table, index, ap);
    }
    va_end(ap);
    return r < 0 ? -1 : static_cast<int>(pl) + r;
}

int imsg_dynamic_len_vsnprintf(char **result, int start_size, int max_size, const void *table,
                               int index, va_list ap)
{
    imsg_initialize();
    if (max_size < start_size || start_size < 1) {
        trace_sizes_refused(max_size, start_size);
        return -1;
    }
    // Looked up once, so that a bad index is reported (and captured) once
    // rather than at every size tried.
    const char *fmt = ks::imsg_find_text(table, index, "vsprintf");
    if (fmt == nullptr) {
        *result = nullptr;
        return -1;
    }
    // The step is a fifth of the room to grow; its fractions add up.
    double step = (max_size - start_size) * 0.2;
    double size = start_size;
    for (;;) {
        int sz = static_cast<int>(size);
        char *buf = static_cast<char *>(malloc(static_cast<size_t>(sz)));
        if (buf == nullptr) {
            trace_no_memory(sz);
            return -1;
        }
        va_list aq;
        va_copy(aq, ap);
        int n = ks::imsg_format_text(buf, static_cast<size_t>(sz), fmt, aq);
        va_end(aq);
        if (n >= 0 && n < sz) {
            *result = buf;
            return n;
        }
        if (n >= sz)
            size = static_cast<double>(n) + 1;
        else if (step > 0)
            size += step;
        else
            size = static_cast<double>(max_size) + 1; // start equals max: nothing to grow into
        free(buf);
        if (size > max_size) {
            trace_too_long(max_size);
            *result = nullptr;
            return -1;
        }
    }
}

int imsg_dynamic_len_snprintf(char **result, int start_size, int max_size, const void *table,
                              int index, ...)
{
    va_list ap;
    va_start(ap, index);
    int r = imsg_dynamic_len_vsnprintf(result, start_size, max_size, table, index, ap);
    va_end(ap);
    return r;
}
