// Byte comparison of two files, with the shortcuts of their status.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ks/fileutl.h"
#include "ks/imsg.h"
#include "ks_msg.h"

namespace {

constexpr size_t kBlock = 8192;

// Fills buf up to kBlock bytes unless the file ends first.  The count, or -1.
ssize_t read_block(int fd, char *buf)
{
    size_t got = 0;
    while (got < kBlock) {
        ssize_t n = read(fd, buf + got, kBlock - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

void say(int quiet, int index, const char *name, int err)
{
    if (!quiet)
        imsg_print(IMSG_ERROR, &_ks_ks_msg_table, index, name, imsg_strerror(err));
}

// Step 3 and 4: both files read block by block.
int compare_contents(const char *path1, const char *path2, int quiet, int *same)
{
    int fd1 = open(path1, O_RDONLY | O_CLOEXEC);
    if (fd1 < 0) {
        say(quiet, KS_MSG_CANNOT_OPEN, path1, errno);
        return -1;
    }
    int fd2 = open(path2, O_RDONLY | O_CLOEXEC);
    if (fd2 < 0) {
        say(quiet, KS_MSG_CANNOT_OPEN, path2, errno);
        close(fd1);
        return -1;
    }
    char buf1[kBlock];
    char buf2[kBlock];
    int rc = 0;
    for (;;) {
        ssize_t n1 = read_block(fd1, buf1);
        if (n1 < 0) {
            say(quiet, KS_MSG_CANNOT_READ, path1, errno);
            rc = -1;
            break;
        }
        ssize_t n2 = read_block(fd2, buf2);
        if (n2 < 0) {
            say(quiet, KS_MSG_CANNOT_READ, path2, errno);
            rc = -1;
            break;
        }
        if (n1 != n2) {
            if (!quiet)
                imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_UNEXPECTED);
            rc = -1;
            break;
        }
        if (n1 == 0) {
            *same = 1;
            break;
        }
        if (memcmp(buf1, buf2, static_cast<size_t>(n1)) != 0) {
            *same = 0;
            break;
        }
    }
    close(fd1);
    close(fd2);
    return rc;
}

} // namespace

int fileutl_cmp(const char *path1, const char *path2, int quiet, int *same)
{
    struct stat st1;
    struct stat st2;
    if (fileutl_stat(path1, 1, &st1) != 0) {
        say(quiet, KS_MSG_NAME_TEXT, path1, errno);
        return -1;
    }
    if (fileutl_stat(path2, 1, &st2) != 0) {
        say(quiet, KS_MSG_NAME_TEXT, path2, errno);
        return -1;
    }
    if (st1.st_size != st2.st_size) {
        *same = 0;
        return 0;
    }
    if (st1.st_dev == st2.st_dev && st1.st_ino == st2.st_ino) {
        *same = 1;
        return 0;
    }
    return compare_contents(path1, path2, quiet, same);
}
