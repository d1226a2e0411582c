/*
 * Files and pathnames.
 */
#ifndef KS_FILEUTL_H
#define KS_FILEUTL_H

#include <dirent.h>
#include <sys/stat.h>

#include "ks/ks_common.h"

/* Size of a pathname buffer: pathnames are limited to 1023 characters. */
#define KS_PATH_BUF 1024

KS_BEGIN_DECLS

/* 1 if path names an existing object, else 0; with no_follow a dangling
 * symbolic link counts as existing. */
KS_API int fileutl_exists(const char *path, int no_follow);
/* stat(2) of path, following symbolic links when follow is non-zero
 * (lstat(2) otherwise); retried on EINTR.  0, or -1 with errno set. */
KS_API int fileutl_stat(const char *path, int follow, struct stat *st);
/* opendir(3); null with errno set on failure. */
KS_API DIR *fileutl_opendir(const char *path);
/* The next entry of dir, null at the end (errno unchanged) or on an error
 * (errno set); the entry is valid until the next call on dir. */
KS_API struct dirent *fileutl_readdir(DIR *dir);
/* closedir(3): 0, or -1 with errno set. */
KS_API int fileutl_closedir(DIR *dir);

KS_END_DECLS

#endif
