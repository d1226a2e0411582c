// Names: passwd and group look-ups answering with domain-qualified names,
// qualified names taken apart and compared, and the string form of
// credentials.
#include "ks/credutl.h"

#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/types.h>

#include "ks/imsg.h"
#include "ks/stg.h"
#include "ks/strutl.h"
#include "ks/sysutl.h"
#include "credutl_internal.h"
#include "ks_msg.h"

namespace {

constexpr char kUnknownDomain[] = "<unknown>";
constexpr char kUnknownPasswd[] = "<credutl_fq_passwd unknown>";
constexpr char kNobodyName[] = "nobody";

constexpr size_t kNameSize = 256;
constexpr size_t kHomeSize = 1024;
constexpr size_t kDomainSize = 256;

credutl_passwd_sid_t pw_rec;
credutl_group_sid_t gr_rec;
char domain_buf[kDomainSize];

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

// The host's domain into buf (kDomainSize bytes); 1 when it has none.
int host_domain(char *buf)
{
    return sysutl_get_host_domain_name(buf, kDomainSize);
}

// The plain name to look up for name: name itself, or the part after the
// separator when the domain before it is this host's (same length, case
// ignored).  Null when the domain is another or the host has none.
const char *local_part(const char *name)
{
    const char *sep = find_separator(name);
    if (sep == nullptr)
        return name;
    char domain[kDomainSize];
    if (host_domain(domain) != 0)
        return nullptr;
    auto len = static_cast<size_t>(sep - name);
    if (strlen(domain) != len || strncasecmp(domain, name, len) != 0)
        return nullptr;
    return sep + 1;
}

// Stores the qualified form of name into buf (kNameSize bytes): domain/name
// when the host has a domain, else the plain name.
void store_fq_name(char *buf, const char *name)
{
    char domain[kDomainSize];
    if (host_domain(domain) == 0)
        strutl_concat(buf, kNameSize, 3, domain, "/", name);
    else
        strutl_cpy_buf(buf, kNameSize, name);
}

// Buffers of the passwd and group records, made on the first look-up.
bool records_ready()
{
    if (pw_rec.user.name != nullptr)
        return true;
    auto *user = static_cast<char *>(stg_malloc(kNameSize));
    auto *group = static_cast<char *>(stg_malloc(kNameSize));
    auto *home = static_cast<char *>(stg_malloc(kHomeSize));
    auto *grname = static_cast<char *>(stg_malloc(kNameSize));
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
    pw_rec.passwd = const_cast<char *>(kUnknownPasswd);
    gr_rec.name = grname;
    return true;
}

credutl_passwd_sid_t *fill_passwd(const struct passwd *pw)
{
    if (pw == nullptr || !records_ready())
        return nullptr;
    pw_rec.user.uid = pw->pw_uid;
    credutl_unix_uid_to_sid(pw->pw_uid, &pw_rec.user.sid);
    pw_rec.group.gid = pw->pw_gid;
    credutl_unix_gid_to_sid(pw->pw_gid, &pw_rec.group.sid);
    store_fq_name(pw_rec.user.name, pw->pw_name);
    strutl_cpy_buf(pw_rec.home, kHomeSize, pw->pw_dir != nullptr ? pw->pw_dir : "");
    pw_rec.passwd = const_cast<char *>(kUnknownPasswd);
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
    credutl_unix_gid_to_sid(gr->gr_gid, &gr_rec.sid);
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
    for (char *group : cred->groups)
        free(group);
    memset(cred, 0, sizeof *cred);
}

char *user_name_of(credutl_uid_t uid)
{
    credutl_passwd_sid_t *pw = uid == CREDUTL_ID_NOBODY ? nullptr : credutl_getpwuid(uid);
    return dup_name(pw != nullptr ? pw->user.name : kNobodyName);
}

char *group_name_of(credutl_gid_t gid)
{
    credutl_group_sid_t *gr = gid == CREDUTL_ID_NOBODY ? nullptr : credutl_getgrgid(gid);
    return dup_name(gr != nullptr ? gr->name : kNobodyName);
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

} // namespace

/* ---- Look-ups ---- */

credutl_passwd_sid_t *credutl_getpwnam(const char *name)
{
    if (name == nullptr)
        return nullptr;
    const char *plain = local_part(name);
    if (plain == nullptr)
        return nullptr;
    return fill_passwd(getpwnam(plain));
}

credutl_passwd_sid_t *credutl_getpwuid(credutl_uid_t uid)
{
    return fill_passwd(getpwuid(uid));
}

credutl_passwd_sid_t *credutl_getpwsid(const credutl_sid_t *sid)
{
    if (ks::unix_sid_kind(sid) != CREDUTL_SID_UNIX_UID)
        return nullptr;
    return credutl_getpwuid(credutl_sid_to_unix_uid(sid));
}

credutl_group_sid_t *credutl_getgrnam(const char *name)
{
    if (name == nullptr)
        return nullptr;
    const char *plain = local_part(name);
    if (plain == nullptr)
        return nullptr;
    return fill_group(getgrnam(plain));
}

credutl_group_sid_t *credutl_getgrgid(credutl_gid_t gid)
{
    return fill_group(getgrgid(gid));
}

credutl_group_sid_t *credutl_getgrsid(const credutl_sid_t *sid)
{
    if (ks::unix_sid_kind(sid) != CREDUTL_SID_UNIX_GID)
        return nullptr;
    return credutl_getgrgid(credutl_sid_to_unix_gid(sid));
}

/* ---- Qualified names ---- */

void credutl_crack_fq_name(const char *fqname, char *domain, size_t domainsize, char *name,
                           size_t namesize)
{
    if (fqname == nullptr)
        fqname = "";
    const char *sep = find_separator(fqname);
    if (sep == nullptr) {
        strutl_cpy_buf(domain, domainsize, kUnknownDomain);
        strutl_cpy_buf(name, namesize, fqname);
        return;
    }
    strutl_ncpy_buf(domain, domainsize, fqname, static_cast<size_t>(sep - fqname));
    strutl_cpy_buf(name, namesize, sep + 1);
}

const char *credutl_get_domain(void)
{
    if (host_domain(domain_buf) != 0)
        strutl_cpy_buf(domain_buf, sizeof domain_buf, kUnknownDomain);
    return domain_buf;
}

int credutl_string_eq(const char *a, const char *b)
{
    if (a == b)
        return 1;
    // The login name lives in a static buffer: take a copy before anything
    // else can overwrite it.
    char login[kNameSize];
    if (a == nullptr || b == nullptr)
        strutl_cpy_buf(login, sizeof login, sysutl_myloginname());
    if (a == nullptr)
        a = login;
    if (b == nullptr)
        b = login;
    if (strutl_stricoll(a, b) == 0)
        return 1;
    char domain[kNameSize];
    char name_a[kNameSize];
    char name_b[kNameSize];
    credutl_crack_fq_name(a, domain, sizeof domain, name_a, sizeof name_a);
    credutl_crack_fq_name(b, domain, sizeof domain, name_b, sizeof name_b);
    return strutl_stricoll(name_a, name_b) == 0 ? 1 : 0;
}

/* ---- The string form of credentials ---- */

int credutl_credentials_to_string_credentials(const credutl_credentials_t *from,
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
    int n = ks::group_slots(src.ngroups);
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

int credutl_sid_credentials_to_string_credentials(const credutl_sid_credentials_t *from,
                                                  credutl_string_credentials_t *to)
{
    credutl_credentials_t cred;
    credutl_sid_credentials_to_credentials(from, &cred);
    return credutl_credentials_to_string_credentials(&cred, to);
}

void credutl_string_credentials_to_credentials(const credutl_string_credentials_t *from,
                                               credutl_credentials_t *to)
{
    // from may share nothing with to, but the look-ups reuse the module's
    // records: every id is read before the next look-up.
    credutl_credentials_t out;
    memset(&out, 0, sizeof out);
    out.uid = uid_of_name(from->user);
    out.gid = gid_of_name(from->group);
    int n = ks::group_slots(from->ngroups);
    for (int i = 0; i < n; i++)
        out.groups[i] = gid_of_name(from->groups[i]);
    out.ngroups = n;
    *to = out;
}

void credutl_string_credentials_to_sid_credentials(const credutl_string_credentials_t *from,
                                                   credutl_sid_credentials_t *to)
{
    credutl_credentials_t cred;
    credutl_string_credentials_to_credentials(from, &cred);
    credutl_credentials_to_sid_credentials(&cred, to);
}

int credutl_copy_string_credentials(const credutl_string_credentials_t *from,
                                    credutl_string_credentials_t *to)
{
    if (from == to)
        return 0;
    memset(to, 0, sizeof *to);
    int n = ks::group_slots(from->ngroups);
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

void credutl_free_string_credentials(credutl_string_credentials_t *cred)
{
    free(cred->user);
    free(cred->group);
    int n = ks::group_slots(cred->ngroups);
    for (int i = 0; i < n; i++)
        free(cred->groups[i]);
    // Only the user pointer is reset; callers have long relied on the rest
    // of the record keeping its values.
    cred->user = nullptr;
}
