// Files and pathnames.
#include "ks/fileutl.h"

#include <errno.h>
#include <sys/stat.h>

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
