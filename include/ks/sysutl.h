/*
 * Host, user and descriptor information used across the library.
 */
#ifndef KS_SYSUTL_H
#define KS_SYSUTL_H

#include "ks/ks_common.h"

KS_BEGIN_DECLS

/* The process's descriptor limit (the soft RLIMIT_NOFILE), at most 16384; cached. */
KS_API int sysutl_get_max_fds(void);
/* This host's name as gethostname gives it (static buffer); "" if unknown. */
KS_API const char *sysutl_myhostname(void);
/* Login name of the real user: the passwd entry of getuid(), else LOGNAME or
 * USER, else the uid in decimal (static buffer). */
KS_API const char *sysutl_myloginname(void);
/* The host's domain: the part of the fully qualified host name after its
 * first dot; failing that, the system's domain name unless empty or "(none)".
 * 0 with the name in buf, 1 when the host has no domain (buf then ""). */
KS_API int sysutl_get_host_domain_name(char *buf, size_t size);

KS_END_DECLS

#endif
