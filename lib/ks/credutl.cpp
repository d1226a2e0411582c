// Credentials and security identifiers.
#include "ks/credutl.h"

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>

#include "ks/imsg.h"
#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks/strutl.h"
#include "ks/sysutl.h"

static_assert(sizeof(credutl_sid_t) == CREDUTL_SID_SIZE, "a SID is 34 bytes on every host");

extern "C" {
const credutl_sid_t CREDUTL_SID_NOBODY = {2, CREDUTL_SID_TYPE_NOBODY, {0}};
const credutl_sid_t CREDUTL_SID_DONTCARE = {2, CREDUTL_SID_TYPE_DONTCARE, {0}};
int keep_nobody_groups = 0;
}

namespace {

// Indices of the credutl message table.
enum {
    MSG_SETGROUPS = 0,
    MSG_SETGID = 1,
    MSG_SETUID = 2,
    MSG_GETGROUPS = 3,
    MSG_CRED_IDS = 4,
    MSG_GROUPS = 5,
    MSG_CRED_GROUP = 6,
    MSG_SID_IDS = 8,
    MSG_SID_GROUP = 9
};
// "Unable to allocate storage.\n" of the ks table.
const int KS_MSG_NO_STORAGE = 15;

const char SOURCE[] = "credutl";
const char SOURCE_KERNEL[] = "credutl_kernel";
const char UNKNOWN_DOMAIN[] = "<unknown>";
const char UNKNOWN_PASSWD[] = "<credutl_fq_passwd unknown>";
const char NOBODY_NAME[] = "nobody";

const size_t NAME_SIZE = 256;
const size_t HOME_SIZE = 1024;
const size_t DOMAIN_SIZE = 256;

credutl_sid_t usid_buf;
credutl_sid_t gsid_buf;
credutl_passwd_sid_t pw_rec;
credutl_group_sid_t gr_rec;
char domain_buf[DOMAIN_SIZE];

// Meaningful length of a SID, never beyond its 34 bytes, whatever the
// length byte claims.
size_t sid_len(const credutl_sid_t *sid)
{
    return sid->length > CREDUTL_SID_SIZE ? CREDUTL_SID_SIZE : sid->length;
}

const uint8_t *sid_bytes(const credutl_sid_t *sid)
{
    return reinterpret_cast<const uint8_t *>(sid);
}

credutl_sid_t *make_unix_sid(uint32_t id, uint8_t kind, credutl_sid_t *sid)
{
    memset(sid, 0, sizeof *sid);
    sid->length = CREDUTL_SID_UNIX_LENGTH;
    sid->type = CREDUTL_SID_TYPE_UNIX;
    sid->value[0] = static_cast<uint8_t>(id >> 24);
    sid->value[1] = static_cast<uint8_t>(id >> 16);
    sid->value[2] = static_cast<uint8_t>(id >> 8);
    sid->value[3] = static_cast<uint8_t>(id);
    sid->value[4] = kind;
    return sid;
}

uint32_t unix_sid_id(const credutl_sid_t *sid)
{
    return (static_cast<uint32_t>(sid->value[0]) << 24) | (static_cast<uint32_t>(sid->value[1]) << 16) |
           (static_cast<uint32_t>(sid->value[2]) << 8) | static_cast<uint32_t>(sid->value[3]);
}

// Id of a UNIX SID of the given kind and length 7, else nobody.
uint32_t unix_sid_to_id(const credutl_sid_t *sid, uint8_t kind)
{
    if (sid->type != CREDUTL_SID_TYPE_UNIX)
        pfm_assert_fail("sid_p->type == CREDUTL_SID_TYPE_UNIX", SOURCE_KERNEL, __LINE__);
    if (sid->length != CREDUTL_SID_UNIX_LENGTH || sid->value[4] != kind)
        return CREDUTL_ID_NOBODY;
    return unix_sid_id(sid);
}

credutl_sid_t *id_to_sid(credutl_sid_t *sid, uint32_t id, uint8_t kind)
{
    if (id == CREDUTL_ID_NOBODY)
        *sid = CREDUTL_SID_NOBODY;
    else if (id == CREDUTL_ID_DONTCARE)
        *sid = CREDUTL_SID_DONTCARE;
    else
        make_unix_sid(id, kind, sid);
    return sid;
}

uint32_t sid_to_id(const credutl_sid_t *sid, uint8_t kind)
{
    if (sid->type == CREDUTL_SID_TYPE_NOBODY)
        return CREDUTL_ID_NOBODY;
    if (sid->type == CREDUTL_SID_TYPE_DONTCARE)
        return CREDUTL_ID_DONTCARE;
    if (sid->type == CREDUTL_SID_TYPE_UNIX && sid->length == CREDUTL_SID_UNIX_LENGTH && sid->value[4] == kind)
        return unix_sid_id(sid);
    return CREDUTL_ID_NOBODY;
}

// Order of SIDs when sorting groups: equal SIDs first of all, then by type,
// length and the value bytes.
int sid_cmp(const credutl_sid_t *a, const credutl_sid_t *b)
{
    if (credutl_sid_eq(a, b))
        return 0;
    if (a->type != b->type)
        return a->type < b->type ? -1 : 1;
    if (a->length != b->length)
        return a->length < b->length ? -1 : 1;
    size_t n = sid_len(a);
    return n > 2 ? memcmp(a->value, b->value, n - 2) : 0;
}

int clamp_ngroups(int32_t n)
{
    if (n < 0)
        return 0;
    return n > CREDUTL_NGROUPS_MAX ? CREDUTL_NGROUPS_MAX : n;
}

// Every supplementary group of the process, in a block of stg_malloc; the
// count in *count.  Null after message 3.  An empty list gives a non-null
// block and a count of 0.
gid_t *fetch_groups(int *count)
{
    int n = getgroups(0, nullptr);
    if (n < 0) {
        imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, MSG_GETGROUPS, imsg_strerror(errno));
        return nullptr;
    }
    gid_t *list = static_cast<gid_t *>(stg_malloc((n > 0 ? n : 1) * sizeof(gid_t)));
    if (list == nullptr) {
        errno = ENOMEM;
        imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, MSG_GETGROUPS, imsg_strerror(errno));
        return nullptr;
    }
    n = getgroups(n, list);
    if (n < 0) {
        int err = errno;
        stg_free(list);
        imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, MSG_GETGROUPS, imsg_strerror(err));
        return nullptr;
    }
    *count = n;
    return list;
}

// First "/" or "\" of a qualified name, stepping by whole characters so that
// the second byte of a double-byte character is never taken for one.
const char *find_separator(const char *s)
{
    while (*s != '\0') {
        if (*s == '/' || *s == '\\')
            return s;
        s += strutl_mblen(s);
    }
    return nullptr;
}

// The host's domain into buf (DOMAIN_SIZE bytes); 1 when it has none.
int host_domain(char *buf)
{
    return sysutl_get_host_domain_name(buf, DOMAIN_SIZE);
}

// The plain name to look up for name: name itself, or the part after the
// separator when the domain before it is this host's (same length, case
// ignored).  Null when the domain is another or the host has none.
const char *local_part(const char *name)
{
    const char *sep = find_separator(name);
    if (sep == nullptr)
        return name;
    char domain[DOMAIN_SIZE];
    if (host_domain(domain) != 0)
        return nullptr;
    size_t len = static_cast<size_t>(sep - name);
    if (strlen(domain) != len || strncasecmp(domain, name, len) != 0)
        return nullptr;
    return sep + 1;
}

// Stores the qualified form of name into buf (NAME_SIZE bytes): domain/name
// when the host has a domain, else the plain name.
void store_fq_name(char *buf, const char *name)
{
    char domain[DOMAIN_SIZE];
    if (host_domain(domain) == 0)
        strutl_concat(buf, NAME_SIZE, 3, domain, "/", name);
    else
        strutl_cpy_buf(buf, NAME_SIZE, name);
}

// Buffers of the passwd and group records, made on the first look-up.
bool records_ready()
{
    if (pw_rec.user.name != nullptr)
        return true;
    char *user = static_cast<char *>(stg_malloc(NAME_SIZE));
    char *group = static_cast<char *>(stg_malloc(NAME_SIZE));
    char *home = static_cast<char *>(stg_malloc(HOME_SIZE));
    char *grname = static_cast<char *>(stg_malloc(NAME_SIZE));
    if (user == nullptr || group == nullptr || home == nullptr || grname == nullptr) {
        stg_free(user);
        stg_free(group);
        stg_free(home);
        stg_free(grname);
        return false;
    }
    user[0] = group[0] = home[0] = grname[0] = '\0';
    pw_rec.user.name = user;
    pw_rec.group.name = group;
    pw_rec.home = home;
    pw_rec.passwd = const_cast<char *>(UNKNOWN_PASSWD);
    gr_rec.name = grname;
    return true;
}

credutl_passwd_sid_t *fill_passwd(const struct passwd *pw)
{
    if (pw == nullptr || !records_ready())
        return nullptr;
    pw_rec.user.uid = pw->pw_uid;
    make_unix_sid(pw->pw_uid, CREDUTL_SID_UNIX_UID, &pw_rec.user.sid);
    pw_rec.group.gid = pw->pw_gid;
    make_unix_sid(pw->pw_gid, CREDUTL_SID_UNIX_GID, &pw_rec.group.sid);
    store_fq_name(pw_rec.user.name, pw->pw_name);
    strutl_cpy_buf(pw_rec.home, HOME_SIZE, pw->pw_dir != nullptr ? pw->pw_dir : "");
    pw_rec.passwd = const_cast<char *>(UNKNOWN_PASSWD);
    // The passwd entry is complete here: the group database has its own
    // static storage, so asking it leaves pw untouched but we no longer need it.
    struct group *gr = getgrgid(pw_rec.group.gid);
    if (gr != nullptr && gr->gr_name != nullptr)
        store_fq_name(pw_rec.group.name, gr->gr_name);
    else
        pw_rec.group.name[0] = '\0';
    return &pw_rec;
}

credutl_group_sid_t *fill_group(const struct group *gr)
{
    if (gr == nullptr || !records_ready())
        return nullptr;
    gr_rec.gid = gr->gr_gid;
    make_unix_sid(gr->gr_gid, CREDUTL_SID_UNIX_GID, &gr_rec.sid);
    store_fq_name(gr_rec.name, gr->gr_name);
    return &gr_rec;
}

// A strdup copy, reporting when out of memory.
char *dup_name(const char *s)
{
    char *p = strdup(s != nullptr ? s : "");
    if (p == nullptr)
        imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_NO_STORAGE);
    return p;
}

// Releases every string of a record and empties it.
void clear_string_credentials(credutl_string_credentials_t *cred)
{
    free(cred->user);
    free(cred->group);
    for (int i = 0; i < CREDUTL_NGROUPS_MAX; i++)
        free(cred->groups[i]);
    memset(cred, 0, sizeof *cred);
}

char *user_name_of(credutl_uid_t uid)
{
    credutl_passwd_sid_t *pw = uid == CREDUTL_ID_NOBODY ? nullptr : credutl_getpwuid(uid);
    return dup_name(pw != nullptr ? pw->user.name : NOBODY_NAME);
}

char *group_name_of(credutl_gid_t gid)
{
    credutl_group_sid_t *gr = gid == CREDUTL_ID_NOBODY ? nullptr : credutl_getgrgid(gid);
    return dup_name(gr != nullptr ? gr->name : NOBODY_NAME);
}

credutl_uid_t uid_of_name(const char *name)
{
    if (name == nullptr || *name == '\0')
        return CREDUTL_ID_NOBODY;
    credutl_passwd_sid_t *pw = credutl_getpwnam(name);
    return pw != nullptr ? pw->user.uid : CREDUTL_ID_NOBODY;
}

credutl_gid_t gid_of_name(const char *name)
{
    if (name == nullptr || *name == '\0')
        return CREDUTL_ID_NOBODY;
    credutl_group_sid_t *gr = credutl_getgrnam(name);
    return gr != nullptr ? gr->gid : CREDUTL_ID_NOBODY;
}

bool is_special(const credutl_sid_t *sid)
{
    return sid->type == CREDUTL_SID_TYPE_NOBODY || sid->type == CREDUTL_SID_TYPE_DONTCARE;
}

int has_user(const credutl_sid_t *sid, const credutl_sid_t *user, const credutl_sid_t *group, int ngroups,
             const credutl_sid_t *groups)
{
    if (is_special(sid))
        return 0;
    if (credutl_sid_eq(sid, user))
        return 1;
    // A foreign identifier may name a group the user belongs to; a UNIX SID
    // names a user or a group, never both.
    if (sid->type != CREDUTL_SID_TYPE_FOREIGN)
        return 0;
    if (credutl_sid_eq(sid, group))
        return 1;
    for (int i = 0; i < ngroups; i++)
        if (credutl_sid_eq(sid, &groups[i]))
            return 1;
    return 0;
}

char *append(char *buf)
{
    return buf + strlen(buf);
}

// setgroups, then the gid, then the uid, stopping at the first failure.  A
// count beyond the record's slots is not clamped here but refused, as the
// kernel refuses an impossible count, rather than handing it memory past
// the record.
int apply_credentials(const credutl_credentials_t *cred, int (*set_gid)(gid_t), int (*set_uid)(uid_t))
{
    int rc;
    if (cred->ngroups > CREDUTL_NGROUPS_MAX) {
        errno = EINVAL;
        rc = -1;
    } else {
        rc = setgroups(static_cast<size_t>(static_cast<int64_t>(cred->ngroups)), cred->groups);
    }
    if (rc != 0) {
        imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, MSG_SETGROUPS, imsg_strerror(errno));
        return 1;
    }
    if (set_gid(cred->gid) != 0) {
        imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, MSG_SETGID, static_cast<int>(cred->gid), imsg_strerror(errno));
        return 1;
    }
    if (set_uid(cred->uid) != 0) {
        imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, MSG_SETUID, static_cast<int>(cred->uid), imsg_strerror(errno));
        return 1;
    }
    return 0;
}

} // namespace

/* ---- SIDs and ids ---- */

extern "C" credutl_sid_t *credutl_unix_uid_to_sid(credutl_uid_t uid, credutl_sid_t *sid)
{
    return make_unix_sid(uid, CREDUTL_SID_UNIX_UID, sid);
}

extern "C" credutl_sid_t *credutl_unix_gid_to_sid(credutl_gid_t gid, credutl_sid_t *sid)
{
    return make_unix_sid(gid, CREDUTL_SID_UNIX_GID, sid);
}

extern "C" credutl_uid_t credutl_sid_to_unix_uid(const credutl_sid_t *sid)
{
    return unix_sid_to_id(sid, CREDUTL_SID_UNIX_UID);
}

extern "C" credutl_gid_t credutl_sid_to_unix_gid(const credutl_sid_t *sid)
{
    return unix_sid_to_id(sid, CREDUTL_SID_UNIX_GID);
}

extern "C" credutl_sid_t *credutl_uid_to_sid(credutl_sid_t *sid, credutl_uid_t uid)
{
    return id_to_sid(sid, uid, CREDUTL_SID_UNIX_UID);
}

extern "C" credutl_sid_t *credutl_gid_to_sid(credutl_sid_t *sid, credutl_gid_t gid)
{
    return id_to_sid(sid, gid, CREDUTL_SID_UNIX_GID);
}

extern "C" credutl_uid_t credutl_sid_to_uid(const credutl_sid_t *sid)
{
    return sid_to_id(sid, CREDUTL_SID_UNIX_UID);
}

extern "C" credutl_gid_t credutl_sid_to_gid(const credutl_sid_t *sid)
{
    return sid_to_id(sid, CREDUTL_SID_UNIX_GID);
}

extern "C" int credutl_sid_eq(const credutl_sid_t *a, const credutl_sid_t *b)
{
    if (a == b)
        return 1;
    if (a->length != b->length)
        return 0;
    return memcmp(a, b, sid_len(a)) == 0 ? 1 : 0;
}

extern "C" uint32_t credutl_sid_hash_fn(const void *key)
{
    const credutl_sid_t *sid = static_cast<const credutl_sid_t *>(key);
    if (sid->type != CREDUTL_SID_TYPE_UNIX && sid->type != CREDUTL_SID_TYPE_FOREIGN)
        return sid->type == CREDUTL_SID_TYPE_DONTCARE ? 1 : 0;
    uint32_t h = sid->type;
    const uint8_t *p = sid_bytes(sid);
    size_t n = sid_len(sid);
    for (size_t i = 2; i < n; i++) {
        // The byte counts as a signed char: its sign spreads over the word.
        uint32_t b = static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(p[i])));
        h = h + ((h << 7) ^ b);
    }
    return h;
}

extern "C" int credutl_sid_keycmp_fn(const void *a_key, const void *b_key)
{
    const credutl_sid_t *a = static_cast<const credutl_sid_t *>(a_key);
    const credutl_sid_t *b = static_cast<const credutl_sid_t *>(b_key);
    if (a->type != b->type)
        return 0;
    if (is_special(a))
        return 1;
    if (a->type != CREDUTL_SID_TYPE_UNIX && a->type != CREDUTL_SID_TYPE_FOREIGN)
        return 0;
    return a->length == b->length && memcmp(a, b, sid_len(a)) == 0 ? 1 : 0;
}

extern "C" char *credutl_sid_to_str_raw(const credutl_sid_t *sid, char *buf)
{
    char hex[2 * CREDUTL_SID_VALUE_MAX + 1];
    size_t n = sid_len(sid);
    size_t pos = 0;
    static const char digits[] = "0123456789abcdef";
    for (size_t i = 2; i < n; i++) {
        uint8_t b = sid_bytes(sid)[i];
        hex[pos++] = digits[b >> 4];
        hex[pos++] = digits[b & 0x0F];
    }
    hex[pos] = '\0';
    sprintf(buf, "%s%d.%s", "SID:", static_cast<int>(static_cast<int8_t>(sid->type)), hex);
    return buf;
}

extern "C" char *credutl_sid_to_str(const credutl_sid_t *sid, char *buf)
{
    if (sid->type == CREDUTL_SID_TYPE_NOBODY) {
        strcpy(buf, "NOBODY");
        return buf;
    }
    if (sid->type == CREDUTL_SID_TYPE_DONTCARE) {
        strcpy(buf, "DONTCARE");
        return buf;
    }
    if (sid->type != CREDUTL_SID_TYPE_UNIX || sid->length != CREDUTL_SID_UNIX_LENGTH)
        return credutl_sid_to_str_raw(sid, buf);
    int type = sid->value[4];
    if (!(type == CREDUTL_SID_UNIX_UID || type == CREDUTL_SID_UNIX_GID))
        pfm_assert_fail("type == CREDUTL_SID_UNIX_UID || type == CREDUTL_SID_UNIX_GID", SOURCE, __LINE__);
    sprintf(buf, "%s%s-%d", "UNIX:", type == CREDUTL_SID_UNIX_GID ? "GID" : "UID",
            static_cast<int32_t>(unix_sid_id(sid)));
    return buf;
}

extern "C" int credutl_str_to_sid(const char *text, credutl_sid_t *sid)
{
    if (text == nullptr)
        return 1;
    if (strcmp(text, "NOBODY") == 0) {
        *sid = CREDUTL_SID_NOBODY;
        return 0;
    }
    if (strcmp(text, "DONTCARE") == 0) {
        *sid = CREDUTL_SID_DONTCARE;
        return 0;
    }
    if (strncmp(text, "UNIX:", 5) == 0) {
        uint8_t kind;
        if (strncmp(text + 5, "UID-", 4) == 0)
            kind = CREDUTL_SID_UNIX_UID;
        else if (strncmp(text + 5, "GID-", 4) == 0)
            kind = CREDUTL_SID_UNIX_GID;
        else
            return 1;
        make_unix_sid(static_cast<uint32_t>(atoi(text + 9)), kind, sid);
        return 0;
    }
    if (strncmp(text, "SID:", 4) == 0) {
        int type = atoi(text + 4);
        if (type >= 256)
            return 1;
        const char *p = strchr(text + 4, '.');
        if (p == nullptr)
            return 1;
        p++;
        // Built aside so that a refused text leaves the caller's SID alone.
        credutl_sid_t out;
        memset(&out, 0, sizeof out);
        out.type = static_cast<uint8_t>(type);
        size_t count = 0;
        while (*p != '\0') {
            unsigned int b;
            if (sscanf(p, "%02x", &b) != 1)
                break;
            // More than 32 value bytes cannot be held: refuse the text
            // rather than write past the SID.
            if (count == CREDUTL_SID_VALUE_MAX)
                return 1;
            out.value[count++] = static_cast<uint8_t>(b);
            if (p[1] == '\0')
                break;
            p += 2;
        }
        out.length = static_cast<uint8_t>(2 + count);
        *sid = out;
        return 0;
    }
    return 1;
}

/* ---- The process's credentials ---- */

extern "C" int credutl_get_credentials(credutl_credentials_t *cred)
{
    int n = 0;
    gid_t *list = fetch_groups(&n);
    if (list == nullptr)
        return 1;
    credutl_gid_t gids[CREDUTL_NGROUPS_MAX];
    int used = n > CREDUTL_NGROUPS_MAX ? CREDUTL_NGROUPS_MAX : n;
    for (int i = 0; i < used; i++)
        gids[i] = list[i];
    stg_free(list);
    credutl_init_credentials(geteuid(), getegid(), used, gids, cred);
    return 0;
}

extern "C" int credutl_get_sid_credentials(credutl_sid_credentials_t *sidcred)
{
    credutl_credentials_t cred;
    if (credutl_get_credentials(&cred) != 0)
        return 1;
    credutl_sid_t usid;
    credutl_sid_t gsid;
    credutl_sid_t sids[CREDUTL_NGROUPS_MAX];
    credutl_uid_to_sid(&usid, cred.uid);
    credutl_gid_to_sid(&gsid, cred.gid);
    for (int i = 0; i < cred.ngroups; i++)
        credutl_gid_to_sid(&sids[i], cred.groups[i]);
    credutl_init_sid_credentials(&usid, &gsid, cred.ngroups, sids, sidcred);
    return 0;
}

extern "C" int credutl_get_whole_credentials(credutl_whole_credentials_t *whole)
{
    int n = 0;
    gid_t *list = fetch_groups(&n);
    if (list == nullptr)
        return 1;
    credutl_sid_t *sids = nullptr;
    if (n > 0) {
        sids = static_cast<credutl_sid_t *>(stg_malloc(static_cast<size_t>(n) * sizeof(credutl_sid_t)));
        if (sids == nullptr) {
            stg_free(list);
            imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_NO_STORAGE);
            return 1;
        }
    }
    credutl_uid_to_sid(&whole->user, geteuid());
    credutl_gid_to_sid(&whole->group, getegid());
    for (int i = 0; i < n; i++)
        credutl_gid_to_sid(&sids[i], list[i]);
    stg_free(list);
    for (int i = 0; i < n; i++) {
        if (credutl_sid_eq(&sids[i], &whole->group)) {
            memmove(&sids[i], &sids[i + 1], static_cast<size_t>(n - i - 1) * sizeof(credutl_sid_t));
            n--;
            break;
        }
    }
    whole->ngroups = n;
    whole->groups = sids;
    return 0;
}

extern "C" void credutl_free_whole_credentials(credutl_whole_credentials_t *whole)
{
    stg_free(whole->groups);
    whole->groups = nullptr;
    whole->ngroups = 0;
}

extern "C" credutl_sid_t *credutl_getusid(void)
{
    return make_unix_sid(geteuid(), CREDUTL_SID_UNIX_UID, &usid_buf);
}

extern "C" credutl_sid_t *credutl_getgsid(void)
{
    return make_unix_sid(getegid(), CREDUTL_SID_UNIX_GID, &gsid_buf);
}

extern "C" int credutl_getgroups(int want, credutl_sid_t *sids)
{
    if (want == 0) {
        int n = getgroups(0, nullptr);
        if (n < 0)
            imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, MSG_GETGROUPS, imsg_strerror(errno));
        return n < 0 ? -1 : n;
    }
    int n = 0;
    gid_t *list = fetch_groups(&n);
    if (list == nullptr)
        return -1;
    if (n > CREDUTL_NGROUPS_MAX)
        n = CREDUTL_NGROUPS_MAX;
    for (int i = 0; i < n; i++)
        credutl_gid_to_sid(&sids[i], list[i]);
    stg_free(list);
    return n;
}

extern "C" int credutl_set_credentials(const credutl_credentials_t *cred)
{
    return apply_credentials(cred, setgid, setuid);
}

extern "C" int credutl_set_effective_credentials(credutl_credentials_t *cred)
{
    if (cred->ngroups > CREDUTL_NGROUPS_MAX)
        cred->ngroups = CREDUTL_NGROUPS_MAX;
    return apply_credentials(cred, setegid, seteuid);
}

extern "C" int credutl_is_root(void)
{
    return geteuid() == 0 ? 1 : 0;
}

extern "C" int credutl_is_privileged(void)
{
    return geteuid() == 0 ? 1 : 0;
}

extern "C" void credutl_init_credentials(credutl_uid_t uid, credutl_gid_t gid, int ngroups,
                                         const credutl_gid_t *gids, credutl_credentials_t *cred)
{
    if (!(ngroups <= CREDUTL_NGROUPS_MAX))
        pfm_assert_fail("ngroup <= CREDUTL_NGROUPS_MAX", SOURCE, __LINE__);
    credutl_gid_t list[CREDUTL_NGROUPS_MAX];
    int n = 0;
    for (int i = 0; i < ngroups; i++)
        if (gids[i] != gid)
            list[n++] = gids[i];
    std::sort(list, list + n);
    cred->uid = uid;
    cred->gid = gid;
    memset(cred->groups, 0, sizeof cred->groups);
    int kept = 0;
    for (int i = 0; i < n; i++)
        if (kept == 0 || cred->groups[kept - 1] != list[i])
            cred->groups[kept++] = list[i];
    cred->ngroups = kept;
}

extern "C" void credutl_init_sid_credentials(const credutl_sid_t *usid, const credutl_sid_t *gsid,
                                             int ngroups, const credutl_sid_t *sids,
                                             credutl_sid_credentials_t *sidcred)
{
    credutl_sid_t user = *usid;
    credutl_sid_t group = *gsid;
    credutl_sid_t list[CREDUTL_NGROUPS_MAX];
    int n = 0;
    for (int i = 0; i < ngroups && n < CREDUTL_NGROUPS_MAX; i++) {
        if (credutl_sid_eq(&sids[i], &group) || is_special(&sids[i]))
            continue;
        list[n++] = sids[i];
    }
    std::sort(list, list + n,
              [](const credutl_sid_t &a, const credutl_sid_t &b) { return sid_cmp(&a, &b) < 0; });
    sidcred->user = user;
    sidcred->group = group;
    memset(sidcred->groups, 0, sizeof sidcred->groups);
    int kept = 0;
    for (int i = 0; i < n; i++)
        if (kept == 0 || !credutl_sid_eq(&sidcred->groups[kept - 1], &list[i]))
            sidcred->groups[kept++] = list[i];
    sidcred->ngroups = kept;
}

/* ---- Membership ---- */

extern "C" int credutl_has_group(credutl_gid_t gid, const credutl_credentials_t *cred)
{
    if (gid == cred->gid)
        return 1;
    int n = clamp_ngroups(cred->ngroups);
    for (int i = 0; i < n; i++)
        if (cred->groups[i] == gid)
            return 1;
    return 0;
}

extern "C" int credutl_has_group_sid(const credutl_sid_t *sid, const credutl_sid_credentials_t *sidcred)
{
    if (credutl_sid_eq(sid, &sidcred->group))
        return 1;
    int n = clamp_ngroups(sidcred->ngroups);
    for (int i = 0; i < n; i++)
        if (credutl_sid_eq(sid, &sidcred->groups[i]))
            return 1;
    return 0;
}

extern "C" int credutl_has_group_whole(const credutl_sid_t *sid, const credutl_whole_credentials_t *whole)
{
    if (credutl_sid_eq(sid, &whole->group))
        return 1;
    for (int i = 0; i < whole->ngroups && whole->groups != nullptr; i++)
        if (credutl_sid_eq(sid, &whole->groups[i]))
            return 1;
    return 0;
}

extern "C" int credutl_has_user_sid(const credutl_sid_t *sid, const credutl_sid_credentials_t *sidcred)
{
    return has_user(sid, &sidcred->user, &sidcred->group, clamp_ngroups(sidcred->ngroups), sidcred->groups);
}

extern "C" int credutl_has_user(const credutl_sid_t *sid, const credutl_whole_credentials_t *whole)
{
    int n = whole->groups != nullptr && whole->ngroups > 0 ? whole->ngroups : 0;
    return has_user(sid, &whole->user, &whole->group, n, whole->groups);
}

/* ---- Conversions ---- */

extern "C" void credutl_credentials_to_sid_credentials(const credutl_credentials_t *from,
                                                       credutl_sid_credentials_t *to)
{
    credutl_credentials_t src = *from;
    memset(to, 0, sizeof *to);
    credutl_uid_to_sid(&to->user, src.uid);
    credutl_gid_to_sid(&to->group, src.gid);
    int n = clamp_ngroups(src.ngroups);
    for (int i = 0; i < n; i++)
        credutl_gid_to_sid(&to->groups[i], src.groups[i]);
    to->ngroups = n;
}

extern "C" void credutl_sid_credentials_to_credentials(const credutl_sid_credentials_t *from,
                                                       credutl_credentials_t *to)
{
    credutl_sid_credentials_t src = *from;
    memset(to, 0, sizeof *to);
    to->uid = credutl_sid_to_uid(&src.user);
    to->gid = credutl_sid_to_gid(&src.group);
    int n = clamp_ngroups(src.ngroups);
    int kept = 0;
    for (int i = 0; i < n; i++) {
        credutl_gid_t gid = credutl_sid_to_gid(&src.groups[i]);
        if (gid == CREDUTL_ID_NOBODY && keep_nobody_groups == 0)
            continue;
        to->groups[kept++] = gid;
    }
    to->ngroups = kept;
}

extern "C" int credutl_credentials_to_string_credentials(const credutl_credentials_t *from,
                                                         credutl_string_credentials_t *to)
{
    credutl_credentials_t src = *from;
    memset(to, 0, sizeof *to);
    to->user = user_name_of(src.uid);
    to->group = group_name_of(src.gid);
    if (to->user == nullptr || to->group == nullptr) {
        clear_string_credentials(to);
        return 1;
    }
    int n = clamp_ngroups(src.ngroups);
    for (int i = 0; i < n; i++) {
        to->groups[i] = group_name_of(src.groups[i]);
        if (to->groups[i] == nullptr) {
            clear_string_credentials(to);
            return 1;
        }
    }
    to->ngroups = n;
    return 0;
}

extern "C" int credutl_sid_credentials_to_string_credentials(const credutl_sid_credentials_t *from,
                                                             credutl_string_credentials_t *to)
{
    credutl_credentials_t cred;
    credutl_sid_credentials_to_credentials(from, &cred);
    return credutl_credentials_to_string_credentials(&cred, to);
}

extern "C" void credutl_string_credentials_to_credentials(const credutl_string_credentials_t *from,
                                                          credutl_credentials_t *to)
{
    // from may share nothing with to, but the look-ups reuse the module's
    // records: every id is read before the next look-up.
    credutl_credentials_t out;
    memset(&out, 0, sizeof out);
    out.uid = uid_of_name(from->user);
    out.gid = gid_of_name(from->group);
    int n = clamp_ngroups(from->ngroups);
    for (int i = 0; i < n; i++)
        out.groups[i] = gid_of_name(from->groups[i]);
    out.ngroups = n;
    *to = out;
}

extern "C" void credutl_string_credentials_to_sid_credentials(const credutl_string_credentials_t *from,
                                                              credutl_sid_credentials_t *to)
{
    credutl_credentials_t cred;
    credutl_string_credentials_to_credentials(from, &cred);
    credutl_credentials_to_sid_credentials(&cred, to);
}

extern "C" int credutl_copy_string_credentials(const credutl_string_credentials_t *from,
                                               credutl_string_credentials_t *to)
{
    if (from == to)
        return 0;
    memset(to, 0, sizeof *to);
    int n = clamp_ngroups(from->ngroups);
    if (from->user != nullptr && (to->user = dup_name(from->user)) == nullptr)
        return 1;
    if (from->group != nullptr && (to->group = dup_name(from->group)) == nullptr) {
        clear_string_credentials(to);
        return 1;
    }
    for (int i = 0; i < n; i++) {
        if (from->groups[i] != nullptr && (to->groups[i] = dup_name(from->groups[i])) == nullptr) {
            clear_string_credentials(to);
            return 1;
        }
    }
    to->ngroups = n;
    return 0;
}

extern "C" void credutl_free_string_credentials(credutl_string_credentials_t *cred)
{
    free(cred->user);
    free(cred->group);
    int n = clamp_ngroups(cred->ngroups);
    for (int i = 0; i < n; i++)
        free(cred->groups[i]);
    // Only the user pointer is reset; callers have long relied on the rest
    // of the record keeping its values.
    cred->user = nullptr;
}

extern "C" char *credutl_credentials_to_str(const credutl_credentials_t *cred, char *buf)
{
    imsg_sprintf(append(buf), &_credutl_ks_msg_table, MSG_CRED_IDS, static_cast<int>(cred->uid), static_cast<int>(cred->gid));
    int n = clamp_ngroups(cred->ngroups);
    if (n > 0) {
        imsg_sprintf(append(buf), &_credutl_ks_msg_table, MSG_GROUPS);
        for (int i = 0; i < n; i++)
            imsg_sprintf(append(buf), &_credutl_ks_msg_table, MSG_CRED_GROUP, static_cast<int>(cred->groups[i]));
    }
    return buf;
}

extern "C" char *credutl_sid_credentials_to_str(const credutl_sid_credentials_t *sidcred, char *buf)
{
    char user[CREDUTL_SID_STR_SIZE];
    char group[CREDUTL_SID_STR_SIZE];
    imsg_sprintf(append(buf), &_credutl_ks_msg_table, MSG_SID_IDS, credutl_sid_to_str(&sidcred->user, user),
                 credutl_sid_to_str(&sidcred->group, group));
    int n = clamp_ngroups(sidcred->ngroups);
    if (n > 0) {
        imsg_sprintf(append(buf), &_credutl_ks_msg_table, MSG_GROUPS);
        for (int i = 0; i < n; i++)
            imsg_sprintf(append(buf), &_credutl_ks_msg_table, MSG_SID_GROUP,
                         credutl_sid_to_str(&sidcred->groups[i], group));
    }
    return buf;
}

/* ---- Names and look-ups ---- */

extern "C" credutl_passwd_sid_t *credutl_getpwnam(const char *name)
{
    if (name == nullptr)
        return nullptr;
    const char *plain = local_part(name);
    if (plain == nullptr)
        return nullptr;
    return fill_passwd(getpwnam(plain));
}

extern "C" credutl_passwd_sid_t *credutl_getpwuid(credutl_uid_t uid)
{
    return fill_passwd(getpwuid(uid));
}

extern "C" credutl_passwd_sid_t *credutl_getpwsid(const credutl_sid_t *sid)
{
    if (sid->type != CREDUTL_SID_TYPE_UNIX || sid->length != CREDUTL_SID_UNIX_LENGTH ||
        sid->value[4] != CREDUTL_SID_UNIX_UID)
        return nullptr;
    return credutl_getpwuid(unix_sid_id(sid));
}

extern "C" credutl_group_sid_t *credutl_getgrnam(const char *name)
{
    if (name == nullptr)
        return nullptr;
    const char *plain = local_part(name);
    if (plain == nullptr)
        return nullptr;
    return fill_group(getgrnam(plain));
}

extern "C" credutl_group_sid_t *credutl_getgrgid(credutl_gid_t gid)
{
    return fill_group(getgrgid(gid));
}

extern "C" credutl_group_sid_t *credutl_getgrsid(const credutl_sid_t *sid)
{
    if (sid->type != CREDUTL_SID_TYPE_UNIX || sid->length != CREDUTL_SID_UNIX_LENGTH ||
        sid->value[4] != CREDUTL_SID_UNIX_GID)
        return nullptr;
    return credutl_getgrgid(unix_sid_id(sid));
}

extern "C" void credutl_crack_fq_name(const char *fqname, char *domain, size_t domainsize, char *name,
                                      size_t namesize)
{
    if (fqname == nullptr)
        fqname = "";
    const char *sep = find_separator(fqname);
    if (sep == nullptr) {
        strutl_cpy_buf(domain, domainsize, UNKNOWN_DOMAIN);
        strutl_cpy_buf(name, namesize, fqname);
        return;
    }
    strutl_ncpy_buf(domain, domainsize, fqname, static_cast<size_t>(sep - fqname));
    strutl_cpy_buf(name, namesize, sep + 1);
}

extern "C" const char *credutl_get_domain(void)
{
    if (host_domain(domain_buf) != 0)
        strutl_cpy_buf(domain_buf, sizeof domain_buf, UNKNOWN_DOMAIN);
    return domain_buf;
}

extern "C" int credutl_string_eq(const char *a, const char *b)
{
    if (a == b)
        return 1;
    // The login name lives in a static buffer: take a copy before anything
    // else can overwrite it.
    char login[NAME_SIZE];
    if (a == nullptr || b == nullptr)
        strutl_cpy_buf(login, sizeof login, sysutl_myloginname());
    if (a == nullptr)
        a = login;
    if (b == nullptr)
        b = login;
    if (strutl_stricoll(a, b) == 0)
        return 1;
    char domain[NAME_SIZE];
    char name_a[NAME_SIZE];
    char name_b[NAME_SIZE];
    credutl_crack_fq_name(a, domain, sizeof domain, name_a, sizeof name_a);
    credutl_crack_fq_name(b, domain, sizeof domain, name_b, sizeof name_b);
    return strutl_stricoll(name_a, name_b) == 0 ? 1 : 0;
}
