// Whole-file images: a buffer written at the start of a file, a file loaded
// into memory.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ks/fileutl.h"
#include "ks/stg.h"

namespace {

constexpr size_t kFirstLoadSize = 8192;

int open_retrying(const char *path, int flags, mode_t mode)
{
    int fd;
    do
        fd = open(path, flags, mode);
    while (fd < 0 && errno == EINTR);
    return fd;
}

} // namespace

int fileutl_dump(const void *buf, size_t len, const char *path, int *err)
{
    // No O_TRUNC: a longer file keeps its bytes past len.
    int fd = open_retrying(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        *err = errno;
        return 1;
    }
    ssize_t n = write(fd, buf, len);
    int status = 0;
    if (n < 0 || static_cast<size_t>(n) != len) {
        *err = n < 0 ? errno : EIO;
        status = 1;
    }
    if (close(fd) != 0 && status == 0) {
        *err = errno;
        status = 1;
    }
    return status;
}

void *fileutl_load(const char *path, size_t *len, int *err)
{
    int fd = open_retrying(path, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) {
        *err = errno;
        return nullptr;
    }
    // The size is only a first guess: the file is read to its end.
    struct stat st;
    size_t cap = kFirstLoadSize;
    if (fstat(fd, &st) == 0 && st.st_size > 0)
        cap = static_cast<size_t>(st.st_size) + 1;
    auto *buf = static_cast<char *>(stg_malloc(cap));
    size_t used = 0;
    int error = buf == nullptr ? ENOMEM : 0;
    while (error == 0) {
        if (used + 1 >= cap) {
            auto *grown = static_cast<char *>(stg_realloc(buf, cap * 2));
            if (grown == nullptr) {
                error = ENOMEM;
                break;
            }
            buf = grown;
            cap *= 2;
        }
        ssize_t n = read(fd, buf + used, cap - 1 - used);
        if (n > 0)
            used += static_cast<size_t>(n);
        else if (n == 0)
            break;
        else if (errno != EINTR)
            error = errno;
    }
    close(fd);
    if (error != 0) {
        stg_free(buf);
        *err = error;
        return nullptr;
    }
    buf[used] = '\0';
    *len = used;
    return buf;
}
