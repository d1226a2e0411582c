// The tree walker: one entry at a time through a chain of callbacks, before
// and after the contents of each directory; disk usage on top of it.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "fileutl_walk_internal.h"
#include "ks/fileutl.h"
#include "ks/imsg.h"
#include "ks/stg.h"
#include "ks_msg.h"

namespace {

// Names are built in buffers of 1025 bytes; a name may hold 1023 characters.
constexpr size_t kPathBufSize = 1025;
constexpr size_t kMaxName = KS_PATH_BUF - 1;
constexpr int kFollow = FILEUTL_WALK_FOLLOW | FILEUTL_WALK_FOLLOW_ALSO;
constexpr int kSkip = FILEUTL_WALK_SKIP;
constexpr int kStop = FILEUTL_WALK_STOP;
constexpr int kFlagBits = kSkip | kStop;

// Name buffers are kept on a free list: a walk takes one per directory level
// and gives it back on leaving, so the next level or walk reuses it.
struct path_buf {
    path_buf *next;
    char text[kPathBufSize];
};
path_buf *free_bufs;

path_buf *take_buf()
{
    path_buf *b = free_bufs;
    if (b != nullptr) {
        free_bufs = b->next;
        return b;
    }
    return static_cast<path_buf *>(stg_malloc(sizeof(path_buf)));
}

void give_buf(path_buf *b)
{
    b->next = free_bufs;
    free_bufs = b;
}

// The real file system, through the library's own readers.
void *real_opendir(const char *path)
{
    return fileutl_opendir(path);
}
struct dirent *real_readdir(void *dir)
{
    return fileutl_readdir(static_cast<DIR *>(dir));
}
int real_closedir(void *dir)
{
    return fileutl_closedir(static_cast<DIR *>(dir));
}
constexpr fileutl_fs_ops_t kRealOps = {fileutl_stat, real_opendir, real_readdir, real_closedir};

// A directory being walked, for the loop check when links are followed.
struct ancestor {
    const ancestor *up;
    dev_t dev;
    ino_t ino;
};

struct walker {
    const char *root;
    size_t rel_skip; // from a full name below the root to its part relative to it
    const fileutl_walk_cb_t *chain;
    const fileutl_fs_ops_t *ops;
    int flags;
    int (*order)(const char *, const char *); // null: directory order
    int result;
    bool stopped;
};

bool is_error(int rc)
{
    return (rc & ~kFlagBits) == FILEUTL_WALK_ERROR;
}

void fail(walker &w, const char *name, int err)
{
    w.result |= ks::fileutl_report(w.flags, name, err);
    if ((w.flags & FILEUTL_WALK_STOP_ON_ERROR) != 0)
        w.stopped = true;
}

// Offers an entry to the records of the chain that take it in this pass;
// true when one of them said "skip".
bool offer(walker &w, const char *path, const char *dir, const char *name, const struct stat &st,
           int pass, int depth)
{
    bool is_dir = S_ISDIR(st.st_mode);
    for (const fileutl_walk_cb_t *cb = w.chain; cb != nullptr; cb = cb->next) {
        if (is_dir && (cb->flags & pass) == 0)
            continue;
        int rc = cb->fn(cb->data, path, w.root, dir, name, &st, pass, depth);
        w.result |= rc & ~kFlagBits;
        if ((rc & kStop) != 0 || (is_error(rc) && (w.flags & FILEUTL_WALK_STOP_ON_ERROR) != 0))
            w.stopped = true;
        if ((rc & kSkip) != 0)
            return true;
        if (w.stopped)
            return false;
    }
    return false;
}

void walk_dir(walker &w, const char *dir_path, const char *dir_rel, int depth, const ancestor *up);

// Offers one entry below the root, walking into it when it is a directory.
void visit(walker &w, const char *path, const char *dir, const char *name, const struct stat &st,
           int depth, const ancestor *up)
{
    bool skip = offer(w, path, dir, name, st, FILEUTL_WALK_BEFORE, depth);
    if (w.stopped || skip || !S_ISDIR(st.st_mode))
        return;
    if ((w.flags & kFollow) != 0 && st.st_ino != 0) {
        for (const ancestor *a = up; a != nullptr; a = a->up)
            if (a->dev == st.st_dev && a->ino == st.st_ino) {
                fail(w, path, ELOOP);
                return;
            }
    }
    ancestor self = {up, st.st_dev, st.st_ino};
    walk_dir(w, path, path + w.rel_skip, depth + 1, &self);
    if (!w.stopped)
        offer(w, path, dir, name, st, FILEUTL_WALK_AFTER, depth);
}

// Names longer than the limit are reported whole, from a buffer large enough
// for any directory name and entry name.
void fail_too_long(walker &w, const char *base, size_t base_len, const char *name)
{
    char whole[kPathBufSize + 256];
    snprintf(whole, sizeof whole, "%.*s%s", static_cast<int>(base_len), base, name);
    fail(w, whole, ENAMETOOLONG);
}

// Takes the status of one entry whose name is at the end of buf and visits it.
void visit_named(walker &w, char *buf, size_t base_len, const char *name, const char *dir_rel,
                 int depth, const ancestor *up)
{
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        return;
    size_t len = strlen(name);
    if (base_len + len > kMaxName) {
        fail_too_long(w, buf, base_len, name);
        return;
    }
    memcpy(buf + base_len, name, len + 1);
    struct stat st;
    if (w.ops->stat(buf, (w.flags & kFollow) != 0, &st) != 0) {
        fail(w, buf, errno);
        return;
    }
    visit(w, buf, dir_rel, buf + base_len, st, depth, up);
}

// Entries of an open directory, read whole and sorted (fileutl_scan_tree).
// The names live in one area, the array on the heap.
void visit_sorted(walker &w, void *handle, char *buf, size_t base_len, const char *dir_rel,
                  int depth, const ancestor *up)
{
    stg_area_t area = stg_create_area(4096);
    char **names = nullptr;
    size_t count = 0;
    size_t cap = 0;
    for (;;) {
        errno = 0;
        struct dirent *e = w.ops->readdir(handle);
        if (e == nullptr) {
            if (errno != 0)
                fail(w, buf, errno);
            break;
        }
        if (count == cap) {
            cap = cap == 0 ? 64 : cap * 2;
            auto *grown = static_cast<char **>(stg_realloc(names, cap * sizeof(char *)));
            if (grown == nullptr)
                break;
            names = grown;
        }
        char *copy = stg_area_strdup(area, e->d_name);
        if (copy == nullptr)
            break;
        names[count++] = copy;
    }
    auto order = w.order;
    std::sort(names, names + count,
              [order](const char *a, const char *b) { return order(a, b) < 0; });
    for (size_t i = 0; i < count && !w.stopped; i++)
        visit_named(w, buf, base_len, names[i], dir_rel, depth, up);
    stg_free(names);
    stg_delete_area(&area);
}

// Walks the entries of the directory dir_path (its part relative to the
// root is dir_rel); they are at depth.
void walk_dir(walker &w, const char *dir_path, const char *dir_rel, int depth, const ancestor *up)
{
    void *handle = w.ops->opendir(dir_path);
    if (handle == nullptr) {
        fail(w, dir_path, errno);
        return;
    }
    path_buf *pb = take_buf();
    if (pb == nullptr) {
        w.result = FILEUTL_WALK_ERROR;
        w.stopped = true;
        w.ops->closedir(handle);
        return;
    }
    char *buf = pb->text;
    size_t base_len = strlen(dir_path);
    memcpy(buf, dir_path, base_len + 1);
    if (base_len == 0 || buf[base_len - 1] != '/')
        buf[base_len++] = '/';
    if (w.order != nullptr) {
        visit_sorted(w, handle, buf, base_len, dir_rel, depth, up);
    } else {
        while (!w.stopped) {
            errno = 0;
            struct dirent *e = w.ops->readdir(handle);
            if (e == nullptr) {
                if (errno != 0)
                    fail(w, dir_path, errno);
                break;
            }
            visit_named(w, buf, base_len, e->d_name, dir_rel, depth, up);
        }
    }
    w.ops->closedir(handle);
    give_buf(pb);
}

int walk(const char *root, const fileutl_walk_cb_t *chain, const fileutl_fs_ops_t *ops, int flags,
         int (*order)(const char *, const char *))
{
    walker w = {root, 0, chain, ops, flags, order, 0, false};
    size_t root_len = strlen(root);
    if (root_len > kMaxName)
        return ks::fileutl_report(flags, root, ENAMETOOLONG);
    w.rel_skip = root_len + (root_len > 0 && root[root_len - 1] == '/' ? 0 : 1);
    if (ops == &kRealOps)
        ks::fileutl_flush_attributes(root);
    struct stat st;
    if (ops->stat(root, (flags & kFollow) != 0, &st) != 0)
        return ks::fileutl_report(flags, root, errno);
    if (offer(w, root, "", "", st, FILEUTL_WALK_BEFORE, 0) || w.stopped)
        return w.result;
    if (!S_ISDIR(st.st_mode))
        return w.result;
    ancestor self = {nullptr, st.st_dev, st.st_ino};
    if ((flags & FILEUTL_WALK_DESCEND) != 0)
        walk_dir(w, root, "", 1, &self);
    if (!w.stopped)
        offer(w, root, "", "", st, FILEUTL_WALK_AFTER, 0);
    return w.result;
}

int byte_order(const char *a, const char *b)
{
    return strcmp(a, b);
}

// The inode set: open addressing over a power-of-two table, grown at half full.
struct inode_slot {
    dev_t dev;
    ino_t ino;
    const void *value;
    bool used;
};

} // namespace

namespace ks {

struct inode_set {
    size_t mask;
    size_t count;
    inode_slot slots[1];
};

void fileutl_flush_attributes(const char *path)
{
    struct statx stx;
    (void)statx(AT_FDCWD, path, AT_STATX_FORCE_SYNC, STATX_BASIC_STATS, &stx);
}

int fileutl_report(int flags, const char *name, int err)
{
    if ((flags & FILEUTL_WALK_QUIET) == 0)
        imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_NAME_TEXT, name, imsg_strerror(err));
    return FILEUTL_WALK_ERROR;
}

namespace {

size_t slot_of(const inode_set *set, dev_t dev, ino_t ino)
{
    uint64_t h = (static_cast<uint64_t>(ino) * 0x9E3779B97F4A7C15ULL) ^ static_cast<uint64_t>(dev);
    return static_cast<size_t>(h >> 20) & set->mask;
}

inode_set *new_set(size_t size)
{
    size_t bytes = sizeof(inode_set) + (size - 1) * sizeof(inode_slot);
    auto *set = static_cast<inode_set *>(stg_malloc(bytes));
    if (set == nullptr)
        return nullptr;
    memset(static_cast<void *>(set), 0, bytes);
    set->mask = size - 1;
    return set;
}

inode_slot *find_slot(inode_set *set, dev_t dev, ino_t ino)
{
    size_t i = slot_of(set, dev, ino);
    while (set->slots[i].used && (set->slots[i].dev != dev || set->slots[i].ino != ino))
        i = (i + 1) & set->mask;
    return &set->slots[i];
}

bool grow(inode_set **set)
{
    size_t size = *set == nullptr ? 64 : ((*set)->mask + 1) * 2;
    inode_set *bigger = new_set(size);
    if (bigger == nullptr)
        return false;
    if (*set != nullptr) {
        for (size_t i = 0; i <= (*set)->mask; i++)
            if ((*set)->slots[i].used)
                *find_slot(bigger, (*set)->slots[i].dev, (*set)->slots[i].ino) = (*set)->slots[i];
        bigger->count = (*set)->count;
        stg_free(*set);
    }
    *set = bigger;
    return true;
}

} // namespace

int inode_set_add(inode_set **set, dev_t dev, ino_t ino, const void *value, const void **found)
{
    if ((*set == nullptr || (*set)->count * 2 >= (*set)->mask) && !grow(set))
        return -1;
    inode_slot *s = find_slot(*set, dev, ino);
    if (s->used) {
        *found = s->value;
        return 1;
    }
    *s = {dev, ino, value, true};
    (*set)->count++;
    return 0;
}

void inode_set_free(inode_set **set)
{
    stg_free(*set);
    *set = nullptr;
}

} // namespace ks

int fileutl_walk_tree(const char *root, const fileutl_walk_cb_t *chain, int flags)
{
    return walk(root, chain, &kRealOps, flags, nullptr);
}

int fileutl_walk_tree_any(const char *root, const fileutl_walk_cb_t *chain,
                          const fileutl_fs_ops_t *ops, int flags)
{
    return walk(root, chain, ops, flags, nullptr);
}

int fileutl_scan_tree(const char *root, const fileutl_walk_cb_t *chain, int flags,
                      int (*order)(const char *a, const char *b))
{
    return walk(root, chain, &kRealOps, flags, order != nullptr ? order : byte_order);
}

int fileutl_du_one(void *data, const char *path, const char *root, const char *dir,
                   const char *name, const struct stat *st, int pass, int depth)
{
    (void)path, (void)root, (void)dir, (void)name, (void)depth;
    auto *du = static_cast<fileutl_du_t *>(data);
    if (pass != FILEUTL_WALK_BEFORE)
        return 0;
    if (!S_ISDIR(st->st_mode) && st->st_nlink > 1) {
        auto *seen = static_cast<ks::inode_set *>(du->seen);
        const void *ignored;
        int rc = ks::inode_set_add(&seen, st->st_dev, st->st_ino, nullptr, &ignored);
        du->seen = seen;
        if (rc < 0)
            return FILEUTL_WALK_ERROR;
        if (rc > 0)
            return 0;
    }
    du->bytes += static_cast<uint64_t>(st->st_size);
    du->blocks += static_cast<uint64_t>(st->st_blocks);
    if (S_ISDIR(st->st_mode))
        du->dirs++;
    else
        du->files++;
    return 0;
}

void fileutl_du_release(fileutl_du_t *du)
{
    auto *seen = static_cast<ks::inode_set *>(du->seen);
    ks::inode_set_free(&seen);
    du->seen = nullptr;
}

int fileutl_du(const char *path, int flags, fileutl_du_t *du)
{
    *du = fileutl_du_t{};
    fileutl_walk_cb_t cb = {nullptr, FILEUTL_WALK_BEFORE, fileutl_du_one, du};
    int rc = fileutl_walk_tree(path, &cb, flags | FILEUTL_WALK_DESCEND);
    fileutl_du_release(du);
    return rc;
}
