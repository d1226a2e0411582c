// Strings in and out: lists printed through the message layer, whole files
// read into a string and strings written to files, with system errors
// reported naming the operation.
#include "ks/strutl.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "ks/imsg.h"
#include "ks/stg.h"
#include "ks_msg.h"

namespace {

constexpr size_t kReadChunk = 4096; // first block when the size is not known

void print_list(int first_type, const char *const *list)
{
    if (list == nullptr)
        return;
    int type = first_type;
    for (const char *const *p = list; *p; p++) {
        imsg_print(type, "%s\n", IMSG_LITERAL, *p);
        type = first_type + 1; // the _CONT form of the type
    }
}

void report_system_error(const char *operation, int err)
{
    imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_OPERATION, operation, strerror(err));
}

// Reads with fill (bytes read, 0 at the end or with *err set on an error)
// into a block of stg_malloc that starts at cap bytes and doubles.
template <typename F>
char *read_all(size_t cap, size_t *len, F fill)
{
    if (len)
        *len = 0;
    char *buf = static_cast<char *>(stg_malloc(cap));
    if (buf == nullptr)
        return nullptr;
    size_t used = 0;
    for (;;) {
        if (used + 1 >= cap) {
            char *nb = static_cast<char *>(stg_realloc(buf, cap * 2));
            if (nb == nullptr) {
                stg_free(buf);
                return nullptr;
            }
            buf = nb;
            cap *= 2;
        }
        int err = 0;
        size_t r = fill(buf + used, cap - 1 - used, &err);
        if (err != 0) {
            stg_free(buf);
            report_system_error("read", err);
            errno = err;
            return nullptr;
        }
        if (r == 0)
            break;
        used += r;
    }
    buf[used] = '\0';
    if (len)
        *len = used;
    return buf;
}

} // namespace

void strutl_list_print(const char *const *list)
{
    print_list(IMSG_OK, list);
}

void strutl_list_trace_print(const char *subsys, int level, const char *const *list)
{
    if (imsg_should_trace(subsys, level))
        print_list(IMSG_TRACE, list);
}

char *strutl_read(int fd, size_t *len)
{
    size_t cap = kReadChunk;
    struct stat sb;
    if (fstat(fd, &sb) == 0 && S_ISREG(sb.st_mode) && sb.st_size > 0)
        cap = static_cast<size_t>(sb.st_size) + 1;
    return read_all(cap, len, [fd](char *buf, size_t n, int *err) -> size_t {
        for (;;) {
            ssize_t r = read(fd, buf, n);
            if (r >= 0)
                return static_cast<size_t>(r);
            if (errno != EINTR) {
                *err = errno;
                return 0;
            }
        }
    });
}

char *strutl_read_fp(FILE *fp, size_t *len)
{
    return read_all(kReadChunk, len, [fp](char *buf, size_t n, int *err) -> size_t {
        size_t r = fread(buf, 1, n, fp);
        if (r == 0 && ferror(fp))
            *err = errno != 0 ? errno : EIO;
        return r;
    });
}

int strutl_write(int fd, const char *s)
{
    size_t left = strlen(s);
    while (left > 0) {
        ssize_t w = write(fd, s, left);
        if (w < 0) {
            if (errno == EINTR)
                continue;
            int err = errno;
            report_system_error("write", err);
            errno = err;
            return 1;
        }
        s += w;
        left -= static_cast<size_t>(w);
    }
    return 0;
}
