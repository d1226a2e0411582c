// The mount table, read into a cache that follows the system's changes.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fileutl_internal.h"
#include "fileutl_testing.h"
#include "ks/fileutl.h"
#include "ks/imsg.h"
#include "ks/stg.h"
#include "ks/strutl.h"
#include "ks_msg.h"

struct fileutl_mnt_walk {
    unsigned generation; // the cache the walk started on
    int next;
};

namespace {

constexpr const char *kMnttab = "/etc/mnttab";
constexpr const char *kMountInfo = "/proc/self/mountinfo";
constexpr const char *kMounts = "/proc/self/mounts";

// The table as last read, and what tells whether it is still current: the
// regular file's identity and time, or for the process's own table an open
// descriptor that poll() marks when a mount changes, with the process and
// the mount namespace it was opened in.
struct table_cache {
    stg_area_t area;
    char *text;
    fileutl_mntent_t *ents;
    int count;
    unsigned generation;
    bool filled;
    char source[KS_PATH_BUF];
    struct stat st;
    int proc_fd;
    pid_t pid;
    ino_t mnt_ns;
};
table_cache cache = {STG_AREA_NULL, nullptr, nullptr, 0, 0, false, "", {}, -1, 0, 0};

// The table named by the test seam; "" for the system's.
char test_table[KS_PATH_BUF];

ino_t mount_namespace()
{
    struct stat st;
    return stat("/proc/self/ns/mnt", &st) == 0 ? st.st_ino : 0;
}

bool same_file(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// Whether the descriptor kept is still the one the cache opened (a daemon
// may have closed it and reused the number).
bool own_proc_fd()
{
    struct stat st;
    return cache.proc_fd >= 0 && fstat(cache.proc_fd, &st) == 0 && st.st_dev == cache.st.st_dev &&
           st.st_ino == cache.st.st_ino;
}

const char *current_source()
{
    if (test_table[0] != '\0')
        return test_table;
    return access(kMnttab, F_OK) == 0 ? kMnttab : kMountInfo;
}

bool still_current(const char *source)
{
    if (!cache.filled || strcmp(source, cache.source) != 0)
        return false;
    if (cache.proc_fd >= 0) {
        struct pollfd pfd = {cache.proc_fd, POLLPRI, 0};
        return cache.pid == getpid() && cache.mnt_ns == mount_namespace() && own_proc_fd() &&
               poll(&pfd, 1, 0) == 0;
    }
    struct stat st;
    return stat(source, &st) == 0 && same_file(st, cache.st);
}

void drop_cache()
{
    if (own_proc_fd())
        close(cache.proc_fd);
    cache.proc_fd = -1;
    stg_delete_area(&cache.area);
    stg_free(cache.text);
    cache.text = nullptr;
    cache.ents = nullptr;
    cache.count = 0;
    cache.filled = false;
    cache.generation++;
}

bool is_octal(char c)
{
    return c >= '0' && c <= '7';
}

// The next blank-separated field of the line at *p, NUL-terminated, with
// the table's escapes ("\040" for a blank) decoded; null at the line's end.
char *next_field(char **p)
{
    char *s = *p;
    while (*s == ' ' || *s == '\t')
        s++;
    if (*s == '\0')
        return nullptr;
    char *field = s, *o = s;
    while (*s != '\0' && *s != ' ' && *s != '\t') {
        if (s[0] == '\\' && is_octal(s[1]) && is_octal(s[2]) && is_octal(s[3])) {
            *o++ = static_cast<char>((s[1] - '0') * 64 + (s[2] - '0') * 8 + (s[3] - '0'));
            s += 4;
        } else {
            *o++ = *s++;
        }
    }
    *p = *s == '\0' ? s : s + 1;
    *o = '\0';
    return field;
}

// The device and root of each entry of a mountinfo table.
struct origin {
    const char *dev;
    const char *root;
};

// One line of "/etc/mnttab" or /proc/self/mounts: special, mount point,
// type, options.  False for a line to skip.
bool parse_mounts_line(char *line, fileutl_mntent_t *e)
{
    char *f[4] = {};
    for (int i = 0; i < 4; i++)
        f[i] = next_field(&line);
    if (f[2] == nullptr || f[0][0] == '#')
        return false;
    *e = {f[0], f[1], f[2], f[3] == nullptr ? "" : f[3]};
    return true;
}

// One line of /proc/self/mountinfo: "id parent dev root mountpoint options
// [optional fields] - type source super-options".  The options are the
// mount's own followed by the file system's (without a repeated rw or ro).
bool parse_mountinfo_line(char *line, fileutl_mntent_t *e, origin *o, stg_area_t area)
{
    char *f[6];
    for (char *&field : f)
        if ((field = next_field(&line)) == nullptr)
            return false;
    char *sep;
    while ((sep = next_field(&line)) != nullptr && strcmp(sep, "-") != 0) {
    }
    char *type = next_field(&line), *source = next_field(&line), *super = next_field(&line);
    if (sep == nullptr || source == nullptr)
        return false;
    char *opts = strutl_concat_area(area, 3, f[5], ",", super == nullptr ? "" : super);
    if (opts == nullptr)
        return false;
    size_t len = strlen(f[5]);
    if ((strncmp(opts + len, ",rw", 3) == 0 || strncmp(opts + len, ",ro", 3) == 0) &&
        (opts[len + 3] == ',' || opts[len + 3] == '\0'))
        strutl_slide_tail(opts + len + 3, -3); // the mount's own rw/ro says it
    if (opts[len] == ',' && opts[len + 1] == '\0')
        opts[len] = '\0';
    *e = {source, f[4], type, opts};
    *o = {f[2], f[3]};
    return true;
}

// The part of root below base when base is root or a directory above it
// ("/" is above every root), else null.
const char *below(const char *base, const char *root)
{
    if (strcmp(base, "/") == 0)
        return root;
    return fileutl_pname_equal_or_parent(base, root) ? root + strlen(base) : nullptr;
}

// A mount whose device an earlier mount already shows is a directory of it
// mounted again: its resource becomes that directory as seen there (or the
// remote resource followed by the path), with "bind" for a local one.
void mark_binds(fileutl_mntent_t *ents, const origin *org, int count, stg_area_t area)
{
    const bool mb = ks::fileutl::multibyte_locale();
    for (int i = 1; i < count; i++) {
        int best = -1;
        size_t best_len = 0;
        for (int j = 0; j < i; j++) {
            if (strcmp(org[j].dev, org[i].dev) != 0 || below(org[j].root, org[i].root) == nullptr)
                continue;
            if (best < 0 || strlen(org[j].root) > best_len) {
                best = j;
                best_len = strlen(org[j].root);
            }
        }
        if (best < 0)
            continue;
        const char *rest = below(org[best].root, org[i].root);
        const fileutl_mntent_t &src = ents[best];
        const bool remote = ks::fileutl::host_len(src.mnt_special, mb) > 0;
        const char *base = remote ? src.mnt_special : src.mnt_mountp;
        const bool root_base = strcmp(base, "/") == 0 || (remote && base[strlen(base) - 1] == '/');
        char *special =
            strutl_concat_area(area, 2, base, root_base && rest[0] == '/' ? rest + 1 : rest);
        char *opts = remote ? const_cast<char *>(ents[i].mnt_mntopts)
                            : strutl_concat_area(area, 2, ents[i].mnt_mntopts, ",bind");
        if (special != nullptr && opts != nullptr && *special != '\0') {
            ents[i].mnt_special = special;
            ents[i].mnt_mntopts = opts;
        }
    }
}

bool parse(char *text, bool mountinfo)
{
    int lines = 1;
    for (const char *p = text; (p = strchr(p, '\n')) != nullptr; p++)
        lines++;
    cache.area = stg_create_area(4096);
    auto *ents = static_cast<fileutl_mntent_t *>(
        cache.area == STG_AREA_NULL ? nullptr
                                    : stg_alloc(cache.area, lines * sizeof(fileutl_mntent_t)));
    auto *org = static_cast<origin *>(
        ents == nullptr ? nullptr : stg_alloc(cache.area, lines * sizeof(origin)));
    if (org == nullptr)
        return false;
    int n = 0;
    for (char *line = text; line != nullptr;) {
        char *end = strchr(line, '\n');
        if (end != nullptr)
            *end++ = '\0';
        if (mountinfo ? parse_mountinfo_line(line, &ents[n], &org[n], cache.area)
                      : parse_mounts_line(line, &ents[n]))
            n++;
        line = end;
    }
    if (mountinfo)
        mark_binds(ents, org, n, cache.area);
    cache.ents = ents;
    cache.count = n;
    return true;
}

// Opens the table; the process's mountinfo falls back to its mounts.
int open_table(const char *source, const char **opened)
{
    *opened = source;
    int fd = open(source, O_RDONLY | O_CLOEXEC);
    if (fd < 0 && strcmp(source, kMountInfo) == 0) {
        *opened = kMounts;
        fd = open(kMounts, O_RDONLY | O_CLOEXEC);
    }
    return fd;
}

bool fill(const char *source)
{
    drop_cache();
    const char *opened;
    int fd = open_table(source, &opened);
    if (fd < 0) {
        imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_CANNOT_OPEN, "mount table",
                   imsg_strerror(errno));
        return false;
    }
    const bool proc = strncmp(opened, "/proc/", 6) == 0;
    struct pollfd pfd = {fd, POLLPRI, 0};
    if (proc) // clears the mark of changes made before this read
        poll(&pfd, 1, 0);
    fstat(fd, &cache.st);
    cache.text = strutl_read(fd, nullptr);
    if (proc) {
        cache.proc_fd = fd;
        cache.pid = getpid();
        cache.mnt_ns = mount_namespace();
    } else {
        close(fd);
    }
    size_t len = strlen(opened);
    if (cache.text == nullptr ||
        !parse(cache.text, len >= 9 && strcmp(opened + len - 9, "mountinfo") == 0)) {
        drop_cache();
        return false;
    }
    strutl_cpy_buf(cache.source, sizeof cache.source, source);
    cache.filled = true;
    return true;
}

} // namespace

fileutl_mnt_walk_t *fileutl_setmntent(void)
{
    const char *source = current_source();
    if (!still_current(source) && !fill(source))
        return nullptr;
    auto *walk = static_cast<fileutl_mnt_walk_t *>(stg_malloc(sizeof(fileutl_mnt_walk_t)));
    if (walk != nullptr)
        *walk = {cache.generation, 0};
    return walk;
}

const fileutl_mntent_t *fileutl_getmntent(fileutl_mnt_walk_t *walk)
{
    if (walk->generation != cache.generation || walk->next >= cache.count)
        return nullptr;
    return &cache.ents[walk->next++];
}

void fileutl_endmntent(fileutl_mnt_walk_t *walk)
{
    stg_free(walk);
}

const char *fileutl_hasmntopt(const fileutl_mntent_t *ent, const char *opt)
{
    size_t n = strlen(opt);
    for (const char *p = ent->mnt_mntopts; *p != '\0';) {
        if (strncmp(p, opt, n) == 0 && (p[n] == ',' || p[n] == '=' || p[n] == '\0'))
            return p;
        const char *comma = strchr(p, ',');
        if (comma == nullptr)
            break;
        p = comma + 1;
    }
    return nullptr;
}

void fileutl_flushmntent(void)
{
    drop_cache();
}

void ks::fileutl_set_mnttab_for_testing(const char *path)
{
    strutl_cpy_buf(test_table, sizeof test_table, path == nullptr ? "" : path);
    drop_cache();
}
