/*
 * Library initialisation and product configuration: where the product lives
 * on this host, and which front-end mode the process runs under.  Every
 * answer is computed once per process and then served from a cache.
 */
#ifndef KS_PRODUCT_H
#define KS_PRODUCT_H

#include <netinet/in.h>

#include "ks/ks_common.h"
#include "ks/fileutl.h" /* KS_PATH_BUF, the size of the buffers handed in here */

KS_BEGIN_DECLS

/* First call: fault management, the user's locale (if in "C"), descriptor limit; 1. Later: 0. */
KS_API int32_t ks_system_init(void);
/* Product home (OTTERMEREHOME, ORVINHOME, else /opt/tamarack/ottermere), "/" subpath. */
KS_API char *ks_product_dir(char *buf, const char *subpath);
/* home "/bin", "/" tool; buf must hold a path. */
KS_API char *ks_product_tool_dir(char *buf, const char *tool);
/* Same text as ks_product_tool_dir: no quoting is needed on this platform. */
KS_API char *ks_product_tool_dir_quoted(char *buf, const char *tool);
/* Host data directory, "/" first, "/" second (1024-byte buf).  Without one the
 * process prints why and exits with status 2. */
KS_API char *ks_hostdata_dir(char *buf, const char *first, const char *second);
/* ks_hostdata_dir(buf, "config", name). */
KS_API char *ks_host_config_dir(char *buf, const char *name);

/* Front-end switches, read once from ORVIN_FORCE_GUI, ORVIN_WEB_GUI,
 * ORVIN_WEB_OTTERPROMPT and ORVIN_NO_BOLD: 0 or 1. */
KS_API int32_t ks_force_gui(void);
KS_API int32_t ks_web_gui(void);
KS_API int32_t ks_web_otterprompt(void);
/* Unlike the others, an empty ORVIN_NO_BOLD turns no-bold on. */
KS_API int32_t ks_no_bold(void);
/* Publish a switch to child processes; 0, or 1 if putenv failed. */
KS_API int32_t ks_set_force_gui(int32_t flag);
KS_API int32_t ks_set_web_gui(int32_t flag);
KS_API int32_t ks_set_web_otterprompt(int32_t flag);

/* Listener from ORVIN_REMOTE_PROMPT ("port,a.b.c.d"): 0 with *addr filled, 2 if none. */
KS_API int32_t ks_remote_prompt(struct sockaddr_in *addr);
/* Publishes addr as ORVIN_REMOTE_PROMPT (a zero port: not configured); 0 or 1. */
KS_API int32_t ks_set_remote_prompt(struct sockaddr_in addr);

/* Always 1. */
KS_API int32_t ks_connected(void);
/* Does nothing, by design. */
KS_API void ks_set_connected(int32_t flag);
/* Does nothing on this platform. */
KS_API void ks_disable_long_path(void);
/* Sets the rmview full check flag (it cannot be cleared). */
KS_API void ks_enable_rmview_full_cr_check(void);
KS_API int32_t ks_is_enabled_rmview_full_cr_check(void);

KS_END_DECLS

#endif
