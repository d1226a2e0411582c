// Files and pathnames.
#include "ks/fileutl.h"

#include <sys/stat.h>

int fileutl_exists(const char *path, int no_follow)
{
    struct stat st;
    if (path == nullptr)
        return 0;
    return (no_follow ? lstat(path, &st) : stat(path, &st)) == 0;
}
