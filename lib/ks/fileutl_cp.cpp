// Copying a file or a tree: a "before" callback creates each entry at the
// corresponding target name, an "after" callback completes each directory.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "fileutl_walk_internal.h"
#include "ks/fileutl.h"
#include "ks/imsg.h"
#include "ks/stg.h"

namespace {

constexpr mode_t kPermBits = 07777;
constexpr size_t kCopyChunk = 1U << 30;
constexpr size_t kBufSize = 65536;

struct copy_job {
    const char *target;
    int flags;
    bool have_root; // the target root directory exists: its identity follows
    dev_t root_dev;
    ino_t root_ino;
    ks::inode_set *links;  // files with several links: first target name
    stg_area_t link_names; // those names
    uid_t uid;             // the owner new files get
    gid_t gid;
};

bool tracing(const copy_job &job)
{
    return (job.flags & FILEUTL_WALK_TRACE) != 0;
}

int report(const copy_job &job, const char *name, int err)
{
    return ks::fileutl_report(job.flags, name, err);
}

// The target name of an entry: the target root, then its directory part and
// name below the source root.  False (ENAMETOOLONG) when it does not fit.
bool target_name(const copy_job &job, const char *dir, const char *name, char *out)
{
    int n;
    if (*name == '\0')
        n = snprintf(out, KS_PATH_BUF, "%s", job.target);
    else if (*dir == '\0')
        n = snprintf(out, KS_PATH_BUF, "%s/%s", job.target, name);
    else
        n = snprintf(out, KS_PATH_BUF, "%s/%s/%s", job.target, dir, name);
    return n < KS_PATH_BUF;
}

// Ownership follows the source where the process may give it away.
void copy_owner(const copy_job &job, const char *target, const struct stat &st)
{
    if (st.st_uid == job.uid && st.st_gid == job.gid)
        return;
    (void)lchown(target, st.st_uid, st.st_gid);
}

int set_times(const copy_job &job, int fd, const char *target, const struct stat &st)
{
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    int rc =
        fd >= 0 ? futimens(fd, times) : utimensat(AT_FDCWD, target, times, AT_SYMLINK_NOFOLLOW);
    return rc == 0 ? 0 : report(job, target, errno);
}

// Makes room for a new non-directory at target: an existing entry is removed
// unless it is a directory or the source itself (EEXIST then).
bool clear_target(const char *target, const struct stat &src)
{
    struct stat st;
    if (lstat(target, &st) != 0)
        return errno == ENOENT;
    if (S_ISDIR(st.st_mode) || (st.st_dev == src.st_dev && st.st_ino == src.st_ino)) {
        errno = EEXIST;
        return false;
    }
    return unlink(target) == 0;
}

// Creates a FIFO, device node or socket; an existing entry is replaced.
int make_node(const copy_job &job, const char *path, const char *target, const struct stat &st)
{
    mode_t perm = st.st_mode & kPermBits;
    bool fifo = S_ISFIFO(st.st_mode);
    if (tracing(job)) {
        if (fifo)
            imsg_print(IMSG_OK, "mkfifo( %s, %o ) from %s\n", IMSG_LITERAL, target,
                       static_cast<unsigned>(perm), path);
        else
            imsg_print(IMSG_OK, "mknod( %s, %o, 0x%x ) from %s\n", IMSG_LITERAL, target,
                       static_cast<unsigned>(st.st_mode), static_cast<unsigned>(st.st_rdev), path);
    }
    for (int attempt = 0;; attempt++) {
        int rc = fifo ? mkfifo(target, perm) : mknod(target, st.st_mode, st.st_rdev);
        if (rc == 0)
            break;
        if (errno != EEXIST || attempt > 0 || !clear_target(target, st))
            return report(job, target, errno);
    }
    copy_owner(job, target, st);
    if (chmod(target, perm) != 0)
        return report(job, target, errno);
    return set_times(job, -1, target, st);
}

int make_symlink(const copy_job &job, const char *path, const char *target, const struct stat &st)
{
    char text[KS_PATH_BUF];
    ssize_t n = readlink(path, text, sizeof text);
    if (n < 0)
        return report(job, path, errno);
    if (static_cast<size_t>(n) >= sizeof text)
        return report(job, path, ENAMETOOLONG);
    text[n] = '\0';
    if (tracing(job))
        imsg_print(IMSG_OK, "symlink( %s, %s ) from %s\n", IMSG_LITERAL, text, target, path);
    for (int attempt = 0; symlink(text, target) != 0; attempt++)
        if (errno != EEXIST || attempt > 0 || !clear_target(target, st))
            return report(job, target, errno);
    copy_owner(job, target, st);
    return set_times(job, -1, target, st);
}

// The contents, with copy_file_range where the kernel can, else by reads and
// writes.  0, or the errno of the failing side in *err with *bad_target
// telling which side failed.
int copy_contents(int in, int out, const struct stat &st, int *err, bool *bad_target)
{
    off_t done = 0;
    for (;;) {
        ssize_t n = copy_file_range(in, nullptr, out, nullptr, kCopyChunk, 0);
        if (n > 0) {
            done += n;
            if (st.st_size > 0 && done >= st.st_size)
                return 0;
            continue;
        }
        if (n == 0)
            return 0;
        if (errno == EINTR)
            continue;
        if (done == 0 && (errno == EXDEV || errno == ENOSYS || errno == EINVAL ||
                          errno == EOPNOTSUPP || errno == EPERM))
            break;
        *err = errno;
        *bad_target = errno == ENOSPC || errno == EDQUOT || errno == EFBIG;
        return -1;
    }
    static char *buf;
    if (buf == nullptr && (buf = static_cast<char *>(stg_malloc(kBufSize))) == nullptr) {
        *err = ENOMEM;
        return -1;
    }
    for (;;) {
        ssize_t n = read(in, buf, kBufSize);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            *err = errno;
            *bad_target = false;
            return n == 0 ? 0 : -1;
        }
        for (ssize_t off = 0; off < n;) {
            ssize_t w = write(out, buf + off, static_cast<size_t>(n - off));
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0) {
                *err = w < 0 ? errno : ENOSPC;
                *bad_target = true;
                return -1;
            }
            off += w;
        }
    }
}

// Opens the target of a regular file for writing.  A new file is made with
// O_EXCL; an existing one is reused unless it is the source itself, and a
// symbolic link in its place is replaced.  The descriptor, or -1 with errno.
int open_target(const char *target, const struct stat &src)
{
    constexpr int kFlags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
    int fd = open(target, kFlags | O_EXCL, 0600);
    if (fd >= 0 || errno != EEXIST)
        return fd;
    fd = open(target, kFlags, 0600);
    if (fd < 0 && errno == ELOOP) {
        if (!clear_target(target, src))
            return -1;
        return open(target, kFlags | O_EXCL, 0600);
    }
    if (fd < 0)
        return -1;
    struct stat st;
    int err = 0;
    bool failed = fstat(fd, &st) != 0;
    if (!failed && st.st_dev == src.st_dev && st.st_ino == src.st_ino)
        err = EEXIST; // never truncate the source
    else if (failed || ftruncate(fd, 0) != 0)
        err = errno;
    if (err != 0) {
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

// Copies a regular file; its permission bits and times are set once the
// contents are in.  A copy that fails part way is removed.
int copy_file(const copy_job &job, const char *path, const char *target, const struct stat &st)
{
    mode_t perm = st.st_mode & kPermBits;
    if (tracing(job))
        imsg_print(IMSG_OK, "cp_file( %s, %s, %o )\n", IMSG_LITERAL, path, target,
                   static_cast<unsigned>(perm));
    int in = open(path, O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return report(job, path, errno);
    int out = open_target(target, st);
    if (out < 0) {
        int err = errno;
        close(in);
        return report(job, target, err);
    }
    int err = 0;
    bool bad_target = false;
    int rc = copy_contents(in, out, st, &err, &bad_target);
    close(in);
    if (rc == 0) {
        if (st.st_uid != job.uid || st.st_gid != job.gid)
            (void)fchown(out, st.st_uid, st.st_gid);
        if (fchmod(out, perm) != 0 || set_times(job, out, target, st) != 0) {
            err = errno;
            bad_target = true;
            rc = -1;
        }
    }
    if (close(out) != 0 && rc == 0) {
        err = errno;
        bad_target = true;
        rc = -1;
    }
    if (rc == 0)
        return 0;
    (void)unlink(target);
    return report(job, bad_target ? target : path, err);
}

// A second name of a file already copied becomes a link to that copy.
int copy_links(copy_job &job, const char *target, const struct stat &st, bool *done)
{
    *done = false;
    if (st.st_nlink < 2)
        return 0;
    const char *name = stg_area_strdup(job.link_names, target);
    const void *first = nullptr;
    int rc =
        name == nullptr ? -1 : ks::inode_set_add(&job.links, st.st_dev, st.st_ino, name, &first);
    if (rc < 0)
        return FILEUTL_WALK_ERROR;
    if (rc == 0)
        return 0;
    *done = true;
    const auto *copy = static_cast<const char *>(first);
    if (link(copy, target) == 0)
        return 0;
    if (errno == EEXIST && clear_target(target, st) && link(copy, target) == 0)
        return 0;
    return report(job, target, errno);
}

int make_dir(copy_job &job, const char *path, const char *target, const struct stat &st, int depth)
{
    if (job.have_root && st.st_dev == job.root_dev && st.st_ino == job.root_ino)
        return report(job, path, EINVAL) | FILEUTL_WALK_SKIP;
    // The owner may write into the copy until the after pass sets its bits.
    mode_t mode = (st.st_mode & kPermBits) | S_IRWXU;
    if (tracing(job))
        imsg_print(IMSG_OK, "mkdir( %s, %o ) from %s\n", IMSG_LITERAL, target,
                   static_cast<unsigned>(mode), path);
    if (mkdir(target, mode) != 0) {
        int err = errno;
        struct stat old;
        if (err != EEXIST || lstat(target, &old) != 0 || !S_ISDIR(old.st_mode))
            return report(job, target, err) | FILEUTL_WALK_SKIP;
    }
    if (depth == 0) {
        struct stat made;
        if (lstat(target, &made) == 0) {
            job.have_root = true;
            job.root_dev = made.st_dev;
            job.root_ino = made.st_ino;
        }
    }
    return 0;
}

int copy_before(void *data, const char *path, const char *root, const char *dir, const char *name,
                const struct stat *st, int pass, int depth)
{
    (void)root, (void)pass;
    auto &job = *static_cast<copy_job *>(data);
    char target[KS_PATH_BUF];
    if (!target_name(job, dir, name, target))
        return report(job, path, ENAMETOOLONG) | FILEUTL_WALK_SKIP;
    if (S_ISDIR(st->st_mode))
        return make_dir(job, path, target, *st, depth);
    if (S_ISLNK(st->st_mode))
        return make_symlink(job, path, target, *st);
    if (!S_ISREG(st->st_mode))
        return make_node(job, path, target, *st);
    bool linked;
    int rc = copy_links(job, target, *st, &linked);
    if (linked || rc != 0)
        return rc;
    return copy_file(job, path, target, *st);
}

// Completes a directory once its contents are in: owner, bits, times.
int copy_after(void *data, const char *path, const char *root, const char *dir, const char *name,
               const struct stat *st, int pass, int depth)
{
    (void)path, (void)root, (void)depth;
    // Non-directories are offered to every record, before: nothing to do.
    if (pass != FILEUTL_WALK_AFTER)
        return 0;
    auto &job = *static_cast<copy_job *>(data);
    char target[KS_PATH_BUF];
    if (!target_name(job, dir, name, target))
        return FILEUTL_WALK_ERROR;
    copy_owner(job, target, *st);
    if (chmod(target, st->st_mode & kPermBits) != 0)
        return report(job, target, errno);
    return set_times(job, -1, target, *st);
}

// Refuses a target that is the source under another name.
bool same_file(const char *source, const char *target, int flags)
{
    struct stat s;
    struct stat t;
    bool follow = (flags & (FILEUTL_WALK_FOLLOW | FILEUTL_WALK_FOLLOW_ALSO)) != 0;
    if (fileutl_stat(source, follow, &s) != 0 || fileutl_stat(target, 1, &t) != 0)
        return false;
    return s.st_dev == t.st_dev && s.st_ino == t.st_ino;
}

} // namespace

int fileutl_cp(const char *source, const char *target, int flags)
{
    if (strcmp(source, target) == 0 || same_file(source, target, flags)) {
        int rc = ks::fileutl_report(flags, target, EEXIST);
        errno = EEXIST;
        return rc;
    }
    copy_job job = {target, flags, false, 0, 0, nullptr, STG_AREA_NULL, geteuid(), getegid()};
    job.link_names = stg_create_area(4096);
    fileutl_walk_cb_t after = {nullptr, FILEUTL_WALK_AFTER, copy_after, &job};
    fileutl_walk_cb_t before = {&after, FILEUTL_WALK_BEFORE, copy_before, &job};
    int rc = fileutl_walk_tree(source, &before, flags);
    ks::inode_set_free(&job.links);
    stg_delete_area(&job.link_names);
    return rc;
}
