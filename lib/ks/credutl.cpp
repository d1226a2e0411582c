// Credentials: the text forms of SIDs, normalised records, membership, the
// numeric and SID forms and their texts, and the process's own credentials.
#include "ks/credutl.h"

#include <errno.h>
#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "ks/imsg.h"
#include "ks/stg.h"
#include "credutl_internal.h"
#include "credutl_msg.h"
#include "ks_assert.h"
#include "ks_msg.h"

int keep_nobody_groups = 0;

namespace {

credutl_sid_t usid_buf;
credutl_sid_t gsid_buf;

// The text after prefix, or null when text does not start with it.
const char *skip_prefix(const char *text, std::string_view prefix)
{
    return strncmp(text, prefix.data(), prefix.size()) == 0 ? text + prefix.size() : nullptr;
}

// "UID-n" or "GID-n", the part of a "UNIX:" text after its prefix; the number
// is read with atoi, whatever follows it.
bool parse_unix_text(const char *rest, credutl_sid_t *sid)
{
    if (const char *num = skip_prefix(rest, "UID-"))
        credutl_unix_uid_to_sid(static_cast<uint32_t>(atoi(num)), sid);
    else if (const char *num = skip_prefix(rest, "GID-"))
        credutl_unix_gid_to_sid(static_cast<uint32_t>(atoi(num)), sid);
    else
        return false;
    return true;
}

// "type.hexbytes", the part of a "SID:" text after its prefix: the type read
// with atoi, then hex pairs until one fails to read.
bool parse_raw_text(const char *rest, credutl_sid_t *sid)
{
    int type = atoi(rest);
    if (type >= 256)
        return false;
    const char *p = strchr(rest, '.');
    if (p == nullptr)
        return false;
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
        // More than 32 value bytes cannot be held: refuse the text rather
        // than write past the SID.
        if (count == CREDUTL_SID_VALUE_MAX)
            return false;
        out.value[count++] = static_cast<uint8_t>(b);
        if (p[1] == '\0')
            break;
        p += 2;
    }
    out.length = static_cast<uint8_t>(2 + count);
    *sid = out;
    return true;
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
    size_t n = ks::sid_length(a);
    return n > 2 ? memcmp(a->value, b->value, n - 2) : 0;
}

int has_user(const credutl_sid_t *sid, const credutl_sid_t *user, const credutl_sid_t *group,
             int ngroups, const credutl_sid_t *groups)
{
    if (ks::sid_is_special(sid))
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

// Every supplementary group of the process, in a block of stg_malloc; the
// count in *count.  Null after the getgroups message.  An empty list gives a
// non-null block and a count of 0.
gid_t *fetch_groups(int *count)
{
    int n = getgroups(0, nullptr);
    if (n < 0) {
        imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, CREDUTL_MSG_GETGROUPS, imsg_strerror(errno));
        return nullptr;
    }
    auto *list = static_cast<gid_t *>(stg_malloc((n > 0 ? n : 1) * sizeof(gid_t)));
    if (list == nullptr) {
        errno = ENOMEM;
        imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, CREDUTL_MSG_GETGROUPS, imsg_strerror(errno));
        return nullptr;
    }
    n = getgroups(n, list);
    if (n < 0) {
        int err = errno;
        stg_free(list);
        imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, CREDUTL_MSG_GETGROUPS, imsg_strerror(err));
        return nullptr;
    }
    *count = n;
    return list;
}

// setgroups, then the gid, then the uid, stopping at the first failure.  A
// count beyond the record's slots is not clamped here but refused, as the
// kernel refuses an impossible count, rather than handing it memory past
// the record.
int apply_credentials(const credutl_credentials_t *cred, int (*set_gid)(gid_t),
                      int (*set_uid)(uid_t))
{
    int rc;
    if (cred->ngroups > CREDUTL_NGROUPS_MAX) {
        errno = EINVAL;
        rc = -1;
    } else {
        rc = setgroups(static_cast<size_t>(static_cast<int64_t>(cred->ngroups)), cred->groups);
    }
    if (rc != 0) {
        imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, CREDUTL_MSG_SETGROUPS, imsg_strerror(errno));
        return 1;
    }
    if (set_gid(cred->gid) != 0) {
        imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, CREDUTL_MSG_SETGID,
                   static_cast<int>(cred->gid), imsg_strerror(errno));
        return 1;
    }
    if (set_uid(cred->uid) != 0) {
        imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, CREDUTL_MSG_SETUID,
                   static_cast<int>(cred->uid), imsg_strerror(errno));
        return 1;
    }
    return 0;
}

} // namespace

/* ---- SID texts ---- */

char *credutl_sid_to_str_raw(const credutl_sid_t *sid, char *buf)
{
    constexpr std::string_view kHexDigits = "0123456789abcdef";
    char hex[2 * CREDUTL_SID_VALUE_MAX + 1];
    size_t pos = 0;
    for (size_t i = 0; i + 2 < ks::sid_length(sid); i++) {
        uint8_t b = sid->value[i];
        hex[pos++] = kHexDigits[b >> 4];
        hex[pos++] = kHexDigits[b & 0x0F];
    }
    hex[pos] = '\0';
    sprintf(buf, "%s%d.%s", "SID:", static_cast<int>(static_cast<int8_t>(sid->type)), hex);
    return buf;
}

char *credutl_sid_to_str(const credutl_sid_t *sid, char *buf)
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
    KS_ASSERT(type == CREDUTL_SID_UNIX_UID || type == CREDUTL_SID_UNIX_GID,
              "type == CREDUTL_SID_UNIX_UID || type == CREDUTL_SID_UNIX_GID");
    uint32_t id =
        type == CREDUTL_SID_UNIX_GID ? credutl_sid_to_unix_gid(sid) : credutl_sid_to_unix_uid(sid);
    sprintf(buf, "%s%s-%d", "UNIX:", type == CREDUTL_SID_UNIX_GID ? "GID" : "UID",
            static_cast<int32_t>(id));
    return buf;
}

int credutl_str_to_sid(const char *text, credutl_sid_t *sid)
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
    if (const char *rest = skip_prefix(text, "UNIX:"))
        return parse_unix_text(rest, sid) ? 0 : 1;
    if (const char *rest = skip_prefix(text, "SID:"))
        return parse_raw_text(rest, sid) ? 0 : 1;
    return 1;
}

/* ---- The process's credentials ---- */

int credutl_get_credentials(credutl_credentials_t *cred)
{
    int n = 0;
    gid_t *list = fetch_groups(&n);
    if (list == nullptr)
        return 1;
    credutl_gid_t gids[CREDUTL_NGROUPS_MAX];
    int used = n > CREDUTL_NGROUPS_MAX ? CREDUTL_NGROUPS_MAX : n;
    std::copy(list, list + used, gids);
    stg_free(list);
    credutl_init_credentials(geteuid(), getegid(), used, gids, cred);
    return 0;
}

int credutl_get_sid_credentials(credutl_sid_credentials_t *sidcred)
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

int credutl_get_whole_credentials(credutl_whole_credentials_t *whole)
{
    int n = 0;
    gid_t *list = fetch_groups(&n);
    if (list == nullptr)
        return 1;
    credutl_sid_t *sids = nullptr;
    if (n > 0) {
        sids = static_cast<credutl_sid_t *>(
            stg_malloc(static_cast<size_t>(n) * sizeof(credutl_sid_t)));
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

void credutl_free_whole_credentials(credutl_whole_credentials_t *whole)
{
    stg_free(whole->groups);
    whole->groups = nullptr;
    whole->ngroups = 0;
}

credutl_sid_t *credutl_getusid(void)
{
    return credutl_unix_uid_to_sid(geteuid(), &usid_buf);
}

credutl_sid_t *credutl_getgsid(void)
{
    return credutl_unix_gid_to_sid(getegid(), &gsid_buf);
}

int credutl_getgroups(int want, credutl_sid_t *sids)
{
    if (want == 0) {
        int n = getgroups(0, nullptr);
        if (n < 0)
            imsg_print(IMSG_ERROR, &_credutl_ks_msg_table, CREDUTL_MSG_GETGROUPS,
                       imsg_strerror(errno));
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

int credutl_set_credentials(const credutl_credentials_t *cred)
{
    return apply_credentials(cred, setgid, setuid);
}

int credutl_set_effective_credentials(credutl_credentials_t *cred)
{
    if (cred->ngroups > CREDUTL_NGROUPS_MAX)
        cred->ngroups = CREDUTL_NGROUPS_MAX;
    return apply_credentials(cred, setegid, seteuid);
}

int credutl_is_root(void)
{
    return geteuid() == 0 ? 1 : 0;
}

int credutl_is_privileged(void)
{
    return geteuid() == 0 ? 1 : 0;
}

void credutl_init_credentials(credutl_uid_t uid, credutl_gid_t gid, int ngroups,
                              const credutl_gid_t *gids, credutl_credentials_t *cred)
{
    KS_ASSERT(ngroups <= CREDUTL_NGROUPS_MAX, "ngroup <= CREDUTL_NGROUPS_MAX");
    credutl_gid_t list[CREDUTL_NGROUPS_MAX];
    int n = 0;
    for (int i = 0; i < ngroups; i++)
        if (gids[i] != gid)
            list[n++] = gids[i];
    std::sort(list, list + n);
    cred->uid = uid;
    cred->gid = gid;
    memset(cred->groups, 0, sizeof cred->groups);
    cred->ngroups =
        static_cast<int32_t>(std::unique_copy(list, list + n, cred->groups) - cred->groups);
}

void credutl_init_sid_credentials(const credutl_sid_t *usid, const credutl_sid_t *gsid, int ngroups,
                                  const credutl_sid_t *sids, credutl_sid_credentials_t *sidcred)
{
    credutl_sid_t user = *usid;
    credutl_sid_t group = *gsid;
    credutl_sid_t list[CREDUTL_NGROUPS_MAX];
    int n = 0;
    for (int i = 0; i < ngroups && n < CREDUTL_NGROUPS_MAX; i++) {
        if (credutl_sid_eq(&sids[i], &group) || ks::sid_is_special(&sids[i]))
            continue;
        list[n++] = sids[i];
    }
    std::sort(list, list + n,
              [](const credutl_sid_t &a, const credutl_sid_t &b) { return sid_cmp(&a, &b) < 0; });
    sidcred->user = user;
    sidcred->group = group;
    memset(sidcred->groups, 0, sizeof sidcred->groups);
    credutl_sid_t *end = std::unique_copy(
        list, list + n, sidcred->groups,
        [](const credutl_sid_t &a, const credutl_sid_t &b) { return credutl_sid_eq(&a, &b) != 0; });
    sidcred->ngroups = static_cast<int32_t>(end - sidcred->groups);
}

/* ---- Membership ---- */

int credutl_has_group(credutl_gid_t gid, const credutl_credentials_t *cred)
{
    if (gid == cred->gid)
        return 1;
    int n = ks::group_slots(cred->ngroups);
    return std::find(cred->groups, cred->groups + n, gid) != cred->groups + n ? 1 : 0;
}

int credutl_has_group_sid(const credutl_sid_t *sid, const credutl_sid_credentials_t *sidcred)
{
    if (credutl_sid_eq(sid, &sidcred->group))
        return 1;
    int n = ks::group_slots(sidcred->ngroups);
    for (int i = 0; i < n; i++)
        if (credutl_sid_eq(sid, &sidcred->groups[i]))
            return 1;
    return 0;
}

int credutl_has_group_whole(const credutl_sid_t *sid, const credutl_whole_credentials_t *whole)
{
    if (credutl_sid_eq(sid, &whole->group))
        return 1;
    for (int i = 0; i < whole->ngroups && whole->groups != nullptr; i++)
        if (credutl_sid_eq(sid, &whole->groups[i]))
            return 1;
    return 0;
}

int credutl_has_user_sid(const credutl_sid_t *sid, const credutl_sid_credentials_t *sidcred)
{
    return has_user(sid, &sidcred->user, &sidcred->group, ks::group_slots(sidcred->ngroups),
                    sidcred->groups);
}

int credutl_has_user(const credutl_sid_t *sid, const credutl_whole_credentials_t *whole)
{
    int n = whole->groups != nullptr && whole->ngroups > 0 ? whole->ngroups : 0;
    return has_user(sid, &whole->user, &whole->group, n, whole->groups);
}

/* ---- Numeric and SID forms ---- */

void credutl_credentials_to_sid_credentials(const credutl_credentials_t *from,
                                            credutl_sid_credentials_t *to)
{
    credutl_credentials_t src = *from;
    memset(to, 0, sizeof *to);
    credutl_uid_to_sid(&to->user, src.uid);
    credutl_gid_to_sid(&to->group, src.gid);
    int n = ks::group_slots(src.ngroups);
    for (int i = 0; i < n; i++)
        credutl_gid_to_sid(&to->groups[i], src.groups[i]);
    to->ngroups = n;
}

void credutl_sid_credentials_to_credentials(const credutl_sid_credentials_t *from,
                                            credutl_credentials_t *to)
{
    credutl_sid_credentials_t src = *from;
    memset(to, 0, sizeof *to);
    to->uid = credutl_sid_to_uid(&src.user);
    to->gid = credutl_sid_to_gid(&src.group);
    int n = ks::group_slots(src.ngroups);
    int kept = 0;
    for (int i = 0; i < n; i++) {
        credutl_gid_t gid = credutl_sid_to_gid(&src.groups[i]);
        if (gid == CREDUTL_ID_NOBODY && keep_nobody_groups == 0)
            continue;
        to->groups[kept++] = gid;
    }
    to->ngroups = kept;
}

char *credutl_credentials_to_str(const credutl_credentials_t *cred, char *buf)
{
    imsg_sprintf(append(buf), &_credutl_ks_msg_table, CREDUTL_MSG_CRED_IDS,
                 static_cast<int>(cred->uid), static_cast<int>(cred->gid));
    int n = ks::group_slots(cred->ngroups);
    if (n > 0) {
        imsg_sprintf(append(buf), &_credutl_ks_msg_table, CREDUTL_MSG_GROUPS);
        for (int i = 0; i < n; i++)
            imsg_sprintf(append(buf), &_credutl_ks_msg_table, CREDUTL_MSG_CRED_GROUP,
                         static_cast<int>(cred->groups[i]));
    }
    return buf;
}

char *credutl_sid_credentials_to_str(const credutl_sid_credentials_t *sidcred, char *buf)
{
    char user[CREDUTL_SID_STR_SIZE];
    char group[CREDUTL_SID_STR_SIZE];
    imsg_sprintf(append(buf), &_credutl_ks_msg_table, CREDUTL_MSG_SID_IDS,
                 credutl_sid_to_str(&sidcred->user, user),
                 credutl_sid_to_str(&sidcred->group, group));
    int n = ks::group_slots(sidcred->ngroups);
    if (n > 0) {
        imsg_sprintf(append(buf), &_credutl_ks_msg_table, CREDUTL_MSG_GROUPS);
        for (int i = 0; i < n; i++)
            imsg_sprintf(append(buf), &_credutl_ks_msg_table, CREDUTL_MSG_SID_GROUP,
                         credutl_sid_to_str(&sidcred->groups[i], group));
    }
    return buf;
}
