/*
 * Credentials and security identifiers.
 *
 * A SID is a 34-byte record: a length byte (counting itself and the type
 * byte), a type byte and up to 32 value bytes.  A UNIX SID has length 7: the
 * id in bytes 2-5, most significant byte first, and the kind (uid or gid) in
 * byte 6.  Bytes beyond the length are ignored by every comparison but are
 * always copied with the SID; the SIDs this module builds have them zeroed.
 *
 * Numeric ids 0xFFFFFFFE and 0xFFFFFFFF stand for nobody and don't-care and
 * map to CREDUTL_SID_NOBODY and CREDUTL_SID_DONTCARE (and back).
 *
 * Messages go to the credutl table (catalogue "ks_lib", set 18).  The passwd
 * and group records and the SIDs of credutl_getusid/credutl_getgsid are
 * module-wide: every call overwrites them, callers copy what they keep.
 */
#ifndef KS_CREDUTL_H
#define KS_CREDUTL_H

#include "ks/ks_common.h"

KS_BEGIN_DECLS

typedef uint32_t credutl_uid_t;
typedef uint32_t credutl_gid_t;

/* Numeric ids meaning nobody (-2) and don't-care (-1). */
#define CREDUTL_ID_NOBODY   ((uint32_t)0xFFFFFFFEu)
#define CREDUTL_ID_DONTCARE ((uint32_t)0xFFFFFFFFu)

/* SID types (byte 1). */
#define CREDUTL_SID_TYPE_NOBODY   0
#define CREDUTL_SID_TYPE_DONTCARE 1
#define CREDUTL_SID_TYPE_UNIX     2
#define CREDUTL_SID_TYPE_FOREIGN  3 /* value bytes are opaque */

/* Kind of a UNIX SID (byte 6). */
#define CREDUTL_SID_UNIX_UID 1
#define CREDUTL_SID_UNIX_GID 2

#define CREDUTL_SID_SIZE        34
#define CREDUTL_SID_VALUE_MAX   32
#define CREDUTL_SID_UNIX_LENGTH 7
/* Room for any SID text (the raw form with 32 value bytes is 73 characters). */
#define CREDUTL_SID_STR_SIZE 80
/* Room for the text of any credentials record (32 groups). */
#define CREDUTL_CREDENTIALS_STR_SIZE 4096

/* Supplementary groups kept in a credentials record. */
#define CREDUTL_NGROUPS_MAX 32

/* Security identifier: exactly 34 bytes, byte-aligned, no padding. */
typedef struct credutl_sid {
    uint8_t length; /* bytes 0..length-1 are meaningful (2 for special SIDs) */
    uint8_t type;   /* CREDUTL_SID_TYPE_* */
    uint8_t value[CREDUTL_SID_VALUE_MAX];
} credutl_sid_t;

/* Numeric credentials; unused group slots are zero. */
typedef struct credutl_credentials {
    credutl_uid_t uid;
    credutl_gid_t gid;
    int32_t ngroups;
    credutl_gid_t groups[CREDUTL_NGROUPS_MAX];
} credutl_credentials_t;

/* SID credentials; unused group slots are zero. */
typedef struct credutl_sid_credentials {
    credutl_sid_t user;
    credutl_sid_t group;
    int32_t ngroups;
    credutl_sid_t groups[CREDUTL_NGROUPS_MAX];
} credutl_sid_credentials_t;

/* SID credentials with any number of groups; groups comes from stg_malloc
 * and is released by credutl_free_whole_credentials. */
typedef struct credutl_whole_credentials {
    credutl_sid_t user;
    credutl_sid_t group;
    int32_t ngroups;
    credutl_sid_t *groups;
} credutl_whole_credentials_t;

/* Credentials by name ("name", "domain/name" or "domain\name"); every string
 * is owned by the record and made with strdup (released with free). */
typedef struct credutl_string_credentials {
    char *user;
    char *group;
    int32_t ngroups;
    char *groups[CREDUTL_NGROUPS_MAX];
} credutl_string_credentials_t;

/* A user: fully qualified name (256-byte buffer), uid and SID. */
typedef struct credutl_user_sid {
    char *name;
    credutl_uid_t uid;
    credutl_sid_t sid;
} credutl_user_sid_t;

/* A group: fully qualified name (256-byte buffer), gid and SID.  This is the
 * record answered by the group look-ups. */
typedef struct credutl_group_sid {
    char *name;
    credutl_gid_t gid;
    credutl_sid_t sid;
} credutl_group_sid_t;

/* Passwd record: the user, the primary group (name empty when the gid has no
 * group entry), passwd (always the constant "<credutl_fq_passwd unknown>";
 * never written through) and the home directory (1024-byte buffer). */
typedef struct credutl_passwd_sid {
    credutl_user_sid_t user;
    credutl_group_sid_t group;
    char *passwd;
    char *home;
} credutl_passwd_sid_t;

/* Length 2, type 0 / type 1, the other 32 bytes zero. */
KS_API extern const credutl_sid_t CREDUTL_SID_NOBODY;
KS_API extern const credutl_sid_t CREDUTL_SID_DONTCARE;

/* Nonzero: credutl_sid_credentials_to_credentials keeps groups that convert
 * to nobody (0xFFFFFFFE) instead of dropping them.  Default 0. */
KS_API extern int keep_nobody_groups;

/* ---- SIDs and ids ---- */

/* UNIX uid SID of uid, with no nobody/don't-care mapping; returns sid. */
KS_API credutl_sid_t *credutl_unix_uid_to_sid(credutl_uid_t uid, credutl_sid_t *sid);
/* UNIX gid SID of gid, with no nobody/don't-care mapping; returns sid. */
KS_API credutl_sid_t *credutl_unix_gid_to_sid(credutl_gid_t gid, credutl_sid_t *sid);
/* Id of a UNIX SID (the type must be UNIX: otherwise an assertion aborts);
 * 0xFFFFFFFE when the kind is not uid or the length is not 7. */
KS_API credutl_uid_t credutl_sid_to_unix_uid(const credutl_sid_t *sid);
/* As credutl_sid_to_unix_uid for a gid SID. */
KS_API credutl_gid_t credutl_sid_to_unix_gid(const credutl_sid_t *sid);
/* SID of uid: -2 gives NOBODY, -1 DONTCARE, else a UNIX uid SID; returns sid. */
KS_API credutl_sid_t *credutl_uid_to_sid(credutl_sid_t *sid, credutl_uid_t uid);
/* SID of gid with the same mapping; returns sid. */
KS_API credutl_sid_t *credutl_gid_to_sid(credutl_sid_t *sid, credutl_gid_t gid);
/* uid of a SID: NOBODY -2, DONTCARE -1, a UNIX uid SID of length 7 its id,
 * anything else -2. */
KS_API credutl_uid_t credutl_sid_to_uid(const credutl_sid_t *sid);
/* gid of a SID with the same rules. */
KS_API credutl_gid_t credutl_sid_to_gid(const credutl_sid_t *sid);
/* 1 when a and b are the same buffer or have the same length byte and
 * meaningful bytes, else 0. */
KS_API int credutl_sid_eq(const credutl_sid_t *a, const credutl_sid_t *b);
/* Hash procedure for SID-keyed hash tables (key: a credutl_sid_t). */
KS_API uint32_t credutl_sid_hash_fn(const void *sid);
/* Compare procedure for SID-keyed hash tables: nonzero when equal. */
KS_API int credutl_sid_keycmp_fn(const void *a, const void *b);
/* Text of a SID into buf (CREDUTL_SID_STR_SIZE bytes): "NOBODY", "DONTCARE",
 * "UNIX:UID-n", "UNIX:GID-n" or the raw form; returns buf.  A UNIX SID of
 * length 7 with a kind other than uid or gid fails an assertion. */
KS_API char *credutl_sid_to_str(const credutl_sid_t *sid, char *buf);
/* Raw text "SID:type.hexbytes" into buf (CREDUTL_SID_STR_SIZE bytes);
 * returns buf. */
KS_API char *credutl_sid_to_str_raw(const credutl_sid_t *sid, char *buf);
/* Parses a SID text (exact, case-sensitive); 0 with the SID in sid, or 1 for
 * a malformed text or one of more than 32 value bytes, sid then unchanged.
 * Prints nothing. */
KS_API int credutl_str_to_sid(const char *text, credutl_sid_t *sid);

/* ---- The process's credentials ---- */

/* Effective uid and gid and the normalised supplementary groups; 0, or 1
 * after message 3 (getgroups failed), cred then not filled. */
KS_API int credutl_get_credentials(credutl_credentials_t *cred);
/* As credutl_get_credentials in SID form; 0 or 1. */
KS_API int credutl_get_sid_credentials(credutl_sid_credentials_t *sidcred);
/* Effective user and group SIDs and every supplementary group (unsorted,
 * the first entry equal to the primary group removed); whole->groups is
 * released with credutl_free_whole_credentials.  0, or 1 after a message. */
KS_API int credutl_get_whole_credentials(credutl_whole_credentials_t *whole);
/* Releases whole->groups (stg_free), sets it to null and ngroups to 0. */
KS_API void credutl_free_whole_credentials(credutl_whole_credentials_t *whole);
/* Module-wide SID of the effective uid, rebuilt on every call. */
KS_API credutl_sid_t *credutl_getusid(void);
/* Module-wide SID of the effective gid, rebuilt on every call. */
KS_API credutl_sid_t *credutl_getgsid(void);
/* want 0: the number of supplementary groups.  Otherwise fills sids (room
 * for 32) with at most 32 group SIDs and returns their count.  -1 after
 * message 3 on failure. */
KS_API int credutl_getgroups(int want, credutl_sid_t *sids);
/* setgroups, setgid, setuid from cred (ngroups as it stands), stopping at
 * the first failure; 0, or 1 after message 0, 1 or 2.  An ngroups above 32
 * is refused as setgroups failing with EINVAL. */
KS_API int credutl_set_credentials(const credutl_credentials_t *cred);
/* Clamps cred->ngroups to 32 (written back), then setgroups, setegid,
 * seteuid; 0, or 1 after message 0, 1 or 2. */
KS_API int credutl_set_effective_credentials(credutl_credentials_t *cred);
/* 1 when the effective uid is 0. */
KS_API int credutl_is_root(void);
/* 1 when the effective uid is 0. */
KS_API int credutl_is_privileged(void);
/* Normalised record: primary gid dropped from the groups, sorted, duplicates
 * removed.  ngroups above 32 fails an assertion; gids may point into cred. */
KS_API void credutl_init_credentials(credutl_uid_t uid, credutl_gid_t gid, int ngroups,
                                     const credutl_gid_t *gids, credutl_credentials_t *cred);
/* Normalised SID record: groups equal to gsid and NOBODY/DONTCARE-typed ones
 * dropped, at most 32 kept, sorted, duplicates removed.  Arguments may point
 * into sidcred. */
KS_API void credutl_init_sid_credentials(const credutl_sid_t *usid, const credutl_sid_t *gsid,
                                         int ngroups, const credutl_sid_t *sids,
                                         credutl_sid_credentials_t *sidcred);

/* ---- Membership ---- */

/* 1 when gid is the primary gid or one of the first ngroups groups. */
KS_API int credutl_has_group(credutl_gid_t gid, const credutl_credentials_t *cred);
/* 1 when sid equals the group SID or one of the first ngroups group SIDs. */
KS_API int credutl_has_group_sid(const credutl_sid_t *sid,
                                 const credutl_sid_credentials_t *sidcred);
/* As credutl_has_group_sid for whole credentials. */
KS_API int credutl_has_group_whole(const credutl_sid_t *sid,
                                   const credutl_whole_credentials_t *whole);
/* 1 when sid is the user SID, or a foreign (type 3) SID equal to the group
 * SID or a group SID; 0 for NOBODY and DONTCARE. */
KS_API int credutl_has_user_sid(const credutl_sid_t *sid, const credutl_sid_credentials_t *sidcred);
/* As credutl_has_user_sid for whole credentials. */
KS_API int credutl_has_user(const credutl_sid_t *sid, const credutl_whole_credentials_t *whole);

/* ---- Conversions ---- */

/* Numeric to SID with the nobody/don't-care mapping (to is zeroed first). */
KS_API void credutl_credentials_to_sid_credentials(const credutl_credentials_t *from,
                                                   credutl_sid_credentials_t *to);
/* SID to numeric (to is zeroed first); groups converting to nobody are
 * dropped unless keep_nobody_groups is set, don't-care groups kept as -1. */
KS_API void credutl_sid_credentials_to_credentials(const credutl_sid_credentials_t *from,
                                                   credutl_credentials_t *to);
/* Names of the ids ("nobody" for -2 or a missing entry), strdup copies owned
 * by to.  0, or 1 when out of memory (message printed, to left empty). */
KS_API int credutl_credentials_to_string_credentials(const credutl_credentials_t *from,
                                                     credutl_string_credentials_t *to);
/* SID to numeric, then to names as above; 0 or 1. */
KS_API int credutl_sid_credentials_to_string_credentials(const credutl_sid_credentials_t *from,
                                                         credutl_string_credentials_t *to);
/* Ids of the names: empty, unknown or foreign-domain names give -2. */
KS_API void credutl_string_credentials_to_credentials(const credutl_string_credentials_t *from,
                                                      credutl_credentials_t *to);
/* Names to ids, then ids to SIDs with the nobody/don't-care mapping. */
KS_API void credutl_string_credentials_to_sid_credentials(const credutl_string_credentials_t *from,
                                                          credutl_sid_credentials_t *to);
/* Zeroes to, then duplicates user, group and the ngroups names (strdup).
 * 0, or 1 when out of memory (message printed, to left empty). */
KS_API int credutl_copy_string_credentials(const credutl_string_credentials_t *from,
                                           credutl_string_credentials_t *to);
/* Frees user, group and the ngroups names, then nulls the user pointer only:
 * group and ngroups keep their (now stale) values. */
KS_API void credutl_free_string_credentials(credutl_string_credentials_t *cred);
/* Appends "UID: n GID: n ", then "Groups: " and "n " per group, to the
 * string in buf ("" to start; room for CREDUTL_CREDENTIALS_STR_SIZE bytes
 * more); returns buf. */
KS_API char *credutl_credentials_to_str(const credutl_credentials_t *cred, char *buf);
/* Appends "UID: sid GID: sid ", then "Groups: " and "sid " per group (the
 * SID texts), to the string in buf ("" to start; room for
 * CREDUTL_CREDENTIALS_STR_SIZE bytes more); returns buf. */
KS_API char *credutl_sid_credentials_to_str(const credutl_sid_credentials_t *sidcred, char *buf);

/* ---- Names and look-ups ---- */

/* Passwd record of a user name, plain or qualified with this host's domain
 * (same length, case ignored); module-wide record, or null. */
KS_API credutl_passwd_sid_t *credutl_getpwnam(const char *name);
/* Passwd record of a uid; module-wide record, or null. */
KS_API credutl_passwd_sid_t *credutl_getpwuid(credutl_uid_t uid);
/* Passwd record of a UNIX uid SID of length 7; module-wide record, or null. */
KS_API credutl_passwd_sid_t *credutl_getpwsid(const credutl_sid_t *sid);
/* Group record of a group name, plain or qualified as for credutl_getpwnam;
 * module-wide record, or null. */
KS_API credutl_group_sid_t *credutl_getgrnam(const char *name);
/* Group record of a gid; module-wide record, or null. */
KS_API credutl_group_sid_t *credutl_getgrgid(credutl_gid_t gid);
/* Group record of a UNIX gid SID of length 7; module-wide record, or null. */
KS_API credutl_group_sid_t *credutl_getgrsid(const credutl_sid_t *sid);
/* Splits fqname at its first "/" or "\" into domain and name, each truncated
 * to its buffer; without a separator (or for null) the domain is "<unknown>". */
KS_API void credutl_crack_fq_name(const char *fqname, char *domain, size_t domainsize, char *name,
                                  size_t namesize);
/* This host's domain name, or "<unknown>" (module-wide buffer). */
KS_API const char *credutl_get_domain(void);
/* 1 when a and b name the same user: equal ignoring case, or equal name
 * parts (domains ignored).  Null stands for the current login name. */
KS_API int credutl_string_eq(const char *a, const char *b);

KS_END_DECLS

#endif
