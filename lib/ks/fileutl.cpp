// Files: existence and status, directories, locks and symbolic links.
#include "ks/fileutl.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fileutl_internal.h"

using ks::fileutl::kSep;
using ks::fileutl::multibyte_locale;
using ks::fileutl::next_sep;

namespace {
// Links followed by fileutl_resolve_symlink before it gives up.
constexpr int kMaxLinks = 32;
} // namespace

int fileutl_exists(const char *path, int no_follow)
{
    struct stat st;
    if (path == nullptr)
        return 0;
    return (no_follow ? lstat(path, &st) : stat(path, &st)) == 0;
}

int fileutl_stat(const char *path, int follow, struct stat *st)
{
    int rc;
    do
        rc = follow ? stat(path, st) : lstat(path, st);
    while (rc != 0 && errno == EINTR);
    return rc;
}

DIR *fileutl_opendir(const char *path)
{
    DIR *dir;
    do
        dir = opendir(path);
    while (dir == nullptr && errno == EINTR);
    return dir;
}

struct dirent *fileutl_readdir(DIR *dir)
{
    return readdir(dir);
}

int fileutl_closedir(DIR *dir)
{
    return closedir(dir);
}

int fileutl_mkpath(const char *path, int mode)
{
    char buf[KS_PATH_BUF];
    const mode_t m = mode == -1 ? 0777 : static_cast<mode_t>(mode);
    size_t len = strlen(path);
    if (len == 0 || len >= sizeof buf) {
        errno = len == 0 ? ENOENT : ENAMETOOLONG;
        return -1;
    }
    memcpy(buf, path, len + 1);
    const bool mb = multibyte_locale();
    // Each directory from the top down; a leading separator starts no name.
    for (const char *p = next_sep(buf + 1, mb);; p = next_sep(p + 1, mb)) {
        char *end = buf + (p - buf);
        char saved = *end;
        *end = '\0';
        if (end > buf && end[-1] != kSep && access(buf, F_OK) != 0 && mkdir(buf, m) != 0 &&
            errno != EEXIST)
            return -1;
        *end = saved;
        if (saved == '\0')
            break;
    }
    struct stat st;
    if (fileutl_stat(buf, 1, &st) != 0)
        return -1;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

int fileutl_lockfd(int fd, int exclusive, int wait)
{
    struct flock fl {};
    fl.l_type = exclusive ? F_WRLCK : F_RDLCK;
    fl.l_whence = SEEK_SET;
    int rc;
    do
        rc = fcntl(fd, wait ? F_SETLKW : F_SETLK, &fl);
    while (rc != 0 && wait && errno == EINTR);
    return rc == 0 ? 0 : -1;
}

int fileutl_unlockfd(int fd)
{
    struct flock fl {};
    fl.l_type = F_UNLCK;
    fl.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &fl) == 0 ? 0 : -1;
}

int fileutl_resolve_symlink(const char *path, char *out, size_t size)
{
    char cur[KS_PATH_BUF], target[KS_PATH_BUF], next[KS_PATH_BUF];
    if (snprintf(cur, sizeof cur, "%s", path) >= static_cast<int>(sizeof cur)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    for (int depth = 0;; depth++) {
        struct stat st;
        if (fileutl_stat(cur, 0, &st) != 0) {
            if (depth == 0 || errno != ENOENT)
                return -1;
            break; // a dangling link: its target is the answer
        }
        if (!S_ISLNK(st.st_mode))
            break;
        if (depth == kMaxLinks) {
            errno = ELOOP;
            return -1;
        }
        ssize_t n = readlink(cur, target, sizeof target);
        if (n < 0)
            return -1;
        if (static_cast<size_t>(n) >= sizeof target) {
            errno = ENAMETOOLONG;
            return -1;
        }
        target[n] = '\0';
        // A relative target is found from the link's directory.
        char dir[KS_PATH_BUF];
        fileutl_strip_leaf(cur, sizeof dir, dir, 0, nullptr);
        int len = target[0] == kSep || dir[0] == '\0'
                      ? snprintf(next, sizeof next, "%s", target)
                      : snprintf(next, sizeof next, "%s%s%s", dir,
                                 dir[strlen(dir) - 1] == kSep ? "" : "/", target);
        if (len >= static_cast<int>(sizeof next)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        memcpy(cur, next, static_cast<size_t>(len) + 1);
    }
    if (strlen(cur) >= size) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(out, cur, strlen(cur) + 1);
    return 0;
}
