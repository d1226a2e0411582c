// Host-qualified names: a local name to host:path on the host that stores it,
// through the mount table, and back.
#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <netdb.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fileutl_internal.h"
#include "ks/fileutl.h"
#include "ks/imsg.h"
#include "ks/ks_product.h"
#include "ks/stg.h"
#include "ks/strutl.h"
#include "ks_msg.h"

using ks::fileutl::host_len;
using ks::fileutl::kSep;
using ks::fileutl::multibyte_locale;

namespace {

// Directories under which an automounter mounts other hosts, tried in order.
constexpr const char *kLeadNames[] = {"/net", "/hosts", "/nfs"};
// Host names compare on at most this many characters.
constexpr size_t kHostKeyMax = 64;
constexpr size_t kHostBuf = 256;

// The automounter prefix, read once.
char automount_prefix[KS_PATH_BUF];
bool automount_read;
// Alternate names of this host, read once; a file that cannot be opened is
// not tried again.
char **alt_names;
int alt_count;
bool alt_read;

// One pair of OTTER_GPATH_HINTS: remote (host:path) is reached at local.
struct hint {
    const char *remote;
    const char *local;
};
hint *hints;
int hint_count;
bool hints_read;

// The mount that holds a name, copied out of the table.
struct mount_info {
    char special[KS_PATH_BUF];
    char mountp[KS_PATH_BUF];
    bool loopback;
    bool soft;
};

bool fail(int err)
{
    errno = err;
    return false;
}

int fail_rc(int err)
{
    errno = err;
    return -1;
}

// The concatenation of up to three strings into out; false with
// ENAMETOOLONG (out "") when it does not fit.
bool emit(char *out, size_t size, const char *a, const char *b = "", const char *c = "")
{
    if (strutl_concat(out, size, 3, a, b, c) == 0)
        return true;
    if (size > 0)
        out[0] = '\0';
    return fail(ENAMETOOLONG);
}

// base followed by rest ("" or a name below it) with one separator between.
bool join_rest(char *out, size_t size, const char *base, const char *rest)
{
    const bool base_sep = *base != '\0' && base[strlen(base) - 1] == kSep;
    if (base_sep && *rest == kSep)
        rest++;
    const bool add = *rest != '\0' && *rest != kSep && !base_sep;
    return emit(out, size, base, add ? "/" : "", rest);
}

// This host's name; false after "Operation gethostname: ...".
bool own_name(char *buf)
{
    if (gethostname(buf, kHostBuf - 1) == 0) {
        buf[kHostBuf - 1] = '\0';
        return true;
    }
    imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_OPERATION, "gethostname",
               imsg_strerror(errno));
    return false;
}

// The file name of the host configuration directory, or null.
FILE *open_config(const char *name)
{
    char path[KS_PATH_BUF];
    ks_host_config_dir(path, name);
    return fopen(path, "re");
}

const char *automounter_prefix()
{
    if (automount_read)
        return automount_prefix;
    automount_read = true;
    FILE *fp = open_config("automount_prefix");
    if (fp == nullptr) {
        strutl_cpy_buf(automount_prefix, sizeof automount_prefix, "/tmp_mnt");
        return automount_prefix;
    }
    if (fgets(automount_prefix, sizeof automount_prefix, fp) == nullptr)
        automount_prefix[0] = '\0';
    fclose(fp);
    automount_prefix[strcspn(automount_prefix, "\n")] = '\0';
    fileutl_strip_pname_sep(automount_prefix);
    return automount_prefix;
}

void read_alternates()
{
    alt_read = true;
    FILE *fp = open_config("alternate_hostnames");
    if (fp == nullptr)
        return;
    char line[KS_PATH_BUF];
    while (fgets(line, sizeof line, fp) != nullptr) {
        strutl_strip_whitespace(line);
        if (line[0] == '\0' || line[0] == '#')
            continue;
        void *grown = stg_realloc(alt_names, (alt_count + 1) * sizeof *alt_names);
        char *copy = grown == nullptr ? nullptr : stg_strdup(line);
        if (grown != nullptr)
            alt_names = static_cast<char **>(grown);
        if (copy == nullptr)
            break;
        alt_names[alt_count++] = copy;
    }
    fclose(fp);
}

// The name up to its first ":", lower-cased, at most kHostKeyMax bytes.
void host_key(const char *name, char *key)
{
    size_t i = 0;
    for (; name[i] != '\0' && name[i] != ':' && i < kHostKeyMax; i++)
        key[i] = static_cast<char>(tolower(static_cast<unsigned char>(name[i])));
    key[i] = '\0';
}

// After their common part, each name ends or goes on with a ".".
bool domain_prefix(const char *a, const char *b)
{
    size_t i = 0;
    while (a[i] != '\0' && a[i] == b[i])
        i++;
    return (a[i] == '\0' || a[i] == '.') && (b[i] == '\0' || b[i] == '.');
}

// Calls fn with each IPv4 address of host until it returns true.
template <typename Fn>
bool any_ipv4(const char *host, Fn fn)
{
    struct addrinfo hints = {}, *res = nullptr;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    if (getaddrinfo(host, nullptr, &hints, &res) != 0)
        return false;
    bool found = false;
    for (struct addrinfo *ai = res; ai != nullptr && !found; ai = ai->ai_next)
        found = fn(reinterpret_cast<struct sockaddr_in *>(ai->ai_addr)->sin_addr);
    freeaddrinfo(res);
    return found;
}

bool is_local_resource(const mount_info &m)
{
    return host_len(m.special, multibyte_locale()) == 0;
}

// The entry whose mount point holds name (absolute) most closely; ties keep
// the first.  Automounter trigger entries hold nothing themselves.  A name
// that no mount holds counts as on a local file system.
bool find_mount(const char *name, mount_info *m)
{
    fileutl_mnt_walk_t *walk = fileutl_setmntent();
    if (walk == nullptr)
        return false;
    size_t best = 0;
    bool found = false, fits = true;
    *m = {"", "", false, false};
    while (const fileutl_mntent_t *e = fileutl_getmntent(walk)) {
        size_t n = strlen(e->mnt_mountp);
        bool holds = strcmp(e->mnt_mountp, "/") == 0
                         ? name[0] == kSep
                         : fileutl_pname_equal_or_parent(e->mnt_mountp, name);
        if (!holds || strcmp(e->mnt_fstype, "autofs") == 0 || (found && n <= best))
            continue;
        found = true;
        best = n;
        fits = strutl_cpy_buf(m->special, sizeof m->special, e->mnt_special) == 0 &&
               strutl_cpy_buf(m->mountp, sizeof m->mountp, e->mnt_mountp) == 0;
        m->loopback = strcmp(e->mnt_fstype, "lofs") == 0 || strcmp(e->mnt_fstype, "namefs") == 0 ||
                      fileutl_hasmntopt(e, "bind") != nullptr;
        m->soft = fileutl_hasmntopt(e, "soft") != nullptr;
    }
    fileutl_endmntent(walk);
    return fits || fail(ENAMETOOLONG);
}

// The part of name below the mount point: "" or a name starting with "/".
const char *below_mount(const char *name, const char *mountp)
{
    const char *rest = strcmp(mountp, "/") == 0 ? name : name + strlen(mountp);
    return strcmp(rest, "/") == 0 ? "" : rest;
}

// fileutl_where and fileutl_path_host: the host, and unless host_only ":"
// and the name there.
int where_int(const char *path, char *out, size_t size, bool host_only)
{
    char name[KS_PATH_BUF], host[kHostBuf], moved[KS_PATH_BUF];
    mount_info m;
    if (size == 0)
        return fail_rc(EINVAL);
    if (fileutl_abspn(path, name, sizeof name) != 0 || !find_mount(name, &m))
        return -1;
    const char *rest = below_mount(name, m.mountp);
    if (is_local_resource(m)) {
        if (!own_name(host))
            return -1;
        if (host_only)
            return emit(out, size, host) ? 0 : -1;
        // A loopback mount shows another directory: name it there.
        if (m.loopback && !join_rest(moved, sizeof moved, m.special, rest))
            return -1;
        const char *there = m.loopback ? moved : name;
        return emit(out, size, host, ":", *there == '\0' ? "/" : there) ? 0 : -1;
    }
    size_t hl = host_len(m.special, multibyte_locale());
    if (host_only)
        return strutl_ncpy_buf(out, size, m.special, hl) == 0 ? 0 : fail_rc(ENAMETOOLONG);
    if (strcmp(m.special + hl + 1, "/") == 0) { // srv:/ at /r: /r/x is srv:/x
        m.special[hl + 1] = '\0';
        return emit(out, size, m.special, *rest == '\0' ? "/" : rest) ? 0 : -1;
    }
    return emit(out, size, m.special, rest) ? 0 : -1;
}

// Whether hostpath starts with host followed by ":", byte for byte.
const char *after_host(const char *hostpath, const char *host)
{
    size_t n = strlen(host);
    return n > 0 && strncmp(hostpath, host, n) == 0 && hostpath[n] == ':' ? hostpath + n + 1
                                                                          : nullptr;
}

// Whether the resource's path spath is npath or above it.
size_t resource_prefix(const char *spath, const char *npath)
{
    size_t n = strlen(spath);
    if (n == 0 || strncmp(spath, npath, n) != 0)
        return 0;
    return npath[n] == kSep || npath[n] == '\0' || spath[n - 1] == kSep ? n : 0;
}

bool mtab_unwhere(const char *hostpath, char *out, size_t size)
{
    const bool mb = multibyte_locale();
    char me[kHostBuf], mountp[KS_PATH_BUF];
    const char *rest = nullptr;
    if (own_name(me) && (rest = after_host(hostpath, me)) != nullptr)
        return emit(out, size, rest);
    if (!alt_read)
        read_alternates();
    for (int i = 0; i < alt_count; i++)
        if ((rest = after_host(hostpath, alt_names[i])) != nullptr)
            return emit(out, size, rest);
    const size_t hl = host_len(hostpath, mb);
    const char *npath = hl > 0 ? hostpath + hl + 1 : hostpath;
    const char *prefix = automounter_prefix();
    fileutl_mnt_walk_t *walk = fileutl_setmntent();
    if (walk == nullptr)
        return false;
    size_t best = 0;
    while (const fileutl_mntent_t *e = fileutl_getmntent(walk)) {
        if (*prefix != '\0' && fileutl_pname_equal_or_parent(prefix, e->mnt_mountp))
            continue; // automounter mounts come and go
        size_t shl = host_len(e->mnt_special, mb);
        size_t n = resource_prefix(shl > 0 ? e->mnt_special + shl + 1 : e->mnt_special, npath);
        if (n <= best || (shl > 0) != (hl > 0) ||
            (hl > 0 && !fileutl_hostnames_equal(e->mnt_special, hostpath)))
            continue;
        best = n;
        rest = npath + n;
        strutl_cpy_buf(mountp, sizeof mountp, e->mnt_mountp);
    }
    fileutl_endmntent(walk);
    return best > 0 ? join_rest(out, size, mountp, rest) : fail(ENOENT);
}

// Whether where gave back path on hostpath's host.
bool same_place(const char *where, const char *hostpath, size_t hl, const char *path)
{
    if (strcmp(where, hostpath) == 0)
        return true;
    size_t whl = host_len(where, multibyte_locale());
    if (strcmp(whl > 0 ? where + whl + 1 : where, path) != 0)
        return false;
    return (whl == 0 && hl == 0) || (whl > 0 && hl > 0 && fileutl_hostnames_equal(where, hostpath));
}

bool home_dir(char *buf)
{
    struct passwd *pw = getpwuid(getuid());
    const char *home = pw != nullptr && pw->pw_dir != nullptr ? pw->pw_dir : getenv("HOME");
    return home != nullptr && *home != '\0' && strutl_cpy_buf(buf, KS_PATH_BUF, home) == 0;
}

bool heuristic_unwhere(const char *hostpath, char *out, size_t size)
{
    char w[KS_PATH_BUF], cand[KS_PATH_BUF], host[KS_PATH_BUF], home[KS_PATH_BUF];
    const size_t hl = host_len(hostpath, multibyte_locale());
    if (hl == 0 || hl >= sizeof host)
        return fail(hl == 0 ? EINVAL : ENAMETOOLONG);
    const char *path = hostpath + hl + 1;
    memcpy(host, hostpath, hl);
    host[hl] = '\0';
    if (fileutl_where(path, w, sizeof w) == 0 && same_place(w, hostpath, hl, path))
        return emit(out, size, path);
    for (const char *lead : kLeadNames) {
        if (access(lead, X_OK) != 0)
            continue;
        const char *tail = strcmp(path, "/") == 0 ? "" : path;
        const char *sep = *tail == kSep || *tail == '\0' ? "" : "/";
        if (strutl_concat(cand, sizeof cand, 5, lead, "/", host, sep, tail) != 0)
            continue;
        if (fileutl_where(cand, w, sizeof w) == 0 && same_place(w, hostpath, hl, path))
            return emit(out, size, cand);
    }
    if (home_dir(home) && fileutl_where(home, w, sizeof w) == 0 &&
        fileutl_pname_equal_or_parent(w, hostpath))
        return join_rest(out, size, home, hostpath + strlen(w));
    return fail(ENOENT);
}

void read_hints()
{
    hints_read = true;
    const char *env = getenv("OTTER_GPATH_HINTS");
    char *copy = env == nullptr ? nullptr : stg_strdup(env);
    if (copy == nullptr)
        return;
    hints = static_cast<hint *>(stg_malloc((strlen(copy) / 3 + 1) * sizeof *hints));
    if (hints == nullptr)
        return;
    for (char *save = nullptr, *tok = strtok_r(copy, "; \t\n", &save); tok != nullptr;
         tok = strtok_r(nullptr, "; \t\n", &save)) {
        char *eq = strchr(tok, '=');
        if (eq == nullptr || eq == tok || eq[1] == '\0')
            continue;
        *eq = '\0';
        hints[hint_count++] = {tok, eq + 1};
    }
}

} // namespace

int fileutl_where(const char *path, char *out, size_t size)
{
    return where_int(path, out, size, false);
}

int fileutl_path_host(const char *path, char *out, size_t size)
{
    return where_int(path, out, size, true);
}

int fileutl_unwhere(const char *hostpath, char *out, size_t size)
{
    if (size == 0)
        return fail_rc(EINVAL);
    if (mtab_unwhere(hostpath, out, size))
        return 0;
    // A match that did not fit is what the caller hears about.
    const int mtab_err = errno;
    if (heuristic_unwhere(hostpath, out, size))
        return 0;
    if (mtab_err == ENAMETOOLONG)
        errno = ENAMETOOLONG;
    return -1;
}

int fileutl_hostnames_equal(const char *a, const char *b)
{
    char ka[kHostKeyMax + 1], kb[kHostKeyMax + 1];
    host_key(a, ka);
    host_key(b, kb);
    if (strcmp(ka, kb) == 0)
        return 1;
    if (ka[0] == '\0' || kb[0] == '\0')
        return 0;
    if (domain_prefix(ka, kb))
        return 1;
    struct in_addr first = {};
    auto take_first = [&first](struct in_addr addr) {
        first = addr;
        return true;
    };
    if (!any_ipv4(ka, take_first))
        return 0;
    return any_ipv4(kb, [&first](struct in_addr addr) { return addr.s_addr == first.s_addr; });
}

int fileutl_hosts_equal(const char *a, const char *b)
{
    return fileutl_hostnames_equal(a, b) || (fileutl_is_localhost(a) && fileutl_is_localhost(b));
}

int fileutl_is_localhost(const char *host)
{
    char me[kHostBuf], key[kHostKeyMax + 1];
    if (own_name(me) && fileutl_hostnames_equal(host, me))
        return 1;
    if (!alt_read)
        read_alternates();
    for (int i = 0; i < alt_count; i++)
        if (fileutl_hostnames_equal(host, alt_names[i]))
            return 1;
    host_key(host, key);
    return key[0] != '\0' &&
           any_ipv4(key, [](struct in_addr addr) { return (ntohl(addr.s_addr) >> 24) == 127; });
}

char *fileutl_getcwd(char *out, size_t size)
{
    if (getcwd(out, size) != nullptr)
        return out;
    if (errno == ERANGE)
        errno = ENAMETOOLONG;
    return nullptr;
}

char *fileutl_getcwd_noauto(char *out, size_t size)
{
    if (fileutl_getcwd(out, size) == nullptr)
        return nullptr;
    const char *prefix = automounter_prefix();
    if (*prefix == '\0' || !fileutl_pname_equal_or_parent(prefix, out))
        return out;
    size_t n = strlen(prefix);
    if (out[n] == '\0')
        memcpy(out, "/", 2);
    else
        memmove(out, out + n, strlen(out + n) + 1);
    return out;
}

int fileutl_abspn(const char *path, char *out, size_t size)
{
    char name[KS_PATH_BUF], real[PATH_MAX], joined[KS_PATH_BUF];
    if (path[0] == kSep && strutl_cpy_buf(name, sizeof name, path) != 0)
        return fail_rc(ENAMETOOLONG);
    if (path[0] != kSep && (fileutl_getcwd(real, sizeof real) == nullptr ||
                            fileutl_make_abs_pn(name, sizeof name, path, real) == nullptr))
        return -1;
    // The longest leading part that exists is resolved; the rest is kept.
    const bool mb = multibyte_locale();
    size_t cut = strlen(name);
    for (;;) {
        char saved = name[cut];
        name[cut] = '\0';
        const char *done = realpath(cut == 0 ? "/" : name, real);
        name[cut] = saved;
        if (done != nullptr)
            break;
        if (errno != ENOENT && errno != ENOTDIR)
            return -1;
        ptrdiff_t sep = ks::fileutl::last_sep(name, cut, mb);
        cut = sep < 0 ? 0 : static_cast<size_t>(sep);
    }
    const char *tail = name + cut;
    if (strcmp(real, "/") == 0
            ? strutl_cpy_buf(joined, sizeof joined, *tail == '\0' ? "/" : tail) != 0
            : strutl_concat(joined, sizeof joined, 2, real, tail) != 0)
        return fail_rc(ENAMETOOLONG);
    return fileutl_remove_embedded_dots(joined, out, size) != nullptr ? 0 : -1;
}

int fileutl_mount_pname(const char *path, char *out, size_t size)
{
    char name[KS_PATH_BUF];
    mount_info m;
    if (fileutl_abspn(path, name, sizeof name) != 0 || !find_mount(name, &m))
        return -1;
    return emit(out, size, m.mountp[0] == '\0' ? "/" : m.mountp) ? 0 : -1;
}

int fileutl_path_host_cmp(const char *a, const char *b)
{
    char ha[KS_PATH_BUF], hb[KS_PATH_BUF];
    if (fileutl_path_host(a, ha, sizeof ha) != 0 || fileutl_path_host(b, hb, sizeof hb) != 0)
        return -1;
    return fileutl_hosts_equal(ha, hb) ? 0 : 1;
}

int fileutl_is_softmnt(const char *path)
{
    char name[KS_PATH_BUF];
    mount_info m;
    if (fileutl_abspn(path, name, sizeof name) != 0 || !find_mount(name, &m))
        return -1;
    return m.soft ? 1 : 0;
}

int fileutl_get_local_path(const char *hostpath, char *out, size_t size)
{
    const bool mb = multibyte_locale();
    if (!hints_read)
        read_hints();
    const size_t hl = host_len(hostpath, mb);
    for (int i = 0; i < hint_count && hl > 0; i++) {
        size_t rhl = host_len(hints[i].remote, mb);
        size_t n = rhl == 0 ? 0 : resource_prefix(hints[i].remote + rhl + 1, hostpath + hl + 1);
        if (n > 0 && fileutl_hostnames_equal(hints[i].remote, hostpath))
            return join_rest(out, size, hints[i].local, hostpath + hl + 1 + n) ? 0 : -1;
    }
    return fileutl_unwhere(hostpath, out, size);
}

int fileutl_get_location(const char *path, char *out, size_t size)
{
    char name[KS_PATH_BUF];
    if (!hints_read)
        read_hints();
    if (fileutl_abspn(path, name, sizeof name) != 0)
        return -1;
    for (int i = 0; i < hint_count; i++)
        if (fileutl_pname_equal_or_parent(hints[i].local, name))
            return join_rest(out, size, hints[i].remote, name + strlen(hints[i].local)) ? 0 : -1;
    return fileutl_where(path, out, size);
}

int fileutl_path_locate(const char *name, char *out, size_t size)
{
    int rc = host_len(name, multibyte_locale()) > 0 ? fileutl_get_local_path(name, out, size)
                                                    : fileutl_abspn(name, out, size);
    if (rc == 0 && access(out, F_OK) != 0)
        return fail_rc(ENOENT);
    return rc;
}

int fileutl_pick_path(const char *const *names, int count, char *out, size_t size)
{
    for (int i = 0; i < count; i++)
        if (fileutl_path_locate(names[i], out, size) == 0)
            return i;
    return -1;
}
