/*
 * Files and pathnames.
 */
#ifndef KS_FILEUTL_H
#define KS_FILEUTL_H

#include "ks/ks_common.h"

/* Size of a pathname buffer: pathnames are limited to 1023 characters. */
#define KS_PATH_BUF 1024

KS_BEGIN_DECLS

/* 1 if path names an existing object, else 0; with no_follow a dangling
 * symbolic link counts as existing. */
KS_API int fileutl_exists(const char *path, int no_follow);

KS_END_DECLS

#endif
