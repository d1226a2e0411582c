/*
 * Files and pathnames.
 */
#ifndef KS_FILEUTL_H
#define KS_FILEUTL_H

#include "ks/ks_common.h"

KS_BEGIN_DECLS

/* 1 if path names an existing object, else 0; with no_follow a dangling
 * symbolic link counts as existing. */
KS_API int fileutl_exists(const char *path, int no_follow);

KS_END_DECLS

#endif
